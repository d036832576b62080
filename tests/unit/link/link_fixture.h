// Shared set-up of the link tests: the platform fixture, the driver-wide receive state
// cleared, and a handler that records every frame the receive path hands over.
#pragma once

#include <cstdint>
#include <vector>

#include "../os/os_fixture.h"
#include "link/codec/hci.h"

namespace mvgps::test
{

using Bytes = std::vector<std::uint8_t>;
using testing::ElementsAre;

struct Recorder {
    std::vector<Bytes> frames;
    std::vector<UCHAR> crc_flags;
    LONG result = 0;
};

inline LONG record_frame(const UCHAR* frame, USHORT len, UCHAR crc_flag, PVOID context)
{
    auto* recorder = static_cast<Recorder*>(context);
    recorder->frames.emplace_back(frame, frame + len);
    recorder->crc_flags.push_back(crc_flag);
    return recorder->result;
}

// "A5 80 02": bytes written as hex pairs.
inline Bytes hex(const char* text)
{
    Bytes bytes;
    for (unsigned int byte = 0, used = 0; std::sscanf(text, " %2x%n", &byte, &used) == 1;
         text += used) {
        bytes.push_back(static_cast<std::uint8_t>(byte));
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

class LinkTest : public OsTest
{
  protected:
    void SetUp() override
    {
        set_hci_endian_mode(0);
        set_pkt_parse_callback(record_frame);
        restart();
    }
    void TearDown() override
    {
        set_pkt_parse_callback(nullptr);
        OsTest::TearDown();
    }

    // Forgets every frame and byte received so far.
    void restart()
    {
        recorder_ = {};
        init_hci_circ(&circ_);
        cnt_no_sync = cnt_full = cnt_short = cnt_part = 0;
        cnt_large = cnt_ipsid = cnt_no_tail = 0;
        kernel::clear_debug_output();
    }
    void recv(const Bytes& chunk)
    {
        recv_hci_buffer(chunk.data(), static_cast<USHORT>(chunk.size()), &recorder_, &circ_);
    }
    LONG scan(const Bytes& chunk)
    {
        return process_buff(chunk.data(), static_cast<USHORT>(chunk.size()), &recorder_, &circ_);
    }

    Recorder recorder_;
    hci_circ circ_{};
};

} // namespace mvgps::test
