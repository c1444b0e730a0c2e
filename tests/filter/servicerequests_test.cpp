// The request frame and its transport, in the FolderMerge driver: messages as the service receives
// them, byte for byte; the SID test; and how a result is judged when the Thread port goes away, the
// service never answers, the thread is being terminated, or the service refuses.
#include "instance_fixture.hpp"

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

constexpr char16_t kSid[] = u"S-1-5-21-1004336348-1177238915-682003330-1001";

// The bytes a message should have, written at the offsets of the wire table: its code, the
// current process and thread, and its length; the rest as a test puts it.
class Image {
public:
    Image(uint32_t code, size_t size) : bytes_(size, 0)
    {
        Put<uint32_t>(0, code);
        Put<uint64_t>(8, (uint64_t)(ULONG_PTR)PsGetCurrentProcessId());
        Put<uint64_t>(16, (uint64_t)(ULONG_PTR)PsGetCurrentThreadId());
        Put<uint32_t>(24, (uint32_t)size);
    }

    template <typename T>
    void Put(size_t offset, T value)
    {
        std::memcpy(bytes_.data() + offset, &value, sizeof(T));
    }
    void PutText(size_t offset, std::u16string_view text) { std::memcpy(bytes_.data() + offset, text.data(), text.size() * 2); }
    void PutUnknownBlock(size_t offset)
    {
        for (size_t time = 0; time < 4; time++) {
            Put<int64_t>(offset + time * 8, 0x7FFFFFFFFFFFFFFFll);
        }
        Put<uint32_t>(offset + 32, 0xFFFFFFFFu);
    }
    const std::vector<uint8_t>& bytes() const { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

// The first offset at which two byte strings differ, for a readable failure.
std::string FirstDifference(const std::vector<uint8_t>& actual, const std::vector<uint8_t>& expected)
{
    if (actual.size() != expected.size()) {
        return "size " + std::to_string(actual.size()) + " instead of " + std::to_string(expected.size());
    }
    for (size_t offset = 0; offset < actual.size(); offset++) {
        if (actual[offset] != expected[offset]) {
            return "byte " + std::to_string(offset) + " is " + std::to_string(actual[offset]) + " instead of " +
                   std::to_string(expected[offset]);
        }
    }
    return "equal";
}

// What a request gave its caller.
struct Outcome {
    NTSTATUS status = STATUS_PENDING;
    UCHAR bReplyRead = 0;
    std::vector<uint8_t> reply;
};

class ServiceRequestTest : public LoadedFilterOnVolume {
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

    FLT_RELATED_OBJECTS RelatedObjects() const
    {
        return FLT_RELATED_OBJECTS{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance_,
                                   nullptr, nullptr};
    }
};

// ---- layouts ----

TEST_F(ServiceRequestTest, UploadWithoutSignatureIsTheHeadThePathAndNothingElse)
{
    const std::u16string file = u"\\Data\\report.txt";
    volume_->SeedFile(file, "hello world");
    volume_->SeedFile(file + u":" + reinterpret_cast<const char16_t*>(MARKER_STREAM_NAME), "");
    const FILE_BASIC_INFORMATION basic = *volume_->BasicInformation(file);

    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);

    ntsim::UnicodeStringHolder sid(kSid);
    const std::u16string path = std::u16string(kVolume) + file;
    ntsim::UnicodeStringHolder pathText(path);
    FLT_RELATED_OBJECTS objects = RelatedObjects();
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = instance_;

    ServiceRequest request;
    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED, sid.get(), pathText.get(),
                                  nullptr),
              STATUS_SUCCESS);
    FillFileInformationBlock(pathText.get(), &objects, &iopb, &request.pMessage->Area.UploadIfRequired.Information,
                             &request.pMessage->Area.UploadIfRequired.bMarkerStreamPresent);
    EXPECT_EQ(SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_UPLOAD_IF_REQUIRED), STATUS_SUCCESS);
    EndServiceRequest(&request);

    const size_t pathBytes = path.size() * 2;
    Image expected(4, 2088 + pathBytes);
    expected.PutText(32, kSid);
    expected.Put<uint32_t>(556, (uint32_t)pathBytes);
    // 560: SecondStringLength stays 0 without a signature name.
    expected.Put<int64_t>(568, basic.CreationTime.QuadPart);
    expected.Put<int64_t>(576, basic.LastAccessTime.QuadPart);
    expected.Put<int64_t>(584, basic.LastWriteTime.QuadPart);
    expected.Put<int64_t>(592, basic.ChangeTime.QuadPart);
    expected.Put<uint32_t>(600, basic.FileAttributes);
    expected.Put<int64_t>(608, 4096);  // allocation: one cluster
    expected.Put<int64_t>(616, 11);    // end of file
    expected.Put<uint32_t>(624, 1);    // one link
    expected.Put<uint8_t>(632, 1);     // the marker stream is there
    expected.PutText(2088, path);

    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, expected.bytes()) << FirstDifference(requests[0].bytes, expected.bytes());
    EXPECT_EQ(requests[0].replyLength, 16u);
    ASSERT_TRUE(requests[0].view.has_value()) << requests[0].decodeError;
    EXPECT_TRUE(requests[0].view->secondString.empty());
}

TEST_F(ServiceRequestTest, RenameCarriesTheNewPathDirectlyBehindTheOldOne)
{
    const std::u16string oldPath = u"\\Device\\Vol\\olds.txt";     // 40 bytes
    const std::u16string newPath = u"\\Device\\Vol\\newest.txt";   // 44 bytes
    ASSERT_EQ(oldPath.size() * 2, 40u);
    ASSERT_EQ(newPath.size() * 2, 44u);

    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);

    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder oldText(oldPath);
    ntsim::UnicodeStringHolder newText(newPath);
    FLT_RELATED_OBJECTS objects = RelatedObjects();
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = instance_;

    ServiceRequest request;
    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_RENAME, sid.get(), oldText.get(), newText.get()),
              STATUS_SUCCESS);
    // No such new path on the volume: the block says there is nothing local to look at.
    FillFileInformationBlock(newText.get(), &objects, &iopb, &request.pMessage->Area.Rename.Information, nullptr);
    EXPECT_EQ(SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_RENAME), STATUS_SUCCESS);
    EndServiceRequest(&request);

    Image expected(8, 2172);
    expected.PutText(32, kSid);
    expected.Put<uint32_t>(556, 40);
    expected.Put<uint32_t>(560, 44);
    expected.PutUnknownBlock(568);
    expected.PutText(2088, oldPath);
    expected.PutText(2128, newPath);

    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, expected.bytes()) << FirstDifference(requests[0].bytes, expected.bytes());
    ASSERT_TRUE(requests[0].view.has_value()) << requests[0].decodeError;
    EXPECT_EQ(requests[0].view->path, oldPath);
    EXPECT_EQ(requests[0].view->secondString, newPath);
    EXPECT_TRUE(requests[0].view->information->IsUnknown());
}

TEST_F(ServiceRequestTest, DirectoryContentsIsTheBareHeadWithTheListingInTheSidField)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .reply = {.listing = {1, 2, 3}}});
    ASSERT_EQ(service.Connect(), S_OK);

    ServiceRequest request;
    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_DIRECTORY_CONTENTS, nullptr, nullptr, nullptr),
              STATUS_SUCCESS);
    request.pMessage->Identity.Listing.ListingHandle = 0x1122334455667788ull;
    request.pMessage->Identity.Listing.ListingLength = 300;
    EXPECT_EQ(SendServiceRequest(&request, SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS(300)), STATUS_SUCCESS);
    ASSERT_EQ(request.bReplyRead, 1);
    const UCHAR* listing = request.pReply->Payload.DirectoryContents.Listing;
    EXPECT_EQ(std::vector<UCHAR>(listing, listing + 4), (std::vector<UCHAR>{1, 2, 3, 0}));
    EndServiceRequest(&request);

    Image expected(6, 2088);
    expected.Put<uint64_t>(32, 0x1122334455667788ull);
    expected.Put<uint32_t>(40, 300);

    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, expected.bytes()) << FirstDifference(requests[0].bytes, expected.bytes());
    EXPECT_EQ(requests[0].replyLength, 316u);
}

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

TEST_F(ServiceRequestTest, ExistsAndInformationTakeTheirPayloadWhateverTheStatusOthersReturnIt)
{
    ScriptedResponder service;
    service::FileInformation information{.creationTime = 11, .lastWriteTime = 33,
                                                      .fileAttributes = FILE_ATTRIBUTE_READONLY, .endOfFile = 99,
                                                      .numberOfLinks = 2};
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_EXISTS,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .exists = true}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_INFORMATION,
                     .reply = {.status = (int32_t)STATUS_OBJECT_NAME_NOT_FOUND, .information = information}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .readOnly = true}});
    ASSERT_EQ(service.Connect(), S_OK);
    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\a.txt");

    Outcome exists = Send(SERVICE_REQUEST_OBJECT_EXISTS, sid.get(), path.get(), SERVICE_REPLY_LENGTH_OBJECT_EXISTS);
    EXPECT_EQ(exists.status, STATUS_SUCCESS);
    ASSERT_EQ(exists.bReplyRead, 1);
    EXPECT_EQ(exists.reply[16], 1);

    Outcome queried =
        Send(SERVICE_REQUEST_OBJECT_INFORMATION, sid.get(), path.get(), SERVICE_REPLY_LENGTH_OBJECT_INFORMATION);
    EXPECT_EQ(queried.status, STATUS_SUCCESS);
    ASSERT_EQ(queried.bReplyRead, 1);
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    std::memcpy(&basic, queried.reply.data() + 16, 40);
    std::memcpy(&standard, queried.reply.data() + 56, 24);
    EXPECT_EQ(basic.CreationTime.QuadPart, 11);
    EXPECT_EQ(basic.LastWriteTime.QuadPart, 33);
    EXPECT_EQ(basic.FileAttributes, (ULONG)FILE_ATTRIBUTE_READONLY);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 99);
    EXPECT_EQ(standard.NumberOfLinks, 2u);

    // Any other code's result is the reply's Status; its payload may still be read.
    Outcome readOnly =
        Send(SERVICE_REQUEST_OBJECT_IS_READ_ONLY, sid.get(), path.get(), SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY);
    EXPECT_EQ(readOnly.status, STATUS_ACCESS_DENIED);
    ASSERT_EQ(readOnly.bReplyRead, 1);
    EXPECT_EQ(readOnly.reply[16], 1);
}

TEST_F(ServiceRequestTest, SameMessageCanBeSentAgainWithANewReplyBuffer)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    ntsim::UnicodeStringHolder sid(kSid);
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\a.txt");

    ServiceRequest request;
    ASSERT_EQ(BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES, sid.get(), path.get(),
                                  nullptr),
              STATUS_SUCCESS);
    request.pMessage->Area.RedirectAttributes.ReplyNameCapacity = 260;
    EXPECT_EQ(SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(260)), STATUS_SUCCESS);
    request.pMessage->Area.RedirectAttributes.ReplyNameCapacity = 600;
    EXPECT_EQ(SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(600)), STATUS_SUCCESS);
    EXPECT_EQ(request.ulReplyLength, 624u);
    EndServiceRequest(&request);

    auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].replyLength, 284u);
    EXPECT_EQ(requests[1].replyLength, 624u);
    std::vector<uint8_t> first = requests[0].bytes;
    std::vector<uint8_t> second = requests[1].bytes;
    std::memset(first.data() + 560, 0, 4);
    std::memset(second.data() + 560, 0, 4);
    EXPECT_EQ(first, second);  // only the capacity differs
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
