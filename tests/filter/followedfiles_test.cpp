// Reads, extended attribute queries and cache flushes of followed files: a file object with a valid
// record is read and queried through IRPs only, its EA queries are traced, and a user's flush of a
// managed file object without a valid record gets a record for the flush. A filter below FolderMerge
// sees what FolderMerge let down the stack, or answers in the file system's place.
#include "trace_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include "context.h"
#include "driver/globals.h"

namespace foldermerge::testing {
namespace {

using BelowFilter = iotest::TestFilter<0>;

// Whether each read that reached the filter below was fast, in order; the log starts afresh.
std::vector<bool> ReadsBelow()
{
    std::vector<bool> fast;
    for (const iotest::Event& event : iotest::EventsOf(IRP_MJ_READ)) {
        if (!event.post) {
            fast.push_back(event.fastIo());
        }
    }
    std::lock_guard lock(iotest::EventsMutex());
    iotest::Events().clear();
    return fast;
}

class FollowedFiles : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedExtendedAttribute(u"\\Data\\a.txt", "TAG", "blue");
        volume_->SeedFile(u"\\Other\\d.txt", "d");
        volume_->SeedExtendedAttribute(u"\\Other\\d.txt", "TAG", "red");
        volume_->SeedFile(u"\\Locked\\e.txt", "e");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {kAlice, u"C:\\Locked", true}}), STATUS_SUCCESS);
        BelowFilter::script() = {};
        ASSERT_EQ(ntsim::LoadFilter(BelowFilter::DriverEntry, {.name = u"Below", .altitude = u"100000"}),
                  STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        attach_ = std::make_unique<ntsim::AttachThread>(UserProcess(kAlice));
    }

    void TearDown() override
    {
        attach_.reset();
        EXPECT_EQ(ntsim::UnloadFilter(u"Below"), STATUS_SUCCESS);
        TracedFilter::TearDown();
    }

    static HANDLE OpenAsAlice(std::u16string_view path, ACCESS_MASK access = FILE_READ_DATA | FILE_READ_EA,
                              ULONG createOptions = FILE_SYNCHRONOUS_IO_NONALERT)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(OpenHandle(path, access, {.createOptions = createOptions}, &handle).status, STATUS_SUCCESS);
        return handle;
    }

    static PFILE_OBJECT FileObjectOf(HANDLE handle)
    {
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        ObDereferenceObject(fileObject);
        return fileObject;
    }

    // Alice's file object of path, written through its handle, with every handle closed: cleanup
    // has come, close waits for the returned reference.
    static PFILE_OBJECT ClosedFileObject(std::u16string_view path, bool directory = false)
    {
        HANDLE handle = OpenAsAlice(path, directory ? FILE_LIST_DIRECTORY : FILE_READ_DATA | FILE_WRITE_DATA,
                                    directory ? FILE_DIRECTORY_FILE : FILE_SYNCHRONOUS_IO_NONALERT);
        if (!directory) {
            IO_STATUS_BLOCK ioStatus{};
            EXPECT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, (PVOID) "new!", 4, nullptr, nullptr),
                      STATUS_SUCCESS);
        }
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
        return fileObject;
    }

    static std::string Read(HANDLE handle)
    {
        char buffer[32] = {};
        IO_STATUS_BLOCK ioStatus{};
        LARGE_INTEGER offset{};
        EXPECT_EQ(NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), &offset, nullptr),
                  STATUS_SUCCESS);
        return std::string(buffer, ioStatus.Information);
    }

    // The value of the file's one EA, as the caller's query got it.
    static std::string QueryEa(HANDLE handle)
    {
        std::vector<UCHAR> buffer(128);
        IO_STATUS_BLOCK ioStatus{};
        EXPECT_EQ(NtQueryEaFile(handle, &ioStatus, buffer.data(), (ULONG)buffer.size(), FALSE, nullptr, 0, nullptr,
                                TRUE),
                  STATUS_SUCCESS);
        const auto* entry = reinterpret_cast<const FILE_FULL_EA_INFORMATION*>(buffer.data());
        return std::string(entry->EaName + entry->EaNameLength + 1, entry->EaValueLength);
    }

    // The events of the flush callbacks since the last call: function and message.
    std::vector<std::pair<std::string, std::string>> FlushEvents()
    {
        std::vector<std::pair<std::string, std::string>> events;
        for (const TraceEvent& event : TakeEvents()) {
            if (event.function.find("CcFlush") != std::string::npos) {
                events.emplace_back(event.function, event.message);
            }
        }
        return events;
    }

    // The records that flushes of fileObject made.
    static size_t FlushRecordsOf(PFILE_OBJECT fileObject)
    {
        size_t count = 0;
        for (FileContext* pContext = g_ContextList; pContext != nullptr; pContext = pContext->pNext) {
            count += pContext->pFileObject == fileObject && pContext->bCreatedForCcFlush ? 1 : 0;
        }
        return count;
    }

    std::unique_ptr<ntsim::AttachThread> attach_;
};

const std::string kPath = "\\Device\\HarddiskVolume2\\Data\\a.txt";

TEST_F(FollowedFiles, AFollowedFileIsReadThroughIrpsOnlyAndOthersAreOfferedTheFastPath)
{
    // A file's first read sets up its cache; only cached reads try the fast path.
    HANDLE followed = OpenAsAlice(u"\\??\\C:\\Data\\a.txt");
    ASSERT_NE(FindContextByFileObject(FileObjectOf(followed), FALSE), nullptr);
    EXPECT_EQ(Read(followed), "alice's file");
    ReadsBelow();
    TakeEvents();
    EXPECT_EQ(Read(followed), "alice's file");
    EXPECT_EQ(ReadsBelow(), std::vector<bool>{false}) << "the fast attempt stopped at FolderMerge";
    EXPECT_EQ(TakeMessages(), std::vector<std::string>(2, "Entering FileName [" + kPath + "]"))
        << "the fast attempt and the IRP";

    HANDLE other = OpenAsAlice(u"\\??\\C:\\Other\\d.txt");
    EXPECT_EQ(Read(other), "d");
    ReadsBelow();
    TakeEvents();
    EXPECT_EQ(Read(other), "d");
    // Offered to the filters below; the fast I/O check, refused for every file, sends it back as an IRP.
    EXPECT_EQ(ReadsBelow(), (std::vector<bool>{true, false}));
    EXPECT_TRUE(TakeMessages().empty());
    EXPECT_EQ(NtClose(followed), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(other), STATUS_SUCCESS);
}

TEST_F(FollowedFiles, AnEaQueryOfAFollowedFileIsTracedTwiceAndAnsweredByTheFileSystem)
{
    HANDLE followed = OpenAsAlice(u"\\??\\C:\\Data\\a.txt");
    HANDLE other = OpenAsAlice(u"\\??\\C:\\Other\\d.txt");
    TakeEvents();
    EXPECT_EQ(QueryEa(followed), "blue");
    EXPECT_EQ(TakeMessages(), std::vector<std::string>(2, "PreQueryEa on file: " + kPath));
    EXPECT_EQ(QueryEa(other), "red");
    EXPECT_TRUE(TakeMessages().empty());
    EXPECT_EQ(NtClose(followed), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(other), STATUS_SUCCESS);
}

TEST_F(FollowedFiles, AUsersFlushOfAClosedFileGetsARecordThatTheReleaseExpires)
{
    PFILE_OBJECT fileObject = ClosedFileObject(u"\\??\\C:\\Data\\a.txt");
    TakeEvents();
    ASSERT_EQ(ntsim::IoFlushCache(fileObject), STATUS_SUCCESS);
    const auto events = FlushEvents();
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[0].second, "FileName [" + kPath + "]");
    EXPECT_TRUE(events[1].second.starts_with("Created context 0x")) << events[1].second;
    EXPECT_TRUE(events[1].second.ends_with(" for file [" + kPath + "]")) << events[1].second;
    EXPECT_EQ(events[2], std::make_pair(std::string("FolderMerge_PostAcquireCcFlush"), "Entering FileName [" + kPath + "]"));
    EXPECT_EQ(events[3].first, "FolderMerge_PreReleaseCcFlush");
    EXPECT_EQ(events[4].first, "FolderMerge_PostReleaseCcFlush");
    EXPECT_TRUE(events[4].second.starts_with("Marking context 0x")) << events[4].second;
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE), nullptr) << "expired by the release";
    const FileContext* pContext = FindContextByFileObject(fileObject, TRUE);
    ASSERT_NE(pContext, nullptr);
    EXPECT_EQ(pContext->bCreatedForCcFlush, 1);
    EXPECT_EQ(pContext->OnClose, 0u);

    // The next flush finds no valid record and makes another.
    ASSERT_EQ(ntsim::IoFlushCache(fileObject), STATUS_SUCCESS);
    EXPECT_EQ(FlushRecordsOf(fileObject), 2u);
    ObDereferenceObject(fileObject);
}

TEST_F(FollowedFiles, AFlushOfAnOpenFileKeepsToItsOwnRecordAndLeavesItValid)
{
    HANDLE handle = OpenAsAlice(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA | FILE_WRITE_DATA);
    PFILE_OBJECT fileObject = FileObjectOf(handle);
    const FileContext* pOpen = FindContextByFileObject(fileObject, FALSE);
    ASSERT_NE(pOpen, nullptr) << "the open is followed";
    TakeEvents();
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtFlushBuffersFile(handle, &ioStatus), STATUS_SUCCESS);
    EXPECT_EQ(FlushEvents(), (std::vector<std::pair<std::string, std::string>>{
                                 {"FolderMerge_PreReleaseCcFlush", "Entering FileName [" + kPath + "]"}}));
    EXPECT_EQ(FlushRecordsOf(fileObject), 0u);
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE), pOpen);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(FollowedFiles, TheLazyWriterUnmanagedFilesAndPassThroughModeGetNoFlushRecord)
{
    PFILE_OBJECT managed = ClosedFileObject(u"\\??\\C:\\Data\\a.txt");
    PFILE_OBJECT unmanaged = ClosedFileObject(u"\\??\\C:\\Other\\d.txt");
    TakeEvents();
    ASSERT_EQ(ntsim::IoLazyWrite(managed), STATUS_SUCCESS);
    EXPECT_EQ(FlushEvents(), (std::vector<std::pair<std::string, std::string>>{
                                 {"FolderMerge_PreAcquireCcFlush",
                                  "Exiting. Previous Mode==KernelMode FileName [\\Data\\a.txt]"}}));
    ASSERT_EQ(ntsim::IoFlushCache(unmanaged), STATUS_SUCCESS);
    EXPECT_TRUE(FlushEvents().empty());
    g_PassThrough = 1;
    ASSERT_EQ(ntsim::IoFlushCache(managed), STATUS_SUCCESS);
    g_PassThrough = 0;
    EXPECT_EQ(FlushRecordsOf(managed) + FlushRecordsOf(unmanaged), 0u);
    ObDereferenceObject(managed);
    ObDereferenceObject(unmanaged);
}

TEST_F(FollowedFiles, AReadOnlyMergeFolderRefusesItsFlushWithoutARecord)
{
    PFILE_OBJECT folder = ClosedFileObject(u"\\??\\C:\\Locked", true);
    PFILE_OBJECT below = ClosedFileObject(u"\\??\\C:\\Locked\\e.txt");
    TakeEvents();
    EXPECT_EQ(ntsim::IoFlushCache(folder), STATUS_ACCESS_DENIED);
    EXPECT_EQ(FlushEvents(), (std::vector<std::pair<std::string, std::string>>{
                                 {"FolderMerge_PreAcquireCcFlush", "FileName [\\Device\\HarddiskVolume2\\Locked]"}}));
    EXPECT_EQ(FlushRecordsOf(folder), 0u);
    EXPECT_EQ(ntsim::IoFlushCache(below), STATUS_SUCCESS) << "below the folder, flushes go on";
    EXPECT_EQ(FlushRecordsOf(below), 1u);
    ObDereferenceObject(folder);
    ObDereferenceObject(below);
}

TEST_F(FollowedFiles, AnAcquireThatFindsNoFileExpiresTheFlushRecordAtOnce)
{
    PFILE_OBJECT fileObject = ClosedFileObject(u"\\??\\C:\\Data\\a.txt");
    // The file system's acquire succeeds but reports the file gone.
    BelowFilter::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_ACQUIRE_FOR_CC_FLUSH) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        data->IoStatus.Status = STATUS_SUCCESS;
        data->IoStatus.Information = FILE_DOES_NOT_EXIST;
        return FLT_PREOP_COMPLETE;
    };
    TakeEvents();
    EXPECT_EQ(ntsim::IoFlushCache(fileObject), STATUS_SUCCESS);
    BelowFilter::script().pre = nullptr;
    EXPECT_EQ(FlushRecordsOf(fileObject), 1u);
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE), nullptr);
    // Expired by the acquire's post-callback: the release finds no valid record.
    const auto events = FlushEvents();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back().first, "FolderMerge_PostAcquireCcFlush");
    EXPECT_TRUE(events.back().second.starts_with("Marking context 0x")) << events.back().second;
    ObDereferenceObject(fileObject);
}

}  // namespace
}  // namespace foldermerge::testing
