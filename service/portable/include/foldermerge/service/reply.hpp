// The service's answer to a filter request: every reply encoded at the exact length the filter
// waits for.
//
//     ReplyContent reply{.status = 0, .uploadCancelled = false, .trackDirtyBlocks = true};
//     std::vector<uint8_t> record = EncodeReply(request, reply);   // ServiceReply, request.ReplyLength() bytes
//
// The request receiver puts FILTER_REPLY_HEADER in front; the filter's reply buffer receives the
// record from its first byte on.
#pragma once

#include <foldermerge/service/request.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace foldermerge::service {

// What the service answers. Only the fields of the request's code are encoded.
struct ReplyContent {
    int32_t status = 0;          // NTSTATUS; for codes 1 and 14 the filter doesn't read it
    uint64_t listingHandle = 0;  // 5

    bool exists = false;            // 1
    uint8_t secondFlag = 0;         // 1: the byte behind bExists
    bool uploadCancelled = false;   // 3
    bool locked = false;            // 3
    bool trackDirtyBlocks = false;  // 3
    uint32_t listingLength = 0;     // 5
    std::vector<uint8_t> listing;   // 6: cut or zero-padded to the request's ListingLength
    // 12: up to 260 characters and a zero; a name of 261 characters or more fills the field
    // without a zero.
    std::u16string signatureName;
    FileInformation information;         // 14
    bool reparse = false;                // 18
    bool redirected = false;             // 18
    std::u16string name;                 // 18: written only when it fits ReplyNameCapacity
    std::optional<uint32_t> nameLength;  // 18: the NameLength to report, when it isn't the name's
    bool readOnly = false;               // 20
};

// The ServiceReply record for request, request.ReplyLength() bytes, zero wherever reply sets nothing.
std::vector<uint8_t> EncodeReply(const RequestView& request, const ReplyContent& reply);

// A refusal of bytes that are no request: replyLength bytes (the filter's buffer, as its message
// header told it), all zero but the status at the front where there is room for it.
std::vector<uint8_t> EncodeRefusal(uint32_t replyLength, int32_t status);

}  // namespace foldermerge::service
