// Who wakes when a port's state changes: waiting FilterGetMessage calls take messages in the order
// they began to wait; a termination or a deadline ends only its own sender's wait, whether its
// message is queued or taken; the connection's end reaches every sender in flight.
#include "port_testfilter.hpp"

#include <chrono>
#include <future>
#include <thread>

using namespace porttest;

namespace {

// A FltSendMessage with a 4-byte reply buffer and a relative timeout (at most a day) from a thread
// of the application process. Its result is awaited with a limit in real time, and a send that
// nothing woke is ended by its deadline, so that a lost wake fails the test instead of hanging it.
class Send {
public:
    Send(std::shared_ptr<ntsim::Process> process, UCHAR tag, LONGLONG timeout = -ntsim::clock::kDay)
        : tag_(tag), result_(done_.get_future().share())
    {
        PFLT_PORT port = State().ClientOf(0);
        thread_ = std::make_unique<ntsim::SimulatedThread>(process, [this, port, timeout]() mutable {
            started_.set_value(PsGetCurrentThreadId());
            LARGE_INTEGER value;
            value.QuadPart = timeout;
            done_.set_value(FltSendMessage(State().filter, &port, &tag_, 1, reply_, &replyLength_, &value));
        });
        threadId_ = started_.get_future().get();
    }
    ~Send()
    {
        if (result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            ADD_FAILURE() << "a send still waits at the end of its test";
            ntsim::clock::Advance(ntsim::clock::kDay);
        }
    }
    Send(const Send&) = delete;
    Send& operator=(const Send&) = delete;

    // The send's status, or STATUS_PENDING while it still waits after `limit`.
    NTSTATUS Result(std::chrono::milliseconds limit = std::chrono::seconds(10)) const
    {
        return result_.wait_for(limit) == std::future_status::ready ? result_.get() : STATUS_PENDING;
    }
    HANDLE threadId() const { return threadId_; }
    UCHAR reply() const { return reply_[0]; }

private:
    UCHAR tag_;
    UCHAR reply_[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    ULONG replyLength_ = sizeof(reply_);
    std::promise<HANDLE> started_;
    std::promise<NTSTATUS> done_;
    std::shared_future<NTSTATUS> result_;
    HANDLE threadId_ = nullptr;
    std::unique_ptr<ntsim::SimulatedThread> thread_;  // last: joined before the rest goes
};

class PortWaitTest : public ConnectedPortFixture {
protected:
    // Takes one message; returns its id and (in *tag) its one byte.
    ULONGLONG Take(UCHAR* tag)
    {
        UserBuffer message(32);
        EXPECT_EQ(FilterGetMessage(port_, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr), S_OK);
        *tag = message.data()[16];
        return ReadAt<ULONGLONG>(message.data(), 8);
    }

    HRESULT Reply(ULONGLONG id, UCHAR byte) { return ConnectedPortFixture::Reply(id, {byte}); }
};

TEST_F(PortWaitTest, WaitingReadersTakeMessagesInTheOrderTheyBeganToWait)
{
    constexpr int kReaders = 3;
    UCHAR got[kReaders] = {};
    std::vector<std::unique_ptr<ntsim::SimulatedThread>> readers;
    for (int i = 0; i < kReaders; ++i) {
        readers.push_back(std::make_unique<ntsim::SimulatedThread>(service_, [&, i, port = port_] {
            UserBuffer message(32);
            EXPECT_EQ(FilterGetMessage(port, message.as<FILTER_MESSAGE_HEADER>(), message.size(), nullptr), S_OK);
            got[i] = message.data()[16];
        }));
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(static_cast<size_t>(i) + 1));
    }
    // Without a reply buffer and with a zero timeout, a send succeeds only if a waiting reader took it.
    PFLT_PORT client = State().ClientOf(0);
    LARGE_INTEGER zero{};
    bool allTaken = true;
    for (UCHAR tag = 1; tag <= kReaders; ++tag) {
        const NTSTATUS status = FltSendMessage(State().filter, &client, &tag, 1, nullptr, nullptr, &zero);
        EXPECT_EQ(status, STATUS_SUCCESS) << "message " << int(tag);
        allTaken = allTaken && status == STATUS_SUCCESS;
    }
    if (!allTaken) {
        EXPECT_TRUE(CloseHandle(port_));  // ends the readers left waiting
        port_ = nullptr;
    }
    readers.clear();
    EXPECT_EQ(got[0], 1);
    EXPECT_EQ(got[1], 2);
    EXPECT_EQ(got[2], 3);
}

TEST_F(PortWaitTest, TerminationOrDeadlineEndsOnlyItsOwnSendersWait)
{
    // Termination of a sender whose message is taken, beside one whose message is queued.
    {
        Send taken(app_, 1);
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
        UCHAR tag = 0;
        const ULONGLONG takenId = Take(&tag);
        ASSERT_EQ(tag, 1);
        Send queued(app_, 2);
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(2));

        ntsim::ports::TerminateWaits(taken.threadId());
        EXPECT_EQ(taken.Result(), STATUS_THREAD_IS_TERMINATING);
        EXPECT_EQ(Reply(takenId, 0x11), ERROR_FLT_NO_WAITER_FOR_REPLY);
        EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 1u);

        // Then the queued one's: its message is withdrawn.
        ntsim::ports::TerminateWaits(queued.threadId());
        EXPECT_EQ(queued.Result(), STATUS_THREAD_IS_TERMINATING);
        EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u);
    }
    // A deadline passing: the sender with a later one is still answered, with its own reply.
    {
        Send timed(app_, 3, -ntsim::clock::kMinute);
        Send patient(app_, 4);
        ASSERT_TRUE(ntsim::clock::WaitForWaiters(2));
        ntsim::clock::Advance(ntsim::clock::kMinute);
        EXPECT_EQ(timed.Result(), STATUS_TIMEOUT);
        UCHAR tag = 0;
        const ULONGLONG id = Take(&tag);
        EXPECT_EQ(tag, 4) << "the timed-out message is no longer offered";
        ASSERT_EQ(Reply(id, 0x44), S_OK);
        EXPECT_EQ(patient.Result(), STATUS_SUCCESS);
        EXPECT_EQ(patient.reply(), 0x44);
        EXPECT_EQ(timed.reply(), 0xEE);
    }
}

TEST_F(PortWaitTest, ConnectionEndReachesQueuedAndTakenSendersAlike)
{
    Send taken(app_, 1);
    ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
    UCHAR tag = 0;
    Take(&tag);
    Send queued(app_, 2, -ntsim::clock::kHour);
    ASSERT_TRUE(ntsim::clock::WaitForWaiters(2));
    ASSERT_EQ(ntsim::ports::QueuedMessageCount(), 1u);

    ASSERT_TRUE(CloseHandle(port_));
    port_ = nullptr;
    EXPECT_EQ(taken.Result(), STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(queued.Result(), STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(ntsim::ports::QueuedMessageCount(), 0u);
    EXPECT_EQ(taken.reply(), 0xEE);
}

}  // namespace
