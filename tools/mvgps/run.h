// `mvgps run`: a device kept running in real time, its NMEA bridged to a pseudo-terminal and
// its control codes served on a local socket, until a signal (or the capture's end).
#pragma once

#include <string>

#include "tools/mvgps/session.h"

namespace mvgps::tool
{

struct RunOptions {
    SessionOptions session;
    std::string nmea_pty; // a symlink to the pty's slave
    bool wait_reader = false;
    bool until_end = false;
    std::string control; // the control socket's path
    bool json = false;
};

int run_device(const RunOptions& options);

} // namespace mvgps::tool
