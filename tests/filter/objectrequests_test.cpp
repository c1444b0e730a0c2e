// The object requests of the FolderMerge driver against a scripted service: each request's message
// as the service receives it, byte for byte; how each takes its reply; their argument checks and the
// SID limit; and what reaches the caller when the service is slow or its Thread port goes.
#include "request_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/faults.hpp>

#include <functional>
#include <memory>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "fileaccess.h"

namespace foldermerge::testing {
namespace {

using service::ReplyContent;
using service::ResponderAction;
using service::ScriptedResponder;

constexpr char16_t kFile[] = u"\\Data\\report.txt";
constexpr char kContent[] = "hello world";  // 11 bytes

std::u16string OnVolume(std::u16string_view path)
{
    return std::u16string(u"\\Device\\HarddiskVolume2") + std::u16string(path);
}

// A file with its marker stream on C:, and what its requests take.
class ObjectRequestTest : public RequestTest {
public:
    void SetUp() override
    {
        RequestTest::SetUp();
        volume_->SeedFile(kFile, kContent);
        volume_->SeedFile(std::u16string(kFile) + u":" + reinterpret_cast<const char16_t*>(MARKER_STREAM_NAME), "");
        basic_ = *volume_->BasicInformation(kFile);
        objects_ = std::make_unique<FLT_RELATED_OBJECTS>(RelatedObjects());
    }

    PCFLT_RELATED_OBJECTS objects() const { return objects_.get(); }

    // Code 3 as the open's caller makes it, with the file's block unless withBlock is false.
    NTSTATUS Download(UCHAR& cancelled, UCHAR& locked, UCHAR& track, HANDLE opener = nullptr, bool withBlock = true)
    {
        return ServiceRequest_ObjectDownloadIfRequired(sid_.get(), path_.get(), withBlock ? &basic_ : nullptr, nullptr,
                                                       withBlock ? 1 : 0, &cancelled, &locked, objects(), &iopb_,
                                                       &track, opener);
    }

    FILE_BASIC_INFORMATION basic_{};
    std::unique_ptr<FLT_RELATED_OBJECTS> objects_;
    ntsim::UnicodeStringHolder sid_{kRequestSid};
    ntsim::UnicodeStringHolder path_{OnVolume(kFile)};
    using RequestTest::iopb_;
    using RequestTest::SetCreate;
};

// ---- the messages ----

// One request routine called as its caller would, and the message it should send.
struct MessageCase {
    const char* name;
    std::function<NTSTATUS()> call;
    std::function<void(Image&)> fields;  // everything behind the common head and the SID
    uint32_t code = 0;
    size_t tailBytes = 0;  // beyond the path
    uint32_t replyLength = 0;
};

TEST_F(ObjectRequestTest, EachObjectRequestSendsItsFieldsAtTheirOffsetsAndWaitsForItsReplyLength)
{
    const std::u16string path = OnVolume(kFile);
    const uint32_t pathBytes = (uint32_t)path.size() * 2;
    const std::u16string renamed = OnVolume(u"\\Data\\renamed.txt");
    const std::u16string signature = u"sig-7";
    ntsim::UnicodeStringHolder renamedText(renamed);
    ntsim::UnicodeStringHolder sigText(signature);
    FILE_OBJECT fileObject{};
    PCUNICODE_STRING sid = sid_.get(), pathText = path_.get();
    const FILE_BASIC_INFORMATION basic = basic_;
    auto block = [basic](size_t offset) {
        return [basic, offset](Image& image) { image.PutFileBlock(offset, basic, 11); };
    };

    const std::vector<MessageCase> cases = {
        {.name = "ObjectExists",
         .call = [&] {
             UCHAR exists = 0, second = 0;
             return ServiceRequest_ObjectExists(sid, pathText, objects(), &iopb_, &exists, &second);
         },
         .fields = [&](Image& image) { block(560)(image); image.Put<uint8_t>(624, 1); },
         .code = 1, .replyLength = 18},
        {.name = "ObjectRenameFromManaged",
         .call = [&] { return ServiceRequest_ObjectRenameFromManaged(sid, pathText, 1, objects(), &iopb_); },
         .fields = [&](Image& image) { block(560)(image); image.Put<uint8_t>(624, 1); image.Put<uint8_t>(625, 1); },
         .code = 2, .replyLength = 16},
        {.name = "ObjectDownloadIfRequired",
         .call = [&] {
             SetCreate((FILE_OPEN_IF << 24) | FILE_NON_DIRECTORY_FILE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                       FILE_GENERIC_WRITE);
             FILE_STANDARD_INFORMATION standard{};
             standard.AllocationSize.QuadPart = 4096;
             standard.EndOfFile.QuadPart = 11;
             standard.NumberOfLinks = 1;
             UCHAR cancelled = 0, locked = 0, track = 0;
             return ServiceRequest_ObjectDownloadIfRequired(sid, pathText, &basic_, &standard, 1, &cancelled, &locked,
                                                            objects(), &iopb_, &track, nullptr);
         },
         .fields = [&](Image& image) {
             image.Put<uint32_t>(560, (FILE_OPEN_IF << 24) | FILE_NON_DIRECTORY_FILE);
             image.Put<uint16_t>(564, FILE_SHARE_READ | FILE_SHARE_DELETE);
             image.Put<uint32_t>(568, FILE_GENERIC_WRITE);
             block(576)(image);
             image.Put<uint8_t>(640, 1);
         },
         .code = 3, .replyLength = 19},
        {.name = "ObjectUploadIfRequired",
         .call = [&] { return ServiceRequest_ObjectUploadIfRequired(sid, pathText, sigText.get(), &iopb_, objects()); },
         .fields = [&](Image& image) {
             image.Put<uint32_t>(560, (uint32_t)signature.size() * 2);
             block(568)(image);
             image.Put<uint8_t>(632, 1);
             image.PutText(2088 + pathBytes, signature);
         },
         .code = 4, .tailBytes = signature.size() * 2, .replyLength = 16},
        {.name = "ObjectDeleted",
         .call = [&] { return ServiceRequest_ObjectDeleted(sid, pathText); },
         .fields = [](Image&) {},
         .code = 7, .replyLength = 16},
        {.name = "ObjectRename",
         .call = [&] { return ServiceRequest_ObjectRename(sid, pathText, renamedText.get(), objects(), &iopb_); },
         .fields = [&](Image& image) {
             // Nothing stands at the new path yet: its block is the unknown pattern.
             image.Put<uint32_t>(560, (uint32_t)renamed.size() * 2);
             image.PutUnknownBlock(568);
             image.PutText(2088 + pathBytes, renamed);
         },
         .code = 8, .tailBytes = renamed.size() * 2, .replyLength = 16},
        {.name = "ObjectSignature",
         .call = [&] {
             SetCreate(FILE_OPEN << 24, 0, FILE_WRITE_DATA | SYNCHRONIZE);
             return ServiceRequest_ObjectSignature(sid, pathText, nullptr, objects(), &iopb_);
         },
         .fields = [&](Image& image) { image.Put<uint32_t>(560, FILE_WRITE_DATA | SYNCHRONIZE); block(568)(image); },
         .code = 12, .replyLength = 538},
        {.name = "ObjectInformation",
         .call = [&] {
             FILE_BASIC_INFORMATION out{};
             return ServiceRequest_ObjectInformation(sid, pathText, objects(), &iopb_, &out, nullptr);
         },
         .fields = block(560),  // and no marker byte
         .code = 14, .replyLength = 80},
        {.name = "ObjectIsExcludedFile",
         .call = [&] { return ServiceRequest_ObjectIsExcludedFile(sid, pathText, objects(), &iopb_); },
         .fields = [&](Image& image) { block(560)(image); image.Put<uint8_t>(624, 1); },
         .code = 16, .replyLength = 16},
        {.name = "ObjectCancelUpload",
         .call = [&] { return ServiceRequest_ObjectCancelUpload(sid, pathText, objects(), &iopb_); },
         .fields = [&](Image& image) { block(560)(image); image.Put<uint8_t>(624, 1); },
         .code = 17, .replyLength = 16},
        {.name = "ObjectRedirectAttributes",
         .call = [&] {
             OwnedString* name = nullptr;
             UCHAR redirected = 1, reparse = 1;
             return ServiceRequest_ObjectRedirectAttributes(sid, pathText, objects(), &iopb_, &name, &redirected,
                                                            &reparse);
         },
         .fields = [&](Image& image) {
             image.Put<uint32_t>(560, 260);  // the path is shorter than 260 bytes
             block(568)(image);
             image.Put<uint8_t>(632, 1);
         },
         .code = 18, .replyLength = 284},
        {.name = "ObjectWriteNotify",
         .call = [&] { return ServiceRequest_ObjectWriteNotify(sid, pathText); },
         .fields = [](Image&) {},
         .code = 19, .replyLength = 16},
        {.name = "ObjectIsReadOnly",
         .call = [&] {
             UCHAR readOnly = 0;
             return ServiceRequest_ObjectIsReadOnly(sid, pathText, &readOnly);
         },
         .fields = [](Image&) {},
         .code = 20, .replyLength = 17},
        {.name = "ObjectChanged",
         .call = [&] {
             iopb_.TargetFileObject = &fileObject;
             NTSTATUS status = ServiceRequest_ObjectChanged(sid, pathText, objects(), &iopb_, 1);
             iopb_.TargetFileObject = nullptr;
             return status;
         },
         .fields = [&](Image& image) { block(560)(image); image.Put<uint8_t>(624, 1); image.Put<uint8_t>(625, 1); },
         .code = 21, .replyLength = 24},
        {.name = "ObjectIsLocked",
         .call = [&] { return ServiceRequest_ObjectIsLocked(sid, pathText); },
         .fields = [](Image&) {},  // 560: bLocked, always 0
         .code = 22, .replyLength = 16},
        {.name = "ObjectRenameToManaged",
         .call = [&] { return ServiceRequest_ObjectRenameToManaged(sid, pathText, objects(), &iopb_); },
         .fields = block(560),  // and no marker byte
         .code = 23, .replyLength = 16},
    };

    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    for (const MessageCase& request : cases) {
        SCOPED_TRACE(request.name);
        const size_t before = service.RequestCount();
        EXPECT_EQ(request.call(), STATUS_SUCCESS);
        ASSERT_TRUE(service.WaitForHandled(before + 1));

        Image expected(request.code, 2088 + pathBytes + request.tailBytes);
        expected.PutText(32, kRequestSid);
        expected.Put<uint32_t>(556, pathBytes);
        expected.PutText(2088, path);
        request.fields(expected);

        const service::RecordedRequest received = service.Requests().back();
        EXPECT_EQ(received.bytes, expected.bytes()) << FirstDifference(received.bytes, expected.bytes());
        EXPECT_EQ(received.replyLength, request.replyLength);
        EXPECT_TRUE(received.view.has_value()) << received.decodeError;
    }
    EXPECT_EQ(service.RequestCount(), cases.size());
}

TEST_F(ObjectRequestTest, UploadWithoutSignatureIsTheHeadAndThePathAlone)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);

    EXPECT_EQ(ServiceRequest_ObjectUploadIfRequired(sid_.get(), path_.get(), nullptr, &iopb_, objects()),
              STATUS_SUCCESS);
    ASSERT_EQ(service.RequestCount(), 1u);
    const std::vector<uint8_t> bytes = service.Requests()[0].bytes;
    EXPECT_EQ(bytes.size(), 2088 + OnVolume(kFile).size() * 2);
    EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 560, bytes.begin() + 564), std::vector<uint8_t>(4, 0));
}

TEST_F(ObjectRequestTest, DownloadSendsTheLoopbackOpenersProcessIdWhenGivenAndItsOwnOtherwise)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    UCHAR cancelled = 0, locked = 0, track = 0;

    ASSERT_EQ(Download(cancelled, locked, track, (HANDLE)(ULONG_PTR)4242, false), STATUS_SUCCESS);
    ASSERT_EQ(Download(cancelled, locked, track, nullptr, false), STATUS_SUCCESS);

    const auto requests = service.Requests();
    ASSERT_EQ(requests.size(), 2u);
    ASSERT_TRUE(requests[0].view && requests[1].view);
    EXPECT_EQ(requests[0].view->processId, 4242u);
    EXPECT_EQ(requests[1].view->processId, (uint64_t)(ULONG_PTR)PsGetCurrentProcessId());
    EXPECT_EQ(requests[0].view->threadId, (uint64_t)(ULONG_PTR)PsGetCurrentThreadId());
    // The caller passed no block: the service is told there is nothing local to look at.
    EXPECT_TRUE(requests[1].view->information->IsUnknown());
}

// ---- taking the replies ----

TEST_F(ObjectRequestTest, DownloadTakesItsFlagsFromAGoodReplyAndNoneFromARefusal)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                     .reply = {.uploadCancelled = true, .locked = false, .trackDirtyBlocks = true},
                     .uses = 1});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                     .reply = {.status = (int32_t)STATUS_SHARING_VIOLATION, .uploadCancelled = true, .locked = true,
                               .trackDirtyBlocks = true}});
    ASSERT_EQ(service.Connect(), S_OK);

    UCHAR cancelled = 7, locked = 7, track = 7;
    EXPECT_EQ(Download(cancelled, locked, track), STATUS_SUCCESS);
    EXPECT_EQ(std::make_tuple(cancelled, locked, track), std::make_tuple(1, 0, 1));

    cancelled = locked = track = 0;
    EXPECT_EQ(Download(cancelled, locked, track), STATUS_SHARING_VIOLATION);
    EXPECT_EQ(std::make_tuple(cancelled, locked, track), std::make_tuple(0, 0, 0));
}

TEST_F(ObjectRequestTest, ExistsInformationAndReadOnlyTakeTheirPayloadWhateverTheStatus)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_EXISTS,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .exists = true, .secondFlag = 9}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_INFORMATION,
                     .reply = {.status = (int32_t)STATUS_OBJECT_NAME_NOT_FOUND,
                               .information = {.creationTime = 11, .lastWriteTime = 33,
                                               .fileAttributes = FILE_ATTRIBUTE_READONLY, .endOfFile = 99,
                                               .numberOfLinks = 2, .directory = true}}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .readOnly = true}});
    ASSERT_EQ(service.Connect(), S_OK);

    // Codes 1 and 14: the send's own status is the result.
    UCHAR exists = 0, second = 0;
    EXPECT_EQ(ServiceRequest_ObjectExists(sid_.get(), path_.get(), objects(), &iopb_, &exists, &second),
              STATUS_SUCCESS);
    EXPECT_EQ(exists, 1);
    EXPECT_EQ(second, 9);
    // Either out may be left out.
    exists = 0;
    EXPECT_EQ(ServiceRequest_ObjectExists(sid_.get(), path_.get(), objects(), &iopb_, &exists, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(exists, 1);

    FILE_BASIC_INFORMATION basic{};
    FILE_STANDARD_INFORMATION standard{};
    EXPECT_EQ(ServiceRequest_ObjectInformation(sid_.get(), path_.get(), objects(), &iopb_, &basic, &standard),
              STATUS_SUCCESS);
    EXPECT_EQ(std::make_tuple(basic.CreationTime.QuadPart, basic.LastWriteTime.QuadPart, basic.FileAttributes),
              std::make_tuple(11LL, 33LL, (ULONG)FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(std::make_tuple(standard.EndOfFile.QuadPart, standard.NumberOfLinks, standard.Directory),
              std::make_tuple(99LL, 2UL, (BOOLEAN)1));
    FILE_STANDARD_INFORMATION standardOnly{};
    EXPECT_EQ(ServiceRequest_ObjectInformation(sid_.get(), path_.get(), objects(), &iopb_, nullptr, &standardOnly),
              STATUS_SUCCESS);
    EXPECT_EQ(standardOnly.EndOfFile.QuadPart, 99);

    // Every other code returns the reply's Status; the read-only flag counts all the same.
    UCHAR readOnly = 0;
    EXPECT_EQ(ServiceRequest_ObjectIsReadOnly(sid_.get(), path_.get(), &readOnly), STATUS_ACCESS_DENIED);
    EXPECT_EQ(readOnly, 1);
}

TEST_F(ObjectRequestTest, NoticesReturnTheServicesStatus)
{
    ScriptedResponder service;
    service.AddRule({.reply = {.status = (int32_t)STATUS_OBJECT_NAME_NOT_FOUND}});
    ASSERT_EQ(service.Connect(), S_OK);
    FILE_OBJECT fileObject{};
    iopb_.TargetFileObject = &fileObject;

    PCUNICODE_STRING sid = sid_.get(), path = path_.get();
    const NTSTATUS results[] = {
        ServiceRequest_ObjectIsExcludedFile(sid, path, objects(), &iopb_),
        ServiceRequest_ObjectRenameFromManaged(sid, path, 0, objects(), &iopb_),
        ServiceRequest_ObjectUploadIfRequired(sid, path, nullptr, &iopb_, objects()),
        ServiceRequest_ObjectDeleted(sid, path),
        ServiceRequest_ObjectRename(sid, path, path, objects(), &iopb_),
        ServiceRequest_ObjectCancelUpload(sid, path, objects(), &iopb_),
        ServiceRequest_ObjectWriteNotify(sid, path),
        ServiceRequest_ObjectChanged(sid, path, objects(), &iopb_, 0),
        ServiceRequest_ObjectIsLocked(sid, path),
        ServiceRequest_ObjectRenameToManaged(sid, path, objects(), &iopb_),
    };
    for (size_t index = 0; index < std::size(results); index++) {
        EXPECT_EQ(results[index], STATUS_OBJECT_NAME_NOT_FOUND) << "call " << index;
    }
    EXPECT_EQ(service.RequestCount(), std::size(results));
}

TEST_F(ObjectRequestTest, SignatureNameOf260CharactersIsTakenAndAFieldWithoutAZeroLeavesTheNameAsItWas)
{
    std::u16string longest(260, u'n');
    longest[0] = u'L';
    std::u16string unended(261, u'x');
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_SIGNATURE,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .signatureName = u"sig-1"},
                     .uses = 1});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_SIGNATURE, .reply = {.signatureName = longest}, .uses = 1});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_SIGNATURE,
                     .reply = {.status = (int32_t)STATUS_MORE_ENTRIES, .signatureName = unended},
                     .uses = 1});
    ASSERT_EQ(service.Connect(), S_OK);

    // The caller's name has room for 260 characters and a zero, as the open's caller makes it.
    OwnedString* name = CreateUnicodeString(POOL_SELECTOR_NONPAGED, 522);
    ASSERT_NE(name, nullptr);

    // Taken whatever the Status says: the caller drops it on a failure.
    EXPECT_EQ(ServiceRequest_ObjectSignature(sid_.get(), path_.get(), name, objects(), &iopb_), STATUS_ACCESS_DENIED);
    EXPECT_EQ(ntsim::ToUtf8(*name), "sig-1");

    EXPECT_EQ(ServiceRequest_ObjectSignature(sid_.get(), path_.get(), name, objects(), &iopb_), STATUS_SUCCESS);
    EXPECT_EQ(name->Length, 520);
    EXPECT_EQ(ntsim::ToUtf8(*name), ntsim::ToUtf8(longest));

    // 261 characters and no zero: nothing copied, the Status returned.
    EXPECT_EQ(ServiceRequest_ObjectSignature(sid_.get(), path_.get(), name, objects(), &iopb_), STATUS_MORE_ENTRIES);
    EXPECT_EQ(name->Length, 520);
    EXPECT_EQ(ntsim::ToUtf8(*name), ntsim::ToUtf8(longest));
    FreeBuffer(name);

    // A caller's name too short for the service's is left alone rather than overrun.
    OwnedString* small = CreateUnicodeString(POOL_SELECTOR_NONPAGED, 8);
    ASSERT_NE(small, nullptr);
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_SIGNATURE, .reply = {.signatureName = u"sig-0005"}});
    EXPECT_EQ(ServiceRequest_ObjectSignature(sid_.get(), path_.get(), small, objects(), &iopb_), STATUS_SUCCESS);
    EXPECT_EQ(small->Length, 0);
    FreeBuffer(small);
}

// ---- the redirect reply ----

class RedirectTest : public ObjectRequestTest {
protected:
    struct Result {
        NTSTATUS status = STATUS_PENDING;
        UCHAR redirected = 1;
        UCHAR reparse = 1;
        std::string name = "<none>";
    };

    // The request as the open's caller makes it: both flags 1 and no name before it.
    Result Redirect(PCUNICODE_STRING path)
    {
        Result result;
        OwnedString* name = nullptr;
        result.status = ServiceRequest_ObjectRedirectAttributes(sid_.get(), path, objects(), &iopb_, &name,
                                                                &result.redirected, &result.reparse);
        if (name != nullptr) {
            result.name = ntsim::ToUtf8(*name);
            EXPECT_EQ(name->MaximumLength, name->Length + 2);
            EXPECT_EQ(name->Buffer[name->Length / 2], 0) << "the name is zero-terminated";
            FreeBuffer(name);
        }
        return result;
    }

    // The ReplyNameCapacity of each request the service received.
    static std::vector<uint32_t> Capacities(const ScriptedResponder& service)
    {
        std::vector<uint32_t> capacities;
        for (const auto& request : service.Requests()) {
            capacities.push_back(request.view ? request.view->replyNameCapacity : 0);
        }
        return capacities;
    }
};

// A name of exactly the capacity (260 bytes) is taken at the first turn; one character longer asks
// once more with room for it, in the first message with only its capacity changed.
TEST_F(RedirectTest, NameOfTheCapacityIsTakenAtOnceAndALongerOneAtASecondTurnOfTheSameMessage)
{
    for (size_t characters : {130, 131}) {
        SCOPED_TRACE(characters);
        const std::u16string name = u"\\??\\C:\\Dummy\\" + std::u16string(characters - 13, u'd');
        const bool once = characters == 130;
        ScriptedResponder service;
        service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                         .reply = {.status = 0, .reparse = once, .redirected = true, .name = name}});
        ASSERT_EQ(service.Connect(), S_OK);

        const Result result = Redirect(path_.get());
        EXPECT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_EQ(result.redirected, 1);
        EXPECT_EQ(result.reparse, once ? 1 : 0);
        EXPECT_EQ(result.name, ntsim::ToUtf8(name));
        EXPECT_EQ(Capacities(service), (once ? std::vector<uint32_t>{260} : std::vector<uint32_t>{260, 262}));
        if (!once) {
            const auto requests = service.Requests();
            ASSERT_EQ(requests.size(), 2u);
            EXPECT_EQ(requests[1].replyLength, 262u + 24);
            std::vector<uint8_t> first = requests[0].bytes, second = requests[1].bytes;
            std::memset(first.data() + 560, 0, 4);
            std::memset(second.data() + 560, 0, 4);
            EXPECT_EQ(first, second) << FirstDifference(second, first);
        }
    }
}

TEST_F(RedirectTest, PathLongerThan260BytesGivesTheFirstReplyRoomForThePathsLength)
{
    const std::u16string longPath = OnVolume(u"\\Data\\" + std::u16string(200, u'p'));
    ntsim::UnicodeStringHolder pathText(longPath);
    const std::u16string name(150, u'n');  // 300 bytes: shorter than the path
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                     .reply = {.reparse = true, .redirected = true, .name = name}});
    ASSERT_EQ(service.Connect(), S_OK);

    EXPECT_EQ(Redirect(pathText.get()).name, ntsim::ToUtf8(name));
    EXPECT_EQ(Capacities(service), (std::vector<uint32_t>{(uint32_t)longPath.size() * 2}));
}

TEST_F(RedirectTest, FlagsAreTakenWhateverTheStatusAndNoNameComesWithoutARedirection)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                     .reply = {.status = (int32_t)STATUS_ACCESS_DENIED, .reparse = true, .redirected = false,
                               .name = u"\\??\\C:\\ignored"}});
    ASSERT_EQ(service.Connect(), S_OK);

    const Result result = Redirect(path_.get());
    EXPECT_EQ(result.status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(result.redirected, 0);
    EXPECT_EQ(result.reparse, 1);
    EXPECT_EQ(result.name, "<none>");
    EXPECT_EQ(service.RequestCount(), 1u);
}

TEST_F(RedirectTest, NameLengthThatNoCountedStringHoldsIsRefusedWithoutAnotherTurn)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                     .reply = {.reparse = true, .redirected = true, .nameLength = 65534},
                     .uses = 1});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                     .reply = {.reparse = true, .redirected = true, .nameLength = 7},
                     .uses = 1});
    ASSERT_EQ(service.Connect(), S_OK);

    Result tooLong = Redirect(path_.get());
    EXPECT_EQ(tooLong.status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(tooLong.name, "<none>");
    Result odd = Redirect(path_.get());
    EXPECT_EQ(odd.status, STATUS_OBJECT_NAME_INVALID);
    EXPECT_EQ(odd.name, "<none>");
    EXPECT_EQ(Capacities(service), (std::vector<uint32_t>{260, 260}));

    // The longest name a counted string holds with its zero character is taken.
    const std::u16string longest(65532 / 2, u'z');
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                     .reply = {.reparse = true, .redirected = true, .name = longest}});
    Result taken = Redirect(path_.get());
    EXPECT_EQ(taken.status, STATUS_SUCCESS);
    EXPECT_EQ(taken.name.size(), longest.size());
}

TEST_F(RedirectTest, NameThatCannotBeAllocatedLeavesTheCallerWithoutOne)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                     .answer = [](const service::RequestView&) {
                         // The filter has its reply buffer by now: its next allocation is the name.
                         ntsim::faults::FailAllocationsWithTag(FOLDERMERGE_POOL_TAG, ntsim::faults::Persistence::Once);
                         return ReplyContent{.reparse = false, .redirected = true, .name = u"\\??\\C:\\Dummy\\d"};
                     }});
    ASSERT_EQ(service.Connect(), S_OK);

    const Result result = Redirect(path_.get());
    EXPECT_EQ(result.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(result.name, "<none>");
    EXPECT_EQ(result.redirected, 1);
    EXPECT_EQ(result.reparse, 0);
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 1u);
}

// ---- checks ----

TEST_F(ObjectRequestTest, EachRoutineRefusesItsMissingArgumentsAndSendsNothing)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    const size_t liveBefore = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    UCHAR flag = 0;
    FILE_BASIC_INFORMATION basic{};
    OwnedString* name = nullptr;
    FLT_IO_PARAMETER_BLOCK noInstance{};
    FLT_IO_PARAMETER_BLOCK noFileObject = iopb_;  // an instance, no file object
    PCUNICODE_STRING sid = sid_.get();
    PCUNICODE_STRING path = path_.get();
    auto download = [&](PCUNICODE_STRING p, PUCHAR locked, PCFLT_RELATED_OBJECTS o, PFLT_IO_PARAMETER_BLOCK io) {
        return ServiceRequest_ObjectDownloadIfRequired(sid, p, &basic, nullptr, 0, &flag, locked, o, io, &flag, {});
    };
    auto redirect = [&](PCUNICODE_STRING s, OwnedString** out) {
        return ServiceRequest_ObjectRedirectAttributes(s, path, objects(), &iopb_, out, &flag, &flag);
    };

    const std::vector<std::pair<const char*, std::function<NTSTATUS()>>> refused = {
        {"2 without path", [&] { return ServiceRequest_ObjectRenameFromManaged(sid, nullptr, 0, objects(), &iopb_); }},
        {"3 without path", [&] { return download(nullptr, &flag, objects(), &iopb_); }},
        {"3 without an out", [&] { return download(path, nullptr, objects(), &iopb_); }},
        {"3 without FltObjects", [&] { return download(path, &flag, nullptr, &iopb_); }},
        {"3 without Iopb", [&] { return download(path, &flag, objects(), nullptr); }},
        {"4 without instance",
         [&] { return ServiceRequest_ObjectUploadIfRequired(sid, path, nullptr, &noInstance, objects()); }},
        {"4 without Iopb", [&] { return ServiceRequest_ObjectUploadIfRequired(sid, path, nullptr, nullptr, objects()); }},
        {"7 without path", [&] { return ServiceRequest_ObjectDeleted(sid, nullptr); }},
        {"8 without new path", [&] { return ServiceRequest_ObjectRename(sid, path, nullptr, objects(), &iopb_); }},
        {"8 without old path", [&] { return ServiceRequest_ObjectRename(sid, nullptr, path, objects(), &iopb_); }},
        {"12 without path", [&] { return ServiceRequest_ObjectSignature(sid, nullptr, nullptr, objects(), &iopb_); }},
        {"14 without outs",
         [&] { return ServiceRequest_ObjectInformation(sid, path, objects(), &iopb_, nullptr, nullptr); }},
        {"16 without SID", [&] { return ServiceRequest_ObjectIsExcludedFile(nullptr, path, objects(), &iopb_); }},
        {"16 without path", [&] { return ServiceRequest_ObjectIsExcludedFile(sid, nullptr, objects(), &iopb_); }},
        {"17 without SID", [&] { return ServiceRequest_ObjectCancelUpload(nullptr, path, objects(), &iopb_); }},
        {"17 without path", [&] { return ServiceRequest_ObjectCancelUpload(sid, nullptr, objects(), &iopb_); }},
        {"18 without name out", [&] { return redirect(sid, nullptr); }},
        {"18 without SID", [&] { return redirect(nullptr, &name); }},
        {"19 without path", [&] { return ServiceRequest_ObjectWriteNotify(sid, nullptr); }},
        {"19 without SID", [&] { return ServiceRequest_ObjectWriteNotify(nullptr, path); }},
        {"20 without SID", [&] { return ServiceRequest_ObjectIsReadOnly(nullptr, path, &flag); }},
        {"21 without file object",
         [&] { return ServiceRequest_ObjectChanged(sid, path, objects(), &noFileObject, 0); }},
        {"21 without Iopb", [&] { return ServiceRequest_ObjectChanged(sid, path, objects(), nullptr, 0); }},
        {"21 without path", [&] { return ServiceRequest_ObjectChanged(sid, nullptr, objects(), &noFileObject, 0); }},
        {"22 without path", [&] { return ServiceRequest_ObjectIsLocked(sid, nullptr); }},
        {"22 without SID", [&] { return ServiceRequest_ObjectIsLocked(nullptr, path); }},
        {"23 without path", [&] { return ServiceRequest_ObjectRenameToManaged(sid, nullptr, objects(), &iopb_); }},
        {"23 without SID", [&] { return ServiceRequest_ObjectRenameToManaged(nullptr, path, objects(), &iopb_); }},
    };
    for (const auto& [what, call] : refused) {
        EXPECT_EQ(call(), STATUS_INVALID_PARAMETER) << what;
    }
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(service.RequestCount(), 0u);
    EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, liveBefore) << "nothing was left allocated";

    // Code 1 checks nothing: without objects its block says there is no local file.
    EXPECT_EQ(ServiceRequest_ObjectExists(nullptr, path, nullptr, nullptr, nullptr, nullptr), STATUS_SUCCESS);
    ASSERT_TRUE(service.WaitForHandled(1));
    ASSERT_TRUE(service.Requests()[0].view.has_value());
    EXPECT_TRUE(service.Requests()[0].view->information->IsUnknown());
    EXPECT_TRUE(service.Requests()[0].view->sid.empty());
}

TEST_F(ObjectRequestTest, SidOf518BytesPassesTheSidTestAndOneOf520IsRefusedByTheCodesThatMakeIt)
{
    ScriptedResponder service;
    ASSERT_EQ(service.Connect(), S_OK);
    auto sidOf = [](size_t bytes) {
        std::u16string text(bytes / 2, u'1');
        text[0] = u'S';
        return text;
    };
    ntsim::UnicodeStringHolder fits(sidOf(518));
    ntsim::UnicodeStringHolder tooLong(sidOf(520));
    PCUNICODE_STRING path = path_.get();

    // The codes that test the SID, each with a SID of the given text.
    const std::vector<std::pair<uint32_t, std::function<NTSTATUS(PCUNICODE_STRING)>>> testing = {
        {16, [&](PCUNICODE_STRING sid) { return ServiceRequest_ObjectIsExcludedFile(sid, path, objects(), &iopb_); }},
        {17, [&](PCUNICODE_STRING sid) { return ServiceRequest_ObjectCancelUpload(sid, path, objects(), &iopb_); }},
        {18,
         [&](PCUNICODE_STRING sid) {
             OwnedString* name = nullptr;
             UCHAR flag = 0;
             return ServiceRequest_ObjectRedirectAttributes(sid, path, objects(), &iopb_, &name, &flag, &flag);
         }},
        {19, [&](PCUNICODE_STRING sid) { return ServiceRequest_ObjectWriteNotify(sid, path); }},
        {20,
         [&](PCUNICODE_STRING sid) {
             UCHAR readOnly = 0;
             return ServiceRequest_ObjectIsReadOnly(sid, path, &readOnly);
         }},
        {22, [&](PCUNICODE_STRING sid) { return ServiceRequest_ObjectIsLocked(sid, path); }},
        {23, [&](PCUNICODE_STRING sid) { return ServiceRequest_ObjectRenameToManaged(sid, path, objects(), &iopb_); }},
    };
    for (const auto& [code, call] : testing) {
        SCOPED_TRACE(code);
        const size_t before = service.RequestCount();
        EXPECT_EQ(call(tooLong.get()), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(service.RequestCount(), before);
        EXPECT_EQ(call(fits.get()), STATUS_SUCCESS);
        ASSERT_TRUE(service.WaitForHandled(before + 1));
        const auto received = service.Requests().back();
        ASSERT_TRUE(received.view.has_value()) << received.decodeError;
        EXPECT_EQ(received.view->code, code);
        EXPECT_EQ(received.view->sid, sidOf(518));
    }

    // A code that doesn't test sends a SID of 520 bytes: it still fits the field with its zero.
    const size_t before = service.RequestCount();
    EXPECT_EQ(ServiceRequest_ObjectDeleted(tooLong.get(), path), STATUS_SUCCESS);
    ASSERT_TRUE(service.WaitForHandled(before + 1));
    ASSERT_TRUE(service.Requests().back().view.has_value());
    EXPECT_EQ(service.Requests().back().view->sid, sidOf(520));
}

// ---- slow services and lost ports ----

TEST_F(ObjectRequestTest, TimeOutReachesTheCallerAsANonNegativeStatusWithItsOutsUntouched)
{
    ScriptedResponder service;
    service.AddRule({.action = ResponderAction::NoAnswer});
    ASSERT_EQ(service.Connect(), S_OK);

    UCHAR cancelled = 5, locked = 5, track = 5, readOnly = 5;
    auto download = std::async(std::launch::async, [&] { return Download(cancelled, locked, track); });
    auto readOnlyQuery = std::async(std::launch::async, [&] {
        return ServiceRequest_ObjectIsReadOnly(sid_.get(), path_.get(), &readOnly);
    });
    ASSERT_TRUE(service.WaitForHandled(2));
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);

    const NTSTATUS downloaded = download.get();
    const NTSTATUS queried = readOnlyQuery.get();
    EXPECT_EQ(downloaded, STATUS_TIMEOUT);
    EXPECT_EQ(queried, STATUS_TIMEOUT);
    EXPECT_TRUE(NT_SUCCESS(downloaded));
    EXPECT_EQ(std::make_tuple(cancelled, locked, track, readOnly), std::make_tuple(5, 5, 5, 5));
}

// A filter below FolderMerge, loaded for as long as the object lives: its pre-operation callback sees
// the opens that a request makes of its file to fill the information block.
using BelowFilter = iotest::TestFilter<0>;

class LoadedBelowFilter {
public:
    LoadedBelowFilter()
    {
        status_ = ntsim::LoadFilter(BelowFilter::DriverEntry, {.name = kName, .altitude = u"100000"});
    }
    ~LoadedBelowFilter()
    {
        if (NT_SUCCESS(status_)) {
            EXPECT_EQ(ntsim::UnloadFilter(kName), STATUS_SUCCESS);
        }
        BelowFilter::script() = {};
    }
    NTSTATUS status() const { return status_; }

private:
    static constexpr char16_t kName[] = u"BelowFolderMerge";
    NTSTATUS status_;
};

TEST_F(ObjectRequestTest, ReplyOverAThreadPortThatReplacedTheOneOfTheRequestsStartIsDropped)
{
    LoadedBelowFilter below;
    ASSERT_EQ(below.status(), STATUS_SUCCESS);
    auto first = std::make_unique<ScriptedResponder>();
    ASSERT_EQ(first->Connect(), S_OK);
    ScriptedResponder second;
    second.AddRule({.code = SERVICE_REQUEST_OBJECT_EXISTS, .reply = {.exists = true}});

    // The request notes the disconnect count, then opens the file below the filter: there the
    // service's Thread port goes and another connects, which answers.
    bool replaced = false;
    BelowFilter::script().pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (!replaced && data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            replaced = true;
            first.reset();
            EXPECT_EQ(second.Connect(), S_OK);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };

    UCHAR exists = 0, secondFlag = 3;
    EXPECT_EQ(ServiceRequest_ObjectExists(sid_.get(), path_.get(), objects(), &iopb_, &exists, &secondFlag),
              STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(replaced);
    ASSERT_TRUE(second.WaitForHandled(1));
    EXPECT_TRUE(second.Requests()[0].answered) << "the reply reached the filter, which dropped it";
    EXPECT_EQ(exists, 0);
    EXPECT_EQ(secondFlag, 3);

    // The next request has the new count, and takes its reply.
    BelowFilter::script().pre = nullptr;
    EXPECT_EQ(ServiceRequest_ObjectExists(sid_.get(), path_.get(), objects(), &iopb_, &exists, &secondFlag),
              STATUS_SUCCESS);
    EXPECT_EQ(exists, 1);
}

TEST_F(ObjectRequestTest, ReplyRacingADisconnectIsTakenWholeOrDroppedWhole)
{
    // Whichever the filter's thread sees first, the reply or the end of the connection, the caller
    // gets the flags with success or nothing with a failure: never flags with a failure.
    for (int round = 0; round < 20; round++) {
        SCOPED_TRACE(round);
        ScriptedResponder service;
        service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY,
                         .reply = {.readOnly = true},
                         .action = ResponderAction::AnswerThenDisconnect});
        ASSERT_EQ(service.Connect(), S_OK);

        UCHAR readOnly = 0;
        const NTSTATUS status = ServiceRequest_ObjectIsReadOnly(sid_.get(), path_.get(), &readOnly);
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_EQ(readOnly, 1);
        } else {
            EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
            EXPECT_EQ(readOnly, 0);
        }
        ASSERT_TRUE(service.WaitForHandled(1));
        EXPECT_FALSE(service.Connected());
    }
}

}  // namespace
}  // namespace foldermerge::testing
