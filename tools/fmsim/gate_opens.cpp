// Opens of simulated callers and the reading of the gate's verdict.
#include "gate_opens.hpp"

#include <ntsim/sim/text.hpp>

#include <algorithm>

namespace fmsim::gate {

namespace {

bool AnyContains(const std::vector<std::string>& lines, std::string_view text)
{
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

}  // namespace

OpenResult Open(const Caller& caller, const OpenRequest& request, HANDLE* handle)
{
    ntsim::AttachThread thread(caller.process, {.previousMode = caller.mode});
    ntsim::UnicodeStringHolder name(request.path);
    const bool kernel = caller.mode == KernelMode;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | (kernel ? OBJ_KERNEL_HANDLE : 0),
                               nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    *handle = nullptr;
    const ULONG options = request.createOptions | FILE_SYNCHRONOUS_IO_NONALERT;
    NTSTATUS status =
        kernel ? ZwCreateFile(handle, request.access | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0, request.share,
                              FILE_OPEN, options, nullptr, 0)
               : NtCreateFile(handle, request.access | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0, request.share,
                              FILE_OPEN, options, nullptr, 0);
    if (!NT_SUCCESS(status)) {
        *handle = nullptr;
    }
    return {status, NT_SUCCESS(status) ? ioStatus.Information : 0};
}

NTSTATUS Close(const Caller& caller, HANDLE handle)
{
    ntsim::AttachThread thread(caller.process, {.previousMode = caller.mode});
    return caller.mode == KernelMode ? ZwClose(handle) : NtClose(handle);
}

OpenResult OpenAndClose(const Caller& caller, const OpenRequest& request)
{
    HANDLE handle = nullptr;
    OpenResult result = Open(caller, request, &handle);
    if (handle != nullptr) {
        NTSTATUS closed = Close(caller, handle);
        if (!NT_SUCCESS(closed)) {
            result.status = closed;
        }
    }
    return result;
}

std::string VerdictName(Verdict verdict)
{
    switch (verdict) {
    case Verdict::OwnFolder: return "own merge folder: managed content";
    case Verdict::OtherUsersFolder: return "another user's merge folder: local content only";
    case Verdict::LoopbackOwnFolder:
        return "loopback share: tracked, the file server's open is managed content of her own folder";
    case Verdict::Blacklisted: return "blacklisted process: left alone";
    case Verdict::KernelModeNoContent: return "kernel-mode open touching no content: left alone";
    case Verdict::Excluded: return "excluded by the service: left alone";
    case Verdict::RefusedReadOnly: return "refused: write to a read-only merge folder";
    case Verdict::RefusedDelete: return "refused: deletion of a merge folder";
    case Verdict::LeftAlone: return "left alone without a trace";
    case Verdict::Unexplained: return "unexplained";
    }
    return "unexplained";
}

// The gate's own words, in the order an open meets them. A refusal is the filter's when the gate
// had classified the open as managed first; an open the gate let pass reached the file system,
// whatever the file system then answered.
Verdict Judge(const OpenRequest& request, const OpenResult& result, const std::vector<std::string>& traceMessages)
{
    const bool managed = AnyContains(traceMessages, "Normalized requested Path is");
    if (result.status == STATUS_ACCESS_DENIED) {
        if (AnyContains(traceMessages, "is readonly and the desired access is write")) {
            return Verdict::RefusedReadOnly;
        }
        if (managed && (request.createOptions & FILE_DELETE_ON_CLOSE) != 0) {
            return Verdict::RefusedDelete;
        }
        return Verdict::Unexplained;
    }
    if (AnyContains(traceMessages, "Ignoring blacklisted process")) {
        return Verdict::Blacklisted;
    }
    if (AnyContains(traceMessages, "[EXIT] Previous mode is KernelMode")) {
        return Verdict::KernelModeNoContent;
    }
    if (AnyContains(traceMessages, "[EXIT] - Ignoring excluded file")) {
        return Verdict::Excluded;
    }
    if (AnyContains(traceMessages, "to local content only for non-blacklisted process")) {
        return managed ? Verdict::OtherUsersFolder : Verdict::Unexplained;
    }
    if (AnyContains(traceMessages, "Tracking MUP access [")) {
        return managed ? Verdict::LoopbackOwnFolder : Verdict::Unexplained;
    }
    if (managed) {
        return Verdict::OwnFolder;
    }
    return traceMessages.empty() ? Verdict::LeftAlone : Verdict::Unexplained;
}

}  // namespace fmsim::gate
