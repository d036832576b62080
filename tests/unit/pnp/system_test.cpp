#define RESHUB_USE_HELPER_ROUTINES
#include <reshub.h>

#include <gtest/gtest.h>

#include <initguid.h>
#include <ntddser.h>

#include <string>

#include "kernel/kernel.h"
#include "pnp/system.h"
#include "sched/sched.h"

namespace mvgps::pnp::test
{
namespace
{

class NullDevice : public io::LowerDevice
{
  public:
    NTSTATUS open(const io::OpenParams&, std::unique_ptr<io::LowerFile>&) override
    {
        return STATUS_ACCESS_DENIED;
    }
};

TEST(SystemTest, ResourceHubPathsMatchTheHeadersHelper)
{
    struct Case {
        ULONG low, high;
        const char16_t* path;
    };
    const Case cases[] = {
        {2, 1, u"\\Device\\RESOURCE_HUB\\0000000100000002"},
        {0, 0, u"\\Device\\RESOURCE_HUB\\0000000000000000"},
        {0xFFFFFFFF, 0xFFFFFFFF, u"\\Device\\RESOURCE_HUB\\ffffffffffffffff"},
        {0xABCDEF01, 0x23, u"\\Device\\RESOURCE_HUB\\00000023abcdef01"},
    };
    for (const auto& c : cases) {
        std::uint64_t id = (std::uint64_t{c.high} << 32) | c.low;
        EXPECT_EQ(resource_hub_path(id), c.path);
        DECLARE_UNICODE_STRING_SIZE(path, RESOURCE_HUB_PATH_SIZE);
        ASSERT_EQ(RESOURCE_HUB_CREATE_PATH_FROM_ID(&path, c.low, c.high), STATUS_SUCCESS);
        EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(path.Buffer),
                                 path.Length / sizeof(WCHAR)),
                  c.path);
        CM_PARTIAL_RESOURCE_DESCRIPTOR d = uart_connection(id);
        EXPECT_EQ(d.Type, CmResourceTypeConnection);
        EXPECT_EQ(d.u.Connection.Class, CM_RESOURCE_CONNECTION_CLASS_SERIAL);
        EXPECT_EQ(d.u.Connection.Type, CM_RESOURCE_CONNECTION_TYPE_SERIAL_UART);
        EXPECT_EQ(d.u.Connection.IdLowPart, c.low);
        EXPECT_EQ(d.u.Connection.IdHighPart, c.high);
    }
}

TEST(SystemTest, SerialPortsAreNamedAndListedInTheOrderAdded)
{
    sched::Install s(sched::make_simulated(sched::seed_from_env()));
    auto device = std::make_shared<NullDevice>();
    add_serial_port(u"\\??\\COM7", device);
    add_serial_port(u"\\??\\COM3", device);
    PZZWSTR list = nullptr;
    ASSERT_EQ(IoGetDeviceInterfaces(&GUID_DEVINTERFACE_COMPORT, nullptr, 0, &list), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(list)), u"\\??\\COM7");
    ExFreePoolWithTag(list, 0);
    EXPECT_EQ(io::lookup(u"\\??\\com3"), device);

    remove_serial_port(u"\\??\\COM7");
    remove_serial_port(u"\\??\\COM3");
    EXPECT_TRUE(kernel::interfaces(GUID_DEVINTERFACE_COMPORT).empty());
    std::unique_ptr<io::LowerFile> file;
    EXPECT_EQ(io::open(u"\\??\\COM3", {}, file), STATUS_OBJECT_NAME_NOT_FOUND);
}

} // namespace
} // namespace mvgps::pnp::test
