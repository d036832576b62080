#include "sim/chip/faults.h"

namespace mvgps::sim::chip
{

namespace
{

Fault make(FaultKind kind, int count)
{
    Fault f;
    f.kind = kind;
    f.count = count;
    return f;
}

Fault command(FaultKind kind, int count, int pid, int sid)
{
    Fault f = make(kind, count);
    f.pid = pid;
    f.sid = sid;
    return f;
}

Fault output_fault(FaultKind kind, int count, Output which, std::size_t bytes = 0)
{
    Fault f = make(kind, count);
    f.output = which;
    f.bytes = bytes;
    return f;
}

bool is_command_fault(FaultKind k)
{
    return k == FaultKind::NoAck || k == FaultKind::Reject || k == FaultKind::LateAck ||
           k == FaultKind::DuplicateAck;
}

} // namespace

Fault Fault::no_ack(int count, int pid, int sid)
{
    return command(FaultKind::NoAck, count, pid, sid);
}

Fault Fault::reject(int count, std::uint32_t err_status, int pid, int sid)
{
    Fault f = command(FaultKind::Reject, count, pid, sid);
    f.value = err_status;
    return f;
}

Fault Fault::late_ack(int count, sched::Nanos delay, int pid, int sid)
{
    Fault f = command(FaultKind::LateAck, count, pid, sid);
    f.delay = delay;
    return f;
}

Fault Fault::duplicate_ack(int count, int pid, int sid)
{
    return command(FaultKind::DuplicateAck, count, pid, sid);
}

Fault Fault::corrupt_crc(int count, Output which)
{
    return output_fault(FaultKind::CorruptCrc, count, which);
}

Fault Fault::corrupt_tail(int count, Output which)
{
    return output_fault(FaultKind::CorruptTail, count, which);
}

Fault Fault::garbage(int count, std::size_t bytes, Output which)
{
    return output_fault(FaultKind::Garbage, count, which, bytes);
}

Fault Fault::padding(int count, std::size_t bytes, Output which)
{
    return output_fault(FaultKind::Padding, count, which, bytes);
}

Fault Fault::split_burst(int count, sched::Nanos pause, Output which)
{
    Fault f = output_fault(FaultKind::SplitBurst, count, which);
    f.delay = pause;
    return f;
}

Fault Fault::silence(sched::Nanos duration)
{
    Fault f = make(FaultKind::Silence, 1);
    f.delay = duration;
    return f;
}

Fault Fault::reset()
{
    return make(FaultKind::Reset, 1);
}

Fault Fault::rate_mismatch(std::uint32_t rate)
{
    Fault f = make(FaultKind::RateMismatch, 1);
    f.value = rate;
    return f;
}

std::optional<Fault> FaultScript::consume(std::size_t i)
{
    Fault f = armed_[i];
    if (--armed_[i].count <= 0) {
        armed_.erase(armed_.begin() + static_cast<std::ptrdiff_t>(i));
    }
    return f;
}

std::optional<Fault> FaultScript::take_command(std::uint8_t pid, std::uint8_t sid)
{
    for (std::size_t i = 0; i < armed_.size(); ++i) {
        const Fault& f = armed_[i];
        if (is_command_fault(f.kind) && (f.pid < 0 || f.pid == pid) &&
            (f.sid < 0 || f.sid == sid)) {
            return consume(i);
        }
    }
    return std::nullopt;
}

FrameDamage FaultScript::take_frame(Output kind)
{
    FrameDamage d;
    for (std::size_t i = 0; i < armed_.size();) {
        const Fault f = armed_[i];
        const bool hits = f.output == Output::Any || f.output == kind;
        const bool frame_fault = f.kind == FaultKind::CorruptCrc ||
                                 f.kind == FaultKind::CorruptTail || f.kind == FaultKind::Garbage ||
                                 f.kind == FaultKind::Padding;
        if (!hits || !frame_fault) {
            ++i;
            continue;
        }
        switch (f.kind) {
        case FaultKind::CorruptCrc:
            d.crc = true;
            break;
        case FaultKind::CorruptTail:
            d.tail = true;
            break;
        case FaultKind::Garbage:
            d.garbage += f.bytes;
            break;
        default:
            d.padding += f.bytes;
            break;
        }
        const std::size_t before = armed_.size();
        consume(i);
        if (armed_.size() == before) {
            ++i;
        }
    }
    return d;
}

std::optional<sched::Nanos> FaultScript::take_split(Output kind)
{
    for (std::size_t i = 0; i < armed_.size(); ++i) {
        const Fault& f = armed_[i];
        if (f.kind == FaultKind::SplitBurst && (f.output == Output::Any || f.output == kind)) {
            return consume(i)->delay;
        }
    }
    return std::nullopt;
}

} // namespace mvgps::sim::chip
