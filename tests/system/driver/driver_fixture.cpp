#include "driver_fixture.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>

#include "control/control.h"
#include "read/read.h"

#include "host/wdf/faults.h"

namespace mvgps::test
{

namespace
{

// The driver's provider of trace events, as its debug log registers it.
constexpr GUID kTraceProvider = {
    0x6B0E6E2D, 0x3F4A, 0x4C1B, {0x9E, 0x57, 0x2A, 0x8D, 0x5C, 0x7F, 0x1E, 0x93}};

} // namespace

DriverTest::DriverTest() : sched_(sched::make_from_env())
{
    kernel::clear_debug_output();
    kernel::clear_trace_events();
    kernel::enable_trace(kTraceProvider, true);
}

DriverTest::~DriverTest()
{
    remove();
    kernel::enable_trace(kTraceProvider, false);
    wdf::faults::clear();
}

void DriverTest::remove()
{
    if (!device_) {
        return;
    }
    stack().remove();
    stack().unload();
    EXPECT_EQ(kernel::registered_providers(), 0u) << "the trace provider outlived the driver";
    holder_.reset();
    built_ = false;
    device_.reset();
}

NTSTATUS DriverTest::start(const Node& node, std::uint32_t chip_rate)
{
    remove();
    sim::DeviceConfig config;
    config.image = MVGPS_DRIVER_PATH;
    config.rate = chip_rate != 0 ? chip_rate : node.baud_rate.value_or(9600);
    config.resources = node.resources;
    config.baud_rate_index = node.baud_rate;
    config.baud_rate_index_absent = !node.baud_rate;
    config.chip.nmea_on = false;
    if (node.serial_port) {
        config.serial_port = kSerialPort;
    }
    device_ = std::make_unique<sim::HostedDevice>(std::move(config));
    built_ = true;
    if (node.chip_silent) {
        chip().set_power(false);
    }
    if (node.uart_held) {
        EXPECT_EQ(uart().open({}, holder_), STATUS_SUCCESS);
    }

    NTSTATUS status = stack().load();
    if (!NT_SUCCESS(status)) {
        return status;
    }
    set_log_mask(node.log_mask);
    status = stack().add();
    if (NT_SUCCESS(status)) {
        status = stack().start();
    }
    if (!NT_SUCCESS(status)) {
        stack().unload();
    }
    return status;
}

void DriverTest::start_running(const Node& node)
{
    ASSERT_EQ(start(node), STATUS_SUCCESS);
    ASSERT_TRUE(stack().wait_for_children(1, sched::current().now() + kSecond));
}

// The image stays the PnP manager's: a handle of our own would keep it mapped after unload.
void* DriverTest::image_symbol(const char* name)
{
    void* image = dlopen(MVGPS_DRIVER_PATH, RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(image, nullptr);
    void* symbol = image != nullptr ? dlsym(image, name) : nullptr;
    if (image != nullptr) {
        dlclose(image);
    }
    EXPECT_NE(symbol, nullptr) << name;
    return symbol;
}

void DriverTest::set_log_mask(ULONG mask)
{
    *static_cast<ULONG*>(image_symbol("DebugLogMask")) = mask;
}

FdoExtension& DriverTest::ext()
{
    auto* type =
        static_cast<PCWDF_OBJECT_CONTEXT_TYPE_INFO>(image_symbol("_WDF_FdoExtension_TYPE_INFO"));
    EXPECT_NE(stack().fdo(), nullptr);
    return *static_cast<FdoExtension*>(
        WdfObjectGetTypedContextWorker(stack().fdo()->handle(), type));
}

std::unique_ptr<pnp::ClientHandle> DriverTest::open_parent()
{
    std::unique_ptr<pnp::ClientHandle> handle;
    EXPECT_EQ(pnp::ClientHandle::open_device(stack().fdo(), handle), STATUS_SUCCESS);
    return handle;
}

std::unique_ptr<pnp::ClientHandle> DriverTest::open_child()
{
    std::unique_ptr<pnp::ClientHandle> handle;
    std::vector<wdf::Device*> children = stack().children();
    EXPECT_EQ(children.size(), 1u);
    if (!children.empty()) {
        EXPECT_EQ(pnp::ClientHandle::open_device(children[0], handle), STATUS_SUCCESS);
    }
    return handle;
}

std::size_t DriverTest::count(const std::string& text)
{
    std::string all = log();
    std::size_t n = 0;
    for (std::size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) {
        n++;
    }
    return n;
}

bool DriverTest::logged_in_order(const std::vector<std::string>& texts)
{
    std::string all = log();
    std::size_t at = 0;
    for (const std::string& t : texts) {
        at = all.find(t, at);
        if (at == std::string::npos) {
            return false;
        }
        at += t.size();
    }
    return true;
}

bool DriverTest::wait_until(const std::function<bool()>& done, sched::Nanos timeout)
{
    const sched::Nanos deadline = now() + timeout;
    while (!done()) {
        if (sched::current().now() >= deadline) {
            return false;
        }
        run_for(kMillisecond);
    }
    return true;
}

std::vector<Frame> DriverTest::chip_received(int pid) const
{
    std::vector<Frame> frames;
    for (const sim::chip::TraceEntry& e : device_->chip()->trace()) {
        if (!e.sent && (pid < 0 || e.frame.pid == pid)) {
            frames.push_back(e.frame);
        }
    }
    return frames;
}

std::size_t DriverTest::chip_heard(std::uint8_t pid, std::uint8_t sid) const
{
    std::vector<Frame> frames = chip_received(pid);
    return std::count_if(frames.begin(), frames.end(),
                         [sid](const Frame& f) { return f.sid == sid; });
}

void DriverTest::quiet_chip(pnp::ClientHandle& client)
{
    ASSERT_EQ(client.ioctl(IOCTL_VC_GPS_DISABLE_NMEA, {}, {}), STATUS_SUCCESS);
    run_for(1100 * kMillisecond);
    std::shared_ptr<pnp::PendingIo> drain;
    do {
        drain = client.ioctl_async(IOCTL_VC_GPS_START_READ, {}, 256);
    } while (drain->wait(now() + 50 * kMillisecond));
    drain->cancel();
    ASSERT_TRUE(drain->wait(now() + kSecond));
}

Bytes DriverTest::read_frame(const pnp::PendingIo& io)
{
    EXPECT_EQ(io.status(), STATUS_SUCCESS);
    std::span<const std::uint8_t> out = io.output().first(io.information());
    if (out.size() < READ_COMPLETION_HEADER_SIZE) {
        ADD_FAILURE() << "a read returned " << out.size() << " bytes";
        return {};
    }
    std::uint32_t header[3];
    std::memcpy(header, &out[4], sizeof(header));
    EXPECT_EQ(out[0], READ_COMPLETION_TYPE);
    EXPECT_EQ(header[0], out.size() - READ_COMPLETION_HEADER_SIZE);
    EXPECT_EQ(header[1], 1u);
    EXPECT_EQ(header[2], 2u);
    return Bytes(out.begin() + READ_COMPLETION_HEADER_SIZE, out.end());
}

} // namespace mvgps::test
