// The UART controller as the driver's I/O target sees it: serial control codes, read
// timeouts, the receive FIFO, purge, exclusive open and write timing.
#include <gtest/gtest.h>

#include <cstring>

#include "sim_uart/port.h"

namespace mvgps::sim::uart
{
namespace
{

using testkit::run_for;
constexpr sched::Nanos kMs = sched::kMillisecond;
constexpr ULONG kMax = 0xFFFFFFFF;

template <class T>
Bytes bytes_of(const T& v)
{
    Bytes b(sizeof v);
    std::memcpy(b.data(), &v, sizeof v);
    return b;
}

TEST(SerialController, ValidatesControlCallsAsAPortDriverDoes)
{
    struct Case {
        const char* name;
        ULONG code;
        Bytes in;
        std::size_t out;
        NTSTATUS status;
    } cases[] = {
        {"rate 9600", IOCTL_SERIAL_SET_BAUD_RATE, bytes_of(ULONG{9600}), 0, STATUS_SUCCESS},
        {"rate 921600", IOCTL_SERIAL_SET_BAUD_RATE, bytes_of(ULONG{921600}), 0, STATUS_SUCCESS},
        {"rate 0", IOCTL_SERIAL_SET_BAUD_RATE, bytes_of(ULONG{0}), 0, STATUS_INVALID_PARAMETER},
        {"rate 870000", IOCTL_SERIAL_SET_BAUD_RATE, bytes_of(ULONG{870000}), 0,
         STATUS_INVALID_PARAMETER},
        {"rate, short input", IOCTL_SERIAL_SET_BAUD_RATE, {0x80, 0x25}, 0, STATUS_BUFFER_TOO_SMALL},
        {"get rate, short output", IOCTL_SERIAL_GET_BAUD_RATE, {}, 2, STATUS_BUFFER_TOO_SMALL},
        {"8N1", IOCTL_SERIAL_SET_LINE_CONTROL, {STOP_BIT_1, NO_PARITY, 8}, 0, STATUS_SUCCESS},
        {"7E2", IOCTL_SERIAL_SET_LINE_CONTROL, {STOP_BITS_2, EVEN_PARITY, 7}, 0, STATUS_SUCCESS},
        {"5 bits, 1.5 stop",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {STOP_BITS_1_5, NO_PARITY, 5},
         0,
         STATUS_SUCCESS},
        {"8 bits, 1.5 stop",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {STOP_BITS_1_5, NO_PARITY, 8},
         0,
         STATUS_INVALID_PARAMETER},
        {"5 bits, 2 stop",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {STOP_BITS_2, NO_PARITY, 5},
         0,
         STATUS_INVALID_PARAMETER},
        {"9 bits",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {STOP_BIT_1, NO_PARITY, 9},
         0,
         STATUS_INVALID_PARAMETER},
        {"4 bits",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {STOP_BIT_1, NO_PARITY, 4},
         0,
         STATUS_INVALID_PARAMETER},
        {"parity 5",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {STOP_BIT_1, 5, 8},
         0,
         STATUS_INVALID_PARAMETER},
        {"stop bits 3",
         IOCTL_SERIAL_SET_LINE_CONTROL,
         {3, NO_PARITY, 8},
         0,
         STATUS_INVALID_PARAMETER},
        {"line control, short", IOCTL_SERIAL_SET_LINE_CONTROL, {0, 0}, 0, STATUS_BUFFER_TOO_SMALL},
        {"interval only", IOCTL_SERIAL_SET_TIMEOUTS, bytes_of(SERIAL_TIMEOUTS{10, 0, 0, 0, 0}), 0,
         STATUS_SUCCESS},
        {"all read timeouts maximal", IOCTL_SERIAL_SET_TIMEOUTS,
         bytes_of(SERIAL_TIMEOUTS{kMax, kMax, kMax, 0, 0}), 0, STATUS_INVALID_PARAMETER},
        {"timeouts, short", IOCTL_SERIAL_SET_TIMEOUTS, Bytes(16), 0, STATUS_BUFFER_TOO_SMALL},
        {"no flow control", IOCTL_SERIAL_SET_HANDFLOW, bytes_of(SERIAL_HANDFLOW{0, 0, 0, 0}), 0,
         STATUS_SUCCESS},
        {"cts handshake", IOCTL_SERIAL_SET_HANDFLOW,
         bytes_of(SERIAL_HANDFLOW{SERIAL_CTS_HANDSHAKE, SERIAL_RTS_HANDSHAKE, 100, 100}), 0,
         STATUS_SUCCESS},
        {"dtr control and handshake", IOCTL_SERIAL_SET_HANDFLOW,
         bytes_of(SERIAL_HANDFLOW{SERIAL_DTR_MASK, 0, 0, 0}), 0, STATUS_INVALID_PARAMETER},
        {"undefined handshake bit", IOCTL_SERIAL_SET_HANDFLOW,
         bytes_of(SERIAL_HANDFLOW{0x4, 0, 0, 0}), 0, STATUS_INVALID_PARAMETER},
        {"undefined flow bit", IOCTL_SERIAL_SET_HANDFLOW, bytes_of(SERIAL_HANDFLOW{0, 0x20, 0, 0}),
         0, STATUS_INVALID_PARAMETER},
        {"negative xon limit", IOCTL_SERIAL_SET_HANDFLOW, bytes_of(SERIAL_HANDFLOW{0, 0, -1, 0}), 0,
         STATUS_INVALID_PARAMETER},
        {"xoff limit beyond the buffer", IOCTL_SERIAL_SET_HANDFLOW,
         bytes_of(SERIAL_HANDFLOW{0, 0, 0, 4097}), 0, STATUS_INVALID_PARAMETER},
        {"handflow, short", IOCTL_SERIAL_SET_HANDFLOW, Bytes(12), 0, STATUS_BUFFER_TOO_SMALL},
        {"purge rx", IOCTL_SERIAL_PURGE, bytes_of(ULONG{0x0A}), 0, STATUS_SUCCESS},
        {"purge everything", IOCTL_SERIAL_PURGE, bytes_of(ULONG{0x0F}), 0, STATUS_SUCCESS},
        {"purge nothing", IOCTL_SERIAL_PURGE, bytes_of(ULONG{0}), 0, STATUS_INVALID_PARAMETER},
        {"purge unknown bit", IOCTL_SERIAL_PURGE, bytes_of(ULONG{0x12}), 0,
         STATUS_INVALID_PARAMETER},
        {"purge, short", IOCTL_SERIAL_PURGE, {0x0A}, 0, STATUS_BUFFER_TOO_SMALL},
        {"comm status", IOCTL_SERIAL_GET_COMMSTATUS, {}, sizeof(SERIAL_STATUS), STATUS_SUCCESS},
        {"unknown code",
         CTL_CODE(FILE_DEVICE_SERIAL_PORT, 99, METHOD_BUFFERED, FILE_ANY_ACCESS),
         {},
         0,
         STATUS_INVALID_PARAMETER},
    };
    Port p;
    ASSERT_EQ(p.open_status, STATUS_SUCCESS);
    for (const auto& c : cases) {
        EXPECT_EQ(p.control(c.code, c.in, c.out), c.status) << c.name;
    }
}

TEST(SerialController, SettingsReadBackAsSet)
{
    Port p;
    Bytes out;
    std::size_t info = 0;
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{115200}), STATUS_SUCCESS);
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{12345}), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(p.control(IOCTL_SERIAL_GET_BAUD_RATE, {}, 4, &out, &info), STATUS_SUCCESS);
    EXPECT_EQ(out, bytes_of(ULONG{115200})) << "a refused rate leaves the old one";
    EXPECT_EQ(info, 4u);

    const SERIAL_TIMEOUTS t{10, 0, 0, 1, 2};
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_TIMEOUTS, t), STATUS_SUCCESS);
    ASSERT_EQ(p.control(IOCTL_SERIAL_GET_TIMEOUTS, {}, sizeof t, &out), STATUS_SUCCESS);
    EXPECT_EQ(out, bytes_of(t));

    const SERIAL_LINE_CONTROL lc{STOP_BITS_2, ODD_PARITY, 7};
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_LINE_CONTROL, lc), STATUS_SUCCESS);
    ASSERT_EQ(p.control(IOCTL_SERIAL_GET_LINE_CONTROL, {}, 3, &out), STATUS_SUCCESS);
    EXPECT_EQ(out, bytes_of(lc));
    EXPECT_EQ(p.controller.settings(), (LineSettings{115200, {7, ODD_PARITY, STOP_BITS_2}}));

    const SERIAL_HANDFLOW hf{SERIAL_DTR_CONTROL, SERIAL_RTS_CONTROL, 10, 20};
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_HANDFLOW, hf), STATUS_SUCCESS);
    ASSERT_EQ(p.control(IOCTL_SERIAL_GET_HANDFLOW, {}, sizeof hf, &out), STATUS_SUCCESS);
    EXPECT_EQ(out, bytes_of(hf));
}

// Bytes the far end sends, at a time after the read was issued.
struct Burst {
    sched::Nanos at;
    std::size_t count;
};

TEST(SerialController, ReadsFollowTheirTimeouts)
{
    struct Case {
        const char* name;
        SERIAL_TIMEOUTS timeouts;
        std::size_t length;
        std::vector<Burst> bursts;
        sched::Nanos cancel_at; // 0: never
        NTSTATUS status;
        std::size_t got;
        sched::Nanos done_min, done_max; // since the read was issued
    } cases[] = {
        {"interval: ends 10 ms after the last byte",
         {10, 0, 0, 0, 0},
         2048,
         {{5 * kMs, 3}, {12 * kMs, 2}},
         0,
         STATUS_TIMEOUT,
         5,
         22 * kMs,
         24 * kMs},
        {"interval: a 9.5 ms pause does not end it",
         {10, 0, 0, 0, 0},
         2048,
         {{1 * kMs, 4}, {10500 * 1000, 4}},
         0,
         STATUS_TIMEOUT,
         8,
         20 * kMs,
         22 * kMs},
        {"interval: waits without limit for the first byte",
         {10, 0, 0, 0, 0},
         2048,
         {{900 * kMs, 1}},
         0,
         STATUS_TIMEOUT,
         1,
         910 * kMs,
         912 * kMs},
        {"interval: a full buffer ends it at once",
         {10, 0, 0, 0, 0},
         16,
         {{5 * kMs, 40}},
         0,
         STATUS_SUCCESS,
         16,
         5 * kMs,
         7 * kMs},
        {"interval: cancelled with the bytes so far",
         {10, 0, 0, 0, 0},
         2048,
         {{5 * kMs, 3}},
         8 * kMs,
         STATUS_CANCELLED,
         3,
         8 * kMs,
         8 * kMs},
        {"interval: cancelled before any byte",
         {10, 0, 0, 0, 0},
         2048,
         {},
         300 * kMs,
         STATUS_CANCELLED,
         0,
         300 * kMs,
         300 * kMs},
        {"total constant, nothing comes",
         {0, 0, 50, 0, 0},
         100,
         {},
         0,
         STATUS_TIMEOUT,
         0,
         50 * kMs,
         50 * kMs},
        {"total per byte plus constant",
         {0, 2, 30, 0, 0},
         10,
         {{5 * kMs, 3}},
         0,
         STATUS_TIMEOUT,
         3,
         50 * kMs,
         50 * kMs},
        {"no timeouts: until the buffer is full",
         {0, 0, 0, 0, 0},
         10,
         {{100 * kMs, 4}, {700 * kMs, 6}},
         0,
         STATUS_SUCCESS,
         10,
         700 * kMs,
         702 * kMs},
        {"return at once", {kMax, 0, 0, 0, 0}, 10, {}, 0, STATUS_SUCCESS, 0, 0, 0},
        {"any byte: the first one ends it",
         {kMax, kMax, 100, 0, 0},
         10,
         {{20 * kMs, 3}},
         0,
         STATUS_SUCCESS,
         1,
         20 * kMs,
         22 * kMs},
        {"any byte: none in time",
         {kMax, kMax, 100, 0, 0},
         10,
         {},
         0,
         STATUS_TIMEOUT,
         0,
         100 * kMs,
         100 * kMs},
    };
    for (const auto& c : cases) {
        Port p;
        ASSERT_EQ(p.set(IOCTL_SERIAL_SET_TIMEOUTS, c.timeouts), STATUS_SUCCESS);
        Bytes buffer(c.length);
        auto& s = sched::current();
        const sched::Nanos start = s.now();
        auto r = p.read(buffer);
        std::vector<std::pair<sched::Nanos, std::function<void()>>> events;
        std::uint8_t next = 1;
        Bytes expected;
        for (const auto& b : c.bursts) {
            Bytes data(b.count);
            for (auto& x : data) {
                x = next++;
            }
            expected.insert(expected.end(), data.begin(), data.end());
            events.push_back({b.at, [&p, data] { p.far.send_raw(data); }});
        }
        if (c.cancel_at != 0) {
            events.push_back({c.cancel_at, [r] { r->cancel(); }});
        }
        std::sort(events.begin(), events.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        for (auto& [at, action] : events) {
            if (!r->completed()) {
                s.sleep_until(start + at, "test");
                action();
            }
        }
        ASSERT_TRUE(r->wait(start + 2 * sched::kSecond)) << c.name;
        const sched::Nanos took = s.now() - start;
        EXPECT_EQ(r->status(), c.status) << c.name;
        EXPECT_EQ(r->information(), c.got) << c.name;
        EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + static_cast<long>(c.got)),
                  Bytes(expected.begin(), expected.begin() + static_cast<long>(c.got)))
            << c.name;
        EXPECT_GE(took, c.done_min) << c.name;
        EXPECT_LE(took, c.done_max) << c.name;
    }
}

TEST(SerialController, FifoKeepsBytesUntilAReadAndCountsOverflow)
{
    Port p(fast_port(64));
    Bytes data(100);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::uint8_t>(i);
    }
    p.far.send_raw(data);
    run_for(5 * kMs);
    EXPECT_EQ(p.controller.fifo_level(), 64u);
    EXPECT_EQ(p.controller.stats().overflow, 36u);

    Bytes st;
    ASSERT_EQ(p.control(IOCTL_SERIAL_GET_COMMSTATUS, {}, sizeof(SERIAL_STATUS), &st),
              STATUS_SUCCESS);
    SERIAL_STATUS status;
    std::memcpy(&status, st.data(), sizeof status);
    EXPECT_EQ(status.AmountInInQueue, 64u);
    EXPECT_EQ(status.Errors, ULONG{SERIAL_ERROR_QUEUEOVERRUN});
    ASSERT_EQ(p.control(IOCTL_SERIAL_GET_COMMSTATUS, {}, sizeof(SERIAL_STATUS), &st),
              STATUS_SUCCESS);
    std::memcpy(&status, st.data(), sizeof status);
    EXPECT_EQ(status.Errors, 0u) << "errors clear once reported";

    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{10, 0, 0, 0, 0}), STATUS_SUCCESS);
    Bytes buffer(2048);
    auto r = p.read(buffer);
    ASSERT_TRUE(r->wait(sched::current().now() + 50 * kMs));
    EXPECT_EQ(r->status(), STATUS_TIMEOUT);
    ASSERT_EQ(r->information(), 64u);
    EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 64), Bytes(data.begin(), data.begin() + 64));
}

TEST(SerialController, PurgeAbortsAndClears)
{
    Port p;
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{10, 0, 0, 0, 0}), STATUS_SUCCESS);
    Bytes buffer(2048);
    auto pending = p.read(buffer);
    Bytes second_buffer(8);
    auto queued = p.read(second_buffer);
    run_for(50 * kMs);
    EXPECT_FALSE(pending->completed());
    ASSERT_EQ(p.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXABORT}), STATUS_SUCCESS);
    ASSERT_TRUE(pending->completed()) << "completed before the purge returns";
    EXPECT_EQ(pending->status(), STATUS_CANCELLED);
    EXPECT_EQ(queued->status(), STATUS_CANCELLED);

    p.far.send_raw(Bytes(30, 0x55));
    run_for(5 * kMs);
    ASSERT_EQ(p.controller.fifo_level(), 30u);
    ASSERT_EQ(p.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR}), STATUS_SUCCESS);
    EXPECT_EQ(p.controller.fifo_level(), 0u);

    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{9600}), STATUS_SUCCESS);
    p.far.set_rate(9600);
    auto w = p.write(Bytes(100, 0x41));
    run_for(20 * kMs);
    ASSERT_EQ(p.set(IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_TXABORT}), STATUS_SUCCESS);
    ASSERT_TRUE(w->completed());
    EXPECT_EQ(w->status(), STATUS_CANCELLED);
    EXPECT_EQ(w->information(), 19u);
    run_for(200 * kMs);
    EXPECT_EQ(p.far.raw().size(), 20u) << "the character on the line when aborted still leaves";
}

TEST(SerialController, OneOpenAtATime)
{
    Port p;
    ASSERT_EQ(p.open_status, STATUS_SUCCESS);
    std::unique_ptr<io::LowerFile> second;
    EXPECT_EQ(p.controller.open({}, second), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(second, nullptr);

    Bytes buffer(16);
    auto r = p.read(buffer);
    p.file.reset();
    EXPECT_EQ(r->status(), STATUS_CANCELLED) << "closing ends what was pending";
    EXPECT_EQ(p.controller.open({}, second), STATUS_SUCCESS);
    EXPECT_EQ(p.controller.stats().opens, 2u);
}

TEST(SerialController, WritesCompleteWhenTheLastByteHasLeft)
{
    ControllerConfig cfg = fast_port();
    cfg.line.rate = 9600;
    Port p(cfg);
    auto& s = sched::current();
    const sched::Nanos start = s.now();
    auto first = p.write(Bytes(100, 0x31));
    auto second = p.write(Bytes(10, 0x32));
    ASSERT_TRUE(first->wait(sched::kForever));
    EXPECT_EQ(s.now() - start, 104'166'666);
    EXPECT_EQ(first->status(), STATUS_SUCCESS);
    EXPECT_EQ(first->information(), 100u);
    EXPECT_FALSE(second->completed());
    ASSERT_TRUE(second->wait(sched::kForever));
    EXPECT_EQ(s.now() - start, 104'166'666 + 10'416'666) << "queued behind the first";
    run_for(5 * kMs);
    EXPECT_EQ(p.far.raw().size(), 110u);

    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{0, 0, 0, 0, 50}), STATUS_SUCCESS);
    const sched::Nanos t0 = s.now();
    auto limited = p.write(Bytes(100, 0x33));
    ASSERT_TRUE(limited->wait(sched::kForever));
    EXPECT_EQ(limited->status(), STATUS_TIMEOUT);
    EXPECT_EQ(limited->information(), 48u);
    EXPECT_EQ(s.now() - t0, 50 * kMs);
}

TEST(SerialController, ARateChangeTakesEffectOnTheLine)
{
    Port p;
    ASSERT_EQ(p.set(IOCTL_SERIAL_SET_BAUD_RATE, ULONG{115200}), STATUS_SUCCESS);
    auto w = p.write(Bytes(20, 0x5A));
    ASSERT_TRUE(w->wait(sched::kForever));
    run_for(2 * kMs);
    EXPECT_NE(p.far.raw(), Bytes(20, 0x5A)) << "the far end still listens at 921600";
    p.far.clear();
    p.far.set_rate(115200);
    w = p.write(Bytes(20, 0x5A));
    ASSERT_TRUE(w->wait(sched::kForever));
    run_for(2 * kMs);
    EXPECT_EQ(p.far.raw(), Bytes(20, 0x5A));
}

} // namespace
} // namespace mvgps::sim::uart
