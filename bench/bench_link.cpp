// Throughput of the frame CRC and of the receive path, each with its floor: memcpy of the
// same bytes in the same reads, measured in the same run.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "link/codec/hci.h"
#include "os/debug_log.h"
#include "receive_path.h"

namespace mvgps::bench
{
namespace
{

struct Loaded {
    NmeaStream stream;
    std::string error;
};

const Loaded& loaded()
{
    static const Loaded l = [] {
        Loaded l;
        l.stream = make_nmea_stream(kStreamSeed, l.error);
        return l;
    }();
    return l;
}

const NmeaStream& stream()
{
    return loaded().stream;
}

bool usable(benchmark::State& state)
{
    if (stream().frames == 0) {
        state.SkipWithError(loaded().error.c_str());
        return false;
    }
    return true;
}

void BM_hci_crc16(benchmark::State& state)
{
    std::vector<UCHAR> data(static_cast<std::size_t>(state.range(0)));
    for (std::size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<UCHAR>(i * 131);
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(hci_crc16(data.data(), static_cast<USHORT>(data.size())));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * data.size()));
}
BENCHMARK(BM_hci_crc16)->Arg(8)->Arg(80)->Arg(1024)->Arg(4096);

// The floor: every read copied once into a read-sized buffer.
void BM_memcpy_stream(benchmark::State& state)
{
    if (!usable(state)) {
        return;
    }
    static UCHAR buffer[2048];
    for (auto _ : state) {
        const std::uint8_t* read = stream().bytes.data();
        for (std::size_t n : stream().reads) {
            std::memcpy(buffer, read, n);
            benchmark::ClobberMemory();
            read += n;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream().bytes.size()));
}
BENCHMARK(BM_memcpy_stream);

// Arg 1: the debug log as the driver ships it (errors and read-path traces on, so every
// frame split across two reads prints its carry-over lines); arg 0: the log off.
void BM_recv_stream(benchmark::State& state)
{
    if (!usable(state)) {
        return;
    }
    const ULONG mask = DebugLogMask;
    DebugLogMask = state.range(0) != 0 ? DEBUG_LOG_MASK_DEFAULT : 0;
    if (receive_stream(stream()) != stream().frames) {
        state.SkipWithError("the receive path lost frames");
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(receive_stream(stream()));
    }
    DebugLogMask = mask;
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * stream().bytes.size()));
    state.counters["frames"] = static_cast<double>(stream().frames);
}
BENCHMARK(BM_recv_stream)->ArgName("log")->Arg(1)->Arg(0);

// Prints each receive run's time per stream against memcpy's from the same run.
class RatioReporter : public benchmark::ConsoleReporter
{
  public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                cpu_[run.benchmark_name()] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void Finalize() override
    {
        ConsoleReporter::Finalize();
        const auto floor = cpu_.find("BM_memcpy_stream");
        if (floor == cpu_.end() || floor->second <= 0) {
            return;
        }
        std::printf("\nreceive path against memcpy of the same reads (same run):\n");
        for (const auto& [name, cpu] : cpu_) {
            if (name.rfind("BM_recv_stream", 0) == 0) {
                std::printf("  %-24s %6.1f x memcpy\n", name.c_str(), cpu / floor->second);
            }
        }
    }

  private:
    std::map<std::string, double> cpu_;
};

} // namespace
} // namespace mvgps::bench

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    mvgps::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
