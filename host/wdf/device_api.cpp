// The driver-facing calls on device init records, devices, child lists and resource lists.
#include <cstring>

#include "host/wdf/device.h"
#include "host/wdf/driver.h"
#include "host/wdf/request.h"
#include "host/wdf/rules.h"

using namespace mvgps;
using namespace mvgps::wdf;

namespace
{

PWDFDEVICE_INIT checked(PWDFDEVICE_INIT init, const char* call)
{
    if (!init) {
        violation(Rule::BadHandle, std::string("null PWDFDEVICE_INIT passed to ") + call);
    }
    return init;
}

NTSTATUS pdo_only(PWDFDEVICE_INIT init, const char* call)
{
    return checked(init, call)->pdo ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST;
}

std::u16string text(PCUNICODE_STRING s)
{
    if (!s || !s->Buffer) {
        return {};
    }
    return std::u16string(reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR));
}

Device* device_of(WDFDEVICE handle, const char* call)
{
    return Objects::get<Device>(handle, Kind::Device, call);
}

void merge(WDF_TRI_STATE& into, WDF_TRI_STATE value)
{
    if (value != WdfUseDefault) {
        into = value;
    }
}

} // namespace

extern "C" {

VOID WdfDeviceInitSetPnpPowerEventCallbacks(PWDFDEVICE_INIT DeviceInit,
                                            PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks)
{
    checked(DeviceInit, "WdfDeviceInitSetPnpPowerEventCallbacks")->pnp = *PnpPowerEventCallbacks;
}

VOID WdfDeviceInitSetPowerPolicyEventCallbacks(
    PWDFDEVICE_INIT DeviceInit, PWDF_POWER_POLICY_EVENT_CALLBACKS PowerPolicyEventCallbacks)
{
    checked(DeviceInit, "WdfDeviceInitSetPowerPolicyEventCallbacks")->power_policy =
        *PowerPolicyEventCallbacks;
}

VOID WdfDeviceInitSetDeviceType(PWDFDEVICE_INIT DeviceInit, DEVICE_TYPE DeviceType)
{
    checked(DeviceInit, "WdfDeviceInitSetDeviceType")->device_type = DeviceType;
}

VOID WdfFdoInitSetDefaultChildListConfig(PWDFDEVICE_INIT DeviceInit, PWDF_CHILD_LIST_CONFIG Config,
                                         PWDF_OBJECT_ATTRIBUTES DefaultChildListAttributes)
{
    checked(DeviceInit, "WdfFdoInitSetDefaultChildListConfig")->child_list = *Config;
    if (DefaultChildListAttributes) {
        DeviceInit->child_list_attributes = *DefaultChildListAttributes;
    }
}

NTSTATUS WdfDeviceCreate(PWDFDEVICE_INIT* DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes,
                         WDFDEVICE* Device)
{
    if (!DeviceInit || !Device) {
        return STATUS_INVALID_PARAMETER;
    }
    PWDFDEVICE_INIT init = checked(*DeviceInit, "WdfDeviceCreate");
    *Device = nullptr;
    if (init->created || (DeviceAttributes && DeviceAttributes->ParentObject)) {
        return STATUS_INVALID_PARAMETER;
    }
    auto device = std::make_shared<wdf::Device>(*init);
    NTSTATUS status = Objects::attach(device, DeviceAttributes, init->driver);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (init->child_list) {
        auto list = std::make_shared<ChildList>(device.get(), *init->child_list);
        status = Objects::attach(
            list, init->child_list_attributes ? &*init->child_list_attributes : nullptr,
            device.get());
        if (!NT_SUCCESS(status)) {
            Objects::remove(device.get());
            return status;
        }
        device->attach_child_list(list.get());
    }
    init->created = device;
    *DeviceInit = nullptr;
    *Device = static_cast<WDFDEVICE>(device->handle());
    return STATUS_SUCCESS;
}

VOID WdfDeviceSetDeviceState(WDFDEVICE Device, PWDF_DEVICE_STATE DeviceState)
{
    wdf::Device* device = device_of(Device, "WdfDeviceSetDeviceState");
    WDF_DEVICE_STATE state = device->device_state();
    merge(state.Disabled, DeviceState->Disabled);
    merge(state.DontDisplayInUI, DeviceState->DontDisplayInUI);
    merge(state.Failed, DeviceState->Failed);
    merge(state.NotDisableable, DeviceState->NotDisableable);
    merge(state.Removed, DeviceState->Removed);
    merge(state.ResourcesChanged, DeviceState->ResourcesChanged);
    device->set_device_state(state);
}

NTSTATUS WdfDeviceCreateDeviceInterface(WDFDEVICE Device, const GUID* InterfaceClassGUID,
                                        PCUNICODE_STRING ReferenceString)
{
    wdf::Device* device = device_of(Device, "WdfDeviceCreateDeviceInterface");
    if (!InterfaceClassGUID) {
        return STATUS_INVALID_PARAMETER;
    }
    return device->add_interface(*InterfaceClassGUID, ReferenceString);
}

VOID WdfDeviceSetBusInformationForChildren(WDFDEVICE Device, PPNP_BUS_INFORMATION BusInformation)
{
    device_of(Device, "WdfDeviceSetBusInformationForChildren")
        ->set_bus_information(*BusInformation);
}

NTSTATUS WdfDeviceAssignS0IdleSettings(WDFDEVICE Device,
                                       PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings)
{
    wdf::Device* device = device_of(Device, "WdfDeviceAssignS0IdleSettings");
    if (!Settings || Settings->Size != sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS) ||
        Settings->IdleCaps == IdleCapsInvalid || Settings->IdleCaps > IdleUsbSelectiveSuspend) {
        return STATUS_INVALID_PARAMETER;
    }
    if (device->is_pdo()) {
        return STATUS_INVALID_DEVICE_REQUEST; // only the power policy owner sets idle policy
    }
    device->set_idle_settings(*Settings);
    return STATUS_SUCCESS;
}

VOID WdfDeviceSetPnpCapabilities(WDFDEVICE Device, PWDF_DEVICE_PNP_CAPABILITIES PnpCapabilities)
{
    device_of(Device, "WdfDeviceSetPnpCapabilities")->set_pnp_capabilities(*PnpCapabilities);
}

VOID WdfDeviceSetPowerCapabilities(WDFDEVICE Device,
                                   PWDF_DEVICE_POWER_CAPABILITIES PowerCapabilities)
{
    device_of(Device, "WdfDeviceSetPowerCapabilities")->set_power_capabilities(*PowerCapabilities);
}

WDFQUEUE WdfDeviceGetDefaultQueue(WDFDEVICE Device)
{
    Queue* queue = device_of(Device, "WdfDeviceGetDefaultQueue")->default_queue();
    return queue ? queue->wdf() : nullptr;
}

WDFDRIVER WdfDeviceGetDriver(WDFDEVICE Device)
{
    wdf::Driver* driver = device_of(Device, "WdfDeviceGetDriver")->driver();
    return driver ? static_cast<WDFDRIVER>(driver->handle()) : nullptr;
}

WDFCHILDLIST WdfFdoGetDefaultChildList(WDFDEVICE Fdo)
{
    ChildList* list = device_of(Fdo, "WdfFdoGetDefaultChildList")->child_list();
    return list ? static_cast<WDFCHILDLIST>(list->handle()) : nullptr;
}

NTSTATUS WdfChildListAddOrUpdateChildDescriptionAsPresent(
    WDFCHILDLIST ChildList, PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER IdentificationDescription,
    PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER AddressDescription)
{
    auto* list = Objects::get<wdf::ChildList>(ChildList, Kind::ChildList,
                                              "WdfChildListAddOrUpdateChildDescriptionAsPresent");
    if (AddressDescription) {
        return STATUS_INVALID_PARAMETER; // this list carries no address descriptions
    }
    return list->add_or_update_present(IdentificationDescription);
}

WDFDEVICE WdfChildListGetDevice(WDFCHILDLIST ChildList)
{
    auto* list = Objects::get<wdf::ChildList>(ChildList, Kind::ChildList, "WdfChildListGetDevice");
    return static_cast<WDFDEVICE>(list->device()->handle());
}

NTSTATUS WdfPdoInitAssignDeviceID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING DeviceID)
{
    NTSTATUS status = pdo_only(DeviceInit, "WdfPdoInitAssignDeviceID");
    if (NT_SUCCESS(status)) {
        DeviceInit->device_id = text(DeviceID);
    }
    return status;
}

NTSTATUS WdfPdoInitAddHardwareID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING HardwareID)
{
    NTSTATUS status = pdo_only(DeviceInit, "WdfPdoInitAddHardwareID");
    if (NT_SUCCESS(status)) {
        DeviceInit->hardware_ids.push_back(text(HardwareID));
    }
    return status;
}

NTSTATUS WdfPdoInitAddCompatibleID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING CompatibleID)
{
    NTSTATUS status = pdo_only(DeviceInit, "WdfPdoInitAddCompatibleID");
    if (NT_SUCCESS(status)) {
        DeviceInit->compatible_ids.push_back(text(CompatibleID));
    }
    return status;
}

NTSTATUS WdfPdoInitAssignInstanceID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING InstanceID)
{
    NTSTATUS status = pdo_only(DeviceInit, "WdfPdoInitAssignInstanceID");
    if (NT_SUCCESS(status)) {
        DeviceInit->instance_id = text(InstanceID);
    }
    return status;
}

NTSTATUS WdfPdoInitAddDeviceText(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING DeviceDescription,
                                 PCUNICODE_STRING DeviceLocation, LCID LocaleId)
{
    NTSTATUS status = pdo_only(DeviceInit, "WdfPdoInitAddDeviceText");
    if (NT_SUCCESS(status)) {
        DeviceInit->texts.push_back({text(DeviceDescription), text(DeviceLocation), LocaleId});
    }
    return status;
}

VOID WdfPdoInitSetDefaultLocale(PWDFDEVICE_INIT DeviceInit, LCID LocaleId)
{
    checked(DeviceInit, "WdfPdoInitSetDefaultLocale")->default_locale = LocaleId;
}

VOID WdfPdoInitAllowForwardingRequestToParent(PWDFDEVICE_INIT DeviceInit)
{
    checked(DeviceInit, "WdfPdoInitAllowForwardingRequestToParent")->forward_to_parent = true;
}

WDFDEVICE WdfPdoGetParent(WDFDEVICE Device)
{
    wdf::Device* parent = device_of(Device, "WdfPdoGetParent")->bus_parent();
    return parent ? static_cast<WDFDEVICE>(parent->handle()) : nullptr;
}

ULONG WdfCmResourceListGetCount(WDFCMRESLIST List)
{
    auto* list = Objects::get<ResourceList>(List, Kind::ResourceList, "WdfCmResourceListGetCount");
    return static_cast<ULONG>(list->descriptors().size());
}

PCM_PARTIAL_RESOURCE_DESCRIPTOR WdfCmResourceListGetDescriptor(WDFCMRESLIST List, ULONG Index)
{
    auto* list =
        Objects::get<ResourceList>(List, Kind::ResourceList, "WdfCmResourceListGetDescriptor");
    const auto& d = list->descriptors();
    return Index < d.size() ? const_cast<PCM_PARTIAL_RESOURCE_DESCRIPTOR>(&d[Index]) : nullptr;
}

} // extern "C"
