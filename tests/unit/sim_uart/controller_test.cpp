// The UART controller as the driver's I/O target sees it: serial control codes, read
// timeouts, the receive FIFO, purge and write timing.
#include <gtest/gtest.h>

#include <numeric>

#include "tests/unit/sim_uart/port.h"

namespace mvgps::sim::uart
{
namespace
{

constexpr ULONG kMax = 0xFFFFFFFF;
constexpr ULONG kRate = IOCTL_SERIAL_SET_BAUD_RATE;
constexpr ULONG kLine = IOCTL_SERIAL_SET_LINE_CONTROL;
constexpr ULONG kTimeouts = IOCTL_SERIAL_SET_TIMEOUTS;
constexpr ULONG kFlow = IOCTL_SERIAL_SET_HANDFLOW;
constexpr ULONG kPurge = IOCTL_SERIAL_PURGE;

constexpr ULONG kUnknown = CTL_CODE(FILE_DEVICE_SERIAL_PORT, 99, METHOD_BUFFERED, FILE_ANY_ACCESS);

Bytes flow(ULONG handshake, ULONG replace, LONG xon, LONG xoff)
{
    return bytes_of(SERIAL_HANDFLOW{handshake, replace, xon, xoff});
}

// In order on one port: what a port driver refuses, then settings that read back as set and
// that the line runs with.
TEST(SerialController, ControlCallsAreCheckedAndTakeEffect)
{
    const Bytes lc = bytes_of(SERIAL_LINE_CONTROL{STOP_BITS_2, ODD_PARITY, 7});
    const Bytes hf = flow(SERIAL_DTR_CONTROL, SERIAL_RTS_CONTROL, 10, 20);
    struct Case {
        const char* name;
        ULONG code;
        Bytes in;
        NTSTATUS status;
        std::size_t out = 0;
        Bytes returned = {};
    } cases[] = {
        {"rate 0", kRate, u32(0), STATUS_INVALID_PARAMETER},
        {"rate 870000", kRate, u32(870000), STATUS_INVALID_PARAMETER},
        {"rate, short input", kRate, {0x80, 0x25}, STATUS_BUFFER_TOO_SMALL},
        {"get rate, short output", IOCTL_SERIAL_GET_BAUD_RATE, {}, STATUS_BUFFER_TOO_SMALL, 2},
        {"5 bits, 1.5 stop", kLine, {STOP_BITS_1_5, NO_PARITY, 5}, STATUS_SUCCESS},
        {"8 bits, 1.5 stop", kLine, {STOP_BITS_1_5, NO_PARITY, 8}, STATUS_INVALID_PARAMETER},
        {"5 bits, 2 stop", kLine, {STOP_BITS_2, NO_PARITY, 5}, STATUS_INVALID_PARAMETER},
        {"9 bits", kLine, {STOP_BIT_1, NO_PARITY, 9}, STATUS_INVALID_PARAMETER},
        {"4 bits", kLine, {STOP_BIT_1, NO_PARITY, 4}, STATUS_INVALID_PARAMETER},
        {"parity 5", kLine, {STOP_BIT_1, 5, 8}, STATUS_INVALID_PARAMETER},
        {"stop bits 3", kLine, {3, NO_PARITY, 8}, STATUS_INVALID_PARAMETER},
        {"line control, short", kLine, {0, 0}, STATUS_BUFFER_TOO_SMALL},
        {"all read timeouts maximal", kTimeouts, times(kMax, kMax, kMax), STATUS_INVALID_PARAMETER},
        {"timeouts, short", kTimeouts, Bytes(16), STATUS_BUFFER_TOO_SMALL},
        {"cts handshake", kFlow, flow(SERIAL_CTS_HANDSHAKE, 0, 100, 100), STATUS_SUCCESS},
        {"dtr control and handshake", kFlow, flow(SERIAL_DTR_MASK, 0, 0, 0),
         STATUS_INVALID_PARAMETER},
        {"undefined handshake bit", kFlow, flow(0x4, 0, 0, 0), STATUS_INVALID_PARAMETER},
        {"undefined flow bit", kFlow, flow(0, 0x20, 0, 0), STATUS_INVALID_PARAMETER},
        {"negative xon limit", kFlow, flow(0, 0, -1, 0), STATUS_INVALID_PARAMETER},
        {"xoff limit beyond the buffer", kFlow, flow(0, 0, 0, 4097), STATUS_INVALID_PARAMETER},
        {"handflow, short", kFlow, Bytes(12), STATUS_BUFFER_TOO_SMALL},
        {"purge nothing", kPurge, u32(0), STATUS_INVALID_PARAMETER},
        {"purge unknown bit", kPurge, u32(0x12), STATUS_INVALID_PARAMETER},
        {"purge, short", kPurge, {0x0A}, STATUS_BUFFER_TOO_SMALL},
        {"unknown code", kUnknown, {}, STATUS_INVALID_PARAMETER},
        {"set rate", kRate, u32(115200), STATUS_SUCCESS},
        {"get rate", IOCTL_SERIAL_GET_BAUD_RATE, {}, STATUS_SUCCESS, 4, u32(115200)},
        {"set line control", kLine, lc, STATUS_SUCCESS},
        {"get line control", IOCTL_SERIAL_GET_LINE_CONTROL, {}, STATUS_SUCCESS, 3, lc},
        {"set timeouts", kTimeouts, times(10, 0, 0, 2), STATUS_SUCCESS},
        {"get timeouts", IOCTL_SERIAL_GET_TIMEOUTS, {}, STATUS_SUCCESS, 20, times(10, 0, 0, 2)},
        {"set handflow", kFlow, hf, STATUS_SUCCESS},
        {"get handflow", IOCTL_SERIAL_GET_HANDFLOW, {}, STATUS_SUCCESS, 16, hf},
        {"rate 12345", kRate, u32(12345), STATUS_INVALID_PARAMETER},
    };
    Port p;
    ASSERT_EQ(p.open_status, STATUS_SUCCESS);
    for (const auto& c : cases) {
        Bytes out;
        EXPECT_EQ(control(*p.file, c.code, c.in, c.out, &out), c.status) << c.name;
        EXPECT_EQ(out, c.returned) << c.name;
    }
    EXPECT_EQ(p.controller.settings(), (LineSettings{115200, {7, ODD_PARITY, STOP_BITS_2}}))
        << "the line runs as set; a refused rate leaves the old one";
}

TEST(SerialController, ReadsFollowTheirTimeouts)
{
    // Times are in ms after the read was issued; bursts are (time, bytes) from the far end.
    struct Case {
        const char* name;
        ULONG interval, multiplier, constant;
        std::size_t length;
        std::vector<std::pair<double, std::size_t>> bursts;
        double cancel_at; // 0: never
        NTSTATUS status;
        std::size_t got;
        double done; // to 2 ms later
    } cases[] = {
        {"interval after the last", 10, 0, 0, 64, {{5, 3}, {12, 2}}, 0, STATUS_TIMEOUT, 5, 22},
        {"interval, 9.5 ms pause", 10, 0, 0, 64, {{1, 4}, {10.5, 4}}, 0, STATUS_TIMEOUT, 8, 20},
        {"interval, no first byte", 10, 0, 0, 64, {{900, 1}}, 0, STATUS_TIMEOUT, 1, 910},
        {"interval, full buffer", 10, 0, 0, 16, {{5, 40}}, 0, STATUS_SUCCESS, 16, 5},
        {"interval, cancelled", 10, 0, 0, 64, {{5, 3}}, 8, STATUS_CANCELLED, 3, 8},
        {"total, per byte", 0, 2, 30, 10, {{5, 3}}, 0, STATUS_TIMEOUT, 3, 50},
        {"none: until full", 0, 0, 0, 10, {{100, 4}, {700, 6}}, 0, STATUS_SUCCESS, 10, 700},
        {"return at once", kMax, 0, 0, 10, {}, 0, STATUS_SUCCESS, 0, 0},
        {"any byte", kMax, kMax, 100, 10, {{20, 3}}, 0, STATUS_SUCCESS, 1, 20},
        {"any byte, none", kMax, kMax, 100, 10, {}, 0, STATUS_TIMEOUT, 0, 100},
    };
    for (const auto& c : cases) {
        Port p;
        ASSERT_EQ(p.set(kTimeouts, times(c.interval, c.multiplier, c.constant)), STATUS_SUCCESS);
        auto& s = sched::current();
        const sched::Nanos start = s.now();
        const auto at = [&](double ms) {
            s.sleep_until(start + static_cast<sched::Nanos>(ms * kMs), "test");
        };
        Bytes buffer(c.length);
        Bytes sent;
        auto r = p.read(buffer);
        for (const auto& [ms, count] : c.bursts) {
            at(ms);
            Bytes data(count);
            std::iota(data.begin(), data.end(), static_cast<std::uint8_t>(sent.size() + 1));
            p.far.send_raw(data);
            sent.insert(sent.end(), data.begin(), data.end());
        }
        if (c.cancel_at > 0) {
            at(c.cancel_at);
            r->cancel();
        }
        ASSERT_TRUE(r->wait(start + 2 * sched::kSecond)) << c.name;
        const double took = static_cast<double>(s.now() - start) / kMs;
        EXPECT_EQ(r->status(), c.status) << c.name;
        ASSERT_EQ(r->information(), c.got) << c.name;
        EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + c.got, sent.begin())) << c.name;
        EXPECT_GE(took, c.done) << c.name;
        EXPECT_LE(took, c.done + 2) << c.name;
    }
}

TEST(SerialController, FifoKeepsBytesUntilAReadAndCountsOverflow)
{
    Port p(port_at(921600, 64));
    Bytes data(100);
    std::iota(data.begin(), data.end(), 0);
    p.far.send_raw(data);
    run_for(5 * kMs);
    EXPECT_EQ(p.controller.fifo_level(), 64u);
    EXPECT_EQ(p.controller.stats().overflow, 36u);
    for (ULONG errors : {ULONG{SERIAL_ERROR_QUEUEOVERRUN}, ULONG{0}}) { // cleared once reported
        Bytes out;
        ASSERT_EQ(control(*p.file, IOCTL_SERIAL_GET_COMMSTATUS, {}, sizeof(SERIAL_STATUS), &out),
                  STATUS_SUCCESS);
        SERIAL_STATUS status;
        std::memcpy(&status, out.data(), sizeof status);
        EXPECT_EQ(status.AmountInInQueue, 64u);
        EXPECT_EQ(status.Errors, errors);
    }

    ASSERT_EQ(p.set(kTimeouts, times(10, 0, 0)), STATUS_SUCCESS);
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
    ASSERT_EQ(p.set(kTimeouts, times(10, 0, 0)), STATUS_SUCCESS);
    Bytes buffer(2048);
    auto pending = p.read(buffer);
    auto queued = p.read(buffer);
    run_for(50 * kMs);
    EXPECT_FALSE(pending->completed());
    ASSERT_EQ(p.set(kPurge, u32(SERIAL_PURGE_RXABORT)), STATUS_SUCCESS);
    ASSERT_TRUE(pending->completed()) << "completed before the purge returns";
    EXPECT_EQ(pending->status(), STATUS_CANCELLED);
    EXPECT_EQ(queued->status(), STATUS_CANCELLED);

    p.far.send_raw(Bytes(30, 0x55));
    run_for(2 * kMs);
    ASSERT_EQ(p.controller.fifo_level(), 30u);
    p.far.send_raw(Bytes(10, 0x66)); // arrives, but the wire hands it over a quantum later
    run_for(kMs / 4);
    ASSERT_EQ(p.set(kPurge, u32(SERIAL_PURGE_RXCLEAR)), STATUS_SUCCESS);
    run_for(5 * kMs);
    EXPECT_EQ(p.controller.fifo_level(), 0u) << "what had arrived goes too";

    ASSERT_EQ(p.set(kRate, u32(9600)), STATUS_SUCCESS);
    p.far.set_rate(9600);
    auto w = p.write(Bytes(100, 0x41));
    run_for(20 * kMs);
    ASSERT_EQ(p.set(kPurge, u32(SERIAL_PURGE_TXABORT)), STATUS_SUCCESS);
    ASSERT_TRUE(w->completed());
    EXPECT_EQ(w->status(), STATUS_CANCELLED);
    EXPECT_EQ(w->information(), 19u) << "the new rate paces the line";
    run_for(200 * kMs);
    EXPECT_EQ(p.far.raw(), Bytes(20, 0x41)) << "the character on the line when aborted leaves";
}

TEST(SerialController, WritesCompleteWhenTheLastByteHasLeft)
{
    Port p(port_at(9600));
    auto& s = sched::current();
    const sched::Nanos start = s.now();
    auto first = p.write(Bytes(100, 0x31));
    auto second = p.write(Bytes(10, 0x32));
    ASSERT_TRUE(first->wait(sched::kForever));
    EXPECT_EQ(s.now() - start, 104'166'666);
    EXPECT_EQ(first->status(), STATUS_SUCCESS);
    EXPECT_EQ(first->information(), 100u);
    ASSERT_TRUE(second->wait(sched::kForever));
    EXPECT_EQ(s.now() - start, 104'166'666 + 10'416'666) << "queued behind the first";
    run_for(5 * kMs);
    EXPECT_EQ(p.far.raw().size(), 110u);

    ASSERT_EQ(p.set(kTimeouts, times(0, 0, 0, 50)), STATUS_SUCCESS);
    const sched::Nanos t0 = s.now();
    auto limited = p.write(Bytes(100, 0x33));
    ASSERT_TRUE(limited->wait(sched::kForever));
    EXPECT_EQ(limited->status(), STATUS_TIMEOUT);
    EXPECT_EQ(limited->information(), 48u);
    EXPECT_EQ(s.now() - t0, 50 * kMs);
}

} // namespace
} // namespace mvgps::sim::uart
