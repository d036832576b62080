// A user-mode client of the driver, as DeviceIoControl sees the system: it opens a device
// interface by class (or a device the PnP manager knows, such as a child) in the object
// namespace and sends control codes synchronously or asynchronously. The I/O request does
// what the I/O manager does with the buffers (one system buffer for METHOD_BUFFERED, the
// caller's own for METHOD_NEITHER). Closing a handle cancels what it has pending.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "io/names.h"
#include "sched/sched.h"

namespace mvgps::wdf
{
class Device;
} // namespace mvgps::wdf

namespace mvgps::pnp
{

// One control request in flight.
class PendingIo
{
  public:
    // CancelIoEx for this request.
    void cancel() { irp_->cancel(); }
    bool wait(sched::Nanos deadline) { return irp_->wait(deadline); }
    bool done() const { return irp_->completed(); }
    NTSTATUS status() const { return irp_->status(); }
    ULONG_PTR information() const { return irp_->information(); }
    // The caller's output buffer as the system left it.
    std::span<const std::uint8_t> output() const { return output_; }

  private:
    friend class ClientHandle;
    std::vector<std::uint8_t> input_;
    std::vector<std::uint8_t> output_;
    std::shared_ptr<io::Request> irp_;
};

class ClientHandle
{
  public:
    // The first enabled interface of the class, as CreateFile on its symbolic link would.
    static NTSTATUS open_interface(const GUID& interface_class,
                                   std::unique_ptr<ClientHandle>& handle);
    static NTSTATUS open_device(wdf::Device* device, std::unique_ptr<ClientHandle>& handle);
    ~ClientHandle();
    ClientHandle(const ClientHandle&) = delete;
    ClientHandle& operator=(const ClientHandle&) = delete;

    NTSTATUS ioctl(ULONG code, std::span<const std::uint8_t> input, std::span<std::uint8_t> output,
                   ULONG_PTR* returned = nullptr);
    std::shared_ptr<PendingIo> ioctl_async(ULONG code, std::span<const std::uint8_t> input,
                                           std::size_t output_length);
    // Cancels every request still pending on the handle.
    void close();

  private:
    explicit ClientHandle(std::unique_ptr<io::File> file) : file_(std::move(file)) {}

    std::unique_ptr<io::File> file_;
    bool closed_ = false;
    std::vector<std::weak_ptr<PendingIo>> pending_;
};

} // namespace mvgps::pnp
