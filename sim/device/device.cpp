#include "sim/device/device.h"

#include <cstdio>

#include "host/pnp/system.h"

namespace mvgps::sim
{

namespace
{

pnp::NodeConfig node(const DeviceConfig& c)
{
    pnp::NodeConfig n;
    n.image = c.image;
    if (!c.baud_rate_index_absent) {
        n.parameters[u"BaudRateIndex"] = c.baud_rate_index.value_or(c.rate);
    }
    n.resources = c.resources.value_or(
        std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR>{pnp::uart_connection(c.connection_id)});
    return n;
}

} // namespace

HostedDevice::HostedDevice(DeviceConfig config, std::unique_ptr<uart::TtyLine> tty)
    : config_(std::move(config)), tty_(std::move(tty))
{
    Line* line = tty_.get();
    if (line == nullptr) {
        wire_ = std::make_unique<uart::Wire>();
        if (config_.far_end == FarEnd::Peer) {
            peer_ = std::make_unique<testkit::Client>(wire_->b(), config_.rate);
        } else {
            chip::ChipConfig chip = config_.chip;
            chip.rate = config_.rate;
            chip_ = std::make_unique<chip::Chip>(wire_->b(), std::move(chip));
        }
        line = &wire_->a();
    }
    uart::ControllerConfig port = config_.port;
    port.line.rate = config_.rate;
    controller_ = std::make_shared<uart::SerialController>(*line, port);
    pnp::map_resource_hub(config_.connection_id, controller_);
    if (!config_.uart_name.empty()) {
        io::bind(config_.uart_name, controller_);
    }
    if (!config_.serial_port.empty()) {
        pnp::add_serial_port(config_.serial_port, controller_);
    }
    for (const verifier::FaultRule& rule : config_.faults) {
        verifier::add_fault(rule);
    }
    stack_ = std::make_unique<pnp::DeviceStack>(node(config_));
}

HostedDevice::~HostedDevice()
{
    stack_.reset();
    verifier::clear_faults();
    if (!config_.serial_port.empty()) {
        pnp::remove_serial_port(config_.serial_port);
    }
    if (!config_.uart_name.empty()) {
        io::unbind(config_.uart_name);
    }
    pnp::unmap_resource_hub(config_.connection_id);
    controller_.reset();
    peer_.reset();
    chip_.reset();
    wire_.reset();
    tty_.reset();
}

std::unique_ptr<HostedDevice> HostedDevice::start(DeviceConfig config, std::string& error)
{
    std::unique_ptr<uart::TtyLine> tty;
    if (!config.tty.empty()) {
        if (sched::current().mode() != sched::Mode::Realtime) {
            error = "a real serial port needs the realtime scheduler";
            return nullptr;
        }
        tty = uart::TtyLine::open(config.tty, error);
        if (!tty) {
            return nullptr;
        }
    } else if (!config.capture.empty()) {
        auto capture = chip::Capture::load(config.capture);
        if (!capture) {
            error = config.capture + ": no NMEA capture there";
            return nullptr;
        }
        config.chip.capture = std::make_shared<const chip::Capture>(std::move(*capture));
    }
    auto device = std::make_unique<HostedDevice>(std::move(config), std::move(tty));
    const NTSTATUS status = device->stack().bring_up();
    if (!NT_SUCCESS(status)) {
        char text[64];
        std::snprintf(text, sizeof text, "the device did not start: status 0x%08x",
                      static_cast<unsigned>(status));
        error = text;
        return nullptr;
    }
    return device;
}

} // namespace mvgps::sim
