// The probe driver's interface: control codes that make it show one framework behaviour
// each, shared by the driver and the tests that load it. Parameters (registry values):
//   QueuePowerManaged  0 or 1 (default 1): the default queue's power management
//   AllowForward       0 or 1 (default 1): whether the child may forward to its parent
//   Fail               which callback fails: PROBE_FAIL_* (default none)
//   DoubleFree         1: the SelfManagedIoInit failure path frees a block that
//                      SelfManagedIoCleanup frees again (a crash on Windows)
//   VetoRemove         1: EvtDeviceQueryRemove refuses
//   RelayPassive       1: the relay queue asks for PASSIVE_LEVEL callbacks
#pragma once

#include <wdm.h>

#define PROBE_POOL_TAG 0x45425250u // 'PRBE'

#define PROBE_CODE(n) CTL_CODE(FILE_DEVICE_UNKNOWN, 0x900 + (n), METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_PROBE_ECHO PROBE_CODE(0)      // output = input + 1 bytewise, Information = in
#define IOCTL_PROBE_HOLD PROBE_CODE(3)      // kept by the driver, never completed
#define IOCTL_PROBE_STATE PROBE_CODE(4)     // output: PROBE_STATE
#define IOCTL_PROBE_ADD_CHILD PROBE_CODE(5) // reports the child, twice
// Each breaks one verifier rule.
#define IOCTL_PROBE_DOUBLE_COMPLETE PROBE_CODE(6)
#define IOCTL_PROBE_COMPLETE_PARKED PROBE_CODE(7)
#define IOCTL_PROBE_RAISED_IRQL PROBE_CODE(8)
#define IOCTL_PROBE_SPIN_LOCK_HELD PROBE_CODE(9)
#define IOCTL_PROBE_LEAK_POOL PROBE_CODE(10)
// Kept as cancelable: acknowledged in EvtIoStop on a power-down, cancelled by a purge.
#define IOCTL_PROBE_HOLD_CANCELABLE PROBE_CODE(11)
// Forwarded under a spin lock to the relay queue, whose callback is pageable code.
#define IOCTL_PROBE_RELAY_RAISED PROBE_CODE(12)
// Completed with more Information than its output buffer holds.
#define IOCTL_PROBE_OVERSTATE PROBE_CODE(13)
// Completed while still marked cancelable.
#define IOCTL_PROBE_COMPLETE_CANCELABLE PROBE_CODE(14)
// Starts a system thread that never ends (the driver forgets to stop it).
#define IOCTL_PROBE_START_THREAD PROBE_CODE(15)
// A false NT_ASSERT.
#define IOCTL_PROBE_ASSERT PROBE_CODE(16)

#define PROBE_FAIL_PREPARE_HARDWARE 1
#define PROBE_FAIL_SELF_MANAGED_IO_INIT 2
#define PROBE_FAIL_WAKE 3 // D0Entry from a sleep state

// How many times DriverEntry ran in this load.
struct PROBE_STATE {
    ULONG Loads;
};

// {5C2D1E0A-8B3F-4E7A-9C61-0D2F4B8A7E13}
DEFINE_GUID(GUID_DEVINTERFACE_PROBE, 0x5C2D1E0AL, 0x8B3F, 0x4E7A, 0x9C, 0x61, 0x0D, 0x2F, 0x4B,
            0x8A, 0x7E, 0x13);
