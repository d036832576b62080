// Loads the probe driver into a device stack under a simulated scheduler and reads back what
// its callbacks logged.
#pragma once

#include <gtest/gtest.h>

#include <initguid.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "pnp/client.h"
#include "pnp/stack.h"
#include "probe.h"
#include "sched/sched.h"

namespace mvgps::pnp::test
{

class ProbeTest : public ::testing::Test
{
  protected:
    void SetUp() override { kernel::clear_debug_output(); }

    std::unique_ptr<DeviceStack>
    make_stack(std::map<std::u16string, ULONG> parameters = {},
               std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> resources = {})
    {
        NodeConfig config;
        config.image = PROBE_DRIVER_PATH;
        config.parameters = std::move(parameters);
        config.resources = std::move(resources);
        return std::make_unique<DeviceStack>(config);
    }

    // The probe's log lines since the last call.
    std::vector<std::string> events()
    {
        std::vector<std::string> out;
        std::istringstream lines(kernel::debug_output());
        kernel::clear_debug_output();
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("probe: ", 0) == 0) {
                out.push_back(line.substr(7));
            }
        }
        return out;
    }

    // Waits (in virtual time) until the probe has logged `count` lines starting with `prefix`.
    bool wait_for_log(const std::string& prefix, std::size_t count)
    {
        auto& s = sched::current();
        sched::Nanos deadline = s.now() + sched::kSecond;
        while (s.now() < deadline) {
            std::size_t seen = 0;
            std::istringstream lines(kernel::debug_output());
            for (std::string line; std::getline(lines, line);) {
                seen += line.rfind("probe: " + prefix, 0) == 0;
            }
            if (seen >= count) {
                return true;
            }
            s.sleep_until(s.now() + sched::kMillisecond, "probe log");
        }
        return false;
    }

    std::unique_ptr<ClientHandle> open()
    {
        std::unique_ptr<ClientHandle> handle;
        EXPECT_EQ(ClientHandle::open_interface(GUID_DEVINTERFACE_PROBE, handle), STATUS_SUCCESS);
        return handle;
    }

    NTSTATUS call(ClientHandle& handle, ULONG code, std::vector<std::uint8_t>* out = nullptr,
                  ULONG_PTR* returned = nullptr)
    {
        std::vector<std::uint8_t> none;
        std::vector<std::uint8_t>& buffer = out ? *out : none;
        return handle.ioctl(code, {}, buffer, returned);
    }

    sched::Install sched_{sched::make_simulated(sched::seed_from_env())};
};

} // namespace mvgps::pnp::test
