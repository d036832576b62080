// Host side of the data-path test driver: the hosted device it runs in, and its table of
// operations, found in the image the PnP manager has loaded. Programs that use it link
// mvgps_data_path_host, which names the image in DATA_PATH_DRIVER_PATH.
#pragma once

#include <dlfcn.h>

#include <string_view>

#include "harness/data_path/data_path.h"
#include "sim/device/device.h"

namespace mvgps::harness
{

// The image stays the PnP manager's: a handle of our own would keep it mapped after unload.
inline const DATA_PATH_OPS* find_data_path_ops(const char* image_path)
{
    void* image = dlopen(image_path, RTLD_NOW | RTLD_NOLOAD);
    if (image == nullptr)
        return nullptr;
    auto* entry = reinterpret_cast<DATA_PATH_OPS_FN*>(dlsym(image, "DataPathOps"));
    dlclose(image);
    return entry != nullptr ? entry() : nullptr;
}

// The device around the image: the controller bound under the name the driver opens, at the
// rate the driver leaves the port at.
inline sim::DeviceConfig data_path_device(sim::FarEnd far_end)
{
    constexpr std::wstring_view uart = DATA_PATH_UART_NAME;
    sim::DeviceConfig c;
    c.image = DATA_PATH_DRIVER_PATH;
    c.rate = DATA_PATH_DEFAULT_RATE;
    c.far_end = far_end;
    c.uart_name.assign(uart.begin(), uart.end());
    return c;
}

} // namespace mvgps::harness
