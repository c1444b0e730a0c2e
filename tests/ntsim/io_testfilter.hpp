// A small minifilter for the tests of the I/O manager and the Filter Manager, and a fixture with
// an NTFS volume mounted as C: and a user process to issue I/O.
//
// TestFilter<Slot> is one filter driver per slot (so two can be loaded at once at different
// altitudes). Every callback appends an Event to one shared log; what a callback returns is the
// test's to script (Script::pre / Script::post), and by default it is
// FLT_PREOP_SUCCESS_WITH_CALLBACK / FLT_POSTOP_FINISHED_PROCESSING.
#pragma once

#include <gtest/gtest.h>

#include <fltKernel.h>
#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <userbuffer.hpp>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace iotest {

struct Event {
    char filter = '?';
    bool post = false;
    UCHAR major = 0;
    ULONG flags = 0;           // the callback data's flags
    UCHAR operationFlags = 0;  // Iopb->OperationFlags
    ULONG irpFlags = 0;
    std::string fileName;      // the target file object's FileName as the callback saw it
    NTSTATUS status = 0;       // IoStatus.Status, for post-callbacks
    ULONG_PTR information = 0; // IoStatus.Information, for post-callbacks
    PVOID context = nullptr;   // the completion context a post-callback received
    KPROCESSOR_MODE requestorMode = KernelMode;
    HANDLE threadId = nullptr;   // the thread the callback ran in
    HANDLE processId = nullptr;  // and its process
    KIRQL irql = PASSIVE_LEVEL;  // the IRQL it ran at
    PETHREAD issuer = nullptr;   // the callback data's Thread: the thread that issued the operation

    bool fastIo() const { return (flags & FLTFL_CALLBACK_DATA_FAST_IO_OPERATION) != 0; }
};

inline std::vector<Event>& Events()
{
    static std::vector<Event> events;
    return events;
}

inline std::mutex& EventsMutex()
{
    static std::mutex mutex;
    return mutex;
}

// The events of one major function, in order.
inline std::vector<Event> EventsOf(UCHAR major)
{
    std::lock_guard lock(EventsMutex());
    std::vector<Event> result;
    for (const Event& event : Events()) {
        if (event.major == major) {
            result.push_back(event);
        }
    }
    return result;
}

// "A pre", "B post", ... of one major function, in order.
inline std::vector<std::string> Sequence(UCHAR major)
{
    std::vector<std::string> result;
    for (const Event& event : EventsOf(major)) {
        result.push_back(std::string(1, event.filter) + (event.post ? " post" : " pre"));
    }
    return result;
}

// The majors seen by one filter, in order ("pre" only).
inline std::vector<UCHAR> MajorsSeenBy(char filter)
{
    std::lock_guard lock(EventsMutex());
    std::vector<UCHAR> result;
    for (const Event& event : Events()) {
        if (event.filter == filter && !event.post) {
            result.push_back(event.major);
        }
    }
    return result;
}

struct Script {
    std::function<FLT_PREOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)> pre;
    std::function<void(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID)> post;
    // What the post-callback returns, asked once post has run (FLT_POSTOP_FINISHED_PROCESSING when unset).
    std::function<FLT_POSTOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA)> postResult;
    std::function<NTSTATUS(DEVICE_TYPE, FLT_FILESYSTEM_TYPE)> setup;
    std::vector<std::string> lifecycle;  // "setup", "teardown start <reason>", "teardown complete <reason>"
    PFLT_FILTER filter = nullptr;
};

inline Event Record(char filter, bool post, PFLT_CALLBACK_DATA data, PVOID context)
{
    Event event;
    event.filter = filter;
    event.post = post;
    event.major = data->Iopb->MajorFunction;
    event.flags = data->Flags;
    event.operationFlags = data->Iopb->OperationFlags;
    event.irpFlags = data->Iopb->IrpFlags;
    if (data->Iopb->TargetFileObject != nullptr) {
        event.fileName = ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName);
    }
    event.status = data->IoStatus.Status;
    event.information = data->IoStatus.Information;
    event.context = context;
    event.requestorMode = data->RequestorMode;
    event.threadId = PsGetCurrentThreadId();
    event.processId = PsGetCurrentProcessId();
    event.irql = KeGetCurrentIrql();
    event.issuer = data->Thread;
    std::lock_guard lock(EventsMutex());
    Events().push_back(event);
    return event;
}

// Replaces the create's name by target and sets STATUS_REPARSE with IO_REPARSE, as a filter that
// redirects an open does; the buffer handed over is untagged pool that the I/O manager frees.
inline void Redirect(PFLT_CALLBACK_DATA data, std::u16string_view target)
{
    PFILE_OBJECT fileObject = data->Iopb->TargetFileObject;
    const USHORT bytes = static_cast<USHORT>(target.size() * sizeof(WCHAR));
    auto* buffer = static_cast<PWCH>(ExAllocatePool(NonPagedPoolNx, bytes));
    ASSERT_NE(buffer, nullptr);
    std::memcpy(buffer, target.data(), bytes);
    ExFreePoolWithTag(fileObject->FileName.Buffer, 0);
    fileObject->FileName.Buffer = buffer;
    fileObject->FileName.Length = bytes;
    fileObject->FileName.MaximumLength = bytes;
    data->IoStatus.Status = STATUS_REPARSE;
    data->IoStatus.Information = IO_REPARSE;
}

template <int Slot>
struct TestFilter {
    static constexpr char kName = static_cast<char>('A' + Slot);

    static Script& script()
    {
        static Script instance;
        return instance;
    }

    static FLT_PREOP_CALLBACK_STATUS FLTAPI Pre(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                PVOID* context)
    {
        Record(kName, false, data, nullptr);
        if (script().pre) {
            return script().pre(data, objects, context);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    }

    static FLT_POSTOP_CALLBACK_STATUS FLTAPI Post(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects,
                                                  PVOID context, FLT_POST_OPERATION_FLAGS)
    {
        Record(kName, true, data, context);
        if (script().post) {
            script().post(data, objects, context);
        }
        return script().postResult ? script().postResult(data) : FLT_POSTOP_FINISHED_PROCESSING;
    }

    static NTSTATUS FLTAPI Setup(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE deviceType,
                                 FLT_FILESYSTEM_TYPE fileSystemType)
    {
        script().lifecycle.push_back("setup " + std::to_string(deviceType) + " " + std::to_string(fileSystemType));
        return script().setup ? script().setup(deviceType, fileSystemType) : STATUS_SUCCESS;
    }

    static NTSTATUS FLTAPI QueryTeardown(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_QUERY_TEARDOWN_FLAGS)
    {
        script().lifecycle.push_back("query teardown");
        return STATUS_SUCCESS;
    }

    static VOID FLTAPI TeardownStart(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS reason)
    {
        script().lifecycle.push_back("teardown start " + std::to_string(reason));
    }

    static VOID FLTAPI TeardownComplete(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_TEARDOWN_FLAGS reason)
    {
        script().lifecycle.push_back("teardown complete " + std::to_string(reason));
    }

    static NTSTATUS FLTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
    {
        FltUnregisterFilter(script().filter);
        script().filter = nullptr;
        return STATUS_SUCCESS;
    }

    static constexpr auto kOperations = ntsim::RegisterEachOperation(ntsim::kEveryOperation, Pre, Post);

    static constexpr FLT_REGISTRATION kRegistration = {
        .Size = sizeof(FLT_REGISTRATION),
        .Version = FLT_REGISTRATION_VERSION,
        .Flags = 0,
        .ContextRegistration = nullptr,
        .OperationRegistration = kOperations.entries,
        .FilterUnloadCallback = Unload,
        .InstanceSetupCallback = Setup,
        .InstanceQueryTeardownCallback = QueryTeardown,
        .InstanceTeardownStartCallback = TeardownStart,
        .InstanceTeardownCompleteCallback = TeardownComplete,
    };

    static NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        return ntsim::RegisterAndStartFiltering(driver, kRegistration, &script().filter);
    }

    static std::u16string Name() { return std::u16string(u"TestFilter") + static_cast<char16_t>(u'A' + Slot); }

    static NTSTATUS Load(std::u16string altitude)
    {
        ntsim::FilterLoadOptions options;
        options.name = Name();
        options.altitude = std::move(altitude);
        return ntsim::LoadFilter(DriverEntry, options);
    }

    // The filter's instance on a volume, referenced (FltObjectDereference it).
    static PFLT_INSTANCE Instance(std::u16string_view volumeName)
    {
        ntsim::UnicodeStringHolder name(volumeName);
        PFLT_VOLUME volume = nullptr;
        if (!NT_SUCCESS(FltGetVolumeFromName(script().filter, name.get(), &volume))) {
            return nullptr;
        }
        PFLT_INSTANCE instance = nullptr;
        NTSTATUS status = FltGetVolumeInstanceFromName(script().filter, volume, nullptr, &instance);
        FltObjectDereference(volume);
        return NT_SUCCESS(status) ? instance : nullptr;
    }

    static void Reset() { script() = Script(); }
};

using FilterA = TestFilter<0>;
using FilterB = TestFilter<1>;

struct Opened {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    HANDLE handle = nullptr;
    ULONG_PTR information = 0;
};

// An NTFS volume as C: (\Device\HarddiskVolume2), and the test thread attached to a user process.
class IoTest : public ::testing::Test {
protected:
    static constexpr const char16_t* kDevice = u"\\Device\\HarddiskVolume2";

    void SetUp() override
    {
        FilterA::Reset();
        FilterB::Reset();
        {
            std::lock_guard lock(EventsMutex());
            Events().clear();
        }
        volume_ = ntsim::CreateNtfsVolume(kDevice);
        ASSERT_EQ(ntsim::MountVolume(volume_, u"C:"), STATUS_SUCCESS);
        process_ = ntsim::CreateProcess();
        attach_ = std::make_unique<ntsim::AttachThread>(process_);
    }

    void TearDown() override
    {
        for (const std::u16string& name : ntsim::LoadedFilters()) {
            EXPECT_EQ(ntsim::UnloadFilter(name), STATUS_SUCCESS);
        }
        attach_.reset();
        process_.reset();
        EXPECT_EQ(ntsim::DismountVolume(kDevice), STATUS_SUCCESS);
        EXPECT_EQ(volume_->OpenCount(), 0u) << "a file object was never closed";
    }

    static void ClearEvents()
    {
        std::lock_guard lock(EventsMutex());
        Events().clear();
    }

    Opened Open(std::u16string_view path, ACCESS_MASK access = FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, ULONG disposition = FILE_OPEN_IF,
                ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, HANDLE root = nullptr)
    {
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, root, nullptr);
        IO_STATUS_BLOCK ioStatus{};
        Opened opened;
        opened.status = NtCreateFile(&opened.handle, access, &attributes, &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                                     share, disposition, options, nullptr, 0);
        opened.information = ioStatus.Information;
        return opened;
    }

    // Opens through FltCreateFileEx at the instance of filter A (a kernel handle; *fileObject, if
    // asked for, is referenced).
    NTSTATUS OpenBelowA(std::u16string_view path, ACCESS_MASK access, ULONG share, ULONG flags, HANDLE* handle,
                        PFILE_OBJECT* fileObject, ULONG disposition = FILE_OPEN)
    {
        PFLT_INSTANCE instance = FilterA::Instance(u"C:");
        EXPECT_NE(instance, nullptr);
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        IO_STATUS_BLOCK ioStatus{};
        NTSTATUS status = FltCreateFileEx(FilterA::script().filter, instance, handle, fileObject, access, &attributes,
                                          &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL, share, disposition, 0, nullptr, 0,
                                          flags);
        FltObjectDereference(instance);
        return status;
    }

    NTSTATUS Write(HANDLE handle, std::string_view data, LONGLONG offset = -1)
    {
        IO_STATUS_BLOCK ioStatus{};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        return NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, const_cast<char*>(data.data()),
                           static_cast<ULONG>(data.size()), offset < 0 ? nullptr : &at, nullptr);
    }

    std::shared_ptr<ntsim::MemoryVolume> volume_;
    std::shared_ptr<ntsim::Process> process_;
    std::unique_ptr<ntsim::AttachThread> attach_;
};

}  // namespace iotest
