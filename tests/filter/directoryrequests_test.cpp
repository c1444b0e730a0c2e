// The directory requests of the FolderMerge driver against a scripted service: the size request with
// and without a pattern and a handle, the pattern that doesn't fit its field, and the fetch of a
// listing by its handle.
#include "request_fixture.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>

#include <future>
#include <string>
#include <vector>

namespace foldermerge::testing {
namespace {

using service::ResponderAction;
using service::ScriptedResponder;

constexpr char16_t kFolder[] = u"\\Device\\HarddiskVolume2\\Data";
constexpr ULONG kFileBothDirectoryInformation = 3;
constexpr ULONG kFileNamesInformation = 12;

class DirectoryRequestTest : public RequestTest {
protected:
    ntsim::UnicodeStringHolder sid_{kRequestSid};
    ntsim::UnicodeStringHolder folder_{kFolder};
};

TEST_F(DirectoryRequestTest, SizeRequestCarriesThePatternWithoutALengthAndTakesLengthAndHandle)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE,
                     .reply = {.listingHandle = 0x51, .listingLength = 304}});
    ASSERT_EQ(service.Connect(), S_OK);
    ntsim::UnicodeStringHolder pattern(u"*.TXT");

    ULONG length = 0;
    ULONGLONG handle = 0;
    EXPECT_EQ(ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), pattern.get(),
                                                   kFileBothDirectoryInformation, &length, &handle, 1),
              STATUS_SUCCESS);
    EXPECT_EQ(length, 304u);
    EXPECT_EQ(handle, 0x51u);

    const std::u16string folder = kFolder;
    Image expected(5, 2088 + folder.size() * 2);
    expected.PutText(32, kRequestSid);
    expected.Put<uint32_t>(556, (uint32_t)folder.size() * 2);
    expected.PutText(560, u"*.TXT");  // ended by the zero fill
    expected.Put<uint32_t>(1084, kFileBothDirectoryInformation);
    expected.Put<uint32_t>(1088, 1);  // a handle is wanted
    expected.Put<uint8_t>(1092, 1);   // single entry
    expected.PutText(2088, folder);
    const auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, expected.bytes()) << FirstDifference(requests[0].bytes, expected.bytes());
    EXPECT_EQ(requests[0].replyLength, 20u);
}

TEST_F(DirectoryRequestTest, DeleteTestSendsNoPatternAndWantsNoHandleAndTheRepliesHandleIsNotRead)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE,
                     .reply = {.listingHandle = 0x99, .listingLength = 12}});
    ASSERT_EQ(service.Connect(), S_OK);

    ULONG length = 0;
    EXPECT_EQ(ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), nullptr, kFileNamesInformation, &length,
                                                   nullptr, 0),
              STATUS_SUCCESS);
    EXPECT_EQ(length, 12u);

    const auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 1u);
    const std::vector<uint8_t>& bytes = requests[0].bytes;
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 560, bytes.begin() + 1084), std::vector<uint8_t>(524, 0))
        << "an all-zero pattern";
    ASSERT_TRUE(requests[0].view.has_value()) << requests[0].decodeError;
    EXPECT_FALSE(requests[0].view->wantListingHandle);
    EXPECT_FALSE(requests[0].view->returnSingleEntry);
    EXPECT_EQ(requests[0].view->fileInformationClass, kFileNamesInformation);
}

TEST_F(DirectoryRequestTest, PatternOf261CharactersIsSentWholeAndOneCharacterMoreIsRefusedUncut)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, .reply = {.listingHandle = 1, .listingLength = 8}});
    ASSERT_EQ(service.Connect(), S_OK);
    std::u16string longest(261, u'?');
    longest.back() = u'*';
    ntsim::UnicodeStringHolder fits(longest);
    ntsim::UnicodeStringHolder tooLong(longest + u"x");

    ULONG length = 77;
    ULONGLONG handle = 0;
    EXPECT_EQ(ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), tooLong.get(),
                                                   kFileBothDirectoryInformation, &length, &handle, 0),
              STATUS_NAME_TOO_LONG);
    EXPECT_EQ(length, 77u);
    EXPECT_EQ(handle, 0u);
    EXPECT_EQ(service.RequestCount(), 0u);

    EXPECT_EQ(ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), fits.get(),
                                                   kFileBothDirectoryInformation, &length, &handle, 0),
              STATUS_SUCCESS);
    ASSERT_EQ(service.RequestCount(), 1u);
    ASSERT_TRUE(service.Requests()[0].view.has_value()) << service.Requests()[0].decodeError;
    EXPECT_EQ(service.Requests()[0].view->filter, longest);
}

TEST_F(DirectoryRequestTest, RefusedOrUnansweredSizeLeavesLengthAndHandleAsTheCallerSetThem)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .listingHandle = 5, .listingLength = 40},
                     .uses = 1});
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, .action = ResponderAction::NoAnswer});
    ASSERT_EQ(service.Connect(), S_OK);

    ULONG length = 0;
    ULONGLONG handle = 0;
    EXPECT_EQ(ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), nullptr, kFileBothDirectoryInformation,
                                                   &length, &handle, 0),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(handle, 0u);

    auto unanswered = std::async(std::launch::async, [&] {
        return ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), nullptr, kFileBothDirectoryInformation,
                                                    &length, &handle, 0);
    });
    ASSERT_TRUE(service.WaitForHandled(2));
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    const NTSTATUS status = unanswered.get();
    EXPECT_EQ(status, STATUS_TIMEOUT);
    EXPECT_TRUE(NT_SUCCESS(status)) << "a caller that tests for failure goes on with the length it had";
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(handle, 0u);

    // With a handle of 0 the fetch that would follow is refused without a message.
    UCHAR block[8];
    EXPECT_EQ(ServiceRequest_DirectoryContents(handle, block, sizeof(block)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(service.RequestCount(), 2u);
}

TEST_F(DirectoryRequestTest, ContentsMessageIsTheBareHeadAndTheListingLandsInTheCallersBuffer)
{
    std::vector<uint8_t> listing(300);
    for (size_t index = 0; index < listing.size(); index++) {
        listing[index] = (uint8_t)(index * 7 + 1);
    }
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .reply = {.listing = listing}});
    ASSERT_EQ(service.Connect(), S_OK);

    std::vector<uint8_t> block(300, 0);
    EXPECT_EQ(ServiceRequest_DirectoryContents(0x1122334455667788ull, block.data(), (ULONG)block.size()),
              STATUS_SUCCESS);
    EXPECT_EQ(block, listing);

    Image expected(6, 2088);
    expected.Put<uint64_t>(32, 0x1122334455667788ull);
    expected.Put<uint32_t>(40, 300);
    const auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].bytes, expected.bytes()) << FirstDifference(requests[0].bytes, expected.bytes());
    EXPECT_EQ(requests[0].replyLength, 316u);
}

TEST_F(DirectoryRequestTest, ContentsRefusedByTheServiceLeaveTheCallersBufferUntouched)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS,
                     .reply = {.status = (int32_t)STATUS_NOT_FOUND, .listing = std::vector<uint8_t>(16, 0xEE)}});
    ASSERT_EQ(service.Connect(), S_OK);

    std::vector<uint8_t> block(16, 0x11);
    EXPECT_EQ(ServiceRequest_DirectoryContents(7, block.data(), (ULONG)block.size()), STATUS_NOT_FOUND);
    EXPECT_EQ(block, std::vector<uint8_t>(16, 0x11));
}

TEST_F(DirectoryRequestTest, BadArgumentsOfEitherRequestSendNothing)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    UCHAR block[16];

    EXPECT_EQ(ServiceRequest_DirectoryContentsSize(sid_.get(), folder_.get(), nullptr, kFileNamesInformation, nullptr,
                                                   nullptr, 0),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ServiceRequest_DirectoryContents(0, block, sizeof(block)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ServiceRequest_DirectoryContents(1, nullptr, sizeof(block)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ServiceRequest_DirectoryContents(1, block, 0), STATUS_INVALID_PARAMETER);
    // A length whose reply length (16 more) has no ULONG.
    EXPECT_EQ(ServiceRequest_DirectoryContents(1, block, MAXULONG - 15), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(service.RequestCount(), 0u);
}

}  // namespace
}  // namespace foldermerge::testing
