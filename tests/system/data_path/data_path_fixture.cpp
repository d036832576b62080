#include "data_path_fixture.h"

#include <cstring>

namespace mvgps::test
{

namespace
{

// Two fixes of a receiver, one sentence per frame.
constexpr const char* kTwoEpochs =
    "$GPGGA,120000.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*4F\r\n"
    "$GPRMC,120000.00,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6A\r\n"
    "$GPGGA,120001.00,4807.038,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*4E\r\n"
    "$GPRMC,120001.00,A,4807.038,N,01131.000,E,022.4,084.4,230394,003.1,W*6B\r\n";

} // namespace

DataPath::DataPath() : sched_(sched::make_from_env())
{
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
    device_.reset();
}

void DataPath::start_with_chip(bool talking, sim::chip::ByteOrder order)
{
    sim::DeviceConfig config = harness::data_path_device(sim::FarEnd::Chip);
    config.chip.order = order;
    config.chip.nmea_on = talking;
    if (talking) {
        config.chip.capture =
            std::make_shared<const sim::chip::Capture>(sim::chip::Capture::parse(kTwoEpochs));
    }
    bring_up(std::move(config));
}

void DataPath::start_with_peer()
{
    bring_up(harness::data_path_device(sim::FarEnd::Peer));
}

void DataPath::bring_up(sim::DeviceConfig config)
{
    std::string error;
    device_ = sim::HostedDevice::start(std::move(config), error);
    ASSERT_NE(device_, nullptr) << error;
    ops_ = harness::find_data_path_ops(DATA_PATH_DRIVER_PATH);
    ASSERT_NE(ops_, nullptr);
    // The byte order the driver's start-up switches to.
    ops_->SetEndianMode(HCI_LITTLE_ENDIAN);
    ASSERT_EQ(pnp::ClientHandle::open_interface(GUID_DEVINTERFACE_DATA_PATH, client_),
              STATUS_SUCCESS);
}

void DataPath::remove()
{
    if (client_) {
        client_->close();
        client_.reset();
    }
    if (device_) {
        device_->stack().remove();
        device_->stack().unload();
    }
    ops_ = nullptr;
}

std::shared_ptr<pnp::PendingIo> DataPath::read(std::size_t length)
{
    return client_->ioctl_async(IOCTL_DATA_PATH_READ, {}, length);
}

std::shared_ptr<pnp::PendingIo> DataPath::send_cmd(std::uint8_t pid, std::uint8_t sid,
                                                   std::size_t out_length)
{
    return client_->ioctl_async(IOCTL_DATA_PATH_SEND_CMD, Bytes{pid, sid, 1}, out_length);
}

Bytes DataPath::read_frame(const pnp::PendingIo& io)
{
    EXPECT_EQ(io.status(), STATUS_SUCCESS);
    std::span<const std::uint8_t> out = io.output().first(io.information());
    if (out.size() < READ_COMPLETION_HEADER_SIZE) {
        ADD_FAILURE() << "a read returned " << out.size() << " bytes";
        return {};
    }
    std::uint32_t header[3];
    std::memcpy(header, &out[4], sizeof(header));
    EXPECT_EQ(out[0], READ_COMPLETION_TYPE);
    EXPECT_EQ(header[0], out.size() - READ_COMPLETION_HEADER_SIZE);
    EXPECT_EQ(header[1], 1u);
    EXPECT_EQ(header[2], 2u);
    return Bytes(out.begin() + READ_COMPLETION_HEADER_SIZE, out.end());
}

LONG DataPath::xfer(std::uint8_t pid, std::uint8_t sid, const Bytes& payload, ULONG wait_ack)
{
    return ops_->Xfer(&ext(), wait_ack, 1, pid, sid, payload.data(),
                      static_cast<USHORT>(payload.size()), nullptr, 0);
}

std::shared_ptr<const LONG> DataPath::call_async(std::function<LONG()> call)
{
    auto result = std::make_shared<LONG>(INT32_MIN);
    helpers_.push_back(sched::current().spawn("caller", [call, result] {
        LONG r = call();
        sched::StateLock lock(sched::current());
        *result = r;
    }));
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

std::vector<Frame> DataPath::chip_received(int pid) const
{
    std::vector<Frame> frames;
    for (const sim::chip::TraceEntry& e : device_->chip()->trace()) {
        if (!e.sent && (pid < 0 || e.frame.pid == pid)) {
            frames.push_back(e.frame);
        }
    }
    return frames;
}

void DataPath::keep_alive()
{
    keep_alive_ = true;
    helpers_.push_back(sched::current().spawn("keep-alive", [this] {
        for (std::uint32_t seq = 0; keeping_alive(); seq++) {
            device_->peer()->send(Frame{HCI_PID_STATUS, 0, true, le32(seq)});
            run_for(25 * kMillisecond);
        }
    }));
}

void DataPath::stop_keep_alive()
{
    sched::StateLock lock(sched::current());
    keep_alive_ = false;
}

bool DataPath::keeping_alive()
{
    sched::StateLock lock(sched::current());
    return keep_alive_;
}

} // namespace mvgps::test
