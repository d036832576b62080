// A simulated UART controller opened as the driver opens it, with a test client on the far
// end of its wire.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "sched/sched.h"
#include "sim/uart/controller.h"
#include "sim/uart/wire.h"
#include "sim_testkit/client.h"
#include "wdf/lower_device.h"

namespace mvgps::sim::uart
{

using Bytes = std::vector<std::uint8_t>;

inline ControllerConfig fast_port(std::size_t fifo = 4096)
{
    ControllerConfig c;
    c.line = {921600, {}};
    c.fifo_size = fifo;
    return c;
}

struct Port {
    explicit Port(ControllerConfig config = fast_port())
        : install(sched::make_simulated(sched::seed_from_env())), controller(wire.a(), config),
          far(wire.b(), config.line.rate)
    {
        open_status = controller.open({}, file);
    }

    std::shared_ptr<io::IoRequest> read(Bytes& buffer)
    {
        auto r = io::IoRequest::make(io::Major::Read, 0, {}, buffer);
        file->dispatch(r);
        return r;
    }

    std::shared_ptr<io::IoRequest> write(const Bytes& data)
    {
        auto r = io::IoRequest::make(io::Major::Write, 0, data, {});
        file->dispatch(r);
        return r;
    }

    // A buffered control call: one system buffer of max(in, out) bytes.
    NTSTATUS control(ULONG code, const Bytes& in, std::size_t out_size, Bytes* out = nullptr,
                     std::size_t* information = nullptr)
    {
        Bytes system(std::max(in.size(), out_size));
        std::copy(in.begin(), in.end(), system.begin());
        auto r =
            io::IoRequest::make(io::Major::DeviceControl, code, std::span(system).first(in.size()),
                                std::span(system).first(out_size));
        file->dispatch(r);
        r->wait(sched::kForever);
        if (out != nullptr) {
            out->assign(system.begin(), system.begin() + static_cast<long>(r->information()));
        }
        if (information != nullptr) {
            *information = r->information();
        }
        return r->status();
    }

    template <class T>
    NTSTATUS set(ULONG code, const T& value)
    {
        Bytes in(sizeof value);
        std::memcpy(in.data(), &value, sizeof value);
        return control(code, in, 0);
    }

    sched::Install install;
    Wire wire;
    SerialController controller;
    testkit::Client far;
    std::unique_ptr<io::LowerFile> file;
    NTSTATUS open_status;
};

} // namespace mvgps::sim::uart
