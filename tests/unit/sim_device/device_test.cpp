// The hosted device: what keeps it from starting is said in its error, and a failed start
// leaves nothing behind. Everything a started device does, the driver's system tests reach
// through the real driver.
#include <gtest/gtest.h>

#include "sim/device/device.h"

namespace mvgps::sim
{
namespace
{

DeviceConfig config(std::string image, std::string capture = {}, std::string tty = {})
{
    DeviceConfig c;
    c.image = std::move(image);
    c.capture = std::move(capture);
    c.tty = std::move(tty);
    return c;
}

TEST(HostedDevice, SaysWhatKeepsItFromStarting)
{
    sched::Install sched{sched::make_simulated(sched::seed_from_env())};
    DeviceConfig no_objects = config(MVGPS_DRIVER_PATH);
    verifier::FaultRule rule;
    rule.site = verifier::Site::Create;
    rule.when = verifier::FaultRule::When::Every;
    rule.status = STATUS_INSUFFICIENT_RESOURCES;
    no_objects.faults = {rule};
    struct Case {
        DeviceConfig config;
        const char* reason;
    } cases[] = {
        {config(MVGPS_DRIVER_PATH, "/nonexistent.log"), "/nonexistent.log"},
        {config("/nonexistent.so"), "did not start"},
        {config(MVGPS_DRIVER_PATH, "", "/dev/ttyS0"), "realtime"},
        {no_objects, "did not start"},
    };
    for (auto& c : cases) {
        std::string error;
        EXPECT_EQ(HostedDevice::start(c.config, error), nullptr) << c.reason;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }
    // The failed device took its fault rules with it.
    std::string error;
    EXPECT_NE(HostedDevice::start(config(MVGPS_DRIVER_PATH), error), nullptr) << error;
}

} // namespace
} // namespace mvgps::sim
