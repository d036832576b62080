// The control client against a scripted transport: the bytes each subcommand sends, how the
// replies print, and the exit status of every way a run ends.
#include <gtest/gtest.h>

#include <cstdio>
#include <deque>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "tools/ctl/ctl.h"
#include "tools/ctl/decode.h"
#include "tools/ctl/hex.h"
#include "windows/client/win32_status.h"

namespace
{

using mvgps::ctl::Reply;
using Bytes = std::vector<std::uint8_t>;

struct Sent {
    std::uint32_t code;
    Bytes input;
    std::uint32_t output_length;
};

// Answers from a script, recording what was sent; an empty script means the device is gone.
class FakeTransport : public mvgps::ctl::Transport
{
  public:
    FakeTransport(std::deque<Reply>& replies, std::vector<Sent>& sent)
        : replies_(replies), sent_(sent)
    {
    }
    bool control(std::uint32_t code, const Bytes& input, std::uint32_t output_length, Reply& reply,
                 std::string& error) override
    {
        if (replies_.empty()) {
            error = "connection closed";
            return false;
        }
        sent_.push_back({code, input, output_length});
        reply = replies_.front();
        replies_.pop_front();
        return true;
    }

  private:
    std::deque<Reply>& replies_;
    std::vector<Sent>& sent_;
};

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
    std::vector<Sent> sent;
};

// Parses args as the program would and runs them against the replies (or no device at all).
Outcome run(std::vector<std::string> args, std::deque<Reply> replies, bool device = true)
{
    Outcome result;
    CLI::App app("ctl");
    mvgps::ctl::Commands commands(app);
    std::ostringstream out, err;
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try {
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        result.status = mvgps::ctl::usage_exit(app, e, out, err);
        result.out = out.str();
        result.err = err.str();
        return result;
    }
    mvgps::ctl::Connect connect =
        [&](std::string& error) -> std::unique_ptr<mvgps::ctl::Transport> {
        if (!device) {
            error = "nothing listening";
            return nullptr;
        }
        return std::make_unique<FakeTransport>(replies, result.sent);
    };
    result.status = commands.run(connect, out, err);
    result.out = out.str();
    result.err = err.str();
    return result;
}

Bytes hex(const std::string& text)
{
    Bytes bytes;
    EXPECT_TRUE(mvgps::ctl::parse_hex(text, bytes)) << text;
    return bytes;
}

// A chip frame as the driver hands it over: length over pid through payload, CRC bytes that
// the client does not check, tail.
Bytes frame(std::uint8_t pid, std::uint8_t sid, const std::string& payload, bool crc = true)
{
    std::size_t length = 2 + (payload.empty() ? 0 : 2 + payload.size());
    Bytes bytes{0xA5, static_cast<std::uint8_t>((crc ? 0x80 : 0) | length >> 8),
                static_cast<std::uint8_t>(length), pid, sid};
    if (!payload.empty()) {
        bytes.push_back(static_cast<std::uint8_t>(payload.size() >> 8));
        bytes.push_back(static_cast<std::uint8_t>(payload.size()));
        bytes.insert(bytes.end(), payload.begin(), payload.end());
    }
    if (crc) {
        bytes.insert(bytes.end(), {0x12, 0x34});
    }
    bytes.push_back(0xA5);
    return bytes;
}

// A completed read: the header, then the frame.
Reply read_reply(const Bytes& chip_frame)
{
    Bytes out{3, 0, 0, 0, static_cast<std::uint8_t>(chip_frame.size()), 0, 0, 0, 1, 0, 0, 0,
              2, 0, 0, 0};
    out.insert(out.end(), chip_frame.begin(), chip_frame.end());
    return Reply{0, out.size(), out};
}

Reply ok(Bytes output = {}, std::uint64_t information = 0)
{
    return Reply{0, information, std::move(output)};
}

std::string agps_file(std::size_t size)
{
    std::string path = ::testing::TempDir() + "agps_" + std::to_string(size) + ".bin";
    std::ofstream file(path, std::ios::binary);
    for (std::size_t i = 0; i < size; i++) {
        file.put(static_cast<char>(i * 7));
    }
    return path;
}

struct SendCase {
    std::vector<std::string> args;
    std::uint32_t code;
    std::string input;
    std::uint32_t output_length;
};

TEST(Ctl, EachSubcommandSendsItsCodeAndRecord)
{
    const SendCase cases[] = {
        {{"sleep"}, IOCTL_VC_GPS_SLEEP, "", 0},
        {{"get-download-flag"}, IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, "", 1},
        {{"get-sleep-status"}, IOCTL_VC_GPS_GET_SLEEP_STATUS, "", 4},
        {{"sendcmd", "--pid", "0x20", "--sid", "8"},
         IOCTL_VC_GPS_SENDCMD_ACK,
         "a5 00 04 20 08 00 00",
         4112},
        {{"sendcmd", "--pid", "0x20", "--sid", "6", "--payload", "01 02", "--out", "64"},
         IOCTL_VC_GPS_SENDCMD_ACK,
         "a5 00 06 20 06 00 02 01 02",
         64},
        {{"log-sendcmd", "--pid", "0x16", "--sid", "0", "--payload", "00100E00"},
         IOCTL_VC_SET_LOG_GPS_SENDCMD,
         "a5 00 08 16 00 00 04 00 10 0e 00",
         4112},
        {{"geofence-set", "--answer-id", "0x1234", "--sid", "1", "--field1", "0xBEEF", "--field2",
          "2", "--field5", "5", "--field6", "0x01020304", "--field9", "9"},
         IOCTL_VC_GPS_GEOFENCE_SET,
         "34 12 30 01 24 00 ef be 02 00 00 00 00 00 00 00 00 00 00 00 05 00 00 00"
         " 04 03 02 01 00 00 00 00 00 00 00 00 09 00 00 00",
         0},
        {{"geofence-cmd", "--sid", "3", "--pid", "0x31", "--payload", "0a0b"},
         IOCTL_VC_GPS_GEOFENCE_CMD,
         "00 00 31 03 04 00 0a 0b 00 00",
         0},
        {{"raw", "--code", "0x00222864", "--in", "ff 01", "--out", "8"}, 0x00222864, "ff 01", 8},
        {{"raw", "--code", "222890"}, IOCTL_VC_GPS_GET_SLEEP_STATUS, "", 0},
        {{"raw", "--code", "IOCTL_VC_GPS_WAKEUP"}, IOCTL_VC_GPS_WAKEUP, "", 0},
        {{"start-read", "--count", "1"}, IOCTL_VC_GPS_START_READ, "", 4128},
    };
    for (const SendCase& c : cases) {
        Outcome r = run(c.args, {read_reply(frame(0x31, 0, "x"))});
        SCOPED_TRACE(c.args[0]);
        ASSERT_EQ(r.sent.size(), 1u) << r.err;
        EXPECT_EQ(r.sent[0].code, c.code);
        EXPECT_EQ(mvgps::ctl::to_hex(r.sent[0].input, " "), mvgps::ctl::to_hex(hex(c.input), " "));
        EXPECT_EQ(r.sent[0].output_length, c.output_length);
    }
}

TEST(Ctl, AgpsSendsTheFileAsItIs)
{
    std::string path = agps_file(sizeof(GPS_AGPS_RECORD));
    Outcome r = run({"agps", "--file", path}, {ok()});
    ASSERT_EQ(r.sent.size(), 1u) << r.err;
    EXPECT_EQ(r.sent[0].code, IOCTL_VC_GPS_AGPS_DATA);
    ASSERT_EQ(r.sent[0].input.size(), sizeof(GPS_AGPS_RECORD));
    EXPECT_EQ(r.sent[0].input[offsetof(GPS_AGPS_RECORD, Type4)], std::uint8_t(5188 * 7));
}

struct PrintCase {
    const char* name;
    std::vector<std::string> args;
    std::vector<Reply> replies;
    std::string text;
    int status;
};

TEST(Ctl, RepliesPrintForAPerson)
{
    const Bytes answer = frame(0x20, 8, std::string(1, '\0'));
    const Bytes gga =
        frame(0x31, 0, "$GPGGA,120000.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,M,,*47\r\n");
    const Bytes status_frame = frame(0x32, 0, std::string("\x01\x02", 2), false);
    const PrintCase cases[] = {
        {"sleep status",
         {"get-sleep-status"},
         {ok({1, 0, 0, 0}, 1)},
         "IOCTL_VC_GPS_GET_SLEEP_STATUS (0x00222890): STATUS_SUCCESS (0x00000000), 1 bytes "
         "returned\nsleep status: 1 (asleep)\n",
         0},
        {"download flag",
         {"get-download-flag"},
         {ok({0}, 1)},
         "IOCTL_VC_GPS_GET_DOWNLOAD_FLAG (0x00222878): STATUS_SUCCESS (0x00000000), 1 bytes "
         "returned\ndownload flag: 0 (woken up since load)\n",
         0},
        {"failure",
         {"enable-nmea"},
         {Reply{0xC0000001, 0, {}}},
         "IOCTL_VC_GPS_ENABLE_NMEA (0x00222858): STATUS_UNSUCCESSFUL (0xC0000001), 0 bytes "
         "returned\n",
         1},
        {"unknown code, output beyond information hidden",
         {"raw", "--code", "0x222864", "--out", "4"},
         {Reply{0xC00000BB, 0, {1, 2, 3, 4}}},
         "code (0x00222864): STATUS_NOT_SUPPORTED (0xC00000BB), 0 bytes returned\n",
         1},
        {"unnamed status, raw output",
         {"raw", "--code", "0x222800", "--out", "4"},
         {Reply{0x40000000, 2, {0xAB, 0xCD, 0xEF, 0}}},
         "code (0x00222800): status (0x40000000), 2 bytes returned\noutput: ab cd\n",
         0},
        {"command answer",
         {"sendcmd", "--pid", "0x20", "--sid", "8"},
         {ok(answer, answer.size())},
         "IOCTL_VC_GPS_SENDCMD_ACK (0x0022287C): STATUS_SUCCESS (0x00000000), 11 bytes "
         "returned\nanswer: pid 0x20 sid 8, crc, payload 00\n",
         0},
        {"frames until the count",
         {"start-read", "--count", "2"},
         {read_reply(gga), read_reply(status_frame), read_reply(gga)},
         "frame 1 (type 3, 76 bytes): pid 0x31 sid 0: "
         "$GPGGA,120000.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,M,,*47\n"
         "frame 2 (type 3, 10 bytes): pid 0x32 sid 0, payload 01 02\n",
         0},
        {"a cancelled read ends the loop",
         {"start-read"},
         {read_reply(gga), Reply{0xC0000120, 0, Bytes(4128)}},
         "frame 1 (type 3, 76 bytes): pid 0x31 sid 0: "
         "$GPGGA,120000.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,,M,,*47\n"
         "IOCTL_VC_GPS_START_READ (0x00222850): STATUS_CANCELLED (0xC0000120), 0 bytes "
         "returned\n",
         1},
    };
    for (const PrintCase& c : cases) {
        SCOPED_TRACE(c.name);
        Outcome r = run(c.args, {c.replies.begin(), c.replies.end()});
        EXPECT_EQ(r.out, c.text);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.err, "");
    }
}

TEST(Ctl, JsonIsOneObjectPerRequestOrFrame)
{
    const Bytes gga = frame(0x31, 0, "$GPGGA,1*00\r\n");
    Outcome r = run({"--json", "start-read", "--count", "2"}, {read_reply(gga), read_reply(gga)});
    std::istringstream lines(r.out);
    std::string line;
    int frames = 0;
    while (std::getline(lines, line)) {
        nlohmann::json object = nlohmann::json::parse(line);
        EXPECT_EQ(object["command"], "start-read");
        EXPECT_EQ(object["frame_number"], ++frames);
        EXPECT_EQ(object["status_name"], "STATUS_SUCCESS");
        EXPECT_EQ(object["header"]["length"], gga.size());
        EXPECT_EQ(object["frame"]["pid"], 0x31);
        EXPECT_EQ(object["nmea"], "$GPGGA,1*00");
    }
    EXPECT_EQ(frames, 2);

    r = run({"get-sleep-status", "--json"}, {ok({1, 0, 0, 0}, 1)});
    nlohmann::json object = nlohmann::json::parse(r.out);
    EXPECT_EQ(object["code"], IOCTL_VC_GPS_GET_SLEEP_STATUS);
    EXPECT_EQ(object["code_name"], "IOCTL_VC_GPS_GET_SLEEP_STATUS");
    EXPECT_EQ(object["information"], 1);
    EXPECT_EQ(object["output"], "01");
    EXPECT_EQ(object["sleep_status"], 1);
    EXPECT_FALSE(object.contains("frame_number"));
}

TEST(Ctl, NoDeviceExitsTwoAndSaysSo)
{
    Outcome absent = run({"sleep"}, {}, false);
    EXPECT_EQ(absent.status, 2);
    EXPECT_NE(absent.err.find("no device"), std::string::npos) << absent.err;
    EXPECT_EQ(absent.out, "");

    // The device going away in the middle of a read loop.
    Outcome gone = run({"start-read"}, {read_reply(frame(0x31, 0, "$GPGSA*00\r\n"))});
    EXPECT_EQ(gone.status, 2);
    EXPECT_NE(gone.err.find("no device"), std::string::npos) << gone.err;
}

TEST(Ctl, BadUsageExitsTwoBeforeAnythingIsSent)
{
    const std::string short_agps = agps_file(100);
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"no-such-command"},
        {"sleep", "extra"},
        {"sendcmd", "--sid", "1"},
        {"sendcmd", "--pid", "0x100", "--sid", "1"},
        {"sendcmd", "--pid", "-1", "--sid", "1"},
        {"sendcmd", "--pid", "1", "--sid", "1", "--payload", "abc"},
        {"sendcmd", "--pid", "1", "--sid", "1", "--payload", "zz"},
        {"geofence-cmd", "--sid", "1", "--payload", "0102030405"},
        {"geofence-set", "--sid", "1", "--field5", "256"},
        {"geofence-set", "--sid", "1", "--field1", "65536"},
        {"agps", "--file", "/nonexistent/agps.bin"},
        {"agps", "--file", short_agps},
        {"raw", "--in", "00"},
        {"raw", "--code", "0x100000000"},
        {"raw", "--code", "IOCTL_VC_GPS_NOTHING"},
        {"raw", "--code", "0x"},
        {"start-read", "--count", "many"},
    };
    for (const auto& args : cases) {
        Outcome r = run(args, {});
        EXPECT_EQ(r.status, 2) << (args.empty() ? "(none)" : args.back());
        EXPECT_FALSE(r.err.empty());
    }
    Outcome help = run({"--help"}, {});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("geofence-set"), std::string::npos);
}

TEST(Ctl, FramesDecodeOnlyWhenWhole)
{
    struct Case {
        Bytes bytes;
        bool whole;
        std::string payload;
    };
    const Case cases[] = {
        {frame(0x20, 6, ""), true, ""},
        {frame(0x20, 6, "", false), true, ""},
        {frame(0x31, 0, "ab"), true, "6162"},
        {hex("a5 00 02 20 06"), false, ""},                         // no tail
        {hex("a5 00 02 20 06 00"), false, ""},                      // wrong tail
        {hex("a5 80 02 20 06 a5"), false, ""},                      // CRC announced, missing
        {hex("a5 00 01 20 a5"), false, ""},                         // length below pid and sid
        {hex("5a 00 02 20 06 a5"), false, ""},                      // no sync
        {hex("a5 00 06 31 00 00 02 61 62 a5 ff ff"), true, "6162"}, // padding after
    };
    for (const Case& c : cases) {
        mvgps::ctl::Frame f;
        SCOPED_TRACE(mvgps::ctl::to_hex(c.bytes, " "));
        ASSERT_EQ(mvgps::ctl::decode_frame(c.bytes, f), c.whole);
        if (c.whole) {
            EXPECT_EQ(mvgps::ctl::to_hex(f.payload), c.payload);
        }
    }
}

TEST(Ctl, NmeaIsRecognisedByContent)
{
    struct Case {
        std::string payload;
        const char* sentence;
    };
    const Case cases[] = {
        {"$GPRMC,1*00\r\n", "$GPRMC,1*00"},
        {"!AIVDM,1*00\r\n", "!AIVDM,1*00"},
        {"GPRMC,1*00\r\n", nullptr},
        {std::string("$GP\x01", 4), nullptr},
        {"", nullptr},
    };
    for (const Case& c : cases) {
        mvgps::ctl::Frame f;
        f.payload.assign(c.payload.begin(), c.payload.end());
        std::optional<std::string> sentence = mvgps::ctl::nmea_sentence(f);
        ASSERT_EQ(sentence.has_value(), c.sentence != nullptr) << c.payload;
        if (c.sentence) {
            EXPECT_EQ(*sentence, c.sentence);
        }
    }
}

// DeviceIoControl's errors turned back into the statuses the driver completed with, each one
// a status the output names.
TEST(Ctl, Win32ErrorsBecomeTheDriversStatuses)
{
    const std::pair<std::uint32_t, const char*> cases[] = {
        {31, "STATUS_UNSUCCESSFUL"},         {87, "STATUS_INVALID_PARAMETER"},
        {122, "STATUS_BUFFER_TOO_SMALL"},    {995, "STATUS_CANCELLED"},
        {50, "STATUS_NOT_SUPPORTED"},        {1450, "STATUS_INSUFFICIENT_RESOURCES"},
        {234, "STATUS_BUFFER_OVERFLOW"},     {1, "STATUS_INVALID_DEVICE_REQUEST"},
        {21, "STATUS_DEVICE_NOT_READY"},     {121, "STATUS_IO_TIMEOUT"},
        {22, "STATUS_INVALID_DEVICE_STATE"}, {1617, "STATUS_DEVICE_REMOVED"},
        {1168, "STATUS_NOT_FOUND"},          {5, "Win32 error 5"},
    };
    for (const auto& [error, name] : cases) {
        std::uint32_t status = mvgps::windows_client::status_from_win32(error);
        EXPECT_EQ(mvgps::ctl::status_name(status), name) << error;
        EXPECT_FALSE(mvgps::ctl::status_ok(status)) << error;
    }
}

} // namespace
