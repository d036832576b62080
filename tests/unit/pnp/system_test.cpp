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

class NullDevice : public io::Device
{
  public:
    NTSTATUS open(const io::OpenParams&, std::unique_ptr<io::File>&) override
    {
        return STATUS_ACCESS_DENIED;
    }
};

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
    std::unique_ptr<io::File> file;
    EXPECT_EQ(io::open(u"\\??\\COM3", {}, file), STATUS_OBJECT_NAME_NOT_FOUND);
}

} // namespace
} // namespace mvgps::pnp::test
