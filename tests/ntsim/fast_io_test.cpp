// Fast reads and writes and the check they make: inside the fast path the file system asks the
// stack with IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE, and a filter that refuses sends the operation as an
// IRP. And FltIsOperationSynchronous over the kinds of operation the I/O path issues.
#include "io_testfilter.hpp"

#include <map>

namespace iotest {
namespace {

using Strings = std::vector<std::string>;

std::string Describe(const Event& event)
{
    std::string major;
    switch (event.major) {
    case IRP_MJ_READ:
        major = "read";
        break;
    case IRP_MJ_WRITE:
        major = "write";
        break;
    case IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE:
        major = "check";
        break;
    default:
        major = std::to_string(event.major);
        break;
    }
    return std::string(1, event.filter) + " " + major + (event.post ? " post" : " pre") +
           (event.fastIo() ? " fast" : "");
}

// Every event of reads, writes and checks, in order.
Strings DataEvents()
{
    std::lock_guard lock(EventsMutex());
    Strings result;
    for (const Event& event : Events()) {
        if (event.major == IRP_MJ_READ || event.major == IRP_MJ_WRITE ||
            event.major == IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE) {
            result.push_back(Describe(event));
        }
    }
    return result;
}

class FastIoTest : public IoTest {
protected:
    struct Check {
        LONGLONG offset;
        ULONG length;
        BOOLEAN read;
        KPROCESSOR_MODE mode;
    };
    static inline std::vector<Check> checks;
    // How B answers a check: pass it, refuse it, or fail it.
    enum class Answer { Pass, Refuse, Fail };
    static inline Answer answer = Answer::Pass;

    void SetUp() override
    {
        IoTest::SetUp();
        checks.clear();
        answer = Answer::Pass;
        FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            if (data->Iopb->MajorFunction == IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE) {
                const auto& check = data->Iopb->Parameters.FastIoCheckIfPossible;
                checks.push_back({check.FileOffset.QuadPart, check.Length, check.CheckForReadOperation,
                                  data->RequestorMode});
            }
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        };
        FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            if (data->Iopb->MajorFunction != IRP_MJ_FAST_IO_CHECK_IF_POSSIBLE || answer == Answer::Pass) {
                return FLT_PREOP_SUCCESS_WITH_CALLBACK;
            }
            if (answer == Answer::Refuse) {
                return FLT_PREOP_DISALLOW_FASTIO;
            }
            data->IoStatus.Status = STATUS_ACCESS_DENIED;
            data->IoStatus.Information = 0;
            return FLT_PREOP_COMPLETE;
        };
        ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
        ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    }

    static NTSTATUS Read(HANDLE handle, std::string* data, ULONG length, LONGLONG offset)
    {
        std::string buffer(length, '\0');
        IO_STATUS_BLOCK ioStatus{};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        NTSTATUS status =
            NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer.data(), length, &at, nullptr);
        *data = buffer.substr(0, ioStatus.Information);
        return status;
    }
};

TEST_F(FastIoTest, FastReadAndWriteAskTheStackInsideTheFastPath)
{
    Opened file = Open(u"\\??\\C:\\checked.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "first"), STATUS_SUCCESS);  // an IRP: the cache is set up by it
    EXPECT_TRUE(checks.empty()) << "an IRP is never checked";
    ClearEvents();

    ASSERT_EQ(Write(file.handle, "second", 100), STATUS_SUCCESS);
    EXPECT_EQ(DataEvents(), (Strings{"A write pre fast", "B write pre fast", "A check pre fast", "B check pre fast",
                                     "B check post fast", "A check post fast", "B write post fast",
                                     "A write post fast"}));
    ASSERT_EQ(checks.size(), 1u);
    EXPECT_EQ(checks[0].offset, 100);
    EXPECT_EQ(checks[0].length, 6u);
    EXPECT_FALSE(checks[0].read);
    EXPECT_EQ(checks[0].mode, UserMode);

    ClearEvents();
    std::string data;
    ASSERT_EQ(Read(file.handle, &data, 3, 101), STATUS_SUCCESS);
    EXPECT_EQ(data, "eco");
    ASSERT_EQ(checks.size(), 2u);
    EXPECT_EQ(checks[1].offset, 101);
    EXPECT_EQ(checks[1].length, 3u);
    EXPECT_TRUE(checks[1].read);
    EXPECT_EQ(DataEvents().size(), 8u);
    NtClose(file.handle);
}

TEST_F(FastIoTest, RefusedOrFailedCheckSendsTheOperationAsAnIrp)
{
    volume_->SeedFile(u"\\refused.txt", "0123456789");
    Opened file = Open(u"\\??\\C:\\refused.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    std::string data;
    ASSERT_EQ(Read(file.handle, &data, 2, 0), STATUS_SUCCESS);  // sets the cache up

    for (Answer refusal : {Answer::Refuse, Answer::Fail}) {
        SCOPED_TRACE(refusal == Answer::Refuse ? "refused" : "failed");
        answer = refusal;
        ClearEvents();
        ASSERT_EQ(Read(file.handle, &data, 4, 3), STATUS_SUCCESS);
        EXPECT_EQ(data, "3456");
        // B's own post of the check is not called, whether it refused or completed it.
        EXPECT_EQ(DataEvents(), (Strings{"A read pre fast", "B read pre fast", "A check pre fast", "B check pre fast",
                                         "A check post fast", "B read post fast", "A read post fast", "A read pre",
                                         "B read pre", "B read post", "A read post"}));
        std::vector<Event> reads = EventsOf(IRP_MJ_READ);
        ASSERT_EQ(reads.size(), 8u);
        EXPECT_EQ(reads[2].status, STATUS_FLT_DISALLOW_FAST_IO) << "the fast read's posts see the refusal";
        EXPECT_EQ(reads[7].status, STATUS_SUCCESS);
    }

    // A refused write reaches the disk once, as the IRP.
    answer = Answer::Refuse;
    ASSERT_EQ(Write(file.handle, "ab", 4), STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\refused.txt"), "0123ab6789");
    NtClose(file.handle);
}

TEST_F(FastIoTest, OperationIsSynchronousByItsKindFlagsAndFileObject)
{
    static std::map<std::string, BOOLEAN> synchronous;
    synchronous.clear();
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        std::string key = std::to_string(data->Iopb->MajorFunction);
        if (FLT_IS_FASTIO_OPERATION(data)) {
            key += " fast";
        }
        if ((data->Iopb->IrpFlags & IRP_PAGING_IO) != 0) {
            key += (data->Iopb->IrpFlags & IRP_SYNCHRONOUS_PAGING_IO) != 0 ? " synchronous paging" : " paging";
        }
        if (data->Iopb->TargetFileObject != nullptr && (data->Iopb->TargetFileObject->Flags & FO_SYNCHRONOUS_IO) == 0) {
            key += " async object";
        }
        synchronous[key] = FltIsOperationSynchronous(data);
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    const std::string write = std::to_string(IRP_MJ_WRITE);
    const std::string query = std::to_string(IRP_MJ_QUERY_INFORMATION);
    const std::string acquire = std::to_string(IRP_MJ_ACQUIRE_FOR_CC_FLUSH);

    Opened file = Open(u"\\??\\C:\\sync.txt");
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "one"), STATUS_SUCCESS);
    ASSERT_EQ(Write(file.handle, "two"), STATUS_SUCCESS);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file.handle);
    ASSERT_EQ(ntsim::IoLazyWrite(fileObject), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::IoWriteModifiedPages(fileObject, 0, 2, "ON"), STATUS_SUCCESS);
    ObDereferenceObject(fileObject);
    NtClose(file.handle);

    Opened async = Open(u"\\??\\C:\\sync.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, 0);
    ASSERT_EQ(async.status, STATUS_SUCCESS);
    ASSERT_EQ(Write(async.handle, "x", 0), STATUS_SUCCESS);
    FILE_NETWORK_OPEN_INFORMATION network{};
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtQueryInformationFile(async.handle, &ioStatus, &network, sizeof(network), FileNetworkOpenInformation),
              STATUS_SUCCESS);
    NtClose(async.handle);

    EXPECT_EQ(synchronous.at(write), TRUE) << "an IRP through a synchronous file object";
    EXPECT_EQ(synchronous.at(write + " fast"), TRUE) << "fast I/O";
    EXPECT_EQ(synchronous.at(write + " synchronous paging"), TRUE) << "the lazy writer's write-back";
    EXPECT_EQ(synchronous.at(write + " paging"), FALSE)
        << "the modified page writer's write, though its file object is synchronous";
    EXPECT_EQ(synchronous.at(acquire), TRUE) << "a file system filter operation";
    EXPECT_EQ(synchronous.at(write + " async object"), FALSE) << "an IRP through an asynchronous file object";
    EXPECT_EQ(synchronous.at(query + " async object"), TRUE) << "a synchronous API on an asynchronous file object";
}

}  // namespace
}  // namespace iotest
