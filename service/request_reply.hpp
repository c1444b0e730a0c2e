// The service's answer to a filter request: every reply encoded at the exact length the filter
// waits for.
//
//     ReplyContent reply{.status = 0, .uploadCancelled = false, .trackDirtyBlocks = true};
//     std::vector<uint8_t> record = EncodeReply(request, reply);   // ServiceReply, request.ReplyLength() bytes
//
// The port puts FILTER_REPLY_HEADER in front (see responder_scripted.hpp); the filter's reply buffer
// receives the record from its first byte on.
#pragma once

#include "request_view.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace foldermerge::service {

// What the service answers. Only the fields of the request's code are encoded.
struct ReplyContent {
    int32_t status = 0;          // NTSTATUS; for codes 1 and 14 the filter doesn't read it
    uint64_t listingHandle = 0;  // 5

    bool exists = false;             // 1
    uint8_t secondFlag = 0;          // 1: the byte behind bExists
    bool uploadCancelled = false;    // 3
    bool locked = false;             // 3
    bool trackDirtyBlocks = false;   // 3
    uint32_t listingLength = 0;      // 5
    std::vector<uint8_t> listing;    // 6: cut or zero-padded to the request's ListingLength
    // 12: up to 260 characters and a zero; a name of 261 characters or more fills the field
    // without a zero.
    std::u16string signatureName;
    FileInformation information;     // 14
    bool reparse = false;            // 18
    bool redirected = false;         // 18
    std::u16string name;             // 18: written only when it fits ReplyNameCapacity
    std::optional<uint32_t> nameLength;  // 18: the NameLength to report, when it isn't the name's
    bool readOnly = false;           // 20
};

namespace detail {

template <typename T>
void WriteAt(std::vector<uint8_t>& bytes, size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

inline void WriteInformation(std::vector<uint8_t>& bytes, size_t offset, const FileInformation& information)
{
    ServiceBasicInformation basic{};
    basic.CreationTime = information.creationTime;
    basic.LastAccessTime = information.lastAccessTime;
    basic.LastWriteTime = information.lastWriteTime;
    basic.ChangeTime = information.changeTime;
    basic.FileAttributes = information.fileAttributes;
    ServiceStandardInformation standard{};
    standard.AllocationSize = information.allocationSize;
    standard.EndOfFile = information.endOfFile;
    standard.NumberOfLinks = information.numberOfLinks;
    standard.DeletePending = information.deletePending ? 1 : 0;
    standard.Directory = information.directory ? 1 : 0;
    std::memcpy(bytes.data() + offset, &basic, sizeof(basic));
    std::memcpy(bytes.data() + offset + sizeof(basic), &standard, sizeof(standard));
}

}  // namespace detail

// The ServiceReply record for request, request.ReplyLength() bytes, zero wherever reply sets nothing.
inline std::vector<uint8_t> EncodeReply(const RequestView& request, const ReplyContent& reply)
{
    using detail::WriteAt;
    std::vector<uint8_t> bytes(request.ReplyLength(), 0);
    WriteAt<int32_t>(bytes, offsetof(ServiceReply, Status), reply.status);
    WriteAt<uint64_t>(bytes, offsetof(ServiceReply, ListingHandle), reply.listingHandle);

    switch (request.code) {
    case SERVICE_REQUEST_OBJECT_EXISTS:
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.ObjectExists.bExists), reply.exists ? 1 : 0);
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.ObjectExists.bSecondFlag), reply.secondFlag);
        break;
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED:
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.DownloadIfRequired.bUploadCancelled),
                         reply.uploadCancelled ? 1 : 0);
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.DownloadIfRequired.bLocked), reply.locked ? 1 : 0);
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.DownloadIfRequired.bTrackDirtyBlocks),
                         reply.trackDirtyBlocks ? 1 : 0);
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE:
        WriteAt<uint32_t>(bytes, offsetof(ServiceReply, Payload.DirectoryContentsSize.ListingLength),
                          reply.listingLength);
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS: {
        size_t copied = std::min<size_t>(reply.listing.size(), request.listingLength);
        if (copied != 0) {
            std::memcpy(bytes.data() + offsetof(ServiceReply, Payload.DirectoryContents.Listing),
                        reply.listing.data(), copied);
        }
        break;
    }
    case SERVICE_REQUEST_OBJECT_SIGNATURE: {
        size_t chars = std::min<size_t>(reply.signatureName.size(), SERVICE_SIGNATURE_NAME_CHARS + 1);
        std::memcpy(bytes.data() + offsetof(ServiceReply, Payload.Signature.SignatureName),
                    reply.signatureName.data(), chars * 2);
        break;
    }
    case SERVICE_REQUEST_OBJECT_INFORMATION:
        detail::WriteInformation(bytes, offsetof(ServiceReply, Payload.ObjectInformation), reply.information);
        break;
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES: {
        uint32_t nameBytes = static_cast<uint32_t>(reply.name.size() * 2);
        WriteAt<uint32_t>(bytes, offsetof(ServiceReply, Payload.RedirectAttributes.NameLength),
                          reply.nameLength.value_or(nameBytes));
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.RedirectAttributes.bReparse), reply.reparse ? 1 : 0);
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.RedirectAttributes.bRedirected),
                         reply.redirected ? 1 : 0);
        if (nameBytes != 0 && nameBytes <= request.replyNameCapacity) {
            std::memcpy(bytes.data() + offsetof(ServiceReply, Payload.RedirectAttributes.Name), reply.name.data(),
                        nameBytes);
        }
        break;
    }
    case SERVICE_REQUEST_OBJECT_IS_READ_ONLY:
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.IsReadOnly.bReadOnly), reply.readOnly ? 1 : 0);
        break;
    default:
        break;
    }
    return bytes;
}

}  // namespace foldermerge::service
