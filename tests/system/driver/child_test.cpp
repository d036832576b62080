// The child device: its identity as the PnP manager sees it, and which of its requests reach
// the parent.
#include <initguid.h>

#include <devguid.h>

#include "child/child.h"
#include "driver_fixture.h"

namespace mvgps::test
{
namespace
{

TEST_F(DriverTest, ChildHasItsIdsTextsAndCapabilities)
{
    start_running();
    std::vector<wdf::Device*> children = stack().children();
    ASSERT_EQ(children.size(), 1u);
    const WDFDEVICE_INIT& init = children[0]->init();
    EXPECT_EQ(init.device_type, static_cast<DEVICE_TYPE>(FILE_DEVICE_BUS_EXTENDER));
    EXPECT_EQ(init.device_id, u"SerialBusWdk\\MVT_GPS");
    EXPECT_EQ(init.hardware_ids, std::vector<std::u16string>{u"SerialBusWdk\\MVT_GPS"});
    EXPECT_EQ(init.compatible_ids, std::vector<std::u16string>{u"MVT_GPS"});
    EXPECT_EQ(init.instance_id, u"4097");
    ASSERT_EQ(init.texts.size(), 1u);
    EXPECT_EQ(init.texts[0].description, u"SerialHciBus_4097");
    EXPECT_EQ(init.texts[0].location, u"Serial HCI Bus - GPS Function");
    EXPECT_EQ(init.texts[0].locale, 0x409u);
    EXPECT_EQ(init.default_locale, 0x409u);
    EXPECT_TRUE(init.forward_to_parent);

    const WDF_DEVICE_PNP_CAPABILITIES& pnp = children[0]->pnp_capabilities();
    EXPECT_EQ(pnp.Removable, WdfFalse);
    EXPECT_EQ(pnp.SurpriseRemovalOK, WdfTrue);
    EXPECT_EQ(pnp.Address, 4097u);
    EXPECT_EQ(pnp.UINumber, 4097u);
    const WDF_DEVICE_POWER_CAPABILITIES& power = children[0]->power_capabilities();
    EXPECT_EQ(power.DeviceD1, WdfFalse);
    EXPECT_EQ(power.WakeFromD2, WdfTrue);
    EXPECT_EQ(power.DeviceState[PowerSystemSleeping3], PowerDeviceD1);
    EXPECT_EQ(power.DeviceState[PowerSystemShutdown], PowerDeviceD2);
    EXPECT_EQ(power.DeviceWake, PowerDeviceD1);
    EXPECT_EQ(power.D3Latency, 0xFFFFFFFFu);

    const PNP_BUS_INFORMATION& bus = stack().fdo()->bus_information();
    EXPECT_EQ(bus.BusTypeGuid, GUID_DEVCLASS_PORTS);
    EXPECT_EQ(bus.LegacyBusType, PNPBus);
    EXPECT_EQ(bus.BusNumber, 0u);
}

// The child is reported once: the worker run a second time finds it present, and the
// framework's refusal leaves one child.
TEST_F(DriverTest, SecondChildIsRefused)
{
    start_running();
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(
        &config, image_symbol_as<EVT_WDF_WORKITEM>("_Z21DeviceEnablePDOWorkerP13WDFWORKITEM__"));
    auto* type =
        image_symbol_as<const WDF_OBJECT_CONTEXT_TYPE_INFO>("_WDF_WorkItemContext_TYPE_INFO");
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ContextTypeInfo = type;
    attributes.ParentObject = stack().fdo()->handle();
    WDFWORKITEM item;
    ASSERT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
    auto* context = static_cast<WorkItemContext*>(WdfObjectGetTypedContextWorker(item, type));
    context->Device = static_cast<WDFDEVICE>(stack().fdo()->handle());
    config.EvtWorkItemFunc(item);
    run_for(10 * kMillisecond);
    EXPECT_EQ(count("-DeviceEnablePDOWorker"), 2u);
    EXPECT_EQ(stack().children().size(), 1u);
}

struct ForwardCase {
    ULONG code;
    bool forwarded;
    const char* refusal; // the line a refused code logs
};

// The sleep-status query and the gaps in the parent's codes are refused, as is a code of
// another device type with an accepted function number; the device-type 0x41 codes go on.
const ForwardCase kForwardCases[] = {
    {0x22284C, true, nullptr},
    {0x22288C, true, nullptr},
    {0x410403, true, nullptr},
    {0x410413, true, nullptr},
    {0x222864, false, "Unexpected IOCTL_(0x222864, Func 2585)"},
    {0x222890, false, "Unexpected IOCTL_(0x222890, Func 2596)"},
    {0x22286C, false, "Unexpected IOCTL_(0x22286c, Func 2587)"},
    {0x23284C, false, "Unexpected IOCTL_(0x23284c, Func 2579)"},
};

TEST_F(DriverTest, ChildForwardsItsCodesAndRefusesTheRest)
{
    start_running();
    set_log_mask(DEBUG_LOG_MASK_DEFAULT | DBG_CHILD);
    std::unique_ptr<pnp::ClientHandle> child = open_child();
    ASSERT_NE(child, nullptr);
    for (const ForwardCase& c : kForwardCases) {
        SCOPED_TRACE(c.code);
        kernel::clear_debug_output();
        std::shared_ptr<pnp::PendingIo> io = child->ioctl_async(c.code, {}, 16);
        if (c.forwarded) {
            EXPECT_TRUE(wait_until([] { return logged("-IoDeviceControl"); }));
        } else {
            ASSERT_TRUE(io->wait(sched::current().now() + kSecond));
            EXPECT_EQ(io->status(), STATUS_INVALID_PARAMETER);
            EXPECT_TRUE(logged(c.refusal)) << log();
            EXPECT_FALSE(logged("-IoDeviceControl"));
        }
    }
    child->close();
}

} // namespace
} // namespace mvgps::test
