// The service's reading of a filter request: every request code decoded into a typed view.
//
//     auto decoded = foldermerge::service::DecodeRequest(bytes);   // the bytes behind FILTER_MESSAGE_HEADER
//     if (!decoded.request) { log(decoded.error); ... }
//     const RequestView& request = *decoded.request;
//     if (request.code == SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) { ... request.path, request.sid ... }
//
// The decoder checks what a reader must not trust: the head is whole, MessageLength is the number
// of bytes received, the strings lie inside the message and have even lengths, the SID and the
// search pattern end inside their fields, and the code is one the filter sends.
#pragma once

#include <servicemessages.h>

#include <cstdint>
#include <cstring>
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

    bool toRecycleBin = false;      // 2
    uint32_t createOptions = 0;     // 3: disposition in the top 8 bits
    uint16_t shareAccess = 0;       // 3
    uint32_t desiredAccess = 0;     // 3, 12
    std::u16string filter;          // 5: the search pattern, empty for none
    uint32_t fileInformationClass = 0;  // 5
    bool wantListingHandle = false;     // 5
    bool returnSingleEntry = false;     // 5
    uint64_t listingHandle = 0;     // 6
    uint32_t listingLength = 0;     // 6
    uint32_t replyNameCapacity = 0; // 18
    bool attributesOnly = false;    // 21
    bool locked = false;            // 22

    // The number of bytes the filter waits for as the reply (FILTER_REPLY_HEADER not counted).
    uint32_t ReplyLength() const;
};

struct DecodedRequest {
    std::optional<RequestView> request;
    std::string error;  // why the bytes are no request, when request is empty
};

// The routine name of a request code ("ServiceRequest_ObjectExists"), or "unknown request".
inline std::string_view RequestName(uint32_t code)
{
    switch (code) {
    case SERVICE_REQUEST_OBJECT_EXISTS: return "ServiceRequest_ObjectExists";
    case SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED: return "ServiceRequest_ObjectRenameFromManaged";
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED: return "ServiceRequest_ObjectDownloadIfRequired";
    case SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED: return "ServiceRequest_ObjectUploadIfRequired";
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE: return "ServiceRequest_DirectoryContentsSize";
    case SERVICE_REQUEST_DIRECTORY_CONTENTS: return "ServiceRequest_DirectoryContents";
    case SERVICE_REQUEST_OBJECT_DELETED: return "ServiceRequest_ObjectDeleted";
    case SERVICE_REQUEST_OBJECT_RENAME: return "ServiceRequest_ObjectRename";
    case SERVICE_REQUEST_OBJECT_SIGNATURE: return "ServiceRequest_ObjectSignature";
    case SERVICE_REQUEST_OBJECT_INFORMATION: return "ServiceRequest_ObjectInformation";
    case SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE: return "ServiceRequest_ObjectIsExcludedFile";
    case SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD: return "ServiceRequest_ObjectCancelUpload";
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES: return "ServiceRequest_ObjectRedirectAttributes";
    case SERVICE_REQUEST_OBJECT_WRITE_NOTIFY: return "ServiceRequest_ObjectWriteNotify";
    case SERVICE_REQUEST_OBJECT_IS_READ_ONLY: return "ServiceRequest_ObjectIsReadOnly";
    case SERVICE_REQUEST_OBJECT_CHANGED: return "ServiceRequest_ObjectChanged";
    case SERVICE_REQUEST_OBJECT_IS_LOCKED: return "ServiceRequest_ObjectIsLocked";
    case SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED: return "ServiceRequest_ObjectRenameToManaged";
    default: return "unknown request";
    }
}

inline uint32_t RequestView::ReplyLength() const
{
    switch (code) {
    case SERVICE_REQUEST_OBJECT_EXISTS: return SERVICE_REPLY_LENGTH_OBJECT_EXISTS;
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED: return SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE: return SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS_SIZE;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS: return SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS(listingLength);
    case SERVICE_REQUEST_OBJECT_SIGNATURE: return SERVICE_REPLY_LENGTH_OBJECT_SIGNATURE;
    case SERVICE_REQUEST_OBJECT_INFORMATION: return SERVICE_REPLY_LENGTH_OBJECT_INFORMATION;
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES:
        return SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(replyNameCapacity);
    case SERVICE_REQUEST_OBJECT_IS_READ_ONLY: return SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY;
    case SERVICE_REQUEST_OBJECT_CHANGED: return SERVICE_REPLY_LENGTH_OBJECT_CHANGED;
    default: return SERVICE_REPLY_HEAD_SIZE;
    }
}

namespace detail {

template <typename T>
T ReadAt(std::span<const uint8_t> bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

inline std::u16string ReadText(std::span<const uint8_t> bytes, size_t offset, size_t length)
{
    std::u16string text(length / 2, u'\0');
    std::memcpy(text.data(), bytes.data() + offset, text.size() * 2);
    return text;
}

// Text that ends at the first zero character of a field; nothing when the field has none.
inline std::optional<std::u16string> ReadFieldText(std::span<const uint8_t> bytes, size_t offset, size_t fieldBytes)
{
    for (size_t chars = 0; chars < fieldBytes / 2; chars++) {
        if (ReadAt<uint16_t>(bytes, offset + chars * 2) == 0) {
            return ReadText(bytes, offset, chars * 2);
        }
    }
    return std::nullopt;
}

inline FileInformation ReadInformation(std::span<const uint8_t> bytes, size_t offset)
{
    FileInformationBlock block;
    std::memcpy(&block, bytes.data() + offset, sizeof(block));
    FileInformation information;
    information.creationTime = block.Basic.CreationTime;
    information.lastAccessTime = block.Basic.LastAccessTime;
    information.lastWriteTime = block.Basic.LastWriteTime;
    information.changeTime = block.Basic.ChangeTime;
    information.fileAttributes = block.Basic.FileAttributes;
    information.allocationSize = block.Standard.AllocationSize;
    information.endOfFile = block.Standard.EndOfFile;
    information.numberOfLinks = block.Standard.NumberOfLinks;
    information.deletePending = block.Standard.DeletePending != 0;
    information.directory = block.Standard.Directory != 0;
    return information;
}

// Where a code keeps its information block and marker byte (0: none).
struct BlockPlace {
    size_t information;
    size_t marker;
};

inline std::optional<BlockPlace> BlockPlaceOf(uint32_t code)
{
    switch (code) {
    case SERVICE_REQUEST_OBJECT_EXISTS:
    case SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE:
    case SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD:
    case SERVICE_REQUEST_OBJECT_CHANGED:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.ObjectInformation.Information),
                          offsetof(ServiceRequestMessage, Area.ObjectInformation.bMarkerStreamPresent)};
    case SERVICE_REQUEST_OBJECT_INFORMATION:
    case SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.ObjectInformation.Information), 0};
    case SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.RenameFromManaged.Information),
                          offsetof(ServiceRequestMessage, Area.RenameFromManaged.bMarkerStreamPresent)};
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.DownloadIfRequired.Information),
                          offsetof(ServiceRequestMessage, Area.DownloadIfRequired.bMarkerStreamPresent)};
    case SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.UploadIfRequired.Information),
                          offsetof(ServiceRequestMessage, Area.UploadIfRequired.bMarkerStreamPresent)};
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.RedirectAttributes.Information),
                          offsetof(ServiceRequestMessage, Area.RedirectAttributes.bMarkerStreamPresent)};
    case SERVICE_REQUEST_OBJECT_RENAME:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.Rename.Information), 0};
    case SERVICE_REQUEST_OBJECT_SIGNATURE:
        return BlockPlace{offsetof(ServiceRequestMessage, Area.Signature.Information), 0};
    default:
        return std::nullopt;
    }
}

inline bool IsKnownCode(uint32_t code)
{
    return RequestName(code) != "unknown request";
}

inline bool HasSecondString(uint32_t code)
{
    return code == SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED || code == SERVICE_REQUEST_OBJECT_RENAME;
}

}  // namespace detail

// Decodes the bytes of one request, as the filter sent them (without FILTER_MESSAGE_HEADER).
inline DecodedRequest DecodeRequest(std::span<const uint8_t> bytes)
{
    using detail::ReadAt;
    DecodedRequest result;
    auto fail = [&](std::string error) {
        result.error = std::move(error);
        return result;
    };

    if (bytes.size() < SERVICE_REQUEST_HEAD_SIZE) {
        return fail("message of " + std::to_string(bytes.size()) + " bytes is shorter than the head");
    }
    RequestView view;
    view.code = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, RequestCode));
    view.processId = ReadAt<uint64_t>(bytes, offsetof(ServiceRequestMessage, ProcessId));
    view.threadId = ReadAt<uint64_t>(bytes, offsetof(ServiceRequestMessage, ThreadId));
    view.messageLength = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, MessageLength));
    if (!detail::IsKnownCode(view.code)) {
        return fail("unknown request code " + std::to_string(view.code));
    }
    if (view.messageLength != bytes.size()) {
        return fail("MessageLength " + std::to_string(view.messageLength) + " but " + std::to_string(bytes.size()) +
                    " bytes received");
    }

    // The tail: the path, then the second string of codes 4 and 8.
    uint64_t pathLength = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, PathLength));
    uint64_t secondLength = detail::HasSecondString(view.code)
                                ? ReadAt<uint32_t>(bytes, SERVICE_REQUEST_SECOND_LENGTH_OFFSET)
                                : 0;
    if (SERVICE_REQUEST_HEAD_SIZE + pathLength + secondLength != view.messageLength) {
        return fail("strings of " + std::to_string(pathLength) + " and " + std::to_string(secondLength) +
                    " bytes don't fill a message of " + std::to_string(view.messageLength));
    }
    if (pathLength % 2 != 0 || secondLength % 2 != 0) {
        return fail("a string of odd length");
    }
    view.path = detail::ReadText(bytes, SERVICE_REQUEST_HEAD_SIZE, pathLength);
    view.secondString = detail::ReadText(bytes, SERVICE_REQUEST_HEAD_SIZE + pathLength, secondLength);

    if (view.code == SERVICE_REQUEST_DIRECTORY_CONTENTS) {
        view.listingHandle = ReadAt<uint64_t>(bytes, offsetof(ServiceRequestMessage, Identity.Listing.ListingHandle));
        view.listingLength = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Identity.Listing.ListingLength));
        if (view.listingLength > UINT32_MAX - SERVICE_REPLY_HEAD_SIZE) {
            return fail("listing of " + std::to_string(view.listingLength) + " bytes has no reply length");
        }
    } else {
        auto sid = detail::ReadFieldText(bytes, offsetof(ServiceRequestMessage, Identity.Sid),
                                         SERVICE_REQUEST_SID_FIELD_BYTES);
        if (!sid) {
            return fail("SID text without a zero character in its field");
        }
        view.sid = std::move(*sid);
    }

    if (auto place = detail::BlockPlaceOf(view.code)) {
        view.information = detail::ReadInformation(bytes, place->information);
        if (place->marker != 0) {
            view.markerStreamPresent = ReadAt<uint8_t>(bytes, place->marker) != 0;
        }
    }

    switch (view.code) {
    case SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED:
        view.toRecycleBin = ReadAt<uint8_t>(bytes, offsetof(ServiceRequestMessage, Area.RenameFromManaged.bToRecycleBin));
        break;
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED:
        view.createOptions = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.DownloadIfRequired.CreateOptions));
        view.shareAccess = ReadAt<uint16_t>(bytes, offsetof(ServiceRequestMessage, Area.DownloadIfRequired.ShareAccess));
        view.desiredAccess = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.DownloadIfRequired.DesiredAccess));
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE: {
        auto filter = detail::ReadFieldText(bytes, offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.Filter),
                                            SERVICE_REQUEST_FILTER_FIELD_BYTES);
        if (!filter) {
            return fail("search pattern without a zero character in its field");
        }
        view.filter = std::move(*filter);
        view.fileInformationClass =
            ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.FileInformationClass));
        view.wantListingHandle =
            ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.bWantListingHandle)) != 0;
        view.returnSingleEntry =
            ReadAt<uint8_t>(bytes, offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.bReturnSingleEntry)) != 0;
        break;
    }
    case SERVICE_REQUEST_OBJECT_SIGNATURE:
        view.desiredAccess = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.Signature.DesiredAccess));
        break;
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES:
        view.replyNameCapacity =
            ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.RedirectAttributes.ReplyNameCapacity));
        break;
    case SERVICE_REQUEST_OBJECT_CHANGED:
        view.attributesOnly = ReadAt<uint8_t>(bytes, offsetof(ServiceRequestMessage, Area.Changed.bAttributesOnly)) != 0;
        break;
    case SERVICE_REQUEST_OBJECT_IS_LOCKED:
        view.locked = ReadAt<uint8_t>(bytes, offsetof(ServiceRequestMessage, Area.IsLocked.bLocked)) != 0;
        break;
    default:
        break;
    }

    result.request = std::move(view);
    return result;
}

}  // namespace foldermerge::service
