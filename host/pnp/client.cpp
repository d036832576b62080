#include "host/pnp/client.h"

#include <algorithm>
#include <cstring>

#include "host/kernel/kernel.h"
#include "host/pnp/stack.h"
#include "host/wdf/device.h"
#include "host/wdf/request.h"

namespace mvgps::pnp
{

void PendingIo::cancel()
{
    if (auto request = request_.lock()) {
        request->cancel();
    }
}

bool PendingIo::wait(sched::Nanos deadline)
{
    auto& s = sched::current();
    sched::StateLock lock(s);
    return s.wait(waiters_, "control request", deadline, [this] { return done_; }) ==
           sched::WaitResult::Ready;
}

bool PendingIo::done() const
{
    sched::StateLock lock(sched::current());
    return done_;
}

NTSTATUS PendingIo::status() const
{
    sched::StateLock lock(sched::current());
    return status_;
}

ULONG_PTR PendingIo::information() const
{
    sched::StateLock lock(sched::current());
    return information_;
}

NTSTATUS ClientHandle::open_interface(const GUID& interface_class,
                                      std::unique_ptr<ClientHandle>& handle)
{
    auto links = kernel::interfaces(interface_class);
    for (const auto& link : links) {
        for (wdf::Device* device : DeviceStack::all_devices()) {
            for (const auto& i : device->interfaces()) {
                if (i.link == link) {
                    return open_device(device, handle);
                }
            }
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS ClientHandle::open_device(wdf::Device* device, std::unique_ptr<ClientHandle>& handle)
{
    if (!device || device->pnp_state() != wdf::Device::Pnp::Started) {
        return STATUS_NO_SUCH_DEVICE;
    }
    handle.reset(new ClientHandle(device, wdf::Objects::hold(device)));
    return STATUS_SUCCESS;
}

ClientHandle::~ClientHandle()
{
    close();
}

std::shared_ptr<PendingIo> ClientHandle::ioctl_async(ULONG code,
                                                     std::span<const std::uint8_t> input,
                                                     std::size_t output_length)
{
    auto io = std::make_shared<PendingIo>();
    io->input_.assign(input.begin(), input.end());
    io->output_.assign(output_length, 0);
    auto complete = [io](NTSTATUS status, ULONG_PTR information) {
        if (!io->system_.empty()) {
            information = std::min<ULONG_PTR>(information, io->output_.size());
            std::copy_n(io->system_.begin(), information, io->output_.begin());
        }
        auto& s = sched::current();
        {
            sched::StateLock lock(s);
            io->done_ = true;
            io->status_ = status;
            io->information_ = information;
            s.wake(io->waiters_);
        }
        s.point("I/O completion");
    };
    if (closed_ || device_->pnp_state() != wdf::Device::Pnp::Started) {
        complete(closed_ ? STATUS_INVALID_HANDLE : STATUS_DELETE_PENDING, 0);
        return io;
    }
    wdf::Request::Buffers buffers;
    switch (METHOD_FROM_CTL_CODE(code)) {
    case METHOD_BUFFERED:
        io->system_.assign(std::max(io->input_.size(), io->output_.size()), 0);
        std::copy(io->input_.begin(), io->input_.end(), io->system_.begin());
        buffers = {io->system_.data(), io->input_.size(), io->system_.data(), io->output_.size()};
        break;
    case METHOD_NEITHER:
        buffers = {io->input_.data(), io->input_.size(), io->output_.data(), io->output_.size(),
                   true};
        break;
    default: // direct I/O: the input is buffered, the output is the caller's own pages
        buffers = {io->input_.data(), io->input_.size(), io->output_.data(), io->output_.size()};
        break;
    }
    if (buffers.input_length == 0) {
        buffers.input = nullptr;
    }
    if (buffers.output_length == 0) {
        buffers.output = nullptr;
    }
    auto request =
        wdf::Request::incoming(device_, wdf::Major::DeviceControl, code, buffers, complete);
    if (!request) {
        complete(STATUS_INSUFFICIENT_RESOURCES, 0);
        return io;
    }
    io->request_ = request;
    std::erase_if(pending_, [](const auto& p) { return p.expired(); });
    pending_.push_back(io);
    device_->dispatch(request);
    return io;
}

NTSTATUS ClientHandle::ioctl(ULONG code, std::span<const std::uint8_t> input,
                             std::span<std::uint8_t> output, ULONG_PTR* returned)
{
    auto io = ioctl_async(code, input, output.size());
    io->wait(sched::kForever);
    std::size_t n = std::min(output.size(), io->output().size());
    std::copy_n(io->output().begin(), n, output.begin());
    if (returned) {
        *returned = io->information();
    }
    return io->status();
}

void ClientHandle::close()
{
    if (closed_) {
        return;
    }
    closed_ = true;
    for (auto& weak : pending_) {
        if (auto io = weak.lock()) {
            io->cancel();
        }
    }
    pending_.clear();
}

} // namespace mvgps::pnp
