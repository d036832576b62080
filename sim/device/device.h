// A GPS receiver device as the host runs it: a device node whose UART connection resource
// names a Resource Hub id, and that id mapped to a UART controller. Behind the controller is
// either the simulated wire with the chip at its far end playing a capture, or a real serial
// port (a USB-serial adapter, a pty). One call brings it all up.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "pnp/stack.h"
#include "sim/chip/chip.h"
#include "sim/uart/controller.h"
#include "sim/uart/tty_line.h"
#include "sim/uart/wire.h"

namespace mvgps::sim
{

// The Resource Hub id of the device's UART.
inline constexpr std::uint64_t kUartConnectionId = 0x0000000100000002ull;

struct DeviceConfig {
    std::string image;           // the driver's shared object
    std::uint32_t rate = 921600; // BaudRateIndex in the device's Parameters; the chip's rate
    std::string capture;         // the NMEA capture the chip plays (none: its receiver model)
    std::string tty;             // a real serial port instead of the simulated wire and chip
    std::uint64_t connection_id = kUartConnectionId;
    chip::ChipConfig chip; // its rate and capture come from the fields above
    uart::ControllerConfig port;
};

class HostedDevice
{
  public:
    // Builds the world and brings the device up; null, with the reason, when that fails.
    static std::unique_ptr<HostedDevice> start(DeviceConfig config, std::string& error);

    // The simulated world, or the given real port (which must be open).
    explicit HostedDevice(DeviceConfig config, std::unique_ptr<uart::TtyLine> tty = nullptr);
    // Removes the device and unloads the driver before the world around it goes.
    ~HostedDevice();
    HostedDevice(const HostedDevice&) = delete;
    HostedDevice& operator=(const HostedDevice&) = delete;

    pnp::DeviceStack& stack() { return *stack_; }
    uart::SerialController& controller() { return *controller_; }
    // Null behind a real port.
    chip::Chip* chip() { return chip_.get(); }
    uart::Wire* wire() { return wire_.get(); }

  private:
    const std::uint64_t connection_id_;
    std::unique_ptr<uart::TtyLine> tty_;
    std::unique_ptr<uart::Wire> wire_;
    std::unique_ptr<chip::Chip> chip_;
    std::shared_ptr<uart::SerialController> controller_;
    std::unique_ptr<pnp::DeviceStack> stack_;
};

} // namespace mvgps::sim
