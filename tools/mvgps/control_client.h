// The client side of `mvgps run`'s control socket (control_server.h has the protocol), as the
// transport of `mvgps ctl`: one request at a time, each answered before the next is sent.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tools/ctl/ctl.h"

namespace mvgps::tool
{

class ControlClient final : public ctl::Transport
{
  public:
    // Null, with a reason, when no run serves `path`.
    static std::unique_ptr<ControlClient> connect(const std::string& path, std::string& error);
    ~ControlClient() override;
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // False, with a reason, when the request got no answer from the device.
    bool control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                 std::uint32_t output_length, ctl::Reply& reply, std::string& error) override;

  private:
    explicit ControlClient(int fd) : fd_(fd) {}
    bool read_line(std::string& line);

    const int fd_;
    std::string buffer_;
};

} // namespace mvgps::tool
