// The framework's object model: every WDF handle names one Object. Objects have a parent
// (the driver by default), typed contexts, and cleanup and destroy callbacks; deleting an
// object deletes its children first. Handles are never reused, so a handle kept after its
// object was deleted is recognised as such and stops the run.
#pragma once

#include <wdf.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace mvgps::wdf
{

enum class Kind : std::uint8_t {
    Driver,
    Device,
    Queue,
    Request,
    Memory,
    IoTarget,
    WaitLock,
    WorkItem,
    ChildList,
    Key,
    ResourceList,
};
const char* kind_name(Kind kind);

class Driver;
class Device;

class Object : public std::enable_shared_from_this<Object>
{
  public:
    explicit Object(Kind kind) : kind_(kind) {}
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    Kind kind() const { return kind_; }
    WDFOBJECT handle() const { return handle_; }
    Object* parent() const { return parent_; }
    bool deleting() const { return state_ != State::Live; }
    // The device this object belongs to (itself for a device), or null.
    Device* device();
    // The driver at the root of this object's tree, or null.
    Driver* driver();
    // Whether its callbacks must run at PASSIVE_LEVEL (its execution level, or the nearest
    // ancestor's that is not "inherit").
    bool passive_callbacks() const;

    // Called once while the object is deleted: after its children are gone and before the
    // driver's cleanup callback. Runs without the state lock.
    virtual void teardown() {}
    // Whether WdfObjectDelete may delete it.
    virtual bool driver_may_delete() const { return true; }

  private:
    friend class Objects;
    enum class State : std::uint8_t { Live, Deleting, Dead };

    Kind kind_;
    State state_ = State::Live;
    WDFOBJECT handle_ = nullptr;
    Object* parent_ = nullptr;
    std::vector<std::shared_ptr<Object>> children_;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP cleanup_ = nullptr;
    PFN_WDF_OBJECT_CONTEXT_DESTROY destroy_ = nullptr;
    WDF_EXECUTION_LEVEL execution_level_ = WdfExecutionLevelInheritFromParent;
    struct Context {
        PCWDF_OBJECT_CONTEXT_TYPE_INFO type;
        void* block; // header + context
    };
    std::vector<Context> contexts_;
};

// The handle table and the object tree.
class Objects
{
  public:
    // Registers a new object under its parent (attributes' parent, else `parent`, else the
    // current driver) with the context the attributes ask for. Fails with the status of an
    // injected fault or of invalid attributes.
    static NTSTATUS attach(const std::shared_ptr<Object>& object,
                           const WDF_OBJECT_ATTRIBUTES* attributes, Object* parent);
    // The live (or being deleted) object behind a handle; a null, unknown, deleted or
    // wrongly typed handle stops the run.
    static Object* resolve(WDFOBJECT handle, const char* call);
    template <class T>
    static T* get(WDFOBJECT handle, Kind kind, const char* call)
    {
        return static_cast<T*>(checked(resolve(handle, call), kind, call));
    }
    // Deletes the object and its subtree (no-op for one already being deleted). `how` is
    // what a later use of the handle reports ("use of a completed WDFREQUEST").
    static void remove(Object* object, const char* how = "deleted");
    // How a dead handle died, or null for a live or unknown one.
    static const char* tombstone(WDFOBJECT handle);
    static std::shared_ptr<Object> hold(Object* object);
    static void* context(Object* object, PCWDF_OBJECT_CONTEXT_TYPE_INFO type);
    static NTSTATUS add_context(Object* object, const WDF_OBJECT_ATTRIBUTES* attributes,
                                void** context);
    static WDFOBJECT owner_of_context(void* context);
    static std::vector<std::shared_ptr<Object>> children(Object* object);
    // Live objects in the whole process (tests check that a run leaves none behind).
    static std::size_t live_count();

  private:
    static Object* checked(Object* object, Kind kind, const char* call);
};

} // namespace mvgps::wdf
