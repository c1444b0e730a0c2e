// Directory queries through the I/O manager and the Filter Manager: the checks made before any
// filter sees a query, the caller's buffer as filters meet it (the caller's own address, or an MDL
// that a filter locked), post-operations that rewrite a listing through either, and what the file
// system answers to a buffer that a filter changed.
#include "io_testfilter.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace iotest {
namespace {

using Strings = std::vector<std::string>;

struct Answer {
    NTSTATUS status = STATUS_PENDING;
    ULONG_PTR information = 0;
};

// The names of a FileNamesInformation listing of `length` bytes, following NextEntryOffset.
Strings NamesIn(const UCHAR* bytes, ULONG_PTR length)
{
    Strings names;
    for (ULONG_PTR offset = 0; offset + FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName) <= length;) {
        auto* entry = reinterpret_cast<const FILE_NAMES_INFORMATION*>(bytes + offset);
        names.push_back(ntsim::ToUtf8(
            std::u16string_view(reinterpret_cast<const char16_t*>(entry->FileName), entry->FileNameLength / 2)));
        if (entry->NextEntryOffset == 0) {
            break;
        }
        offset += entry->NextEntryOffset;
    }
    return names;
}

// What a filter does to a FileNamesInformation listing in its post-operation: the first character of
// every name becomes '#'.
void MarkNames(UCHAR* bytes, ULONG_PTR length)
{
    for (ULONG_PTR offset = 0; offset + sizeof(FILE_NAMES_INFORMATION) <= length;) {
        auto* entry = reinterpret_cast<FILE_NAMES_INFORMATION*>(bytes + offset);
        entry->FileName[0] = L'#';
        if (entry->NextEntryOffset == 0) {
            break;
        }
        offset += entry->NextEntryOffset;
    }
}

bool IsDirectoryQuery(PFLT_CALLBACK_DATA data)
{
    return data->Iopb->MajorFunction == IRP_MJ_DIRECTORY_CONTROL &&
           data->Iopb->MinorFunction == IRP_MN_QUERY_DIRECTORY;
}

// A pre-operation that sees directory queries only; other operations go on without a callback.
template <typename Pre>
auto PreOfQueries(Pre pre)
{
    return [pre](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return IsDirectoryQuery(data) ? pre(data) : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
}

// A post-operation that sees directory queries only.
template <typename Post>
auto PostOfQueries(Post post)
{
    return [post](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        if (IsDirectoryQuery(data)) {
            post(data);
        }
    };
}

class DirectoryQueryTest : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        for (const char16_t* name : {u"\\d\\alpha", u"\\d\\beta", u"\\d\\gamma"}) {
            volume_->SeedFile(name, "x");
        }
        directory_ = Open(u"\\??\\C:\\d", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN,
                          FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT)
                         .handle;
        ASSERT_NE(directory_, nullptr);
    }

    void TearDown() override
    {
        NtClose(directory_);
        IoTest::TearDown();
    }

    Answer Query(void* buffer, ULONG length, FILE_INFORMATION_CLASS infoClass = FileNamesInformation,
                 const char16_t* pattern = u"*a")
    {
        std::optional<ntsim::UnicodeStringHolder> expression;
        if (pattern != nullptr) {
            expression.emplace(pattern);
        }
        IO_STATUS_BLOCK ioStatus{};
        Answer answer;
        answer.status = NtQueryDirectoryFile(directory_, nullptr, nullptr, nullptr, &ioStatus, buffer, length,
                                             infoClass, FALSE, expression ? expression->get() : nullptr, FALSE);
        answer.information = ioStatus.Information;
        return answer;
    }

    HANDLE directory_ = nullptr;
};

TEST_F(DirectoryQueryTest, TheIoManagerRefusesBadQueriesBeforeAnyFilterSeesThem)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    UserBuffer buffer(512);
    struct Case {
        FILE_INFORMATION_CLASS infoClass;
        ULONG minimum;
    };
    for (Case c : {Case{FileDirectoryInformation, 72}, Case{FileFullDirectoryInformation, 72},
                   Case{FileBothDirectoryInformation, 96}, Case{FileNamesInformation, 16},
                   Case{FileIdBothDirectoryInformation, 112}, Case{FileIdFullDirectoryInformation, 88}}) {
        SCOPED_TRACE(static_cast<int>(c.infoClass));
        EXPECT_EQ(Query(buffer.data(), c.minimum - 1, c.infoClass).status, STATUS_INFO_LENGTH_MISMATCH);
    }
    EXPECT_EQ(Query(buffer.data(), 512, FileBasicInformation).status, STATUS_INVALID_INFO_CLASS);

    // A user-mode caller's buffer must be its own memory, aligned for the records.
    std::vector<UCHAR> kernelMemory(512);
    EXPECT_EQ(Query(kernelMemory.data(), 512).status, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Query(buffer.data() + 2, 500).status, STATUS_DATATYPE_MISALIGNMENT);
    EXPECT_EQ(Query(buffer.data() + 8, 505).status, STATUS_ACCESS_VIOLATION) << "runs past the block";
    EXPECT_TRUE(EventsOf(IRP_MJ_DIRECTORY_CONTROL).empty());

    // The smallest buffer the I/O manager lets through reaches the filter and the file system.
    Answer smallest = Query(buffer.data(), 16);
    EXPECT_EQ(smallest.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(smallest.information, 16u);
    EXPECT_EQ(Sequence(IRP_MJ_DIRECTORY_CONTROL), (Strings{"A pre", "A post"}));
}

TEST_F(DirectoryQueryTest, AKernelCallerMayListIntoKernelMemory)
{
    std::vector<UCHAR> buffer(512);
    ntsim::UnicodeStringHolder pattern(u"*a");
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(ZwQueryDirectoryFile(directory_, nullptr, nullptr, nullptr, &ioStatus, buffer.data(), 512,
                                   FileNamesInformation, FALSE, pattern.get(), FALSE),
              STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer.data(), ioStatus.Information), (Strings{"alpha", "beta", "gamma"}));
}

TEST_F(DirectoryQueryTest, TheFileSystemAnswersABufferThatAFilterShrank)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    static ULONG shrunkTo;
    FilterA::script().pre = PreOfQueries([](PFLT_CALLBACK_DATA data) {
        data->Iopb->Parameters.DirectoryControl.QueryDirectory.Length = shrunkTo;
        FltSetCallbackDataDirty(data);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    });
    UserBuffer buffer(512);
    std::memset(buffer.data(), 0xCC, 512);

    // Shorter than the record's fixed part: the file system refuses it and writes nothing.
    shrunkTo = FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName) - 1;
    Answer refused = Query(buffer.data(), 512);
    EXPECT_EQ(refused.status, STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(refused.information, 0u);
    EXPECT_EQ(buffer.data()[0], 0xCC);

    // Room for the fixed part and three bytes of the name: all of that, and an overflow.
    shrunkTo = FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName) + 3;
    Answer partial = Query(buffer.data(), 512);
    EXPECT_EQ(partial.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(partial.information, shrunkTo);
    auto* entry = buffer.as<FILE_NAMES_INFORMATION>();
    EXPECT_EQ(entry->NextEntryOffset, 0u);
    EXPECT_EQ(entry->FileNameLength, 10u) << "the whole name's length";
    EXPECT_EQ(std::memcmp(entry->FileName, u"al", 3), 0);
    EXPECT_EQ(buffer.data()[shrunkTo], 0xCC);
}

TEST_F(DirectoryQueryTest, APostOperationRewritesTheListingAtTheCallersAddressUnderAProbe)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    struct Seen {
        PVOID buffer = nullptr;
        PMDL mdl = reinterpret_cast<PMDL>(1);
        NTSTATUS probe = STATUS_PENDING;
    };
    static Seen seen;
    seen = Seen{};
    FilterA::script().post = PostOfQueries([](PFLT_CALLBACK_DATA data) {
        const auto& query = data->Iopb->Parameters.DirectoryControl.QueryDirectory;
        seen.buffer = query.DirectoryBuffer;
        seen.mdl = query.MdlAddress;
        if (!NT_SUCCESS(data->IoStatus.Status) || query.MdlAddress != nullptr) {
            return;
        }
        __try {
            if (data->RequestorMode == UserMode) {
                ProbeForWrite(query.DirectoryBuffer, query.Length, sizeof(ULONG));
            }
            MarkNames(static_cast<UCHAR*>(query.DirectoryBuffer), data->IoStatus.Information);
            seen.probe = STATUS_SUCCESS;
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            seen.probe = GetExceptionCode();
        }
    });
    UserBuffer buffer(512);
    Answer answer = Query(buffer.data(), 512);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    EXPECT_EQ(seen.buffer, buffer.data()) << "the caller's own address";
    EXPECT_EQ(seen.mdl, nullptr) << "a directory query brings no MDL";
    EXPECT_EQ(seen.probe, STATUS_SUCCESS);
    EXPECT_EQ(NamesIn(buffer.data(), answer.information), (Strings{"#lpha", "#eta", "#amma"}));
    EXPECT_EQ(EventsOf(IRP_MJ_DIRECTORY_CONTROL).front().requestorMode, UserMode);
}

TEST_F(DirectoryQueryTest, APostOperationRewritesTheListingThroughTheMdlItLocked)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    struct Seen {
        NTSTATUS lock = STATUS_PENDING;
        PMDL mdlInPost = nullptr;
        PVOID system = nullptr;
        NTSTATUS probeOfSystemAddress = STATUS_PENDING;
    };
    static Seen seen;
    seen = Seen{};
    FilterA::script().pre = PreOfQueries([](PFLT_CALLBACK_DATA data) {
        seen.lock = FltLockUserBuffer(data);
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    });
    FilterA::script().post = PostOfQueries([](PFLT_CALLBACK_DATA data) {
        const auto& query = data->Iopb->Parameters.DirectoryControl.QueryDirectory;
        seen.mdlInPost = query.MdlAddress;
        if (query.MdlAddress == nullptr) {
            return;
        }
        seen.system = MmGetSystemAddressForMdlSafe(query.MdlAddress, NormalPagePriority | MdlMappingNoExecute);
        if (seen.system == nullptr) {
            return;
        }
        MarkNames(static_cast<UCHAR*>(seen.system), data->IoStatus.Information);
        __try {
            ProbeForWrite(seen.system, query.Length, sizeof(ULONG));
            seen.probeOfSystemAddress = STATUS_SUCCESS;
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            seen.probeOfSystemAddress = GetExceptionCode();
        }
    });
    UserBuffer buffer(512);
    ntsim::pool::Checkpoint checkpoint;
    Answer answer = Query(buffer.data(), 512);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    EXPECT_EQ(seen.lock, STATUS_SUCCESS);
    ASSERT_NE(seen.mdlInPost, nullptr);
    EXPECT_NE(seen.system, static_cast<PVOID>(buffer.data())) << "the system's view is another address";
    EXPECT_EQ(seen.probeOfSystemAddress, STATUS_ACCESS_VIOLATION) << "a system address is no user buffer";
    EXPECT_EQ(NamesIn(buffer.data(), answer.information), (Strings{"#lpha", "#eta", "#amma"}));
    EXPECT_TRUE(checkpoint.Leaks().empty()) << "the operation's MDL is freed when it completes";
}

TEST_F(DirectoryQueryTest, AnMdlLockedBelowIsWhatTheFileSystemAndTheFiltersAboveUse)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    static PMDL lockedByB;
    static PMDL seenByA;
    lockedByB = seenByA = nullptr;
    FilterB::script().pre = PreOfQueries([](PFLT_CALLBACK_DATA data) {
        auto& query = data->Iopb->Parameters.DirectoryControl.QueryDirectory;
        EXPECT_EQ(FltLockUserBuffer(data), STATUS_SUCCESS);
        EXPECT_EQ(FltLockUserBuffer(data), STATUS_SUCCESS) << "locked already: nothing more";
        lockedByB = query.MdlAddress;
        // Only the MDL is left to reach the buffer by: the file system must write through it.
        query.DirectoryBuffer = nullptr;
        FltSetCallbackDataDirty(data);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    });
    FilterA::script().post = PostOfQueries([](PFLT_CALLBACK_DATA data) {
        PMDL mdl = data->Iopb->Parameters.DirectoryControl.QueryDirectory.MdlAddress;
        seenByA = mdl;
        if (mdl != nullptr && NT_SUCCESS(data->IoStatus.Status)) {
            MarkNames(static_cast<UCHAR*>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority)),
                      data->IoStatus.Information);
        }
    });
    UserBuffer buffer(512);
    Answer answer = Query(buffer.data(), 512);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    ASSERT_NE(lockedByB, nullptr);
    EXPECT_EQ(seenByA, lockedByB);
    EXPECT_EQ(NamesIn(buffer.data(), answer.information), (Strings{"#lpha", "#eta", "#amma"}));
}

TEST_F(DirectoryQueryTest, ABufferThatCannotBeLockedLeavesTheQueryAsItWas)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    static NTSTATUS lock;
    static PMDL mdl;
    FilterA::script().pre = PreOfQueries([](PFLT_CALLBACK_DATA data) {
        lock = FltLockUserBuffer(data);
        mdl = data->Iopb->Parameters.DirectoryControl.QueryDirectory.MdlAddress;
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    });
    UserBuffer buffer(512);
    ntsim::faults::FailRoutine("FltLockUserBuffer", STATUS_INSUFFICIENT_RESOURCES);
    ASSERT_EQ(Query(buffer.data(), 512).status, STATUS_SUCCESS);
    EXPECT_EQ(lock, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(mdl, nullptr);

    // A driver's own user-mode request whose buffer is no user memory: the lock's probe refuses it.
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(directory_);
    ASSERT_NE(fileObject, nullptr);
    std::vector<UCHAR> kernelMemory(512);
    ULONG returned = 0;
    EXPECT_EQ(ntsim::IoQueryDirectoryFile(fileObject, FileNamesInformation, kernelMemory.data(), 512, nullptr,
                                          SL_RESTART_SCAN, 0, &returned),
              STATUS_SUCCESS);
    EXPECT_EQ(lock, STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(mdl, nullptr);
    ObDereferenceObject(fileObject);
}

TEST_F(DirectoryQueryTest, ChangeNotificationIsNotModelledAndSaysSo)
{
    ntsim::verifier::BugCheckCapture capture;
    UserBuffer buffer(512);
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(NtNotifyChangeDirectoryFile(directory_, nullptr, nullptr, nullptr, &ioStatus, buffer.data(), 512,
                                          FILE_NOTIFY_CHANGE_FILE_NAME, FALSE),
              STATUS_NOT_IMPLEMENTED);
    EXPECT_NE(capture.ConsumeDetail(ntsim::verifier::rules::kNotImplemented).find("NtNotifyChangeDirectoryFile"),
              std::string::npos);
}

}  // namespace
}  // namespace iotest
