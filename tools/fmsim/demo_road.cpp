// The road of one open, told from both ends of the Thread port.
#include "demo_road.hpp"

#include "describe.hpp"

#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/text.hpp>

#include "context.h"
#include "dirtyblocktracking.h"
#include "servicerequests.h"

#include <cstring>
#include <mutex>
#include <string_view>
#include <vector>

namespace fmsim {

namespace {

using foldermerge::service::ReplyContent;
using foldermerge::service::RequestName;
using foldermerge::service::RequestView;
using foldermerge::service::ScriptedResponder;

constexpr size_t kCallerColumn = 58;
constexpr char kWritten[] = "alice's new plan";

// The two columns of the scene, filled from the caller's thread and the service's workers; the
// caller waits for each reply, so the order of the lines is the order of events.
class TwoColumns {
public:
    void Caller(std::string text)
    {
        std::lock_guard lock(mutex_);
        lines_.push_back("  " + std::move(text));
    }

    void Service(const std::string& text)
    {
        std::lock_guard lock(mutex_);
        lines_.push_back(std::string(kCallerColumn, ' ') + text);
    }

    void Received(uint32_t code)
    {
        std::lock_guard lock(mutex_);
        if (!codes_.empty()) {
            codes_ += ' ';
        }
        codes_ += std::to_string(code);
    }

    // Marks the point between the open and the cleanup in the codes received.
    void Mark(std::string_view mark)
    {
        std::lock_guard lock(mutex_);
        codes_ += " " + std::string(mark);
    }

    std::string codes() const
    {
        std::lock_guard lock(mutex_);
        return codes_;
    }

    void Print(std::ostream& out) const
    {
        std::lock_guard lock(mutex_);
        for (const std::string& line : lines_) {
            out << line << "\n";
        }
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::string codes_;
};

std::string ReplyText(const ReplyContent& reply, uint32_t code)
{
    std::string text = StatusName(static_cast<NTSTATUS>(reply.status));
    if (code == SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) {
        text += std::string(", locked ") + (reply.locked ? "1" : "0") + ", track dirty blocks " +
                (reply.trackDirtyBlocks ? "1" : "0") + ", upload cancelled " + (reply.uploadCancelled ? "1" : "0");
    } else if (code == SERVICE_REQUEST_OBJECT_SIGNATURE) {
        text += ", name " + ntsim::ToUtf8(reply.signatureName);
    } else if (code == SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE) {
        text += " (not excluded)";
    }
    return text;
}

std::string RequestText(const RequestView& request)
{
    std::string text = "<- " + std::string(RequestName(request.code));
    if (request.code == SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) {
        text += " (share " + Hex(request.shareAccess) + ", access " + Hex(request.desiredAccess) + ", " +
                DispositionName(request.createOptions >> 24) + ")";
    } else if (request.code == SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED) {
        text += " (signature " + ntsim::ToUtf8(request.secondString) + ")";
    }
    return text;
}

// The file object's record while the handle is open, in words.
std::string RecordText(HANDLE handle)
{
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(handle);
    if (fileObject == nullptr) {
        return "no file object";
    }
    const FileContext* record = FindContextByFileObject(fileObject, FALSE);
    ObDereferenceObject(fileObject);
    if (record == nullptr) {
        return "none";
    }
    std::string onClose;
    if ((record->OnClose & ON_CLOSE_UPLOAD) != 0) {
        onClose = "upload";
    }
    return std::string("locked ") + std::to_string(record->bLocked) + ", at cleanup: " +
           (onClose.empty() ? "nothing" : onClose) + ", signature " +
           (record->bSignatureRequired ? ntsim::ToUtf8(*record->pstrSignatureName) : std::string("none")) +
           ", dirty block record " + (record->pTrackedDirtyBlockFile != nullptr ? "held" : "none");
}

}  // namespace

void ShowRoadOfOneOpen(std::ostream& out, Expectations& expect, const RoadSubject& subject)
{
    TwoColumns columns;
    ScriptedResponder service;
    auto answer = [&columns](ReplyContent reply) {
        return [&columns, reply](const RequestView& request) {
            columns.Received(request.code);
            columns.Service(RequestText(request));
            columns.Service("   " + ntsim::ToUtf8(request.path));
            columns.Service("-> " + ReplyText(reply, request.code));
            return reply;
        };
    };
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                     .answer = answer({.status = static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)})});
    service.AddRule(
        {.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, .answer = answer({.locked = true, .trackDirtyBlocks = true})});
    service.AddRule({.code = SERVICE_REQUEST_OBJECT_SIGNATURE, .answer = answer({.signatureName = u"sig-7f3a"})});
    service.AddRule({.answer = answer({})});
    expect.Line("  ", "a scripted service connects the Thread port: ", HresultName(service.Connect()),
                HresultName(S_OK));
    out << "  it answers: not excluded; downloads locked, track dirty blocks; signature sig-7f3a; the rest\n"
           "  STATUS_SUCCESS\n\n";

    const std::u16string ntPath = u"\\??\\C:" + subject.volumePath;
    columns.Caller(subject.userName + " (" + ntsim::ToUtf8(subject.user->ImageFileName().substr(
                                                 subject.user->ImageFileName().rfind(u'\\') + 1)) +
                   ")");
    columns.Service("the service");
    std::string opened, written, closed, record;
    {
        ntsim::AttachThread thread(subject.user);
        ntsim::UnicodeStringHolder name(ntPath);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK ioStatus{};
        HANDLE handle = nullptr;
        columns.Caller("NtCreateFile " + ntsim::ToUtf8(ntPath));
        columns.Caller("  for writing, sharing reads, FILE_OVERWRITE_IF");
        NTSTATUS status = NtCreateFile(&handle, FILE_GENERIC_WRITE, &attributes, &ioStatus, nullptr, 0, FILE_SHARE_READ,
                                       FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
        opened = StatusName(status) + (NT_SUCCESS(status) ? ", " + CreateResultName(ioStatus.Information) : "");
        columns.Caller("= " + opened);
        if (NT_SUCCESS(status)) {
            record = RecordText(handle);
            columns.Caller("  the file object's record: " + record);
            char text[sizeof(kWritten)];
            std::memcpy(text, kWritten, sizeof(text));
            LARGE_INTEGER offset{};
            columns.Caller("NtWriteFile " + std::to_string(std::strlen(kWritten)) + " bytes at 0");
            status = NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, text,
                                 static_cast<ULONG>(std::strlen(kWritten)), &offset, nullptr);
            written = StatusName(status) + ", " + std::to_string(ioStatus.Information) + " bytes";
            columns.Caller("= " + written);
            columns.Mark("|");
            columns.Caller("NtClose: the last handle (cleanup) and reference (close)");
            closed = StatusName(NtClose(handle));
            columns.Caller("= " + closed);
        }
    }
    service.Disconnect();
    columns.Print(out);

    out << "\n";
    expect.Line("  ", "caller: open ", opened, StatusName(STATUS_SUCCESS) + ", " + CreateResultName(FILE_OVERWRITTEN));
    expect.Line("  ", "        write ", written,
                StatusName(STATUS_SUCCESS) + ", " + std::to_string(std::strlen(kWritten)) + " bytes");
    expect.Line("  ", "        close ", closed, StatusName(STATUS_SUCCESS));
    expect.Line("  ", "record while open: ", record,
                "locked 1, at cleanup: upload, signature sig-7f3a, dirty block record held");
    expect.Line("  ", "codes received (open | cleanup): ", columns.codes(),
                std::to_string(SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED) + " " +
                    std::to_string(SERVICE_REQUEST_OBJECT_SIGNATURE) + " " +
                    std::to_string(SERVICE_REQUEST_OBJECT_CHANGED) + " " +
                    std::to_string(SERVICE_REQUEST_OBJECT_WRITE_NOTIFY) + " | " +
                    std::to_string(SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED) + " " +
                    std::to_string(SERVICE_REQUEST_OBJECT_IS_LOCKED));
    expect.Line("  ", "file contexts left: ", g_ContextList == nullptr ? "none" : "some", "none");
    expect.Line("  ", "dirty block records left: ", g_DirtyBlockFileList == nullptr ? "none" : "some", "none");
    const std::u16string stream =
        subject.volumePath + u":" + std::u16string(reinterpret_cast<const char16_t*>(DIRTY_BLOCK_STREAM_NAME));
    expect.Line("  ", "block map stream: ", subject.volume->Exists(stream) ? "on the disk" : "missing", "on the disk");
    expect.Line("  ", "the file holds: ", subject.volume->Content(subject.volumePath).value_or("nothing"), kWritten);
}

}  // namespace fmsim
