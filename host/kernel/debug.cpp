// DbgPrint: into a ring that tests read, and to stderr when MVGPS_DEBUG=1.
#include "host/kernel/format.h"
#include "host/kernel/kernel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace mvgps::kernel
{
namespace
{

// The kernel passes at most this much of one call to the debugger; the rest is lost.
constexpr std::size_t kMaxPrint = 512;
// The ring keeps the most recent output, between kKeep and twice as much.
constexpr std::size_t kKeep = 4 << 20;

struct Sink {
    std::mutex mutex;
    std::string text;
    bool echo = false;
};

// Never destroyed: threads may still print while the process exits.
Sink& sink()
{
    static Sink* s = [] {
        auto* s = new Sink;
        const char* debug = std::getenv("MVGPS_DEBUG");
        s->echo = debug != nullptr && std::strcmp(debug, "1") == 0;
        return s;
    }();
    return *s;
}

ULONG print(PCSTR format, va_list args)
{
    char line[kMaxPrint];
    detail::BoundedOut<char> out(line, sizeof line - 1);
    detail::format(out, format, args);
    Sink& s = sink();
    std::lock_guard lock(s.mutex);
    s.text.append(line, out.length());
    if (s.text.size() > 2 * kKeep) {
        s.text.erase(0, s.text.size() - kKeep);
    }
    if (s.echo) {
        std::fwrite(line, 1, out.length(), stderr);
    }
    return STATUS_SUCCESS;
}

} // namespace

std::string debug_output()
{
    Sink& s = sink();
    std::lock_guard lock(s.mutex);
    return s.text;
}

void clear_debug_output()
{
    Sink& s = sink();
    std::lock_guard lock(s.mutex);
    s.text.clear();
}

} // namespace mvgps::kernel

extern "C" {

ULONG DbgPrint(PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    ULONG status = mvgps::kernel::print(Format, args);
    va_end(args);
    return status;
}

// Every component and level reaches the sink: the host has no debugger filter to set.
ULONG DbgPrintEx(ULONG, ULONG, PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    ULONG status = mvgps::kernel::print(Format, args);
    va_end(args);
    return status;
}

} // extern "C"
