// mvgps-ctl.exe: the control client on Windows. The subcommands, their output and exit
// statuses are those of `mvgps ctl`; the device is the first one with the driver's interface.
#include <iostream>

#include "tools/ctl/ctl.h"
#include "windows/client/device.h"

int main(int argc, char** argv)
{
    CLI::App app("Send control requests to the mvgps GPS driver", "mvgps-ctl");
    mvgps::ctl::Commands commands(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return mvgps::ctl::usage_exit(app, e, std::cout, std::cerr);
    }
    return commands.run(mvgps::windows_client::open_device, std::cout, std::cerr);
}
