// The driver's taking of service replies, fed arbitrary bytes: FolderMerge loaded on ntsim, a
// scripted service on its Thread port that answers each request with the next reply of the input,
// and each request routine in turn.
//
// An input is a selector byte that picks the routine, a 16-bit little-endian length less one for the
// listing fetch (1 to 65536 bytes), then replies: each a 16-bit little-endian length and that many
// bytes (cut to what is left). The replies go to the routine's requests in order: the redirect
// request asks again for each reply that reports a longer name, so growth and its end are reached;
// a request beyond the last reply gets an empty one. A reply may be shorter or longer than the
// filter's buffer, and its Status and payload anything.
//
// After each call: the pool of the filter's tag is what it was at rest (a leak is a POOL_LEAK
// bugcheck), a handed-out redirect name is an even counted string with its zero character, a
// signature name fits the caller's buffer, and the outs of the download and size requests are
// untouched unless the request succeeded. The filter loads once per process (loaded_filter.hpp).
#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/text.hpp>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "driver/globals.h"
#include "driver/mergefolders.h"
#include "loaded_filter.hpp"
#include "servicerequests.h"

namespace foldermerge::fuzzing {
namespace {

using foldermerge::service::RequestView;
using foldermerge::service::ScriptedResponder;

// The replies of the input being run, handed out one per request.
std::mutex g_repliesLock;
std::deque<std::vector<uint8_t>> g_replies;

std::vector<uint8_t> NextReply(const RequestView&)
{
    std::lock_guard lock(g_repliesLock);
    if (g_replies.empty()) {
        return {};
    }
    std::vector<uint8_t> reply = std::move(g_replies.front());
    g_replies.pop_front();
    return reply;
}

// The answering service and the pool at rest, made once with the loaded filter.
struct Rig {
    std::unique_ptr<ScriptedResponder> service;
    std::unique_ptr<PoolAtRest> rest;
};

Rig& RigOnce()
{
    static Rig& rig = *new Rig;  // still there when the exit handler runs
    if (rig.service != nullptr) {
        return rig;
    }
    LoadFilterOnce()->SeedFile(u"\\Data\\report.txt", "quarterly numbers");
    rig.service = std::make_unique<ScriptedResponder>(ScriptedResponder::Options{.record = false});
    rig.service->AddRule({.answerBytes = NextReply});
    if (FAILED(rig.service->Connect())) {
        Fail("the service could not connect its Thread port");
    }
    rig.rest = std::make_unique<PoolAtRest>();
    // The service goes before the unload; RigOnce isn't asked again after that.
    BeforeUnload([] { RigOnce().service.reset(); });
    return rig;
}

// The driver's instance on C:; it lives as long as the driver is attached.
PFLT_INSTANCE InstanceOnC()
{
    ntsim::UnicodeStringHolder root(u"\\Device\\HarddiskVolume2\\");
    PFLT_INSTANCE instance = nullptr;
    if (!NT_SUCCESS(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &instance))) {
        return nullptr;
    }
    FltObjectDereference(instance);
    return instance;
}

// Reads the input's replies into g_replies, after the bytes the selector took.
void QueueReplies(const uint8_t* data, size_t size)
{
    std::lock_guard lock(g_repliesLock);
    g_replies.clear();
    size_t at = 0;
    while (at + 2 <= size) {
        size_t length = data[at] | (size_t(data[at + 1]) << 8);
        at += 2;
        length = std::min(length, size - at);
        g_replies.emplace_back(data + at, data + at + length);
        at += length;
    }
}

void CheckRedirectName(OwnedString* name)
{
    if (name == nullptr) {
        return;
    }
    if ((name->Length & 1) != 0 || name->Length > SERVICE_REDIRECT_NAME_MAX_BYTES ||
        name->MaximumLength != name->Length + 2 || name->Buffer[name->Length / 2] != 0) {
        Fail("a redirect name that is no even, zero-terminated counted string");
    }
    FreeBuffer(name);
}

// Runs one routine, chosen by selector, with sentinel outs.
void RunRoutine(uint8_t selector, uint32_t listingLength, PFLT_INSTANCE instance)
{
    ntsim::UnicodeStringHolder sid(u"S-1-5-21-1004336348-1177238915-682003330-1001");
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\report.txt");
    ntsim::UnicodeStringHolder pattern(u"*.txt");
    const FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance,
                                      nullptr, nullptr};
    FILE_OBJECT fileObject{};
    IO_SECURITY_CONTEXT security{};
    security.DesiredAccess = FILE_GENERIC_WRITE;
    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.TargetInstance = instance;
    iopb.TargetFileObject = &fileObject;
    iopb.Parameters.Create.SecurityContext = &security;
    const UCHAR kUntouched = 0xA5;
    UCHAR flags[3] = {kUntouched, kUntouched, kUntouched};

    // Any status may come back: the service's Status is the result of most codes, STATUS_TIMEOUT
    // and STATUS_PENDING included. Only the download and the size request are held to their outs.
    switch (selector % 18) {
    case 0:
        ServiceRequest_ObjectExists(sid.get(), path.get(), &objects, &iopb, &flags[0], &flags[1]);
        break;
    case 1:
        ServiceRequest_ObjectRenameFromManaged(sid.get(), path.get(), 1, &objects, &iopb);
        break;
    case 2: {
        const NTSTATUS status = ServiceRequest_ObjectDownloadIfRequired(
            sid.get(), path.get(), nullptr, nullptr, 1, &flags[0], &flags[1], &objects, &iopb, &flags[2], nullptr);
        if (!NT_SUCCESS(status) && (flags[0] != kUntouched || flags[1] != kUntouched || flags[2] != kUntouched)) {
            Fail("download flags written by a request that failed");
        }
        break;
    }
    case 3:
        ServiceRequest_ObjectUploadIfRequired(sid.get(), path.get(), pattern.get(), &iopb, &objects);
        break;
    case 4: {
        ULONG length = 0xA5A5A5A5;
        ULONGLONG handle = 0xA5A5A5A5A5A5A5A5ull;
        const NTSTATUS status =
            ServiceRequest_DirectoryContentsSize(sid.get(), path.get(), pattern.get(), 37, &length, &handle, 1);
        if (!NT_SUCCESS(status) && (length != 0xA5A5A5A5 || handle != 0xA5A5A5A5A5A5A5A5ull)) {
            Fail("listing length or handle written by a request that failed");
        }
        break;
    }
    case 5: {
        std::vector<uint8_t> listing(listingLength, 0xA5);
        ServiceRequest_DirectoryContents(0x51, listing.data(), listingLength);
        break;
    }
    case 6:
        ServiceRequest_ObjectDeleted(sid.get(), path.get());
        break;
    case 7:
        ServiceRequest_ObjectRename(sid.get(), path.get(), pattern.get(), &objects, &iopb);
        break;
    case 8: {
        OwnedString* name = CreateUnicodeString(POOL_SELECTOR_NONPAGED, 522);
        if (name != nullptr) {
            ServiceRequest_ObjectSignature(sid.get(), path.get(), name, &objects, &iopb);
            if ((name->Length & 1) != 0 || name->Length > 520) {
                Fail("a signature name longer than 260 characters or of odd length");
            }
            FreeBuffer(name);
        }
        break;
    }
    case 9: {
        FILE_BASIC_INFORMATION basic;
        FILE_STANDARD_INFORMATION standard;
        ServiceRequest_ObjectInformation(sid.get(), path.get(), &objects, &iopb, &basic, &standard);
        break;
    }
    case 10:
        ServiceRequest_ObjectIsExcludedFile(sid.get(), path.get(), &objects, &iopb);
        break;
    case 11:
        ServiceRequest_ObjectCancelUpload(sid.get(), path.get(), &objects, &iopb);
        break;
    case 12: {
        OwnedString* name = nullptr;
        ServiceRequest_ObjectRedirectAttributes(sid.get(), path.get(), &objects, &iopb, &name, &flags[0], &flags[1]);
        CheckRedirectName(name);
        break;
    }
    case 13:
        ServiceRequest_ObjectWriteNotify(sid.get(), path.get());
        break;
    case 14:
        ServiceRequest_ObjectIsReadOnly(sid.get(), path.get(), &flags[0]);
        break;
    case 15:
        ServiceRequest_ObjectChanged(sid.get(), path.get(), &objects, &iopb, 1);
        break;
    case 16:
        ServiceRequest_ObjectIsLocked(sid.get(), path.get());
        break;
    default:
        ServiceRequest_ObjectRenameToManaged(sid.get(), path.get(), &objects, &iopb);
        break;
    }
}

}  // namespace
}  // namespace foldermerge::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace foldermerge::fuzzing;
    Rig& rig = RigOnce();
    if (size < 3) {
        return 0;
    }
    // A listing of 1 to 65536 bytes for the fetch.
    const uint32_t listingLength = (data[1] | (uint32_t(data[2]) << 8)) + 1u;
    QueueReplies(data + 3, size - 3);
    RunRoutine(data[0], listingLength, InstanceOnC());
    rig.rest->Verify("after a service reply input");
    return 0;
}
