// The UART controller the driver's I/O target opens, with the behaviour of a Windows serial
// port driver, over any Line (the simulated wire, or a real tty):
//   - one open at a time; a second open fails with STATUS_SHARING_VIOLATION;
//   - the serial control codes, each validated as a serial port driver does: unsupported
//     rates (0 included), impossible line controls, handflow and timeouts are refused with
//     STATUS_INVALID_PARAMETER, short buffers with STATUS_BUFFER_TOO_SMALL;
//   - reads follow SERIAL_TIMEOUTS. With only ReadIntervalTimeout set a read waits without
//     limit for its first byte, then ends with STATUS_TIMEOUT and the bytes so far once the
//     interval passes without a new byte, or with STATUS_SUCCESS when its buffer is full;
//     cancellation ends it with STATUS_CANCELLED and the bytes so far;
//   - bytes that arrive while no read is pending wait in a receive FIFO of configurable
//     size; what does not fit is dropped and counted;
//   - IOCTL_SERIAL_PURGE: RXABORT cancels pending reads, RXCLEAR empties the FIFO, TXABORT
//     cancels pending writes and TXCLEAR drops what has not been sent;
//   - a write completes when its last byte has been shifted out at the current rate.
//
// Timers and completions run on the controller's own thread ("uart"); all state lives under
// the scheduler's state lock.
#pragma once

#include <ntddser.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "sched/sched.h"
#include "sim/support/line.h"
#include "io/names.h"

namespace mvgps::sim::uart
{

struct ControllerConfig {
    std::size_t fifo_size = 4096;
    std::vector<std::uint32_t> rates{standard_rates().begin(), standard_rates().end()};
    LineSettings line{9600, {}}; // until the opener sets its own
};

struct ControllerStats {
    std::uint64_t received = 0; // bytes heard while open
    std::uint64_t overflow = 0; // bytes dropped because the FIFO was full
    std::uint64_t written = 0;  // bytes handed to the line
    std::uint64_t reads = 0;    // completed read requests
    std::uint64_t read_timeouts = 0;
    std::uint64_t cancelled = 0; // requests completed as cancelled
    std::uint64_t opens = 0;
};

class SerialController final : public io::Device, private LineReceiver
{
  public:
    SerialController(Line& line, ControllerConfig config = {});
    ~SerialController() override;
    SerialController(const SerialController&) = delete;
    SerialController& operator=(const SerialController&) = delete;

    NTSTATUS open(const io::OpenParams& params, std::unique_ptr<io::File>& file) override;

    ControllerStats stats() const;
    LineSettings settings() const;
    std::size_t fifo_level() const;

  private:
    class File;
    using Request = std::shared_ptr<io::Request>;

    enum class ReadMode { Normal, Immediate, AnyByte };
    struct Read {
        Request req;
        std::size_t got = 0;
        bool started = false;
        ReadMode mode = ReadMode::Normal;
        sched::Nanos total_deadline = sched::kForever;
        sched::Nanos interval = 0; // 0: none
        sched::Nanos last_byte = 0;
    };
    struct Write {
        Request req;
        std::size_t length = 0;
        std::size_t sent = 0;   // bytes that will leave (fewer after a write timeout)
        sched::Nanos start = 0; // when its first byte starts to leave
        sched::Nanos done = 0;  // when it completes
        LineSettings settings;
        NTSTATUS status = STATUS_SUCCESS;
    };
    struct Completion {
        Request req;
        NTSTATUS status;
        std::size_t information;
    };
    using Completions = std::vector<Completion>;

    void on_bytes(std::span<const std::uint8_t> bytes, sched::Nanos arrival) override;
    void run();
    sched::Nanos deadline() const;
    void expire(sched::Nanos now, Completions& done);

    void dispatch(const Request& req);
    void close();
    void start_read(const Request& req);
    void start_write(const Request& req);
    void arm_cancel(const Request& req);
    void cancel(io::Request& req);

    // With the state lock held.
    void serve_reads(sched::Nanos now, Completions& done);
    void begin_read(Read& r, sched::Nanos now) const;
    bool satisfied(const Read& r) const;
    sched::Nanos interval_deadline(const Read& r) const;
    void finish_read(NTSTATUS status, Completions& done);
    void abort_reads(Completions& done);
    void abort_writes(std::size_t from, sched::Nanos now, Completions& done);
    Completion control(io::Request& req, Completions& done);
    NTSTATUS set_line(const LineSettings& s);

    // Without it.
    static void finish(Completions& done);

    sched::Scheduler& sched_;
    Line& line_;
    const ControllerConfig config_;
    LineSettings settings_;
    SERIAL_TIMEOUTS timeouts_{};
    SERIAL_HANDFLOW handflow_{};
    ULONG errors_ = 0;
    bool open_ = false;
    std::deque<std::uint8_t> fifo_;
    std::deque<Read> reads_;
    std::deque<Write> writes_;
    sched::Nanos tx_end_ = 0;    // when the last byte queued on the line leaves
    sched::Nanos last_done_ = 0; // when the last write completes
    Completions ready_;          // completed under the lock, handed over on the controller's thread
    ControllerStats stats_;
    sched::WaitList wake_;
    bool kicked_ = false;
    bool stop_ = false;
    sched::Thread* thread_ = nullptr;
};

} // namespace mvgps::sim::uart
