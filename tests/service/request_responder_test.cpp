// The scripted service against the FolderMerge driver: which rule answers a request (by code, by
// path, for a number of uses, or computed from the request), that it runs as a process of its own,
// and what it makes of bytes that are no request.
#include "../filter/filter_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::ReplyContent;
using service::RequestView;
using service::ScriptedResponder;

class ResponderTest : public LoadedFilter {
protected:
    // The result of an exclusion query for path (or a write notice), as the filter judged it.
    static NTSTATUS Ask(std::u16string_view path, ULONG ulCode = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE)
    {
        ntsim::UnicodeStringHolder sid(kAlice);
        ntsim::UnicodeStringHolder pathText(path);
        return ulCode == SERVICE_REQUEST_OBJECT_WRITE_NOTIFY
                   ? ServiceRequest_ObjectWriteNotify(sid.get(), pathText.get())
                   : ServiceRequest_ObjectIsExcludedFile(sid.get(), pathText.get(), nullptr, nullptr);
    }
};

TEST_F(ResponderTest, FirstMatchingRuleAnswersByCodeAndPathAndUsesRunOut)
{
    ScriptedResponder service({.defaultReply = {.status = (int32_t)STATUS_NOT_FOUND}});
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
        EXPECT_EQ(request.view->sid, kAlice);
        EXPECT_TRUE(request.answered);
        EXPECT_EQ(request.replyResult, S_OK);
    }
    EXPECT_EQ(requests[4].view->code, (uint32_t)SERVICE_REQUEST_OBJECT_WRITE_NOTIFY);
}

TEST_F(ResponderTest, ComputedAnswersSeeTheRequestAndTheServiceIsItsOwnProcess)
{
    ScriptedResponder service;
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

TEST_F(ResponderTest, BytesThatAreNoRequestAreRecordedWithTheReasonAndRefused)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    EXPECT_EQ(Ask(u"\\Device\\HarddiskVolume2\\Data\\a.txt"), STATUS_SUCCESS);

    // Eight bytes that begin as a code 16 request would: the head of the request before them must
    // not show through behind them.
    const uint32_t shortMessage[2] = {SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, 0};
    alignas(8) UCHAR reply[SERVICE_REPLY_HEAD_SIZE] = {};
    ULONG replyLength = sizeof(reply);
    PFLT_PORT port = g_ServiceData.ThreadClientPort;
    ASSERT_EQ(FltSendMessage(g_ServiceData.FilterHandle, &port, (PVOID)shortMessage, sizeof(shortMessage), reply,
                             &replyLength, nullptr),
              STATUS_SUCCESS);
    NTSTATUS replied;
    std::memcpy(&replied, reply, sizeof(replied));
    EXPECT_EQ(replied, STATUS_INVALID_PARAMETER);

    ASSERT_TRUE(service.WaitForHandled(2));
    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_TRUE(requests[0].view.has_value());
    EXPECT_FALSE(requests[1].view.has_value());
    EXPECT_NE(requests[1].decodeError.find("MessageLength 0"), std::string::npos) << requests[1].decodeError;
    EXPECT_TRUE(requests[1].answered);
}

}  // namespace
}  // namespace foldermerge::testing
