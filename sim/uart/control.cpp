// The serial control codes, validated as a serial port driver validates them.
#include <algorithm>
#include <cstring>

#include "sim/uart/controller.h"

namespace mvgps::sim::uart
{

namespace
{

constexpr ULONG kMaxUlong = 0xFFFFFFFF;
constexpr ULONG kPurgeAll =
    SERIAL_PURGE_TXABORT | SERIAL_PURGE_RXABORT | SERIAL_PURGE_TXCLEAR | SERIAL_PURGE_RXCLEAR;

template <class T>
bool take(std::span<const std::uint8_t> in, T& value)
{
    if (in.size() < sizeof(T)) {
        return false;
    }
    std::memcpy(&value, in.data(), sizeof(T));
    return true;
}

bool valid(const SERIAL_LINE_CONTROL& lc)
{
    if (lc.WordLength < 5 || lc.WordLength > 8 || lc.Parity > SPACE_PARITY ||
        lc.StopBits > STOP_BITS_2) {
        return false;
    }
    // One and a half stop bits exist only for 5-bit characters, two only for longer ones.
    return lc.StopBits == STOP_BITS_1_5 ? lc.WordLength == 5
                                        : !(lc.StopBits == STOP_BITS_2 && lc.WordLength == 5);
}

bool valid(const SERIAL_HANDFLOW& hf, std::size_t fifo_size)
{
    return (hf.ControlHandShake & SERIAL_CONTROL_INVALID) == 0 &&
           (hf.FlowReplace & SERIAL_FLOW_INVALID) == 0 &&
           (hf.ControlHandShake & SERIAL_DTR_MASK) != SERIAL_DTR_MASK && hf.XonLimit >= 0 &&
           hf.XoffLimit >= 0 && static_cast<std::size_t>(hf.XonLimit) <= fifo_size &&
           static_cast<std::size_t>(hf.XoffLimit) <= fifo_size;
}

} // namespace

NTSTATUS SerialController::set_line(const LineSettings& s)
{
    if (!line_.configure(s)) {
        return STATUS_INVALID_PARAMETER;
    }
    settings_ = s;
    return STATUS_SUCCESS;
}

SerialController::Completion SerialController::control(io::Request& req, Completions& done)
{
    const auto in = req.input();
    const auto out = req.output();
    // The reply is assembled first: with buffered codes the output overlays the input.
    const auto reply = [&](const auto& value) -> Completion {
        if (out.size() < sizeof value) {
            return {nullptr, STATUS_BUFFER_TOO_SMALL, 0};
        }
        std::memcpy(out.data(), &value, sizeof value);
        return {nullptr, STATUS_SUCCESS, sizeof value};
    };
    const auto status = [](NTSTATUS s) -> Completion { return {nullptr, s, 0}; };

    switch (req.control_code()) {
    case IOCTL_SERIAL_SET_BAUD_RATE: {
        SERIAL_BAUD_RATE b;
        if (!take(in, b)) {
            return status(STATUS_BUFFER_TOO_SMALL);
        }
        if (std::find(config_.rates.begin(), config_.rates.end(), b.BaudRate) ==
            config_.rates.end()) {
            return status(STATUS_INVALID_PARAMETER);
        }
        LineSettings s = settings_;
        s.rate = b.BaudRate;
        return status(set_line(s));
    }
    case IOCTL_SERIAL_GET_BAUD_RATE:
        return reply(SERIAL_BAUD_RATE{settings_.rate});
    case IOCTL_SERIAL_SET_LINE_CONTROL: {
        SERIAL_LINE_CONTROL lc;
        if (!take(in, lc)) {
            return status(STATUS_BUFFER_TOO_SMALL);
        }
        if (!valid(lc)) {
            return status(STATUS_INVALID_PARAMETER);
        }
        LineSettings s = settings_;
        s.format = {lc.WordLength, lc.Parity, lc.StopBits};
        return status(set_line(s));
    }
    case IOCTL_SERIAL_GET_LINE_CONTROL:
        return reply(SERIAL_LINE_CONTROL{settings_.format.stop_bits, settings_.format.parity,
                                         settings_.format.data_bits});
    case IOCTL_SERIAL_SET_TIMEOUTS: {
        SERIAL_TIMEOUTS t;
        if (!take(in, t)) {
            return status(STATUS_BUFFER_TOO_SMALL);
        }
        if (t.ReadIntervalTimeout == kMaxUlong && t.ReadTotalTimeoutMultiplier == kMaxUlong &&
            t.ReadTotalTimeoutConstant == kMaxUlong) {
            return status(STATUS_INVALID_PARAMETER);
        }
        timeouts_ = t;
        return status(STATUS_SUCCESS);
    }
    case IOCTL_SERIAL_GET_TIMEOUTS:
        return reply(timeouts_);
    case IOCTL_SERIAL_SET_HANDFLOW: {
        SERIAL_HANDFLOW hf;
        if (!take(in, hf)) {
            return status(STATUS_BUFFER_TOO_SMALL);
        }
        if (!valid(hf, config_.fifo_size)) {
            return status(STATUS_INVALID_PARAMETER);
        }
        handflow_ = hf;
        return status(STATUS_SUCCESS);
    }
    case IOCTL_SERIAL_GET_HANDFLOW:
        return reply(handflow_);
    case IOCTL_SERIAL_PURGE: {
        ULONG mask;
        if (!take(in, mask)) {
            return status(STATUS_BUFFER_TOO_SMALL);
        }
        if (mask == 0 || (mask & ~kPurgeAll) != 0) {
            return status(STATUS_INVALID_PARAMETER);
        }
        const sched::Nanos now = sched_.now();
        if (mask & SERIAL_PURGE_TXABORT) {
            abort_writes(0, now, done);
        }
        if (mask & SERIAL_PURGE_RXABORT) {
            abort_reads(done);
        }
        if (mask & SERIAL_PURGE_TXCLEAR) {
            line_.discard_unsent();
        }
        if (mask & SERIAL_PURGE_RXCLEAR) {
            fifo_.clear();
            line_.discard_received();
        }
        return status(STATUS_SUCCESS);
    }
    case IOCTL_SERIAL_GET_COMMSTATUS: {
        SERIAL_STATUS st{};
        st.Errors = errors_;
        st.AmountInInQueue = static_cast<ULONG>(fifo_.size());
        for (const Write& w : writes_) {
            st.AmountInOutQueue += static_cast<ULONG>(w.length);
        }
        const Completion c = reply(st);
        if (c.status == STATUS_SUCCESS) {
            errors_ = 0; // reported errors are cleared, as the port driver does
        }
        return c;
    }
    case IOCTL_SERIAL_SET_DTR:
    case IOCTL_SERIAL_CLR_DTR:
    case IOCTL_SERIAL_SET_RTS:
    case IOCTL_SERIAL_CLR_RTS:
        return status(STATUS_SUCCESS);
    default:
        return status(STATUS_INVALID_PARAMETER);
    }
}

} // namespace mvgps::sim::uart
