// The Filter Manager's dispatch rules, one by one: callback order across filters, each
// pre-operation result, the dirty flag, fast I/O refusal and the re-parse of a create.
#include "io_testfilter.hpp"

#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

namespace iotest {
namespace {

using Strings = std::vector<std::string>;

class DispatchTest : public IoTest {};

TEST_F(DispatchTest, PreCallbacksRunFromTheHighestAltitudeAndPostsFromTheLowest)
{
    // Loaded lowest first: the altitude decides, not the load order.
    ASSERT_EQ(FilterB::Load(u"320000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterA::Load(u"385100"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\order.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(Sequence(IRP_MJ_CREATE), (Strings{"A pre", "B pre", "B post", "A post"}));
    ASSERT_EQ(NtClose(file.handle), STATUS_SUCCESS);
    EXPECT_EQ(Sequence(IRP_MJ_CLEANUP), (Strings{"A pre", "B pre", "B post", "A post"}));
    EXPECT_EQ(Sequence(IRP_MJ_CLOSE), (Strings{"A pre", "B pre", "B post", "A post"}));
}

TEST_F(DispatchTest, AVolumeWithMoreFiltersThanASnapshotHoldsInlineKeepsTheirOrder)
{
    // Six filters, loaded in no order: every operation visits all six, highest first.
    ASSERT_EQ(TestFilter<4>::Load(u"320000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterA::Load(u"385100"), STATUS_SUCCESS);
    ASSERT_EQ(TestFilter<5>::Load(u"140000"), STATUS_SUCCESS);
    ASSERT_EQ(TestFilter<2>::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"380000"), STATUS_SUCCESS);
    ASSERT_EQ(TestFilter<3>::Load(u"360000"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\six.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    const Strings order = {"A pre", "B pre", "C pre", "D pre", "E pre", "F pre",
                           "F post", "E post", "D post", "C post", "B post", "A post"};
    EXPECT_EQ(Sequence(IRP_MJ_CREATE), order);
    ASSERT_EQ(NtClose(file.handle), STATUS_SUCCESS);
    EXPECT_EQ(Sequence(IRP_MJ_CLOSE), order);
}

TEST_F(DispatchTest, CompletionContextReachesOnlyThePostOfTheFilterThatGaveIt)
{
    static int contextOfA;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID* context) {
        *context = &contextOfA;
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\context.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 4u);
    EXPECT_EQ(creates[2].filter, 'B');
    EXPECT_EQ(creates[2].context, nullptr);
    EXPECT_EQ(creates[3].filter, 'A');
    EXPECT_EQ(creates[3].context, &contextOfA);
    EXPECT_EQ(creates[3].status, STATUS_SUCCESS);
    NtClose(file.handle);
}

TEST_F(DispatchTest, NoCallbackAndSynchronizeDecideWhichPostsRun)
{
    FilterA::script().pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    FilterB::script().pre = [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*) { return FLT_PREOP_SYNCHRONIZE; };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\posts.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
    EXPECT_EQ(Sequence(IRP_MJ_CREATE), (Strings{"A pre", "B pre", "B post"}));
    ASSERT_EQ(creates.size(), 3u);
    // SYNCHRONIZE: the post-callback runs in the thread of the pre-callback.
    EXPECT_EQ(creates[2].threadId, creates[1].threadId);
    NtClose(file.handle);
}

TEST_F(DispatchTest, CompleteEndsTheOperationBelowAndSkipsItsOwnPostButNotThePostsAbove)
{
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        data->IoStatus.Status = STATUS_ACCESS_DENIED;
        data->IoStatus.Information = 0;
        return FLT_PREOP_COMPLETE;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\refused.txt", FILE_GENERIC_WRITE, 0, FILE_CREATE);
    EXPECT_EQ(file.status, STATUS_ACCESS_DENIED);
    EXPECT_FALSE(volume_->Exists(u"\\refused.txt")) << "the file system ran below a completed create";
    EXPECT_EQ(Sequence(IRP_MJ_CREATE), (Strings{"A pre", "B pre", "A post"}));
    EXPECT_EQ(EventsOf(IRP_MJ_CREATE).back().status, STATUS_ACCESS_DENIED);
    // A create that failed has no cleanup and no close.
    EXPECT_TRUE(EventsOf(IRP_MJ_CLEANUP).empty());
    EXPECT_TRUE(EventsOf(IRP_MJ_CLOSE).empty());
}

TEST_F(DispatchTest, ChangedParametersReachTheFileSystemOnlyWhenTheDataIsDirty)
{
    static bool markDirty;
    // The filter takes away all sharing from every open of "shared.txt".
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            data->Iopb->Parameters.Create.ShareAccess = 0;
            if (markDirty) {
                FltSetCallbackDataDirty(data);
                EXPECT_TRUE(FltIsCallbackDataDirty(data));
            }
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);

    for (bool dirty : {false, true}) {
        markDirty = dirty;
        Opened first = Open(u"\\??\\C:\\shared.txt");
        ASSERT_EQ(first.status, STATUS_SUCCESS);
        Opened second = Open(u"\\??\\C:\\shared.txt");
        EXPECT_EQ(second.status, dirty ? STATUS_SHARING_VIOLATION : STATUS_SUCCESS) << "dirty " << dirty;
        NtClose(first.handle);
        if (NT_SUCCESS(second.status)) {
            NtClose(second.handle);
        }
    }
}

TEST_F(DispatchTest, RefusedFastWriteComesAgainAsAnIrpAndPostsAboveTheRefusalSeeIt)
{
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return FLT_IS_FASTIO_OPERATION(data) ? FLT_PREOP_DISALLOW_FASTIO : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    Opened file = Open(u"\\??\\C:\\fast.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ASSERT_NE(fileObject, nullptr);
    ClearEvents();

    ULONG written = 0;
    ASSERT_EQ(ntsim::IoWriteFile(fileObject, 0, 5, "hello", {.fastIo = true}, &written), STATUS_SUCCESS);
    EXPECT_EQ(written, 5u);
    EXPECT_EQ(volume_->Content(u"\\fast.txt"), "hello") << "the write must reach the disk exactly once";
    std::vector<Event> writes = EventsOf(IRP_MJ_WRITE);
    ASSERT_EQ(writes.size(), 7u);
    EXPECT_EQ(Sequence(IRP_MJ_WRITE), (Strings{"A pre", "B pre", "A post", "A pre", "B pre", "B post", "A post"}));
    EXPECT_TRUE(writes[0].fastIo() && writes[1].fastIo());
    EXPECT_EQ(writes[2].status, STATUS_FLT_DISALLOW_FAST_IO);
    for (size_t i = 3; i < writes.size(); ++i) {
        EXPECT_FALSE(writes[i].fastIo()) << i;
        EXPECT_TRUE((writes[i].flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0) << i;
    }
    ObDereferenceObject(fileObject);
    NtClose(file.handle);
}

TEST_F(DispatchTest, NativeCachedIoGoesFastOnceTheCacheIsSetUp)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened file = Open(u"\\??\\C:\\cached.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "one"), STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "two"), STATUS_SUCCESS);
    std::vector<Event> writes = EventsOf(IRP_MJ_WRITE);
    ASSERT_EQ(writes.size(), 4u);
    EXPECT_FALSE(writes[0].fastIo()) << "the first cached write sets the cache up and comes as an IRP";
    EXPECT_TRUE(writes[2].fastIo());
    // The file position advanced over both writes.
    EXPECT_EQ(volume_->Content(u"\\cached.txt"), "onetwo");
    NtClose(file.handle);
}

TEST_F(DispatchTest, NetworkQueryOpenFallsBackToAnOrdinaryOpenWhenTheFastPathIsRefused)
{
    volume_->SeedFile(u"\\query.txt", "12345");
    static bool refuse;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (refuse && data->Iopb->MajorFunction == IRP_MJ_NETWORK_QUERY_OPEN && FLT_IS_FASTIO_OPERATION(data)) {
            return FLT_PREOP_DISALLOW_FASTIO;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ntsim::UnicodeStringHolder name(u"\\??\\C:\\query.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);

    for (bool refused : {false, true}) {
        refuse = refused;
        ClearEvents();
        FILE_NETWORK_OPEN_INFORMATION information{};
        ASSERT_EQ(NtQueryFullAttributesFile(&attributes, &information), STATUS_SUCCESS);
        EXPECT_EQ(information.EndOfFile.QuadPart, 5);
        std::vector<UCHAR> expected{IRP_MJ_NETWORK_QUERY_OPEN};
        if (refused) {
            expected = {IRP_MJ_NETWORK_QUERY_OPEN, IRP_MJ_CREATE, IRP_MJ_QUERY_INFORMATION, IRP_MJ_CLEANUP,
                        IRP_MJ_CLOSE};
        }
        EXPECT_EQ(MajorsSeenBy('A'), expected) << "refused " << refused;
        EXPECT_EQ(EventsOf(IRP_MJ_NETWORK_QUERY_OPEN).front().fileName, "\\query.txt");
    }
}

TEST_F(DispatchTest, CreateCompletedWithReparseIsParsedAgainFromTheRootUnderTheNewName)
{
    volume_->SeedFile(u"\\target.txt", "redirected");
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE &&
            ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName) == "\\source.txt") {
            Redirect(data, u"\\??\\C:\\target.txt");
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ntsim::pool::Checkpoint checkpoint;

    Opened file = Open(u"\\??\\C:\\source.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 2u);
    EXPECT_EQ(creates[0].fileName, "\\source.txt");
    EXPECT_EQ(creates[1].fileName, "\\target.txt");
    char buffer[16] = {};
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtReadFile(file.handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), nullptr, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, ioStatus.Information), "redirected");
    EXPECT_FALSE(volume_->Exists(u"\\source.txt"));
    NtClose(file.handle);
    EXPECT_TRUE(checkpoint.Verify("re-parsed create")) << "the replaced name buffers must all be freed";
}

TEST_F(DispatchTest, ReparseLoopStopsAfterThirtyTwoReparses)
{
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            Redirect(data, u"\\??\\C:\\loop.txt");
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    Opened file = Open(u"\\??\\C:\\loop.txt");
    EXPECT_EQ(file.status, STATUS_REPARSE_POINT_NOT_RESOLVED);
    EXPECT_EQ(EventsOf(IRP_MJ_CREATE).size(), 33u) << "the first parse and 32 re-parses";
}

TEST_F(DispatchTest, UnsupportedPreResultsAreVerifierErrors)
{
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return data->Iopb->MajorFunction == IRP_MJ_CREATE ? FLT_PREOP_PENDING : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ntsim::verifier::BugCheckCapture capture;
    Opened file = Open(u"\\??\\C:\\pending.txt");
    EXPECT_EQ(file.status, STATUS_NOT_IMPLEMENTED);
    EXPECT_TRUE(capture.Consume("FLT_INVALID_PREOP_STATUS"));
}

}  // namespace
}  // namespace iotest
