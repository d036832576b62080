// A whole simulated exchange (a host reading the port the way the driver does, commands
// going out, the chip streaming a capture) replays exactly from its seed.
#include <gtest/gtest.h>

#include <string>

#include "sim/chip/chip.h"
#include "sim_uart/port.h"

namespace mvgps::sim::uart
{
namespace
{

struct Outcome {
    std::vector<std::string> lines; // the frames the host read, then the chip's trace
    std::uint64_t schedule = 0;     // the scheduler's decisions
    std::size_t acks = 0;
};

Outcome run_scenario(std::uint64_t seed)
{
    sched::Install install(sched::make_simulated(seed));
    auto& s = sched::current();
    Wire wire;
    chip::ChipConfig cfg;
    cfg.capture = std::make_shared<const chip::Capture>(chip::Capture::parse(
        "$GPGGA,120000,1*00\n$GPGSA,A*00\n$GPRMC,120000,A*00\n$GPGGA,120001,2*00\n"
        "$GPRMC,120001,A*00\n"));
    chip::Chip chip(wire.b(), cfg);
    SerialController controller(wire.a(), port_at(921600));
    std::unique_ptr<io::File> file;
    EXPECT_EQ(controller.open({}, file), STATUS_SUCCESS);
    EXPECT_EQ(control(*file, IOCTL_SERIAL_SET_TIMEOUTS, times(10, 0, 0)), STATUS_SUCCESS);

    Outcome out;
    const sched::Nanos end = s.now() + 2700 * kMs;
    sched::Thread* reader = s.spawn("reader", [&] {
        chip::FrameParser parser;
        while (s.now() < end) { // the chip's status frames end every read
            read_frames(*file, parser, [&](const chip::Frame& f, chip::FrameParser::Verdict) {
                out.lines.push_back(std::to_string(s.now()) + " host " + chip::describe(f));
                out.acks += f.pid != chip::kPidStatus && f.pid != chip::kPidNmeaData;
            });
        }
    });
    const chip::Frame commands[] = {{0xFF, 2, true, {}},
                                    {5, 1, true, {0x4A, 0xA7, 0x10, 0x80, 0}},
                                    {0x10, 0, true, {0x31, 0x56, 0xA8, 0x02}},
                                    {0xFF, 3, true, {}}};
    for (const auto& c : commands) {
        write_frame(*file, c);
        s.sleep_until(s.now() + 40 * kMs, "between commands");
    }
    s.join(reader);
    file.reset();

    for (const auto& e : chip.trace()) {
        out.lines.push_back(e.text());
    }
    out.schedule = s.trace_hash();
    return out;
}

TEST(SimulatedScenario, ReplaysExactlyFromItsSeed)
{
    const Outcome first = run_scenario(42);
    const Outcome again = run_scenario(42);
    const Outcome other = run_scenario(43);
    EXPECT_EQ(first.acks, 4u);
    EXPECT_GT(first.lines.size(), 200u);
    EXPECT_EQ(first.lines, again.lines);
    EXPECT_EQ(first.schedule, again.schedule);
    EXPECT_NE(first.lines, other.lines);
    EXPECT_NE(first.schedule, other.schedule);
    EXPECT_EQ(other.acks, 4u);
}

} // namespace
} // namespace mvgps::sim::uart
