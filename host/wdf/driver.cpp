#include "wdf/driver.h"

#include <algorithm>
#include <vector>

#include "sched/sched.h"
#include "io/fold.h"
#include "wdf/rules.h"

namespace mvgps::wdf
{
namespace
{

// Guarded by the scheduler's state lock.
std::vector<Driver*>& loaded()
{
    static std::vector<Driver*> drivers;
    return drivers;
}

std::u16string to_string(PCUNICODE_STRING text)
{
    return std::u16string(reinterpret_cast<const char16_t*>(text->Buffer),
                          text->Length / sizeof(WCHAR));
}

class RegistryKey final : public Object
{
  public:
    explicit RegistryKey(const std::map<std::u16string, ULONG>& values) : Object(Kind::Key)
    {
        for (const auto& [name, value] : values) {
            values_[io::fold(name)] = value;
        }
    }
    const ULONG* find(std::u16string_view name) const
    {
        auto it = values_.find(io::fold(name));
        return it == values_.end() ? nullptr : &it->second;
    }

  private:
    std::map<std::u16string, ULONG> values_;
};

} // namespace

Driver* Driver::current()
{
    sched::StateLock lock(sched::current());
    return loaded().empty() ? nullptr : loaded().back();
}

void Driver::unload()
{
    if (config_.EvtDriverUnload) {
        call_driver("EvtDriverUnload", config_.EvtDriverUnload, static_cast<WDFDRIVER>(handle()));
    }
    Objects::remove(this);
}

void Driver::teardown()
{
    sched::StateLock lock(sched::current());
    auto& drivers = loaded();
    drivers.erase(std::remove(drivers.begin(), drivers.end(), this), drivers.end());
    system_->framework_driver = nullptr;
}

} // namespace mvgps::wdf

using namespace mvgps;
using namespace mvgps::wdf;

extern "C" {

NTSTATUS WdfDriverCreate(PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath,
                         PWDF_OBJECT_ATTRIBUTES DriverAttributes, PWDF_DRIVER_CONFIG DriverConfig,
                         WDFDRIVER* Driver)
{
    UNREFERENCED_PARAMETER(RegistryPath);
    if (!DriverObject || !DriverConfig || DriverConfig->Size != sizeof(WDF_DRIVER_CONFIG)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (DriverObject->framework_driver) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    auto driver = std::make_shared<mvgps::wdf::Driver>(DriverObject, *DriverConfig);
    NTSTATUS status = Objects::attach(driver, DriverAttributes, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    {
        sched::StateLock lock(sched::current());
        loaded().push_back(driver.get());
    }
    DriverObject->framework_driver = static_cast<WDFDRIVER>(driver->handle());
    note("WdfDriverCreate");
    if (Driver) {
        *Driver = static_cast<WDFDRIVER>(driver->handle());
    }
    return STATUS_SUCCESS;
}

WDFDRIVER WdfGetDriver(VOID)
{
    mvgps::wdf::Driver* driver = mvgps::wdf::Driver::current();
    return driver ? static_cast<WDFDRIVER>(driver->handle()) : nullptr;
}

NTSTATUS WdfDriverOpenParametersRegistryKey(WDFDRIVER Driver, ACCESS_MASK DesiredAccess,
                                            PWDF_OBJECT_ATTRIBUTES KeyAttributes, WDFKEY* Key)
{
    UNREFERENCED_PARAMETER(DesiredAccess);
    auto* driver = Objects::get<mvgps::wdf::Driver>(Driver, Kind::Driver,
                                                    "WdfDriverOpenParametersRegistryKey");
    if (!Key) {
        return STATUS_INVALID_PARAMETER;
    }
    *Key = nullptr;
    auto key = std::make_shared<RegistryKey>(driver->system()->parameters);
    NTSTATUS status = Objects::attach(key, KeyAttributes, driver);
    if (NT_SUCCESS(status)) {
        *Key = static_cast<WDFKEY>(key->handle());
    }
    return status;
}

NTSTATUS WdfRegistryQueryULong(WDFKEY Key, PCUNICODE_STRING ValueName, PULONG Value)
{
    auto* key = Objects::get<RegistryKey>(Key, Kind::Key, "WdfRegistryQueryULong");
    if (!ValueName || !Value) {
        return STATUS_INVALID_PARAMETER;
    }
    const ULONG* found = key->find(to_string(ValueName));
    if (!found) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    *Value = *found;
    return STATUS_SUCCESS;
}

VOID WdfRegistryClose(WDFKEY Key)
{
    Objects::remove(Objects::get<RegistryKey>(Key, Kind::Key, "WdfRegistryClose"));
}

} // extern "C"
