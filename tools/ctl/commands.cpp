#include <algorithm>
#include <ostream>

#include "tools/ctl/ctl.h"
#include "tools/ctl/decode.h"
#include "tools/ctl/hex.h"
#include "tools/ctl/records.h"
#include "tools/ctl/report.h"

namespace mvgps::ctl
{

namespace
{

constexpr std::uint32_t kReadCapacity = GPS_READ_HEADER_SIZE + kFrameCapacity;
constexpr std::size_t kGeofenceCmdPayload = sizeof(GPS_GEOFENCE_CMD_RECORD::Payload);

struct Simple {
    const char* name;
    std::uint32_t code;
    std::uint32_t output_length;
    const char* help;
};

constexpr Simple kSimple[] = {
    {"sleep", IOCTL_VC_GPS_SLEEP, 0, "Mark the receiver asleep, cancelling one pending read"},
    {"wakeup", IOCTL_VC_GPS_WAKEUP, 0, "Wake the receiver: the chip start-up runs again"},
    {"enable-nmea", IOCTL_VC_GPS_ENABLE_NMEA, 0, "Turn NMEA output on"},
    {"disable-nmea", IOCTL_VC_GPS_DISABLE_NMEA, 0, "Turn NMEA output off"},
    {"nmea-off", IOCTL_VC_GPS_NMEA_OFF, 0, "Turn NMEA output off (the second code for it)"},
    {"startup", IOCTL_VC_GPS_STARTUP, 0, "Cold-start the receiver"},
    {"feature-off", IOCTL_VC_GPS_FEATURE_OFF, 0, "Switch the receiver's output option off"},
    {"get-download-flag", IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, 1,
     "Read the download flag (1 until the first wake-up)"},
    {"get-sleep-status", IOCTL_VC_GPS_GET_SLEEP_STATUS, 4, "Read the sleep status"},
};

std::uint32_t simple_code(const std::string& name, std::uint32_t& output_length)
{
    for (const Simple& simple : kSimple) {
        if (name == simple.name) {
            output_length = simple.output_length;
            return simple.code;
        }
    }
    return 0;
}

CLI::Validator hex_bytes(std::size_t most)
{
    return CLI::Validator(
        [most](std::string& text) -> std::string {
            std::vector<std::uint8_t> bytes;
            if (!parse_hex(text, bytes)) {
                return "not hex bytes: " + text;
            }
            if (bytes.size() > most) {
                return "more than " + std::to_string(most) + " bytes";
            }
            return {};
        },
        "HEX");
}

const CLI::Validator kAgpsFile(
    [](std::string& path) -> std::string {
        std::vector<std::uint8_t> record;
        std::string error;
        return read_agps_record(path, record, error) ? std::string() : error;
    },
    "FILE");

// Turns a name or hex code into the decimal number the option then converts.
const CLI::Validator kControlCode(
    [](std::string& text) -> std::string {
        std::uint32_t code = 0;
        if (!parse_code(text, code)) {
            return "not a control code name or hex number: " + text;
        }
        text = std::to_string(code);
        return {};
    },
    "CODE");

std::vector<std::uint8_t> hex_of(const std::string& text)
{
    std::vector<std::uint8_t> bytes;
    parse_hex(text, bytes);
    return bytes;
}

void add_byte(CLI::App* sub, const std::string& name, std::uint32_t& value, const char* help,
              bool required)
{
    sub->add_option(name, value, help)->check(CLI::Range(0u, 0xFFu))->required(required);
}

CLI::App* add_raw_command(CLI::App& app, const char* name, const char* help, Options& o)
{
    CLI::App* sub = app.add_subcommand(name, help);
    add_byte(sub, "--pid", o.pid, "Command group (pid), e.g. 0x20", true);
    add_byte(sub, "--sid", o.sid, "Command within the group (sid)", true);
    sub->add_option("--payload", o.payload, "Payload bytes")->check(hex_bytes(0xFFFF));
    sub->add_option("--out", o.answer_out, "Room for the chip's answer, in bytes")
        ->capture_default_str();
    return sub;
}

void add_geofence_header(CLI::App* sub, Options& o)
{
    sub->add_option("--answer-id", o.answer_id, "Answer identifier the chip's reply must carry")
        ->check(CLI::Range(0u, 0xFFFFu));
    add_byte(sub, "--pid", o.pid, "Command group (the driver takes 0x30 only)", false);
    add_byte(sub, "--sid", o.sid, "Geofence command (sid)", true);
}

CLI::App* add_geofence_set(CLI::App& app, Options& o)
{
    CLI::App* sub = app.add_subcommand("geofence-set", "Send a geofence record");
    add_geofence_header(sub, o);
    sub->add_option("--length", o.length, "Payload bytes to send")
        ->check(CLI::Range(0u, 0xFFFFu))
        ->capture_default_str();
    const std::uint32_t limits[9] = {0xFFFF,     0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFF,
                                     0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF};
    for (int i = 0; i < 9; i++) {
        std::string name = "--field" + std::to_string(i + 1);
        sub->add_option(name, o.fields[i], "Geofence field " + std::to_string(i + 1))
            ->check(CLI::Range(0u, limits[i]));
    }
    return sub;
}

CLI::App* add_geofence_cmd(CLI::App& app, Options& o)
{
    CLI::App* sub = app.add_subcommand("geofence-cmd", "Send a geofence command record");
    add_geofence_header(sub, o);
    sub->add_option("--length", o.cmd_length, "Payload bytes to send")
        ->check(CLI::Range(0u, 0xFFFFu))
        ->capture_default_str();
    sub->add_option("--payload", o.payload, "Up to four payload bytes")
        ->check(hex_bytes(kGeofenceCmdPayload));
    return sub;
}

CLI::App* add_raw(CLI::App& app, Options& o)
{
    CLI::App* sub = app.add_subcommand("raw", "Send any control code");
    sub->add_option("--code", o.code, "Control code in hex (0x00222890) or by name")
        ->required()
        ->transform(kControlCode);
    sub->add_option("--in", o.in, "Input bytes")->check(hex_bytes(0xFFFFFFFF));
    sub->add_option("--out", o.out, "Output buffer length in bytes");
    return sub;
}

// False, with a message, only when the assistance file can no longer be read.
bool build(const std::string& name, const Options& o, Request& request, std::string& error)
{
    request.command = name;
    if (name == "sendcmd" || name == "log-sendcmd") {
        request.code = name == "sendcmd" ? IOCTL_VC_GPS_SENDCMD_ACK : IOCTL_VC_SET_LOG_GPS_SENDCMD;
        request.input = command_record(static_cast<std::uint8_t>(o.pid),
                                       static_cast<std::uint8_t>(o.sid), hex_of(o.payload));
        request.output_length = o.answer_out;
    } else if (name == "agps") {
        request.code = IOCTL_VC_GPS_AGPS_DATA;
        return read_agps_record(o.file, request.input, error);
    } else if (name == "geofence-set") {
        request.code = IOCTL_VC_GPS_GEOFENCE_SET;
        request.input = geofence_record(o);
    } else if (name == "geofence-cmd") {
        request.code = IOCTL_VC_GPS_GEOFENCE_CMD;
        request.input = geofence_cmd_record(o, hex_of(o.payload));
    } else if (name == "raw") {
        request.code = o.code;
        request.input = hex_of(o.in);
        request.output_length = o.out;
    } else if (name == "start-read") {
        request.code = IOCTL_VC_GPS_START_READ;
        request.output_length = kReadCapacity;
    } else {
        request.code = simple_code(name, request.output_length);
    }
    return true;
}

int no_device(std::ostream& err, const std::string& error)
{
    err << "no device: " << error << '\n';
    return 2;
}

} // namespace

Commands::Commands(CLI::App& app)
{
    Options& o = options_;
    app.add_flag("--json", o.json, "Print one JSON object per request (per frame for start-read)");
    app.require_subcommand(1);
    // --json may follow the subcommand as well.
    app.fallthrough();
    for (const Simple& simple : kSimple) {
        subcommands_.push_back(app.add_subcommand(simple.name, simple.help));
    }
    subcommands_.push_back(add_raw_command(
        app, "sendcmd", "Send a chip command (acknowledged, resent), print the chip's answer", o));
    subcommands_.push_back(add_raw_command(
        app, "log-sendcmd", "Send a chip command once and log it, print the chip's answer", o));
    CLI::App* agps = app.add_subcommand("agps", "Send an assisted-GPS record");
    agps->add_option("--file", o.file, "File holding one assisted-GPS record")
        ->required()
        ->check(kAgpsFile);
    subcommands_.push_back(agps);
    subcommands_.push_back(add_geofence_set(app, o));
    subcommands_.push_back(add_geofence_cmd(app, o));
    subcommands_.push_back(add_raw(app, o));
    CLI::App* read = app.add_subcommand("start-read", "Print frames as they arrive");
    read->add_option("--count", o.count,
                     "Stop after this many frames (default: until interrupted)");
    subcommands_.push_back(read);
}

int Commands::run(const Connect& connect, std::ostream& out, std::ostream& err)
{
    auto chosen = std::find_if(subcommands_.begin(), subcommands_.end(),
                               [](const CLI::App* sub) { return sub->parsed(); });
    if (chosen == subcommands_.end()) {
        err << "no subcommand given\n";
        return 2;
    }
    Request request;
    std::string error;
    if (!build((*chosen)->get_name(), options_, request, error)) {
        err << error << '\n';
        return 2;
    }
    std::unique_ptr<Transport> transport = connect(error);
    if (!transport) {
        return no_device(err, error);
    }
    bool reading = request.code == IOCTL_VC_GPS_START_READ && request.command == "start-read";
    for (std::uint64_t frame = 1;; frame++) {
        Reply reply;
        if (!transport->control(request.code, request.input, request.output_length, reply, error)) {
            return no_device(err, error);
        }
        report(out, options_.json, request, reply, reading ? frame : 0);
        if (!status_ok(reply.status)) {
            return 1;
        }
        if (!reading || frame == options_.count) {
            return 0;
        }
    }
}

int usage_exit(const CLI::App& app, const CLI::ParseError& error, std::ostream& out,
               std::ostream& err)
{
    return app.exit(error, out, err) == 0 ? 0 : 2;
}

} // namespace mvgps::ctl
