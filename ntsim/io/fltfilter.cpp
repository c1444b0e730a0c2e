// Filter drivers: loading and unloading them, their registration with the Filter Manager, and
// the small routines a filter calls on its callback data and for its port's security.
#include "iomgr.hpp"

#include <ntsim/sim/etw.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/ports.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <stdexcept>

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

long double AltitudeValue(const std::u16string& altitude)
{
    try {
        return std::stold(ToUtf8(altitude));
    } catch (const std::exception&) {
        return 0;
    }
}

LoadedDriver* FindDriver(PDRIVER_OBJECT driver)
{
    for (const auto& loaded : GetRegistry().drivers) {
        if (&loaded->object == driver) {
            return loaded.get();
        }
    }
    return nullptr;
}

LoadedDriver* FindDriverByName(std::u16string_view name)
{
    for (const auto& loaded : GetRegistry().drivers) {
        if (ob::ObjectNamesEqual(loaded->options.name, name)) {
            return loaded.get();
        }
    }
    return nullptr;
}

void RemoveDriver(LoadedDriver* driver)
{
    auto& drivers = GetRegistry().drivers;
    drivers.erase(std::remove_if(drivers.begin(), drivers.end(), [&](const auto& d) { return d.get() == driver; }),
                  drivers.end());
}

// What a driver must have given back by the time it is gone: its pool and its references.
void VerifyDriverLeftNothing(const LoadedDriver& driver)
{
    std::vector<pool::Allocation> leaks;
    for (const pool::Allocation& allocation : pool::LiveAllocations()) {
        if (std::find(driver.options.poolTags.begin(), driver.options.poolTags.end(), allocation.tag) !=
            driver.options.poolTags.end()) {
            leaks.push_back(allocation);
        }
    }
    if (!leaks.empty()) {
        verifier::BugCheck(verifier::rules::kPoolLeak, "driver " + ToUtf8(driver.options.name) +
                                                           " unloaded with pool left:\n" + pool::FormatReport(leaks));
    }
    if (driver.filter != nullptr && driver.filter->nameInformation.load() != 0) {
        verifier::BugCheck(rules::kNameInformationLeak,
                           "driver " + ToUtf8(driver.options.name) + " unloaded with " +
                               std::to_string(driver.filter->nameInformation.load()) +
                               " name information(s) from FltGetFileNameInformation not released");
    }
    if (driver.filter != nullptr) {
        std::lock_guard lock(GetRegistry().mutex);
        for (const auto& [volume, count] : driver.filter->volumeReferences) {
            verifier::BugCheck(rules::kObjectReferenceLeak,
                               "driver " + ToUtf8(driver.options.name) + " unloaded holding " +
                                   std::to_string(count) + " reference(s) from FltGetVolumeFromName on " +
                                   ToUtf8(volume->deviceName));
        }
    }
}

}  // namespace

namespace ntsim {

NTSTATUS LoadFilter(PDRIVER_INITIALIZE driverEntry, const FilterLoadOptions& options)
{
    if (driverEntry == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    // A driver finds the system's ETW routines by name, as on Windows; a test that wants a system
    // without them hides them.
    etw::InstallSystemRoutines();
    Registry& registry = GetRegistry();
    LoadedDriver* driver = nullptr;
    {
        std::lock_guard lock(registry.mutex);
        if (FindDriverByName(options.name) != nullptr) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
        auto loaded = std::make_unique<LoadedDriver>();
        loaded->options = options;
        loaded->driverName = u"\\FileSystem\\" + options.name;
        loaded->object.Type = IO_TYPE_DRIVER;
        loaded->object.Size = sizeof(DRIVER_OBJECT);
        loaded->object.DriverName.Buffer = AsWide(loaded->driverName.data());
        loaded->object.DriverName.Length = static_cast<USHORT>(loaded->driverName.size() * sizeof(WCHAR));
        loaded->object.DriverName.MaximumLength = loaded->object.DriverName.Length;
        loaded->object.DriverInit = driverEntry;
        driver = loaded.get();
        registry.drivers.push_back(std::move(loaded));
    }

    std::u16string registryPath = u"\\REGISTRY\\MACHINE\\SYSTEM\\CurrentControlSet\\Services\\" + options.name;
    UNICODE_STRING path{static_cast<USHORT>(registryPath.size() * sizeof(WCHAR)),
                        static_cast<USHORT>(registryPath.size() * sizeof(WCHAR)), AsWide(registryPath.data())};
    NTSTATUS status;
    {
        verifier::CallbackScope scope("DriverEntry");
        status = driverEntry(&driver->object, &path);
    }
    if (!NT_SUCCESS(status)) {
        std::lock_guard lock(registry.mutex);
        if (driver->filter != nullptr && driver->filter->state != _FLT_FILTER::State::Unregistered) {
            verifier::BugCheck(rules::kFilterNotUnregistered,
                               "DriverEntry of " + ToUtf8(options.name) +
                                   " failed and left its filter registered (FltUnregisterFilter missing)");
        }
    }
    if (!NT_SUCCESS(status)) {
        VerifyDriverLeftNothing(*driver);
        std::lock_guard lock(registry.mutex);
        RemoveDriver(driver);
    }
    return status;
}

NTSTATUS UnloadFilter(std::u16string_view name)
{
    Registry& registry = GetRegistry();
    LoadedDriver* driver;
    std::shared_ptr<_FLT_FILTER> filter;
    {
        std::lock_guard lock(registry.mutex);
        driver = FindDriverByName(name);
        if (driver == nullptr || driver->filter == nullptr) {
            return STATUS_FLT_FILTER_NOT_FOUND;
        }
        filter = driver->filter;
    }
    if (filter->registration.FilterUnloadCallback == nullptr) {
        return STATUS_FLT_DO_NOT_DETACH;
    }
    NTSTATUS status;
    {
        verifier::CallbackScope scope("FilterUnloadCallback");
        status = filter->registration.FilterUnloadCallback(0);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (filter->state != _FLT_FILTER::State::Unregistered) {
        verifier::BugCheck(rules::kFilterNotUnregistered,
                           "the unload callback of " + ToUtf8(filter->name) + " returned without FltUnregisterFilter");
        FltUnregisterFilter(filter.get());
    }
    VerifyDriverLeftNothing(*driver);
    std::lock_guard lock(registry.mutex);
    RemoveDriver(driver);
    return STATUS_SUCCESS;
}

std::vector<std::u16string> LoadedFilters()
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    std::vector<std::shared_ptr<_FLT_FILTER>> filters = registry.filters;
    std::sort(filters.begin(), filters.end(),
              [](const auto& a, const auto& b) { return a->altitudeValue > b->altitudeValue; });
    std::vector<std::u16string> names;
    for (const auto& filter : filters) {
        names.push_back(filter->name);
    }
    return names;
}

NTSTATUS DetachFilter(std::u16string_view filterName, std::u16string_view deviceName)
{
    auto volume = FindVolumeByDeviceName(deviceName);
    if (volume == nullptr) {
        return STATUS_FLT_VOLUME_NOT_FOUND;
    }
    std::shared_ptr<_FLT_INSTANCE> instance;
    {
        std::lock_guard lock(GetRegistry().mutex);
        for (const auto& candidate : volume->instances) {
            if (ob::ObjectNamesEqual(candidate->filter->name, filterName)) {
                instance = candidate;
            }
        }
    }
    if (instance == nullptr) {
        return STATUS_FLT_INSTANCE_NOT_FOUND;
    }
    const FLT_REGISTRATION& registration = instance->filter->registration;
    if (registration.InstanceQueryTeardownCallback == nullptr) {
        return STATUS_FLT_DO_NOT_DETACH;
    }
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, instance->filter.get(), volume.get(),
                                      instance.get(), nullptr, nullptr};
    NTSTATUS status;
    {
        verifier::CallbackScope scope("InstanceQueryTeardownCallback");
        status = registration.InstanceQueryTeardownCallback(&objects, 0);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    TeardownInstance(instance, FLTFL_INSTANCE_TEARDOWN_MANUAL);
    return STATUS_SUCCESS;
}

}  // namespace ntsim

extern "C" {

NTSTATUS FLTAPI FltRegisterFilter(PDRIVER_OBJECT Driver, const FLT_REGISTRATION* Registration, PFLT_FILTER* RetFilter)
{
    if (auto failure = faults::Check("FltRegisterFilter")) {
        return *failure;
    }
    if (Driver == nullptr || Registration == nullptr || RetFilter == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Registration->Size != sizeof(FLT_REGISTRATION) ||
        Registration->Version < FLT_REGISTRATION_VERSION_0200 || Registration->Version > FLT_REGISTRATION_VERSION) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Registration->ContextRegistration != nullptr) {
        return verifier::NotImplemented("FltRegisterFilter with context registration");
    }
    if (Registration->GenerateFileNameCallback != nullptr || Registration->NormalizeNameComponentCallback != nullptr ||
        Registration->NormalizeNameComponentExCallback != nullptr ||
        Registration->TransactionNotificationCallback != nullptr) {
        return verifier::NotImplemented("FltRegisterFilter with name provider or transaction callbacks");
    }
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    LoadedDriver* driver = FindDriver(Driver);
    if (driver == nullptr) {
        // Only drivers that ntsim::LoadFilter loaded have an altitude.
        return STATUS_FLT_NOT_INITIALIZED;
    }
    if (driver->filter != nullptr && driver->filter->state != _FLT_FILTER::State::Unregistered) {
        return STATUS_FLT_INSTANCE_ALTITUDE_COLLISION;
    }
    auto filter = std::make_shared<_FLT_FILTER>();
    filter->driver = Driver;
    filter->registration = *Registration;
    if (Registration->OperationRegistration != nullptr) {
        for (const FLT_OPERATION_REGISTRATION* operation = Registration->OperationRegistration;
             operation->MajorFunction != IRP_MJ_OPERATION_END; ++operation) {
            filter->operations.push_back(*operation);
        }
    }
    filter->name = driver->options.name;
    filter->altitude = driver->options.altitude;
    filter->altitudeValue = AltitudeValue(filter->altitude);
    for (const auto& other : registry.filters) {
        if (other->altitudeValue == filter->altitudeValue) {
            return STATUS_FLT_INSTANCE_ALTITUDE_COLLISION;
        }
    }
    driver->filter = filter;
    registry.filters.push_back(filter);
    *RetFilter = filter.get();
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltStartFiltering(PFLT_FILTER Filter)
{
    if (auto failure = faults::Check("FltStartFiltering")) {
        return *failure;
    }
    auto filter = FilterOf(Filter);
    if (filter == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::vector<std::shared_ptr<_FLT_VOLUME>> volumes;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        if (filter->state != _FLT_FILTER::State::Registered) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        filter->state = _FLT_FILTER::State::Filtering;
        volumes = registry.volumes;
    }
    for (const auto& volume : volumes) {
        SetupInstance(filter, volume, FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT);
    }
    return STATUS_SUCCESS;
}

VOID FLTAPI FltUnregisterFilter(PFLT_FILTER Filter)
{
    auto filter = FilterOf(Filter);
    if (filter == nullptr) {
        verifier::BugCheck(rules::kBadObject, "FltUnregisterFilter of a filter that is not registered");
        return;
    }
    // The filter's communication ports go first: their clients are disconnected (each disconnect
    // notification runs now, while the filter still exists) and ports it left open are reported.
    ports::DisconnectFilterPorts(Filter);
    std::vector<std::shared_ptr<_FLT_INSTANCE>> instances;
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        for (const auto& volume : registry.volumes) {
            for (const auto& instance : volume->instances) {
                if (instance->filter == filter) {
                    instances.push_back(instance);
                }
            }
        }
    }
    for (const auto& instance : instances) {
        TeardownInstance(instance, FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD);
    }
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    filter->state = _FLT_FILTER::State::Unregistered;
    registry.filters.erase(std::remove(registry.filters.begin(), registry.filters.end(), filter),
                           registry.filters.end());
}

VOID FLTAPI FltSetCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    Data->Flags |= FLTFL_CALLBACK_DATA_DIRTY;
}

VOID FLTAPI FltClearCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    Data->Flags &= ~FLTFL_CALLBACK_DATA_DIRTY;
}

BOOLEAN FLTAPI FltIsCallbackDataDirty(PFLT_CALLBACK_DATA Data)
{
    return (Data->Flags & FLTFL_CALLBACK_DATA_DIRTY) != 0;
}

// A self-relative security descriptor whose DACL allows DesiredAccess to Local System
// (S-1-5-18) and to the Administrators alias (S-1-5-32-544), in the published binary layouts.
NTSTATUS FLTAPI FltBuildDefaultSecurityDescriptor(PSECURITY_DESCRIPTOR* SecurityDescriptor, ACCESS_MASK DesiredAccess)
{
    if (auto failure = faults::Check("FltBuildDefaultSecurityDescriptor")) {
        return *failure;
    }
    if (SecurityDescriptor == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    static const UCHAR systemSid[] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0};
    static const UCHAR adminsSid[] = {1, 2, 0, 0, 0, 0, 0, 5, 32, 0, 0, 0, 0x20, 2, 0, 0};
    const size_t headerSize = 20;  // SECURITY_DESCRIPTOR_RELATIVE
    const size_t aclHeaderSize = 8;
    const size_t aceHeaderSize = 8;  // ACE_HEADER + Mask
    const size_t aclSize = aclHeaderSize + aceHeaderSize + sizeof(systemSid) + aceHeaderSize + sizeof(adminsSid);
    const size_t total = headerSize + aclSize;
    auto* bytes = static_cast<UCHAR*>(ExAllocatePoolWithTag(PagedPool, total, kSecurityTag));
    if (bytes == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    std::memset(bytes, 0, total);
    bytes[0] = 1;                               // Revision
    const USHORT control = 0x0004 | 0x8000;     // SE_DACL_PRESENT | SE_SELF_RELATIVE
    std::memcpy(bytes + 2, &control, 2);
    const ULONG daclOffset = headerSize;
    std::memcpy(bytes + 16, &daclOffset, 4);    // Owner, Group and Sacl stay 0
    UCHAR* acl = bytes + headerSize;
    acl[0] = 2;                                 // ACL_REVISION
    const USHORT aclSize16 = static_cast<USHORT>(aclSize);
    const USHORT aceCount = 2;
    std::memcpy(acl + 2, &aclSize16, 2);
    std::memcpy(acl + 4, &aceCount, 2);
    UCHAR* ace = acl + aclHeaderSize;
    for (const auto& [sid, sidSize] : {std::pair{systemSid, sizeof(systemSid)}, std::pair{adminsSid, sizeof(adminsSid)}}) {
        const USHORT aceSize = static_cast<USHORT>(aceHeaderSize + sidSize);
        ace[0] = 0;                             // ACCESS_ALLOWED_ACE_TYPE
        ace[1] = 0;
        std::memcpy(ace + 2, &aceSize, 2);
        std::memcpy(ace + 4, &DesiredAccess, 4);
        std::memcpy(ace + 8, sid, sidSize);
        ace += aceSize;
    }
    *SecurityDescriptor = bytes;
    return STATUS_SUCCESS;
}

VOID FLTAPI FltFreeSecurityDescriptor(PSECURITY_DESCRIPTOR SecurityDescriptor)
{
    ExFreePoolWithTag(SecurityDescriptor, kSecurityTag);
}

}  // extern "C"
