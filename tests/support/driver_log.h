// The driver's debug log as tests read it: each line's routine name and message, and the
// names of the routines a line may carry (never a helper's).
#pragma once

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace mvgps::test
{

// The routines whose names a line may carry. Later components add theirs.
inline const std::set<std::string>& driver_routines()
{
    static const std::set<std::string> names = {
        // platform services
        "OsAllocateMemory", "OsAllocateZeroedMemory", "OsFreeMemory", "OsAllocateMutex",
        "OsAcquireMutex", "OsReleaseMutex", "OsTryAcquireMutex", "OsFreeMutex", "OsAllocateSignal",
        "OsSetSignal", "OsClearSignal", "OsWaitForSignal", "OsFreeSignal", "OsCreateThread",
        "OsDelay",
        // frame codec
        "hci_crc16", "create_hci_tx_packet", "free_hci_tx_packet", "set_hci_endian_mode",
        "put_u16_ordered", "put_u32_ordered", "get_u32_ordered", "hci_hex_dump", "recv_hci_buffer",
        "process_buff", "check_pkt_status", "parse_one_packet", "set_pkt_parse_callback",
        // device-side link
        "xfer_hci_pkt_core", "send_hci_tx_internal_core", "local_process_pkt", "hci_write_mem_core",
        "hci_read_mem_core", "read_chip_ctrl_byte", "hci_write_byte_verify", "set_chip_ctrl_byte",
        // UART
        "FdoOpenDevice", "FdoReadFromDeviceSync", "FdoWriteToDeviceSyncWithTimeOut", "IoStatusText",
        "SerialSendIoSync", "SerialReadFromSync", "HalWriteToDeviceSync", "HalReadFromDeviceSync",
        "change_baudrate",
        // read pipeline
        "StartFunc_GPS", "UART_AllocateReadResources", "UART_FreeReadResources",
        "UART_ProcessReadQueue", "UART_ProcessReadQueue_GPS",
        // GPS control
        "H4DownloadPatchCode", "start_gps", "set_nmea_output", "set_nmea_switch",
        "set_output_option", "hci_command_agps_tx", "hci_command_geofence", "geofence_status",
        // device lifecycle
        "DriverEntry", "DriverCleanup", "DriverSetDeviceCallbackEvents", "DriverDeviceAdd",
        "ReadBaudRate", "ReadParameterULong", "HlpInitializeFdoExtension", "DeviceInitialize",
        "FdoFindConnectResources", "FdoDevPrepareHardware", "FdoDevReleaseHardware",
        "FdoSetIdleSettings", "FdoDevD0Entry", "FdoDevD0Exit", "FdoDevSelfManagedIoInit",
        "FdoDevSelfManagedIoCleanup", "FdoEvtDeviceArmWake", "FdoEvtDeviceDisarmWake",
        // child device
        "DeviceEnablePDOWorker", "AddChild", "FdoEvtDeviceListCreatePdo", "PdoCreateDynamic",
        "PdoIoQuDeviceControl",
        // control dispatch
        "FdoIoQuDeviceControl"};
    return names;
}

struct LogLine {
    std::string function;
    std::string text;
};

// Every line of the driver's log: "\n[MV_GPS](%4d)%-40.39s  " and then the message.
inline std::vector<LogLine> parse_log(const std::string& out)
{
    static const std::string mark = "\n[MV_GPS](";
    constexpr std::size_t kNameField = 40;
    std::vector<LogLine> lines;
    for (std::size_t at = out.find(mark); at != std::string::npos;) {
        std::size_t next = out.find(mark, at + 1);
        std::string entry = out.substr(at + mark.size(), next - at - mark.size());
        std::size_t name = entry.find(')') + 1;
        std::string function = entry.substr(name, kNameField);
        function.erase(function.find_last_not_of(' ') + 1);
        lines.push_back({function, entry.substr(std::min(entry.size(), name + kNameField + 2))});
        at = next;
    }
    return lines;
}

} // namespace mvgps::test
