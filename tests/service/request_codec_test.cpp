// The service's side of a request: decoding every code's fields from the wire bytes, refusing bytes
// that are no request, and encoding each reply at the length the filter waits for.
#include <gtest/gtest.h>

#include <foldermerge/service/reply.hpp>
#include <foldermerge/service/request.hpp>

#include <cstring>
#include <string>
#include <vector>

namespace {

using foldermerge::service::DecodeRequest;
using foldermerge::service::EncodeReply;
using foldermerge::service::FileInformation;
using foldermerge::service::ReplyContent;
using foldermerge::service::RequestView;

// A request written at the offsets of the wire table: head, code, SID, and the tail.
class Message {
public:
    Message(uint32_t code, std::u16string_view sid, std::u16string_view path, std::u16string_view second = {})
        : bytes_(2088 + (path.size() + second.size()) * 2, 0)
    {
        Put<uint32_t>(0, code);
        Put<uint64_t>(8, 0x1234);
        Put<uint64_t>(16, 0x5678);
        Put<uint32_t>(24, (uint32_t)bytes_.size());
        PutText(32, sid);
        Put<uint32_t>(556, (uint32_t)(path.size() * 2));
        PutText(2088, path);
        if (!second.empty()) {
            Put<uint32_t>(560, (uint32_t)(second.size() * 2));
            PutText(2088 + path.size() * 2, second);
        }
    }

    template <typename T>
    Message& Put(size_t offset, T value)
    {
        std::memcpy(bytes_.data() + offset, &value, sizeof(T));
        return *this;
    }
    Message& PutText(size_t offset, std::u16string_view text)
    {
        std::memcpy(bytes_.data() + offset, text.data(), text.size() * 2);
        return *this;
    }
    RequestView Decode() const
    {
        auto decoded = DecodeRequest(bytes_);
        EXPECT_TRUE(decoded.request.has_value()) << decoded.error;
        return decoded.request.value_or(RequestView{});
    }
    std::string Error() const { return DecodeRequest(bytes_).error; }
    std::vector<uint8_t>& bytes() { return bytes_; }

private:
    std::vector<uint8_t> bytes_;
};

template <typename T>
T At(const std::vector<uint8_t>& bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

constexpr char16_t kSid[] = u"S-1-5-21-1-2-3-1001";
constexpr char16_t kPath[] = u"\\Device\\HarddiskVolume2\\Data\\a.txt";

// ---- decoding ----

TEST(RequestDecoding, HeadStringsAndTheInformationBlock)
{
    Message message(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, kSid, kPath);
    message.Put<int64_t>(560, 100).Put<int64_t>(568, 200).Put<int64_t>(576, 300).Put<int64_t>(584, 400);
    message.Put<uint32_t>(592, 0x10).Put<int64_t>(600, 4096).Put<int64_t>(608, 12).Put<uint32_t>(616, 2);
    message.Put<uint8_t>(620, 1).Put<uint8_t>(621, 1).Put<uint8_t>(624, 1);
    RequestView view = message.Decode();
    EXPECT_EQ(view.code, 16u);
    EXPECT_EQ(view.processId, 0x1234u);
    EXPECT_EQ(view.threadId, 0x5678u);
    EXPECT_EQ(view.sid, kSid);
    EXPECT_EQ(view.path, kPath);
    ASSERT_TRUE(view.information.has_value());
    EXPECT_EQ(*view.information, (FileInformation{.creationTime = 100, .lastAccessTime = 200, .lastWriteTime = 300,
                                                  .changeTime = 400, .fileAttributes = 0x10, .allocationSize = 4096,
                                                  .endOfFile = 12, .numberOfLinks = 2, .deletePending = true,
                                                  .directory = true}));
    EXPECT_TRUE(view.information->IsDirectory());
    EXPECT_EQ(view.markerStreamPresent, std::optional<bool>(true));
    EXPECT_EQ(view.ReplyLength(), 16u);
}

TEST(RequestDecoding, FieldsOfEachCodeStandWhereTheirCodePutsThem)
{
    Message download(SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, kSid, kPath);
    download.Put<uint32_t>(560, 0x01000040).Put<uint16_t>(564, 7).Put<uint32_t>(568, 0x120089);
    download.Put<uint32_t>(576 + 32, 0x20).Put<uint8_t>(640, 1);
    RequestView view = download.Decode();
    EXPECT_EQ(view.createOptions, 0x01000040u);
    EXPECT_EQ(view.shareAccess, 7);
    EXPECT_EQ(view.desiredAccess, 0x120089u);
    EXPECT_EQ(view.information->fileAttributes, 0x20u);
    EXPECT_EQ(view.markerStreamPresent, std::optional<bool>(true));
    EXPECT_EQ(view.ReplyLength(), 19u);

    Message rename(SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED, kSid, kPath);
    rename.Put<uint8_t>(624, 1).Put<uint8_t>(625, 0);
    view = rename.Decode();
    EXPECT_TRUE(view.toRecycleBin);
    EXPECT_EQ(view.markerStreamPresent, std::optional<bool>(false));

    Message listing(SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, kSid, kPath);
    listing.PutText(560, u"*.TXT").Put<uint32_t>(1084, 37).Put<uint32_t>(1088, 1).Put<uint8_t>(1092, 1);
    view = listing.Decode();
    EXPECT_EQ(view.filter, u"*.TXT");
    EXPECT_EQ(view.fileInformationClass, 37u);
    EXPECT_TRUE(view.wantListingHandle);
    EXPECT_TRUE(view.returnSingleEntry);
    EXPECT_FALSE(view.information.has_value());
    EXPECT_EQ(view.ReplyLength(), 20u);

    Message contents(SERVICE_REQUEST_DIRECTORY_CONTENTS, u"", u"");
    contents.Put<uint64_t>(32, 0xABCDEF0123ull).Put<uint32_t>(40, 1000);
    view = contents.Decode();
    EXPECT_EQ(view.listingHandle, 0xABCDEF0123ull);
    EXPECT_EQ(view.listingLength, 1000u);
    EXPECT_TRUE(view.sid.empty());
    EXPECT_EQ(view.ReplyLength(), 1016u);

    Message upload(SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED, kSid, kPath, u"sig.dat");
    upload.Put<uint8_t>(632, 1);
    view = upload.Decode();
    EXPECT_EQ(view.path, kPath);
    EXPECT_EQ(view.secondString, u"sig.dat");
    EXPECT_EQ(view.markerStreamPresent, std::optional<bool>(true));

    Message signature(SERVICE_REQUEST_OBJECT_SIGNATURE, kSid, kPath);
    signature.Put<uint32_t>(560, 0x40000000);
    view = signature.Decode();
    EXPECT_EQ(view.desiredAccess, 0x40000000u);
    EXPECT_FALSE(view.markerStreamPresent.has_value());
    EXPECT_EQ(view.ReplyLength(), 538u);

    Message redirect(SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES, kSid, kPath);
    redirect.Put<uint32_t>(560, 300).Put<uint8_t>(632, 1);
    view = redirect.Decode();
    EXPECT_EQ(view.replyNameCapacity, 300u);
    EXPECT_EQ(view.ReplyLength(), 324u);

    Message changed(SERVICE_REQUEST_OBJECT_CHANGED, kSid, kPath);
    changed.Put<uint8_t>(624, 0).Put<uint8_t>(625, 1);
    view = changed.Decode();
    EXPECT_TRUE(view.attributesOnly);
    EXPECT_EQ(view.markerStreamPresent, std::optional<bool>(false));
    EXPECT_EQ(view.ReplyLength(), 24u);

    Message locked(SERVICE_REQUEST_OBJECT_IS_LOCKED, kSid, kPath);
    locked.Put<uint8_t>(560, 1);
    EXPECT_TRUE(locked.Decode().locked);
    EXPECT_FALSE(locked.Decode().information.has_value());

    for (uint32_t code : {SERVICE_REQUEST_OBJECT_RENAME, SERVICE_REQUEST_OBJECT_INFORMATION,
                          SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED}) {
        Message noMarker(code, kSid, kPath, code == SERVICE_REQUEST_OBJECT_RENAME ? u"\\new" : u"");
        view = noMarker.Decode();
        EXPECT_TRUE(view.information.has_value()) << code;
        EXPECT_FALSE(view.markerStreamPresent.has_value()) << code;
    }
    for (uint32_t code : {SERVICE_REQUEST_OBJECT_DELETED, SERVICE_REQUEST_OBJECT_WRITE_NOTIFY,
                          SERVICE_REQUEST_OBJECT_IS_READ_ONLY}) {
        EXPECT_FALSE(Message(code, kSid, kPath).Decode().information.has_value()) << code;
    }
}

TEST(RequestDecoding, BytesThatAreNoRequestAreRefusedWithAReason)
{
    Message good(SERVICE_REQUEST_OBJECT_DELETED, kSid, kPath);
    std::vector<uint8_t> shortHead(good.bytes().begin(), good.bytes().begin() + 2087);
    EXPECT_FALSE(DecodeRequest(shortHead).request.has_value());

    Message unknown(9, kSid, kPath);
    EXPECT_NE(unknown.Error().find("unknown request code 9"), std::string::npos);

    Message lengthLies(SERVICE_REQUEST_OBJECT_DELETED, kSid, kPath);
    lengthLies.Put<uint32_t>(24, 2088);
    EXPECT_NE(lengthLies.Error().find("MessageLength"), std::string::npos);

    Message pathTooLong(SERVICE_REQUEST_OBJECT_DELETED, kSid, kPath);
    pathTooLong.Put<uint32_t>(556, 4000);
    EXPECT_FALSE(pathTooLong.Error().empty());

    // A second string counts only for codes 4 and 8: elsewhere 560 holds other fields.
    Message notSecond(SERVICE_REQUEST_OBJECT_SIGNATURE, kSid, kPath);
    notSecond.Put<uint32_t>(560, 8);
    EXPECT_TRUE(notSecond.Error().empty());

    Message odd(SERVICE_REQUEST_OBJECT_RENAME, kSid, u"\\ab", u"\\cd");
    odd.Put<uint32_t>(556, 5).Put<uint32_t>(560, 7);
    EXPECT_EQ(odd.Error(), "a string of odd length");

    Message endlessSid(SERVICE_REQUEST_OBJECT_DELETED, std::u16string(262, u'1'), kPath);
    EXPECT_NE(endlessSid.Error().find("SID"), std::string::npos);
    Message fullSid(SERVICE_REQUEST_OBJECT_DELETED, std::u16string(261, u'1'), kPath);
    EXPECT_EQ(fullSid.Decode().sid.size(), 261u);

    Message endlessFilter(SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, kSid, kPath);
    endlessFilter.PutText(560, std::u16string(262, u'?'));
    EXPECT_NE(endlessFilter.Error().find("pattern"), std::string::npos);

    Message hugeListing(SERVICE_REQUEST_DIRECTORY_CONTENTS, u"", u"");
    hugeListing.Put<uint32_t>(40, 0xFFFFFFF0u);
    EXPECT_FALSE(hugeListing.Error().empty());
}

TEST(RequestDecoding, ARedirectionCapacityWhoseReplyLengthWouldWrapIsRefused)
{
    // Capacity + 24 must fit in 32 bits: one byte more would make a reply of a few bytes, too short
    // for the head that the reply's encoding writes.
    Message largest(SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES, kSid, kPath);
    largest.Put<uint32_t>(560, 0xFFFFFFFFu - 24);
    EXPECT_EQ(largest.Decode().ReplyLength(), 0xFFFFFFFFu);

    for (uint32_t capacity : {0xFFFFFFFFu - 23, 0xFFFFFFF0u, 0xFFFFFFFFu}) {
        Message wrapping(SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES, kSid, kPath);
        wrapping.Put<uint32_t>(560, capacity);
        EXPECT_NE(wrapping.Error().find("no reply length"), std::string::npos) << capacity;
    }
}

// ---- encoding ----

TEST(ReplyEncoding, EveryCodeHasItsExactLengthAndStatusUpFront)
{
    const std::vector<std::pair<uint32_t, size_t>> lengths = {
        {1, 18}, {2, 16}, {3, 19}, {4, 16}, {5, 20}, {7, 16}, {8, 16}, {12, 538}, {14, 80},
        {16, 16}, {17, 16}, {19, 16}, {20, 17}, {21, 24}, {22, 16}, {23, 16}};
    for (auto [code, length] : lengths) {
        RequestView request{.code = code};
        auto bytes = EncodeReply(request, {.status = (int32_t)0xC0000022, .listingHandle = 77});
        ASSERT_EQ(bytes.size(), length) << code;
        EXPECT_EQ(At<int32_t>(bytes, 0), (int32_t)0xC0000022) << code;
        EXPECT_EQ(At<uint64_t>(bytes, 8), 77u) << code;
    }
    EXPECT_EQ(EncodeReply({.code = 6, .listingLength = 40}, {}).size(), 56u);
    EXPECT_EQ(EncodeReply({.code = 18, .replyNameCapacity = 260}, {}).size(), 284u);
}

TEST(ReplyEncoding, PayloadsStandAtTheirOffsets)
{
    auto exists = EncodeReply({.code = 1}, {.exists = true, .secondFlag = 5});
    EXPECT_EQ(exists[16], 1);
    EXPECT_EQ(exists[17], 5);

    auto download = EncodeReply({.code = 3}, {.uploadCancelled = true, .locked = false, .trackDirtyBlocks = true});
    EXPECT_EQ(std::vector<uint8_t>(download.begin() + 16, download.end()), (std::vector<uint8_t>{1, 0, 1}));

    auto size = EncodeReply({.code = 5}, {.listingHandle = 9, .listingLength = 4242});
    EXPECT_EQ(At<uint64_t>(size, 8), 9u);
    EXPECT_EQ(At<uint32_t>(size, 16), 4242u);

    auto information = EncodeReply(
        {.code = 14}, {.information = {.creationTime = 1, .changeTime = 4, .fileAttributes = 0x20, .endOfFile = 5,
                                       .numberOfLinks = 3, .directory = true}});
    EXPECT_EQ(At<int64_t>(information, 16), 1);
    EXPECT_EQ(At<int64_t>(information, 40), 4);
    EXPECT_EQ(At<uint32_t>(information, 48), 0x20u);
    EXPECT_EQ(At<int64_t>(information, 64), 5);
    EXPECT_EQ(At<uint32_t>(information, 72), 3u);
    EXPECT_EQ(information[77], 1);

    EXPECT_EQ(EncodeReply({.code = 20}, {.readOnly = true})[16], 1);

    // The listing is cut or padded to the length the filter asked for.
    auto shortListing = EncodeReply({.code = 6, .listingLength = 4}, {.listing = {1, 2, 3, 4, 5, 6}});
    EXPECT_EQ(std::vector<uint8_t>(shortListing.begin() + 16, shortListing.end()), (std::vector<uint8_t>{1, 2, 3, 4}));
    auto paddedListing = EncodeReply({.code = 6, .listingLength = 4}, {.listing = {9}});
    EXPECT_EQ(std::vector<uint8_t>(paddedListing.begin() + 16, paddedListing.end()), (std::vector<uint8_t>{9, 0, 0, 0}));
}

TEST(ReplyEncoding, SignatureNameEndsWithAZeroUnlessItFillsTheField)
{
    auto named = EncodeReply({.code = 12}, {.signatureName = u"sig"});
    EXPECT_EQ(At<char16_t>(named, 16), u's');
    EXPECT_EQ(At<char16_t>(named, 20), u'g');
    EXPECT_EQ(At<char16_t>(named, 22), 0);

    auto full = EncodeReply({.code = 12}, {.signatureName = std::u16string(300, u'n')});
    ASSERT_EQ(full.size(), 538u);
    for (size_t offset = 16; offset < 538; offset += 2) {
        ASSERT_EQ(At<char16_t>(full, offset), u'n') << offset;
    }
}

TEST(ReplyEncoding, RedirectionNameIsWrittenOnlyWhenItFitsTheCapacity)
{
    const std::u16string name(130, u'r');  // 260 bytes
    auto fits = EncodeReply({.code = 18, .replyNameCapacity = 260}, {.reparse = true, .redirected = true, .name = name});
    EXPECT_EQ(At<uint32_t>(fits, 16), 260u);
    EXPECT_EQ(fits[20], 1);
    EXPECT_EQ(fits[21], 1);
    EXPECT_EQ(At<char16_t>(fits, 24), u'r');
    EXPECT_EQ(At<char16_t>(fits, 24 + 258), u'r');

    // One character more than the room: the length tells the filter to ask again, the name stays out.
    auto tooLong = EncodeReply({.code = 18, .replyNameCapacity = 260}, {.redirected = true, .name = name + u"x"});
    ASSERT_EQ(tooLong.size(), 284u);
    EXPECT_EQ(At<uint32_t>(tooLong, 16), 262u);
    EXPECT_EQ(At<char16_t>(tooLong, 24), 0);

    auto stated = EncodeReply({.code = 18, .replyNameCapacity = 8}, {.name = u"ab", .nameLength = 9000});
    EXPECT_EQ(At<uint32_t>(stated, 16), 9000u);
}

}  // namespace
