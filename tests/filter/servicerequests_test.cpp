// The request frame and its transport, in the FolderMerge driver: the SID test and the SID's field,
// and how a result is judged when the Thread port goes away, the service never answers, the thread
// is being terminated, or there is no memory. The requests themselves are tested through their
// routines (objectrequests_test, directoryrequests_test).
#include "request_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/ports.hpp>

#include <cstring>
#include <future>
#include <string>
#include <vector>

#include "fileaccess.h"
#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::ResponderAction;
using service::ScriptedResponder;

constexpr auto& kSid = kRequestSid;

// What a request gave its caller.
struct Outcome {
    NTSTATUS status = STATUS_PENDING;
    UCHAR bReplyRead = 0;
    std::vector<uint8_t> reply;
};

class ServiceRequestTest : public RequestTest {
protected:
    // Begins a request, sends it once, takes what the caller may read, and ends it.
    static Outcome Send(ULONG ulCode, PCUNICODE_STRING pSid, PCUNICODE_STRING pPath, ULONG ulReplyLength,
                        PCUNICODE_STRING pSecond = nullptr)
    {
        ServiceRequest request;
        Outcome outcome;
        outcome.status = BeginServiceRequest(&request, ulCode, pSid, pPath, pSecond);
        if (NT_SUCCESS(outcome.status)) {
            outcome.status = SendServiceRequest(&request, ulReplyLength);
            outcome.bReplyRead = request.bReplyRead;
            if (request.bReplyRead) {
                const auto* bytes = reinterpret_cast<const uint8_t*>(request.pReply);
                outcome.reply.assign(bytes, bytes + request.ulReplyLength);
            }
        }
        EndServiceRequest(&request);
        return outcome;
    }

    // Send, in a thread of its own (the System process's), for requests the test has to wait out.
    static std::future<Outcome> SendAsync(ULONG ulCode, std::u16string sid, std::u16string path, ULONG ulReplyLength)
    {
        return std::async(std::launch::async, [=] {
            ntsim::UnicodeStringHolder sidText(sid);
            ntsim::UnicodeStringHolder pathText(path);
            return Send(ulCode, sidText.get(), pathText.get(), ulReplyLength);
        });
    }
};

// ---- the SID ----

TEST_F(ServiceRequestTest, SidTestPassesFiveHundredEighteenBytesAndRefusesFiveHundredTwenty)
{
    auto sidOf = [](size_t bytes) {
        return UNICODE_STRING{(USHORT)bytes, (USHORT)(bytes + 2), nullptr};
    };
    UNICODE_STRING sid = sidOf(518);
    EXPECT_TRUE(IsServiceRequestSidAcceptable(&sid));
    sid = sidOf(519);  // the lowest bit doesn't count
    EXPECT_TRUE(IsServiceRequestSidAcceptable(&sid));
    sid = sidOf(520);
    EXPECT_FALSE(IsServiceRequestSidAcceptable(&sid));
    sid = sidOf(521);
    EXPECT_FALSE(IsServiceRequestSidAcceptable(&sid));
    EXPECT_FALSE(IsServiceRequestSidAcceptable(nullptr));
}

TEST_F(ServiceRequestTest, SidTooLongForItsFieldIsCutAndLeavesPathLengthAlone)
{
    std::u16string longSid(300, u'7');  // 600 bytes
    longSid[0] = u'S';
    ntsim::UnicodeStringHolder sid(longSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\a");

    ServiceRequest request;
    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_DELETED, sid.get(), path.get(), nullptr),
              STATUS_SUCCESS);
    const auto* bytes = reinterpret_cast<const uint8_t*>(request.pMessage);
    uint16_t last, terminator;
    std::memcpy(&last, bytes + 32 + 520, 2);
    std::memcpy(&terminator, bytes + 32 + 522, 2);
    EXPECT_EQ(last, u'7');
    EXPECT_EQ(terminator, 0);
    uint32_t pathLength;
    std::memcpy(&pathLength, bytes + 556, 4);
    EXPECT_EQ(pathLength, 50u);
    EndServiceRequest(&request);
}

// ---- judging the result ----

TEST_F(ServiceRequestTest, ReplyAfterAThreadPortDisconnectSinceTheRequestBeganIsDropped)
{
    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\a");
    ServiceRequest request;
    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_READ_ONLY, sid.get(), path.get(), nullptr),
              STATUS_SUCCESS);

    // The request has noted the disconnect count when the service's Thread port goes and a new
    // one comes (the driver takes one Thread port at a time).
    {
        ScriptedResponder gone;
        ASSERT_EQ(gone.Connect(), S_OK);
    }
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY, .reply = {.status = 0, .readOnly = true}});
    ASSERT_EQ(service.Connect(), S_OK);

    EXPECT_EQ(SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(request.SendStatus, STATUS_SUCCESS);  // the reply reached the filter...
    EXPECT_EQ(request.bReplyRead, 0);               // ...which drops it
    EndServiceRequest(&request);
    ASSERT_TRUE(service.WaitForHandled(1));
    EXPECT_TRUE(service.Requests()[0].answered);
    EXPECT_EQ(service.Requests()[0].replyResult, S_OK);

    // A request that begins now has the new count, and reads its reply.
    Outcome next = Send(SERVICE_REQUEST_OBJECT_IS_READ_ONLY, sid.get(), path.get(),
                        SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY);
    EXPECT_EQ(next.status, STATUS_SUCCESS);
    ASSERT_EQ(next.bReplyRead, 1);
    EXPECT_EQ(next.reply[16], 1);
}

TEST_F(ServiceRequestTest, DisconnectDuringTheWaitIsUnsuccessfulAndLaterSendsFailAsTheSendDoes)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DELETED, .action = ResponderAction::Disconnect});
    ASSERT_EQ(service.Connect(), S_OK);

    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\gone.txt");
    // The sender wakes as the connection ends, and the disconnect notification counts it in the
    // service's thread: whichever the request sees first, it fails and reads nothing.
    Outcome first = Send(SERVICE_REQUEST_OBJECT_DELETED, sid.get(), path.get(), 16);
    EXPECT_TRUE(first.status == STATUS_UNSUCCESSFUL || first.status == STATUS_PORT_DISCONNECTED) << first.status;
    EXPECT_EQ(first.bReplyRead, 0);
    ASSERT_TRUE(service.WaitForHandled(1));
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);

    // No Thread port now, and no disconnect during this one: the send's own failure stands.
    Outcome second = Send(SERVICE_REQUEST_OBJECT_DELETED, sid.get(), path.get(), 16);
    EXPECT_EQ(second.status, STATUS_PORT_DISCONNECTED);
    EXPECT_EQ(second.bReplyRead, 0);
}

TEST_F(ServiceRequestTest, ServiceThatNeverAnswersCostsThirtyMinutesAndGivesTimeoutNotAnError)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .action = ResponderAction::NoAnswer});
    ASSERT_EQ(service.Connect(), S_OK);

    auto outcome = SendAsync(SERVICE_REQUEST_OBJECT_IS_LOCKED, kSid, u"\\Device\\HarddiskVolume2\\Data\\a", 16);
    ASSERT_TRUE(service.WaitForHandled(1));

    ntsim::clock::Advance(30 * ntsim::clock::kMinute - 1);
    EXPECT_EQ(outcome.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

    ntsim::clock::Advance(1);
    Outcome result = outcome.get();
    EXPECT_EQ(result.status, STATUS_TIMEOUT);
    EXPECT_TRUE(NT_SUCCESS(result.status));
    EXPECT_EQ(result.bReplyRead, 0);
}

TEST_F(ServiceRequestTest, ReplyAfterTheTimeOutIsLost)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY,
                     .reply = {.readOnly = true},
                     .delay = 31 * ntsim::clock::kMinute});
    ASSERT_EQ(service.Connect(), S_OK);

    auto outcome = SendAsync(SERVICE_REQUEST_OBJECT_IS_READ_ONLY, kSid, u"\\Device\\HarddiskVolume2\\Data\\a", 17);
    ASSERT_TRUE(service.WaitForRequests(1));
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    Outcome result = outcome.get();
    EXPECT_EQ(result.status, STATUS_TIMEOUT);
    EXPECT_EQ(result.bReplyRead, 0);

    ntsim::clock::Advance(ntsim::clock::kMinute);

    ASSERT_TRUE(service.WaitForHandled(1));
    EXPECT_EQ(service.Requests()[0].replyResult, ERROR_FLT_NO_WAITER_FOR_REPLY);
}

TEST_F(ServiceRequestTest, ThreadBeingTerminatedSendsOnceMoreAndTheSecondResultStands)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .reply = {.status = 0}});
    ASSERT_EQ(service.Connect(), S_OK);
    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data");
    const HANDLE self = PsGetCurrentThreadId();

    // The first send is refused: the second one reaches the service and its answer counts.
    ntsim::ports::TerminateWaits(self, 1);
    Outcome retried = Send(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, sid.get(), path.get(), 16);
    EXPECT_EQ(retried.status, STATUS_SUCCESS);
    EXPECT_EQ(retried.bReplyRead, 1);
    EXPECT_EQ(service.RequestCount(), 1u);

    // Both refused: the second refusal is the result, and there is no third try.
    ntsim::ports::TerminateWaits(self, 3);
    Outcome refused = Send(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, sid.get(), path.get(), 16);
    EXPECT_EQ(refused.status, STATUS_THREAD_IS_TERMINATING);
    EXPECT_EQ(refused.bReplyRead, 0);
    EXPECT_EQ(service.RequestCount(), 1u);
    EXPECT_EQ(ntsim::ports::PendingTerminations(self), 1u);

    // The termination left over takes the first send of the next request; its retry gets through.
    EXPECT_EQ(Send(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, sid.get(), path.get(), 16).status, STATUS_SUCCESS);
    EXPECT_EQ(ntsim::ports::PendingTerminations(self), 0u);
    EXPECT_EQ(service.RequestCount(), 2u);
}

TEST_F(ServiceRequestTest, NoMemoryForTheMessageOrTheReplySendsNothing)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\a.txt");

    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG, ntsim::faults::Persistence::Once);
    ServiceRequest request;
    EXPECT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD, sid.get(), path.get(), nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(request.pMessage, nullptr);
    EndServiceRequest(&request);

    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD, sid.get(), path.get(), nullptr),
              STATUS_SUCCESS);
    ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG, ntsim::faults::Persistence::Once);
    EXPECT_EQ(SendServiceRequest(&request, 16), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(request.bReplyRead, 0);
    EndServiceRequest(&request);

    EXPECT_EQ(service.RequestCount(), 0u);
}

}  // namespace
}  // namespace foldermerge::testing
