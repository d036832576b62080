// The framework driver object, created by the driver's WdfDriverCreate from the system
// driver object that the loader hands to DriverEntry, and its Parameters registry key.
#pragma once

#include <map>
#include <string>

#include "host/wdf/object.h"

// The system's driver object as the host's loader fills it in before DriverEntry.
struct _DRIVER_OBJECT {
    std::u16string service_name;
    // The service key's Parameters values (REG_DWORD), names compared case-insensitively.
    std::map<std::u16string, ULONG> parameters;
    // The framework driver created on it, if any.
    WDFDRIVER framework_driver = nullptr;
};

namespace mvgps::wdf
{

class Driver final : public Object
{
  public:
    Driver(PDRIVER_OBJECT system, const WDF_DRIVER_CONFIG& config)
        : Object(Kind::Driver), system_(system), config_(config)
    {
    }

    // The driver that objects created without a parent belong to: the newest one loaded.
    static Driver* current();

    PDRIVER_OBJECT system() const { return system_; }
    const WDF_DRIVER_CONFIG& config() const { return config_; }
    // Runs EvtDriverUnload and deletes the driver object with everything under it.
    void unload();

    bool driver_may_delete() const override { return false; }
    void teardown() override;

  private:
    PDRIVER_OBJECT system_;
    WDF_DRIVER_CONFIG config_;
};

} // namespace mvgps::wdf
