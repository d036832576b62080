// The whole driver through its clients, against the simulated chip: each input starts the
// device, then plays a sequence of steps on up to three handles to the device and its child
// (control codes, the driver's own and any other, with input and output lengths and contents
// from the input; cancels; handle closes and reopenings; time passing), then closes every
// handle and removes the device. It fails on a bug check (the verifier's, a live assertion,
// a leak or a thread left at unload), on a sanitizer report, and on a request still pending
// once every handle is closed and the device gone.
#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "control/control.h"
#include "host/pnp/client.h"
#include "host/sched/sched.h"
#include "sim/device/device.h"
#include "sim/testkit/client.h"

namespace
{

using namespace mvgps;
using Bytes = std::vector<std::uint8_t>;

constexpr int kHandles = 3;
constexpr int kMaxSteps = 40;
constexpr std::size_t kMaxLength = 7000; // past the largest record, the assistance one

// Device type 0x41, METHOD_NEITHER: the codes the child passes on to the parent.
constexpr ULONG neither_code(ULONG n)
{
    return (0x41u << 16) | ((0x100u + n) << 2) | 3u;
}

ULONG pick_code(FuzzedDataProvider& in)
{
    switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
        return gps_control_codes[in.ConsumeIntegralInRange(0, MVGPS_CONTROL_CODE_COUNT - 1)].code;
    case 1: {
        constexpr std::array<ULONG, 3> gaps = {MVGPS_CTL_CODE(0xA19), MVGPS_CTL_CODE(0xA1B),
                                               MVGPS_CTL_CODE(0xA1C)};
        return gaps[in.ConsumeIntegralInRange<std::size_t>(0, gaps.size() - 1)];
    }
    case 2:
        return neither_code(in.ConsumeIntegralInRange(0, 5));
    default:
        return in.ConsumeIntegral<ULONG>();
    }
}

// A record that starts as the chip's command header half the time, so that lengths and
// payloads get past the first checks.
Bytes pick_input(FuzzedDataProvider& in)
{
    Bytes input;
    if (in.ConsumeBool()) {
        input = {0xA5,
                 0,
                 0,
                 in.ConsumeIntegral<std::uint8_t>(),
                 in.ConsumeIntegral<std::uint8_t>(),
                 0,
                 in.ConsumeIntegralInRange<std::uint8_t>(0, 16)};
    }
    const auto length = in.ConsumeIntegralInRange<std::size_t>(0, kMaxLength);
    Bytes rest = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 64));
    rest.resize(length);
    input.insert(input.end(), rest.begin(), rest.end());
    return input;
}

class Run
{
  public:
    explicit Run(std::uint64_t seed) : sched_(sched::make_simulated(seed))
    {
        sim::DeviceConfig config;
        config.image = MVGPS_DRIVER_PATH;
        config.chip.nmea_on = false;
        device_ = std::make_unique<sim::HostedDevice>(std::move(config));
    }

    ~Run()
    {
        for (auto& h : handles_) {
            h.reset();
        }
        device_->stack().remove();
        const sched::Nanos deadline = sched::current().now() + 60 * sched::kSecond;
        for (const auto& io : sent_) {
            if (!io->wait(deadline)) {
                std::fprintf(stderr, "fuzz_control: a request was left pending\n");
                std::abort();
            }
        }
        device_->stack().unload();
        device_.reset();
    }

    bool start()
    {
        pnp::DeviceStack& stack = device_->stack();
        if (!NT_SUCCESS(stack.bring_up())) {
            return false;
        }
        stack.wait_for_children(1, sched::current().now() + sched::kSecond);
        return true;
    }

    void step(FuzzedDataProvider& in)
    {
        const int h = in.ConsumeIntegralInRange(0, kHandles - 1);
        switch (in.ConsumeIntegralInRange(0, 5)) {
        case 0:
        case 1:
            if (handle(h) != nullptr) {
                const ULONG code = pick_code(in);
                const Bytes input = pick_input(in);
                const auto out = in.ConsumeIntegralInRange<std::size_t>(0, 600);
                sent_.push_back(handle(h)->ioctl_async(code, input, out));
            }
            break;
        case 2:
            if (!sent_.empty()) {
                sent_[in.ConsumeIntegralInRange<std::size_t>(0, sent_.size() - 1)]->cancel();
            }
            break;
        case 3:
            handles_[h].reset();
            break;
        case 4:
            handles_[h].reset();
            open(h, in.ConsumeBool());
            break;
        default:
            sim::testkit::run_for(in.ConsumeIntegralInRange<sched::Nanos>(0, 300) *
                                  sched::kMillisecond);
            break;
        }
    }

  private:
    pnp::ClientHandle* handle(int h)
    {
        if (!handles_[h]) {
            open(h, h == kHandles - 1);
        }
        return handles_[h].get();
    }

    void open(int h, bool child)
    {
        pnp::DeviceStack& stack = device_->stack();
        std::vector<wdf::Device*> children = stack.children();
        wdf::Device* device = child && !children.empty() ? children[0] : stack.fdo();
        if (device != nullptr) {
            (void)pnp::ClientHandle::open_device(device, handles_[h]);
        }
    }

    sched::Install sched_;
    std::unique_ptr<sim::HostedDevice> device_;
    std::array<std::unique_ptr<pnp::ClientHandle>, kHandles> handles_;
    std::vector<std::shared_ptr<pnp::PendingIo>> sent_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    Run run(in.ConsumeIntegral<std::uint16_t>());
    if (!run.start()) {
        return 0;
    }
    for (int i = 0; i < kMaxSteps && in.remaining_bytes() > 0; i++) {
        run.step(in);
    }
    return 0;
}
