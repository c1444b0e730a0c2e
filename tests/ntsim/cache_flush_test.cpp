// The acquire and release for a cache flush as a filter's flush callbacks see them: a user's
// NtFlushBuffersFile in the user's thread and mode, the lazy writer in a worker thread of the System
// process in kernel mode, and a flush of a file object whose handles are all closed (cleanup has
// come, close has not); the file object they name, and the status and information of each.
#include "io_testfilter.hpp"

namespace iotest {
namespace {

using Majors = std::vector<UCHAR>;

// What a flush callback saw.
struct FlushSeen {
    UCHAR major = 0;
    bool post = false;
    ULONG flags = 0;
    KPROCESSOR_MODE mode = KernelMode;
    HANDLE processId = nullptr;
    HANDLE threadId = nullptr;
    PFILE_OBJECT targetFileObject = nullptr;
    PFILE_OBJECT relatedFileObject = nullptr;
    ULONG fileObjectFlags = 0;
    NTSTATUS status = 0;
    ULONG_PTR information = 0;
};

class CacheFlushTest : public IoTest {
protected:
    static inline std::vector<FlushSeen> seen;

    static void Note(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, bool post)
    {
        const UCHAR major = data->Iopb->MajorFunction;
        if (major != IRP_MJ_ACQUIRE_FOR_CC_FLUSH && major != IRP_MJ_RELEASE_FOR_CC_FLUSH) {
            return;
        }
        FlushSeen event;
        event.major = major;
        event.post = post;
        event.flags = data->Flags;
        event.mode = data->RequestorMode;
        event.processId = PsGetCurrentProcessId();
        event.threadId = PsGetCurrentThreadId();
        event.targetFileObject = data->Iopb->TargetFileObject;
        event.relatedFileObject = objects->FileObject;
        event.fileObjectFlags = data->Iopb->TargetFileObject->Flags;
        event.status = data->IoStatus.Status;
        event.information = data->IoStatus.Information;
        std::lock_guard lock(EventsMutex());
        seen.push_back(event);
    }

    void SetUp() override
    {
        IoTest::SetUp();
        seen.clear();
        FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
            Note(data, objects, false);
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        };
        FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID) {
            Note(data, objects, true);
        };
        ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    }

    // Acquire pre and post, release pre and post, each on fileObject, as a successful flush shows them.
    static void ExpectFlushOf(PFILE_OBJECT fileObject)
    {
        ASSERT_EQ(seen.size(), 4u);
        const UCHAR majors[] = {IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_RELEASE_FOR_CC_FLUSH,
                                IRP_MJ_RELEASE_FOR_CC_FLUSH};
        for (size_t i = 0; i < seen.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(seen[i].major, majors[i]);
            EXPECT_EQ(seen[i].post, i % 2 == 1);
            EXPECT_EQ(seen[i].flags & (FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION | FLTFL_CALLBACK_DATA_IRP_OPERATION |
                                       FLTFL_CALLBACK_DATA_FAST_IO_OPERATION),
                      ULONG{FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION});
            EXPECT_EQ(seen[i].targetFileObject, fileObject);
            EXPECT_EQ(seen[i].relatedFileObject, fileObject);
        }
        EXPECT_EQ(seen[1].status, STATUS_SUCCESS);
        EXPECT_EQ(seen[1].information, 0u) << "the acquire's IoStatus.Information";
        EXPECT_EQ(seen[3].status, STATUS_SUCCESS);
        EXPECT_EQ(seen[3].information, 0u);
    }
};

TEST_F(CacheFlushTest, UsersFlushIsAcquiredAndReleasedInTheUsersThreadAndMode)
{
    Opened file = Open(u"\\??\\C:\\user.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "dirty"), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ClearEvents();

    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtFlushBuffersFile(file.handle, &ioStatus), STATUS_SUCCESS);
    ExpectFlushOf(fileObject);
    for (const FlushSeen& event : seen) {
        EXPECT_EQ(event.mode, UserMode);
        EXPECT_EQ(event.processId, process_->Id());
        EXPECT_EQ(event.threadId, PsGetCurrentThreadId());
        EXPECT_EQ(event.fileObjectFlags & FO_CLEANUP_COMPLETE, 0u);
    }
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_FLUSH_BUFFERS, IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_WRITE,
                                         IRP_MJ_RELEASE_FOR_CC_FLUSH}));
    ObDereferenceObject(fileObject);
    NtClose(file.handle);
}

TEST_F(CacheFlushTest, LazyWriterFlushesInAWorkerThreadOfTheSystemProcessInKernelMode)
{
    Opened file = Open(u"\\??\\C:\\lazy.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "dirty"), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ClearEvents();

    ASSERT_EQ(ntsim::IoLazyWrite(fileObject), STATUS_SUCCESS);
    ExpectFlushOf(fileObject);
    for (const FlushSeen& event : seen) {
        EXPECT_EQ(event.mode, KernelMode);
        EXPECT_EQ(event.processId, ntsim::SystemProcess()->Id());
        EXPECT_NE(event.threadId, PsGetCurrentThreadId());
        EXPECT_EQ(event.threadId, seen[0].threadId) << "one worker thread for the whole flush";
    }
    const std::vector<Event> writes = EventsOf(IRP_MJ_WRITE);
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].threadId, seen[0].threadId);
    EXPECT_EQ(PsGetCurrentProcessId(), process_->Id()) << "the caller's thread is left as it was";
    ObDereferenceObject(fileObject);
    NtClose(file.handle);
}

TEST_F(CacheFlushTest, FileObjectCleanedUpButNotClosedIsStillFlushedByUserAndLazyWriter)
{
    Opened file = Open(u"\\??\\C:\\closed.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "written before the handle closed"), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ASSERT_EQ(NtClose(file.handle), STATUS_SUCCESS);
    EXPECT_EQ(EventsOf(IRP_MJ_CLEANUP).size(), 2u);
    EXPECT_TRUE(EventsOf(IRP_MJ_CLOSE).empty());
    ClearEvents();

    // A flush of a mapped view of the file, in the user's thread after its handle is gone.
    ASSERT_EQ(ntsim::IoFlushCache(fileObject), STATUS_SUCCESS);
    ExpectFlushOf(fileObject);
    for (const FlushSeen& event : seen) {
        EXPECT_EQ(event.mode, UserMode);
        EXPECT_NE(event.fileObjectFlags & FO_CLEANUP_COMPLETE, 0u);
    }
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_WRITE, IRP_MJ_RELEASE_FOR_CC_FLUSH}))
        << "the write-back of the page the handle left dirty";

    ClearEvents();
    seen.clear();
    ASSERT_EQ(ntsim::IoLazyWrite(fileObject), STATUS_SUCCESS);
    ExpectFlushOf(fileObject);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_RELEASE_FOR_CC_FLUSH}))
        << "nothing left to write back";

    ClearEvents();
    ObDereferenceObject(fileObject);
    EXPECT_EQ(MajorsSeenBy('A'), Majors{IRP_MJ_CLOSE}) << "the close comes with the last reference";
}

}  // namespace
}  // namespace iotest
