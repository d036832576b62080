// The GPS device on Windows: found by the driver's device interface, opened, and sent control
// requests with DeviceIoControl.
#pragma once

#include <memory>
#include <string>

#include "tools/ctl/ctl.h"

namespace mvgps::windows_client
{

// The first present device with the driver's interface, opened; null with a message when
// there is none or it cannot be opened.
std::unique_ptr<ctl::Transport> open_device(std::string& error);

} // namespace mvgps::windows_client
