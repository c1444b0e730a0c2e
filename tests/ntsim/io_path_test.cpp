// The I/O path as filters see it: file object life, opens below a filter, deletes from the top,
// access mapping, relative opens, names, listings, flushes, and filter and instance life.
#include "io_testfilter.hpp"

#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

namespace iotest {
namespace {

using Strings = std::vector<std::string>;
using Majors = std::vector<UCHAR>;

class IoPathTest : public IoTest {};

TEST_F(IoPathTest, CleanupComesAtTheLastHandleAndCloseAtTheLastReference)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened file = Open(u"\\??\\C:\\life.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "data"), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ASSERT_NE(fileObject, nullptr);
    ClearEvents();

    ASSERT_EQ(NtClose(file.handle), STATUS_SUCCESS);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_CLEANUP}));
    EXPECT_EQ(volume_->HandleCount(u"\\life.txt"), 0u);

    // The cache manager's write-back may still come; a caller's cached write may not.
    ULONG written = 0;
    EXPECT_EQ(ntsim::IoWriteFile(fileObject, 0, 4, "page", {.irpFlags = IRP_PAGING_IO | IRP_NOCACHE}, &written),
              STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\life.txt"), "page");
    EXPECT_EQ(ntsim::IoWriteFile(fileObject, 0, 4, "late", {}, &written), STATUS_FILE_CLOSED);
    EXPECT_EQ(EventsOf(IRP_MJ_WRITE).front().irpFlags & (IRP_PAGING_IO | IRP_NOCACHE), ULONG{IRP_PAGING_IO | IRP_NOCACHE});
    EXPECT_TRUE(EventsOf(IRP_MJ_CLOSE).empty());

    ObDereferenceObject(fileObject);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_CLEANUP, IRP_MJ_WRITE, IRP_MJ_WRITE, IRP_MJ_CLOSE}));
    EXPECT_EQ(volume_->OpenCount(), 0u);
}

TEST_F(IoPathTest, OpenAtAnInstanceIsSeenOnlyByTheInstancesBelowIt)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    volume_->SeedFile(u"\\below.txt", "0123456789");

    HANDLE handle = nullptr;
    PFILE_OBJECT fileObject = nullptr;
    ASSERT_EQ(OpenBelowA(u"\\Device\\HarddiskVolume2\\below.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                         FILE_SHARE_READ, 0, &handle, &fileObject),
              STATUS_SUCCESS);
    ASSERT_NE(fileObject, nullptr);
    char buffer[4] = {};
    LARGE_INTEGER offset;
    offset.QuadPart = 6;
    ULONG read = 0;
    PFLT_INSTANCE instance = FilterA::Instance(u"\\Device\\HarddiskVolume2");
    ASSERT_EQ(FltReadFile(instance, fileObject, &offset, 4, buffer, 0, &read, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, read), "6789");
    offset.QuadPart = 2;
    ULONG written = 0;
    ASSERT_EQ(FltWriteFile(instance, fileObject, &offset, 2, const_cast<char*>("AB"), 0, &written, nullptr, nullptr),
              STATUS_SUCCESS);
    FltObjectDereference(instance);
    EXPECT_EQ(volume_->Content(u"\\below.txt"), "01AB456789");
    ASSERT_EQ(FltClose(handle), STATUS_SUCCESS);
    ObDereferenceObject(fileObject);

    EXPECT_TRUE(MajorsSeenBy('A').empty()) << "the calling filter saw its own I/O";
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    for (const Event& event : EventsOf(IRP_MJ_CREATE)) {
        EXPECT_TRUE((event.flags & FLTFL_CALLBACK_DATA_GENERATED_IO) != 0);
        EXPECT_EQ(event.requestorMode, KernelMode);
    }
}

TEST_F(IoPathTest, ZwDeleteFileEntersAtTheTopAsAKernelModeDeleteOnCloseOpen)
{
    volume_->SeedFile(u"\\doomed.txt", "x");
    static ACCESS_MASK desiredAccess;
    static ULONG options;
    static USHORT shareAccess;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            desiredAccess = data->Iopb->Parameters.Create.SecurityContext->DesiredAccess;
            options = data->Iopb->Parameters.Create.Options;
            shareAccess = data->Iopb->Parameters.Create.ShareAccess;
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ntsim::UnicodeStringHolder name(u"\\??\\C:\\doomed.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);

    ASSERT_EQ(ZwDeleteFile(&attributes), STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\doomed.txt"));
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    EXPECT_EQ(EventsOf(IRP_MJ_CREATE).front().requestorMode, KernelMode);
    EXPECT_EQ(desiredAccess, ACCESS_MASK{DELETE});
    EXPECT_EQ(options >> 24, ULONG{FILE_OPEN});
    EXPECT_EQ(options & FILE_VALID_OPTION_FLAGS, ULONG{FILE_DELETE_ON_CLOSE});
    EXPECT_EQ(shareAccess, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);

    EXPECT_EQ(ZwDeleteFile(&attributes), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(IoPathTest, GenericRightsAreMappedBeforeTheFiltersSeeTheCreate)
{
    static std::vector<ACCESS_MASK> seen;
    seen.clear();
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            seen.push_back(data->Iopb->Parameters.Create.SecurityContext->DesiredAccess);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    for (ACCESS_MASK generic : {GENERIC_READ, GENERIC_WRITE, GENERIC_EXECUTE, GENERIC_ALL}) {
        Opened file = Open(u"\\??\\C:\\generic.txt", generic | SYNCHRONIZE);
        ASSERT_EQ(file.status, STATUS_SUCCESS);
        NtClose(file.handle);
    }
    EXPECT_EQ(seen, (std::vector<ACCESS_MASK>{0x120089, 0x120116, 0x1200A0, 0x1F01FF}));
}

TEST_F(IoPathTest, RelativeOpenCarriesTheRelatedFileObjectAndItsOwnName)
{
    volume_->SeedFile(u"\\dir\\child.txt", "child");
    static PFILE_OBJECT related;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            related = data->Iopb->TargetFileObject->RelatedFileObject;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened directory = Open(u"\\??\\C:\\dir", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            FILE_OPEN, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(directory.status, STATUS_SUCCESS);
    PFILE_OBJECT directoryObject = ntsim::ReferenceFileObjectByHandle(directory.handle);
    ClearEvents();

    Opened child = Open(u"child.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT,
                        directory.handle);
    ASSERT_EQ(child.status, STATUS_SUCCESS);
    EXPECT_EQ(EventsOf(IRP_MJ_CREATE).front().fileName, "child.txt");
    EXPECT_EQ(related, directoryObject);
    char buffer[8] = {};
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtReadFile(child.handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, ioStatus.Information), "child");
    EXPECT_EQ(Open(u"\\child.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN, 0, directory.handle).status,
              STATUS_OBJECT_NAME_INVALID);
    NtClose(child.handle);
    NtClose(directory.handle);
    ObDereferenceObject(directoryObject);
}

TEST_F(IoPathTest, NormalizedNamesExpandShortNamesAndKeepTheLastComponentOfAFileNotYetThere)
{
    volume_->SeedFile(u"\\Long Directory Name\\Long File Name.txt", "x");
    const std::u16string shortDirectory = volume_->ShortName(u"\\Long Directory Name");
    const std::u16string shortFile = volume_->ShortName(u"\\Long Directory Name\\Long File Name.txt");
    ASSERT_FALSE(shortDirectory.empty());
    ASSERT_FALSE(shortFile.empty());
    static std::vector<std::pair<NTSTATUS, std::string>> normalized;
    static std::vector<std::string> opened;
    normalized.clear();
    opened.clear();
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        PFLT_FILE_NAME_INFORMATION information = nullptr;
        NTSTATUS status =
            FltGetFileNameInformation(data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_DEFAULT, &information);
        normalized.emplace_back(status, NT_SUCCESS(status) ? ntsim::ToUtf8(information->Name) : "");
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(FltParseFileNameInformation(information), STATUS_SUCCESS);
            EXPECT_EQ(ntsim::ToUtf8(information->Volume), "\\Device\\HarddiskVolume2");
            EXPECT_EQ(ntsim::ToUtf8(information->ParentDir), "\\Long Directory Name\\");
            EXPECT_EQ(ntsim::ToUtf8(information->Extension), "txt");
            FltReleaseFileNameInformation(information);
        }
        if (NT_SUCCESS(FltGetFileNameInformation(data, FLT_FILE_NAME_OPENED, &information))) {
            opened.push_back(ntsim::ToUtf8(information->Name));
            FltReleaseFileNameInformation(information);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);

    const std::u16string shortPath = u"\\??\\C:\\" + shortDirectory + u"\\" + shortFile;
    Opened file = Open(shortPath, FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    NtClose(file.handle);
    // A file about to be made: the parent's short name is expanded, the new name kept as given,
    // whatever the disposition then makes of it.
    Opened created = Open(u"\\??\\C:\\" + shortDirectory + u"\\New File.txt", FILE_GENERIC_WRITE, 0, FILE_CREATE);
    ASSERT_EQ(created.status, STATUS_SUCCESS);
    NtClose(created.handle);
    EXPECT_EQ(Open(u"\\??\\C:\\" + shortDirectory + u"\\missing.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN)
                  .status,
              STATUS_OBJECT_NAME_NOT_FOUND);

    ASSERT_EQ(normalized.size(), 3u);
    const char* lastComponents[] = {"Long File Name.txt", "New File.txt", "missing.txt"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(normalized[i], std::make_pair(STATUS_SUCCESS, "\\Device\\HarddiskVolume2\\Long Directory Name\\" +
                                                                    std::string(lastComponents[i])));
    }
    ASSERT_EQ(opened.size(), 3u);
    EXPECT_EQ(opened[0], "\\Device\\HarddiskVolume2" + ntsim::ToUtf8(shortPath.substr(6)));
}

TEST_F(IoPathTest, NormalizedNameOfAFileToCreateFailsWhenItsParentIsMissing)
{
    volume_->SeedFile(u"\\plain.txt", "x");
    volume_->SeedDirectory(u"\\Long Directory Name");
    static std::vector<std::pair<NTSTATUS, std::string>> normalized;
    normalized.clear();
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            PFLT_FILE_NAME_INFORMATION information = nullptr;
            NTSTATUS status = FltGetFileNameInformation(data, FLT_FILE_NAME_NORMALIZED, &information);
            normalized.emplace_back(status, NT_SUCCESS(status) ? ntsim::ToUtf8(information->Name) : "");
            if (NT_SUCCESS(status)) {
                FltReleaseFileNameInformation(information);
            }
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    const std::u16string shortDirectory = volume_->ShortName(u"\\Long Directory Name");

    EXPECT_EQ(Open(u"\\??\\C:\\nowhere\\new.txt", FILE_GENERIC_WRITE, 0, FILE_CREATE).status,
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\??\\C:\\" + shortDirectory + u"\\nowhere\\deeper\\new.txt", FILE_GENERIC_WRITE, 0, FILE_CREATE)
                  .status,
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\??\\C:\\plain.txt\\new.txt", FILE_GENERIC_WRITE, 0, FILE_CREATE).status,
              STATUS_OBJECT_PATH_NOT_FOUND);
    // At the root the parent always exists.
    Opened atRoot = Open(u"\\??\\C:\\NEW~1.TXT", FILE_GENERIC_WRITE, 0, FILE_CREATE);
    ASSERT_EQ(atRoot.status, STATUS_SUCCESS);
    NtClose(atRoot.handle);

    ASSERT_EQ(normalized.size(), 4u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(normalized[i].first, STATUS_OBJECT_PATH_NOT_FOUND) << i;
    }
    EXPECT_EQ(normalized[3], std::make_pair(STATUS_SUCCESS, std::string("\\Device\\HarddiskVolume2\\NEW~1.TXT")));
}

TEST_F(IoPathTest, DirectoryListingPassesThroughTheFilterWithItsPatternAndFlags)
{
    for (const char16_t* name : {u"\\list\\a.txt", u"\\list\\b.txt", u"\\list\\c.log"}) {
        volume_->SeedFile(name, "x");
    }
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened directory = Open(u"\\??\\C:\\list", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN,
                            FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(directory.status, STATUS_SUCCESS);
    ntsim::UnicodeStringHolder pattern(u"*.txt");
    std::vector<std::string> names;
    NTSTATUS status = STATUS_SUCCESS;
    UserBuffer buffer(256);
    for (bool first = true; status == STATUS_SUCCESS; first = false) {
        IO_STATUS_BLOCK ioStatus{};
        status = NtQueryDirectoryFile(directory.handle, nullptr, nullptr, nullptr, &ioStatus, buffer.data(),
                                      buffer.size(), FileNamesInformation, TRUE, first ? pattern.get() : nullptr,
                                      first);
        if (status == STATUS_SUCCESS) {
            auto* entry = buffer.as<FILE_NAMES_INFORMATION>();
            names.push_back(ntsim::ToUtf8(
                std::u16string_view(reinterpret_cast<char16_t*>(entry->FileName), entry->FileNameLength / 2)));
        }
    }
    EXPECT_EQ(status, STATUS_NO_MORE_FILES);
    EXPECT_EQ(names, (Strings{"a.txt", "b.txt"}));
    std::vector<Event> queries = EventsOf(IRP_MJ_DIRECTORY_CONTROL);
    ASSERT_EQ(queries.size(), 6u);
    EXPECT_EQ(queries[0].operationFlags, SL_RESTART_SCAN | SL_RETURN_SINGLE_ENTRY);
    EXPECT_EQ(queries[2].operationFlags, SL_RETURN_SINGLE_ENTRY);
    EXPECT_EQ(queries[5].status, STATUS_NO_MORE_FILES);
    NtClose(directory.handle);
}

TEST_F(IoPathTest, RefusedAcquireForCacheFlushFailsTheFlushWithoutARelease)
{
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_ACQUIRE_FOR_CC_FLUSH) {
            data->IoStatus.Status = STATUS_ACCESS_DENIED;
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened file = Open(u"\\??\\C:\\flush.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ClearEvents();
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(NtFlushBuffersFile(file.handle, &ioStatus), STATUS_ACCESS_DENIED);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_FLUSH_BUFFERS, IRP_MJ_ACQUIRE_FOR_CC_FLUSH}));
    NtClose(file.handle);
}

TEST_F(IoPathTest, InstancesFollowTheVolumeTypesAndEndWithTeardown)
{
    FilterA::script().setup = [](DEVICE_TYPE, FLT_FILESYSTEM_TYPE type) {
        return type == FLT_FSTYPE_NTFS ? STATUS_SUCCESS : STATUS_FLT_DO_NOT_ATTACH;
    };
    ASSERT_EQ(ntsim::MountVolume(ntsim::CreateFatVolume(u"\\Device\\HarddiskVolume3"), u"D:"), STATUS_SUCCESS);
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened onFat = Open(u"\\??\\D:\\fat.txt");
    ASSERT_EQ(onFat.status, STATUS_SUCCESS);
    NtClose(onFat.handle);
    EXPECT_TRUE(MajorsSeenBy('A').empty()) << "a refused volume has no instance";
    Opened onNtfs = Open(u"\\??\\C:\\ntfs.txt");
    NtClose(onNtfs.handle);
    EXPECT_FALSE(MajorsSeenBy('A').empty());

    ASSERT_EQ(ntsim::UnloadFilter(FilterA::Name()), STATUS_SUCCESS);
    std::vector<std::string> lifecycle = FilterA::script().lifecycle;
    ASSERT_EQ(lifecycle.size(), 4u);
    EXPECT_EQ(std::count(lifecycle.begin(), lifecycle.begin() + 2, "setup 8 2"), 1);
    EXPECT_EQ(std::count(lifecycle.begin(), lifecycle.begin() + 2, "setup 8 3"), 1);
    EXPECT_EQ(lifecycle[2], "teardown start " + std::to_string(FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD));
    EXPECT_EQ(lifecycle[3], "teardown complete " + std::to_string(FLTFL_INSTANCE_TEARDOWN_FILTER_UNLOAD));
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume3"), STATUS_SUCCESS);
}

TEST_F(IoPathTest, UnloadReportsPoolAndReferencesTheDriverLeftBehind)
{
    ntsim::FilterLoadOptions options;
    options.name = FilterA::Name();
    options.altitude = u"370000";
    const ULONG tag = ntsim::pool::TagFromText("Leak");
    options.poolTags = {tag};
    ASSERT_EQ(ntsim::LoadFilter(FilterA::DriverEntry, options), STATUS_SUCCESS);
    void* leaked = ExAllocatePoolWithTag(PagedPool, 16, tag);
    ntsim::UnicodeStringHolder name(u"C:\\");
    PFLT_VOLUME volume = nullptr;
    ASSERT_EQ(FltGetVolumeFromName(FilterA::script().filter, name.get(), &volume), STATUS_SUCCESS);

    ntsim::verifier::BugCheckCapture capture;
    ASSERT_EQ(ntsim::UnloadFilter(FilterA::Name()), STATUS_SUCCESS);
    EXPECT_TRUE(capture.Consume("POOL_LEAK"));
    EXPECT_TRUE(capture.Consume("FLT_OBJECT_REFERENCE_LEAK"));
    EXPECT_EQ(capture.Count(), 0u);
    ExFreePoolWithTag(leaked, tag);
    FltObjectDereference(volume);
}

TEST_F(IoPathTest, VolumeNamesAndLookupsByName)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    for (const char16_t* spelling : {u"C:", u"C:\\", u"\\??\\C:", u"\\DosDevices\\C:", u"\\Device\\HarddiskVolume2"}) {
        ntsim::UnicodeStringHolder name(spelling);
        PFLT_VOLUME volume = nullptr;
        ASSERT_EQ(FltGetVolumeFromName(FilterA::script().filter, name.get(), &volume), STATUS_SUCCESS)
            << ntsim::ToUtf8(spelling);
        ULONG needed = 0;
        EXPECT_EQ(FltGetVolumeName(volume, nullptr, &needed), STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(needed, sizeof(u"\\Device\\HarddiskVolume2") - sizeof(char16_t));
        ntsim::UnicodeStringHolder small = ntsim::UnicodeStringHolder::WithCapacity(static_cast<USHORT>(needed - 2));
        EXPECT_EQ(FltGetVolumeName(volume, small.get(), nullptr), STATUS_BUFFER_TOO_SMALL);
        ntsim::UnicodeStringHolder exact = ntsim::UnicodeStringHolder::WithCapacity(static_cast<USHORT>(needed));
        ASSERT_EQ(FltGetVolumeName(volume, exact.get(), nullptr), STATUS_SUCCESS);
        EXPECT_EQ(ntsim::ToUtf8(*exact.get()), "\\Device\\HarddiskVolume2");
        FltObjectDereference(volume);
    }
    ntsim::UnicodeStringHolder missing(u"Q:");
    PFLT_VOLUME volume = nullptr;
    EXPECT_FALSE(NT_SUCCESS(FltGetVolumeFromName(FilterA::script().filter, missing.get(), &volume)));
}

}  // namespace
}  // namespace iotest
