// Encoding of the replies to the filter's requests.
#include <foldermerge/service/reply.hpp>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace foldermerge::service {

namespace {

template <typename T>
void WriteAt(std::vector<uint8_t>& bytes, size_t offset, T value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof(T));
}

void WriteFlag(std::vector<uint8_t>& bytes, size_t offset, bool value)
{
    WriteAt<uint8_t>(bytes, offset, value ? 1 : 0);
}

void WriteInformation(std::vector<uint8_t>& bytes, size_t offset, const FileInformation& information)
{
    FileInformationBlock block{};
    block.Basic.CreationTime = information.creationTime;
    block.Basic.LastAccessTime = information.lastAccessTime;
    block.Basic.LastWriteTime = information.lastWriteTime;
    block.Basic.ChangeTime = information.changeTime;
    block.Basic.FileAttributes = information.fileAttributes;
    block.Standard.AllocationSize = information.allocationSize;
    block.Standard.EndOfFile = information.endOfFile;
    block.Standard.NumberOfLinks = information.numberOfLinks;
    block.Standard.DeletePending = information.deletePending ? 1 : 0;
    block.Standard.Directory = information.directory ? 1 : 0;
    std::memcpy(bytes.data() + offset, &block, sizeof(block));
}

}  // namespace

std::vector<uint8_t> EncodeReply(const RequestView& request, const ReplyContent& reply)
{
    std::vector<uint8_t> bytes(request.ReplyLength(), 0);
    WriteAt<int32_t>(bytes, offsetof(ServiceReply, Status), reply.status);
    WriteAt<uint64_t>(bytes, offsetof(ServiceReply, ListingHandle), reply.listingHandle);

    switch (request.code) {
    case SERVICE_REQUEST_OBJECT_EXISTS:
        WriteFlag(bytes, offsetof(ServiceReply, Payload.ObjectExists.bExists), reply.exists);
        WriteAt<uint8_t>(bytes, offsetof(ServiceReply, Payload.ObjectExists.bSecondFlag), reply.secondFlag);
        break;
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED:
        WriteFlag(bytes, offsetof(ServiceReply, Payload.DownloadIfRequired.bUploadCancelled), reply.uploadCancelled);
        WriteFlag(bytes, offsetof(ServiceReply, Payload.DownloadIfRequired.bLocked), reply.locked);
        WriteFlag(bytes, offsetof(ServiceReply, Payload.DownloadIfRequired.bTrackDirtyBlocks), reply.trackDirtyBlocks);
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE:
        WriteAt<uint32_t>(bytes, offsetof(ServiceReply, Payload.DirectoryContentsSize.ListingLength),
                          reply.listingLength);
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS: {
        const size_t copied = std::min<size_t>(reply.listing.size(), request.listingLength);
        if (copied != 0) {
            std::memcpy(bytes.data() + offsetof(ServiceReply, Payload.DirectoryContents.Listing), reply.listing.data(),
                        copied);
        }
        break;
    }
    case SERVICE_REQUEST_OBJECT_SIGNATURE: {
        const size_t chars = std::min<size_t>(reply.signatureName.size(), SERVICE_SIGNATURE_NAME_CHARS + 1);
        std::memcpy(bytes.data() + offsetof(ServiceReply, Payload.Signature.SignatureName), reply.signatureName.data(),
                    chars * 2);
        break;
    }
    case SERVICE_REQUEST_OBJECT_INFORMATION:
        WriteInformation(bytes, offsetof(ServiceReply, Payload.ObjectInformation), reply.information);
        break;
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES: {
        const auto nameBytes = static_cast<uint32_t>(reply.name.size() * 2);
        WriteAt<uint32_t>(bytes, offsetof(ServiceReply, Payload.RedirectAttributes.NameLength),
                          reply.nameLength.value_or(nameBytes));
        WriteFlag(bytes, offsetof(ServiceReply, Payload.RedirectAttributes.bReparse), reply.reparse);
        WriteFlag(bytes, offsetof(ServiceReply, Payload.RedirectAttributes.bRedirected), reply.redirected);
        if (nameBytes != 0 && nameBytes <= request.replyNameCapacity) {
            std::memcpy(bytes.data() + offsetof(ServiceReply, Payload.RedirectAttributes.Name), reply.name.data(),
                        nameBytes);
        }
        break;
    }
    case SERVICE_REQUEST_OBJECT_IS_READ_ONLY:
        WriteFlag(bytes, offsetof(ServiceReply, Payload.IsReadOnly.bReadOnly), reply.readOnly);
        break;
    default:
        break;
    }
    return bytes;
}

std::vector<uint8_t> EncodeRefusal(uint32_t replyLength, int32_t status)
{
    std::vector<uint8_t> bytes(replyLength, 0);
    if (bytes.size() >= sizeof(status)) {
        WriteAt<int32_t>(bytes, offsetof(ServiceReply, Status), status);
    }
    return bytes;
}

}  // namespace foldermerge::service
