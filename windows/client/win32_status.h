// DeviceIoControl reports a failed request as the Win32 error the kernel turned its NTSTATUS
// into; the client prints the driver's status, so it turns the error back.
#pragma once

#include <cstdint>

namespace mvgps::windows_client
{

// The NTSTATUS behind a Win32 error for every status the driver completes requests with;
// any other error as 0xC007xxxx (an NTSTATUS that carries a Win32 error).
std::uint32_t status_from_win32(std::uint32_t error);

} // namespace mvgps::windows_client
