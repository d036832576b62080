// The hosted device: a driver loaded for a device node whose UART resource leads, through the
// Resource Hub, to the simulated controller, the wire and the chip.
#include <gtest/gtest.h>

#include <cstring>

#include "pnp/client.h"
#include "pnp/system.h"
#include "sim/device/device.h"
#include "sim_testkit/client.h"
#include "uart_probe.h"

namespace mvgps::sim
{
namespace
{

using Bytes = std::vector<std::uint8_t>;

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
    std::unique_ptr<HostedDevice> start(DeviceConfig c = {})
    {
        c.image = UART_PROBE_PATH;
        std::string error;
        auto device = HostedDevice::start(std::move(c), error);
        EXPECT_NE(device, nullptr) << error;
        if (device) {
            EXPECT_EQ(pnp::ClientHandle::open_interface(GUID_DEVINTERFACE_UART_PROBE, client),
                      STATUS_SUCCESS);
        }
        return device;
    }

    template <class T>
    UPROBE_RESULT serial(ULONG code, const T& t)
    {
        Bytes in(sizeof code + sizeof t);
        std::memcpy(in.data(), &code, sizeof code);
        std::memcpy(in.data() + sizeof code, &t, sizeof t);
        Bytes out(sizeof(UPROBE_RESULT));
        EXPECT_EQ(client->ioctl(IOCTL_UPROBE_CONTROL, in, out), STATUS_SUCCESS);
        UPROBE_RESULT r;
        std::memcpy(&r, out.data(), sizeof r);
        return r;
    }

    UPROBE_RESULT read(ULONG timeout_ms, Bytes& data)
    {
        Bytes in(sizeof timeout_ms);
        std::memcpy(in.data(), &timeout_ms, sizeof timeout_ms);
        Bytes out(sizeof(UPROBE_RESULT) + 2048);
        ULONG_PTR returned = 0;
        EXPECT_EQ(client->ioctl(IOCTL_UPROBE_READ, in, out, &returned), STATUS_SUCCESS);
        UPROBE_RESULT r;
        std::memcpy(&r, out.data(), sizeof r);
        data.assign(out.begin() + sizeof r, out.begin() + static_cast<long>(returned));
        return r;
    }

    sched::Install sched_{sched::make_simulated(sched::seed_from_env())};
    std::unique_ptr<pnp::ClientHandle> client;
};

TEST_F(HostedDeviceTest, ResourceHubLeadsTheDriverToTheControllerAtTheDeviceRate)
{
    DeviceConfig c;
    c.capture = std::string(MVGPS_NMEA_DIR) + "/bu353s4.log";
    auto device = start(c);
    ASSERT_NE(device, nullptr);
    const auto path = pnp::resource_hub_path(kUartConnectionId);
    EXPECT_EQ(path, u"\\Device\\RESOURCE_HUB\\0000000100000002");
    EXPECT_EQ(io::lookup(path).get(), &device->controller());

    Bytes out(sizeof(ULONG));
    ASSERT_EQ(client->ioctl(IOCTL_UPROBE_BAUD, {}, out), STATUS_SUCCESS);
    ULONG baud;
    std::memcpy(&baud, out.data(), sizeof baud);
    EXPECT_EQ(baud, 921600u) << "BaudRateIndex in the device's Parameters";
    EXPECT_EQ(device->controller().settings().rate, 921600u);
    EXPECT_EQ(device->chip()->rate(), 921600u);

    std::unique_ptr<io::LowerFile> second;
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
    auto device = start();
    ASSERT_NE(device, nullptr);
    for (const auto& c : cases) {
        device->chip()->set_power(c.chip_on);
        testkit::run_for(60 * sched::kMillisecond); // past the chip's boot
        EXPECT_EQ(serial(IOCTL_SERIAL_PURGE, ULONG{0x0A}).Status, STATUS_SUCCESS) << c.name;
        ASSERT_EQ(serial(IOCTL_SERIAL_SET_TIMEOUTS, c.timeouts).Status, STATUS_SUCCESS) << c.name;
        Bytes data;
        const UPROBE_RESULT r = read(50, data);
        EXPECT_EQ(r.Status, c.status) << c.name;
        EXPECT_EQ(r.Bytes, data.size()) << c.name;
        EXPECT_EQ(!data.empty(), c.bytes) << c.name;
    }
}

TEST_F(HostedDeviceTest, SaysWhatKeepsItFromStarting)
{
    struct Case {
        const char* name;
        DeviceConfig config;
        const char* reason;
    } cases[] = {
        {"missing capture", config(UART_PROBE_PATH, "/nonexistent.log"), "/nonexistent.log"},
        {"missing driver", config("/nonexistent.so"), "did not start"},
        {"real port under simulation", config(UART_PROBE_PATH, "", "/dev/ttyS0"), "realtime"},
    };
    for (auto& c : cases) {
        std::string error;
        EXPECT_EQ(HostedDevice::start(c.config, error), nullptr) << c.name;
        EXPECT_NE(error.find(c.reason), std::string::npos) << c.name << ": " << error;
    }
}

} // namespace
} // namespace mvgps::sim
