// The service library's reading of what arrives from the filter: DecodeRequest on arbitrary bytes,
// then what a service does with a decoded request (its transcript lines and its reply).
//
// Checked: bytes are either a request or refused with a reason. A request is one the filter sends:
// a known code, MessageLength the number of bytes, the head and both strings filling them exactly,
// a SID and a search pattern that end inside their fields (no zero character in the text), and a
// reply length that is the one its code gives, counted without wrapping around. Its reply encodes
// at that length with the status in front. Replies longer than kLargestEncodedReply are not built:
// a listing may ask for up to 4 GiB, which is the service's to allocate, not a fault.
#include <foldermerge/service/reply.hpp>
#include <foldermerge/service/request.hpp>
#include <foldermerge/service/responder.hpp>
#include <foldermerge/service/transcript.hpp>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <sstream>
#include <string>

namespace {

using namespace foldermerge::service;

constexpr uint64_t kLargestEncodedReply = 1 << 20;

[[noreturn]] void Fail(const std::string& what, const RequestView& view)
{
    fprintf(stderr, "\n*** request decoder: %s (code %u, MessageLength %u)\n", what.c_str(), view.code,
            view.messageLength);
    fflush(stderr);
    abort();
}

bool HasZeroCharacter(const std::u16string& text)
{
    return text.find(u'\0') != std::u16string::npos;
}

// The reply length each code gives, in 64 bits so that nothing wraps.
uint64_t ExpectedReplyLength(const RequestView& view)
{
    switch (view.code) {
    case SERVICE_REQUEST_DIRECTORY_CONTENTS: return uint64_t{view.listingLength} + SERVICE_REPLY_HEAD_SIZE;
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES:
        return uint64_t{view.replyNameCapacity} + SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(0);
    default: return view.ReplyLength();
    }
}

void CheckRequest(std::span<const uint8_t> bytes, const RequestView& view)
{
    if (RequestName(view.code) == "unknown request") {
        Fail("a request of an unknown code", view);
    }
    if (view.messageLength != bytes.size()) {
        Fail("MessageLength differs from the bytes received", view);
    }
    if (SERVICE_REQUEST_HEAD_SIZE + 2 * (view.path.size() + view.secondString.size()) != bytes.size()) {
        Fail("the strings don't fill the message after its head", view);
    }
    if (HasZeroCharacter(view.sid) || 2 * view.sid.size() >= SERVICE_REQUEST_SID_FIELD_BYTES) {
        Fail("SID text runs past its terminator or its field", view);
    }
    if (HasZeroCharacter(view.filter) || 2 * view.filter.size() >= SERVICE_REQUEST_FILTER_FIELD_BYTES) {
        Fail("search pattern runs past its terminator or its field", view);
    }
    const uint64_t replyLength = ExpectedReplyLength(view);
    if (view.ReplyLength() != replyLength || replyLength < SERVICE_REPLY_HEAD_SIZE) {
        Fail("reply length " + std::to_string(view.ReplyLength()) + " where the code gives " +
                 std::to_string(replyLength),
             view);
    }
}

// The reply a service builds for the request, with every field of every code set.
void CheckReply(const RequestView& view)
{
    if (view.ReplyLength() > kLargestEncodedReply) {
        return;
    }
    const ReplyContent content{.status = static_cast<int32_t>(0xC0000022),
                               .listingHandle = 7,
                               .exists = true,
                               .secondFlag = 2,
                               .uploadCancelled = true,
                               .locked = true,
                               .trackDirtyBlocks = true,
                               .listingLength = 24,
                               .listing = std::vector<uint8_t>(24, 0x5A),
                               .signatureName = std::u16string(300, u's'),
                               .reparse = true,
                               .redirected = true,
                               .name = view.path,
                               .readOnly = true};
    const std::vector<uint8_t> reply = EncodeReply(view, content);
    int32_t status = 0;
    if (reply.size() != view.ReplyLength() || reply.size() < sizeof(status)) {
        Fail("a reply of " + std::to_string(reply.size()) + " bytes", view);
    }
    std::memcpy(&status, reply.data(), sizeof(status));
    if (status != content.status) {
        Fail("a reply without its status in front", view);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::span<const uint8_t> bytes(data, size);
    DecodedRequest decoded = DecodeRequest(bytes);
    RecordedRequest recorded{.bytes = std::vector<uint8_t>(bytes.begin(), bytes.end()),
                             .view = decoded.request,
                             .decodeError = decoded.error,
                             .replyLength = 64};
    if (decoded.request) {
        CheckRequest(bytes, *decoded.request);
        CheckReply(*decoded.request);
    } else if (decoded.error.empty()) {
        fprintf(stderr, "\n*** request decoder: %zu bytes refused without a reason\n", size);
        abort();
    }
    std::ostringstream transcript;
    PrintRequest(transcript, recorded);
    return 0;
}
