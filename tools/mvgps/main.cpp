// mvgps: the driver in the host, for people. `demo` shows it working against the simulated
// chip; `run` keeps a device running and bridges its NMEA to a pseudo-terminal; `ctl` sends
// control codes to a running `run`.
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "host/sched/sched.h"
#include "tools/ctl/ctl.h"
#include "tools/mvgps/control_client.h"
#include "tools/mvgps/control_server.h"
#include "tools/mvgps/demo.h"
#include "tools/mvgps/run.h"

namespace
{

using namespace mvgps::tool;

constexpr int kBadUsage = 2;

// The options every device-running subcommand shares.
CLI::Option* add_device_options(CLI::App& cmd, SessionOptions& o)
{
    CLI::Option* capture = cmd.add_option("--capture", o.capture,
                                          "play this NMEA capture instead of the receiver model")
                               ->check(CLI::ExistingFile);
    cmd.add_option("--rate", o.rate, "line rate in bit/s (BaudRateIndex and the chip's rate)")
        ->capture_default_str();
    cmd.add_option("--driver", o.driver, "the driver image to load")->capture_default_str();
    return capture;
}

std::string replay_command(const DemoOptions& d)
{
    std::string c = "mvgps demo --seed " + std::to_string(d.session.seed) + " --seconds " +
                    std::to_string(d.seconds);
    if (!d.session.capture.empty()) {
        c += " --capture " + d.session.capture;
    }
    if (d.session.rate != 921600) {
        c += " --rate " + std::to_string(d.session.rate);
    }
    return c;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"mvgps: the GPS bus driver running in the host, against a simulated chip or a "
                 "real serial port"};
    app.require_subcommand(1);

    DemoOptions demo;
    demo.session.driver = MVGPS_DRIVER_PATH;
    bool trace = false;
    CLI::App* demo_cmd = app.add_subcommand(
        "demo", "load the driver against the simulated chip and show it at work");
    add_device_options(*demo_cmd, demo.session);
    demo_cmd->add_option("--seconds", demo.seconds, "device time to run after the cold start")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    demo_cmd->add_flag("--realtime", demo.session.realtime, "run on the clock, not simulated");
    demo_cmd->add_option("--seed", demo.session.seed,
                         "seed of the simulated run (default: $MVGPS_SEED, else drawn)");
    demo_cmd->add_flag("--json", demo.json, "print the summary as JSON (the rest to stderr)");
    demo_cmd->add_flag("--trace", trace, "show the driver's debug log on stderr");

    RunOptions run;
    run.session.driver = demo.session.driver;
    run.session.realtime = true;
    run.control = default_control_path();
    CLI::App* run_cmd = app.add_subcommand(
        "run", "keep a device running in real time, its NMEA on a pty, its control codes on a "
               "socket, until SIGINT or SIGTERM");
    CLI::Option* capture = add_device_options(*run_cmd, run.session);
    run_cmd->add_option("--tty", run.session.tty, "a real serial port instead of the chip")
        ->excludes(capture);
    run_cmd->add_option("--nmea-pty", run.nmea_pty, "also reach the pty through this symlink");
    run_cmd->add_flag("--wait-reader", run.wait_reader,
                      "hold the chip's NMEA until a reader has opened the pty");
    run_cmd
        ->add_flag("--until-end", run.until_end,
                   "exit once the capture has been played and delivered whole")
        ->needs(capture);
    run_cmd->add_option("--control", run.control, "the control socket")->capture_default_str();
    run_cmd->add_flag("--json", run.json, "print the summary as JSON (the rest to stderr)");
    run_cmd->add_flag("--trace", trace, "show the driver's debug log on stderr");

    std::string control = default_control_path();
    CLI::App* ctl_cmd = app.add_subcommand("ctl", "send one control code to a running `mvgps run`");
    ctl_cmd->add_option("--control", control, "the run's control socket")->capture_default_str();
    mvgps::ctl::Commands commands(*ctl_cmd);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : kBadUsage;
    }
    if (trace) {
        setenv("MVGPS_DEBUG", "1", 1);
    }
    if (*demo_cmd) {
        if (demo_cmd->count("--seed") == 0) {
            demo.session.seed = mvgps::sched::seed_from_env();
        }
        demo.command = replay_command(demo);
        return run_demo(demo);
    }
    if (*run_cmd) {
        return run_device(run);
    }
    if (*ctl_cmd) {
        return commands.run(
            [&](std::string& error) -> std::unique_ptr<mvgps::ctl::Transport> {
                return ControlClient::connect(control, error);
            },
            std::cout, std::cerr);
    }
    return kBadUsage;
}
