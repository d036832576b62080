// A simulated scheduler and a framework driver object, as the loader would create them.
#pragma once

#include <gtest/gtest.h>
#include <wdf.h>

#include <memory>

#include "host/sched/sched.h"
#include "host/wdf/device.h"
#include "host/wdf/driver.h"

namespace mvgps::wdf::test
{

class FrameworkTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        WDF_DRIVER_CONFIG config;
        WDF_DRIVER_CONFIG_INIT(&config, nullptr);
        config.DriverPoolTag = 0x54534554;
        ASSERT_EQ(WdfDriverCreate(&system_, nullptr, WDF_NO_OBJECT_ATTRIBUTES, &config, &driver_),
                  STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (system_.framework_driver) {
            Objects::get<Driver>(driver_, Kind::Driver, "test")->unload();
        }
    }

    // A function device of the test driver, as its EvtDriverDeviceAdd would create it.
    WDFDEVICE make_device(PWDF_OBJECT_ATTRIBUTES attributes = WDF_NO_OBJECT_ATTRIBUTES)
    {
        WDFDEVICE_INIT init;
        init.driver = Objects::get<Driver>(driver_, Kind::Driver, "test");
        PWDFDEVICE_INIT record = &init;
        WDFDEVICE device = nullptr;
        EXPECT_EQ(WdfDeviceCreate(&record, attributes, &device), STATUS_SUCCESS);
        return device;
    }

    sched::Install sched_{sched::make_simulated(sched::seed_from_env())};
    _DRIVER_OBJECT system_;
    WDFDRIVER driver_ = nullptr;
};

} // namespace mvgps::wdf::test
