// The driver's request frame against the service library's scripted responder.
#include "demo_requests.hpp"

#include "describe.hpp"

#include <foldermerge/service/responder.hpp>
#include <foldermerge/service/transcript.hpp>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/text.hpp>

#include "driver/globals.h"
#include "fileaccess.h"
#include "servicerequests.h"

#include <functional>
#include <future>
#include <utility>

namespace fmsim {

namespace {

using foldermerge::service::PrintRequest;
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

std::string ReplyText(const ServiceRequest& request)
{
    if (!request.bReplyRead) {
        return "nothing read";
    }
    return "Status " + StatusName(request.pReply->Status) + ", " + std::to_string(request.ulReplyLength) + " bytes";
}

}  // namespace

void ShowServiceRequests(std::ostream& out, Expectations& expect, const RequestSubject& subject,
                         const std::function<void()>& afterEach)
{
    ScriptedResponder service;
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .reply = {.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED,
                     .reply = {.locked = true, .trackDirtyBlocks = true}});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_LOCKED, .action = ResponderAction::NoAnswer});
    expect.Line("  ", "a scripted service (the service library's responder) connects the Thread port: ",
                HresultName(service.Connect()), HresultName(S_OK));
    out << "  its rules: exclusion queries answered STATUS_OBJECT_NAME_NOT_FOUND (not excluded); downloads "
           "answered locked, track dirty blocks; lock notices never answered\n";

    PFLT_INSTANCE instance = InstanceOnC();
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance,
                                      nullptr, nullptr};
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = instance;
    ntsim::UnicodeStringHolder sid(subject.sid);
    ntsim::UnicodeStringHolder folder(subject.folderDevicePath);
    ntsim::UnicodeStringHolder file(subject.fileDevicePath);
    const std::string requesterPid = std::to_string(reinterpret_cast<uintptr_t>(subject.requester->Id()));

    size_t shown = 0;
    // Prints what the service received since the last call and checks the newest request.
    auto received = [&](uint32_t code, const std::u16string& path) {
        const auto requests = service.Requests();
        for (; shown < requests.size(); shown++) {
            PrintRequest(out, requests[shown]);
        }
        const bool decoded = !requests.empty() && requests.back().view.has_value();
        const std::string what =
            decoded ? std::to_string(requests.back().view->code) + " " + ntsim::ToUtf8(requests.back().view->path) +
                          " from pid " + std::to_string(requests.back().view->processId)
                    : std::string("nothing decodable");
        expect.Line("    ", "service received: ", what,
                    std::to_string(code) + " " + ntsim::ToUtf8(path) + " from pid " + requesterPid);
        return decoded ? requests.back().view : std::nullopt;
    };

    out << "\n  Is the folder excluded for its user?\n";
    {
        ntsim::AttachThread thread(subject.requester);
        ServiceRequest request;
        BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, sid.get(), folder.get(), nullptr);
        FillFileInformationBlock(folder.get(), &objects, &iopb, &request.pMessage->Area.ObjectInformation.Information,
                                 &request.pMessage->Area.ObjectInformation.bMarkerStreamPresent);
        const NTSTATUS result = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_EXCLUDED_FILE);
        service.WaitForHandled(shown + 1);
        received(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE, subject.folderDevicePath);
        expect.Line("    ", "service -> filter: ", ReplyText(request),
                    "Status STATUS_OBJECT_NAME_NOT_FOUND, " + std::to_string(SERVICE_REPLY_LENGTH_OBJECT_IS_EXCLUDED_FILE) +
                        " bytes");
        expect.Line("    ", "the frame's result (the reply's status): ", StatusName(result),
                    StatusName(STATUS_OBJECT_NAME_NOT_FOUND));
        EndServiceRequest(&request);
    }
    afterEach();

    out << "\n  Bring the file's content to the disk before the open goes on:\n";
    {
        ntsim::AttachThread thread(subject.requester);
        ServiceRequest request;
        BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, sid.get(), file.get(), nullptr);
        request.pMessage->Area.DownloadIfRequired.CreateOptions = (FILE_OPEN << 24) | FILE_NON_DIRECTORY_FILE;
        request.pMessage->Area.DownloadIfRequired.ShareAccess = FILE_SHARE_READ;
        request.pMessage->Area.DownloadIfRequired.DesiredAccess = FILE_GENERIC_READ;
        FillFileInformationBlock(file.get(), &objects, &iopb, &request.pMessage->Area.DownloadIfRequired.Information,
                                 &request.pMessage->Area.DownloadIfRequired.bMarkerStreamPresent);
        const NTSTATUS result = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED);
        service.WaitForHandled(shown + 1);
        const auto view = received(SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, subject.fileDevicePath);
        const bool sized = view && view->information && !view->information->IsUnknown();
        expect.Line("    ", "size on disk in the request: ",
                    sized ? std::to_string(view->information->endOfFile) + " bytes" : std::string("unknown"),
                    std::to_string(subject.fileSize) + " bytes");
        expect.Line("    ", "service -> filter: ", ReplyText(request),
                    "Status STATUS_SUCCESS, " + std::to_string(SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED) +
                        " bytes");
        expect.Line("    ", "the frame's result: ", StatusName(result), StatusName(STATUS_SUCCESS));
        std::string flags = "not read";
        if (request.bReplyRead) {
            const DownloadIfRequiredPayload& payload = request.pReply->Payload.DownloadIfRequired;
            flags = "upload cancelled " + std::to_string(payload.bUploadCancelled) + ", locked " +
                    std::to_string(payload.bLocked) + ", track dirty blocks " +
                    std::to_string(payload.bTrackDirtyBlocks);
        }
        expect.Line("    ", "flags the filter read: ", flags, "upload cancelled 0, locked 1, track dirty blocks 1");
        EndServiceRequest(&request);
    }
    afterEach();

    out << "\n  Tell the service the file is unlocked; it never answers, and the clock moves 30 minutes:\n";
    {
        auto pending = std::async(std::launch::async, [&] {
            ntsim::AttachThread thread(subject.requester);
            ServiceRequest request;
            BeginServiceRequest(&request, SERVICE_REQUEST_OBJECT_IS_LOCKED, sid.get(), file.get(), nullptr);
            const NTSTATUS status = SendServiceRequest(&request, SERVICE_REPLY_LENGTH_OBJECT_IS_LOCKED);
            const std::string reply = ReplyText(request);
            EndServiceRequest(&request);
            return std::make_pair(status, reply);
        });
        const bool taken = service.WaitForHandled(shown + 1);
        ntsim::clock::Advance(30 * ntsim::clock::kMinute);
        const auto [status, reply] = pending.get();
        received(SERVICE_REQUEST_OBJECT_IS_LOCKED, subject.fileDevicePath);
        expect.Line("    ", "the service took it and left it unanswered: ", taken ? "yes" : "no", "yes");
        expect.Line("    ", "service -> filter: ", reply, "nothing read");
        expect.Line("    ", "the frame's result (not an error): ", StatusName(status), StatusName(STATUS_TIMEOUT));
    }
    afterEach();

    if (instance != nullptr) {
        FltObjectDereference(instance);
    }
    service.Disconnect();
}

}  // namespace fmsim
