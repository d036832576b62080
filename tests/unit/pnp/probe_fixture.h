// Loads the probe driver into a device stack under a simulated scheduler and reads back what
// its callbacks logged.
#pragma once

#include <gtest/gtest.h>

#include <initguid.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "host/kernel/kernel.h"
#include "host/pnp/client.h"
#include "host/pnp/stack.h"
#include "tests/drivers/probe/probe.h"
#include "host/sched/sched.h"

namespace mvgps::pnp::test
{

using Events = std::vector<std::string>;

class ProbeTest : public ::testing::Test
{
  protected:
    void SetUp() override { kernel::clear_debug_output(); }

    static std::unique_ptr<DeviceStack> make_stack(std::map<std::u16string, ULONG> parameters = {})
    {
        NodeConfig config;
        config.image = PROBE_DRIVER_PATH;
        config.parameters = std::move(parameters);
        return std::make_unique<DeviceStack>(config);
    }

    // The probe's log lines since the last call.
    static Events events()
    {
        Events out;
        std::istringstream lines(kernel::debug_output());
        kernel::clear_debug_output();
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("probe: ", 0) == 0) {
                out.push_back(line.substr(7));
            }
        }
        return out;
    }

    static std::unique_ptr<ClientHandle> open()
    {
        std::unique_ptr<ClientHandle> handle;
        EXPECT_EQ(ClientHandle::open_interface(GUID_DEVINTERFACE_PROBE, handle), STATUS_SUCCESS);
        return handle;
    }

    static PROBE_STATE state(ClientHandle& handle)
    {
        PROBE_STATE state{};
        auto* bytes = reinterpret_cast<std::uint8_t*>(&state);
        EXPECT_EQ(handle.ioctl(IOCTL_PROBE_STATE, {}, {bytes, sizeof state}), STATUS_SUCCESS);
        return state;
    }

    sched::Install sched_{sched::make_simulated(sched::seed_from_env())};
};

} // namespace mvgps::pnp::test
