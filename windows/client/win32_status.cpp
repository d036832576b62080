// Portable on purpose (numbers, no <windows.h>), so that the Linux unit tests check the table.
#include "windows/client/win32_status.h"

namespace mvgps::windows_client
{

namespace
{

struct Pair {
    std::uint32_t error;
    std::uint32_t status;
};

// Win32 error, then the NTSTATUS the kernel maps to it. Where several statuses share one
// error, the one the driver uses is listed.
constexpr Pair kPairs[] = {
    {1, 0xC0000010},    // ERROR_INVALID_FUNCTION: STATUS_INVALID_DEVICE_REQUEST
    {21, 0xC00000A3},   // ERROR_NOT_READY: STATUS_DEVICE_NOT_READY
    {22, 0xC0000184},   // ERROR_BAD_COMMAND: STATUS_INVALID_DEVICE_STATE
    {31, 0xC0000001},   // ERROR_GEN_FAILURE: STATUS_UNSUCCESSFUL
    {50, 0xC00000BB},   // ERROR_NOT_SUPPORTED: STATUS_NOT_SUPPORTED
    {87, 0xC000000D},   // ERROR_INVALID_PARAMETER: STATUS_INVALID_PARAMETER
    {121, 0xC00000B5},  // ERROR_SEM_TIMEOUT: STATUS_IO_TIMEOUT
    {122, 0xC0000023},  // ERROR_INSUFFICIENT_BUFFER: STATUS_BUFFER_TOO_SMALL
    {234, 0x80000005},  // ERROR_MORE_DATA: STATUS_BUFFER_OVERFLOW
    {995, 0xC0000120},  // ERROR_OPERATION_ABORTED: STATUS_CANCELLED
    {1168, 0xC0000225}, // ERROR_NOT_FOUND: STATUS_NOT_FOUND
    {1450, 0xC000009A}, // ERROR_NO_SYSTEM_RESOURCES: STATUS_INSUFFICIENT_RESOURCES
    {1617, 0xC00002B6}, // ERROR_DEVICE_REMOVED: STATUS_DEVICE_REMOVED
};

constexpr std::uint32_t kWin32Facility = 0xC0070000;

} // namespace

std::uint32_t status_from_win32(std::uint32_t error)
{
    for (const Pair& pair : kPairs) {
        if (pair.error == error) {
            return pair.status;
        }
    }
    return kWin32Facility | (error & 0xFFFF);
}

} // namespace mvgps::windows_client
