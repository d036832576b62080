// The whole driver in the host: its image, loaded by the PnP manager for one device node
// whose resources, Parameters and serial ports each test chooses, with the simulated chip at
// the far end of the UART. Every test ends with the device removed and the image unloaded,
// which stops the run on leaked pool, a request left pending or a thread still running in
// the image.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "driver/driver.h"
#include "host/io/names.h"
#include "host/kernel/kernel.h"
#include "host/pnp/client.h"
#include "host/pnp/stack.h"
#include "host/pnp/system.h"
#include "host/sched/sched.h"
#include "sim/device/device.h"
#include "sim/testkit/client.h"

namespace mvgps::test
{

using Bytes = std::vector<std::uint8_t>;
using sched::kMillisecond;
using sched::kSecond;
using sim::chip::Fault;
using sim::chip::Frame;
using sim::testkit::le32;

// A raw-command record as a client builds it: header, then the payload.
inline Bytes command(std::uint8_t pid, std::uint8_t sid, const Bytes& payload)
{
    Bytes r(7 + payload.size());
    r[0] = 0xA5;
    r[2] = static_cast<std::uint8_t>(r.size());
    r[3] = pid;
    r[4] = sid;
    r[5] = static_cast<std::uint8_t>(payload.size() >> 8);
    r[6] = static_cast<std::uint8_t>(payload.size());
    std::copy(payload.begin(), payload.end(), r.begin() + 7);
    return r;
}

// A driver field that its threads change with interlocked or release stores, read as they
// do, so that a real-time run under ThreadSanitizer sees no race.
template <class T>
T peek(const volatile T& field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

// The Resource Hub id the simulated UART answers to, and a serial port's link.
inline constexpr std::uint64_t kUartId = sim::kUartConnectionId;
inline constexpr char16_t kSerialPort[] = u"\\DosDevices\\COM7";

struct Node {
    std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> resources{pnp::uart_connection(kUartId)};
    std::optional<ULONG> baud_rate = 921600; // BaudRateIndex; none: the value is absent
    bool serial_port = false;                // the UART is also a serial-port interface
    bool chip_silent = false;                // the chip is powered off
    bool uart_held = false;                  // another opener holds the UART
    ULONG log_mask = DEBUG_LOG_MASK_DEFAULT; // DebugLogMask from the image's load on
};

class DriverTest : public testing::Test
{
  protected:
    DriverTest();
    ~DriverTest() override;

    // Builds the world at the chip's rate (the driver's, unless it sets none) and starts the
    // device; the status is the start's.
    NTSTATUS start(const Node& node = {}, std::uint32_t chip_rate = 0);
    // Starts, expects success and waits for the child.
    void start_running(const Node& node = {});
    // Removes the device, unloads the driver and takes the world down.
    void remove();

    // Whether start() has built the world (it may still be starting the device).
    bool built() const { return built_.load(); }
    pnp::DeviceStack& stack() { return device_->stack(); }
    sim::chip::Chip& chip() { return *device_->chip(); }
    sim::uart::SerialController& uart() { return device_->controller(); }
    // The driver's context of the function device, found through the image's own type.
    FdoExtension& ext();
    // One of the image's routines or context types, by its symbol, for what no control code
    // reaches.
    template <class T>
    static T* image_symbol_as(const char* symbol)
    {
        return reinterpret_cast<T*>(image_symbol(symbol));
    }
    // The image's DebugLogMask, as a debugger would patch it.
    void set_log_mask(ULONG mask);
    std::unique_ptr<pnp::ClientHandle> open_parent();
    std::unique_ptr<pnp::ClientHandle> open_child();
    // NMEA off, and what was queued read: only answers reach readers from then on.
    void quiet_chip(pnp::ClientHandle& client);
    // The frame behind the 16-byte header of a completed read, whose fields are checked.
    static Bytes read_frame(const pnp::PendingIo& io);

    static std::string log() { return kernel::debug_output(); }
    static bool logged(const std::string& text) { return log().find(text) != std::string::npos; }
    static std::size_t count(const std::string& text);
    // Whether the lines appear in this order (not necessarily next to each other).
    static bool logged_in_order(const std::vector<std::string>& texts);
    // Frames the chip received with this pid (any pid when negative), in order.
    std::vector<Frame> chip_received(int pid = -1) const;
    // How many frames the chip heard with this pid and sid.
    std::size_t chip_heard(std::uint8_t pid, std::uint8_t sid) const;
    static void run_for(sched::Nanos d) { sim::testkit::run_for(d); }
    // Lets the simulation run until the condition holds; false after a second without.
    static bool wait_until(const std::function<bool()>& done, sched::Nanos timeout = kSecond);
    static sched::Nanos now() { return sched::current().now(); }
    static bool simulated() { return sched::current().mode() == sched::Mode::Simulated; }

  private:
    static void* image_symbol(const char* name);

    sched::Install sched_;
    std::unique_ptr<sim::HostedDevice> device_;
    // Set once device_ is in place, for a test that starts the device on a thread of its own.
    std::atomic<bool> built_{false};
    std::unique_ptr<io::File> holder_; // another opener of the UART
};

// A running device with a client of the bus device open, closed before the device goes.
class ClientTest : public DriverTest
{
  protected:
    void SetUp() override
    {
        start_running();
        client_ = open_parent();
    }
    void TearDown() override
    {
        client_.reset();
        remove();
    }
    std::unique_ptr<pnp::ClientHandle> client_;
};

} // namespace mvgps::test
