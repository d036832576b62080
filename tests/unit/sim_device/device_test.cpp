// The hosted device: a driver loaded for a device node whose UART resource leads, through the
// Resource Hub, to the simulated controller, the wire and the chip.
#include <gtest/gtest.h>

#include "pnp/client.h"
#include "pnp/system.h"
#include "sim/device/device.h"
#include "sim_testkit/captures.h"
#include "sim_testkit/client.h"
#include "uart_probe.h"

namespace mvgps::sim
{
namespace
{

using testkit::Bytes;
using testkit::bytes_of;

DeviceConfig config(std::string image, std::string capture = {}, std::string tty = {})
{
    DeviceConfig c;
    c.image = std::move(image);
    c.capture = std::move(capture);
    c.tty = std::move(tty);
    return c;
}

class HostedDeviceTest : public ::testing::Test
{
  protected:
    void start(DeviceConfig c = config(UART_PROBE_PATH))
    {
        std::string error;
        device = HostedDevice::start(std::move(c), error);
        ASSERT_NE(device, nullptr) << error;
        ASSERT_EQ(pnp::ClientHandle::open_interface(GUID_DEVINTERFACE_UART_PROBE, client),
                  STATUS_SUCCESS);
    }

    // What the driver's synchronous read returned, with a send timeout of 50 ms.
    UPROBE_RESULT read(const SERIAL_TIMEOUTS& timeouts, Bytes& data)
    {
        Bytes out(sizeof(UPROBE_RESULT) + 2048);
        ULONG_PTR returned = 0;
        EXPECT_EQ(
            client->ioctl(IOCTL_UPROBE_READ, bytes_of(UPROBE_READ{50, timeouts}), out, &returned),
            STATUS_SUCCESS);
        UPROBE_RESULT r;
        std::memcpy(&r, out.data(), sizeof r);
        data.assign(out.begin() + sizeof r, out.begin() + static_cast<long>(returned));
        return r;
    }

    sched::Install sched_{sched::make_simulated(sched::seed_from_env())};
    std::unique_ptr<HostedDevice> device;
    std::unique_ptr<pnp::ClientHandle> client;
};

TEST_F(HostedDeviceTest, ResourceHubLeadsTheDriverToTheControllerAtTheDeviceRate)
{
    const auto capture = testkit::nmea_dir() / "bu353s4.log";
    SKIP_WITHOUT_CAPTURES(capture);
    start(config(UART_PROBE_PATH, capture.string()));
    const auto path = pnp::resource_hub_path(kUartConnectionId);
    EXPECT_EQ(path, u"\\Device\\RESOURCE_HUB\\0000000100000002");
    EXPECT_EQ(io::lookup(path).get(), &device->controller());

    Bytes out(sizeof(ULONG));
    ASSERT_EQ(client->ioctl(IOCTL_UPROBE_BAUD, {}, out), STATUS_SUCCESS);
    EXPECT_EQ(out, bytes_of(ULONG{921600})) << "BaudRateIndex in the device's Parameters";
    EXPECT_EQ(device->controller().settings().rate, 921600u);
    EXPECT_EQ(device->chip()->rate(), 921600u);

    std::unique_ptr<io::File> second;
    EXPECT_EQ(io::open(path, {}, second), STATUS_SHARING_VIOLATION) << "the driver holds it";
}

TEST_F(HostedDeviceTest, SynchronousReadsEndAsTheFrameworkReportsThem)
{
    struct Case {
        const char* name;
        bool chip_on;
        SERIAL_TIMEOUTS timeouts;
        NTSTATUS status;
        bool bytes;
    } cases[] = {
        {"interval timer ends the read", true, {10, 0, 0, 0, 0}, STATUS_TIMEOUT, true},
        {"no byte before the send timeout", false, {10, 0, 0, 0, 0}, STATUS_IO_TIMEOUT, false},
        {"send timeout with bytes so far", true, {0, 0, 0, 0, 0}, STATUS_IO_TIMEOUT, true},
    };
    for (const auto& c : cases) {
        client.reset();
        device.reset();
        start();
        device->chip()->set_power(c.chip_on);
        testkit::run_for(60 * sched::kMillisecond); // past the chip's boot
        Bytes data;
        const UPROBE_RESULT r = read(c.timeouts, data);
        EXPECT_EQ(r.Status, c.status) << c.name;
        EXPECT_EQ(r.Bytes, data.size()) << c.name;
        EXPECT_EQ(!data.empty(), c.bytes) << c.name;
    }
}

TEST_F(HostedDeviceTest, SaysWhatKeepsItFromStarting)
{
    struct Case {
        DeviceConfig config;
        const char* reason;
    } cases[] = {
        {config(UART_PROBE_PATH, "/nonexistent.log"), "/nonexistent.log"},
        {config("/nonexistent.so"), "did not start"},
        {config(UART_PROBE_PATH, "", "/dev/ttyS0"), "realtime"},
    };
    for (auto& c : cases) {
        std::string error;
        EXPECT_EQ(HostedDevice::start(c.config, error), nullptr) << c.reason;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }
}

} // namespace
} // namespace mvgps::sim
