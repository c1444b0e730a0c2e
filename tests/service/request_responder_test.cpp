// The scripted service: which rule answers a request (by code, by path, for a number of uses, or
// computed from the request), and that it runs as a process of its own.
#include <gtest/gtest.h>

#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/text.hpp>

#include "../../service/responder_host.hpp"
#include "../../service/responder_scripted.hpp"
#include "servicerequests.h"

namespace {

using foldermerge::service::ReplyContent;
using foldermerge::service::RequestView;
using foldermerge::service::ScriptedResponder;
using foldermerge::service::TransportHost;

constexpr char16_t kSid[] = u"S-1-5-21-1-2-3-1001";

class ResponderTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(host_.Load(), STATUS_SUCCESS); }
    void TearDown() override
    {
        EXPECT_EQ(host_.Unload(), STATUS_SUCCESS);
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, 0u);
    }

    // The reply's Status of a code 16 request for path.
    static NTSTATUS Ask(std::u16string_view path, ULONG ulCode = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE)
    {
        ntsim::UnicodeStringHolder sid(kSid);
        ntsim::UnicodeStringHolder pathText(path);
        ServiceRequest request;
        NTSTATUS status = BeginServiceRequest(&request, ulCode, sid.get(), pathText.get(), nullptr);
        if (NT_SUCCESS(status)) {
            status = SendServiceRequest(&request, SERVICE_REPLY_HEAD_SIZE);
        }
        EndServiceRequest(&request);
        return status;
    }

    TransportHost host_;
};

TEST_F(ResponderTest, FirstMatchingRuleAnswersByCodeAndPathAndUsesRunOut)
{
    ScriptedResponder service({.portName = TransportHost::kPortName,
                               .defaultReply = {.status = (int32_t)STATUS_NOT_FOUND}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .path = u"\\Device\\HarddiskVolume2\\Data\\Once.txt",
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED},
                     .uses = 1});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, .reply = {.status = 0}});
    service.AddRule({.path = u"\\Device\\HarddiskVolume2\\Data\\other.txt", .reply = {.status = (int32_t)STATUS_SHARING_VIOLATION}});
    ASSERT_EQ(service.Connect(), S_OK);

    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\DATA\\ONCE.TXT"), STATUS_ACCESS_DENIED);  // path without regard to case
    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\once.txt"), STATUS_SUCCESS);        // its one use is spent
    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\other.txt"), STATUS_SUCCESS);       // the code rule comes first
    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\other.txt", SERVICE_REQUEST_OBJECT_WRITE_NOTIFY),
              STATUS_SHARING_VIOLATION);
    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\x.txt", SERVICE_REQUEST_OBJECT_WRITE_NOTIFY), STATUS_NOT_FOUND);

    ASSERT_TRUE(service.WaitForHandled(5));  // the filter may have its reply before the service notes it
    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 5u);
    for (const auto& request : requests) {
        ASSERT_TRUE(request.view.has_value()) << request.decodeError;
        EXPECT_EQ(request.view->sid, kSid);
        EXPECT_TRUE(request.answered);
        EXPECT_EQ(request.replyResult, S_OK);
    }
    EXPECT_EQ(requests[4].view->code, (uint32_t)SERVICE_REQUEST_OBJECT_WRITE_NOTIFY);
}

TEST_F(ResponderTest, ComputedAnswersSeeTheRequestAndTheServiceIsItsOwnProcess)
{
    ScriptedResponder service({.portName = TransportHost::kPortName});
    service.AddRule({.answer = [](const RequestView& request) {
        return ReplyContent{.status = request.path.ends_with(u".tmp") ? (int32_t)STATUS_SUCCESS
                                                                       : (int32_t)STATUS_OBJECT_NAME_NOT_FOUND};
    }});
    ASSERT_EQ(service.Connect(), S_OK);
    EXPECT_EQ(g_ServiceData.ServiceProcess, service.ServiceProcess()->AsEprocess());
    EXPECT_NE(g_ServiceData.ThreadClientPort, nullptr);

    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\a.tmp"), STATUS_SUCCESS);
    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\a.txt"), STATUS_OBJECT_NAME_NOT_FOUND);

    // A second connection of the same responder is refused; its disconnect empties the slot.
    EXPECT_EQ(service.Connect(), E_FAIL);
    service.Disconnect();
    EXPECT_FALSE(service.Connected());
    EXPECT_EQ(g_ServiceData.ThreadClientPort, nullptr);
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);
}

}  // namespace
