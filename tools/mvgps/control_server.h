// The local socket `mvgps run` serves control requests on, for `mvgps ctl`. A Unix stream
// socket carrying one JSON object per line each way:
//   request  {"code": <uint32>, "in": "<hex>", "out": <uint32 output length>}
//   reply    {"status": <uint32>, "information": <uint64>, "out": "<hex>"}
//            or {"error": "<text>"}
// A connection may carry several requests in turn, each sent from a client handle of its
// own on the device interface, as a separate process would; connections are served at the
// same time (a read waits for a frame).
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace mvgps::tool
{

// $XDG_RUNTIME_DIR/mvgps.sock, else /tmp/mvgps-<uid>.sock.
std::string default_control_path();

class ControlServer
{
  public:
    // Listens at `path`; null with a reason when another run holds it or it cannot be made.
    static std::unique_ptr<ControlServer> start(const std::string& path, std::string& error);
    // Stops listening, ends every connection (cancelling what it waits for) and removes the
    // socket.
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    const std::string& path() const { return path_; }
    std::uint64_t requests() const { return requests_; }

  private:
    struct Connection {
        int fd = -1;
        std::atomic<bool> done{false};
        std::thread thread;
    };
    ControlServer(int fd, std::string path);
    void accept_loop();
    // Joins and closes the connections whose clients have gone (lock_ held).
    void reap();
    void serve(int fd);
    std::string answer(const std::string& line);

    const int listen_fd_;
    const std::string path_;
    std::atomic<bool> stop_{false};
    std::atomic<std::uint64_t> requests_{0};
    std::mutex lock_;
    std::list<Connection> connections_;
    std::thread acceptor_;
};

} // namespace mvgps::tool
