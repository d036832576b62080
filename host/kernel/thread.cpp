// System threads, their handles and their waitable objects. A thread object is signalled
// when its routine returns, and lives until its last reference is dropped; a driver that
// keeps its reference forever only keeps a small host record, never pool.
#include "kernel/internal.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "verifier/verifier.h"

namespace mvgps::kernel::detail
{

struct KernelThread {
    DISPATCHER_HEADER header{}; // what the driver waits on; first, as in the real record
    std::string name;
    LONG_PTR references = 0;
    KPRIORITY priority = 8;
    const void* image = nullptr; // base of the image its start routine lies in
    bool running = false;
};

namespace
{

constexpr ULONG_PTR kFirstHandle = 0xFFFFFFFF80000004ULL; // kernel handles have the top bit
constexpr KPRIORITY kDefaultPriority = 8;

struct Objects {
    std::mutex mutex;
    std::unordered_map<const void*, std::unique_ptr<KernelThread>> threads; // by header
    std::unordered_map<ULONG_PTR, KernelThread*> handles;
    ULONG_PTR next_handle = kFirstHandle;
};

// Never destroyed: thread records may be released while the process exits.
Objects& objects()
{
    static Objects* o = new Objects;
    return *o;
}

KernelThread* make_thread(std::string name, LONG_PTR references)
{
    auto t = std::make_unique<KernelThread>();
    t->header.Type = kThreadObject;
    t->header.Size = sizeof(KernelThread) / sizeof(LONG);
    t->name = std::move(name);
    t->references = references;
    t->priority = kDefaultPriority;
    KernelThread* raw = t.get();
    Objects& o = objects();
    std::lock_guard lock(o.mutex);
    o.threads.emplace(&raw->header, std::move(t));
    return raw;
}

// Returns the remaining count; the record is gone when it reaches zero.
LONG_PTR dereference(const void* object, const char* caller)
{
    Objects& o = objects();
    std::lock_guard lock(o.mutex);
    auto it = o.threads.find(object);
    if (it == o.threads.end() || it->second->references <= 0) {
        verifier::bugcheck(verifier::kReferenceByPointer,
                           std::string(caller) + " on an object with no references left",
                           reinterpret_cast<ULONG_PTR>(object));
    }
    LONG_PTR left = --it->second->references;
    if (left == 0) {
        o.threads.erase(it);
    }
    return left;
}

// The start routine's own name (a driver image exports it), or where it lies in its image.
std::string routine_name(PKSTART_ROUTINE routine)
{
    Dl_info info{};
    auto address = reinterpret_cast<ULONG_PTR>(routine);
    if (dladdr(reinterpret_cast<void*>(routine), &info) == 0) {
        char text[32];
        std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(address));
        return text;
    }
    if (info.dli_sname != nullptr && info.dli_saddr == reinterpret_cast<void*>(routine)) {
        int status = 0;
        char* plain = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
        std::string name = status == 0 ? plain : info.dli_sname;
        std::free(plain);
        return name.substr(0, name.find('('));
    }
    // Relative to the image, so that a replay names the thread the same way.
    std::string image = info.dli_fname ? info.dli_fname : "";
    image = image.substr(image.find_last_of('/') + 1);
    char text[32];
    std::snprintf(
        text, sizeof text, "+0x%llx",
        static_cast<unsigned long long>(address - reinterpret_cast<ULONG_PTR>(info.dli_fbase)));
    return image + text;
}

void run(KernelThread* thread, PKSTART_ROUTINE routine, PVOID context)
{
    ThreadState& state = this_thread();
    state.object = thread;
    verifier::note("thread start " + thread->name);
    routine(context);
    {
        std::lock_guard lock(objects().mutex);
        thread->running = false;
    }
    if (state.irql != PASSIVE_LEVEL || !state.held.empty()) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           "system thread " + thread->name + " returned at " +
                               irql_name(state.irql) +
                               (state.held.empty() ? "" : " holding a spin lock"),
                           state.irql, state.held.size());
    }
    state.object = nullptr;
    verifier::note("thread exit " + thread->name);
    signal_header(thread->header);
    dereference(&thread->header, "thread exit");
}

} // namespace

ThreadState::~ThreadState()
{
    if (adopted && object != nullptr) {
        dereference(&object->header, "thread exit");
    }
}

} // namespace mvgps::kernel::detail

namespace mvgps::kernel
{

std::vector<std::string> threads_running_in(const void* image_base)
{
    using namespace detail;
    std::vector<std::string> names;
    Objects& o = objects();
    std::lock_guard lock(o.mutex);
    for (const auto& [header, thread] : o.threads) {
        if (thread->running && thread->image == image_base) {
            names.push_back(thread->name);
        }
    }
    return names;
}

} // namespace mvgps::kernel

using namespace mvgps;
using namespace mvgps::kernel::detail;

// Only compared by address: the one object type the host knows.
struct _OBJECT_TYPE {
    char name[8];
};
static _OBJECT_TYPE g_thread_type_record = {"Thread"};
static POBJECT_TYPE g_thread_type = &g_thread_type_record;

extern "C" {

POBJECT_TYPE* PsThreadType = &g_thread_type;

NTSTATUS PsCreateSystemThread(PHANDLE ThreadHandle, ULONG, POBJECT_ATTRIBUTES, HANDLE, PCLIENT_ID,
                              PKSTART_ROUTINE StartRoutine, PVOID StartContext)
{
    if (ThreadHandle == nullptr || StartRoutine == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // One reference for the handle, one for the running thread.
    KernelThread* thread = make_thread(routine_name(StartRoutine), 2);
    Dl_info info{};
    {
        bool found = dladdr(reinterpret_cast<void*>(StartRoutine), &info) != 0;
        Objects& o = objects();
        std::lock_guard lock(o.mutex);
        thread->image = found ? info.dli_fbase : nullptr;
        thread->running = true;
        ULONG_PTR handle = o.next_handle;
        o.next_handle += 4;
        o.handles.emplace(handle, thread);
        *ThreadHandle = reinterpret_cast<HANDLE>(handle);
    }
    sched::current().spawn(thread->name, [thread, StartRoutine, StartContext] {
        run(thread, StartRoutine, StartContext);
    });
    return STATUS_SUCCESS;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK, POBJECT_TYPE ObjectType,
                                   KPROCESSOR_MODE, PVOID* Object,
                                   POBJECT_HANDLE_INFORMATION HandleInformation)
{
    if (Object == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (ObjectType != nullptr && ObjectType != *PsThreadType) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    Objects& o = objects();
    std::lock_guard lock(o.mutex);
    auto it = o.handles.find(reinterpret_cast<ULONG_PTR>(Handle));
    if (it == o.handles.end()) {
        return STATUS_INVALID_HANDLE;
    }
    ++it->second->references;
    *Object = &it->second->header;
    if (HandleInformation != nullptr) {
        *HandleInformation = {0, THREAD_ALL_ACCESS};
    }
    return STATUS_SUCCESS;
}

LONG_PTR ObfDereferenceObject(PVOID Object)
{
    return dereference(Object, "ObfDereferenceObject");
}

NTSTATUS ZwClose(HANDLE Handle)
{
    KernelThread* thread;
    {
        Objects& o = objects();
        std::lock_guard lock(o.mutex);
        auto it = o.handles.find(reinterpret_cast<ULONG_PTR>(Handle));
        if (it == o.handles.end()) {
            verifier::bugcheck(verifier::kInvalidKernelHandle,
                               "ZwClose of a handle that is not open",
                               reinterpret_cast<ULONG_PTR>(Handle));
        }
        thread = it->second;
        o.handles.erase(it);
    }
    dereference(&thread->header, "ZwClose");
    return STATUS_SUCCESS;
}

PKTHREAD KeGetCurrentThread(VOID)
{
    ThreadState& state = this_thread();
    if (state.object == nullptr) {
        auto& s = sched::current();
        state.object = make_thread(s.name(s.self()), 1);
        state.adopted = true;
    }
    return reinterpret_cast<PKTHREAD>(&state.object->header);
}

KPRIORITY KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority)
{
    Objects& o = objects();
    std::lock_guard lock(o.mutex);
    auto it = o.threads.find(Thread);
    if (it == o.threads.end()) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           "KeSetPriorityThread on something that is not a thread",
                           reinterpret_cast<ULONG_PTR>(Thread));
    }
    KPRIORITY old = it->second->priority;
    it->second->priority = Priority;
    return old;
}

} // extern "C"
