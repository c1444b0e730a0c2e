// Where post-operation callbacks run (the issuing thread, DISPATCH_LEVEL or another thread), what
// never moves, the work the verifier then catches, and the ways out: FLT_PREOP_SYNCHRONIZE and
// FltDoCompletionProcessingWhenSafe.
#include "io_testfilter.hpp"

#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

namespace iotest {
namespace {

using ntsim::PostOperationContext;
using ntsim::ScopedPostOperationContext;

class PostContextTest : public IoTest {
protected:
    void OpenFile()
    {
        Opened file = Open(u"\\??\\C:\\posts.txt");
        ASSERT_EQ(file.status, STATUS_SUCCESS);
        handle_ = file.handle;
        fileObject_ = ntsim::ReferenceFileObjectByHandle(handle_);
        ASSERT_NE(fileObject_, nullptr);
    }

    void CloseFile()
    {
        if (fileObject_ != nullptr) {
            ObDereferenceObject(fileObject_);
            fileObject_ = nullptr;
        }
        if (handle_ != nullptr) {
            NtClose(handle_);
            handle_ = nullptr;
        }
    }

    void TearDown() override
    {
        CloseFile();
        IoTest::TearDown();
    }

    NTSTATUS WriteIrp(std::string_view text = "data")
    {
        ULONG written = 0;
        return ntsim::IoWriteFile(fileObject_, 0, static_cast<ULONG>(text.size()), text.data(), {}, &written);
    }

    // Basic information, which the I/O manager offers as fast I/O first.
    void QueryBasicInformation()
    {
        FILE_BASIC_INFORMATION basic{};
        IO_STATUS_BLOCK ioStatus{};
        ASSERT_EQ(NtQueryInformationFile(handle_, &ioStatus, &basic, sizeof(basic), FileBasicInformation),
                  STATUS_SUCCESS);
    }

    // The last post-callback event of filter of a major function.
    static Event LastPost(char filter, UCHAR major)
    {
        std::vector<Event> events = EventsOf(major);
        for (auto event = events.rbegin(); event != events.rend(); ++event) {
            if (event->filter == filter && event->post) {
                return *event;
            }
        }
        ADD_FAILURE() << filter << " saw no post-callback of " << int{major};
        return {};
    }

    HANDLE handle_ = nullptr;
    PFILE_OBJECT fileObject_ = nullptr;
};

TEST_F(PostContextTest, EachSettingPlacesThePostCallbacksThatMayCompleteAnywhere)
{
    // Reads are synchronized by A's pre-callback; everything else asks for a plain callback.
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return data->Iopb->MajorFunction == IRP_MJ_READ ? FLT_PREOP_SYNCHRONIZE : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    const HANDLE issuingThread = PsGetCurrentThreadId();
    const PETHREAD issuer = PsGetCurrentThread();

    for (PostOperationContext setting : {PostOperationContext::IssuingThread, PostOperationContext::DispatchLevel,
                                         PostOperationContext::ArbitraryThread}) {
        const std::string label = "setting " + std::to_string(static_cast<int>(setting));
        ScopedPostOperationContext context(setting);
        ClearEvents();
        OpenFile();
        ASSERT_EQ(WriteIrp(), STATUS_SUCCESS) << label;
        char buffer[8];
        ULONG read = 0;
        ASSERT_EQ(ntsim::IoReadFile(fileObject_, 0, sizeof(buffer), buffer, {}, &read), STATUS_SUCCESS) << label;
        QueryBasicInformation();
        ASSERT_FALSE(EventsOf(IRP_MJ_QUERY_INFORMATION).empty());
        ASSERT_TRUE(EventsOf(IRP_MJ_QUERY_INFORMATION).front().fastIo()) << "the query went the fast way";
        CloseFile();

        // Where Windows may complete the operation anywhere.
        for (UCHAR major : {IRP_MJ_WRITE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
            const Event post = LastPost('A', major);
            const bool elsewhere = setting == PostOperationContext::ArbitraryThread;
            EXPECT_EQ(post.issuer, issuer) << label << " major " << int{major};
            const KIRQL irql = setting == PostOperationContext::IssuingThread ? PASSIVE_LEVEL : DISPATCH_LEVEL;
            EXPECT_EQ(post.irql, irql) << label;
            EXPECT_EQ(post.threadId != issuingThread, elsewhere) << label;
            if (elsewhere) {
                EXPECT_EQ(post.processId, ntsim::SystemProcess()->Id()) << label;
            }
        }
        // Where it never does: the create, a synchronized operation, fast I/O.
        for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_QUERY_INFORMATION}) {
            const Event post = LastPost('A', major);
            EXPECT_EQ(post.irql, PASSIVE_LEVEL) << label << " major " << int{major};
            EXPECT_EQ(post.threadId, issuingThread) << label << " major " << int{major};
        }
    }
}

// What the post-write of filter A does that Windows forbids above APC_LEVEL.
enum class Work { None, PagedPool, Wait, NameQuery, SendMessage };

Work& WorkToDo()
{
    static Work work = Work::None;
    return work;
}

void DoForbiddenWork(PFLT_CALLBACK_DATA data)
{
    switch (WorkToDo()) {
    case Work::None:
        break;
    case Work::PagedPool: {
        const ULONG tag = ntsim::pool::TagFromText("Post");
        if (PVOID block = ExAllocatePoolWithTag(PagedPool, 32, tag)) {
            ExFreePoolWithTag(block, tag);
        }
        break;
    }
    case Work::Wait: {
        KEVENT event;
        KeInitializeEvent(&event, NotificationEvent, TRUE);
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        break;
    }
    case Work::NameQuery: {
        PFLT_FILE_NAME_INFORMATION information = nullptr;
        if (NT_SUCCESS(FltGetFileNameInformation(data, FLT_FILE_NAME_NORMALIZED, &information))) {
            FltReleaseFileNameInformation(information);
        }
        break;
    }
    case Work::SendMessage: {
        PFLT_PORT noPort = nullptr;
        ULONG message = 0;
        FltSendMessage(FilterA::script().filter, &noPort, &message, sizeof(message), nullptr, nullptr, nullptr);
        break;
    }
    }
}

struct WorkCase {
    Work work;
    const char* rule;
};

constexpr WorkCase kForbidden[] = {
    {Work::PagedPool, "PAGED_POOL_ABOVE_APC_LEVEL"},
    {Work::Wait, "WAIT_ABOVE_APC_LEVEL"},
    {Work::NameQuery, "IRQL_TOO_HIGH"},
    {Work::SendMessage, "IRQL_TOO_HIGH"},
};

TEST_F(PostContextTest, VerifierCatchesWorkThatAPostCallbackMayNotDoWhereItMayRun)
{
    WorkToDo() = Work::None;
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        if (data->Iopb->MajorFunction == IRP_MJ_WRITE) {
            DoForbiddenWork(data);
        }
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    OpenFile();
    ntsim::verifier::BugCheckCapture capture;
    for (const WorkCase& test : kForbidden) {
        WorkToDo() = test.work;
        ASSERT_EQ(WriteIrp(), STATUS_SUCCESS);
        EXPECT_EQ(capture.Count(), 0u) << "in the issuing thread at PASSIVE_LEVEL the work is allowed: " << test.rule;
        for (PostOperationContext setting :
             {PostOperationContext::DispatchLevel, PostOperationContext::ArbitraryThread}) {
            ScopedPostOperationContext context(setting);
            ASSERT_EQ(WriteIrp(), STATUS_SUCCESS);
            EXPECT_TRUE(capture.Consume(test.rule)) << test.rule << " in setting " << static_cast<int>(setting);
            // A paged block freed at DISPATCH_LEVEL is a second report of the same rule.
            while (capture.Consume(test.rule)) {
            }
            EXPECT_EQ(capture.Count(), 0u) << test.rule;
        }
    }
    WorkToDo() = Work::None;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI SafePostWrite(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID context,
                                                FLT_POST_OPERATION_FLAGS)
{
    Record('S', true, data, context);  // 'S': the safe callback
    DoForbiddenWork(data);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

TEST_F(PostContextTest, SynchronizeAndCompletionWhenSafeMoveTheWorkWhereItIsAllowed)
{
    // B (below A) synchronizes its write callbacks or hands its post-write to a safe callback; A
    // above it records where its own post-callback comes.
    static bool synchronize;
    static BOOLEAN handedOver;
    static FLT_POSTOP_CALLBACK_STATUS given;
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return data->Iopb->MajorFunction == IRP_MJ_WRITE && synchronize ? FLT_PREOP_SYNCHRONIZE
                                                                         : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    FilterB::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context) {
        if (data->Iopb->MajorFunction != IRP_MJ_WRITE) {
            return;
        }
        if (synchronize) {
            DoForbiddenWork(data);
            return;
        }
        handedOver = FltDoCompletionProcessingWhenSafe(data, objects, context, 0, SafePostWrite, &given);
    };
    FilterB::script().postResult = [](PFLT_CALLBACK_DATA data) {
        return data->Iopb->MajorFunction == IRP_MJ_WRITE && !synchronize ? given : FLT_POSTOP_FINISHED_PROCESSING;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    OpenFile();
    const HANDLE issuingThread = PsGetCurrentThreadId();
    ntsim::verifier::BugCheckCapture capture;

    for (PostOperationContext setting : {PostOperationContext::IssuingThread, PostOperationContext::DispatchLevel,
                                         PostOperationContext::ArbitraryThread}) {
        ScopedPostOperationContext context(setting);
        for (const WorkCase& test : kForbidden) {
            const std::string label =
                std::string(test.rule) + " in setting " + std::to_string(static_cast<int>(setting));
            WorkToDo() = test.work;

            synchronize = true;
            ASSERT_EQ(WriteIrp(), STATUS_SUCCESS) << label;
            EXPECT_EQ(LastPost('B', IRP_MJ_WRITE).irql, PASSIVE_LEVEL) << label;

            synchronize = false;
            handedOver = FALSE;
            ClearEvents();
            ASSERT_EQ(WriteIrp("safe"), STATUS_SUCCESS) << label;
            EXPECT_TRUE(handedOver) << label;
            const bool queued = setting != PostOperationContext::IssuingThread;
            EXPECT_EQ(given, queued ? FLT_POSTOP_MORE_PROCESSING_REQUIRED : FLT_POSTOP_FINISHED_PROCESSING) << label;
            std::vector<Event> writes = EventsOf(IRP_MJ_WRITE);
            ASSERT_EQ(writes.size(), 5u) << label;
            // The completion goes on to A only once the safe callback has returned.
            EXPECT_EQ(writes[3].filter, 'S') << label;
            EXPECT_EQ(writes[4].filter, 'A') << label;
            EXPECT_EQ(writes[3].irql, PASSIVE_LEVEL) << label;
            EXPECT_EQ(writes[3].status, STATUS_SUCCESS) << label;
            EXPECT_EQ(writes[3].information, 4u) << label;
            EXPECT_EQ(writes[3].threadId != issuingThread, queued) << label << ": queued work runs in a worker";
        }
    }
    WorkToDo() = Work::None;
    EXPECT_EQ(capture.Count(), 0u);
}

TEST_F(PostContextTest, CompletionWhenSafeRefusesFastIoAndPagingIo)
{
    static std::vector<BOOLEAN> answers;
    answers.clear();
    static int safeCalls;
    safeCalls = 0;
    static FLT_POSTOP_CALLBACK_STATUS status;
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context) {
        const UCHAR major = data->Iopb->MajorFunction;
        status = FLT_POSTOP_FINISHED_PROCESSING;
        if (major != IRP_MJ_WRITE && major != IRP_MJ_QUERY_INFORMATION) {
            return;
        }
        answers.push_back(FltDoCompletionProcessingWhenSafe(
            data, objects, context, 0,
            [](PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID, FLT_POST_OPERATION_FLAGS) {
                ++safeCalls;
                return FLT_POSTOP_FINISHED_PROCESSING;
            },
            &status));
    };
    FilterA::script().postResult = [](PFLT_CALLBACK_DATA) { return status; };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    OpenFile();
    QueryBasicInformation();
    ULONG written = 0;
    ASSERT_EQ(ntsim::IoWriteFile(fileObject_, 0, 4, "page", {.irpFlags = IRP_PAGING_IO | IRP_NOCACHE}, &written),
              STATUS_SUCCESS);
    ASSERT_EQ(WriteIrp(), STATUS_SUCCESS);
    EXPECT_EQ(answers, (std::vector<BOOLEAN>{FALSE, FALSE, TRUE}));
    EXPECT_EQ(safeCalls, 1);
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FinishQuietly(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID,
                                                FLT_POST_OPERATION_FLAGS)
{
    return FLT_POSTOP_FINISHED_PROCESSING;
}

TEST_F(PostContextTest, MisusedCompletionHandOversAreVerifierErrors)
{
    enum class Misuse { ClaimWithoutHandOver, HandOverFromPreCallback, HandOverThenFinish };
    static Misuse misuse;
    static BOOLEAN answer;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_WRITE && misuse == Misuse::HandOverFromPreCallback) {
            FLT_POSTOP_CALLBACK_STATUS status;
            answer = FltDoCompletionProcessingWhenSafe(data, objects, nullptr, 0, FinishQuietly, &status);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID context) {
        if (data->Iopb->MajorFunction == IRP_MJ_WRITE && misuse == Misuse::HandOverThenFinish) {
            FLT_POSTOP_CALLBACK_STATUS status;
            answer = FltDoCompletionProcessingWhenSafe(data, objects, context, 0, FinishQuietly, &status);
        }
    };
    FilterA::script().postResult = [](PFLT_CALLBACK_DATA data) {
        return data->Iopb->MajorFunction == IRP_MJ_WRITE && misuse == Misuse::ClaimWithoutHandOver
                   ? FLT_POSTOP_MORE_PROCESSING_REQUIRED
                   : FLT_POSTOP_FINISHED_PROCESSING;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    OpenFile();
    ntsim::verifier::BugCheckCapture capture;

    misuse = Misuse::ClaimWithoutHandOver;
    EXPECT_EQ(WriteIrp(), STATUS_SUCCESS);
    EXPECT_TRUE(capture.Consume("FLT_INVALID_POSTOP_STATUS"));

    misuse = Misuse::HandOverFromPreCallback;
    answer = TRUE;
    EXPECT_EQ(WriteIrp(), STATUS_SUCCESS);
    EXPECT_FALSE(answer);
    EXPECT_NE(capture.ConsumeDetail("FLT_INVALID_POSTOP_STATUS").find("outside a post-operation"), std::string::npos);

    // Queued, yet the post-callback claims to have finished.
    ScopedPostOperationContext context(PostOperationContext::DispatchLevel);
    misuse = Misuse::HandOverThenFinish;
    answer = FALSE;
    EXPECT_EQ(WriteIrp(), STATUS_SUCCESS);
    EXPECT_TRUE(answer);
    EXPECT_NE(capture.ConsumeDetail("FLT_INVALID_POSTOP_STATUS").find("after FltDoCompletionProcessingWhenSafe"),
              std::string::npos);
    EXPECT_EQ(capture.Count(), 0u);
}

}  // namespace
}  // namespace iotest
