// Shared set-up of the link tests: a simulated scheduler, the driver-wide receive state
// cleared, and a handler that records every frame the receive path hands over.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "link/hci.h"
#include "sched/sched.h"

namespace mvgps::test
{

using Bytes = std::vector<std::uint8_t>;

struct Delivered {
    Bytes frame;
    std::uint8_t crc_flag;
    bool operator==(const Delivered&) const = default;
};

struct Recorder {
    std::vector<Delivered> frames;
    LONG result = 0;
};

inline LONG record_frame(const UCHAR* frame, USHORT len, UCHAR crc_flag, PVOID context)
{
    auto* recorder = static_cast<Recorder*>(context);
    recorder->frames.push_back({Bytes(frame, frame + len), crc_flag});
    return recorder->result;
}

// "A5 80 02": bytes written as hex pairs.
inline Bytes hex(const char* text)
{
    Bytes bytes;
    for (const char* p = text; *p != '\0';) {
        if (*p == ' ') {
            p++;
            continue;
        }
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(std::string(p, 2), nullptr, 16)));
        p += 2;
    }
    return bytes;
}

// The frame exactly as the driver transmits it; padded keeps the 0xFF fill after the tail.
inline Bytes tx_frame(std::uint8_t crc, std::uint8_t pid, std::uint8_t sid,
                      const Bytes& payload = {}, bool padded = false)
{
    hci_tx_packet* packet =
        create_hci_tx_packet(crc, pid, sid, payload.empty() ? nullptr : payload.data(),
                             static_cast<USHORT>(payload.size()));
    if (packet == nullptr) {
        ADD_FAILURE() << "frame not built";
        return {};
    }
    std::size_t size = (crc ? 10u : 8u) + payload.size() - (payload.empty() ? 2 : 0);
    Bytes bytes(packet->buffer, packet->buffer + (padded ? packet->buffer_len : size));
    free_hci_tx_packet(packet);
    return bytes;
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// One debug-log line as the driver prints it, less the source line number.
inline std::string log_line(const char* function, const std::string& message)
{
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%-40.39s  ", function);
    return prefix + message;
}

class LinkTest : public testing::Test
{
  protected:
    LinkTest() : sched_(sched::make_simulated(sched::seed_from_env())) {}

    void SetUp() override
    {
        reset_counters();
        set_hci_endian_mode(0);
        set_pkt_parse_callback(record_frame);
        init_hci_circ(&circ_);
        kernel::clear_debug_output();
    }

    void TearDown() override
    {
        kernel::clear_pool_faults();
        set_pkt_parse_callback(nullptr);
    }

    static void reset_counters()
    {
        cnt_no_sync = cnt_full = cnt_short = cnt_part = 0;
        cnt_large = cnt_ipsid = cnt_no_tail = 0;
    }
    void recv(const Bytes& chunk)
    {
        recv_hci_buffer(chunk.data(), static_cast<USHORT>(chunk.size()), &recorder_, &circ_);
    }
    LONG scan(const Bytes& chunk)
    {
        return process_buff(chunk.data(), static_cast<USHORT>(chunk.size()), &recorder_, &circ_);
    }
    std::vector<Bytes> frames() const
    {
        std::vector<Bytes> out;
        for (const Delivered& d : recorder_.frames) {
            out.push_back(d.frame);
        }
        return out;
    }
    static std::string log() { return kernel::debug_output(); }

    sched::Install sched_;
    Recorder recorder_;
    hci_circ circ_{};
};

} // namespace mvgps::test
