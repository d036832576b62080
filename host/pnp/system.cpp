#include "pnp/system.h"

#include <initguid.h>
#include <ntddser.h>

#include <cstdio>
#include <cstring>

#include "kernel/kernel.h"

namespace mvgps::pnp
{
namespace
{

CM_PARTIAL_RESOURCE_DESCRIPTOR connection(UCHAR cls, UCHAR type, std::uint64_t id)
{
    CM_PARTIAL_RESOURCE_DESCRIPTOR d;
    std::memset(&d, 0, sizeof d);
    d.Type = CmResourceTypeConnection;
    d.u.Connection.Class = cls;
    d.u.Connection.Type = type;
    d.u.Connection.IdLowPart = static_cast<ULONG>(id);
    d.u.Connection.IdHighPart = static_cast<ULONG>(id >> 32);
    return d;
}

} // namespace

std::u16string resource_hub_path(std::uint64_t connection_id)
{
    char digits[17];
    std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(connection_id));
    std::u16string path = u"\\Device\\RESOURCE_HUB\\";
    for (const char* c = digits; *c; c++) {
        path += static_cast<char16_t>(*c);
    }
    return path;
}

void map_resource_hub(std::uint64_t connection_id, std::shared_ptr<io::Device> device)
{
    io::bind(resource_hub_path(connection_id), std::move(device));
}

void unmap_resource_hub(std::uint64_t connection_id)
{
    io::unbind(resource_hub_path(connection_id));
}

void add_serial_port(std::u16string_view link, std::shared_ptr<io::Device> device)
{
    io::bind(link, std::move(device));
    kernel::register_interface(GUID_DEVINTERFACE_COMPORT, link);
}

void remove_serial_port(std::u16string_view link)
{
    kernel::unregister_interface(GUID_DEVINTERFACE_COMPORT, link);
    io::unbind(link);
}

CM_PARTIAL_RESOURCE_DESCRIPTOR uart_connection(std::uint64_t connection_id)
{
    return connection(CM_RESOURCE_CONNECTION_CLASS_SERIAL, CM_RESOURCE_CONNECTION_TYPE_SERIAL_UART,
                      connection_id);
}

CM_PARTIAL_RESOURCE_DESCRIPTOR i2c_connection(std::uint64_t connection_id)
{
    return connection(CM_RESOURCE_CONNECTION_CLASS_SERIAL, CM_RESOURCE_CONNECTION_TYPE_SERIAL_I2C,
                      connection_id);
}

CM_PARTIAL_RESOURCE_DESCRIPTOR gpio_connection(std::uint64_t connection_id)
{
    return connection(CM_RESOURCE_CONNECTION_CLASS_GPIO, CM_RESOURCE_CONNECTION_TYPE_GPIO_IO,
                      connection_id);
}

} // namespace mvgps::pnp
