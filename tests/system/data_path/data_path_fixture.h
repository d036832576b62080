// The data path in the host: the data-path test driver loaded by the PnP manager for one
// device whose UART is a simulated controller, with the simulated chip (or a scripted peer)
// at the far end of the wire. Every test ends with the device removed and the image
// unloaded, which stops the run on leaked pool or a request left pending.
#pragma once

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <initguid.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "data_path.h"
#include "link/command.h"
#include "read/read.h"
#include "kernel/kernel.h"
#include "pnp/client.h"
#include "pnp/stack.h"
#include "sched/sched.h"
#include "sim/chip/chip.h"
#include "sim/uart/controller.h"
#include "sim/uart/wire.h"
#include "sim_testkit/client.h"
#include "wdf/faults.h"

namespace mvgps::test
{

using Bytes = std::vector<std::uint8_t>;
using sched::kMillisecond;
using sched::kSecond;
using sim::chip::Frame;

// Two fixes of a receiver, one sentence per frame.
inline constexpr const char* kTwoEpochs =
    "$GPGGA,120000.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*4F\r\n"
    "$GPRMC,120000.00,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n"
    "$GPGGA,120001.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*4E\r\n"
    "$GPRMC,120001.00,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6B\r\n";

inline sim::chip::ChipConfig quiet_chip()
{
    sim::chip::ChipConfig c;
    c.nmea_on = false;
    return c;
}

// NMEA on: an epoch of two sentences every second.
inline sim::chip::ChipConfig talking_chip()
{
    sim::chip::ChipConfig c;
    c.capture = std::make_shared<const sim::chip::Capture>(sim::chip::Capture::parse(kTwoEpochs));
    return c;
}

// The 16-byte header a completed read starts with, then the frame.
struct ReadRecord {
    std::uint8_t type = 0;
    std::uint32_t length = 0;
    std::uint32_t one = 0;
    std::uint32_t two = 0;
    Bytes frame;
};
ReadRecord parse_read(std::span<const std::uint8_t> out, std::size_t information);

// A driver field that its threads change with interlocked or release stores, read as they
// do, so that a real-time run under ThreadSanitizer sees no race.
template <class T>
T peek(const volatile T& field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

class DataPath : public testing::Test
{
  protected:
    DataPath();
    ~DataPath() override;

    // Brings the device up against the simulated chip, or against a scripted peer that the
    // test drives byte by byte.
    void start_with_chip(sim::chip::ChipConfig config = quiet_chip());
    void start_with_peer();
    // Removes the device (the stop order runs) and unloads the image.
    void remove();

    FdoExtension& ext() { return *ops_->Extension(); }
    const DATA_PATH_OPS& ops() { return *ops_; }
    sim::chip::Chip& chip() { return *chip_; }
    sim::testkit::Client& peer() { return *peer_; }
    sim::uart::SerialController& uart() { return *uart_; }

    std::shared_ptr<pnp::PendingIo> read(std::size_t length = 256);
    std::shared_ptr<pnp::PendingIo> send_cmd(std::uint8_t pid, std::uint8_t sid,
                                             const Bytes& payload, std::size_t out_length);
    // xfer_hci_pkt_core on a thread of its own; the result arrives in *result.
    void xfer_async(std::uint8_t pid, std::uint8_t sid, Bytes payload, LONG* result,
                    Bytes* answer = nullptr, ULONG wait_ack = 1);
    LONG xfer(std::uint8_t pid, std::uint8_t sid, const Bytes& payload = {},
              Bytes* answer = nullptr, ULONG wait_ack = 1);

    // Lets the simulation run; waits (in its time) until the condition holds.
    static void run_for(sched::Nanos d) { sim::testkit::run_for(d); }
    static bool wait_until(const std::function<bool()>& done, sched::Nanos timeout = kSecond);
    static sched::Nanos now() { return sched::current().now(); }
    static std::string log() { return kernel::debug_output(); }
    // Frames the chip received with this pid, in order.
    std::vector<Frame> chip_received(std::uint8_t pid) const;
    // Whether a read thread has signalled its end since the device came up.
    bool read_thread_ended()
    {
        return log().find("OsSetSignal Threadread_FinishSignal") != std::string::npos;
    }
    static bool simulated() { return sched::current().mode() == sched::Mode::Simulated; }

    // The scripted peer keeps the read thread alive as a chip does, with a status frame
    // every 25 ms, until it is told to stop.
    void keep_alive();
    void stop_keep_alive();

    sched::Install sched_;
    sim::uart::Wire wire_;
    std::shared_ptr<sim::uart::SerialController> uart_;
    std::unique_ptr<sim::chip::Chip> chip_;
    std::unique_ptr<sim::testkit::Client> peer_;
    std::unique_ptr<pnp::DeviceStack> stack_;
    std::unique_ptr<pnp::ClientHandle> client_;
    const DATA_PATH_OPS* ops_ = nullptr;
    bool keep_alive_ = false;
    std::vector<sched::Thread*> helpers_;

  private:
    void bring_up();
};

} // namespace mvgps::test
