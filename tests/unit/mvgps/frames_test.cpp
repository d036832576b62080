// What the program reads out of the driver's completed reads: the frame behind the header,
// the sentence it carries, the fix of a GGA; and the hex of the control socket.
#include <gtest/gtest.h>

#include <cmath>

#include "control/control.h"
#include "sim/chip/frame.h"
#include "tools/mvgps/frames.h"
#include "tools/mvgps/hex.h"

namespace mvgps::tool
{
namespace
{

std::vector<std::uint8_t> read_output(const sim::chip::Frame& f)
{
    std::vector<std::uint8_t> out(GPS_READ_HEADER_SIZE, 0);
    out[0] = 3;
    const auto wire = sim::chip::encode(f);
    out.insert(out.end(), wire.begin(), wire.end());
    return out;
}

sim::chip::Frame nmea_frame(const std::string& text)
{
    return {0x31, 0, true, std::vector<std::uint8_t>(text.begin(), text.end())};
}

TEST(Frames, SentenceIsFoundByContentBehindTheHeader)
{
    struct Case {
        const char* name;
        sim::chip::Frame frame;
        std::optional<std::string> sentence;
    };
    const Case cases[] = {
        {"crlf_dropped", nmea_frame("$GPRMC,1*00\r\n"), "$GPRMC,1*00"},
        {"lf_only", nmea_frame("!AIVDM,x\n"), "!AIVDM,x"},
        {"other_pid", {0x07, 1, false, {'$', 'G', 'P'}}, "$GP"},
        {"status_frame", {50, 0, true, {1, 0, 0, 0}}, std::nullopt},
        {"no_payload", {0x20, 6, true, {}}, std::nullopt},
    };
    for (const Case& c : cases) {
        const auto frame = read_frame(read_output(c.frame));
        ASSERT_TRUE(frame) << c.name;
        EXPECT_EQ(*frame, c.frame) << c.name;
        EXPECT_EQ(sentence_of(*frame), c.sentence) << c.name;
    }
    auto corrupt = read_output(nmea_frame("$GPGGA\r\n"));
    corrupt.back() = 0;
    EXPECT_FALSE(read_frame(corrupt)) << "a bad tail is no frame";
    EXPECT_FALSE(read_frame(std::vector<std::uint8_t>(GPS_READ_HEADER_SIZE, 0)));
}

TEST(Frames, GgaGivesPositionQualityAndSatellites)
{
    struct Case {
        const char* sentence;
        std::optional<Fix> fix;
    };
    const Case cases[] = {
        {"$GPGGA,123519.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47",
         Fix{"12:35:19", 48.1173, 11.516666, 545.4, 1, 8}},
        {"$GNGGA,030130,3747.088,S,17518.894,W,2,12,1.0,60.7,M,,M,,*00",
         Fix{"03:01:30", -37.784800, -175.314900, 60.7, 2, 12}},
        {"$GPGGA,000001,,,,,0,00,,,M,,M,,*66", Fix{"00:00:01", 0, 0, 0, 0, 0}},
        {"$GPRMC,123519,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A", std::nullopt},
        {"$GPGGA,123519,4807.038,N", std::nullopt},
    };
    for (const Case& c : cases) {
        const auto fix = parse_gga(c.sentence);
        ASSERT_EQ(fix.has_value(), c.fix.has_value()) << c.sentence;
        if (!fix) {
            continue;
        }
        EXPECT_EQ(fix->time, c.fix->time) << c.sentence;
        EXPECT_NEAR(fix->latitude, c.fix->latitude, 1e-5) << c.sentence;
        EXPECT_NEAR(fix->longitude, c.fix->longitude, 1e-5) << c.sentence;
        EXPECT_NEAR(fix->altitude, c.fix->altitude, 1e-9) << c.sentence;
        EXPECT_EQ(fix->quality, c.fix->quality) << c.sentence;
        EXPECT_EQ(fix->satellites, c.fix->satellites) << c.sentence;
    }
}

TEST(Hex, RoundTripAndRefusals)
{
    const std::vector<std::uint8_t> bytes{0x00, 0xA5, 0x0F, 0xFF};
    EXPECT_EQ(to_hex(bytes), "00a50fff");
    std::vector<std::uint8_t> back;
    ASSERT_TRUE(from_hex("00A50fFF", back));
    EXPECT_EQ(back, bytes);
    for (const char* bad : {"0", "0g", "a5 0f"}) {
        EXPECT_FALSE(from_hex(bad, back)) << bad;
    }
}

} // namespace
} // namespace mvgps::tool
