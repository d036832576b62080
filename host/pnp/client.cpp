#include "pnp/client.h"

#include <algorithm>

#include "kernel/kernel.h"
#include "wdf/device.h"

namespace mvgps::pnp
{

NTSTATUS ClientHandle::open_interface(const GUID& interface_class,
                                      std::unique_ptr<ClientHandle>& handle)
{
    for (const auto& link : kernel::interfaces(interface_class)) {
        std::unique_ptr<io::File> file;
        if (NT_SUCCESS(io::open(link, {}, file))) {
            handle.reset(new ClientHandle(std::move(file)));
            return STATUS_SUCCESS;
        }
    }
    return STATUS_OBJECT_NAME_NOT_FOUND;
}

NTSTATUS ClientHandle::open_device(wdf::Device* device, std::unique_ptr<ClientHandle>& handle)
{
    if (!device) {
        return STATUS_NO_SUCH_DEVICE;
    }
    std::unique_ptr<io::File> file;
    NTSTATUS status = device->node()->open({}, file);
    if (NT_SUCCESS(status)) {
        handle.reset(new ClientHandle(std::move(file)));
    }
    return status;
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
    io->irp_ = io::Request::make(io::Major::DeviceControl, code, io->input_, io->output_);
    if (closed_) {
        io->irp_->complete(STATUS_INVALID_HANDLE, 0);
        return io;
    }
    std::erase_if(pending_, [](const auto& p) { return p.expired(); });
    pending_.push_back(io);
    file_->dispatch(io->irp_);
    return io;
}

NTSTATUS ClientHandle::ioctl(ULONG code, std::span<const std::uint8_t> input,
                             std::span<std::uint8_t> output, ULONG_PTR* returned)
{
    auto io = ioctl_async(code, input, output.size());
    io->wait(sched::kForever);
    std::copy(io->output().begin(), io->output().end(), output.begin());
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
