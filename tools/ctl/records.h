// The input records of the control codes, laid out by the public control header.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/ctl/ctl.h"

namespace mvgps::ctl
{

// The command record of the two raw-command codes: a frame header as the chip would see it
// (sync byte, its length), pid, sid, the payload length high byte first, the payload.
std::vector<std::uint8_t> command_record(std::uint8_t pid, std::uint8_t sid,
                                         const std::vector<std::uint8_t>& payload);
// The geofence record from the answer id, pid, sid, length and nine fields of `options`.
std::vector<std::uint8_t> geofence_record(const Options& options);
// The geofence command record: the same header (its length from cmd_length) and up to four
// payload bytes, zero-filled.
std::vector<std::uint8_t> geofence_cmd_record(const Options& options,
                                              const std::vector<std::uint8_t>& payload);
// A control code by its name (IOCTL_VC_GPS_SLEEP) or as hex, with or without 0x.
bool parse_code(std::string_view text, std::uint32_t& code);
// An assisted-GPS record from a file that holds exactly one.
bool read_agps_record(const std::string& path, std::vector<std::uint8_t>& record,
                      std::string& error);

} // namespace mvgps::ctl
