// The namespace of symbolic links (\??\C: -> \Device\HarddiskVolume2, drive substitutions), their
// Zw routines, and the resolution of a path through them.
#include <ntsim/ob.h>
#include <ntsim/rtl.h>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>

#include "ob_internal.hpp"

namespace ntsim::ob {
namespace {

constexpr int kMaxSubstitutions = 32;

struct LinkObject {
    LinkObject(std::u16string_view linkName, std::u16string_view linkTarget) : name(linkName), target(linkTarget) {}
    ~LinkObject() { UnregisterSharedObject(this); }
    LinkObject(const LinkObject&) = delete;
    LinkObject& operator=(const LinkObject&) = delete;

    std::u16string name;
    std::u16string target;
};

struct Namespace {
    std::mutex lock;
    std::map<std::u16string, std::shared_ptr<LinkObject>> links;  // by upcased name
};

Namespace& Names()
{
    static Namespace& names = *new Namespace;
    return names;
}

std::u16string Upcase(std::u16string_view text)
{
    std::u16string result(text);
    for (char16_t& c : result) {
        c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
    }
    return result;
}

bool StartsWithNoCase(std::u16string_view text, std::u16string_view prefix)
{
    return text.size() >= prefix.size() && ObjectNamesEqual(text.substr(0, prefix.size()), prefix);
}

std::shared_ptr<LinkObject> Find(std::u16string_view name)
{
    std::lock_guard guard(Names().lock);
    auto it = Names().links.find(Upcase(name));
    return it == Names().links.end() ? nullptr : it->second;
}

// True when directory is an object directory: the root, \??, \GLOBAL??, \Device, or the directory
// of some link's name.
bool DirectoryExists(std::u16string_view directory)
{
    const std::u16string key = Upcase(directory);
    if (key.empty() || key == u"\\??" || key == u"\\GLOBAL??" || key == u"\\DEVICE") {
        return true;
    }
    std::lock_guard guard(Names().lock);
    for (const auto& [linkKey, link] : Names().links) {
        if (linkKey.size() > key.size() && linkKey.compare(0, key.size(), key) == 0 && linkKey[key.size()] == u'\\') {
            return true;
        }
    }
    return false;
}

std::string Narrow(std::u16string_view text)
{
    std::string result;
    for (char16_t c : text) {
        result.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    }
    return result;
}

}  // namespace

const ObjectType& SymbolicLinkType()
{
    static const ObjectType& type = *new ObjectType(
        u"SymbolicLink",
        GENERIC_MAPPING{READ_CONTROL | SYMBOLIC_LINK_QUERY, READ_CONTROL, READ_CONTROL | SYMBOLIC_LINK_QUERY,
                        SYMBOLIC_LINK_ALL_ACCESS},
        SYMBOLIC_LINK_ALL_ACCESS);
    return type;
}

SymbolicLink::SymbolicLink(SymbolicLink&& other) noexcept : name_(std::move(other.name_))
{
    other.name_.clear();
}

SymbolicLink& SymbolicLink::operator=(SymbolicLink&& other) noexcept
{
    if (this != &other) {
        Remove();
        name_ = std::move(other.name_);
        other.name_.clear();
    }
    return *this;
}

SymbolicLink::~SymbolicLink()
{
    Remove();
}

void SymbolicLink::Remove()
{
    if (name_.empty()) {
        return;
    }
    std::shared_ptr<LinkObject> removed;  // released outside the lock
    {
        std::lock_guard guard(Names().lock);
        auto it = Names().links.find(Upcase(name_));
        if (it != Names().links.end()) {
            removed = std::move(it->second);
            Names().links.erase(it);
        }
    }
    name_.clear();
}

SymbolicLink CreateSymbolicLink(std::u16string_view name, std::u16string_view target)
{
    if (name.size() < 2 || name[0] != u'\\' || name.back() == u'\\') {
        throw std::invalid_argument("symbolic link name is not an absolute object name: " + Narrow(name));
    }
    auto link = std::make_shared<LinkObject>(name, target);
    RegisterSharedObject(link.get(), SymbolicLinkType(), link);
    {
        std::lock_guard guard(Names().lock);
        auto [it, inserted] = Names().links.emplace(Upcase(name), link);
        if (!inserted) {
            throw std::invalid_argument("symbolic link exists: " + Narrow(name));
        }
    }
    SymbolicLink registration;
    registration.name_ = std::u16string(name);
    return registration;
}

bool ObjectNamesEqual(std::u16string_view a, std::u16string_view b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (RtlUpcaseUnicodeChar(static_cast<WCHAR>(a[i])) != RtlUpcaseUnicodeChar(static_cast<WCHAR>(b[i]))) {
            return false;
        }
    }
    return true;
}

std::optional<std::u16string> SymbolicLinkTarget(std::u16string_view name)
{
    if (auto link = Find(name)) {
        return link->target;
    }
    return std::nullopt;
}

NTSTATUS ResolveSymbolicLinks(std::u16string_view path, std::u16string* resolved)
{
    if (path.empty() || path[0] != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    std::u16string current(path);
    for (int substitutions = 0;;) {
        // The leftmost prefix of whole components that names a link is replaced by its target.
        bool replaced = false;
        size_t end = 0;
        while (end < current.size()) {
            const size_t next = current.find(u'\\', end + 1);
            end = next == std::u16string::npos ? current.size() : next;
            if (auto link = Find(std::u16string_view(current).substr(0, end))) {
                if (++substitutions > kMaxSubstitutions) {
                    return STATUS_REPARSE_POINT_NOT_RESOLVED;
                }
                current = link->target + current.substr(end);
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            break;
        }
    }
    // What is left under \?? names no link: a missing drive.
    if (StartsWithNoCase(current, u"\\??\\")) {
        const bool last = current.find(u'\\', 4) == std::u16string::npos;
        return last ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    *resolved = std::move(current);
    return STATUS_SUCCESS;
}

}  // namespace ntsim::ob

extern "C" {

NTSTATUS NTAPI ZwOpenSymbolicLinkObject(PHANDLE LinkHandle, ACCESS_MASK DesiredAccess,
                                        POBJECT_ATTRIBUTES ObjectAttributes)
{
    if (auto failure = ntsim::faults::Check("ZwOpenSymbolicLinkObject")) {
        return *failure;
    }
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "ZwOpenSymbolicLinkObject");
    if (LinkHandle == nullptr || ObjectAttributes == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (ObjectAttributes->RootDirectory != nullptr) {
        return ntsim::verifier::NotImplemented("ZwOpenSymbolicLinkObject relative to a root directory");
    }
    const PUNICODE_STRING objectName = ObjectAttributes->ObjectName;
    if (objectName == nullptr || objectName->Length == 0 || objectName->Buffer == nullptr) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const std::u16string_view name(reinterpret_cast<const char16_t*>(objectName->Buffer),
                                   objectName->Length / sizeof(WCHAR));
    if (name[0] != u'\\') {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    auto link = ntsim::ob::Find(name);
    if (!link) {
        const size_t slash = name.rfind(u'\\');
        return ntsim::ob::DirectoryExists(name.substr(0, slash)) ? STATUS_OBJECT_NAME_NOT_FOUND
                                                                 : STATUS_OBJECT_PATH_NOT_FOUND;
    }
    const ntsim::ob::ObjectType& type = ntsim::ob::SymbolicLinkType();
    ACCESS_MASK granted = type.MapGenericAccess(DesiredAccess);
    if (granted & MAXIMUM_ALLOWED) {
        granted = (granted & ~MAXIMUM_ALLOWED) | type.ValidAccess();
    }
    HANDLE handle = ntsim::ob::internal::InsertHandleForMode(link.get(), granted, ObjectAttributes->Attributes,
                                                             KernelMode);
    if (handle == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    *LinkHandle = handle;
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI ZwQuerySymbolicLinkObject(HANDLE LinkHandle, PUNICODE_STRING LinkTarget, PULONG ReturnedLength)
{
    if (auto failure = ntsim::faults::Check("ZwQuerySymbolicLinkObject")) {
        return *failure;
    }
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "ZwQuerySymbolicLinkObject");
    void* object = nullptr;
    NTSTATUS status = ntsim::ob::ReferenceObjectByHandle(LinkHandle, SYMBOLIC_LINK_QUERY,
                                                         &ntsim::ob::SymbolicLinkType(), KernelMode, &object);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const auto* link = static_cast<const ntsim::ob::LinkObject*>(object);
    const size_t bytes = link->target.size() * sizeof(WCHAR);
    const ULONG needed = static_cast<ULONG>(bytes + sizeof(WCHAR));
    if (LinkTarget == nullptr) {
        status = STATUS_INVALID_PARAMETER;
    } else if (LinkTarget->MaximumLength < needed) {
        status = STATUS_BUFFER_TOO_SMALL;
    } else {
        std::memcpy(LinkTarget->Buffer, link->target.data(), bytes);
        LinkTarget->Buffer[link->target.size()] = 0;
        LinkTarget->Length = static_cast<USHORT>(bytes);
        status = STATUS_SUCCESS;
    }
    if (ReturnedLength != nullptr && status != STATUS_INVALID_PARAMETER) {
        *ReturnedLength = needed;
    }
    ObfDereferenceObject(object);
    return status;
}

}  // extern "C"
