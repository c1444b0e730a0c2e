// Cache flushes of managed files: a user's flush of a file object without a valid record gives it a
// record for the flush alone, the lazy writer and unmanaged files get none, and a read-only merge
// folder refuses its flush.
#include "trace_fixture.hpp"

#include <ntsim/sim/iomanager.hpp>

#include "context.h"
#include "driver/globals.h"

namespace foldermerge::testing {
namespace {

class CacheFlush : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedFile(u"\\Other\\d.txt", "d");
        volume_->SeedFile(u"\\Locked\\e.txt", "e");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {kAlice, u"C:\\Locked", true}}), STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
    }

    // Alice's file object of path, written through its handle and with every handle closed: cleanup
    // has come, close waits for the returned reference.
    PFILE_OBJECT ClosedFileObject(std::u16string_view path, const OpenOptions& options = {})
    {
        ntsim::AttachThread attach(alice_);
        HANDLE handle = nullptr;
        const bool directory = (options.createOptions & FILE_DIRECTORY_FILE) != 0;
        EXPECT_EQ(OpenHandle(path, directory ? FILE_LIST_DIRECTORY : FILE_READ_DATA | FILE_WRITE_DATA, options, &handle)
                      .status,
                  STATUS_SUCCESS);
        if (!directory) {
            IO_STATUS_BLOCK ioStatus{};
            char text[] = "new!";
            LARGE_INTEGER offset{};
            EXPECT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, text, 4, &offset, nullptr),
                      STATUS_SUCCESS);
        }
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
        TakeEvents();
        return fileObject;
    }

    NTSTATUS FlushAsAlice(PFILE_OBJECT fileObject)
    {
        ntsim::AttachThread attach(alice_);
        return ntsim::IoFlushCache(fileObject);
    }

    // The lines of the flush callbacks since the last call.
    std::vector<std::string> FlushLines()
    {
        std::vector<std::string> lines;
        for (const TraceEvent& event : TakeEvents()) {
            if (event.function.find("CcFlush") != std::string::npos) {
                lines.push_back(event.message);
            }
        }
        return lines;
    }

    // The records of fileObject that its flushes made.
    static size_t FlushRecordsOf(PFILE_OBJECT fileObject)
    {
        size_t count = 0;
        for (FileContext* pContext = g_ContextList; pContext != nullptr; pContext = pContext->pNext) {
            count += pContext->pFileObject == fileObject && pContext->bCreatedForCcFlush ? 1 : 0;
        }
        return count;
    }

    std::shared_ptr<ntsim::Process> alice_;
};

TEST_F(CacheFlush, AUsersFlushOfAClosedFileGetsARecordThatTheReleaseExpires)
{
    PFILE_OBJECT fileObject = ClosedFileObject(u"\\??\\C:\\Data\\a.txt");
    ASSERT_EQ(FlushAsAlice(fileObject), STATUS_SUCCESS);
    const std::vector<std::string> lines = FlushLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]");
    EXPECT_TRUE(lines[1].starts_with("Created context 0x")) << lines[1];
    EXPECT_TRUE(lines[1].ends_with(" for file [\\Device\\HarddiskVolume2\\Data\\a.txt]")) << lines[1];
    EXPECT_EQ(lines[2], "Entering FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]") << "the acquire's post";
    EXPECT_TRUE(lines.back().starts_with("Marking context 0x")) << lines.back();
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE), nullptr) << "expired by the release";
    const FileContext* pContext = FindContextByFileObject(fileObject, TRUE);
    ASSERT_NE(pContext, nullptr);
    EXPECT_EQ(pContext->bCreatedForCcFlush, 1);
    EXPECT_NE(pContext->pstrSid, nullptr);
    EXPECT_EQ(pContext->OnClose, 0u);

    // The next flush finds no valid record and makes another.
    ASSERT_EQ(FlushAsAlice(fileObject), STATUS_SUCCESS);
    EXPECT_EQ(FlushRecordsOf(fileObject), 2u);
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE), nullptr);
    ObDereferenceObject(fileObject);
}

TEST_F(CacheFlush, AFlushOfAnOpenFileKeepsToItsOwnRecordAndLeavesItValid)
{
    ntsim::AttachThread attach(alice_);
    HANDLE handle = nullptr;
    ASSERT_EQ(OpenHandle(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA | FILE_WRITE_DATA, {}, &handle).status,
              STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
    const FileContext* pOpen = FindContextByFileObject(fileObject, FALSE);
    ASSERT_NE(pOpen, nullptr) << "the open is followed";
    TakeEvents();
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtFlushBuffersFile(handle, &ioStatus), STATUS_SUCCESS);
    EXPECT_EQ(FlushLines(), std::vector<std::string>{"Entering FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]"})
        << "the release's pre-callback alone";
    EXPECT_EQ(FlushRecordsOf(fileObject), 0u);
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE), pOpen);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
    ObDereferenceObject(fileObject);
}

TEST_F(CacheFlush, TheLazyWriterAndUnmanagedFilesAreNotFollowed)
{
    PFILE_OBJECT managed = ClosedFileObject(u"\\??\\C:\\Data\\a.txt");
    ASSERT_EQ(ntsim::IoLazyWrite(managed), STATUS_SUCCESS);
    EXPECT_EQ(FlushLines(), std::vector<std::string>{"Exiting. Previous Mode==KernelMode FileName [\\Data\\a.txt]"});
    EXPECT_EQ(FlushRecordsOf(managed), 0u);

    PFILE_OBJECT unmanaged = ClosedFileObject(u"\\??\\C:\\Other\\d.txt");
    ASSERT_EQ(FlushAsAlice(unmanaged), STATUS_SUCCESS);
    EXPECT_TRUE(FlushLines().empty());
    EXPECT_EQ(FlushRecordsOf(unmanaged), 0u);

    // In pass-through mode not even a managed file is followed.
    g_PassThrough = 1;
    ASSERT_EQ(FlushAsAlice(managed), STATUS_SUCCESS);
    g_PassThrough = 0;
    EXPECT_EQ(FlushRecordsOf(managed), 0u);
    ObDereferenceObject(managed);
    ObDereferenceObject(unmanaged);
}

TEST_F(CacheFlush, AReadOnlyMergeFolderRefusesItsFlushWithoutARecord)
{
    PFILE_OBJECT folder = ClosedFileObject(u"\\??\\C:\\Locked", {.createOptions = FILE_DIRECTORY_FILE});
    EXPECT_EQ(FlushAsAlice(folder), STATUS_ACCESS_DENIED);
    EXPECT_EQ(FlushLines(), std::vector<std::string>{"FileName [\\Device\\HarddiskVolume2\\Locked]"});
    EXPECT_EQ(FlushRecordsOf(folder), 0u);

    // Below the folder, flushes go on.
    PFILE_OBJECT file = ClosedFileObject(u"\\??\\C:\\Locked\\e.txt");
    EXPECT_EQ(FlushAsAlice(file), STATUS_SUCCESS);
    EXPECT_EQ(FlushRecordsOf(file), 1u);
    ObDereferenceObject(folder);
    ObDereferenceObject(file);
}

}  // namespace
}  // namespace foldermerge::testing
