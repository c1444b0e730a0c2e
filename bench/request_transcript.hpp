// FolderMerge loaded over a C: volume for the request benchmark, and a short run that prints what
// crosses the Thread port: the driver's requests as the service decodes them (the service
// library's PrintRequest) and what each request routine made of the reply.
// For a reader who wants to see the wire.
#pragma once

#include <foldermerge/service/listing.hpp>
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
#include <vector>

namespace requestbench {

using foldermerge::service::ListingEntry;
using foldermerge::service::ListingStore;
using foldermerge::service::PrintRequest;
using foldermerge::service::ReplyContent;
using foldermerge::service::RequestView;
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

// Runs the driver's request routines against a scripted service and prints each exchange: an
// exclusion query the service refuses, a download of a file with its marker stream, a listing in two
// requests built from the service's entries, and a lock notice the service never answers, which
// times out on the virtual clock.
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
    IO_SECURITY_CONTEXT security{};
    security.DesiredAccess = FILE_GENERIC_READ;
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = instance;
    iopb.Parameters.Create.Options = (FILE_OPEN << 24) | FILE_NON_DIRECTORY_FILE;
    iopb.Parameters.Create.ShareAccess = FILE_SHARE_READ;
    iopb.Parameters.Create.SecurityContext = &security;

    const std::vector<ListingEntry> entries = {{.name = u"draft.txt", .endOfFile = 120, .fileAttributes = 0x20},
                                               {.name = u"archive.zip", .endOfFile = 9000, .fileAttributes = 0x20}};
    ListingStore listings;
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .reply = {.status = static_cast<int32_t>(0xC0000034)}});  // not excluded
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                     .reply = {.locked = true, .trackDirtyBlocks = true}});
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, .answer = [&](const RequestView& request) {
                         auto listing = foldermerge::service::EncodeListing(
                             request.fileInformationClass, foldermerge::service::SelectEntries(request.filter, entries));
                         const auto length = static_cast<uint32_t>(listing ? listing->size() : 0);
                         return ReplyContent{.listingHandle = listing ? listings.Hold(std::move(*listing)) : 0,
                                             .listingLength = length};
                     }});
    service.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .answer = [&](const RequestView& request) {
                         return ReplyContent{.listing = listings.Take(request.listingHandle).value_or(
                                                 std::vector<uint8_t>{})};
                     }});
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
    // Prints the requests the service received since the last call, then what the routine gave.
    auto show = [&](const char* what, size_t requests, NTSTATUS result, const std::string& taken) {
        out << what << "\n";
        service.WaitForHandled(shown + requests);
        const auto recorded = service.Requests();
        for (; shown < recorded.size(); shown++) {
            PrintRequest(out, recorded[shown]);
        }
        out << "  result " << Hex(static_cast<uint32_t>(result)) << (taken.empty() ? "" : ", ") << taken << "\n\n";
    };

    NTSTATUS result = ServiceRequest_ObjectIsExcludedFile(sid.get(), folder.get(), &objects, &iopb);
    show("Is the folder excluded? (any status but 0 means no)", 1, result, "");

    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    UCHAR bMarker = 0;
    (VOID) GetFileInformation(path.get(), g_ServiceData.FilterHandle, instance, &basic, &standard, &bMarker);
    UCHAR bUploadCancelled = 0, bLocked = 0, bTrackDirtyBlocks = 0;
    result = ServiceRequest_ObjectDownloadIfRequired(sid.get(), path.get(), &basic, &standard, bMarker,
                                                     &bUploadCancelled, &bLocked, &objects, &iopb,
                                                     &bTrackDirtyBlocks, nullptr);
    show("Bring the file's content to the disk before the open goes on:", 1, result,
         "flags: upload cancelled " + std::to_string(bUploadCancelled) + ", locked " + std::to_string(bLocked) +
             ", track dirty blocks " + std::to_string(bTrackDirtyBlocks));

    ntsim::UnicodeStringHolder pattern(u"*.txt");
    ULONG ulLength = 0;
    ULONGLONG ullHandle = 0;
    result = ServiceRequest_DirectoryContentsSize(sid.get(), folder.get(), pattern.get(), FileBothDirectoryInformation,
                                                  &ulLength, &ullHandle, 0);
    show("How long is the service's listing of the folder?", 1, result,
         std::to_string(ulLength) + " bytes, handle " + Hex(ullHandle));
    std::vector<uint8_t> block(ulLength);
    result = ulLength != 0 ? ServiceRequest_DirectoryContents(ullHandle, block.data(), ulLength) : 0;
    std::string names;
    for (const ListingEntry& entry :
         foldermerge::service::DecodeListing(FileBothDirectoryInformation, block).value_or(std::vector<ListingEntry>{})) {
        names += names.empty() ? "" : " ";
        names += ntsim::ToUtf8(entry.name);
    }
    show("Fetch the listing by its handle:", 1, result, "records: " + names);

    // The service takes this one and never answers: the caller waits its 30 minutes of virtual
    // time and goes on with STATUS_TIMEOUT.
    auto pending = std::async(std::launch::async, [&] { return ServiceRequest_ObjectIsLocked(sid.get(), path.get()); });
    service.WaitForHandled(shown + 1);
    ntsim::clock::Advance(30 * ntsim::clock::kMinute);
    const NTSTATUS timeoutStatus = pending.get();
    show("Tell the service the file is unlocked (it never answers; the clock moves 30 minutes):", 0, timeoutStatus,
         "STATUS_TIMEOUT, not an error");
}

}  // namespace requestbench
