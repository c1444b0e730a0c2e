// The driver's request routines against the service library's scripted responder.
#include "demo_requests.hpp"

#include "describe.hpp"

#include <foldermerge/service/listing.hpp>
#include <foldermerge/service/responder.hpp>
#include <foldermerge/service/transcript.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/text.hpp>

#include "driver/globals.h"
#include "fileaccess.h"
#include "servicerequests.h"

#include <functional>
#include <future>
#include <optional>
#include <utility>
#include <vector>

namespace fmsim {

namespace {

using foldermerge::service::ListingEntry;
using foldermerge::service::ListingStore;
using foldermerge::service::PrintRequest;
using foldermerge::service::ReplyContent;
using foldermerge::service::RequestView;
using foldermerge::service::ResponderAction;
using foldermerge::service::ScriptedResponder;

// The driver's instance on C:, referenced; null when there is none.
PFLT_INSTANCE InstanceOnC()
{
    ntsim::UnicodeStringHolder name(u"C:");
    PFLT_VOLUME volume = nullptr;
    if (!NT_SUCCESS(FltGetVolumeFromName(g_ServiceData.FilterHandle, name.get(), &volume))) {
        return nullptr;
    }
    PFLT_INSTANCE instance = nullptr;
    if (!NT_SUCCESS(FltGetVolumeInstanceFromName(g_ServiceData.FilterHandle, volume, nullptr, &instance))) {
        instance = nullptr;
    }
    FltObjectDereference(volume);
    return instance;
}

std::string Flag(UCHAR flag)
{
    return std::to_string(flag);
}

// The service's side of the scene: what it holds for the user's folder and how it answers.
class DemoService {
public:
    explicit DemoService(std::u16string dummyFile) : dummyFile_(std::move(dummyFile))
    {
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                          .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                          .reply = {.locked = true, .trackDirtyBlocks = true}});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_SIGNATURE, .reply = {.signatureName = u"sig-7f3a"}});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES,
                          .reply = {.reparse = true, .redirected = true, .name = dummyFile_}});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_EXISTS, .reply = {.exists = true}});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_READ_ONLY, .reply = {.readOnly = false}});
        service_.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE,
                          .answer = [this](const RequestView& request) { return ListingSize(request); }});
        service_.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS,
                          .answer = [this](const RequestView& request) { return Listing(request); }});
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .action = ResponderAction::NoAnswer});
    }

    ScriptedResponder& responder() { return service_; }

    // What the service holds in the folder, beyond what lies on the disk.
    static std::vector<ListingEntry> Entries()
    {
        return {
            {.name = u"budget.xlsx", .endOfFile = 48213, .allocationSize = 49152, .fileAttributes = 0x20},
            {.name = u"minutes.txt", .endOfFile = 5120, .allocationSize = 8192, .fileAttributes = 0x20},
            {.name = u"photo.jpg", .endOfFile = 2048000, .allocationSize = 2048000, .fileAttributes = 0x20},
        };
    }

private:
    ReplyContent ListingSize(const RequestView& request)
    {
        auto listing = foldermerge::service::EncodeListing(
            request.fileInformationClass, foldermerge::service::SelectEntries(request.filter, Entries()));
        if (!listing) {
            return {.status = static_cast<int32_t>(STATUS_INVALID_INFO_CLASS)};
        }
        const auto length = static_cast<uint32_t>(listing->size());
        // A listing for the delete test, which wants no handle, is never fetched: it isn't held.
        const uint64_t handle = request.wantListingHandle ? listings_.Hold(std::move(*listing)) : 0;
        return {.listingHandle = handle, .listingLength = length};
    }

    ReplyContent Listing(const RequestView& request)
    {
        std::optional<std::vector<uint8_t>> listing = listings_.Take(request.listingHandle);
        if (!listing) {
            return {.status = static_cast<int32_t>(STATUS_INVALID_PARAMETER)};
        }
        return {.listing = std::move(*listing)};
    }

    const std::u16string dummyFile_;
    ListingStore listings_;
    ScriptedResponder service_;
};

}  // namespace

void ShowServiceRequests(std::ostream& out, Expectations& expect, const RequestSubject& subject,
                         const std::function<void()>& afterEach)
{
    const std::u16string dummyFile = subject.folderDevicePath + u"\\.velmora\\redirected\\" +
                                     std::u16string(100, u'0') + u"\\vm_redirected_a2210125-0016-41ce-b6e7-495eee531977";
    DemoService demo(dummyFile);
    ScriptedResponder& service = demo.responder();
    expect.Line("  ", "a scripted service (the service library's responder) connects the Thread port: ",
                HresultName(service.Connect()), HresultName(S_OK));
    out << "  it holds three files of the folder that aren't on the disk, and answers: not excluded; downloads\n"
           "  locked, track dirty blocks; signature sig-7f3a; attribute-only opens redirected to a dummy file;\n"
           "  the file exists and isn't read-only; lock notices never\n";

    PFLT_INSTANCE instance = InstanceOnC();
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance,
                                      nullptr, nullptr};
    IO_SECURITY_CONTEXT security{};
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.MajorFunction = IRP_MJ_CREATE;
    iopb.TargetInstance = instance;
    iopb.Parameters.Create.SecurityContext = &security;
    ntsim::UnicodeStringHolder sid(subject.sid);
    ntsim::UnicodeStringHolder folder(subject.folderDevicePath);
    ntsim::UnicodeStringHolder file(subject.fileDevicePath);
    const std::string requesterPid = std::to_string(reinterpret_cast<uintptr_t>(subject.requester->Id()));

    size_t shown = 0;
    // Prints what the service received since the last call, and checks the codes and the path and
    // process of the first.
    auto received = [&](std::vector<uint32_t> codes, const std::u16string& path) {
        service.WaitForHandled(shown + codes.size());
        const auto requests = service.Requests();
        const size_t first = shown;
        std::string what, due;
        for (uint32_t code : codes) {
            due += std::to_string(code) + " ";
        }
        for (; shown < requests.size(); shown++) {
            PrintRequest(out, requests[shown]);
            const auto& view = requests[shown].view;
            what += view ? std::to_string(view->code) + " " : std::string("? ");
        }
        expect.Line("    ", "codes received: ", what, due);
        const bool decoded = first < requests.size() && requests[first].view.has_value();
        expect.Line("    ", "about: ",
                    decoded ? ntsim::ToUtf8(requests[first].view->path) + " from pid " +
                                  std::to_string(requests[first].view->processId)
                            : std::string("nothing decodable"),
                    ntsim::ToUtf8(path) + " from pid " + requesterPid);
    };
    auto inRequester = [&](const std::function<void()>& body) {
        ntsim::AttachThread thread(subject.requester);
        body();
    };

    out << "\n  Is the folder excluded for its user? (ServiceRequest_ObjectIsExcludedFile)\n";
    inRequester([&] {
        const NTSTATUS result = ServiceRequest_ObjectIsExcludedFile(sid.get(), folder.get(), &objects, &iopb);
        received({SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE}, subject.folderDevicePath);
        expect.Line("    ", "result (any status but 0: not excluded): ", StatusName(result),
                    StatusName(STATUS_OBJECT_NAME_NOT_FOUND));
    });
    afterEach();

    out << "\n  An open for writing: bring the content to the disk, then ask for a signature\n"
           "  (ServiceRequest_ObjectDownloadIfRequired, ServiceRequest_ObjectSignature)\n";
    inRequester([&] {
        iopb.Parameters.Create.Options = (FILE_OPEN << 24) | FILE_NON_DIRECTORY_FILE;
        iopb.Parameters.Create.ShareAccess = FILE_SHARE_READ;
        security.DesiredAccess = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
        FILE_BASIC_INFORMATION basic;
        FILE_STANDARD_INFORMATION standard;
        UCHAR bMarker = 0;
        (VOID) GetFileInformation(file.get(), g_ServiceData.FilterHandle, instance, &basic, &standard, &bMarker);
        UCHAR bUploadCancelled = 0, bLocked = 0, bTrackDirtyBlocks = 0;
        const NTSTATUS downloaded = ServiceRequest_ObjectDownloadIfRequired(
            sid.get(), file.get(), &basic, &standard, bMarker, &bUploadCancelled, &bLocked, &objects, &iopb,
            &bTrackDirtyBlocks, nullptr);
        OwnedString* signature = CreateUnicodeString(POOL_SELECTOR_NONPAGED, 522);
        const NTSTATUS signed_ = signature != nullptr
                                     ? ServiceRequest_ObjectSignature(sid.get(), file.get(), signature, &objects, &iopb)
                                     : STATUS_INSUFFICIENT_RESOURCES;
        received({SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, SERVICE_REQUEST_OBJECT_SIGNATURE},
                 subject.fileDevicePath);
        const auto requests = service.Requests();
        const auto& download = requests[requests.size() - 2].view;
        expect.Line("    ", "size on disk in the download request: ",
                    download && download->information ? std::to_string(download->information->endOfFile) + " bytes"
                                                      : std::string("unknown"),
                    std::to_string(subject.fileSize) + " bytes");
        expect.Line("    ", "download: ", StatusName(downloaded), StatusName(STATUS_SUCCESS));
        expect.Line("    ", "flags taken: ",
                    "upload cancelled " + Flag(bUploadCancelled) + ", locked " + Flag(bLocked) +
                        ", track dirty blocks " + Flag(bTrackDirtyBlocks),
                    "upload cancelled 0, locked 1, track dirty blocks 1");
        expect.Line("    ", "signature: ",
                    StatusName(signed_) + ", name " + (signature != nullptr ? ntsim::ToUtf8(*signature) : ""),
                    StatusName(STATUS_SUCCESS) + ", name sig-7f3a");
        if (signature != nullptr) {
            FreeBuffer(signature);
        }
    });
    afterEach();

    out << "\n  An open for attributes only: where to? (ServiceRequest_ObjectRedirectAttributes)\n"
           "  the service's name is longer than the 260 bytes the first reply has room for: it is asked again\n";
    inRequester([&] {
        OwnedString* redirectPath = nullptr;
        UCHAR bRedirected = 1, bReparse = 1;
        const NTSTATUS result = ServiceRequest_ObjectRedirectAttributes(sid.get(), file.get(), &objects, &iopb,
                                                                        &redirectPath, &bRedirected, &bReparse);
        received({SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES, SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES},
                 subject.fileDevicePath);
        const auto requests = service.Requests();
        std::string capacities;
        for (size_t index = requests.size() - 2; index < requests.size(); index++) {
            capacities += index + 2 == requests.size() ? "" : ", ";
            capacities += std::to_string(requests[index].view ? requests[index].view->replyNameCapacity : 0);
        }
        expect.Line("    ", "room for the name, bytes: ", capacities,
                    "260, " + std::to_string(dummyFile.size() * 2));
        expect.Line("    ", "result: ", StatusName(result) + ", redirected " + Flag(bRedirected) + ", reparse " +
                                           Flag(bReparse),
                    StatusName(STATUS_SUCCESS) + ", redirected 1, reparse 1");
        expect.Line("    ", "name taken: ", redirectPath != nullptr ? ntsim::ToUtf8(*redirectPath) : "none",
                    ntsim::ToUtf8(dummyFile));
        if (redirectPath != nullptr) {
            FreeBuffer(redirectPath);
        }
    });
    afterEach();

    out << "\n  A rename to a managed destination: read-only? does it exist?\n"
           "  (ServiceRequest_ObjectIsReadOnly, ServiceRequest_ObjectExists)\n";
    inRequester([&] {
        UCHAR bReadOnly = 1, bExists = 0, bSecondFlag = 0;
        const NTSTATUS readOnly = ServiceRequest_ObjectIsReadOnly(sid.get(), file.get(), &bReadOnly);
        const NTSTATUS exists =
            ServiceRequest_ObjectExists(sid.get(), file.get(), &objects, &iopb, &bExists, &bSecondFlag);
        received({SERVICE_REQUEST_OBJECT_IS_READ_ONLY, SERVICE_REQUEST_OBJECT_EXISTS}, subject.fileDevicePath);
        expect.Line("    ", "read-only: ", StatusName(readOnly) + ", " + Flag(bReadOnly),
                    StatusName(STATUS_SUCCESS) + ", 0");
        expect.Line("    ", "exists: ", StatusName(exists) + ", " + Flag(bExists), StatusName(STATUS_SUCCESS) + ", 1");
    });
    afterEach();

    out << "\n  A listing of the folder: its length and handle, then its bytes\n"
           "  (ServiceRequest_DirectoryContentsSize with *.txt in FileBothDirectoryInformation, "
           "ServiceRequest_DirectoryContents)\n";
    inRequester([&] {
        ntsim::UnicodeStringHolder pattern(u"*.txt");
        ULONG ulLength = 0;
        ULONGLONG ullHandle = 0;
        const NTSTATUS sized = ServiceRequest_DirectoryContentsSize(sid.get(), folder.get(), pattern.get(),
                                                                    FileBothDirectoryInformation, &ulLength,
                                                                    &ullHandle, 0);
        std::vector<uint8_t> block(ulLength);
        const NTSTATUS fetched = ulLength != 0 ? ServiceRequest_DirectoryContents(ullHandle, block.data(), ulLength)
                                               : STATUS_NO_MORE_FILES;
        received({SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, SERVICE_REQUEST_DIRECTORY_CONTENTS},
                 subject.folderDevicePath);
        expect.Line("    ", "size: ", StatusName(sized) + ", " + std::to_string(ulLength) + " bytes",
                    StatusName(STATUS_SUCCESS) + ", 120 bytes");
        std::string names;
        if (auto entries = foldermerge::service::DecodeListing(FileBothDirectoryInformation, block)) {
            for (const ListingEntry& entry : *entries) {
                names += names.empty() ? "" : ", ";
                names += ntsim::ToUtf8(entry.name);
            }
        }
        expect.Line("    ", "fetched: ", StatusName(fetched) + ", " + names,
                    StatusName(STATUS_SUCCESS) + ", minutes.txt");
    });
    afterEach();

    out << "\n  Tell the service the file is unlocked (ServiceRequest_ObjectIsLocked); it never answers,\n"
           "  and the clock moves 30 minutes:\n";
    {
        auto pending = std::async(std::launch::async, [&] {
            ntsim::AttachThread thread(subject.requester);
            return ServiceRequest_ObjectIsLocked(sid.get(), file.get());
        });
        const bool taken = service.WaitForHandled(shown + 1);
        ntsim::clock::Advance(30 * ntsim::clock::kMinute);
        const NTSTATUS status = pending.get();
        received({SERVICE_REQUEST_OBJECT_IS_LOCKED}, subject.fileDevicePath);
        expect.Line("    ", "the service took it and left it unanswered: ", taken ? "yes" : "no", "yes");
        expect.Line("    ", "result (not an error): ", StatusName(status), StatusName(STATUS_TIMEOUT));
    }
    afterEach();

    if (instance != nullptr) {
        FltObjectDereference(instance);
    }
    service.Disconnect();
}

}  // namespace fmsim
