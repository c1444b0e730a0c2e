// The object manager's control interface: object types, registration of objects, handles, and the
// namespace of symbolic links.
//
// Two kinds of object are known:
// - Objects owned by their references (RegisterObject), such as file objects: they start with the
//   creator's references; the type's delete procedure runs at the last ObDereferenceObject and
//   frees them, and the object manager forgets them.
// - Objects owned by a std::shared_ptr (RegisterSharedObject), such as processes, tokens and link
//   objects: while their reference count is above zero the object manager holds them alive; they
//   leave the object manager when they are destroyed (UnregisterSharedObject).
//
// A handle holds one reference and counts in the object's handle count. Closing a handle removes it
// from its table, calls the type's close procedure with the handles that remain (0 at the last
// one: a file object's cleanup), then drops the handle's reference. Procedures are called without
// any lock of the object manager held, in the calling thread.
//
// User handles are multiples of 4 from 4 on, never reused within a table. Kernel handles
// (OBJ_KERNEL_HANDLE, kernel mode only) have the high bits set (0xFFFFFFFF80000004 on), as on
// 64-bit Windows, and are valid only for kernel-mode callers.
//
// Names of the namespace compare without regard to case (ObjectNamesEqual).
#pragma once

#include <ntsim/ob.h>
#include <ntsim/ps.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// An object type, opaque to drivers (ob.h).
struct _OBJECT_TYPE {};

namespace ntsim::ob {

// Verifier rules of the object manager.
namespace rules {
inline constexpr std::string_view kObjectNotKnown = "OBJECT_NOT_KNOWN";  // a pointer that is no object
inline constexpr std::string_view kObjectReferenceUnderflow = "OBJECT_REFERENCE_UNDERFLOW";
inline constexpr std::string_view kInvalidKernelHandle = "INVALID_KERNEL_HANDLE";  // closed by kernel code
}  // namespace rules

class ObjectType : public _OBJECT_TYPE {
public:
    // Called in the closing thread after a handle left its table and before its reference goes.
    // remainingHandles is the object's handle count after this close (0: its last handle).
    using CloseProcedure = std::function<void(void* object, PEPROCESS process, ULONG remainingHandles)>;
    // Called when the last reference to an object owned by its references goes; frees it.
    using DeleteProcedure = std::function<void(void* object)>;

    ObjectType(std::u16string name, GENERIC_MAPPING mapping, ACCESS_MASK validAccess,
               CloseProcedure close = {}, DeleteProcedure del = {});
    ObjectType(const ObjectType&) = delete;
    ObjectType& operator=(const ObjectType&) = delete;

    const std::u16string& Name() const { return name_; }
    // GENERIC_* bits mapped to this type's specific rights; other bits kept.
    ACCESS_MASK MapGenericAccess(ACCESS_MASK access) const;
    // Every right this type knows (after generic mapping); MAXIMUM_ALLOWED grants these.
    ACCESS_MASK ValidAccess() const { return validAccess_; }
    const CloseProcedure& Close() const { return close_; }
    const DeleteProcedure& Delete() const { return delete_; }
    POBJECT_TYPE AsObjectType() const { return const_cast<ObjectType*>(this); }

private:
    std::u16string name_;
    GENERIC_MAPPING mapping_;
    ACCESS_MASK validAccess_;
    CloseProcedure close_;
    DeleteProcedure delete_;
};

// The type behind a POBJECT_TYPE (no check).
inline const ObjectType* ObjectTypeFrom(POBJECT_TYPE type) { return static_cast<const ObjectType*>(type); }

// The types of this component's objects (PsProcessType and the others point at these).
const ObjectType& ProcessType();
const ObjectType& ThreadType();
const ObjectType& TokenType();
const ObjectType& SymbolicLinkType();

// ---- registration ----
// An object owned by its references, with initialReferences (>= 1) held by the caller.
void RegisterObject(void* object, const ObjectType& type, LONG_PTR initialReferences = 1);
// An object owned by a shared_ptr, with no references yet.
void RegisterSharedObject(void* object, const ObjectType& type, std::weak_ptr<void> owner);
// From the destructor of a shared object.
void UnregisterSharedObject(void* object);

// An object that lives for one call only and that no driver may reference, such as the file
// object of a network query open, which lives on its caller's stack. While the scope lives,
// ObReferenceObject of the object is a bug check of `rule` (with `detail`) rather than one of an
// object the object manager does not know.
class UnreferenceableObjectScope {
public:
    UnreferenceableObjectScope(const void* object, std::string_view rule, std::string detail);
    ~UnreferenceableObjectScope();
    UnreferenceableObjectScope(const UnreferenceableObjectScope&) = delete;
    UnreferenceableObjectScope& operator=(const UnreferenceableObjectScope&) = delete;

private:
    const void* object_;
};

// The type of a known object, or null.
const ObjectType* TypeOf(const void* object);
// Counts of a known object (0 for an unknown one).
LONG_PTR ReferenceCount(const void* object);
ULONG HandleCount(const void* object);

// ---- handles ----
// Opens a handle with grantedAccess in the current process's table, or in the kernel table for
// OBJ_KERNEL_HANDLE (kernel previous mode only; from user mode the flag is ignored). The handle
// takes a reference of its own: the caller's references stay the caller's. An unknown object is
// a bug check and gives null.
HANDLE InsertHandle(void* object, ACCESS_MASK grantedAccess, ULONG attributes = 0);

// Finds a handle as ObReferenceObjectByHandle does (type null: any type) and returns its object
// referenced. STATUS_INVALID_HANDLE, STATUS_OBJECT_TYPE_MISMATCH, STATUS_ACCESS_DENIED.
NTSTATUS ReferenceObjectByHandle(HANDLE handle, ACCESS_MASK desiredAccess, const ObjectType* type,
                                 KPROCESSOR_MODE accessMode, void** object,
                                 ACCESS_MASK* grantedAccess = nullptr);

// Closes a handle as ZwClose does, for a caller of the given mode (no bug check).
NTSTATUS CloseHandle(HANDLE handle, KPROCESSOR_MODE mode);

// Open kernel handles (a test's leak check).
size_t KernelHandleCount();

// A process's handles. Owned by its Process; closes what is left when destroyed.
class HandleTable {
public:
    HandleTable();
    ~HandleTable();
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    size_t Count() const;
    // Closes every handle (the process ends): close procedures run, references go.
    void CloseAll(PEPROCESS owner);

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

// ---- symbolic links ----
// A link in the namespace; the name goes when the object is destroyed or Remove is called. A
// handle that is open on the link keeps the link object (and its target) alive.
class SymbolicLink {
public:
    SymbolicLink() = default;
    SymbolicLink(SymbolicLink&& other) noexcept;
    SymbolicLink& operator=(SymbolicLink&& other) noexcept;
    ~SymbolicLink();

    const std::u16string& Name() const { return name_; }
    void Remove();

private:
    friend SymbolicLink CreateSymbolicLink(std::u16string_view, std::u16string_view);
    std::u16string name_;
};

// Creates the link name -> target, such as \??\C: -> \Device\HarddiskVolume2, or a drive
// substitution \??\S: -> \??\C:\sub. The name must be absolute; a name in use throws
// std::invalid_argument.
[[nodiscard]] SymbolicLink CreateSymbolicLink(std::u16string_view name, std::u16string_view target);

// The target of the link with that name, or nothing.
std::optional<std::u16string> SymbolicLinkTarget(std::u16string_view name);

// Replaces every symbolic link along an absolute object path by its target, from the left, again
// and again, as the object manager's parse does: \??\C:\dir\f gives \Device\HarddiskVolume2\dir\f,
// and \??\S:\x (S: substituted for \??\C:\sub) gives \Device\HarddiskVolume2\sub\x. A path whose
// leading components name no link comes back unchanged (a device path). Results:
// STATUS_OBJECT_PATH_SYNTAX_BAD for a path that is not absolute, STATUS_OBJECT_PATH_NOT_FOUND when
// a \??\ component names no link, STATUS_REPARSE_POINT_NOT_RESOLVED after 32 substitutions (a loop).
NTSTATUS ResolveSymbolicLinks(std::u16string_view path, std::u16string* resolved);

// Whether two object names are the same name: without regard to case, by the system's upcase
// table (RtlUpcaseUnicodeChar), as the object manager compares every name of its namespace
// (links, devices, ports, filters).
bool ObjectNamesEqual(std::u16string_view a, std::u16string_view b);

}  // namespace ntsim::ob
