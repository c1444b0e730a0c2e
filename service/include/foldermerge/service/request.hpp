// The service's reading of a filter request: every request code decoded into a typed view.
//
//     DecodedRequest decoded = DecodeRequest(bytes);   // the bytes behind FILTER_MESSAGE_HEADER
//     if (!decoded.request) { log(decoded.error); ... }
//     const RequestView& request = *decoded.request;
//     if (request.code == SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) { ... request.path, request.sid ... }
//
// The decoder checks what a reader must not trust: the head is whole, MessageLength is the number
// of bytes received, the strings lie inside the message and have even lengths, the SID and the
// search pattern end inside their fields, the code is one the filter sends, and the reply length
// that the code gives (a listing's or a redirection name's) fits in 32 bits.
#pragma once

#include <servicemessages.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace foldermerge::service {

// A file information block: the file as the volume below the filter saw it.
struct FileInformation {
    int64_t creationTime = 0;
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;
    uint32_t fileAttributes = 0;
    int64_t allocationSize = 0;
    int64_t endOfFile = 0;
    uint32_t numberOfLinks = 0;
    bool deletePending = false;
    bool directory = false;

    // The unknown pattern: the filter found no local file to look at.
    bool IsUnknown() const { return fileAttributes == SERVICE_UNKNOWN_FILE_ATTRIBUTES; }
    // A known directory (the attribute bit counts only when the attributes are known).
    bool IsDirectory() const { return !IsUnknown() && (fileAttributes & 0x10u) != 0; }

    bool operator==(const FileInformation&) const = default;
};

// One request, by code. Fields that a code doesn't carry keep their defaults.
struct RequestView {
    uint32_t code = 0;
    uint64_t processId = 0;
    uint64_t threadId = 0;
    uint32_t messageLength = 0;
    std::u16string sid;           // empty for code 6
    std::u16string path;          // the first string; code 8: the old path
    std::u16string secondString;  // code 4: the signature name; code 8: the new path

    std::optional<FileInformation> information;  // codes 1-4, 8, 12, 14, 16-18, 21, 23
    std::optional<bool> markerStreamPresent;     // codes 1-4, 16-18, 21

    bool toRecycleBin = false;          // 2
    uint32_t createOptions = 0;         // 3: disposition in the top 8 bits
    uint16_t shareAccess = 0;           // 3
    uint32_t desiredAccess = 0;         // 3, 12
    std::u16string filter;              // 5: the search pattern, empty for none
    uint32_t fileInformationClass = 0;  // 5
    bool wantListingHandle = false;     // 5
    bool returnSingleEntry = false;     // 5
    uint64_t listingHandle = 0;         // 6
    uint32_t listingLength = 0;         // 6
    uint32_t replyNameCapacity = 0;     // 18
    bool attributesOnly = false;        // 21
    bool locked = false;                // 22

    // The number of bytes the filter waits for as the reply (FILTER_REPLY_HEADER not counted).
    uint32_t ReplyLength() const;
};

struct DecodedRequest {
    std::optional<RequestView> request;
    std::string error;  // why the bytes are no request, when request is empty
};

// The routine name of a request code ("ServiceRequest_ObjectExists"), or "unknown request".
std::string_view RequestName(uint32_t code);

// Decodes the bytes of one request, as the filter sent them (without FILTER_MESSAGE_HEADER).
DecodedRequest DecodeRequest(std::span<const uint8_t> bytes);

}  // namespace foldermerge::service
