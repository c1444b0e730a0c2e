// FolderMerge loaded over a C: volume for the request benchmark, and a short run that prints what
// crosses the Thread port: the driver's requests as the service decodes them (the service
// library's PrintRequest), the service's replies, and what each request's frame made of the reply.
// For a reader who wants to see the wire.
#pragma once

#include <foldermerge/service/responder.hpp>
#include <foldermerge/service/transcript.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/text.hpp>

#include "driver/lifecycle.h"
#include "driver/mergefolders.h"
#include "driver/ownedstring.h"
#include "fileaccess.h"
#include "servicerequests.h"

#include <cstdio>
#include <future>
#include <memory>
#include <ostream>
#include <string>

namespace requestbench {

using foldermerge::service::PrintRequest;
using foldermerge::service::ResponderAction;
using foldermerge::service::ScriptedResponder;

inline constexpr char16_t kVolume[] = u"\\Device\\HarddiskVolume2";
inline constexpr char16_t kDriverName[] = u"FolderMerge";

// An NTFS volume mounted as C: with the FolderMerge driver loaded over it, for as long as the
// object lives.
class LoadedDriver {
public:
    LoadedDriver() : volume_(ntsim::CreateNtfsVolume(kVolume))
    {
        status_ = ntsim::MountVolume(volume_, u"C:");
        if (NT_SUCCESS(status_)) {
            status_ = ntsim::LoadFilter(DriverEntry,
                                        {.name = kDriverName, .altitude = u"185200", .poolTags = {FOLDERMERGE_POOL_TAG}});
            loaded_ = NT_SUCCESS(status_);
        }
    }
    ~LoadedDriver()
    {
        if (loaded_) {
            ntsim::UnloadFilter(kDriverName);
        }
        ntsim::DismountVolume(kVolume);
    }
    LoadedDriver(const LoadedDriver&) = delete;
    LoadedDriver& operator=(const LoadedDriver&) = delete;

    NTSTATUS status() const { return status_; }
    ntsim::MemoryVolume& volume() { return *volume_; }
    // The driver's instance on C:, or null. It lives as long as the driver is loaded.
    PFLT_INSTANCE Instance() const
    {
        ntsim::UnicodeStringHolder root(std::u16string(kVolume) + u"\\");
        PFLT_INSTANCE instance = nullptr;
        if (!NT_SUCCESS(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &instance))) {
            return nullptr;
        }
        FltObjectDereference(instance);
        return instance;
    }

private:
    std::shared_ptr<ntsim::MemoryVolume> volume_;
    NTSTATUS status_ = STATUS_UNSUCCESSFUL;
    bool loaded_ = false;
};

inline std::string Hex(uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

// Runs the driver's request frame against a scripted service and prints each exchange: a refusal,
// a file with its marker stream, a listing in two requests, and a request the service never
// answers, which times out on the virtual clock.
inline void PrintTransportTranscript(std::ostream& out)
{
    LoadedDriver driver;
    if (!NT_SUCCESS(driver.status())) {
        out << "FolderMerge could not be loaded: " << Hex(static_cast<uint32_t>(driver.status())) << "\n";
        return;
    }
    driver.volume().SeedFile(u"\\Data\\report.txt", "quarterly numbers");
    driver.volume().SeedFile(u"\\Data\\report.txt:{1817910B-C48F-402e-97A7-35511415DB0D}", "");
    PFLT_INSTANCE instance = driver.Instance();
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance,
                                      nullptr, nullptr};
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = instance;

    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .reply = {.status = static_cast<int32_t>(0xC0000034)}});  // not excluded
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                     .reply = {.locked = true, .trackDirtyBlocks = true}});
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE,
                     .reply = {.listingHandle = 0x51, .listingLength = 24}});
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .reply = {.listing = std::vector<uint8_t>(24, 0xEE)}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .action = ResponderAction::NoAnswer});
    if (FAILED(service.Connect())) {
        out << "the service could not connect its Thread port\n";
        return;
    }
    out << "A service connected the Thread port of "
        << ntsim::ToUtf8(std::u16string(reinterpret_cast<const char16_t*>(FOLDERMERGE_PORT_NAME))) << ".\n\n";

    ntsim::UnicodeStringHolder sid(u"S-1-5-21-1004336348-1177238915-682003330-1001");
    ntsim::UnicodeStringHolder path(std::u16string(kVolume) + u"\\Data\\report.txt");
    ntsim::UnicodeStringHolder folder(std::u16string(kVolume) + u"\\Data");
    size_t shown = 0;
    auto showRequests = [&] {
        auto requests = service.Requests();
        for (; shown < requests.size(); shown++) {
            PrintRequest(out, requests[shown]);
        }
    };
    auto show = [&](const char* what, NTSTATUS result, const ServiceRequest& request) {
        out << what << "\n";
        service.WaitForHandled(shown + 1);
        showRequests();
        if (request.bReplyRead) {
            out << "  service -> filter: Status " << Hex(static_cast<uint32_t>(request.pReply->Status)) << ", "
                << request.ulReplyLength << " bytes\n";
        } else {
            out << "  service -> filter: nothing read\n";
        }
        out << "  result " << Hex(static_cast<uint32_t>(result)) << "\n";
        if (request.pMessage->RequestCode != SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) {
            out << "\n";
        }
    };

    ServiceRequest request;
    BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, sid.get(), folder.get(), nullptr);
    FillFileInformationBlock(folder.get(), &objects, &iopb, &request.pMessage->Area.ObjectInformation.Information,
                             &request.pMessage->Area.ObjectInformation.bMarkerStreamPresent);
    NTSTATUS result = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_EXCLUDED_FILE);
    show("Is the folder excluded? (any status but 0 means no)", result, request);
    EndServiceRequest(&request);

    BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, sid.get(), path.get(), nullptr);
    request.pMessage->Area.DownloadIfRequired.CreateOptions = (FILE_OPEN << 24) | FILE_NON_DIRECTORY_FILE;
    request.pMessage->Area.DownloadIfRequired.ShareAccess = FILE_SHARE_READ;
    request.pMessage->Area.DownloadIfRequired.DesiredAccess = FILE_GENERIC_READ;
    FillFileInformationBlock(path.get(), &objects, &iopb, &request.pMessage->Area.DownloadIfRequired.Information,
                             &request.pMessage->Area.DownloadIfRequired.bMarkerStreamPresent);
    result = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED);
    show("Bring the file's content to the disk before the open goes on:", result, request);
    if (request.bReplyRead) {
        const DownloadIfRequiredPayload& flags = request.pReply->Payload.DownloadIfRequired;
        out << "  flags: upload cancelled " << int(flags.bUploadCancelled) << ", locked " << int(flags.bLocked)
            << ", track dirty blocks " << int(flags.bTrackDirtyBlocks) << "\n\n";
    }
    EndServiceRequest(&request);

    BeginServiceRequest(&request, SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, sid.get(), folder.get(), nullptr);
    request.pMessage->Area.DirectoryContentsSize.Filter[0] = u'*';
    request.pMessage->Area.DirectoryContentsSize.FileInformationClass = FileBothDirectoryInformation;
    request.pMessage->Area.DirectoryContentsSize.bWantListingHandle = 1;
    result = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS_SIZE);
    show("How long is the service's listing of the folder?", result, request);
    const uint64_t listingHandle = request.bReplyRead ? request.pReply->ListingHandle : 0;
    const uint32_t listingLength = request.bReplyRead ? request.pReply->Payload.DirectoryContentsSize.ListingLength : 0;
    EndServiceRequest(&request);

    BeginServiceRequest(&request, SERVICE_REQUEST_DIRECTORY_CONTENTS, nullptr, nullptr, nullptr);
    request.pMessage->Identity.Listing.ListingHandle = listingHandle;
    request.pMessage->Identity.Listing.ListingLength = listingLength;
    result = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS(listingLength));
    show("Fetch the listing by its handle:", result, request);
    EndServiceRequest(&request);

    // The service takes this one and never answers: the caller waits its 30 minutes of virtual
    // time and goes on with STATUS_TIMEOUT.
    auto pending = std::async(std::launch::async, [&] {
        ServiceRequest unanswered;
        BeginServiceRequest(&unanswered, SERVICE_REQUEST_OBJECT_IS_LOCKED, sid.get(), path.get(), nullptr);
        const NTSTATUS status = SendServiceRequest(&unanswered, SERVICE_REPLY_LENGTH_OBJECT_IS_LOCKED);
        const UCHAR bReplyRead = unanswered.bReplyRead;
        EndServiceRequest(&unanswered);
        return std::make_pair(status, bReplyRead);
    });
    service.WaitForHandled(shown + 1);
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    auto [timeoutStatus, bReplyRead] = pending.get();
    out << "Tell the service the file is unlocked (it never answers; the clock moves 30 minutes):\n";
    showRequests();
    out << "  service -> filter: " << (bReplyRead ? "a reply" : "nothing read") << "\n  result "
        << Hex(static_cast<uint32_t>(timeoutStatus)) << " (STATUS_TIMEOUT, not an error)\n";
}

}  // namespace requestbench
