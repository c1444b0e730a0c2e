// Opens of simulated callers, and the gate's verdict on each as the caller and the filter's trace
// lines show it.
#pragma once

#include <fltKernel.h>

#include <ntsim/sim/process.hpp>

#include <memory>
#include <string>
#include <vector>

namespace fmsim::gate {

// Who opens: a process of a user, calling in user mode or (as a driver acting in the process's
// context does) in kernel mode.
struct Caller {
    std::string name;  // "alice", "bob", "service"
    std::shared_ptr<ntsim::Process> process;
    KPROCESSOR_MODE mode = UserMode;
};

struct OpenRequest {
    std::u16string path;  // \??\C:\Merge\Alice\plan.txt
    ACCESS_MASK access = FILE_GENERIC_READ;
    ULONG createOptions = 0;
    ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
};

// What the caller of NtCreateFile (or ZwCreateFile) got.
struct OpenResult {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = 0;
};

// Opens in the caller's identity and closes the handle again at once.
OpenResult OpenAndClose(const Caller& caller, const OpenRequest& request);

// Opens in the caller's identity; the handle stays open. *handle is null on failure.
OpenResult Open(const Caller& caller, const OpenRequest& request, HANDLE* handle);
NTSTATUS Close(const Caller& caller, HANDLE handle);

// What the gate made of an open, read from the caller's status and the gate's trace lines (the
// messages only) for that open. The verdicts the scenes print:
enum class Verdict {
    OwnFolder,          // managed content of the caller's own merge folder
    OtherUsersFolder,   // another user's merge folder: local content only
    LoopbackOwnFolder,  // through \\127.0.0.1\C$: tracked, the file server's open managed for the requester
    Blacklisted,        // a blacklisted process in its user's folder: left alone
    KernelModeNoContent,  // a kernel-mode open that touches no content: left alone
    Excluded,           // a path the service excludes for its user: left alone
    RefusedReadOnly,    // a write to a read-only merge folder's own path
    RefusedDelete,      // the deletion of a merge folder
    LeftAlone,          // passed without a trace: not managed, another machine, pass-through mode
    Unexplained,        // a result none of the above accounts for
};

std::string VerdictName(Verdict verdict);

Verdict Judge(const OpenRequest& request, const OpenResult& result, const std::vector<std::string>& traceMessages);

}  // namespace fmsim::gate
