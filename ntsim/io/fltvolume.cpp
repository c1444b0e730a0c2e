// Volumes and instances: mounting a volume under its device, the instances that filters attach to
// it, and the Filter Manager's routines that find volumes and instances and count references on
// them.
#include "iomgr.hpp"

#include <ntsim/sim/object.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <stdexcept>

namespace ntsim::iomgr {

namespace {

// The drive links of mounted volumes, removed with them.
std::map<const _FLT_VOLUME*, ob::SymbolicLink>& DriveLinks()
{
    static auto* links = new std::map<const _FLT_VOLUME*, ob::SymbolicLink>();
    return *links;
}

}  // namespace

Registry& GetRegistry()
{
    static auto* registry = new Registry();
    return *registry;
}

bool NameHasPrefix(std::u16string_view name, std::u16string_view prefix)
{
    return name.size() >= prefix.size() && ob::ObjectNamesEqual(name.substr(0, prefix.size()), prefix);
}

std::shared_ptr<_FLT_VOLUME> FindVolumeByDeviceName(std::u16string_view deviceName)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& volume : registry.volumes) {
        if (ob::ObjectNamesEqual(volume->deviceName, deviceName)) {
            return volume;
        }
    }
    return nullptr;
}

std::shared_ptr<_FLT_VOLUME> VolumeOfDevice(PDEVICE_OBJECT device)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& volume : registry.volumes) {
        if (&volume->device == device) {
            return volume;
        }
    }
    return nullptr;
}

std::shared_ptr<_FLT_FILTER> FilterOf(PFLT_FILTER filter)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& candidate : registry.filters) {
        if (candidate.get() == filter) {
            return candidate;
        }
    }
    return nullptr;
}

std::shared_ptr<_FLT_INSTANCE> InstanceOf(PFLT_INSTANCE instance)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& volume : registry.volumes) {
        for (const auto& candidate : volume->instances) {
            if (candidate.get() == instance) {
                return candidate;
            }
        }
    }
    return nullptr;
}

void InstanceSnapshot::Add(const std::shared_ptr<_FLT_INSTANCE>& instance)
{
    if (spilled_.empty() && count_ < kInline) {
        held_[count_++] = instance;
        return;
    }
    if (spilled_.empty()) {
        spilled_.assign(std::make_move_iterator(held_.begin()), std::make_move_iterator(held_.end()));
    }
    spilled_.push_back(instance);
    count_ += 1;
}

InstanceSnapshot InstancesBelow(_FLT_VOLUME& volume, const _FLT_INSTANCE* below)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    InstanceSnapshot result;
    for (const auto& instance : volume.instances) {
        if (below == nullptr || instance->filter->altitudeValue < below->filter->altitudeValue) {
            result.Add(instance);
        }
    }
    return result;
}

void SetupInstance(const std::shared_ptr<_FLT_FILTER>& filter, const std::shared_ptr<_FLT_VOLUME>& volume,
                   FLT_INSTANCE_SETUP_FLAGS flags)
{
    auto instance = std::make_shared<_FLT_INSTANCE>();
    instance->filter = filter;
    instance->volume = volume;
    for (const FLT_OPERATION_REGISTRATION& operation : filter->operations) {
        instance->pre[operation.MajorFunction] = operation.PreOperation;
        instance->post[operation.MajorFunction] = operation.PostOperation;
        instance->flags[operation.MajorFunction] = operation.Flags;
        instance->registered[operation.MajorFunction] = true;
    }

    NTSTATUS status = STATUS_SUCCESS;
    if (filter->registration.InstanceSetupCallback != nullptr) {
        const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, filter.get(), volume.get(),
                                          instance.get(), nullptr, nullptr};
        verifier::CallbackScope scope("InstanceSetupCallback");
        status = filter->registration.InstanceSetupCallback(&objects, flags, volume->device.DeviceType,
                                                            static_cast<FLT_FILESYSTEM_TYPE>(
                                                                volume->volume->FileSystemType()));
    }
    if (!NT_SUCCESS(status)) {
        return;
    }

    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    auto position = std::find_if(volume->instances.begin(), volume->instances.end(), [&](const auto& other) {
        return other->filter->altitudeValue < filter->altitudeValue;
    });
    volume->instances.insert(position, instance);
}

void TeardownInstance(const std::shared_ptr<_FLT_INSTANCE>& instance, FLT_INSTANCE_TEARDOWN_FLAGS reason)
{
    _FLT_FILTER& filter = *instance->filter;
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, &filter, instance->volume.get(),
                                      instance.get(), nullptr, nullptr};
    if (filter.registration.InstanceTeardownStartCallback != nullptr) {
        verifier::CallbackScope scope("InstanceTeardownStartCallback");
        filter.registration.InstanceTeardownStartCallback(&objects, reason);
    }
    {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        auto& instances = instance->volume->instances;
        instances.erase(std::remove(instances.begin(), instances.end(), instance), instances.end());
    }
    if (filter.registration.InstanceTeardownCompleteCallback != nullptr) {
        verifier::CallbackScope scope("InstanceTeardownCompleteCallback");
        filter.registration.InstanceTeardownCompleteCallback(&objects, reason);
    }
    if (instance->references.load() != 0) {
        verifier::BugCheck(rules::kObjectReferenceLeak,
                           "an instance of filter " + ToUtf8(filter.name) + " was torn down with " +
                               std::to_string(instance->references.load()) +
                               " reference(s) from FltGetVolumeInstanceFromName or FltObjectReference "
                               "not dropped by FltObjectDereference");
    }
}

}  // namespace ntsim::iomgr

namespace ntsim {

using namespace iomgr;

NTSTATUS MountVolume(std::shared_ptr<Volume> volume, std::u16string_view driveLetter)
{
    if (volume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (FindVolumeByDeviceName(volume->DeviceName()) != nullptr) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    auto mounted = std::make_shared<_FLT_VOLUME>();
    mounted->volume = volume;
    mounted->deviceName = volume->DeviceName();
    mounted->device.Type = IO_TYPE_DEVICE;
    mounted->device.Size = sizeof(DEVICE_OBJECT);
    mounted->device.DeviceType = volume->DeviceType();
    mounted->device.Flags = DO_DEVICE_HAS_NAME;
    mounted->device.Characteristics = volume->DeviceType() == FILE_DEVICE_NETWORK_FILE_SYSTEM ? FILE_REMOTE_DEVICE : 0;
    mounted->device.Vpb = &mounted->vpb;
    mounted->device.DeviceExtension = mounted.get();
    mounted->vpb.Type = IO_TYPE_VPB;
    mounted->vpb.Size = sizeof(VPB);
    mounted->vpb.Flags = VPB_MOUNTED;
    mounted->vpb.DeviceObject = &mounted->device;
    mounted->vpb.RealDevice = &mounted->device;

    Registry& registry = GetRegistry();
    std::vector<std::shared_ptr<_FLT_FILTER>> filtering;
    {
        std::lock_guard lock(registry.mutex);
        if (!driveLetter.empty()) {
            mounted->driveLink = u"\\??\\" + std::u16string(driveLetter);
            try {
                DriveLinks().emplace(mounted.get(), ob::CreateSymbolicLink(mounted->driveLink, mounted->deviceName));
            } catch (const std::invalid_argument&) {
                return STATUS_OBJECT_NAME_COLLISION;
            }
        }
        registry.volumes.push_back(mounted);
        for (const auto& filter : registry.filters) {
            if (filter->state == _FLT_FILTER::State::Filtering) {
                filtering.push_back(filter);
            }
        }
    }
    std::sort(filtering.begin(), filtering.end(),
              [](const auto& a, const auto& b) { return a->altitudeValue > b->altitudeValue; });
    for (const auto& filter : filtering) {
        SetupInstance(filter, mounted,
                      FLTFL_INSTANCE_SETUP_AUTOMATIC_ATTACHMENT | FLTFL_INSTANCE_SETUP_NEWLY_MOUNTED_VOLUME);
    }
    return STATUS_SUCCESS;
}

NTSTATUS DismountVolume(std::u16string_view deviceName)
{
    auto volume = FindVolumeByDeviceName(deviceName);
    if (volume == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }
    std::vector<std::shared_ptr<_FLT_INSTANCE>> instances;
    {
        std::lock_guard lock(GetRegistry().mutex);
        instances = volume->instances;
    }
    for (const auto& instance : instances) {
        TeardownInstance(instance, FLTFL_INSTANCE_TEARDOWN_VOLUME_DISMOUNT);
    }
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    volume->mounted = false;
    volume->vpb.Flags &= ~VPB_MOUNTED;
    DriveLinks().erase(volume.get());
    registry.volumes.erase(std::remove(registry.volumes.begin(), registry.volumes.end(), volume),
                           registry.volumes.end());
    return STATUS_SUCCESS;
}

PDEVICE_OBJECT GetVolumeDeviceObject(std::u16string_view deviceName)
{
    auto volume = FindVolumeByDeviceName(deviceName);
    return volume != nullptr ? &volume->device : nullptr;
}

}  // namespace ntsim

using namespace ntsim;
using namespace ntsim::iomgr;

namespace {

// Which kind of Filter Manager object a pointer is, if any.
enum class FltObjectKind { None, Filter, Volume, Instance };

FltObjectKind KindOf(PVOID object, std::atomic<long>** references)
{
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& filter : registry.filters) {
        if (filter.get() == object) {
            *references = &filter->references;
            return FltObjectKind::Filter;
        }
    }
    for (const auto& volume : registry.volumes) {
        if (volume.get() == object) {
            *references = &volume->references;
            return FltObjectKind::Volume;
        }
        for (const auto& instance : volume->instances) {
            if (instance.get() == object) {
                *references = &instance->references;
                return FltObjectKind::Instance;
            }
        }
    }
    return FltObjectKind::None;
}

// One of the objects an instance stands on (its filter or its volume), with a reference for the
// caller that FltObjectDereference drops.
template <typename Object>
NTSTATUS ReferenceOfInstance(PFLT_INSTANCE Instance, std::shared_ptr<Object> _FLT_INSTANCE::*object, Object** result)
{
    auto instance = InstanceOf(Instance);
    if (instance == nullptr || result == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    Object& referenced = *((*instance).*object);
    ++referenced.references;
    *result = &referenced;
    return STATUS_SUCCESS;
}

}  // namespace

extern "C" {

NTSTATUS FLTAPI FltObjectReference(PVOID FltObject)
{
    std::atomic<long>* references = nullptr;
    if (KindOf(FltObject, &references) == FltObjectKind::None) {
        return STATUS_FLT_DELETING_OBJECT;
    }
    ++*references;
    return STATUS_SUCCESS;
}

VOID FLTAPI FltObjectDereference(PVOID FltObject)
{
    std::atomic<long>* references = nullptr;
    FltObjectKind kind = KindOf(FltObject, &references);
    if (kind == FltObjectKind::None) {
        verifier::BugCheck(rules::kBadObject, "FltObjectDereference of a pointer that is no live filter, volume or "
                                              "instance");
        return;
    }
    if (references->load() <= 0) {
        verifier::BugCheck(rules::kBadObject, "FltObjectDereference without a matching reference");
        return;
    }
    --*references;
    if (kind == FltObjectKind::Volume) {
        Registry& registry = GetRegistry();
        std::lock_guard lock(registry.mutex);
        for (const auto& filter : registry.filters) {
            auto held = filter->volumeReferences.find(static_cast<const _FLT_VOLUME*>(FltObject));
            if (held != filter->volumeReferences.end()) {
                if (--held->second == 0) {
                    filter->volumeReferences.erase(held);
                }
                break;
            }
        }
    }
}

NTSTATUS FLTAPI FltGetVolumeName(PFLT_VOLUME Volume, PUNICODE_STRING VolumeName, PULONG BufferSizeNeeded)
{
    if (auto failure = faults::Check("FltGetVolumeName")) {
        return *failure;
    }
    if (Volume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    const std::u16string& name = Volume->deviceName;
    const ULONG size = static_cast<ULONG>(name.size() * sizeof(WCHAR));
    if (VolumeName == nullptr || VolumeName->MaximumLength < size) {
        if (BufferSizeNeeded != nullptr) {
            *BufferSizeNeeded = size;
        }
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(VolumeName->Buffer, name.data(), size);
    VolumeName->Length = static_cast<USHORT>(size);
    if (BufferSizeNeeded != nullptr) {
        *BufferSizeNeeded = size;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeFromName(PFLT_FILTER Filter, PCUNICODE_STRING VolumeName, PFLT_VOLUME* RetVolume)
{
    if (auto failure = faults::Check("FltGetVolumeFromName")) {
        return *failure;
    }
    auto filter = FilterOf(Filter);
    if (filter == nullptr || VolumeName == nullptr || RetVolume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::u16string name(View(*VolumeName));
    while (name.size() > 1 && name.back() == u'\\') {
        name.pop_back();
    }
    // "C:" and "\DosDevices\C:" are other spellings of "\??\C:".
    if (name.size() == 2 && name[1] == u':') {
        name = u"\\??\\" + name;
    } else if (NameHasPrefix(name, u"\\DosDevices\\")) {
        name = u"\\??\\" + name.substr(12);
    }
    std::u16string resolved;
    if (!name.empty() && name[0] == u'\\') {
        NTSTATUS status = ob::ResolveSymbolicLinks(name, &resolved);
        if (!NT_SUCCESS(status)) {
            return STATUS_FLT_VOLUME_NOT_FOUND;
        }
    } else {
        return STATUS_INVALID_PARAMETER;
    }
    auto volume = FindVolumeByDeviceName(resolved);
    if (volume == nullptr) {
        return STATUS_FLT_VOLUME_NOT_FOUND;
    }
    ++volume->references;
    {
        std::lock_guard lock(GetRegistry().mutex);
        ++filter->volumeReferences[volume.get()];
    }
    *RetVolume = volume.get();
    return STATUS_SUCCESS;
}

NTSTATUS FLTAPI FltGetVolumeInstanceFromName(PFLT_FILTER Filter, PFLT_VOLUME Volume, PCUNICODE_STRING InstanceName,
                                             PFLT_INSTANCE* RetInstance)
{
    if (auto failure = faults::Check("FltGetVolumeInstanceFromName")) {
        return *failure;
    }
    if (Filter == nullptr || Volume == nullptr || RetInstance == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (InstanceName != nullptr && InstanceName->Length != 0) {
        // Instances have no names here: one filter has at most one instance on a volume.
        return verifier::NotImplemented("FltGetVolumeInstanceFromName with an instance name");
    }
    Registry& registry = GetRegistry();
    std::lock_guard lock(registry.mutex);
    for (const auto& instance : Volume->instances) {
        if (instance->filter.get() == Filter) {
            ++instance->references;
            *RetInstance = instance.get();
            return STATUS_SUCCESS;
        }
    }
    return STATUS_FLT_INSTANCE_NOT_FOUND;
}

NTSTATUS FLTAPI FltGetVolumeFromInstance(PFLT_INSTANCE Instance, PFLT_VOLUME* RetVolume)
{
    return ReferenceOfInstance(Instance, &_FLT_INSTANCE::volume, RetVolume);
}

NTSTATUS FLTAPI FltGetFilterFromInstance(PFLT_INSTANCE Instance, PFLT_FILTER* RetFilter)
{
    return ReferenceOfInstance(Instance, &_FLT_INSTANCE::filter, RetFilter);
}

}  // extern "C"
