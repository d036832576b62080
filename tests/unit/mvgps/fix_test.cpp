// The fix the demo's table shows, from GGA sentences as receivers send them.
#include <gtest/gtest.h>

#include "tools/mvgps/fix.h"

namespace mvgps::tool
{
namespace
{

TEST(Fix, GgaGivesTimePositionQualityAndSatellites)
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
        {"GGA,1,2,3,4,5,6,7,8,9,10", std::nullopt},
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

} // namespace
} // namespace mvgps::tool
