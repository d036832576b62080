// A fixed receive workload for instruction counts: the capture stream handed to the receive
// path a fixed number of times. Only receive_path_workload is meant to be measured
// (callgrind --toggle-collect), so loading the captures does not count.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "os/debug_log.h"
#include "receive_path.h"

namespace
{

constexpr int kRounds = 4;

__attribute__((noinline)) std::size_t receive_path_workload(const mvgps::bench::NmeaStream& s)
{
    std::size_t frames = 0;
    for (int i = 0; i < kRounds; i++) {
        frames += mvgps::bench::receive_stream(s);
    }
    return frames;
}

} // namespace

// Usage: recv_workload [log|nolog]; prints the bytes and frames handed over.
int main(int argc, char** argv)
{
    const bool log = argc < 2 || std::strcmp(argv[1], "nolog") != 0;
    DebugLogMask = log ? DEBUG_LOG_MASK_DEFAULT : 0;
    std::string error;
    const mvgps::bench::NmeaStream stream =
        mvgps::bench::make_nmea_stream(mvgps::bench::kStreamSeed, error);
    if (stream.frames == 0) {
        std::fprintf(stderr, "recv_workload: %s\n", error.c_str());
        return 1;
    }
    const std::size_t frames = receive_path_workload(stream);
    std::printf("bytes %zu frames %zu expected %zu\n", stream.bytes.size() * kRounds, frames,
                stream.frames * kRounds);
    return frames == stream.frames * kRounds ? 0 : 1;
}
