// Starting the device from its resources and Parameters: which UART it opens, how it records
// the other connections, the idle policy it chooses and the rate it sets the line to.
#include "driver_fixture.h"

namespace mvgps::test
{
namespace
{

constexpr std::uint64_t kUnmappedId = 0x0000000700000009ull;

struct ResourceCase {
    const char* name;
    std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> resources;
    bool serial_port;
    NTSTATUS status;
    std::vector<std::string> lines; // logged, in this order
};

void PrintTo(const ResourceCase& c, std::ostream* os)
{
    *os << c.name;
}

std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> uart_and_gpio(int gpio)
{
    std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> r{pnp::uart_connection(kUartId)};
    for (int i = 0; i < gpio; i++) {
        r.push_back(pnp::gpio_connection(0x100 + i));
    }
    return r;
}

const ResourceCase kResourceCases[] = {
    {"uart_by_hub_id",
     {pnp::uart_connection(kUartId)},
     false,
     STATUS_SUCCESS,
     {"UART Connection ID is found. UART ConnectionID (0x1, 0x2)",
      "RESOURCE_HUB_CREATE_PATH_FROM_ID: UARTConnectionId:Low(0x2)High(0x1)",
      "Symbolic Name(\\Device\\RESOURCE_HUB\\0000000100000002)", " WdfIoTargetOpen success",
      "IdleInS0 is supported"}},
    {"second_uart_wins",
     {pnp::uart_connection(kUnmappedId), pnp::uart_connection(kUartId)},
     false,
     STATUS_SUCCESS,
     {"UART ConnectionID (0x7, 0x9)", "UART ConnectionID (0x1, 0x2)", "Low(0x2)High(0x1)"}},
    {"three_gpio_recorded_more_logged",
     uart_and_gpio(5),
     false,
     STATUS_SUCCESS,
     {"GPIO_0 ConnectionID (0x0, 0x100)", "GPIO_1 ConnectionID (0x0, 0x101)",
      "GPIO_2 ConnectionID (0x0, 0x102)", "more GPIO than expected:(3)",
      "more GPIO than expected:(4)"}},
    {"serial_port_fallback",
     {pnp::i2c_connection(0x55)},
     true,
     STATUS_SUCCESS,
     {" I2C ConnectionID (0x0, 0x55)", "UartConnectionId Not Found",
      "FdoFindConnectResources fails: status(0xc0000225)",
      "Query the system for device with SERIAL interface",
      "IoGetDeviceInterfaces success. SymbolicLinkList: \\DosDevices\\COM7",
      " WdfIoTargetOpen success", "IdleInS0 is not supported"}},
    {"neither_uart_nor_serial_port",
     {},
     false,
     STATUS_DEVICE_DOES_NOT_EXIST,
     {"UartConnectionId Not Found", " FdoOpenDevice failed Status(0xc00000c0)"}},
    {"uart_id_without_controller",
     {pnp::uart_connection(kUnmappedId)},
     false,
     STATUS_OBJECT_NAME_NOT_FOUND,
     {" WdfIoTargetOpen failed: Status(0xc0000034)", " FdoOpenDevice failed Status(0xc0000034)"}},
};

class Resources : public DriverTest, public testing::WithParamInterface<ResourceCase>
{
};

TEST_P(Resources, StartAsTheResourcesAllow)
{
    const ResourceCase& c = GetParam();
    Node node;
    node.resources = c.resources;
    node.serial_port = c.serial_port;
    EXPECT_EQ(start(node), c.status);
    EXPECT_TRUE(logged_in_order(c.lines)) << log();
    if (c.status == STATUS_SUCCESS) {
        EXPECT_TRUE(stack().wait_for_children(1, sched::current().now() + kSecond));
    }
}

INSTANTIATE_TEST_SUITE_P(Driver, Resources, testing::ValuesIn(kResourceCases),
                         [](const auto& info) { return std::string(info.param.name); });

// The UART is opened exclusively: while another opener holds it, the start fails with the
// open's status and leaves nothing behind.
TEST_F(DriverTest, UartHeldElsewhereFailsTheStart)
{
    Node node;
    node.uart_held = true;
    EXPECT_EQ(start(node), STATUS_SHARING_VIOLATION);
    EXPECT_TRUE(logged(" WdfIoTargetOpen failed: Status(0xc0000043)")) << log();
}

// Idle in S0 stays off whether or not the resources name a UART; only who may change it and
// the power-up on system wake follow them.
TEST_F(DriverTest, IdleStaysOffEitherWay)
{
    struct {
        bool uart_resource;
        WDF_POWER_POLICY_S0_IDLE_USER_CONTROL user_control;
        WDF_TRI_STATE power_up_on_wake;
    } cases[] = {{true, IdleDoNotAllowUserControl, WdfFalse},
                 {false, IdleAllowUserControl, WdfTrue}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.uart_resource);
        Node node;
        node.resources =
            c.uart_resource ? node.resources : std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR>{};
        node.serial_port = !c.uart_resource;
        start_running(node);
        const auto& idle = stack().fdo()->idle_settings();
        ASSERT_TRUE(idle.has_value());
        EXPECT_EQ(idle->Enabled, WdfFalse);
        EXPECT_EQ(idle->IdleCaps, IdleCannotWakeFromS0);
        EXPECT_EQ(idle->DxState, PowerDeviceD3);
        EXPECT_EQ(idle->UserControlOfIdleSettings, c.user_control);
        EXPECT_EQ(idle->PowerUpIdleDeviceOnSystemWake, c.power_up_on_wake);
        remove();
    }
}

struct RateCase {
    const char* name;
    std::optional<ULONG> parameter;
    std::uint32_t line_rate; // what the UART runs at afterwards
    const char* line;
};

void PrintTo(const RateCase& c, std::ostream* os)
{
    *os << c.name;
}

// The value is the rate itself and is sent unchecked: 0 is refused by the UART, which fails
// the start. (At 9600 the chip's own chatter outlasts the read thread's read timeout, so
// whether the start-up completes there is not this test's business.)
const RateCase kRateCases[] = {
    {"absent_is_9600", std::nullopt, 9600, "COM: Set BaudRate(9600) Success"},
    {"115200", 115200, 115200, "COM: Set BaudRate(115200) Success"},
    {"zero_sent_as_is", 0, 921600, "COM: Set BaudRate(0) Fail"},
};

class Rates : public DriverTest, public testing::WithParamInterface<RateCase>
{
};

TEST_P(Rates, BaudRateIndexIsTheLineSpeed)
{
    const RateCase& c = GetParam();
    Node node;
    node.baud_rate = c.parameter;
    NTSTATUS status = start(node, c.line_rate);
    EXPECT_TRUE(logged(c.line)) << log();
    EXPECT_EQ(uart().settings().rate, c.line_rate);
    if (c.parameter == 0u) {
        EXPECT_EQ(status, STATUS_DEVICE_NOT_READY);
        EXPECT_FALSE(logged("+CreateWorkItem to enable PDO"));
    }
}

INSTANTIATE_TEST_SUITE_P(Driver, Rates, testing::ValuesIn(kRateCases),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace mvgps::test
