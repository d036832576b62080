// Where the recorded NMEA captures are: $MVGPS_NMEA_DIR, else the directory found at build
// time beside the checkout. A fresh clone may have none; tests that need them skip.
#pragma once

#include <cstdlib>
#include <filesystem>

namespace mvgps::sim::testkit
{

inline std::filesystem::path nmea_dir()
{
    const char* env = std::getenv("MVGPS_NMEA_DIR");
    return env != nullptr ? env : MVGPS_NMEA_DIR;
}

// Skips the calling test when `path` does not exist.
#define SKIP_WITHOUT_CAPTURES(path)                                                                \
    if (!std::filesystem::exists(path)) {                                                          \
        GTEST_SKIP() << "no recorded NMEA capture at " << (path)                                   \
                     << " (they live in shared/data/nmea beside the checkout; set "                \
                        "MVGPS_NMEA_DIR to point elsewhere)";                                      \
    }

} // namespace mvgps::sim::testkit
