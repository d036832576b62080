// A user-mode client of the driver, as DeviceIoControl sees the system: it opens a device
// interface by class (or a device the PnP manager knows, such as a child) and sends control
// codes synchronously or asynchronously. METHOD_BUFFERED requests carry one system buffer of
// max(input, output) bytes and return `Information` bytes of it; METHOD_NEITHER requests
// hand the driver the caller's own buffers. Closing a handle cancels what it has pending.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "host/sched/sched.h"

namespace mvgps::wdf
{
class Device;
class Request;
} // namespace mvgps::wdf

namespace mvgps::pnp
{

// One control request in flight.
class PendingIo
{
  public:
    // CancelIoEx for this request.
    void cancel();
    bool wait(sched::Nanos deadline);
    bool done() const;
    NTSTATUS status() const;
    ULONG_PTR information() const;
    // The caller's output buffer as the system left it.
    std::span<const std::uint8_t> output() const { return output_; }

  private:
    friend class ClientHandle;
    std::vector<std::uint8_t> input_;
    std::vector<std::uint8_t> output_;
    std::vector<std::uint8_t> system_;
    std::weak_ptr<wdf::Request> request_;
    bool done_ = false;
    NTSTATUS status_ = STATUS_PENDING;
    ULONG_PTR information_ = 0;
    sched::WaitList waiters_;
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
    ClientHandle(wdf::Device* device, std::shared_ptr<void> hold)
        : device_(device), hold_(std::move(hold))
    {
    }

    wdf::Device* device_;
    std::shared_ptr<void> hold_; // keeps the device's record readable after its removal
    bool closed_ = false;
    std::vector<std::weak_ptr<PendingIo>> pending_;
};

} // namespace mvgps::pnp
