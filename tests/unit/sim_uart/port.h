// A simulated UART controller opened as the driver opens it, with a test client on the far
// end of its wire; and the buffered control calls every test of the controller makes.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "sched/sched.h"
#include "sim/uart/controller.h"
#include "sim/uart/wire.h"
#include "sim_testkit/client.h"
#include "io/names.h"

namespace mvgps::sim::uart
{

using testkit::Bytes;
using testkit::bytes_of;
using testkit::run_for;
constexpr sched::Nanos kMs = sched::kMillisecond;

inline Bytes u32(ULONG v)
{
    return bytes_of(v);
}
// Read interval, read per-byte and constant, write per-byte and constant, in ms.
inline Bytes times(ULONG interval, ULONG multiplier, ULONG constant, ULONG write = 0)
{
    return bytes_of(SERIAL_TIMEOUTS{interval, multiplier, constant, 0, write});
}

inline std::shared_ptr<io::Request> submit(io::File& file, io::Major major,
                                           std::span<const std::uint8_t> in,
                                           std::span<std::uint8_t> out, ULONG code = 0)
{
    auto r = io::Request::make(major, code, in, out);
    file.dispatch(r);
    return r;
}

// A buffered control call; `out` gets what the call returned.
inline NTSTATUS control(io::File& file, ULONG code, const Bytes& in, std::size_t out_size = 0,
                        Bytes* out = nullptr)
{
    Bytes returned(out_size);
    auto r = submit(file, io::Major::DeviceControl, in, returned, code);
    r->wait(sched::kForever);
    if (out != nullptr) {
        out->assign(returned.begin(), returned.begin() + static_cast<long>(r->information()));
    }
    return r->status();
}

// Waits for a request until `deadline`, then cancels it: its buffers must outlive it.
inline void finish(io::Request& r, sched::Nanos deadline)
{
    if (!r.wait(deadline)) {
        r.cancel();
        r.wait(sched::kForever);
    }
}

// A frame written as the driver writes it; done once the request completes (by `deadline`).
inline std::shared_ptr<io::Request> write_frame(io::File& file, const chip::Frame& f,
                                                sched::Nanos deadline = sched::kForever)
{
    const Bytes bytes = chip::encode(f);
    auto r = submit(file, io::Major::Write, bytes, {});
    finish(*r, deadline);
    return r;
}

// One read as the driver issues it; what it brought goes to the parser.
inline std::shared_ptr<io::Request> read_frames(io::File& file, chip::FrameParser& parser,
                                                const chip::FrameParser::Sink& sink,
                                                sched::Nanos deadline = sched::kForever)
{
    Bytes buffer(2048);
    auto r = submit(file, io::Major::Read, {}, buffer);
    finish(*r, deadline);
    parser.feed(std::span(buffer).first(r->information()), sink);
    return r;
}

inline ControllerConfig port_at(std::uint32_t rate, std::size_t fifo = 4096)
{
    ControllerConfig c;
    c.line = {rate, {}};
    c.fifo_size = fifo;
    return c;
}

struct Port {
    explicit Port(ControllerConfig config = port_at(921600))
        : install(sched::make_simulated(sched::seed_from_env())), controller(wire.a(), config),
          far(wire.b(), config.line.rate)
    {
        open_status = controller.open({}, file);
    }

    auto read(Bytes& buffer) { return submit(*file, io::Major::Read, {}, buffer); }
    auto write(const Bytes& data) { return submit(*file, io::Major::Write, data, {}); }
    NTSTATUS set(ULONG code, const Bytes& in) { return control(*file, code, in); }

    sched::Install install;
    Wire wire;
    SerialController controller;
    testkit::Client far;
    std::unique_ptr<io::File> file;
    NTSTATUS open_status;
};

} // namespace mvgps::sim::uart
