#include "windows/client/device.h"

#include <windows.h>
#include <setupapi.h>

#include <vector>

#include "windows/client/win32_status.h"

namespace mvgps::windows_client
{

namespace
{

const GUID kInterface = MVGPS_DEVINTERFACE_GUID_INIT;

class DeviceTransport : public ctl::Transport
{
  public:
    explicit DeviceTransport(HANDLE handle) : handle_(handle) {}
    ~DeviceTransport() override { CloseHandle(handle_); }
    DeviceTransport(const DeviceTransport&) = delete;
    DeviceTransport& operator=(const DeviceTransport&) = delete;

    bool control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                 std::uint32_t output_length, ctl::Reply& reply, std::string&) override
    {
        std::vector<std::uint8_t> in = input; // DeviceIoControl takes a non-const buffer
        reply.output.assign(output_length, 0);
        DWORD returned = 0;
        BOOL done = DeviceIoControl(
            handle_, code, in.empty() ? nullptr : in.data(), static_cast<DWORD>(in.size()),
            output_length == 0 ? nullptr : reply.output.data(), output_length, &returned, nullptr);
        reply.status = done ? 0 : status_from_win32(GetLastError());
        reply.information = returned;
        return true;
    }

  private:
    HANDLE handle_;
};

std::string win32_error(const char* what, DWORD error)
{
    return std::string(what) + " failed with Win32 error " + std::to_string(error);
}

// The interface's path, or an empty string when the set holds no interface at `index`.
std::wstring interface_path(HDEVINFO set, DWORD index, std::string& error)
{
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof(data);
    if (!SetupDiEnumDeviceInterfaces(set, nullptr, &kInterface, index, &data)) {
        DWORD code = GetLastError();
        error = code == ERROR_NO_MORE_ITEMS
                    ? "no GPS device is present (interface " MVGPS_DEVINTERFACE_GUID_TEXT ")"
                    : win32_error("SetupDiEnumDeviceInterfaces", code);
        return {};
    }
    DWORD size = 0;
    SetupDiGetDeviceInterfaceDetailW(set, &data, nullptr, 0, &size, nullptr);
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) {
        error = win32_error("SetupDiGetDeviceInterfaceDetail", GetLastError());
        return {};
    }
    std::vector<std::uint8_t> buffer(size);
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(buffer.data());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!SetupDiGetDeviceInterfaceDetailW(set, &data, detail, size, nullptr, nullptr)) {
        error = win32_error("SetupDiGetDeviceInterfaceDetail", GetLastError());
        return {};
    }
    return detail->DevicePath;
}

std::wstring find_device(std::string& error)
{
    HDEVINFO set =
        SetupDiGetClassDevsW(&kInterface, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (set == INVALID_HANDLE_VALUE) {
        error = win32_error("SetupDiGetClassDevs", GetLastError());
        return {};
    }
    std::wstring path = interface_path(set, 0, error);
    SetupDiDestroyDeviceInfoList(set);
    return path;
}

} // namespace

std::unique_ptr<ctl::Transport> open_device(std::string& error)
{
    std::wstring path = find_device(error);
    if (path.empty()) {
        return nullptr;
    }
    HANDLE handle =
        CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                    nullptr, OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = win32_error("opening the GPS device", GetLastError());
        return nullptr;
    }
    return std::make_unique<DeviceTransport>(handle);
}

} // namespace mvgps::windows_client
