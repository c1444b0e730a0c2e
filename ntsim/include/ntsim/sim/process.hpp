// Simulated processes, threads and access tokens.
//
// A process has an id, an image file name in NT device form, a primary token and a mode (user or
// kernel), a handle table and the user memory it owns. The System process (id 4, kernel mode,
// token of S-1-5-18) exists from the start.
//
// A simulated thread is a real OS thread that carries a simulated identity in thread-local state:
// its process, its thread id, the previous mode of the system service it is in, and an optional
// impersonation token. An OS thread that never attached runs as a thread of the System process in
// kernel mode. AttachThread gives the calling OS thread an identity for its lifetime (attaches
// nest, the innermost wins); SimulatedThread starts a new OS thread with one.
//
// Process and thread ids come from one counter in steps of 4, as Windows' client ids do.
#pragma once

#include <ntsim/ps.h>
#include <ntsim/se.h>

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

// The kernel's process and thread objects, opaque to drivers (ps.h).
struct _EPROCESS {};
struct _ETHREAD {};

namespace ntsim {

// Verifier rules of exceptions and probes.
namespace rules {
// An __except filter answered EXCEPTION_CONTINUE_EXECUTION, which ntsim cannot honour.
inline constexpr std::string_view kSehContinueExecution = "SEH_CONTINUE_EXECUTION";
// ProbeForRead/ProbeForWrite with an alignment other than 1, 2, 4, 8 or 16.
inline constexpr std::string_view kProbeAlignmentInvalid = "PROBE_ALIGNMENT_INVALID";
}  // namespace rules

namespace ob {
class HandleTable;
}

class PageMapping;

// ---- tokens ----

class Token : public std::enable_shared_from_this<Token> {
public:
    // Use CreateToken.
    Token(std::vector<UCHAR> sid, TOKEN_TYPE type, SECURITY_IMPERSONATION_LEVEL level);
    ~Token();
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;

    // The user's SID, in its binary form (RtlLengthSid bytes).
    PSID UserSid() const { return const_cast<UCHAR*>(sid_.data()); }
    ULONG UserSidLength() const { return static_cast<ULONG>(sid_.size()); }
    TOKEN_TYPE Type() const { return type_; }
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel() const { return level_; }
    // The token as drivers see it.
    PACCESS_TOKEN AsAccessToken() { return this; }

private:
    std::vector<UCHAR> sid_;
    TOKEN_TYPE type_;
    SECURITY_IMPERSONATION_LEVEL level_;
};

// A token whose user is the SID in text form ("S-1-5-21-1-2-3-1001"; an authority may be written
// in decimal or as 0x and hexadecimal digits). Text that is no SID throws std::invalid_argument.
std::shared_ptr<Token> CreateToken(std::u16string_view sidText, TOKEN_TYPE type = TokenPrimary,
                                   SECURITY_IMPERSONATION_LEVEL level = SecurityImpersonation);

// The binary SID for SID text (throws std::invalid_argument as CreateToken).
std::vector<UCHAR> SidFromText(std::u16string_view sidText);

// The token behind a PACCESS_TOKEN; a pointer that is no live token is a bug check and gives null.
Token* TokenFromAccessToken(PACCESS_TOKEN token);

// ---- processes ----

struct ProcessOptions {
    // The image file name in NT device form.
    std::u16string imageFileName = u"\\Device\\HarddiskVolume2\\Windows\\explorer.exe";
    // The user of the primary token.
    std::u16string userSid = u"S-1-5-21-1004336348-1177238915-682003330-1001";
    // UserMode for an ordinary process; KernelMode for a system process, whose threads run with
    // a kernel previous mode.
    KPROCESSOR_MODE mode = UserMode;
};

class Process : public _EPROCESS, public std::enable_shared_from_this<Process> {
public:
    // Use CreateProcess.
    Process(HANDLE id, ProcessOptions options, std::shared_ptr<Token> primaryToken);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    HANDLE Id() const { return id_; }
    const std::u16string& ImageFileName() const { return imageFileName_; }
    const std::shared_ptr<Token>& PrimaryToken() const { return primaryToken_; }
    KPROCESSOR_MODE Mode() const { return mode_; }
    PEPROCESS AsEprocess() { return this; }

    // A zeroed block of simulated user memory that this process owns until FreeUserMemory or its
    // end. ProbeForRead/ProbeForWrite accept it only in this process's threads. size 0 gives a
    // block that no probe of a nonzero length accepts.
    void* AllocateUserMemory(size_t size);
    void FreeUserMemory(void* address);
    // True when [address, address + length) lies inside one live block of this process.
    bool OwnsUserMemory(const void* address, size_t length) const;
    // The memory manager's second view of the block that holds [address, address + length) (which
    // must lie inside one live block of this process), as a locked MDL maps it: the same pages at
    // another address, outside every process's user memory, valid until the view is destroyed even
    // if the block is freed. *offset receives address's offset in the view. Null when the range is
    // not this process's user memory or the host refuses the view.
    std::unique_ptr<PageMapping> MapUserMemoryAgain(const void* address, size_t length, size_t* offset) const;

    // The process's handle table (the object manager's).
    ob::HandleTable& Handles() { return *handles_; }
    // Open handles of this process.
    size_t HandleCount() const;

private:
    HANDLE id_;
    std::u16string imageFileName_;
    std::shared_ptr<Token> primaryToken_;
    KPROCESSOR_MODE mode_;
    std::unique_ptr<ob::HandleTable> handles_;
    // Blocks are whole pages of their own (kernel/pagemapping.hpp), so that a locked range can be
    // seen at a second address.
    struct UserBlock {
        std::unique_ptr<PageMapping> pages;
        size_t size = 0;
    };
    mutable std::mutex memoryLock_;
    std::map<uintptr_t, UserBlock> memory_;  // by start address
    // The block that holds [address, address + length), and address's offset in it; null when no
    // block does. memoryLock_ held.
    const UserBlock* BlockHolding(const void* address, size_t length, size_t* offset) const;
};

std::shared_ptr<Process> CreateProcess(ProcessOptions options = {});

// The System process: id 4, kernel mode, token of S-1-5-18, and an empty image file name (as
// Windows reports for it).
const std::shared_ptr<Process>& SystemProcess();

// The process behind a PEPROCESS (no check).
inline Process* ProcessFromEprocess(PEPROCESS process) { return static_cast<Process*>(process); }

// ---- threads ----

class Thread : public _ETHREAD {
public:
    Thread(HANDLE id, std::shared_ptr<Process> process);
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    HANDLE Id() const { return id_; }
    const std::shared_ptr<Process>& OwningProcess() const { return process_; }
    PETHREAD AsEthread() { return this; }

private:
    HANDLE id_;
    std::shared_ptr<Process> process_;
};

struct ThreadOptions {
    // The previous mode of the thread's system service calls. By default the process's mode:
    // UserMode for a user process, KernelMode for a kernel one.
    std::optional<KPROCESSOR_MODE> previousMode;
    // An impersonation token, or null.
    std::shared_ptr<Token> impersonation;
};

// The calling OS thread's simulated identity.
Process& CurrentProcess();
Thread& CurrentThread();
KPROCESSOR_MODE CurrentPreviousMode();
// The thread's impersonation token, or null.
std::shared_ptr<Token> CurrentImpersonationToken();

// Makes the calling OS thread a new simulated thread of process for the object's life. Must be
// destroyed in the thread that made it, innermost first.
class AttachThread {
public:
    explicit AttachThread(std::shared_ptr<Process> process, ThreadOptions options = {});
    ~AttachThread();
    AttachThread(const AttachThread&) = delete;
    AttachThread& operator=(const AttachThread&) = delete;

    Thread& thread() { return *thread_; }

private:
    std::shared_ptr<Thread> thread_;
    struct Saved;
    std::unique_ptr<Saved> saved_;
};

// Runs body in a new OS thread that is a simulated thread of process. Joins on destruction.
class SimulatedThread {
public:
    SimulatedThread(std::shared_ptr<Process> process, std::function<void()> body,
                    ThreadOptions options = {});
    ~SimulatedThread();
    SimulatedThread(const SimulatedThread&) = delete;
    SimulatedThread& operator=(const SimulatedThread&) = delete;

    void Join();

private:
    std::thread thread_;
};

// Sets the calling thread's previous mode for the object's life (the I/O manager's Zw calls run
// with KernelMode).
class ScopedPreviousMode {
public:
    explicit ScopedPreviousMode(KPROCESSOR_MODE mode);
    ~ScopedPreviousMode();
    ScopedPreviousMode(const ScopedPreviousMode&) = delete;
    ScopedPreviousMode& operator=(const ScopedPreviousMode&) = delete;

private:
    KPROCESSOR_MODE saved_;
};

// Makes the calling thread impersonate token (null: stop impersonating) for the object's life.
class ScopedImpersonation {
public:
    explicit ScopedImpersonation(std::shared_ptr<Token> token);
    ~ScopedImpersonation();
    ScopedImpersonation(const ScopedImpersonation&) = delete;
    ScopedImpersonation& operator=(const ScopedImpersonation&) = delete;

private:
    std::shared_ptr<Token> saved_;
};

}  // namespace ntsim
