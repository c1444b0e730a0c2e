// The traces of the request routines that write their own, as a trace session receives them: the
// download request along its way, the exclusion query's entry and exit, and the unlock notice's
// account of a request that got no reply.
#include "trace_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>

#include <future>
#include <string>
#include <vector>

#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::ResponderAction;
using service::ScriptedResponder;

constexpr char16_t kSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";
constexpr char16_t kPath[] = u"\\Device\\HarddiskVolume2\\Data\\report.txt";

class RequestTraces : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        StartSession();
        iopb_.Parameters.Create.SecurityContext = &securityContext_;
    }

    void TearDown() override
    {
        session_.reset();
        SetTracing(false);
        TracedFilter::TearDown();
    }

    // Objects with no instance, for the download request, which takes its block from its caller.
    const FLT_RELATED_OBJECTS objects_{sizeof(FLT_RELATED_OBJECTS), 0, nullptr, nullptr, nullptr, nullptr, nullptr};
    IO_SECURITY_CONTEXT securityContext_{};
    FLT_IO_PARAMETER_BLOCK iopb_{};
    ntsim::UnicodeStringHolder sid_{kSid};
    ntsim::UnicodeStringHolder path_{kPath};
};

TEST_F(RequestTraces, DownloadTracesItsArgumentsTheSendAndItsExit)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                     .reply = {.status = (int32_t)STATUS_SHARING_VIOLATION}});
    ASSERT_EQ(service.Connect(), S_OK);
    TakeMessages();

    UCHAR flag = 0;
    EXPECT_EQ(ServiceRequest_ObjectDownloadIfRequired(sid_.get(), path_.get(), nullptr, nullptr, 0, &flag, &flag,
                                                      &objects_, &iopb_, &flag, nullptr),
              STATUS_SHARING_VIOLATION);
    const std::string path = ntsim::ToUtf8(std::u16string(kPath));
    const std::string sid = ntsim::ToUtf8(std::u16string(kSid));
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{
                                  "File Name [" + path + "], SID [" + sid + "].",
                                  "Calling SendMessageToService for [" + path + "], SID [" + sid + "].",
                                  "EXIT: File Name [" + path + "], SID [" + sid + "], Status[c0000043]",
                              }));

    // A missing out is named by its address.
    EXPECT_EQ(ServiceRequest_ObjectDownloadIfRequired(sid_.get(), path_.get(), nullptr, nullptr, 0, &flag, nullptr,
                                                      &objects_, &iopb_, &flag, nullptr),
              STATUS_INVALID_PARAMETER);
    const std::vector<TraceEvent> events = TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].level, 2) << "an error";
    EXPECT_NE(events[0].message.find("pbLocked:0x0000000000000000,"), std::string::npos) << events[0].message;
    EXPECT_EQ(events[0].message.rfind("Invalid parameter: pstrPath:0x", 0), 0u) << events[0].message;
}

TEST_F(RequestTraces, ExclusionQueryTracesItsEntryAndTheStatusItReturns)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .reply = {.status = (int32_t)STATUS_OBJECT_NAME_NOT_FOUND}});
    ASSERT_EQ(service.Connect(), S_OK);
    TakeMessages();

    // Without the operation's objects no block is read from the volume, and nothing else traces.
    EXPECT_EQ(ServiceRequest_ObjectIsExcludedFile(sid_.get(), path_.get(), nullptr, nullptr),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{
                                  "[ENTER] - ServiceRequest_ObjectIsExcludedFile [" + ntsim::ToUtf8(std::u16string(kPath)) +
                                      "]",
                                  "[EXIT] - Status:0xc0000034",
                              }));
}

TEST_F(RequestTraces, UnlockNoticeWithoutAReplyTracesTheCountsAndTheTimeOut)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .action = ResponderAction::NoAnswer});
    ASSERT_EQ(service.Connect(), S_OK);
    TakeMessages();

    auto notice = std::async(std::launch::async, [&] { return ServiceRequest_ObjectIsLocked(sid_.get(), path_.get()); });
    ASSERT_TRUE(service.WaitForHandled(1));
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    EXPECT_EQ(notice.get(), STATUS_TIMEOUT);
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{
                                  "ulDisconnectCount = 0  g_ServiceData.ClientPortDisconnectCount = 0 status = 0x102",
                              }));

    EXPECT_EQ(ServiceRequest_ObjectIsLocked(nullptr, path_.get()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{"STATUS_INVALID_PARAMETER"}));
}

}  // namespace
}  // namespace foldermerge::testing
