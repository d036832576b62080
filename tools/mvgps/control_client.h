// The client side of `mvgps run`'s control socket (control_server.h has the protocol): one
// request at a time, each answered before the next is sent.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace mvgps::tool
{

struct ControlReply {
    std::uint32_t status = 0; // NTSTATUS as the driver completed the request
    std::uint64_t information = 0;
    std::vector<std::uint8_t> output;
};

class ControlClient
{
  public:
    // Null, with a reason that says "no device", when no run serves `path`.
    static std::unique_ptr<ControlClient> connect(const std::string& path, std::string& error);
    ~ControlClient();
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    // False, with a reason, when the request got no answer from the device.
    bool request(std::uint32_t code, std::span<const std::uint8_t> input,
                 std::uint32_t output_length, ControlReply& reply, std::string& error);

  private:
    explicit ControlClient(int fd) : fd_(fd) {}
    bool read_line(std::string& line);

    const int fd_;
    std::string buffer_;
};

} // namespace mvgps::tool
