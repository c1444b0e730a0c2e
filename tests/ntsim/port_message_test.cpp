// Messages over a port: FltSendMessage and the service's FilterGetMessage / FilterReplyMessage with
// the published header layouts, reply lengths, waits on the virtual clock, the ends of a wait
// (timeout, disconnect, thread termination), and the client's messages to the filter with its own
// user buffers.
#include "port_testfilter.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/verifier.hpp>

#include <atomic>
#include <future>
#include <numeric>
#include <thread>

using namespace porttest;

namespace {

constexpr LONGLONG kThirtyMinutes = 30 * ntsim::clock::kMinute;

// A filter-side send from a thread of the application process, as an operation callback would make it.
class Send {
public:
    Send(std::shared_ptr<ntsim::Process> process, std::vector<UCHAR> body, ULONG replyCapacity,
         std::optional<LONGLONG> timeout, size_t client = 0)
        : body_(std::move(body)), reply_(replyCapacity, 0xEE), replyLength_(replyCapacity)
    {
        PFLT_PORT port = State().ClientOf(client);
        thread_ = std::thread([this, process, port, timeout]() mutable {
            ntsim::AttachThread attach(process);
            threadId_ = PsGetCurrentThreadId();
            started_.set_value();
            LARGE_INTEGER value;
            value.QuadPart = timeout.value_or(0);
            status_ = FltSendMessage(State().filter, &port, body_.data(), static_cast<ULONG>(body_.size()),
                                     reply_.empty() ? nullptr : reply_.data(), reply_.empty() ? nullptr : &replyLength_,
                                     timeout ? &value : nullptr);
        });
        started_.get_future().wait();
    }
    ~Send()
    {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    NTSTATUS Wait()
    {
        thread_.join();
        return status_;
    }
    HANDLE threadId() const { return threadId_; }
    const std::vector<UCHAR>& reply() const { return reply_; }
    ULONG replyLength() const { return replyLength_; }

private:
    std::vector<UCHAR> body_;
    std::vector<UCHAR> reply_;
    ULONG replyLength_;
    std::promise<void> started_;
    HANDLE threadId_ = nullptr;
    NTSTATUS status_ = STATUS_PENDING;
    std::thread thread_;
};

class PortMessageTest : public ConnectedPortFixture {
protected:
    // Takes one message into a fresh heap buffer of `size` bytes.
    HRESULT Get(UserBuffer& buffer) { return FilterGetMessage(port_, buffer.as<FILTER_MESSAGE_HEADER>(), buffer.size(), nullptr); }

    // Takes one message into a 32-byte buffer and gives its id.
    ULONGLONG TakeId()
    {
        UserBuffer message(32);
        EXPECT_EQ(Get(message), S_OK);
        return ReadAt<ULONGLONG>(message.data(), 8);
    }

    // A one-byte send without a reply buffer, from the calling thread.
    static NTSTATUS SendByte(PLARGE_INTEGER timeout = nullptr)
    {
        PFLT_PORT port = State().ClientOf(0);
        UCHAR byte = 0;
        return FltSendMessage(State().filter, &port, &byte, 1, nullptr, nullptr, timeout);
    }
};

TEST_F(PortMessageTest, MessageAndReplyCarryThePublishedHeadersByteForByte)
{
    Send send(app_, {1, 2, 3, 4, 5}, 8, std::nullopt);
    UserBuffer message(64);
    std::memset(message.data(), 0xAA, message.size());
    ASSERT_EQ(Get(message), S_OK);
    EXPECT_EQ(ReadAt<ULONG>(message.data(), 0), 8u + 16u) << "ReplyLength counts the reply header";
    EXPECT_EQ(ReadAt<ULONG>(message.data(), 4), 0u);
    const auto id = ReadAt<ULONGLONG>(message.data(), 8);
    EXPECT_NE(id, 0u);
    EXPECT_EQ(std::vector<UCHAR>(message.data() + 16, message.data() + 21), (std::vector<UCHAR>{1, 2, 3, 4, 5}));
    EXPECT_EQ(message.data()[21], 0xAA) << "nothing is written past the message";

    // The header's Status is the service's own: the filter gets the bytes after the header.
    ASSERT_EQ(Reply(id, {0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80}, STATUS_UNSUCCESSFUL), S_OK);
    EXPECT_EQ(send.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(send.replyLength(), 8u);
    EXPECT_EQ(send.reply(), (std::vector<UCHAR>{0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70, 0x80}));

    // A second reply to the same message finds no waiter.
    EXPECT_EQ(Reply(id, {1}), ERROR_FLT_NO_WAITER_FOR_REPLY);
}

TEST_F(PortMessageTest, ReplyLengthsShorterOrLongerThanTheFiltersBuffer)
{
    const struct {
        ULONG capacity;
        std::vector<UCHAR> reply;
        HRESULT replied;
        ULONG length;
        std::vector<UCHAR> received;
    } cases[] = {{8, {1, 2, 3}, S_OK, 3, {1, 2, 3, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE}},
                 {4, {1, 2, 3, 4, 5, 6}, HRESULT_FROM_WIN32(ERROR_MORE_DATA), 4, {1, 2, 3, 4}},
                 {4, {}, S_OK, 0, {0xEE, 0xEE, 0xEE, 0xEE}}};  // a bare header is a reply of no bytes
    for (const auto& c : cases) {
        Send send(app_, {9}, c.capacity, std::nullopt);
        EXPECT_EQ(Reply(TakeId(), c.reply), c.replied);
        EXPECT_EQ(send.Wait(), STATUS_SUCCESS);
        EXPECT_EQ(send.replyLength(), c.length);
        EXPECT_EQ(send.reply(), c.received);
    }
}

TEST_F(PortMessageTest, WithoutAReplyBufferTheSendEndsOnceTheMessageIsTaken)
{
    Send send(app_, {7, 7}, 0, std::nullopt);
    UserBuffer message(32);
    ASSERT_EQ(Get(message), S_OK);
    EXPECT_EQ(ReadAt<ULONG>(message.data(), 0), 0u);
    EXPECT_EQ(send.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(Reply(ReadAt<ULONGLONG>(message.data(), 8), {1}), ERROR_FLT_NO_WAITER_FOR_REPLY);
}

TEST_F(PortMessageTest, MessageBiggerThanTheServicesBufferIsCutAndStillAnswerable)
{
    std::vector<UCHAR> body(40);
    std::iota(body.begin(), body.end(), UCHAR(1));
    Send send(app_, body, 2, std::nullopt);
    UserBuffer message(16 + 10);
    ASSERT_EQ(Get(message), HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(std::vector<UCHAR>(message.data() + 16, message.data() + 26), std::vector<UCHAR>(body.begin(), body.begin() + 10));
    EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u) << "the message is not offered again";
    ASSERT_EQ(Reply(ReadAt<ULONGLONG>(message.data(), 8), {0x42, 0x43}), S_OK);
    EXPECT_EQ(send.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(send.reply()[0], 0x42);

    // Too small for the header, or not the process's memory: the message stays queued.
    Send next(app_, {1}, 0, std::nullopt);
    ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
    UCHAR stack[64];
    EXPECT_EQ(FilterGetMessage(port_, reinterpret_cast<PFILTER_MESSAGE_HEADER>(stack), sizeof(stack), nullptr),
              HRESULT_FROM_WIN32(ERROR_NOACCESS));
    UserBuffer small(8);
    EXPECT_EQ(FilterGetMessage(port_, small.as<FILTER_MESSAGE_HEADER>(), small.size(), nullptr), E_INVALIDARG);
    EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 1u);
    TakeId();
    EXPECT_EQ(next.Wait(), STATUS_SUCCESS);
}

TEST_F(PortMessageTest, UnansweredMessageTimesOutOnTheVirtualClockAndItsLateReplyIsRefused)
{
    // Never taken: the message is withdrawn at the deadline.
    {
        Send send(app_, {1}, 4, -kThirtyMinutes);
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
        ntsim::clock::Advance(kThirtyMinutes - 1);
        EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 1u);
        ntsim::clock::Advance(1);
        EXPECT_EQ(send.Wait(), STATUS_TIMEOUT);
        EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u);
    }
    // Taken but never answered, with an absolute deadline.
    {
        Send send(app_, {2}, 4, ntsim::clock::Now() + kThirtyMinutes);
        UserBuffer message(32);
        ASSERT_EQ(Get(message), S_OK);
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
        ntsim::clock::Advance(kThirtyMinutes);
        EXPECT_EQ(send.Wait(), STATUS_TIMEOUT);
        EXPECT_EQ(Reply(ReadAt<ULONGLONG>(message.data(), 8), {1, 2, 3, 4}), ERROR_FLT_NO_WAITER_FOR_REPLY);
        EXPECT_EQ(send.replyLength(), 4u) << "the reply length is left as it was";
        EXPECT_EQ(send.reply()[0], 0xEE);
    }
    // A null timeout waits for ever.
    {
        Send send(app_, {3}, 1, std::nullopt);
        const ULONGLONG id = TakeId();
        ntsim::clock::Advance(ntsim::clock::kDay);
        ASSERT_EQ(Reply(id, {0x33}), S_OK);
        EXPECT_EQ(send.Wait(), STATUS_SUCCESS);
        EXPECT_EQ(send.reply()[0], 0x33);
    }
}

TEST_F(PortMessageTest, ConnectionEndingDuringTheWaitGivesPortDisconnected)
{
    // The service closes its handle.
    {
        Send send(app_, {1}, 4, std::nullopt);
        TakeId();
        ASSERT_TRUE(CloseHandle(port_));
        port_ = nullptr;
        EXPECT_EQ(send.Wait(), STATUS_PORT_DISCONNECTED);
        EXPECT_EQ(send.replyLength(), 4u);
    }
    // The filter closed the port: its variable is null, and a stale copy finds nothing either.
    PFLT_PORT closed = State().ClientOf(0);
    EXPECT_EQ(FltSendMessage(State().filter, &closed, closed, 1, nullptr, nullptr, nullptr), STATUS_PORT_DISCONNECTED);
    PFLT_PORT none = nullptr;
    EXPECT_EQ(FltSendMessage(State().filter, &none, &none, 1, nullptr, nullptr, nullptr), STATUS_PORT_DISCONNECTED);
}

TEST_F(PortMessageTest, ReplyRacingADisconnectEitherArrivesWholeOrNotAtAll)
{
    for (int round = 0; round < 50; ++round) {
        HANDLE port = port_;
        Send send(app_, {1}, 4, std::nullopt, static_cast<size_t>(round));
        UserBuffer reply(20);
        reply.as<FILTER_REPLY_HEADER>()->MessageId = TakeId();
        std::memset(reply.data() + 16, 0x5C, 4);
        std::atomic<HRESULT> replied{E_FAIL};
        {
            ntsim::SimulatedThread replier(service_, [&] {
                replied = FilterReplyMessage(port, reply.as<FILTER_REPLY_HEADER>(), reply.size());
            });
            EXPECT_TRUE(CloseHandle(port));
        }
        const NTSTATUS status = send.Wait();
        if (status == STATUS_SUCCESS) {
            EXPECT_EQ(replied.load(), S_OK);
            EXPECT_EQ(send.reply(), std::vector<UCHAR>(4, 0x5C));
        } else {
            EXPECT_EQ(status, STATUS_PORT_DISCONNECTED);
            EXPECT_NE(replied.load(), S_OK);
            EXPECT_EQ(send.reply(), std::vector<UCHAR>(4, 0xEE));
        }
        ASSERT_EQ(ConnectService(&port_), S_OK);
    }
}

TEST_F(PortMessageTest, TerminatedThreadsWaitEndsWithThreadIsTerminating)
{
    {
        Send send(app_, {1}, 4, std::nullopt);
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
        ntsim::ports::TerminateWaits(send.threadId());
        EXPECT_EQ(send.Wait(), STATUS_THREAD_IS_TERMINATING);
        EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u);
        EXPECT_EQ(ntsim::ports::PendingTerminations(send.threadId()), 0u);
    }
    // A termination asked for twice ends the thread's next two sends at once.
    ntsim::SimulatedThread sender(app_, [&] {
        ntsim::ports::TerminateWaits(PsGetCurrentThreadId(), 2);
        EXPECT_EQ(SendByte(), STATUS_THREAD_IS_TERMINATING);
        EXPECT_EQ(SendByte(), STATUS_THREAD_IS_TERMINATING);
        LARGE_INTEGER zero{};
        EXPECT_EQ(SendByte(&zero), STATUS_TIMEOUT);
    });
    sender.Join();
    EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u);
}

TEST_F(PortMessageTest, SendIsAFaultPointAndRefusedUnderALock)
{
    ntsim::faults::FailRoutine("FltSendMessage", STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(SendByte(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u);

    ntsim::verifier::BugCheckCapture capture;
    int lock = 0;
    ntsim::verifier::NoteLockAcquired(&lock, "test lock");
    LARGE_INTEGER zero{};
    EXPECT_EQ(SendByte(&zero), STATUS_TIMEOUT);
    ntsim::verifier::NoteLockReleased(&lock);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kLockHeldDuringWait));
}

TEST_F(PortMessageTest, ManySendersAndServiceThreadsEachGetTheirOwnReply)
{
    constexpr int kSenders = 16;
    std::vector<std::unique_ptr<Send>> sends;
    std::atomic<int> answered{0};
    std::vector<std::unique_ptr<ntsim::SimulatedThread>> workers;
    for (int worker = 0; worker < 4; ++worker) {
        workers.push_back(std::make_unique<ntsim::SimulatedThread>(service_, [&, port = port_] {
            UserBuffer message(32);
            UserBuffer reply(20);
            while (SUCCEEDED(FilterGetMessage(port, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr))) {
                reply.as<FILTER_REPLY_HEADER>()->MessageId = ReadAt<ULONGLONG>(message.data(), 8);
                for (int i = 0; i < 4; ++i) {
                    reply.data()[16 + i] = static_cast<UCHAR>(message.data()[16] + i);
                }
                EXPECT_EQ(FilterReplyMessage(port, reply.as<FILTER_REPLY_HEADER>(), reply.size()), S_OK);
                ++answered;
            }
        }));
    }
    for (int i = 0; i < kSenders; ++i) {
        sends.push_back(std::make_unique<Send>(app_, std::vector<UCHAR>{static_cast<UCHAR>(i * 10)}, 4, std::nullopt));
    }
    for (int i = 0; i < kSenders; ++i) {
        ASSERT_EQ(sends[i]->Wait(), STATUS_SUCCESS);
        const UCHAR base = static_cast<UCHAR>(i * 10);
        EXPECT_EQ(sends[i]->reply(), (std::vector<UCHAR>{base, static_cast<UCHAR>(base + 1), static_cast<UCHAR>(base + 2),
                                                         static_cast<UCHAR>(base + 3)}));
    }
    // Closing the port ends the workers' waits.
    EXPECT_TRUE(CloseHandle(port_));
    port_ = nullptr;
    workers.clear();
    EXPECT_EQ(answered.load(), kSenders);
}

TEST_F(PortMessageTest, MessageNotificationGetsTheCallersUserBuffersUnchecked)
{
    // A filter that probes and copies as a minifilter must.
    State().onMessage = [](PVOID input, ULONG inputLength, PVOID output, ULONG outputLength, PULONG returned) {
        NTSTATUS status = STATUS_SUCCESS;
        __try {
            ProbeForRead(input, inputLength, 1);
            ProbeForWrite(output, outputLength, 1);
            for (ULONG i = 0; i < outputLength && i < inputLength; ++i) {
                static_cast<UCHAR*>(output)[i] = static_cast<UCHAR>(~static_cast<UCHAR*>(input)[i]);
            }
            *returned = outputLength < inputLength ? outputLength : inputLength;
        } __except (EXCEPTION_EXECUTE_HANDLER) {
            status = GetExceptionCode();
        }
        return status;
    };
    UserBuffer input(3);
    UserBuffer output(8);
    input.data()[0] = 0x0F;
    DWORD returned = 99;
    ASSERT_EQ(FilterSendMessage(port_, input.data(), 3, output.data(), output.size(), &returned), S_OK);
    EXPECT_EQ(returned, 3u);
    EXPECT_EQ(output.data()[0], 0xF0);

    // An address the service does not own reaches the filter as it is, and its probe fails.
    UCHAR stack[8] = {};
    EXPECT_EQ(FilterSendMessage(port_, stack, sizeof(stack), output.data(), output.size(), &returned),
              HRESULT_FROM_WIN32(ERROR_NOACCESS));
    EXPECT_EQ(returned, 0u);
    void* foreign = app_->AllocateUserMemory(8);
    EXPECT_EQ(FilterSendMessage(port_, input.data(), 3, foreign, 8, &returned), HRESULT_FROM_WIN32(ERROR_NOACCESS));
    app_->FreeUserMemory(foreign);

    // A notification that claims more output than there was is a verifier error, and is cut.
    State().onMessage = [](PVOID, ULONG, PVOID, ULONG outputLength, PULONG returned) {
        *returned = outputLength + 1;
        return STATUS_SUCCESS;
    };
    ntsim::verifier::BugCheckCapture capture;
    ASSERT_EQ(FilterSendMessage(port_, input.data(), 3, output.data(), 4, &returned), S_OK);
    EXPECT_TRUE(capture.Consume(ntsim::ports::rules::kReturnLengthTooLarge));
    EXPECT_EQ(returned, 4u);
}

TEST_F(PortMessageTest, OverlappedCallsAreNotProvided)
{
    ntsim::verifier::BugCheckCapture capture;
    UserBuffer message(32);
    OVERLAPPED overlapped{};
    EXPECT_EQ(FilterGetMessage(port_, message.as<FILTER_MESSAGE_HEADER>(), message.size(), &overlapped), E_NOTIMPL);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kNotImplemented));
}

}  // namespace
