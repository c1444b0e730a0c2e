// Reads and extended attribute queries of followed files: a file object with a valid record is read
// and queried through IRPs only, and its EA queries are traced; other files are left alone. A
// recording filter below FolderMerge sees what FolderMerge let down the stack.
#include "trace_fixture.hpp"

#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/iomanager.hpp>

#include <mutex>

#include "context.h"

namespace foldermerge::testing {
namespace {

// A filter below FolderMerge that notes each read and EA query, fast or as an IRP.
struct Below {
    struct Seen {
        UCHAR major;
        bool fast;
    };
    static inline std::mutex mutex;
    static inline std::vector<Seen> seen;
    static inline PFLT_FILTER filter = nullptr;

    static FLT_PREOP_CALLBACK_STATUS FLTAPI Pre(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*)
    {
        std::lock_guard lock(mutex);
        seen.push_back({data->Iopb->MajorFunction, FLT_IS_FASTIO_OPERATION(data)});
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    static NTSTATUS FLTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
    {
        FltUnregisterFilter(filter);
        return STATUS_SUCCESS;
    }
    static constexpr UCHAR kWatched[] = {IRP_MJ_READ, IRP_MJ_QUERY_EA};
    static constexpr auto kOperations = ntsim::RegisterEachOperation(kWatched, Pre, nullptr);
    static constexpr FLT_REGISTRATION kRegistration = {
        .Size = sizeof(FLT_REGISTRATION),
        .Version = FLT_REGISTRATION_VERSION,
        .OperationRegistration = kOperations.entries,
        .FilterUnloadCallback = Unload,
    };
    static NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        return ntsim::RegisterAndStartFiltering(driver, kRegistration, &filter);
    }
    static std::vector<Seen> Take()
    {
        std::lock_guard lock(mutex);
        return std::exchange(seen, {});
    }
};

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
        ASSERT_EQ(ntsim::LoadFilter(Below::DriverEntry, {.name = u"Below", .altitude = u"100000"}), STATUS_SUCCESS);
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
    Below::Take();
    TakeEvents();
    EXPECT_EQ(Read(followed), "alice's file");
    std::vector<Below::Seen> seen = Below::Take();
    ASSERT_EQ(seen.size(), 1u) << "the fast attempt stopped at FolderMerge";
    EXPECT_FALSE(seen[0].fast);
    EXPECT_EQ(TakeMessages(),
              (std::vector<std::string>{"Entering FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]",
                                        "Entering FileName [\\Device\\HarddiskVolume2\\Data\\a.txt]"}))
        << "the fast attempt and the IRP";

    HANDLE other = OpenForReading(u"\\??\\C:\\Other\\d.txt");
    ASSERT_FALSE(Followed(other));
    EXPECT_EQ(Read(other), "d");
    Below::Take();
    TakeEvents();
    EXPECT_EQ(Read(other), "d");
    seen = Below::Take();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_TRUE(seen[0].fast) << "offered to the filters below";
    EXPECT_FALSE(seen[1].fast) << "the fast I/O check, refused for every file, sent it back as an IRP";
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

}  // namespace
}  // namespace foldermerge::testing
