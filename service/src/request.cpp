// Decoding of the filter's requests.
#include <foldermerge/service/request.hpp>

#include <array>
#include <cstddef>
#include <cstring>

namespace foldermerge::service {

namespace {

template <typename T>
T ReadAt(std::span<const uint8_t> bytes, size_t offset)
{
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

std::u16string ReadText(std::span<const uint8_t> bytes, size_t offset, size_t length)
{
    std::u16string text(length / 2, u'\0');
    std::memcpy(text.data(), bytes.data() + offset, text.size() * 2);
    return text;
}

// Text that ends at the first zero character of a field; nothing when the field has none.
std::optional<std::u16string> ReadFieldText(std::span<const uint8_t> bytes, size_t offset, size_t fieldBytes)
{
    for (size_t chars = 0; chars < fieldBytes / 2; chars++) {
        if (ReadAt<uint16_t>(bytes, offset + chars * 2) == 0) {
            return ReadText(bytes, offset, chars * 2);
        }
    }
    return std::nullopt;
}

FileInformation ReadInformation(std::span<const uint8_t> bytes, size_t offset)
{
    FileInformationBlock block;
    std::memcpy(&block, bytes.data() + offset, sizeof(block));
    return FileInformation{.creationTime = block.Basic.CreationTime,
                           .lastAccessTime = block.Basic.LastAccessTime,
                           .lastWriteTime = block.Basic.LastWriteTime,
                           .changeTime = block.Basic.ChangeTime,
                           .fileAttributes = block.Basic.FileAttributes,
                           .allocationSize = block.Standard.AllocationSize,
                           .endOfFile = block.Standard.EndOfFile,
                           .numberOfLinks = block.Standard.NumberOfLinks,
                           .deletePending = block.Standard.DeletePending != 0,
                           .directory = block.Standard.Directory != 0};
}

// What each code is called, and where it keeps its information block and marker byte (0: none).
struct CodeLayout {
    uint32_t code = 0;
    std::string_view name;
    size_t information = 0;
    size_t marker = 0;
};

#define FM_AREA(field) offsetof(ServiceRequestMessage, Area.field)

constexpr std::array<CodeLayout, 18> kCodes = {{
    {.code = SERVICE_REQUEST_OBJECT_EXISTS,
     .name = "ServiceRequest_ObjectExists",
     .information = FM_AREA(ObjectInformation.Information),
     .marker = FM_AREA(ObjectInformation.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED,
     .name = "ServiceRequest_ObjectRenameFromManaged",
     .information = FM_AREA(RenameFromManaged.Information),
     .marker = FM_AREA(RenameFromManaged.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
     .name = "ServiceRequest_ObjectDownloadIfRequired",
     .information = FM_AREA(DownloadIfRequired.Information),
     .marker = FM_AREA(DownloadIfRequired.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED,
     .name = "ServiceRequest_ObjectUploadIfRequired",
     .information = FM_AREA(UploadIfRequired.Information),
     .marker = FM_AREA(UploadIfRequired.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, .name = "ServiceRequest_DirectoryContentsSize"},
    {.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .name = "ServiceRequest_DirectoryContents"},
    {.code = SERVICE_REQUEST_OBJECT_DELETED, .name = "ServiceRequest_ObjectDeleted"},
    {.code = SERVICE_REQUEST_OBJECT_RENAME,
     .name = "ServiceRequest_ObjectRename",
     .information = FM_AREA(Rename.Information)},
    {.code = SERVICE_REQUEST_OBJECT_SIGNATURE,
     .name = "ServiceRequest_ObjectSignature",
     .information = FM_AREA(Signature.Information)},
    {.code = SERVICE_REQUEST_OBJECT_INFORMATION,
     .name = "ServiceRequest_ObjectInformation",
     .information = FM_AREA(ObjectInformation.Information)},
    {.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
     .name = "ServiceRequest_ObjectIsExcludedFile",
     .information = FM_AREA(ObjectInformation.Information),
     .marker = FM_AREA(ObjectInformation.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD,
     .name = "ServiceRequest_ObjectCancelUpload",
     .information = FM_AREA(ObjectInformation.Information),
     .marker = FM_AREA(ObjectInformation.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
     .name = "ServiceRequest_ObjectRedirectAttributes",
     .information = FM_AREA(RedirectAttributes.Information),
     .marker = FM_AREA(RedirectAttributes.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_WRITE_NOTIFY, .name = "ServiceRequest_ObjectWriteNotify"},
    {.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY, .name = "ServiceRequest_ObjectIsReadOnly"},
    {.code = SERVICE_REQUEST_OBJECT_CHANGED,
     .name = "ServiceRequest_ObjectChanged",
     .information = FM_AREA(ObjectInformation.Information),
     .marker = FM_AREA(ObjectInformation.bMarkerStreamPresent)},
    {.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .name = "ServiceRequest_ObjectIsLocked"},
    {.code = SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED,
     .name = "ServiceRequest_ObjectRenameToManaged",
     .information = FM_AREA(ObjectInformation.Information)},
}};

#undef FM_AREA

const CodeLayout* LayoutOf(uint32_t code)
{
    for (const CodeLayout& layout : kCodes) {
        if (layout.code == code) {
            return &layout;
        }
    }
    return nullptr;
}

bool HasSecondString(uint32_t code)
{
    return code == SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED || code == SERVICE_REQUEST_OBJECT_RENAME;
}

// The fields of the request area that are neither the information block nor the marker byte.
// False, with error set, when a field can't be read.
bool ReadAreaFields(std::span<const uint8_t> bytes, RequestView& view, std::string& error)
{
    switch (view.code) {
    case SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED:
        view.toRecycleBin =
            ReadAt<uint8_t>(bytes, offsetof(ServiceRequestMessage, Area.RenameFromManaged.bToRecycleBin)) != 0;
        break;
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED:
        view.createOptions =
            ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.DownloadIfRequired.CreateOptions));
        view.shareAccess = ReadAt<uint16_t>(bytes, offsetof(ServiceRequestMessage, Area.DownloadIfRequired.ShareAccess));
        view.desiredAccess =
            ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Area.DownloadIfRequired.DesiredAccess));
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE: {
        auto filter = ReadFieldText(bytes, offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.Filter),
                                    SERVICE_REQUEST_FILTER_FIELD_BYTES);
        if (!filter) {
            error = "search pattern without a zero character in its field";
            return false;
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
        // The reply is the capacity and its head: a capacity that leaves no room for the head in
        // 32 bits would wrap the reply length to a few bytes.
        if (view.replyNameCapacity > UINT32_MAX - SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(0)) {
            error = "name capacity of " + std::to_string(view.replyNameCapacity) + " bytes has no reply length";
            return false;
        }
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
    return true;
}

}  // namespace

std::string_view RequestName(uint32_t code)
{
    const CodeLayout* layout = LayoutOf(code);
    return layout != nullptr ? layout->name : "unknown request";
}

uint32_t RequestView::ReplyLength() const
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

DecodedRequest DecodeRequest(std::span<const uint8_t> bytes)
{
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
    const CodeLayout* layout = LayoutOf(view.code);
    if (layout == nullptr) {
        return fail("unknown request code " + std::to_string(view.code));
    }
    if (view.messageLength != bytes.size()) {
        return fail("MessageLength " + std::to_string(view.messageLength) + " but " + std::to_string(bytes.size()) +
                    " bytes received");
    }

    // The tail: the path, then the second string of codes 4 and 8.
    const uint64_t pathLength = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, PathLength));
    const uint64_t secondLength =
        HasSecondString(view.code) ? ReadAt<uint32_t>(bytes, SERVICE_REQUEST_SECOND_LENGTH_OFFSET) : 0;
    if (SERVICE_REQUEST_HEAD_SIZE + pathLength + secondLength != view.messageLength) {
        return fail("strings of " + std::to_string(pathLength) + " and " + std::to_string(secondLength) +
                    " bytes don't fill a message of " + std::to_string(view.messageLength));
    }
    if (pathLength % 2 != 0 || secondLength % 2 != 0) {
        return fail("a string of odd length");
    }
    view.path = ReadText(bytes, SERVICE_REQUEST_HEAD_SIZE, pathLength);
    view.secondString = ReadText(bytes, SERVICE_REQUEST_HEAD_SIZE + pathLength, secondLength);

    if (view.code == SERVICE_REQUEST_DIRECTORY_CONTENTS) {
        view.listingHandle = ReadAt<uint64_t>(bytes, offsetof(ServiceRequestMessage, Identity.Listing.ListingHandle));
        view.listingLength = ReadAt<uint32_t>(bytes, offsetof(ServiceRequestMessage, Identity.Listing.ListingLength));
        if (view.listingLength > UINT32_MAX - SERVICE_REPLY_HEAD_SIZE) {
            return fail("listing of " + std::to_string(view.listingLength) + " bytes has no reply length");
        }
    } else {
        auto sid = ReadFieldText(bytes, offsetof(ServiceRequestMessage, Identity.Sid), SERVICE_REQUEST_SID_FIELD_BYTES);
        if (!sid) {
            return fail("SID text without a zero character in its field");
        }
        view.sid = std::move(*sid);
    }

    if (layout->information != 0) {
        view.information = ReadInformation(bytes, layout->information);
    }
    if (layout->marker != 0) {
        view.markerStreamPresent = ReadAt<uint8_t>(bytes, layout->marker) != 0;
    }
    std::string error;
    if (!ReadAreaFields(bytes, view, error)) {
        return fail(std::move(error));
    }
    result.request = std::move(view);
    return result;
}

}  // namespace foldermerge::service
