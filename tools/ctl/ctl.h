// The control client shared by `mvgps ctl` on Linux and mvgps-ctl.exe on Windows: one
// subcommand per control request, the input records built from the public control header,
// the replies decoded and printed for a person or as JSON. Only the transport differs
// between the two programs.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "control/control.h"

namespace mvgps::ctl
{

// What one control request came back with.
struct Reply {
    std::uint32_t status = 0;      // NTSTATUS as the driver completed it
    std::uint64_t information = 0; // bytes returned
    std::vector<std::uint8_t> output;
};

// How the commands reach a device: the host's client API through `mvgps run`'s control
// socket on Linux, DeviceIoControl on Windows.
class Transport
{
  public:
    virtual ~Transport() = default;
    // Sends one control code and waits for it to complete. False, with a message, when the
    // device cannot be reached at all (not when the driver fails the request).
    virtual bool control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                         std::uint32_t output_length, Reply& reply, std::string& error) = 0;
};

using Connect = std::function<std::unique_ptr<Transport>(std::string& error)>;

// Room for any chip frame: a 12-bit length after three header bytes, the CRC and the tail.
inline constexpr std::uint32_t kFrameCapacity = 4112;

// The subcommands' options, filled as they are parsed; one subcommand runs at a time.
struct Options {
    bool json = false;
    std::uint32_t pid = GPS_GEOFENCE_PID; // required by the raw commands, a geofence's by default
    std::uint32_t sid = 0;
    std::string payload;
    std::uint32_t answer_out = kFrameCapacity;
    std::string file;
    std::uint32_t answer_id = 0;
    std::uint32_t length = 36; // a geofence's nine fields as the driver sends them
    std::uint32_t cmd_length = 4;
    std::uint32_t fields[9] = {};
    std::uint32_t code = 0;
    std::string in;
    std::uint32_t out = 0;
    std::uint64_t count = 0;
};

// ctl's subcommands (sleep, wakeup, enable-nmea, disable-nmea, nmea-off, startup,
// feature-off, get-download-flag, get-sleep-status, sendcmd, log-sendcmd, agps,
// geofence-set, geofence-cmd, raw, start-read) and the --json flag, added to `app`.
class Commands
{
  public:
    explicit Commands(CLI::App& app);
    // After app.parse(): runs the chosen subcommand through a transport from `connect`,
    // printing to out/err. Exit status: 0 when the driver's status is a success, 1 when it
    // is an error status, 2 when no device could be reached (the message says "no device").
    int run(const Connect& connect, std::ostream& out, std::ostream& err);

  private:
    Options options_;
    std::vector<CLI::App*> subcommands_;
};

// The exit status for a failed parse: CLI11's message (or the help asked for) printed, then
// 0 for help and 2 for bad usage.
int usage_exit(const CLI::App& app, const CLI::ParseError& error, std::ostream& out,
               std::ostream& err);

} // namespace mvgps::ctl
