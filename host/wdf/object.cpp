#include "host/wdf/object.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "host/sched/sched.h"
#include "host/wdf/driver.h"
#include "host/wdf/faults.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{
namespace
{

// A context block starts with the handle of its object, so WdfObjectContextGetObject can
// go back from a context to its object.
struct alignas(16) ContextHeader {
    WDFOBJECT owner;
};

struct Table {
    std::unordered_map<std::uintptr_t, std::shared_ptr<Object>> live;
    struct Tombstone {
        Kind kind;
        const char* how;
    };
    std::unordered_map<std::uintptr_t, Tombstone> dead;
    std::uintptr_t next = 0;
};

// Guarded by the scheduler's state lock.
Table& table()
{
    static Table t;
    return t;
}

// Handle values are never reused, and never valid addresses.
WDFOBJECT new_handle()
{
    constexpr std::uintptr_t kBase = 0xFD00'0000'0000;
    return reinterpret_cast<WDFOBJECT>(kBase + (++table().next << 4));
}

std::uintptr_t key(WDFOBJECT handle)
{
    return reinterpret_cast<std::uintptr_t>(handle);
}

PCWDF_OBJECT_CONTEXT_TYPE_INFO unique(PCWDF_OBJECT_CONTEXT_TYPE_INFO type)
{
    return type->UniqueType ? type->UniqueType : type;
}

std::string describe(WDFOBJECT handle, const char* call)
{
    char text[128];
    std::snprintf(text, sizeof text, "%s(%p)", call, handle);
    return text;
}

} // namespace

const char* kind_name(Kind kind)
{
    switch (kind) {
    case Kind::Driver:
        return "WDFDRIVER";
    case Kind::Device:
        return "WDFDEVICE";
    case Kind::Queue:
        return "WDFQUEUE";
    case Kind::Request:
        return "WDFREQUEST";
    case Kind::Memory:
        return "WDFMEMORY";
    case Kind::IoTarget:
        return "WDFIOTARGET";
    case Kind::WaitLock:
        return "WDFWAITLOCK";
    case Kind::WorkItem:
        return "WDFWORKITEM";
    case Kind::ChildList:
        return "WDFCHILDLIST";
    case Kind::Key:
        return "WDFKEY";
    case Kind::ResourceList:
        return "WDFCMRESLIST";
    }
    return "WDFOBJECT";
}

Object::~Object()
{
    for (auto& c : contexts_) {
        std::free(c.block);
    }
}

Driver* Object::driver()
{
    Object* o = this;
    while (o->parent_) {
        o = o->parent_;
    }
    return o->kind_ == Kind::Driver ? static_cast<Driver*>(o) : nullptr;
}

bool Object::passive_callbacks() const
{
    for (const Object* o = this; o; o = o->parent_) {
        if (o->execution_level_ == WdfExecutionLevelPassive) {
            return true;
        }
        if (o->execution_level_ == WdfExecutionLevelDispatch) {
            return false;
        }
    }
    return false;
}

NTSTATUS Objects::attach(const std::shared_ptr<Object>& object,
                         const WDF_OBJECT_ATTRIBUTES* attributes, Object* parent)
{
    NTSTATUS status = faults::on_create(object->kind());
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (attributes && attributes->Size != sizeof(WDF_OBJECT_ATTRIBUTES)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (attributes && attributes->ParentObject) {
        parent = resolve(attributes->ParentObject, "ParentObject");
    }
    if (!parent && object->kind() != Kind::Driver) {
        parent = Driver::current();
    }
    if (attributes) {
        object->cleanup_ = attributes->EvtCleanupCallback;
        object->destroy_ = attributes->EvtDestroyCallback;
        object->execution_level_ = attributes->ExecutionLevel;
    }
    void* context = nullptr;
    if (attributes && attributes->ContextTypeInfo) {
        status = add_context(object.get(), attributes, &context);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    sched::StateLock lock(sched::current());
    if (parent && parent->state_ != Object::State::Live) {
        return STATUS_DELETE_PENDING;
    }
    object->handle_ = new_handle();
    if (context) {
        reinterpret_cast<ContextHeader*>(object->contexts_.back().block)->owner = object->handle_;
    }
    object->parent_ = parent;
    if (parent) {
        parent->children_.push_back(object);
    }
    table().live.emplace(key(object->handle_), object);
    return STATUS_SUCCESS;
}

Object* Objects::resolve(WDFOBJECT handle, const char* call)
{
    if (!handle) {
        violation(Rule::BadHandle, "null framework handle passed to " + describe(handle, call));
    }
    const char* deleted_kind = nullptr;
    const char* how = nullptr;
    {
        sched::StateLock lock(sched::current());
        auto it = table().live.find(key(handle));
        if (it != table().live.end()) {
            return it->second.get();
        }
        auto dead = table().dead.find(key(handle));
        if (dead != table().dead.end()) {
            deleted_kind = kind_name(dead->second.kind);
            how = dead->second.how;
        }
    }
    if (deleted_kind) {
        violation(Rule::DeletedObject,
                  std::string("use of a ") + how + " " + deleted_kind + " in " +
                      describe(handle, call),
                  key(handle));
    }
    violation(Rule::BadHandle, "invalid framework handle passed to " + describe(handle, call),
              key(handle));
}

Object* Objects::checked(Object* object, Kind kind, const char* call)
{
    if (object->kind() != kind) {
        violation(Rule::BadHandle,
                  std::string(kind_name(object->kind())) + " passed where " + kind_name(kind) +
                      " is expected: " + describe(object->handle(), call),
                  key(object->handle()));
    }
    return object;
}

std::shared_ptr<Object> Objects::hold(Object* object)
{
    sched::StateLock lock(sched::current());
    return object->shared_from_this();
}

const char* Objects::tombstone(WDFOBJECT handle)
{
    sched::StateLock lock(sched::current());
    auto dead = table().dead.find(key(handle));
    return dead == table().dead.end() ? nullptr : dead->second.how;
}

void Objects::remove(Object* object, const char* how)
{
    std::vector<std::shared_ptr<Object>> kids;
    std::shared_ptr<Object> self;
    // A parent deleted on another thread meanwhile skips this child, which is already being
    // deleted, and may be gone before the child leaves its list: hold it until then.
    std::shared_ptr<Object> parent;
    {
        sched::StateLock lock(sched::current());
        if (object->state_ != Object::State::Live) {
            return;
        }
        object->state_ = Object::State::Deleting;
        kids = object->children_;
        self = object->shared_from_this();
        if (object->parent_) {
            parent = object->parent_->shared_from_this();
        }
    }
    for (auto it = kids.rbegin(); it != kids.rend(); ++it) {
        remove(it->get());
    }
    kids.clear();
    object->teardown();
    WDFOBJECT handle = object->handle();
    if (object->cleanup_) {
        call_driver("EvtCleanupCallback", object->cleanup_, handle);
    }
    if (object->destroy_) {
        call_driver("EvtDestroyCallback", object->destroy_, handle);
    }
    sched::StateLock lock(sched::current());
    object->state_ = Object::State::Dead;
    table().live.erase(key(handle));
    table().dead.emplace(key(handle), Table::Tombstone{object->kind(), how});
    if (parent) {
        auto& siblings = parent->children_;
        siblings.erase(std::remove(siblings.begin(), siblings.end(), self), siblings.end());
    }
    object->children_.clear();
}

void* Objects::context(Object* object, PCWDF_OBJECT_CONTEXT_TYPE_INFO type)
{
    if (!type) {
        return nullptr;
    }
    sched::StateLock lock(sched::current());
    for (auto& c : object->contexts_) {
        if (c.type == unique(type)) {
            return static_cast<char*>(c.block) + sizeof(ContextHeader);
        }
    }
    return nullptr;
}

NTSTATUS Objects::add_context(Object* object, const WDF_OBJECT_ATTRIBUTES* attributes,
                              void** context)
{
    PCWDF_OBJECT_CONTEXT_TYPE_INFO type = attributes->ContextTypeInfo;
    if (!type) {
        return STATUS_INVALID_PARAMETER;
    }
    std::size_t size = attributes->ContextSizeOverride > type->ContextSize
                           ? attributes->ContextSizeOverride
                           : type->ContextSize;
    sched::StateLock lock(sched::current());
    for (auto& c : object->contexts_) {
        if (c.type == unique(type)) {
            *context = static_cast<char*>(c.block) + sizeof(ContextHeader);
            return STATUS_OBJECT_NAME_EXISTS;
        }
    }
    void* block = std::calloc(1, sizeof(ContextHeader) + size);
    if (!block) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    static_cast<ContextHeader*>(block)->owner = object->handle_;
    object->contexts_.push_back({unique(type), block});
    *context = static_cast<char*>(block) + sizeof(ContextHeader);
    return STATUS_SUCCESS;
}

WDFOBJECT Objects::owner_of_context(void* context)
{
    return (reinterpret_cast<ContextHeader*>(context) - 1)->owner;
}

std::vector<std::shared_ptr<Object>> Objects::children(Object* object)
{
    sched::StateLock lock(sched::current());
    return object->children_;
}

std::size_t Objects::live_count()
{
    sched::StateLock lock(sched::current());
    return table().live.size();
}

} // namespace mvgps::wdf

using namespace mvgps;
using namespace mvgps::wdf;

extern "C" {

PVOID WdfObjectGetTypedContextWorker(WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo)
{
    return Objects::context(Objects::resolve(Handle, "WdfObjectGetTypedContext"), TypeInfo);
}

NTSTATUS WdfObjectAllocateContext(WDFOBJECT Handle, PWDF_OBJECT_ATTRIBUTES ContextAttributes,
                                  PVOID* Context)
{
    Object* object = Objects::resolve(Handle, "WdfObjectAllocateContext");
    if (!ContextAttributes || !Context) {
        return STATUS_INVALID_PARAMETER;
    }
    return Objects::add_context(object, ContextAttributes, Context);
}

WDFOBJECT WdfObjectContextGetObject(PVOID ContextPointer)
{
    return Objects::owner_of_context(ContextPointer);
}

VOID WdfObjectDelete(WDFOBJECT Object)
{
    mvgps::wdf::Object* object = Objects::resolve(Object, "WdfObjectDelete");
    if (!object->driver_may_delete()) {
        violation(Rule::DeleteNotAllowed,
                  std::string("WdfObjectDelete on a ") + kind_name(object->kind()) +
                      " the framework owns",
                  reinterpret_cast<std::uintptr_t>(Object));
    }
    Objects::remove(object);
}

} // extern "C"
