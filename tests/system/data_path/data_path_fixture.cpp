#include "data_path_fixture.h"

#include <cstring>

namespace mvgps::test
{

ReadRecord parse_read(std::span<const std::uint8_t> out, std::size_t information)
{
    ReadRecord r;
    if (information < READ_COMPLETION_HEADER_SIZE || out.size() < information) {
        ADD_FAILURE() << "a read returned " << information << " bytes";
        return r;
    }
    r.type = out[0];
    std::memcpy(&r.length, &out[4], 4);
    std::memcpy(&r.one, &out[8], 4);
    std::memcpy(&r.two, &out[12], 4);
    r.frame.assign(out.begin() + READ_COMPLETION_HEADER_SIZE, out.begin() + information);
    return r;
}

DataPath::DataPath() : sched_(sched::make_from_env())
{
    sim::uart::ControllerConfig config;
    config.line = {DATA_PATH_DEFAULT_RATE, {}};
    uart_ = std::make_shared<sim::uart::SerialController>(wire_.a(), config);
    io::bind(u"\\Device\\DataPathUart", uart_);
    kernel::clear_debug_output();
}

DataPath::~DataPath()
{
    // Helpers end on their own (a command gives up after its last attempt); the device goes
    // only once nothing uses it.
    stop_keep_alive();
    for (sched::Thread* t : helpers_) {
        sched::current().join(t);
    }
    remove();
    io::unbind(u"\\Device\\DataPathUart");
    wdf::faults::clear();
    kernel::clear_pool_faults();
}

void DataPath::start_with_chip(sim::chip::ChipConfig config)
{
    chip_ = std::make_unique<sim::chip::Chip>(wire_.b(), std::move(config));
    bring_up();
}

void DataPath::start_with_peer()
{
    peer_ = std::make_unique<sim::testkit::Client>(wire_.b(), DATA_PATH_DEFAULT_RATE);
    bring_up();
}

void DataPath::bring_up()
{
    pnp::NodeConfig node;
    node.image = DATA_PATH_DRIVER_PATH;
    stack_ = std::make_unique<pnp::DeviceStack>(node);
    ASSERT_EQ(stack_->bring_up(), STATUS_SUCCESS);
    // A handle of our own would keep the image mapped after its unload.
    void* image = dlopen(DATA_PATH_DRIVER_PATH, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(image, nullptr);
    auto entry = reinterpret_cast<DATA_PATH_OPS_FN*>(dlsym(image, "DataPathOps"));
    dlclose(image);
    ASSERT_NE(entry, nullptr);
    ops_ = entry();
    ASSERT_EQ(pnp::ClientHandle::open_interface(GUID_DEVINTERFACE_DATA_PATH, client_),
              STATUS_SUCCESS);
}

void DataPath::remove()
{
    if (client_) {
        client_->close();
        client_.reset();
    }
    if (stack_) {
        stack_->remove();
        stack_->unload();
        stack_.reset();
    }
    ops_ = nullptr;
}

std::shared_ptr<pnp::PendingIo> DataPath::read(std::size_t length)
{
    return client_->ioctl_async(IOCTL_DATA_PATH_READ, {}, length);
}

std::shared_ptr<pnp::PendingIo> DataPath::send_cmd(std::uint8_t pid, std::uint8_t sid,
                                                   const Bytes& payload, std::size_t out_length)
{
    Bytes in{pid, sid};
    in.insert(in.end(), payload.begin(), payload.end());
    return client_->ioctl_async(IOCTL_DATA_PATH_SEND_CMD, in, out_length);
}

void DataPath::xfer_async(std::uint8_t pid, std::uint8_t sid, Bytes payload, LONG* result,
                          Bytes* answer, ULONG wait_ack)
{
    *result = INT32_MIN;
    helpers_.push_back(sched::current().spawn("sender", [=, this] {
        Bytes out(FDO_ACK_BUFFER_SIZE);
        LONG r = ops_->Xfer(&ext(), wait_ack, 1, pid, sid, payload.data(),
                            static_cast<USHORT>(payload.size()), answer ? out.data() : nullptr, 0);
        if (answer != nullptr) {
            *answer = out;
        }
        sched::StateLock lock(sched::current());
        *result = r;
    }));
}

LONG DataPath::xfer(std::uint8_t pid, std::uint8_t sid, const Bytes& payload, Bytes* answer,
                    ULONG wait_ack)
{
    LONG result;
    xfer_async(pid, sid, payload, &result, answer, wait_ack);
    sched::current().join(helpers_.back());
    helpers_.pop_back();
    return result;
}

bool DataPath::wait_until(const std::function<bool()>& done, sched::Nanos timeout)
{
    sched::Nanos deadline = now() + timeout;
    while (!done()) {
        if (now() >= deadline) {
            return false;
        }
        run_for(kMillisecond);
    }
    return true;
}

std::vector<Frame> DataPath::chip_received(std::uint8_t pid) const
{
    std::vector<Frame> frames;
    for (const sim::chip::TraceEntry& e : chip_->trace()) {
        if (!e.sent && e.frame.pid == pid) {
            frames.push_back(e.frame);
        }
    }
    return frames;
}

void DataPath::keep_alive()
{
    keep_alive_ = true;
    helpers_.push_back(sched::current().spawn("keep-alive", [this] {
        std::uint32_t seq = 0;
        for (;;) {
            {
                sched::StateLock lock(sched::current());
                if (!keep_alive_) {
                    return;
                }
            }
            peer_->send(Frame{HCI_PID_STATUS, 0, true, sim::testkit::le32(seq++)});
            run_for(25 * kMillisecond);
        }
    }));
}

void DataPath::stop_keep_alive()
{
    sched::StateLock lock(sched::current());
    keep_alive_ = false;
}

} // namespace mvgps::test
