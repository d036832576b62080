// The host's object namespace: every device that can be opened by name, the framework's
// devices (under their interface links) and the simulated world's (a UART controller under
// its Resource Hub path, a serial port under "\??\COMn") alike. Names compare without
// regard to ASCII case.
//
// Opening a device gives a File, to which requests are dispatched. A device's removal is
// announced to whoever listens on it, as the PnP manager notifies those who registered for
// a target device's changes: query-remove (which one listener may veto), then either
// remove-cancelled or remove-complete, after which the device's names are gone.
#pragma once

#include <wdm.h>

#include <memory>
#include <string>
#include <string_view>

#include "io/request.h"

namespace mvgps::io
{

// What an opener asks for (the create parameters of an open by name).
struct OpenParams {
    ACCESS_MASK desired_access = 0;
    ULONG share_access = 0; // 0: exclusive
    ULONG create_disposition = FILE_OPEN;
    ULONG create_options = 0;
};

// One open instance of a device. Destroying it closes it; the opener completes or cancels
// everything it sent first, so no request outlives its file.
class File
{
  public:
    virtual ~File() = default;
    // Starts one request; the device completes it later or at once, on any thread.
    virtual void dispatch(std::shared_ptr<Request> request) = 0;
};

class Device
{
  public:
    virtual ~Device() = default;
    // A device that allows one open at a time fails a second with STATUS_SHARING_VIOLATION.
    virtual NTSTATUS open(const OpenParams& params, std::unique_ptr<File>& file) = 0;
};

// Told about the removal of a device it opened. Called without host locks held.
class RemovalListener
{
  public:
    virtual ~RemovalListener() = default;
    // A failure vetoes the removal.
    virtual NTSTATUS query_remove() = 0;
    virtual void remove_cancelled() = 0;
    // The device is gone: close it for good.
    virtual void remove_complete() = 0;
};

void bind(std::u16string_view name, std::shared_ptr<Device> device);
bool unbind(std::u16string_view name);
std::shared_ptr<Device> lookup(std::u16string_view name);
// Opens a bound device: STATUS_OBJECT_NAME_NOT_FOUND when nothing is bound to the name.
NTSTATUS open(std::u16string_view name, const OpenParams& params, std::unique_ptr<File>& file);

// Listeners are held weakly: one that is gone is no longer told. Listening twice on one
// device is listening once.
void listen(const Device* device, std::weak_ptr<RemovalListener> listener);
// Asks every listener of the device bound to `name`; on a veto the ones already asked
// hear that the removal was cancelled, and the veto's status is returned.
NTSTATUS query_remove(std::u16string_view name);
// The removal that every listener agreed to does not happen after all.
void cancel_remove(std::u16string_view name);
// Removes the device bound to `name` (after a query, or by surprise): every listener hears
// remove-complete, then all of the device's names are unbound.
void remove(std::u16string_view name);

} // namespace mvgps::io
