// `mvgps demo`: the driver loaded against the simulated chip, shown at work from start to
// stop, then the summary.
#pragma once

#include <string>

#include "tools/mvgps/session.h"

namespace mvgps::tool
{

struct DemoOptions {
    SessionOptions session;
    int seconds = 60; // of device time, from the cold start
    bool json = false;
    std::string command; // the command line that replays the run
};

// The exit status: 0 when the run went as it should.
int run_demo(const DemoOptions& options);

} // namespace mvgps::tool
