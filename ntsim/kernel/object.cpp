// The object manager's table of objects: types, reference counts and handle counts.
#include <ntsim/ob.h>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstdio>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "ob_internal.hpp"

namespace ntsim::ob {
namespace {

struct Header {
    const ObjectType* type = nullptr;
    LONG_PTR references = 0;
    ULONG handles = 0;
    bool shared = false;
    std::weak_ptr<void> owner;  // shared objects
    std::shared_ptr<void> pin;  // shared objects while referenced
};

// What a reference to an object that must never be referenced reports.
struct Unreferenceable {
    std::string rule;
    std::string detail;
};

struct ObjectTable {
    std::mutex lock;
    std::unordered_map<const void*, Header> objects;
    std::unordered_map<const void*, Unreferenceable> unreferenceable;
};

// Never destroyed: objects may be released by static destructors of other components.
ObjectTable& Table()
{
    static ObjectTable& table = *new ObjectTable;
    return table;
}

std::string Describe(const void* object)
{
    char text[64];
    std::snprintf(text, sizeof(text), "%p", object);
    return text;
}

}  // namespace

ObjectType::ObjectType(std::u16string name, GENERIC_MAPPING mapping, ACCESS_MASK validAccess,
                       CloseProcedure close, DeleteProcedure del)
    : name_(std::move(name)), mapping_(mapping), validAccess_(validAccess), close_(std::move(close)),
      delete_(std::move(del))
{
}

ACCESS_MASK ObjectType::MapGenericAccess(ACCESS_MASK access) const
{
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    if (access & GENERIC_READ) mapped |= mapping_.GenericRead;
    if (access & GENERIC_WRITE) mapped |= mapping_.GenericWrite;
    if (access & GENERIC_EXECUTE) mapped |= mapping_.GenericExecute;
    if (access & GENERIC_ALL) mapped |= mapping_.GenericAll;
    return mapped;
}

void RegisterObject(void* object, const ObjectType& type, LONG_PTR initialReferences)
{
    if (initialReferences < 1) {
        verifier::BugCheck(rules::kObjectReferenceUnderflow,
                           "RegisterObject of " + Describe(object) + " with no reference");
        initialReferences = 1;
    }
    std::lock_guard guard(Table().lock);
    Header& header = Table().objects[object];
    header = Header{};
    header.type = &type;
    header.references = initialReferences;
}

void RegisterSharedObject(void* object, const ObjectType& type, std::weak_ptr<void> owner)
{
    std::lock_guard guard(Table().lock);
    Header& header = Table().objects[object];
    header = Header{};
    header.type = &type;
    header.shared = true;
    header.owner = std::move(owner);
}

void UnregisterSharedObject(void* object)
{
    std::lock_guard guard(Table().lock);
    Table().objects.erase(object);
}

UnreferenceableObjectScope::UnreferenceableObjectScope(const void* object, std::string_view rule, std::string detail)
    : object_(object)
{
    std::lock_guard guard(Table().lock);
    Table().unreferenceable[object] = Unreferenceable{std::string(rule), std::move(detail)};
}

UnreferenceableObjectScope::~UnreferenceableObjectScope()
{
    std::lock_guard guard(Table().lock);
    Table().unreferenceable.erase(object_);
}

const ObjectType* TypeOf(const void* object)
{
    std::lock_guard guard(Table().lock);
    auto it = Table().objects.find(object);
    return it == Table().objects.end() ? nullptr : it->second.type;
}

LONG_PTR ReferenceCount(const void* object)
{
    std::lock_guard guard(Table().lock);
    auto it = Table().objects.find(object);
    return it == Table().objects.end() ? 0 : it->second.references;
}

ULONG HandleCount(const void* object)
{
    std::lock_guard guard(Table().lock);
    auto it = Table().objects.find(object);
    return it == Table().objects.end() ? 0 : it->second.handles;
}

namespace internal {

ULONG AdjustHandleCount(void* object, int delta)
{
    std::lock_guard guard(Table().lock);
    auto it = Table().objects.find(object);
    if (it == Table().objects.end()) {
        return 0;
    }
    it->second.handles = static_cast<ULONG>(static_cast<LONG>(it->second.handles) + delta);
    return it->second.handles;
}

}  // namespace internal
}  // namespace ntsim::ob

using ntsim::ob::Header;
using ntsim::ob::Table;

extern "C" {

LONG_PTR ObfReferenceObject(PVOID Object)
{
    std::unique_lock guard(Table().lock);
    auto it = Table().objects.find(Object);
    if (it == Table().objects.end()) {
        auto forbidden = Table().unreferenceable.find(Object);
        if (forbidden != Table().unreferenceable.end()) {
            const ntsim::ob::Unreferenceable report = forbidden->second;
            guard.unlock();
            ntsim::verifier::BugCheck(report.rule,
                                      "ObReferenceObject(" + ntsim::ob::Describe(Object) + "): " + report.detail);
            return 0;
        }
        guard.unlock();
        ntsim::verifier::BugCheck(ntsim::ob::rules::kObjectNotKnown,
                                  "ObReferenceObject(" + ntsim::ob::Describe(Object) + ")");
        return 0;
    }
    Header& header = it->second;
    if (header.shared && header.references == 0) {
        header.pin = header.owner.lock();
        if (!header.pin) {
            guard.unlock();
            ntsim::verifier::BugCheck(ntsim::ob::rules::kObjectNotKnown,
                                      "ObReferenceObject(" + ntsim::ob::Describe(Object) +
                                          ") of an object being destroyed");
            return 0;
        }
    }
    return ++header.references;
}

LONG_PTR ObfDereferenceObject(PVOID Object)
{
    std::unique_lock guard(Table().lock);
    auto it = Table().objects.find(Object);
    if (it == Table().objects.end() || it->second.references == 0) {
        const bool known = it != Table().objects.end();
        guard.unlock();
        ntsim::verifier::BugCheck(
            known ? ntsim::ob::rules::kObjectReferenceUnderflow : ntsim::ob::rules::kObjectNotKnown,
            "ObDereferenceObject(" + ntsim::ob::Describe(Object) + ")" +
                (known ? " with no reference left" : ""));
        return 0;
    }
    Header& header = it->second;
    const LONG_PTR left = --header.references;
    if (left > 0) {
        return left;
    }
    if (header.shared) {
        // Dropping the pin may destroy the object, whose destructor unregisters it.
        std::shared_ptr<void> pin = std::move(header.pin);
        guard.unlock();
        pin.reset();
        return 0;
    }
    const ntsim::ob::ObjectType* type = header.type;
    Table().objects.erase(it);
    guard.unlock();
    if (type->Delete()) {
        type->Delete()(Object);
    }
    return 0;
}

}  // extern "C"
