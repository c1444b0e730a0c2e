// Reads, extended attribute queries and flushes of followed files: a file object with a valid record
// is read and queried through IRPs only, and its EA queries are traced; other files are left alone.
// A filter below FolderMerge sees what FolderMerge let down the stack, or answers in its place.
#include "trace_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include "context.h"

namespace foldermerge::testing {
namespace {

// A filter below FolderMerge: it sees what FolderMerge let down the stack.
using BelowFilter = iotest::TestFilter<0>;

// Whether each read that reached the filter below was fast, in order.
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
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        BelowFilter::script() = {};
        ASSERT_EQ(ntsim::LoadFilter(BelowFilter::DriverEntry, {.name = u"Below", .altitude = u"100000"}),
                  STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        alice_ = UserProcess(kAlice);
        attach_ = std::make_unique<ntsim::AttachThread>(alice_);
    }

    void TearDown() override
    {
        attach_.reset();
        EXPECT_EQ(ntsim::UnloadFilter(u"Below"), STATUS_SUCCESS);
        TracedFilter::TearDown();
    }

    HANDLE OpenForReading(std::u16string_view path)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(OpenHandle(path, FILE_READ_DATA | FILE_READ_EA, {.createOptions = FILE_SYNCHRONOUS_IO_NONALERT},
                             &handle)
                      .status,
                  STATUS_SUCCESS);
        return handle;
    }

    // Whether the open's file object is followed: it has a valid record.
    static bool Followed(HANDLE handle)
    {
        PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
        const bool followed = FindContextByFileObject(fileObject, FALSE) != nullptr;
        ObDereferenceObject(fileObject);
        return followed;
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

    std::shared_ptr<ntsim::Process> alice_;
    std::unique_ptr<ntsim::AttachThread> attach_;
};

TEST_F(FollowedFiles, AFollowedFileIsReadThroughIrpsOnlyAndOthersAreOfferedTheFastPath)
{
    // A file's first read sets up its cache; only cached reads try the fast path.
    HANDLE followed = OpenForReading(u"\\??\\C:\\Data\\a.txt");
    ASSERT_TRUE(Followed(followed));
    EXPECT_EQ(Read(followed), "alice's file");
    ReadsBelow();
    TakeEvents();
    EXPECT_EQ(Read(followed), "alice's file");
    EXPECT_EQ(ReadsBelow(), std::vector<bool>{false}) << "the fast attempt stopped at FolderMerge";
    EXPECT_EQ(TakeMessages(),
              (std::vector<std::string>{"Entering FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]",
                                        "Entering FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]"}))
        << "the fast attempt and the IRP";

    HANDLE other = OpenForReading(u"\\??\\C:\\Other\\d.txt");
    ASSERT_FALSE(Followed(other));
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
    HANDLE followed = OpenForReading(u"\\??\\C:\\Data\\a.txt");
    ASSERT_TRUE(Followed(followed));
    HANDLE other = OpenForReading(u"\\??\\C:\\Other\\d.txt");
    TakeEvents();
    EXPECT_EQ(QueryEa(followed), "blue");
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{"PreQueryEa on file: \\Device\\HarddiskVolume2\\Data\\a.txt",
                                                        "PreQueryEa on file: \\Device\\HarddiskVolume2\\Data\\a.txt"}));
    EXPECT_EQ(QueryEa(other), "red");
    EXPECT_TRUE(TakeMessages().empty());
    EXPECT_EQ(NtClose(followed), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(other), STATUS_SUCCESS);
}

TEST_F(FollowedFiles, AnAcquireThatFindsNoFileExpiresTheFlushRecordAtOnce)
{
    HANDLE handle = OpenForReading(u"\\??\\C:\\Data\\a.txt");
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
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
    const FileContext* pRecord = FindContextByFileObject(fileObject, TRUE);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->bCreatedForCcFlush, 1);
    EXPECT_EQ(pRecord->bValid, 0) << "expired by the acquire's post-callback";
    std::vector<std::string> expiredBy, releaseSeen;
    for (const TraceEvent& event : TakeEvents()) {
        if (event.message.starts_with("Marking context 0x")) {
            expiredBy.push_back(event.function);
        }
        if (event.function == "FolderMerge_PreReleaseCcFlush") {
            releaseSeen.push_back(event.message);
        }
    }
    EXPECT_EQ(expiredBy, std::vector<std::string>{"FolderMerge_PostAcquireCcFlush"});
    EXPECT_TRUE(releaseSeen.empty()) << "the release finds no valid record";
    ObDereferenceObject(fileObject);
}

}  // namespace
}  // namespace foldermerge::testing
