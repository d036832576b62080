// A GPS receiver device as the host runs it: a device node whose UART connection resource
// names a Resource Hub id, and that id mapped to a UART controller. Behind the controller is
// either the simulated wire with the chip (or a scripted peer) at its far end, or a real
// serial port (a USB-serial adapter, a pty). Tests, benchmarks and tools all build their
// world here; one call brings it all up.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/pnp/stack.h"
#include "sim/chip/chip.h"
#include "sim/testkit/client.h"
#include "sim/uart/controller.h"
#include "sim/uart/tty_line.h"
#include "sim/uart/wire.h"
#include "host/verifier/faults.h"

namespace mvgps::sim
{

// The Resource Hub id of the device's UART.
inline constexpr std::uint64_t kUartConnectionId = 0x0000000100000002ull;

// What sits at the far end of the simulated wire.
enum class FarEnd : std::uint8_t { Chip, Peer };

struct DeviceConfig {
    std::string image;           // the driver's shared object
    std::uint32_t rate = 921600; // BaudRateIndex in the device's Parameters; the far end's rate
    FarEnd far_end = FarEnd::Chip;
    std::string capture; // the NMEA capture the simulated chip plays (none: its receiver model)
    std::string tty;     // a real serial port instead of the simulated wire and far end
    std::uint64_t connection_id = kUartConnectionId;
    // The device node's connection resources; none: the UART's connection by its id.
    std::optional<std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR>> resources;
    // BaudRateIndex when it differs from the line's rate; absent from Parameters if so asked.
    std::optional<std::uint32_t> baud_rate_index;
    bool baud_rate_index_absent = false;
    // Also offers the controller as a serial-port interface under this link.
    std::u16string serial_port;
    // Also binds the controller under this device name, for a driver that opens it by name.
    std::u16string uart_name;
    // Armed before the device comes up; every rule is cleared when it goes.
    std::vector<verifier::FaultRule> faults;
    chip::ChipConfig chip; // its rate and capture come from the fields above
    uart::ControllerConfig port;
};

class HostedDevice
{
  public:
    // Builds the world and brings the device up; null, with the reason, when that fails.
    static std::unique_ptr<HostedDevice> start(DeviceConfig config, std::string& error);

    // The simulated world, or the given real port (which must be open). The device node is
    // created but not started.
    explicit HostedDevice(DeviceConfig config, std::unique_ptr<uart::TtyLine> tty = nullptr);
    // Removes the device and unloads the driver before the world around it goes.
    ~HostedDevice();
    HostedDevice(const HostedDevice&) = delete;
    HostedDevice& operator=(const HostedDevice&) = delete;

    pnp::DeviceStack& stack() { return *stack_; }
    uart::SerialController& controller() { return *controller_; }
    // Null behind a real port, and when the other far end was chosen.
    chip::Chip* chip() { return chip_.get(); }
    testkit::Client* peer() { return peer_.get(); }
    uart::Wire* wire() { return wire_.get(); }

  private:
    const DeviceConfig config_;
    std::unique_ptr<uart::TtyLine> tty_;
    std::unique_ptr<uart::Wire> wire_;
    std::unique_ptr<chip::Chip> chip_;
    std::unique_ptr<testkit::Client> peer_;
    std::shared_ptr<uart::SerialController> controller_;
    std::unique_ptr<pnp::DeviceStack> stack_;
};

} // namespace mvgps::sim
