// The data path in the host: the data-path test driver loaded by the PnP manager for one
// device whose UART is a simulated controller, with the simulated chip (or a scripted peer)
// at the far end of the wire. Every test ends with the device removed and the image
// unloaded, which stops the run on leaked pool or a request left pending.
#pragma once

#include <gtest/gtest.h>

#include <initguid.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "harness/data_path/data_path_ops.h"
#include "host/kernel/kernel.h"
#include "host/pnp/client.h"
#include "link/device/command.h"
#include "read/read.h"
#include "host/sched/sched.h"
#include "sim/device/device.h"
#include "host/wdf/faults.h"

namespace mvgps::test
{

using Bytes = std::vector<std::uint8_t>;
using sched::kMillisecond;
using sched::kSecond;
using sim::chip::Fault;
using sim::chip::Frame;
using sim::testkit::le32;

// An acknowledgement as the chip sends it: err_status first in the payload.
inline Bytes ack_frame(std::uint8_t pid, std::uint8_t sid, std::uint32_t err_status = 0)
{
    return sim::chip::encode(Frame{pid, sid, true, le32(err_status)});
}

// A numbered NMEA sentence in a frame as the chip sends one.
inline Frame sentence_frame(int n)
{
    std::string text = "$GPTXT,01,01,02,frame " + std::to_string(n) + "*00\r\n";
    return Frame{0x31, 0, true, Bytes(text.begin(), text.end())};
}

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

    // Brings the device up against the simulated chip (NMEA output on when talking), or
    // against a scripted peer that the test drives byte by byte. Memory commands go
    // little-endian, as after the driver's start-up.
    void start_with_chip(bool talking = false,
                         sim::chip::ByteOrder order = sim::chip::ByteOrder::Little);
    void start_with_peer();
    // Removes the device (the stop order runs) and unloads the image.
    void remove();

    FdoExtension& ext() { return *ops_->Extension(); }
    const DATA_PATH_OPS& ops() { return *ops_; }
    sim::chip::Chip& chip() { return *device_->chip(); }
    sim::testkit::Client& peer() { return *device_->peer(); }
    sim::uart::SerialController& uart() { return device_->controller(); }

    std::shared_ptr<pnp::PendingIo> read(std::size_t length = 256);
    std::shared_ptr<pnp::PendingIo> send_cmd(std::uint8_t pid, std::uint8_t sid,
                                             std::size_t out_length);
    // The frame behind the 16-byte header of a completed read, whose fields are checked.
    static Bytes read_frame(const pnp::PendingIo& io);
    LONG xfer(std::uint8_t pid, std::uint8_t sid, const Bytes& payload = {1}, ULONG wait_ack = 1);
    // Runs a driver call on a thread of its own; the result stays INT32_MIN until it returns.
    std::shared_ptr<const LONG> call_async(std::function<LONG()> call);
    static bool returned(const LONG& result)
    {
        sched::StateLock lock(sched::current());
        return result != INT32_MIN;
    }

    // Lets the simulation run; waits (in its time) until the condition holds.
    static void run_for(sched::Nanos d) { sim::testkit::run_for(d); }
    static bool wait_until(const std::function<bool()>& done, sched::Nanos timeout = kSecond);
    static sched::Nanos now() { return sched::current().now(); }
    static std::string log() { return kernel::debug_output(); }
    static bool logged(const char* text) { return log().find(text) != std::string::npos; }
    static bool simulated() { return sched::current().mode() == sched::Mode::Simulated; }
    // Frames the chip received with this pid (any pid when negative), in order.
    std::vector<Frame> chip_received(int pid = -1) const;
    // Whether a read thread has signalled its end since the device came up.
    static bool read_thread_ended() { return logged("OsSetSignal Threadread_FinishSignal"); }

    // The scripted peer keeps the read thread alive as a chip does, with a status frame
    // every 25 ms, until it is told to stop.
    void keep_alive();
    void stop_keep_alive();

  private:
    void bring_up(sim::DeviceConfig config);
    bool keeping_alive();

    sched::Install sched_;
    std::unique_ptr<sim::HostedDevice> device_;
    std::unique_ptr<pnp::ClientHandle> client_;
    const DATA_PATH_OPS* ops_ = nullptr;
    bool keep_alive_ = false;
    std::vector<sched::Thread*> helpers_;
};

} // namespace mvgps::test
