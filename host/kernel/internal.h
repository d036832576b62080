// What the kernel's rooms share with each other and nobody else.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

#include "host/sched/sched.h"

namespace mvgps::kernel::detail
{

struct KernelThread;

// The kernel's view of the calling thread.
struct ThreadState {
    KIRQL irql = PASSIVE_LEVEL;
    std::vector<const KSPIN_LOCK*> held; // spin locks, in acquisition order
    KernelThread* object = nullptr;      // set on first use of KeGetCurrentThread
    bool adopted = false;                // object created for a thread the kernel did not start
    ~ThreadState();
};
ThreadState& this_thread();

// Sets the calling thread's IRQL, checking the direction of the change.
void raise_irql(KIRQL level, const char* caller);
void lower_irql(KIRQL level, const char* caller);

const char* irql_name(KIRQL irql);

// Dispatcher objects (events and threads) keep their waiters inside their header.
sched::WaitList& waiters(DISPATCHER_HEADER& header);
inline constexpr UCHAR kEventNotificationObject = 0;
inline constexpr UCHAR kEventSynchronizationObject = 1;
inline constexpr UCHAR kThreadObject = 6;
// Size in 32-bit words, as the kernel records it: zero means never initialised.
inline constexpr UCHAR kEventSize = sizeof(KEVENT) / sizeof(LONG);
// Signals the header (a thread's end) and wakes its waiters.
void signal_header(DISPATCHER_HEADER& header);

} // namespace mvgps::kernel::detail
