// Drop-in subset of the framework's wdf.h for the user-mode host: the handle types, records,
// _INIT helpers, callback role types and calls this driver uses, with their real names,
// field orders and signatures. Each handle is a pointer to its own incomplete struct, so a
// WDFDEVICE passed where a WDFREQUEST is expected does not compile.
#pragma once

#include <ntddk.h>

// ---------------------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------------------
#define WDF_DECLARE_HANDLE(name) typedef struct name##__* name

typedef PVOID WDFOBJECT, *PWDFOBJECT; // any framework handle converts to it
WDF_DECLARE_HANDLE(WDFDRIVER);
WDF_DECLARE_HANDLE(WDFDEVICE);
WDF_DECLARE_HANDLE(WDFQUEUE);
WDF_DECLARE_HANDLE(WDFREQUEST);
WDF_DECLARE_HANDLE(WDFMEMORY);
WDF_DECLARE_HANDLE(WDFIOTARGET);
WDF_DECLARE_HANDLE(WDFWAITLOCK);
WDF_DECLARE_HANDLE(WDFSPINLOCK);
WDF_DECLARE_HANDLE(WDFWORKITEM);
WDF_DECLARE_HANDLE(WDFCHILDLIST);
WDF_DECLARE_HANDLE(WDFKEY);
WDF_DECLARE_HANDLE(WDFCMRESLIST);
WDF_DECLARE_HANDLE(WDFFILEOBJECT);
WDF_DECLARE_HANDLE(WDFSTRING);
typedef struct WDFDEVICE_INIT* PWDFDEVICE_INIT;
typedef WDFMEMORY* PWDFMEMORY;

typedef ULONG LCID;
typedef struct _MDL* PMDL;

// The driver's entry point (role type; the loader looks it up by name).
typedef NTSTATUS DRIVER_INITIALIZE(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;

// Framework-specific status values.
#define STATUS_WDF_PAUSED ((NTSTATUS)0xC0200216L)
#define STATUS_WDF_BUSY ((NTSTATUS)0xC0200217L)

typedef enum _WDF_TRI_STATE {
    WdfFalse = FALSE,
    WdfTrue = TRUE,
    WdfUseDefault = 2
} WDF_TRI_STATE,
    *PWDF_TRI_STATE;

// ---------------------------------------------------------------------------------------
// Objects, attributes and typed contexts
// ---------------------------------------------------------------------------------------
typedef enum _WDF_EXECUTION_LEVEL {
    WdfExecutionLevelInvalid = 0,
    WdfExecutionLevelInheritFromParent,
    WdfExecutionLevelPassive,
    WdfExecutionLevelDispatch,
} WDF_EXECUTION_LEVEL;

typedef enum _WDF_SYNCHRONIZATION_SCOPE {
    WdfSynchronizationScopeInvalid = 0,
    WdfSynchronizationScopeInheritFromParent,
    WdfSynchronizationScopeDevice,
    WdfSynchronizationScopeQueue,
    WdfSynchronizationScopeNone,
} WDF_SYNCHRONIZATION_SCOPE;

typedef VOID EVT_WDF_OBJECT_CONTEXT_CLEANUP(WDFOBJECT Object);
typedef EVT_WDF_OBJECT_CONTEXT_CLEANUP* PFN_WDF_OBJECT_CONTEXT_CLEANUP;
typedef VOID EVT_WDF_OBJECT_CONTEXT_DESTROY(WDFOBJECT Object);
typedef EVT_WDF_OBJECT_CONTEXT_DESTROY* PFN_WDF_OBJECT_CONTEXT_DESTROY;

typedef struct _WDF_OBJECT_CONTEXT_TYPE_INFO WDF_OBJECT_CONTEXT_TYPE_INFO;
typedef const WDF_OBJECT_CONTEXT_TYPE_INFO* PCWDF_OBJECT_CONTEXT_TYPE_INFO;
typedef PCWDF_OBJECT_CONTEXT_TYPE_INFO (*PFN_GET_UNIQUE_CONTEXT_TYPE)(VOID);

struct _WDF_OBJECT_CONTEXT_TYPE_INFO {
    ULONG Size;
    PCHAR ContextName;
    size_t ContextSize;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO UniqueType;
    PFN_GET_UNIQUE_CONTEXT_TYPE EvtDriverGetUniqueContextType;
};

typedef struct _WDF_OBJECT_ATTRIBUTES {
    ULONG Size;
    PFN_WDF_OBJECT_CONTEXT_CLEANUP EvtCleanupCallback;
    PFN_WDF_OBJECT_CONTEXT_DESTROY EvtDestroyCallback;
    WDF_EXECUTION_LEVEL ExecutionLevel;
    WDF_SYNCHRONIZATION_SCOPE SynchronizationScope;
    WDFOBJECT ParentObject;
    size_t ContextSizeOverride;
    PCWDF_OBJECT_CONTEXT_TYPE_INFO ContextTypeInfo;
} WDF_OBJECT_ATTRIBUTES, *PWDF_OBJECT_ATTRIBUTES;

#define WDF_NO_OBJECT_ATTRIBUTES NULL
#define WDF_NO_HANDLE NULL
#define WDF_NO_CONTEXT NULL

FORCEINLINE VOID WDF_OBJECT_ATTRIBUTES_INIT(PWDF_OBJECT_ATTRIBUTES Attributes)
{
    RtlZeroMemory(Attributes, sizeof(WDF_OBJECT_ATTRIBUTES));
    Attributes->Size = sizeof(WDF_OBJECT_ATTRIBUTES);
    Attributes->ExecutionLevel = WdfExecutionLevelInheritFromParent;
    Attributes->SynchronizationScope = WdfSynchronizationScopeInheritFromParent;
}

#define WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype) _WDF_##_contexttype##_TYPE_INFO
#define WDF_GET_CONTEXT_TYPE_INFO(_contexttype) (&WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype))

#define WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(_attributes, _contexttype)                          \
    (_attributes)->ContextTypeInfo = WDF_GET_CONTEXT_TYPE_INFO(_contexttype)->UniqueType

#define WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(_attributes, _contexttype)                         \
    WDF_OBJECT_ATTRIBUTES_INIT(_attributes);                                                       \
    WDF_OBJECT_ATTRIBUTES_SET_CONTEXT_TYPE(_attributes, _contexttype)

EXTERN_C_START
PVOID WdfObjectGetTypedContextWorker(WDFOBJECT Handle, PCWDF_OBJECT_CONTEXT_TYPE_INFO TypeInfo);
NTSTATUS WdfObjectAllocateContext(WDFOBJECT Handle, PWDF_OBJECT_ATTRIBUTES ContextAttributes,
                                  PVOID* Context);
WDFOBJECT WdfObjectContextGetObject(PVOID ContextPointer);
VOID WdfObjectDelete(WDFOBJECT Object);
EXTERN_C_END

#define WdfObjectGetTypedContext(handle, type)                                                     \
    ((type*)WdfObjectGetTypedContextWorker((WDFOBJECT)(handle), WDF_GET_CONTEXT_TYPE_INFO(type)))

// The type record is a weak definition, so the copies in several translation units of one
// image fold into one and its address identifies the type; a weak symbol (unlike an inline
// variable) does not keep a loaded image from being unloaded.
#define WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, _castingfunction)                         \
    typedef _contexttype* WDF_TYPE_NAME_POINTER_TYPE(_contexttype);                                \
    EXTERN_C __attribute__((weak))                                                                 \
    const WDF_OBJECT_CONTEXT_TYPE_INFO WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype) = {                \
        sizeof(WDF_OBJECT_CONTEXT_TYPE_INFO),                                                      \
        (PCHAR) #_contexttype,                                                                     \
        sizeof(_contexttype),                                                                      \
        &WDF_TYPE_NAME_TO_TYPE_INFO(_contexttype),                                                 \
        NULL,                                                                                      \
    };                                                                                             \
    FORCEINLINE _contexttype* _castingfunction(WDFOBJECT Handle)                                   \
    {                                                                                              \
        return (_contexttype*)WdfObjectGetTypedContextWorker(                                      \
            Handle, WDF_GET_CONTEXT_TYPE_INFO(_contexttype));                                      \
    }

#define WDF_TYPE_NAME_POINTER_TYPE(_contexttype) WDF_POINTER_TYPE_##_contexttype
#define WDF_DECLARE_CONTEXT_TYPE(_contexttype)                                                     \
    WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(_contexttype, WdfObjectGet_##_contexttype)

// ---------------------------------------------------------------------------------------
// Driver
// ---------------------------------------------------------------------------------------
typedef NTSTATUS EVT_WDF_DRIVER_DEVICE_ADD(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit);
typedef EVT_WDF_DRIVER_DEVICE_ADD* PFN_WDF_DRIVER_DEVICE_ADD;
typedef VOID EVT_WDF_DRIVER_UNLOAD(WDFDRIVER Driver);
typedef EVT_WDF_DRIVER_UNLOAD* PFN_WDF_DRIVER_UNLOAD;

typedef enum _WDF_DRIVER_INIT_FLAGS {
    WdfDriverInitNonPnpDriver = 0x00000001,
    WdfDriverInitNoDispatchOverride = 0x00000002,
    WdfVerifyOn = 0x00000004,
    WdfVerifierOn = 0x00000008,
} WDF_DRIVER_INIT_FLAGS;

typedef struct _WDF_DRIVER_CONFIG {
    ULONG Size;
    PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd;
    PFN_WDF_DRIVER_UNLOAD EvtDriverUnload;
    ULONG DriverInitFlags;
    ULONG DriverPoolTag;
} WDF_DRIVER_CONFIG, *PWDF_DRIVER_CONFIG;

FORCEINLINE VOID WDF_DRIVER_CONFIG_INIT(PWDF_DRIVER_CONFIG Config,
                                        PFN_WDF_DRIVER_DEVICE_ADD EvtDriverDeviceAdd)
{
    RtlZeroMemory(Config, sizeof(WDF_DRIVER_CONFIG));
    Config->Size = sizeof(WDF_DRIVER_CONFIG);
    Config->EvtDriverDeviceAdd = EvtDriverDeviceAdd;
}

EXTERN_C_START
NTSTATUS WdfDriverCreate(PDRIVER_OBJECT DriverObject, PCUNICODE_STRING RegistryPath,
                         PWDF_OBJECT_ATTRIBUTES DriverAttributes, PWDF_DRIVER_CONFIG DriverConfig,
                         WDFDRIVER* Driver);
WDFDRIVER WdfGetDriver(VOID);
NTSTATUS WdfDriverOpenParametersRegistryKey(WDFDRIVER Driver, ACCESS_MASK DesiredAccess,
                                            PWDF_OBJECT_ATTRIBUTES KeyAttributes, WDFKEY* Key);
NTSTATUS WdfRegistryQueryULong(WDFKEY Key, PCUNICODE_STRING ValueName, PULONG Value);
VOID WdfRegistryClose(WDFKEY Key);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Resource lists
// ---------------------------------------------------------------------------------------
EXTERN_C_START
ULONG WdfCmResourceListGetCount(WDFCMRESLIST List);
PCM_PARTIAL_RESOURCE_DESCRIPTOR WdfCmResourceListGetDescriptor(WDFCMRESLIST List, ULONG Index);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Device init, devices, PnP and power callbacks
// ---------------------------------------------------------------------------------------
typedef enum _WDF_POWER_DEVICE_STATE {
    WdfPowerDeviceInvalid = 0,
    WdfPowerDeviceD0,
    WdfPowerDeviceD1,
    WdfPowerDeviceD2,
    WdfPowerDeviceD3,
    WdfPowerDeviceD3Final,
    WdfPowerDevicePrepareForHibernation,
    WdfPowerDeviceMaximum,
} WDF_POWER_DEVICE_STATE,
    *PWDF_POWER_DEVICE_STATE;

typedef enum _WDF_SPECIAL_FILE_TYPE {
    WdfSpecialFileUndefined = 0,
    WdfSpecialFilePaging = 1,
    WdfSpecialFileHibernation,
    WdfSpecialFileDump,
    WdfSpecialFileBoot,
    WdfSpecialFileMax,
} WDF_SPECIAL_FILE_TYPE;

typedef enum _DEVICE_RELATION_TYPE {
    BusRelations,
    EjectionRelations,
    PowerRelations,
    RemovalRelations,
    TargetDeviceRelation,
    SingleBusRelations,
    TransportRelations,
} DEVICE_RELATION_TYPE;

typedef NTSTATUS EVT_WDF_DEVICE_D0_ENTRY(WDFDEVICE Device, WDF_POWER_DEVICE_STATE PreviousState);
typedef EVT_WDF_DEVICE_D0_ENTRY* PFN_WDF_DEVICE_D0_ENTRY;
typedef NTSTATUS
EVT_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED(WDFDEVICE Device,
                                                WDF_POWER_DEVICE_STATE PreviousState);
typedef EVT_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED*
    PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED;
typedef NTSTATUS EVT_WDF_DEVICE_D0_EXIT(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState);
typedef EVT_WDF_DEVICE_D0_EXIT* PFN_WDF_DEVICE_D0_EXIT;
typedef NTSTATUS EVT_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED(WDFDEVICE Device,
                                                                WDF_POWER_DEVICE_STATE TargetState);
typedef EVT_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED*
    PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED;
typedef NTSTATUS EVT_WDF_DEVICE_PREPARE_HARDWARE(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                                                 WDFCMRESLIST ResourcesTranslated);
typedef EVT_WDF_DEVICE_PREPARE_HARDWARE* PFN_WDF_DEVICE_PREPARE_HARDWARE;
typedef NTSTATUS EVT_WDF_DEVICE_RELEASE_HARDWARE(WDFDEVICE Device,
                                                 WDFCMRESLIST ResourcesTranslated);
typedef EVT_WDF_DEVICE_RELEASE_HARDWARE* PFN_WDF_DEVICE_RELEASE_HARDWARE;
typedef VOID EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP* PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP;
typedef VOID EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH* PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH;
typedef NTSTATUS EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT* PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT;
typedef NTSTATUS EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND* PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND;
typedef NTSTATUS EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART* PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART;
typedef VOID EVT_WDF_DEVICE_SURPRISE_REMOVAL(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_SURPRISE_REMOVAL* PFN_WDF_DEVICE_SURPRISE_REMOVAL;
typedef NTSTATUS EVT_WDF_DEVICE_QUERY_REMOVE(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_QUERY_REMOVE* PFN_WDF_DEVICE_QUERY_REMOVE;
typedef NTSTATUS EVT_WDF_DEVICE_QUERY_STOP(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_QUERY_STOP* PFN_WDF_DEVICE_QUERY_STOP;
typedef VOID EVT_WDF_DEVICE_USAGE_NOTIFICATION(WDFDEVICE Device,
                                               WDF_SPECIAL_FILE_TYPE NotificationType,
                                               BOOLEAN IsInNotificationPath);
typedef EVT_WDF_DEVICE_USAGE_NOTIFICATION* PFN_WDF_DEVICE_USAGE_NOTIFICATION;
typedef VOID EVT_WDF_DEVICE_RELATIONS_QUERY(WDFDEVICE Device, DEVICE_RELATION_TYPE RelationType);
typedef EVT_WDF_DEVICE_RELATIONS_QUERY* PFN_WDF_DEVICE_RELATIONS_QUERY;
typedef NTSTATUS EVT_WDF_DEVICE_USAGE_NOTIFICATION_EX(WDFDEVICE Device,
                                                      WDF_SPECIAL_FILE_TYPE NotificationType,
                                                      BOOLEAN IsInNotificationPath);
typedef EVT_WDF_DEVICE_USAGE_NOTIFICATION_EX* PFN_WDF_DEVICE_USAGE_NOTIFICATION_EX;

typedef struct _WDF_PNPPOWER_EVENT_CALLBACKS {
    ULONG Size;
    PFN_WDF_DEVICE_D0_ENTRY EvtDeviceD0Entry;
    PFN_WDF_DEVICE_D0_ENTRY_POST_INTERRUPTS_ENABLED EvtDeviceD0EntryPostInterruptsEnabled;
    PFN_WDF_DEVICE_D0_EXIT EvtDeviceD0Exit;
    PFN_WDF_DEVICE_D0_EXIT_PRE_INTERRUPTS_DISABLED EvtDeviceD0ExitPreInterruptsDisabled;
    PFN_WDF_DEVICE_PREPARE_HARDWARE EvtDevicePrepareHardware;
    PFN_WDF_DEVICE_RELEASE_HARDWARE EvtDeviceReleaseHardware;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP EvtDeviceSelfManagedIoCleanup;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_FLUSH EvtDeviceSelfManagedIoFlush;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_INIT EvtDeviceSelfManagedIoInit;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND EvtDeviceSelfManagedIoSuspend;
    PFN_WDF_DEVICE_SELF_MANAGED_IO_RESTART EvtDeviceSelfManagedIoRestart;
    PFN_WDF_DEVICE_SURPRISE_REMOVAL EvtDeviceSurpriseRemoval;
    PFN_WDF_DEVICE_QUERY_REMOVE EvtDeviceQueryRemove;
    PFN_WDF_DEVICE_QUERY_STOP EvtDeviceQueryStop;
    PFN_WDF_DEVICE_USAGE_NOTIFICATION EvtDeviceUsageNotification;
    PFN_WDF_DEVICE_RELATIONS_QUERY EvtDeviceRelationsQuery;
    PFN_WDF_DEVICE_USAGE_NOTIFICATION_EX EvtDeviceUsageNotificationEx;
} WDF_PNPPOWER_EVENT_CALLBACKS, *PWDF_PNPPOWER_EVENT_CALLBACKS;

FORCEINLINE VOID WDF_PNPPOWER_EVENT_CALLBACKS_INIT(PWDF_PNPPOWER_EVENT_CALLBACKS Callbacks)
{
    RtlZeroMemory(Callbacks, sizeof(WDF_PNPPOWER_EVENT_CALLBACKS));
    Callbacks->Size = sizeof(WDF_PNPPOWER_EVENT_CALLBACKS);
}

typedef enum _WDF_POWER_POLICY_SX_WAKE_USER_CONTROL {
    WakeUserControlInvalid = 0,
    WakeDoNotAllowUserControl,
    WakeAllowUserControl,
} WDF_POWER_POLICY_SX_WAKE_USER_CONTROL;

typedef NTSTATUS EVT_WDF_DEVICE_ARM_WAKE_FROM_S0(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_ARM_WAKE_FROM_S0* PFN_WDF_DEVICE_ARM_WAKE_FROM_S0;
typedef VOID EVT_WDF_DEVICE_DISARM_WAKE_FROM_S0(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_DISARM_WAKE_FROM_S0* PFN_WDF_DEVICE_DISARM_WAKE_FROM_S0;
typedef VOID EVT_WDF_DEVICE_WAKE_FROM_S0_TRIGGERED(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_WAKE_FROM_S0_TRIGGERED* PFN_WDF_DEVICE_WAKE_FROM_S0_TRIGGERED;
typedef NTSTATUS EVT_WDF_DEVICE_ARM_WAKE_FROM_SX(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_ARM_WAKE_FROM_SX* PFN_WDF_DEVICE_ARM_WAKE_FROM_SX;
typedef VOID EVT_WDF_DEVICE_DISARM_WAKE_FROM_SX(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_DISARM_WAKE_FROM_SX* PFN_WDF_DEVICE_DISARM_WAKE_FROM_SX;
typedef VOID EVT_WDF_DEVICE_WAKE_FROM_SX_TRIGGERED(WDFDEVICE Device);
typedef EVT_WDF_DEVICE_WAKE_FROM_SX_TRIGGERED* PFN_WDF_DEVICE_WAKE_FROM_SX_TRIGGERED;
typedef NTSTATUS EVT_WDF_DEVICE_ARM_WAKE_FROM_SX_WITH_REASON(WDFDEVICE Device,
                                                             BOOLEAN DeviceWakeEnabled,
                                                             BOOLEAN ChildrenArmedForWake);
typedef EVT_WDF_DEVICE_ARM_WAKE_FROM_SX_WITH_REASON* PFN_WDF_DEVICE_ARM_WAKE_FROM_SX_WITH_REASON;

typedef struct _WDF_POWER_POLICY_EVENT_CALLBACKS {
    ULONG Size;
    PFN_WDF_DEVICE_ARM_WAKE_FROM_S0 EvtDeviceArmWakeFromS0;
    PFN_WDF_DEVICE_DISARM_WAKE_FROM_S0 EvtDeviceDisarmWakeFromS0;
    PFN_WDF_DEVICE_WAKE_FROM_S0_TRIGGERED EvtDeviceWakeFromS0Triggered;
    PFN_WDF_DEVICE_ARM_WAKE_FROM_SX EvtDeviceArmWakeFromSx;
    PFN_WDF_DEVICE_DISARM_WAKE_FROM_SX EvtDeviceDisarmWakeFromSx;
    PFN_WDF_DEVICE_WAKE_FROM_SX_TRIGGERED EvtDeviceWakeFromSxTriggered;
    PFN_WDF_DEVICE_ARM_WAKE_FROM_SX_WITH_REASON EvtDeviceArmWakeFromSxWithReason;
} WDF_POWER_POLICY_EVENT_CALLBACKS, *PWDF_POWER_POLICY_EVENT_CALLBACKS;

FORCEINLINE VOID WDF_POWER_POLICY_EVENT_CALLBACKS_INIT(PWDF_POWER_POLICY_EVENT_CALLBACKS Callbacks)
{
    RtlZeroMemory(Callbacks, sizeof(WDF_POWER_POLICY_EVENT_CALLBACKS));
    Callbacks->Size = sizeof(WDF_POWER_POLICY_EVENT_CALLBACKS);
}

typedef struct _WDF_DEVICE_STATE {
    ULONG Size;
    WDF_TRI_STATE Disabled;
    WDF_TRI_STATE DontDisplayInUI;
    WDF_TRI_STATE Failed;
    WDF_TRI_STATE NotDisableable;
    WDF_TRI_STATE Removed;
    WDF_TRI_STATE ResourcesChanged;
} WDF_DEVICE_STATE, *PWDF_DEVICE_STATE;

FORCEINLINE VOID WDF_DEVICE_STATE_INIT(PWDF_DEVICE_STATE PnpDeviceState)
{
    RtlZeroMemory(PnpDeviceState, sizeof(WDF_DEVICE_STATE));
    PnpDeviceState->Size = sizeof(WDF_DEVICE_STATE);
    PnpDeviceState->Disabled = WdfUseDefault;
    PnpDeviceState->DontDisplayInUI = WdfUseDefault;
    PnpDeviceState->Failed = WdfUseDefault;
    PnpDeviceState->NotDisableable = WdfUseDefault;
    PnpDeviceState->Removed = WdfUseDefault;
    PnpDeviceState->ResourcesChanged = WdfUseDefault;
}

typedef struct _PNP_BUS_INFORMATION {
    GUID BusTypeGuid;
    INTERFACE_TYPE LegacyBusType;
    ULONG BusNumber;
} PNP_BUS_INFORMATION, *PPNP_BUS_INFORMATION;

typedef enum _WDF_POWER_POLICY_S0_IDLE_CAPABILITIES {
    IdleCapsInvalid = 0,
    IdleCannotWakeFromS0,
    IdleCanWakeFromS0,
    IdleUsbSelectiveSuspend,
} WDF_POWER_POLICY_S0_IDLE_CAPABILITIES;

typedef enum _WDF_POWER_POLICY_S0_IDLE_USER_CONTROL {
    IdleUserControlInvalid = 0,
    IdleDoNotAllowUserControl,
    IdleAllowUserControl,
} WDF_POWER_POLICY_S0_IDLE_USER_CONTROL;

typedef enum _WDF_POWER_POLICY_IDLE_TIMEOUT_CONSTANTS {
    IdleTimeoutDefaultConstant = 0,
} WDF_POWER_POLICY_IDLE_TIMEOUT_CONSTANTS;

typedef enum _WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE {
    DriverManagedIdleTimeout = 0,
    SystemManagedIdleTimeout = 1,
    SystemManagedIdleTimeoutWithHint = 2,
} WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE;

#define IdleTimeoutDefaultValue ((ULONG)IdleTimeoutDefaultConstant)

typedef struct _WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS {
    ULONG Size;
    WDF_POWER_POLICY_S0_IDLE_CAPABILITIES IdleCaps;
    DEVICE_POWER_STATE DxState;
    ULONG IdleTimeout;
    WDF_POWER_POLICY_S0_IDLE_USER_CONTROL UserControlOfIdleSettings;
    WDF_TRI_STATE Enabled;
    WDF_TRI_STATE PowerUpIdleDeviceOnSystemWake;
    WDF_POWER_POLICY_IDLE_TIMEOUT_TYPE IdleTimeoutType;
    WDF_TRI_STATE ExcludeD3Cold;
} WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS, *PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS;

FORCEINLINE VOID WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(
    PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings, WDF_POWER_POLICY_S0_IDLE_CAPABILITIES IdleCaps)
{
    RtlZeroMemory(Settings, sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS));
    Settings->Size = sizeof(WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS);
    Settings->IdleTimeout = IdleTimeoutDefaultValue;
    Settings->UserControlOfIdleSettings = IdleAllowUserControl;
    Settings->Enabled = WdfUseDefault;
    Settings->PowerUpIdleDeviceOnSystemWake = WdfUseDefault;
    Settings->IdleTimeoutType = DriverManagedIdleTimeout;
    Settings->ExcludeD3Cold = WdfUseDefault;
    Settings->IdleCaps = IdleCaps;
    switch (IdleCaps) {
    case IdleUsbSelectiveSuspend:
    case IdleCanWakeFromS0:
        Settings->DxState = PowerDeviceMaximum;
        break;
    case IdleCannotWakeFromS0:
        Settings->DxState = PowerDeviceD3;
        break;
    default:
        break;
    }
}

typedef struct _WDF_DEVICE_PNP_CAPABILITIES {
    ULONG Size;
    WDF_TRI_STATE LockSupported;
    WDF_TRI_STATE EjectSupported;
    WDF_TRI_STATE Removable;
    WDF_TRI_STATE DockDevice;
    WDF_TRI_STATE UniqueID;
    WDF_TRI_STATE SilentInstall;
    WDF_TRI_STATE SurpriseRemovalOK;
    WDF_TRI_STATE HardwareDisabled;
    WDF_TRI_STATE NoDisplayInUI;
    ULONG Address;
    ULONG UINumber;
} WDF_DEVICE_PNP_CAPABILITIES, *PWDF_DEVICE_PNP_CAPABILITIES;

FORCEINLINE VOID WDF_DEVICE_PNP_CAPABILITIES_INIT(PWDF_DEVICE_PNP_CAPABILITIES Caps)
{
    RtlZeroMemory(Caps, sizeof(WDF_DEVICE_PNP_CAPABILITIES));
    Caps->Size = sizeof(WDF_DEVICE_PNP_CAPABILITIES);
    Caps->LockSupported = WdfUseDefault;
    Caps->EjectSupported = WdfUseDefault;
    Caps->Removable = WdfUseDefault;
    Caps->DockDevice = WdfUseDefault;
    Caps->UniqueID = WdfUseDefault;
    Caps->SilentInstall = WdfUseDefault;
    Caps->SurpriseRemovalOK = WdfUseDefault;
    Caps->HardwareDisabled = WdfUseDefault;
    Caps->NoDisplayInUI = WdfUseDefault;
    Caps->Address = (ULONG)-1;
    Caps->UINumber = (ULONG)-1;
}

typedef struct _WDF_DEVICE_POWER_CAPABILITIES {
    ULONG Size;
    WDF_TRI_STATE DeviceD1;
    WDF_TRI_STATE DeviceD2;
    WDF_TRI_STATE WakeFromD0;
    WDF_TRI_STATE WakeFromD1;
    WDF_TRI_STATE WakeFromD2;
    WDF_TRI_STATE WakeFromD3;
    DEVICE_POWER_STATE DeviceState[PowerSystemMaximum];
    DEVICE_POWER_STATE DeviceWake;
    SYSTEM_POWER_STATE SystemWake;
    ULONG D1Latency;
    ULONG D2Latency;
    ULONG D3Latency;
    DEVICE_POWER_STATE IdealDxStateForSx;
} WDF_DEVICE_POWER_CAPABILITIES, *PWDF_DEVICE_POWER_CAPABILITIES;

FORCEINLINE VOID WDF_DEVICE_POWER_CAPABILITIES_INIT(PWDF_DEVICE_POWER_CAPABILITIES Caps)
{
    RtlZeroMemory(Caps, sizeof(WDF_DEVICE_POWER_CAPABILITIES));
    Caps->Size = sizeof(WDF_DEVICE_POWER_CAPABILITIES);
    Caps->DeviceD1 = WdfUseDefault;
    Caps->DeviceD2 = WdfUseDefault;
    Caps->WakeFromD0 = WdfUseDefault;
    Caps->WakeFromD1 = WdfUseDefault;
    Caps->WakeFromD2 = WdfUseDefault;
    Caps->WakeFromD3 = WdfUseDefault;
    for (ULONG i = 0; i < sizeof(Caps->DeviceState) / sizeof(Caps->DeviceState[0]); i++) {
        Caps->DeviceState[i] = PowerDeviceMaximum;
    }
    Caps->DeviceWake = PowerDeviceMaximum;
    Caps->SystemWake = PowerSystemMaximum;
    Caps->D1Latency = (ULONG)-1;
    Caps->D2Latency = (ULONG)-1;
    Caps->D3Latency = (ULONG)-1;
    Caps->IdealDxStateForSx = PowerDeviceMaximum;
}

EXTERN_C_START
VOID WdfDeviceInitSetPnpPowerEventCallbacks(PWDFDEVICE_INIT DeviceInit,
                                            PWDF_PNPPOWER_EVENT_CALLBACKS PnpPowerEventCallbacks);
VOID WdfDeviceInitSetPowerPolicyEventCallbacks(
    PWDFDEVICE_INIT DeviceInit, PWDF_POWER_POLICY_EVENT_CALLBACKS PowerPolicyEventCallbacks);
VOID WdfDeviceInitSetDeviceType(PWDFDEVICE_INIT DeviceInit, DEVICE_TYPE DeviceType);
NTSTATUS WdfDeviceCreate(PWDFDEVICE_INIT* DeviceInit, PWDF_OBJECT_ATTRIBUTES DeviceAttributes,
                         WDFDEVICE* Device);
VOID WdfDeviceSetDeviceState(WDFDEVICE Device, PWDF_DEVICE_STATE DeviceState);
NTSTATUS WdfDeviceCreateDeviceInterface(WDFDEVICE Device, const GUID* InterfaceClassGUID,
                                        PCUNICODE_STRING ReferenceString);
VOID WdfDeviceSetBusInformationForChildren(WDFDEVICE Device, PPNP_BUS_INFORMATION BusInformation);
NTSTATUS WdfDeviceAssignS0IdleSettings(WDFDEVICE Device,
                                       PWDF_DEVICE_POWER_POLICY_IDLE_SETTINGS Settings);
VOID WdfDeviceSetPnpCapabilities(WDFDEVICE Device, PWDF_DEVICE_PNP_CAPABILITIES PnpCapabilities);
VOID WdfDeviceSetPowerCapabilities(WDFDEVICE Device,
                                   PWDF_DEVICE_POWER_CAPABILITIES PowerCapabilities);
WDFQUEUE WdfDeviceGetDefaultQueue(WDFDEVICE Device);
WDFDRIVER WdfDeviceGetDriver(WDFDEVICE Device);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Child list and physical device objects
// ---------------------------------------------------------------------------------------
typedef struct _WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER {
    ULONG IdentificationDescriptionSize;
} WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER, *PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER;

typedef struct _WDF_CHILD_ADDRESS_DESCRIPTION_HEADER {
    ULONG AddressDescriptionSize;
} WDF_CHILD_ADDRESS_DESCRIPTION_HEADER, *PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER;

FORCEINLINE VOID WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER_INIT(
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER Header, ULONG IdentificationDescriptionSize)
{
    RtlZeroMemory(Header, IdentificationDescriptionSize);
    Header->IdentificationDescriptionSize = IdentificationDescriptionSize;
}

typedef NTSTATUS EVT_WDF_CHILD_LIST_CREATE_DEVICE(
    WDFCHILDLIST ChildList, PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER IdentificationDescription,
    PWDFDEVICE_INIT ChildInit);
typedef EVT_WDF_CHILD_LIST_CREATE_DEVICE* PFN_WDF_CHILD_LIST_CREATE_DEVICE;
typedef VOID EVT_WDF_CHILD_LIST_SCAN_FOR_CHILDREN(WDFCHILDLIST ChildList);
typedef EVT_WDF_CHILD_LIST_SCAN_FOR_CHILDREN* PFN_WDF_CHILD_LIST_SCAN_FOR_CHILDREN;
typedef NTSTATUS EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COPY(
    WDFCHILDLIST ChildList,
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER SourceIdentificationDescription,
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER DestinationIdentificationDescription);
typedef EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COPY*
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COPY;
typedef NTSTATUS EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_DUPLICATE(
    WDFCHILDLIST ChildList,
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER SourceIdentificationDescription,
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER DestinationIdentificationDescription);
typedef EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_DUPLICATE*
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_DUPLICATE;
typedef VOID EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_CLEANUP(
    WDFCHILDLIST ChildList, PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER IdentificationDescription);
typedef EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_CLEANUP*
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_CLEANUP;
typedef BOOLEAN EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COMPARE(
    WDFCHILDLIST ChildList,
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER FirstIdentificationDescription,
    PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER SecondIdentificationDescription);
typedef EVT_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COMPARE*
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COMPARE;
typedef VOID EVT_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_COPY(
    WDFCHILDLIST ChildList, PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER SourceAddressDescription,
    PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER DestinationAddressDescription);
typedef EVT_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_COPY* PFN_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_COPY;
typedef NTSTATUS EVT_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_DUPLICATE(
    WDFCHILDLIST ChildList, PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER SourceAddressDescription,
    PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER DestinationAddressDescription);
typedef EVT_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_DUPLICATE*
    PFN_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_DUPLICATE;
typedef VOID EVT_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_CLEANUP(
    WDFCHILDLIST ChildList, PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER AddressDescription);
typedef EVT_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_CLEANUP*
    PFN_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_CLEANUP;
typedef BOOLEAN
EVT_WDF_CHILD_LIST_DEVICE_REENUMERATED(WDFCHILDLIST ChildList, WDFDEVICE OldDevice,
                                       PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER OldAddressDescription,
                                       PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER NewAddressDescription);
typedef EVT_WDF_CHILD_LIST_DEVICE_REENUMERATED* PFN_WDF_CHILD_LIST_DEVICE_REENUMERATED;

typedef struct _WDF_CHILD_LIST_CONFIG {
    ULONG Size;
    ULONG IdentificationDescriptionSize;
    ULONG AddressDescriptionSize;
    PFN_WDF_CHILD_LIST_CREATE_DEVICE EvtChildListCreateDevice;
    PFN_WDF_CHILD_LIST_SCAN_FOR_CHILDREN EvtChildListScanForChildren;
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COPY EvtChildListIdentificationDescriptionCopy;
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_DUPLICATE
    EvtChildListIdentificationDescriptionDuplicate;
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_CLEANUP
    EvtChildListIdentificationDescriptionCleanup;
    PFN_WDF_CHILD_LIST_IDENTIFICATION_DESCRIPTION_COMPARE
    EvtChildListIdentificationDescriptionCompare;
    PFN_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_COPY EvtChildListAddressDescriptionCopy;
    PFN_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_DUPLICATE EvtChildListAddressDescriptionDuplicate;
    PFN_WDF_CHILD_LIST_ADDRESS_DESCRIPTION_CLEANUP EvtChildListAddressDescriptionCleanup;
    PFN_WDF_CHILD_LIST_DEVICE_REENUMERATED EvtChildListDeviceReenumerated;
} WDF_CHILD_LIST_CONFIG, *PWDF_CHILD_LIST_CONFIG;

FORCEINLINE VOID
WDF_CHILD_LIST_CONFIG_INIT(PWDF_CHILD_LIST_CONFIG Config, ULONG IdentificationDescriptionSize,
                           PFN_WDF_CHILD_LIST_CREATE_DEVICE EvtChildListCreateDevice)
{
    RtlZeroMemory(Config, sizeof(WDF_CHILD_LIST_CONFIG));
    Config->Size = sizeof(WDF_CHILD_LIST_CONFIG);
    Config->IdentificationDescriptionSize = IdentificationDescriptionSize;
    Config->EvtChildListCreateDevice = EvtChildListCreateDevice;
}

EXTERN_C_START
VOID WdfFdoInitSetDefaultChildListConfig(PWDFDEVICE_INIT DeviceInit, PWDF_CHILD_LIST_CONFIG Config,
                                         PWDF_OBJECT_ATTRIBUTES DefaultChildListAttributes);
WDFCHILDLIST WdfFdoGetDefaultChildList(WDFDEVICE Fdo);
NTSTATUS WdfChildListAddOrUpdateChildDescriptionAsPresent(
    WDFCHILDLIST ChildList, PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER IdentificationDescription,
    PWDF_CHILD_ADDRESS_DESCRIPTION_HEADER AddressDescription);
WDFDEVICE WdfChildListGetDevice(WDFCHILDLIST ChildList);

NTSTATUS WdfPdoInitAssignDeviceID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING DeviceID);
NTSTATUS WdfPdoInitAddHardwareID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING HardwareID);
NTSTATUS WdfPdoInitAddCompatibleID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING CompatibleID);
NTSTATUS WdfPdoInitAssignInstanceID(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING InstanceID);
NTSTATUS WdfPdoInitAddDeviceText(PWDFDEVICE_INIT DeviceInit, PCUNICODE_STRING DeviceDescription,
                                 PCUNICODE_STRING DeviceLocation, LCID LocaleId);
VOID WdfPdoInitSetDefaultLocale(PWDFDEVICE_INIT DeviceInit, LCID LocaleId);
VOID WdfPdoInitAllowForwardingRequestToParent(PWDFDEVICE_INIT DeviceInit);
WDFDEVICE WdfPdoGetParent(WDFDEVICE Device);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Memory objects and descriptors
// ---------------------------------------------------------------------------------------
typedef struct _WDFMEMORY_OFFSET {
    size_t BufferOffset;
    size_t BufferLength;
} WDFMEMORY_OFFSET, *PWDFMEMORY_OFFSET;

typedef enum _WDF_MEMORY_DESCRIPTOR_TYPE {
    WdfMemoryDescriptorTypeInvalid = 0,
    WdfMemoryDescriptorTypeBuffer,
    WdfMemoryDescriptorTypeMdl,
    WdfMemoryDescriptorTypeHandle,
} WDF_MEMORY_DESCRIPTOR_TYPE;

typedef struct _WDF_MEMORY_DESCRIPTOR {
    WDF_MEMORY_DESCRIPTOR_TYPE Type;
    union {
        struct {
            PVOID Buffer;
            ULONG Length;
        } BufferType;
        struct {
            PMDL Mdl;
            ULONG BufferLength;
        } MdlType;
        struct {
            WDFMEMORY Memory;
            PWDFMEMORY_OFFSET Offsets;
        } HandleType;
    } u;
} WDF_MEMORY_DESCRIPTOR, *PWDF_MEMORY_DESCRIPTOR;

FORCEINLINE VOID WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(PWDF_MEMORY_DESCRIPTOR Descriptor, PVOID Buffer,
                                                   ULONG BufferLength)
{
    RtlZeroMemory(Descriptor, sizeof(WDF_MEMORY_DESCRIPTOR));
    Descriptor->Type = WdfMemoryDescriptorTypeBuffer;
    Descriptor->u.BufferType.Buffer = Buffer;
    Descriptor->u.BufferType.Length = BufferLength;
}

FORCEINLINE VOID WDF_MEMORY_DESCRIPTOR_INIT_HANDLE(PWDF_MEMORY_DESCRIPTOR Descriptor,
                                                   WDFMEMORY Memory, PWDFMEMORY_OFFSET Offsets)
{
    RtlZeroMemory(Descriptor, sizeof(WDF_MEMORY_DESCRIPTOR));
    Descriptor->Type = WdfMemoryDescriptorTypeHandle;
    Descriptor->u.HandleType.Memory = Memory;
    Descriptor->u.HandleType.Offsets = Offsets;
}

EXTERN_C_START
NTSTATUS WdfMemoryCreate(PWDF_OBJECT_ATTRIBUTES Attributes, POOL_TYPE PoolType, ULONG PoolTag,
                         size_t BufferSize, WDFMEMORY* Memory, PVOID* Buffer);
NTSTATUS WdfMemoryCreatePreallocated(PWDF_OBJECT_ATTRIBUTES Attributes, PVOID Buffer,
                                     size_t BufferSize, WDFMEMORY* Memory);
PVOID WdfMemoryGetBuffer(WDFMEMORY Memory, size_t* BufferSize);
NTSTATUS WdfMemoryCopyToBuffer(WDFMEMORY SourceMemory, size_t SourceOffset, PVOID Buffer,
                               size_t NumBytesToCopyTo);
NTSTATUS WdfMemoryCopyFromBuffer(WDFMEMORY DestinationMemory, size_t DestinationOffset,
                                 PVOID Buffer, size_t NumBytesToCopyFrom);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Queues
// ---------------------------------------------------------------------------------------
typedef enum _WDF_IO_QUEUE_DISPATCH_TYPE {
    WdfIoQueueDispatchInvalid = 0,
    WdfIoQueueDispatchSequential,
    WdfIoQueueDispatchParallel,
    WdfIoQueueDispatchManual,
    WdfIoQueueDispatchMax,
} WDF_IO_QUEUE_DISPATCH_TYPE;

typedef enum _WDF_REQUEST_STOP_ACTION_FLAGS {
    WdfRequestStopActionInvalid = 0,
    WdfRequestStopActionSuspend = 0x01,
    WdfRequestStopActionPurge = 0x2,
    WdfRequestStopRequestCancelable = 0x10000000,
} WDF_REQUEST_STOP_ACTION_FLAGS;

typedef VOID EVT_WDF_IO_QUEUE_IO_DEFAULT(WDFQUEUE Queue, WDFREQUEST Request);
typedef EVT_WDF_IO_QUEUE_IO_DEFAULT* PFN_WDF_IO_QUEUE_IO_DEFAULT;
typedef VOID EVT_WDF_IO_QUEUE_IO_READ(WDFQUEUE Queue, WDFREQUEST Request, size_t Length);
typedef EVT_WDF_IO_QUEUE_IO_READ* PFN_WDF_IO_QUEUE_IO_READ;
typedef VOID EVT_WDF_IO_QUEUE_IO_WRITE(WDFQUEUE Queue, WDFREQUEST Request, size_t Length);
typedef EVT_WDF_IO_QUEUE_IO_WRITE* PFN_WDF_IO_QUEUE_IO_WRITE;
typedef VOID EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL(WDFQUEUE Queue, WDFREQUEST Request,
                                                size_t OutputBufferLength, size_t InputBufferLength,
                                                ULONG IoControlCode);
typedef EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL* PFN_WDF_IO_QUEUE_IO_DEVICE_CONTROL;
typedef VOID EVT_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL(WDFQUEUE Queue, WDFREQUEST Request,
                                                         size_t OutputBufferLength,
                                                         size_t InputBufferLength,
                                                         ULONG IoControlCode);
typedef EVT_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL* PFN_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL;
typedef VOID EVT_WDF_IO_QUEUE_IO_STOP(WDFQUEUE Queue, WDFREQUEST Request, ULONG ActionFlags);
typedef EVT_WDF_IO_QUEUE_IO_STOP* PFN_WDF_IO_QUEUE_IO_STOP;
typedef VOID EVT_WDF_IO_QUEUE_IO_RESUME(WDFQUEUE Queue, WDFREQUEST Request);
typedef EVT_WDF_IO_QUEUE_IO_RESUME* PFN_WDF_IO_QUEUE_IO_RESUME;
typedef VOID EVT_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE(WDFQUEUE Queue, WDFREQUEST Request);
typedef EVT_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE* PFN_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE;

typedef struct _WDF_IO_QUEUE_CONFIG {
    ULONG Size;
    WDF_IO_QUEUE_DISPATCH_TYPE DispatchType;
    WDF_TRI_STATE PowerManaged;
    BOOLEAN AllowZeroLengthRequests;
    BOOLEAN DefaultQueue;
    PFN_WDF_IO_QUEUE_IO_DEFAULT EvtIoDefault;
    PFN_WDF_IO_QUEUE_IO_READ EvtIoRead;
    PFN_WDF_IO_QUEUE_IO_WRITE EvtIoWrite;
    PFN_WDF_IO_QUEUE_IO_DEVICE_CONTROL EvtIoDeviceControl;
    PFN_WDF_IO_QUEUE_IO_INTERNAL_DEVICE_CONTROL EvtIoInternalDeviceControl;
    PFN_WDF_IO_QUEUE_IO_STOP EvtIoStop;
    PFN_WDF_IO_QUEUE_IO_RESUME EvtIoResume;
    PFN_WDF_IO_QUEUE_IO_CANCELED_ON_QUEUE EvtIoCanceledOnQueue;
    union {
        struct {
            ULONG NumberOfPresentedRequests;
        } Parallel;
    } Settings;
    WDFDRIVER Driver;
} WDF_IO_QUEUE_CONFIG, *PWDF_IO_QUEUE_CONFIG;

FORCEINLINE VOID WDF_IO_QUEUE_CONFIG_INIT(PWDF_IO_QUEUE_CONFIG Config,
                                          WDF_IO_QUEUE_DISPATCH_TYPE DispatchType)
{
    RtlZeroMemory(Config, sizeof(WDF_IO_QUEUE_CONFIG));
    Config->Size = sizeof(WDF_IO_QUEUE_CONFIG);
    Config->PowerManaged = WdfUseDefault;
    Config->DispatchType = DispatchType;
    if (Config->DispatchType == WdfIoQueueDispatchParallel) {
        Config->Settings.Parallel.NumberOfPresentedRequests = (ULONG)-1;
    }
}

FORCEINLINE VOID WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(PWDF_IO_QUEUE_CONFIG Config,
                                                        WDF_IO_QUEUE_DISPATCH_TYPE DispatchType)
{
    WDF_IO_QUEUE_CONFIG_INIT(Config, DispatchType);
    Config->DefaultQueue = TRUE;
}

EXTERN_C_START
NTSTATUS WdfIoQueueCreate(WDFDEVICE Device, PWDF_IO_QUEUE_CONFIG Config,
                          PWDF_OBJECT_ATTRIBUTES QueueAttributes, WDFQUEUE* Queue);
WDFDEVICE WdfIoQueueGetDevice(WDFQUEUE Queue);
NTSTATUS WdfIoQueueRetrieveNextRequest(WDFQUEUE Queue, WDFREQUEST* OutRequest);
VOID WdfIoQueuePurgeSynchronously(WDFQUEUE Queue);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Requests
// ---------------------------------------------------------------------------------------
typedef enum _WDF_REQUEST_REUSE_FLAGS {
    WDF_REQUEST_REUSE_NO_FLAGS = 0x00000000,
    WDF_REQUEST_REUSE_SET_NEW_IRP = 0x00000001,
} WDF_REQUEST_REUSE_FLAGS;

typedef struct _WDF_REQUEST_REUSE_PARAMS {
    ULONG Size;
    ULONG Flags;
    NTSTATUS Status;
    PIRP NewIrp;
} WDF_REQUEST_REUSE_PARAMS, *PWDF_REQUEST_REUSE_PARAMS;

FORCEINLINE VOID WDF_REQUEST_REUSE_PARAMS_INIT(PWDF_REQUEST_REUSE_PARAMS Params, ULONG Flags,
                                               NTSTATUS Status)
{
    RtlZeroMemory(Params, sizeof(WDF_REQUEST_REUSE_PARAMS));
    Params->Size = sizeof(WDF_REQUEST_REUSE_PARAMS);
    Params->Flags = Flags;
    Params->Status = Status;
}

typedef enum _WDF_REQUEST_FORWARD_OPTIONS_FLAGS {
    WDF_REQUEST_FORWARD_OPTION_SEND_AND_FORGET = 0x00000001,
} WDF_REQUEST_FORWARD_OPTIONS_FLAGS;

typedef struct _WDF_REQUEST_FORWARD_OPTIONS {
    ULONG Size;
    ULONG Flags;
} WDF_REQUEST_FORWARD_OPTIONS, *PWDF_REQUEST_FORWARD_OPTIONS;

FORCEINLINE VOID WDF_REQUEST_FORWARD_OPTIONS_INIT(PWDF_REQUEST_FORWARD_OPTIONS ForwardOptions)
{
    RtlZeroMemory(ForwardOptions, sizeof(WDF_REQUEST_FORWARD_OPTIONS));
    ForwardOptions->Size = sizeof(WDF_REQUEST_FORWARD_OPTIONS);
    ForwardOptions->Flags = WDF_REQUEST_FORWARD_OPTION_SEND_AND_FORGET;
}

typedef VOID EVT_WDF_REQUEST_CANCEL(WDFREQUEST Request);
typedef EVT_WDF_REQUEST_CANCEL* PFN_WDF_REQUEST_CANCEL;

EXTERN_C_START
NTSTATUS WdfRequestCreate(PWDF_OBJECT_ATTRIBUTES RequestAttributes, WDFIOTARGET IoTarget,
                          WDFREQUEST* Request);
NTSTATUS WdfRequestReuse(WDFREQUEST Request, PWDF_REQUEST_REUSE_PARAMS ReuseParams);
NTSTATUS WdfRequestRetrieveInputMemory(WDFREQUEST Request, WDFMEMORY* Memory);
NTSTATUS WdfRequestRetrieveOutputMemory(WDFREQUEST Request, WDFMEMORY* Memory);
NTSTATUS WdfRequestRetrieveInputBuffer(WDFREQUEST Request, size_t MinimumRequiredLength,
                                       PVOID* Buffer, size_t* Length);
NTSTATUS WdfRequestRetrieveOutputBuffer(WDFREQUEST Request, size_t MinimumRequiredSize,
                                        PVOID* Buffer, size_t* Length);
VOID WdfRequestComplete(WDFREQUEST Request, NTSTATUS Status);
VOID WdfRequestCompleteWithInformation(WDFREQUEST Request, NTSTATUS Status, ULONG_PTR Information);
VOID WdfRequestSetInformation(WDFREQUEST Request, ULONG_PTR Information);
ULONG_PTR WdfRequestGetInformation(WDFREQUEST Request);
NTSTATUS WdfRequestGetStatus(WDFREQUEST Request);
WDFQUEUE WdfRequestGetIoQueue(WDFREQUEST Request);
NTSTATUS WdfRequestForwardToIoQueue(WDFREQUEST Request, WDFQUEUE DestinationQueue);
NTSTATUS WdfRequestForwardToParentDeviceIoQueue(WDFREQUEST Request, WDFQUEUE ParentDeviceQueue,
                                                PWDF_REQUEST_FORWARD_OPTIONS ForwardOptions);
NTSTATUS WdfRequestMarkCancelableEx(WDFREQUEST Request, PFN_WDF_REQUEST_CANCEL EvtRequestCancel);
NTSTATUS WdfRequestUnmarkCancelable(WDFREQUEST Request);
BOOLEAN WdfRequestIsCanceled(WDFREQUEST Request);
VOID WdfRequestStopAcknowledge(WDFREQUEST Request, BOOLEAN Requeue);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// I/O targets
// ---------------------------------------------------------------------------------------
typedef enum _WDF_REQUEST_SEND_OPTIONS_FLAGS {
    WDF_REQUEST_SEND_OPTION_TIMEOUT = 0x00000001,
    WDF_REQUEST_SEND_OPTION_SYNCHRONOUS = 0x00000002,
    WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE = 0x00000004,
    WDF_REQUEST_SEND_OPTION_SEND_AND_FORGET = 0x00000008,
} WDF_REQUEST_SEND_OPTIONS_FLAGS;

typedef struct _WDF_REQUEST_SEND_OPTIONS {
    ULONG Size;
    ULONG Flags;
    LONGLONG Timeout;
} WDF_REQUEST_SEND_OPTIONS, *PWDF_REQUEST_SEND_OPTIONS;

FORCEINLINE VOID WDF_REQUEST_SEND_OPTIONS_INIT(PWDF_REQUEST_SEND_OPTIONS Options, ULONG Flags)
{
    RtlZeroMemory(Options, sizeof(WDF_REQUEST_SEND_OPTIONS));
    Options->Size = sizeof(WDF_REQUEST_SEND_OPTIONS);
    Options->Flags = Flags;
}

FORCEINLINE VOID WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(PWDF_REQUEST_SEND_OPTIONS Options,
                                                      LONGLONG Timeout)
{
    Options->Flags |= WDF_REQUEST_SEND_OPTION_TIMEOUT;
    Options->Timeout = Timeout;
}

// Relative timeouts are negative counts of 100-ns units.
#define WDF_TIMEOUT_TO_SEC ((LONGLONG)1 * 10 * 1000 * 1000)
#define WDF_TIMEOUT_TO_MS ((LONGLONG)1 * 10 * 1000)
#define WDF_TIMEOUT_TO_US ((LONGLONG)1 * 10)
FORCEINLINE LONGLONG WDF_REL_TIMEOUT_IN_SEC(ULONGLONG Time)
{
    return (LONGLONG)Time * -1 * WDF_TIMEOUT_TO_SEC;
}
FORCEINLINE LONGLONG WDF_REL_TIMEOUT_IN_MS(ULONGLONG Time)
{
    return (LONGLONG)Time * -1 * WDF_TIMEOUT_TO_MS;
}
FORCEINLINE LONGLONG WDF_REL_TIMEOUT_IN_US(ULONGLONG Time)
{
    return (LONGLONG)Time * -1 * WDF_TIMEOUT_TO_US;
}

typedef enum _WDF_IO_TARGET_OPEN_TYPE {
    WdfIoTargetOpenUndefined = 0,
    WdfIoTargetOpenUseExistingDevice = 1,
    WdfIoTargetOpenByName = 2,
    WdfIoTargetOpenReopen = 3,
    WdfIoTargetOpenLocalTargetByFile = 4,
} WDF_IO_TARGET_OPEN_TYPE;

typedef enum _WDF_IO_TARGET_SENT_IO_ACTION {
    WdfIoTargetSentIoUndefined = 0,
    WdfIoTargetCancelSentIo,
    WdfIoTargetWaitForSentIoToComplete,
    WdfIoTargetLeaveSentIoPending,
} WDF_IO_TARGET_SENT_IO_ACTION;

typedef enum _WDF_IO_TARGET_STATE {
    WdfIoTargetStateUndefined = 0,
    WdfIoTargetStarted,
    WdfIoTargetStopped,
    WdfIoTargetClosedForQueryRemove,
    WdfIoTargetClosed,
    WdfIoTargetDeleted,
} WDF_IO_TARGET_STATE;

typedef NTSTATUS EVT_WDF_IO_TARGET_QUERY_REMOVE(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_QUERY_REMOVE* PFN_WDF_IO_TARGET_QUERY_REMOVE;
typedef VOID EVT_WDF_IO_TARGET_REMOVE_CANCELED(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_REMOVE_CANCELED* PFN_WDF_IO_TARGET_REMOVE_CANCELED;
typedef VOID EVT_WDF_IO_TARGET_REMOVE_COMPLETE(WDFIOTARGET IoTarget);
typedef EVT_WDF_IO_TARGET_REMOVE_COMPLETE* PFN_WDF_IO_TARGET_REMOVE_COMPLETE;

typedef struct _WDF_IO_TARGET_OPEN_PARAMS {
    ULONG Size;
    WDF_IO_TARGET_OPEN_TYPE Type;
    PFN_WDF_IO_TARGET_QUERY_REMOVE EvtIoTargetQueryRemove;
    PFN_WDF_IO_TARGET_REMOVE_CANCELED EvtIoTargetRemoveCanceled;
    PFN_WDF_IO_TARGET_REMOVE_COMPLETE EvtIoTargetRemoveComplete;
    PDEVICE_OBJECT TargetDeviceObject;
    PFILE_OBJECT TargetFileObject;
    UNICODE_STRING TargetDeviceName;
    ACCESS_MASK DesiredAccess;
    ULONG ShareAccess;
    ULONG FileAttributes;
    ULONG CreateDisposition;
    ULONG CreateOptions;
    PVOID EaBuffer;
    ULONG EaBufferLength;
    PLONGLONG AllocationSize;
    ULONG FileInformation;
    UNICODE_STRING FileName;
} WDF_IO_TARGET_OPEN_PARAMS, *PWDF_IO_TARGET_OPEN_PARAMS;

FORCEINLINE VOID WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(PWDF_IO_TARGET_OPEN_PARAMS Params,
                                                             PCUNICODE_STRING TargetDeviceName,
                                                             ACCESS_MASK DesiredAccess)
{
    RtlZeroMemory(Params, sizeof(WDF_IO_TARGET_OPEN_PARAMS));
    Params->Size = sizeof(WDF_IO_TARGET_OPEN_PARAMS);
    Params->Type = WdfIoTargetOpenByName;
    RtlCopyMemory(&Params->TargetDeviceName, TargetDeviceName, sizeof(UNICODE_STRING));
    Params->DesiredAccess = DesiredAccess;
    Params->CreateOptions = FILE_NON_DIRECTORY_FILE;
    Params->CreateDisposition = FILE_OPEN;
}

EXTERN_C_START
NTSTATUS WdfIoTargetCreate(WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES IoTargetAttributes,
                           WDFIOTARGET* IoTarget);
NTSTATUS WdfIoTargetOpen(WDFIOTARGET IoTarget, PWDF_IO_TARGET_OPEN_PARAMS OpenParams);
NTSTATUS WdfIoTargetStart(WDFIOTARGET IoTarget);
VOID WdfIoTargetStop(WDFIOTARGET IoTarget, WDF_IO_TARGET_SENT_IO_ACTION Action);
VOID WdfIoTargetClose(WDFIOTARGET IoTarget);
VOID WdfIoTargetCloseForQueryRemove(WDFIOTARGET IoTarget);
WDF_IO_TARGET_STATE WdfIoTargetGetState(WDFIOTARGET IoTarget);
NTSTATUS WdfIoTargetSendReadSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                          PWDF_MEMORY_DESCRIPTOR OutputBuffer,
                                          PLONGLONG DeviceOffset,
                                          PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                          PULONG_PTR BytesRead);
NTSTATUS WdfIoTargetSendWriteSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                           PWDF_MEMORY_DESCRIPTOR InputBuffer,
                                           PLONGLONG DeviceOffset,
                                           PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                           PULONG_PTR BytesWritten);
NTSTATUS WdfIoTargetSendIoctlSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                           ULONG IoctlCode, PWDF_MEMORY_DESCRIPTOR InputBuffer,
                                           PWDF_MEMORY_DESCRIPTOR OutputBuffer,
                                           PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                           PULONG_PTR BytesReturned);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Work items and wait locks
// ---------------------------------------------------------------------------------------
typedef VOID EVT_WDF_WORKITEM(WDFWORKITEM WorkItem);
typedef EVT_WDF_WORKITEM* PFN_WDF_WORKITEM;

typedef struct _WDF_WORKITEM_CONFIG {
    ULONG Size;
    PFN_WDF_WORKITEM EvtWorkItemFunc;
    BOOLEAN AutomaticSerialization;
} WDF_WORKITEM_CONFIG, *PWDF_WORKITEM_CONFIG;

FORCEINLINE VOID WDF_WORKITEM_CONFIG_INIT(PWDF_WORKITEM_CONFIG Config,
                                          PFN_WDF_WORKITEM EvtWorkItemFunc)
{
    RtlZeroMemory(Config, sizeof(WDF_WORKITEM_CONFIG));
    Config->Size = sizeof(WDF_WORKITEM_CONFIG);
    Config->EvtWorkItemFunc = EvtWorkItemFunc;
    Config->AutomaticSerialization = TRUE;
}

EXTERN_C_START
NTSTATUS WdfWorkItemCreate(PWDF_WORKITEM_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes,
                           WDFWORKITEM* WorkItem);
VOID WdfWorkItemEnqueue(WDFWORKITEM WorkItem);
WDFOBJECT WdfWorkItemGetParentObject(WDFWORKITEM WorkItem);
VOID WdfWorkItemFlush(WDFWORKITEM WorkItem);

NTSTATUS WdfWaitLockCreate(PWDF_OBJECT_ATTRIBUTES LockAttributes, WDFWAITLOCK* Lock);
// Timeout: null waits without limit, 0 only tries, negative is relative (100-ns units).
NTSTATUS WdfWaitLockAcquire(WDFWAITLOCK Lock, PLONGLONG Timeout);
VOID WdfWaitLockRelease(WDFWAITLOCK Lock);
EXTERN_C_END
