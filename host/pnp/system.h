// The machine around the driver: which lower device backs each Resource Hub connection id,
// which serial ports exist, and the resource descriptors a device node is given.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <memory>
#include <string>

#include "io/names.h"

namespace mvgps::pnp
{

// "\Device\RESOURCE_HUB\" followed by the id as 16 lowercase hexadecimal digits.
std::u16string resource_hub_path(std::uint64_t connection_id);
void map_resource_hub(std::uint64_t connection_id, std::shared_ptr<io::Device> device);
void unmap_resource_hub(std::uint64_t connection_id);

// A serial port: bound under its symbolic link and registered as a serial-port interface,
// in the order ports are added.
void add_serial_port(std::u16string_view link, std::shared_ptr<io::Device> device);
void remove_serial_port(std::u16string_view link);

// Connection resources (descriptor type CmResourceTypeConnection).
CM_PARTIAL_RESOURCE_DESCRIPTOR uart_connection(std::uint64_t connection_id);
CM_PARTIAL_RESOURCE_DESCRIPTOR i2c_connection(std::uint64_t connection_id);
CM_PARTIAL_RESOURCE_DESCRIPTOR gpio_connection(std::uint64_t connection_id);

} // namespace mvgps::pnp
