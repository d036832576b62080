// The control header from C and C++: the same codes, names and record sizes, and the codes
// a client may send are exactly the driver's fifteen.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "control/control.h"

extern "C" const char* c_control_code_name(uint32_t code);
extern "C" size_t c_record_size(int which);

namespace
{

TEST(ControlHeader, CodesNamesAndRecordsAgreeBetweenCAndCpp)
{
    std::set<std::uint32_t> functions;
    for (const gps_control_code& c : gps_control_codes) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.code >> 16, 0x22u);
        EXPECT_EQ(c.code & 3u, 0u);
        functions.insert(MVGPS_CTL_FUNCTION(c.code));
        ASSERT_NE(c_control_code_name(c.code), nullptr);
        EXPECT_EQ(std::string(c_control_code_name(c.code)), c.name);
    }
    // 0xA13 to 0xA24 without the three gaps.
    std::set<std::uint32_t> expected;
    for (std::uint32_t f = 0xA13; f <= 0xA24; f++) {
        if (f != 0xA19 && f != 0xA1B && f != 0xA1C) {
            expected.insert(f);
        }
    }
    EXPECT_EQ(functions, expected);
    for (std::uint32_t gap : {0x222864u, 0x22286Cu, 0x222870u}) {
        EXPECT_EQ(c_control_code_name(gap), nullptr);
    }
    EXPECT_EQ(c_record_size(0), sizeof(GPS_COMMAND_RECORD));
    EXPECT_EQ(c_record_size(1), sizeof(GPS_GEOFENCE_RECORD));
    EXPECT_EQ(c_record_size(2), sizeof(GPS_GEOFENCE_CMD_RECORD));
    EXPECT_EQ(c_record_size(3), sizeof(GPS_AGPS_RECORD));
}

} // namespace
