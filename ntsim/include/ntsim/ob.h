// The object manager: reference counts, handles and symbolic links, under the WDK's names.
//
// Every object that ntsim hands a driver (processes, threads, tokens, file objects, symbolic
// links) is known to the object manager with a type, a reference count and a handle count. A
// handle holds one reference. ZwClose closes any kind of handle: the object's type is told of the
// close (a file object's cleanup comes at its last handle), and the handle's reference goes; the
// last reference deletes the object. Kernel handles (OBJ_KERNEL_HANDLE) live in one table of the
// system and are valid in any process for kernel-mode callers only; other handles live in the
// table of the process that opened them. Object names are compared without regard to case.
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

#define SYMBOLIC_LINK_QUERY 0x0001
#define SYMBOLIC_LINK_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | 0x1)

typedef struct _OBJECT_TYPE* POBJECT_TYPE;

typedef struct _GENERIC_MAPPING {
    ACCESS_MASK GenericRead;
    ACCESS_MASK GenericWrite;
    ACCESS_MASK GenericExecute;
    ACCESS_MASK GenericAll;
} GENERIC_MAPPING, *PGENERIC_MAPPING;

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

// Object types a driver may pass to ObReferenceObjectByHandle. IoFileObjectType belongs to the
// I/O manager (io.h).
extern "C" POBJECT_TYPE* PsProcessType;
extern "C" POBJECT_TYPE* PsThreadType;
extern "C" POBJECT_TYPE* SeTokenObjectType;

struct _ACCESS_STATE;

extern "C" {

// ---- references (any IRQL up to DISPATCH_LEVEL) ----
// Returns the new count. A pointer the object manager does not know, or a count that would go
// below zero, is a bug check.
NTKERNELAPI LONG_PTR ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)

// A UserMode caller must hold a handle of its own process that grants DesiredAccess; KernelMode
// skips the access check and may also use kernel handles. NtCurrentProcess() and
// NtCurrentThread() name the caller's process and thread. ObjectType null accepts any type.
// Success gives a referenced object. PASSIVE_LEVEL.
NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                               POBJECT_TYPE ObjectType, KPROCESSOR_MODE AccessMode,
                                               PVOID* Object,
                                               POBJECT_HANDLE_INFORMATION HandleInformation);

// Opens a handle to an object the caller holds a reference to (the handle takes its own).
// HandleAttributes may hold OBJ_KERNEL_HANDLE. PASSIVE_LEVEL.
NTKERNELAPI NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes,
                                           struct _ACCESS_STATE* PassedAccessState,
                                           ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                           KPROCESSOR_MODE AccessMode, PHANDLE Handle);

// ---- handles ----
// Closes a handle of any kind. An invalid handle gives STATUS_INVALID_HANDLE; from a kernel-mode
// caller it is also a bug check, as Driver Verifier makes it. PASSIVE_LEVEL.
NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);
NTSYSAPI NTSTATUS NTAPI NtClose(HANDLE Handle);

// ---- symbolic links ----
// Opens the symbolic link object named by ObjectAttributes->ObjectName (such as \??\C:), which
// must be absolute. A name that is no link gives STATUS_OBJECT_NAME_NOT_FOUND, or
// STATUS_OBJECT_PATH_NOT_FOUND when its directory does not exist either; a name that is no
// absolute path gives STATUS_OBJECT_PATH_SYNTAX_BAD. PASSIVE_LEVEL.
NTSYSAPI NTSTATUS NTAPI ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                                 POBJECT_ATTRIBUTES ObjectAttributes);

// Copies the link's target into LinkTarget->Buffer, followed by a terminating zero, and sets
// LinkTarget->Length to the target's length without the zero. The size the call writes is the
// target's length plus 2: a MaximumLength below it gives STATUS_BUFFER_TOO_SMALL, LinkTarget
// unchanged. *ReturnedLength (if given) receives that size in both cases. The target of a drive
// substitution is itself a \??\ path, returned as it stands. PASSIVE_LEVEL.
NTSYSAPI NTSTATUS NTAPI ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget,
                                                  PULONG ReturnedLength);

}  // extern "C"
