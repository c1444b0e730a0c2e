// The MUP device and its loopback file server: \Device\Mup as a volume below the Filter Manager,
// whose opens of \127.0.0.1\X$\path are served by a kernel-mode server process that opens
// \??\X:\path through the whole stack, filters included, in a session thread of its own, and
// whose other operations run on that open in the same thread.
#include "iomgr.hpp"
#include "mupsession.hpp"

#include <ntsim/sim/mup.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <algorithm>
#include <cstring>
#include <vector>

namespace ntsim::mup {

namespace {

constexpr std::u16string_view kServerImage = u"\\SystemRoot\\System32\\drivers\\srv2.sys";
constexpr std::u16string_view kServerSid = u"S-1-5-18";
constexpr std::u16string_view kLoopbackNames[] = {u"127.0.0.1", u"localhost"};
// Room for the longest name a counted string can hold.
constexpr size_t kMaximumNameBytes = 0xFFFE;

// A path on the MUP device taken apart: \<server>\<share><rest>.
struct UncPath {
    std::u16string server;
    bool serverOnly = true;  // no separator after the server: the server itself
    std::u16string share;    // empty for "\server\"
    std::u16string rest;     // "\dir\file"; empty for the share's root
};

// False for a path with no server component (the device itself).
bool SplitUncPath(std::u16string_view path, UncPath* unc)
{
    if (path.size() < 2 || path[0] != u'\\') {
        return false;
    }
    size_t serverEnd = path.find(u'\\', 1);
    unc->server = std::u16string(path.substr(1, serverEnd == std::u16string_view::npos ? path.npos : serverEnd - 1));
    unc->share.clear();
    unc->rest.clear();
    unc->serverOnly = serverEnd == std::u16string_view::npos;
    if (!unc->serverOnly) {
        size_t shareEnd = path.find(u'\\', serverEnd + 1);
        unc->share = std::u16string(path.substr(serverEnd + 1, shareEnd == path.npos ? path.npos : shareEnd - serverEnd - 1));
        if (shareEnd != std::u16string_view::npos) {
            unc->rest = std::u16string(path.substr(shareEnd));
        }
    }
    return !unc->server.empty();
}

bool IsLoopbackServer(std::u16string_view server)
{
    return std::any_of(std::begin(kLoopbackNames), std::end(kLoopbackNames),
                       [&](std::u16string_view name) { return ob::ObjectNamesEqual(server, name); });
}

// The path the server opens for a path on one of its shares: \??\X:\rest for the share X$.
// STATUS_BAD_NETWORK_PATH for another server, STATUS_BAD_NETWORK_NAME for a share it lacks.
NTSTATUS LocalPathFor(const UncPath& unc, std::u16string* local)
{
    if (!IsLoopbackServer(unc.server)) {
        return STATUS_BAD_NETWORK_PATH;
    }
    const std::u16string& share = unc.share;
    const bool driveShare = share.size() == 2 && share[1] == u'$' &&
                            ((share[0] >= u'A' && share[0] <= u'Z') || (share[0] >= u'a' && share[0] <= u'z'));
    if (!driveShare) {
        return STATUS_BAD_NETWORK_NAME;
    }
    std::u16string drive = u"\\??\\" + std::u16string(1, share[0]) + u":";
    if (!ob::SymbolicLinkTarget(drive).has_value()) {
        return STATUS_BAD_NETWORK_NAME;
    }
    *local = drive + (unc.rest.empty() ? u"\\" : unc.rest);
    return STATUS_SUCCESS;
}

// One open of the MUP device: the client's session and the server's open of the local file. Its
// state is touched only in the session's thread.
class MupOpen : public VolumeOpen {
public:
    MupOpen(std::unique_ptr<Session> session, std::u16string prefix)
        : session_(std::move(session)), prefix_(std::move(prefix))
    {
    }

    ~MupOpen() override
    {
        session_->Run([this] { CloseLocal(); });
    }

    bool IsDirectory() const override { return directory_; }
    // The redirector keeps share access for its client opens as the server's file system did for
    // the server's open, which carries the client's access and sharing.
    RecordedShareAccess ShareAccess() const override { return shareAccess_; }

    Session& session() { return *session_; }

    // The server's open, in the session's thread: a kernel-mode open of localPath through the whole
    // stack with the client's access, sharing, disposition and options.
    NTSTATUS OpenLocal(const std::u16string& localPath, const VolumeCreateParameters& parameters,
                       IO_STATUS_BLOCK* ioStatus)
    {
        UnicodeStringHolder name(localPath);
        OBJECT_ATTRIBUTES attributes;
        const ULONG caseInsensitive = (parameters.flags & SL_CASE_SENSITIVE) != 0 ? 0 : OBJ_CASE_INSENSITIVE;
        InitializeObjectAttributes(&attributes, name.get(), caseInsensitive | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        LARGE_INTEGER allocationSize;
        allocationSize.QuadPart = parameters.allocationSize;
        iomgr::CreateRequest request;
        request.objectAttributes = &attributes;
        request.desiredAccess = parameters.desiredAccess;
        request.allocationSize = &allocationSize;
        request.fileAttributes = parameters.fileAttributes;
        request.shareAccess = parameters.shareAccess;
        request.disposition = parameters.disposition;
        request.createOptions = parameters.createOptions;
        request.ioFlags = (parameters.flags & SL_OPEN_TARGET_DIRECTORY) != 0 ? IO_OPEN_TARGET_DIRECTORY : 0;
        request.mode = KernelMode;
        ScopedPreviousMode previousMode(KernelMode);
        iomgr::FileObjectRecord* record = nullptr;
        NTSTATUS status = iomgr::CreateFileObject(request, ioStatus, &record);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        HANDLE handle = nullptr;
        NTSTATUS inserted = iomgr::InsertFileHandle(record, OBJ_KERNEL_HANDLE, record->grantedAccess, KernelMode, &handle);
        if (!NT_SUCCESS(inserted)) {
            iomgr::DereferenceFile(record);  // its cleanup and close
            ioStatus->Status = inserted;
            ioStatus->Information = 0;
            return inserted;
        }
        local_ = record;
        handle_ = handle;
        directory_ = record->open != nullptr && record->open->IsDirectory();
        if (record->open != nullptr) {
            shareAccess_ = record->open->ShareAccess();
        }
        return status;
    }

    // The server closes its open: its handle (cleanup on the local volume) and its reference (close).
    // The name is kept for name queries that come after the client's cleanup.
    void CloseLocal()
    {
        if (local_ == nullptr) {
            return;
        }
        std::u16string name;
        if (NT_SUCCESS(LocalName(&name))) {
            nameAtClose_ = prefix_ + name;
        }
        ZwClose(handle_);
        iomgr::DereferenceFile(local_);
        local_ = nullptr;
        handle_ = nullptr;
    }

    // The local volume's normalized path of the server's open ("\dir\file").
    NTSTATUS LocalName(std::u16string* name) const
    {
        return local_->volume->volume->NormalizedPath(*local_->open, name);
    }

    bool closed() const { return local_ == nullptr; }
    HANDLE handle() const { return handle_; }
    PFILE_OBJECT fileObject() const { return &local_->fileObject; }
    const std::u16string& prefix() const { return prefix_; }
    const std::u16string& nameAtClose() const { return nameAtClose_; }
    // The last component the server's target-directory open left in its file object.
    std::u16string finalComponent() const { return std::u16string(View(local_->fileObject.FileName)); }

private:
    std::unique_ptr<Session> session_;
    std::u16string prefix_;  // "\127.0.0.1\C$", as the client named server and share
    iomgr::FileObjectRecord* local_ = nullptr;  // referenced until closed
    HANDLE handle_ = nullptr;                   // the server's kernel handle
    bool directory_ = false;
    RecordedShareAccess shareAccess_;
    std::u16string nameAtClose_;
};

// Runs operation on the server's open in the session's thread; STATUS_FILE_CLOSED once the
// client's cleanup closed it.
template <typename Operation>
NTSTATUS Forward(VolumeOpen& open, Operation operation)
{
    auto& mupOpen = static_cast<MupOpen&>(open);
    NTSTATUS status = STATUS_FILE_CLOSED;
    mupOpen.session().Run([&] {
        if (!mupOpen.closed()) {
            status = operation(mupOpen);
        }
    });
    return status;
}

// A query of a record that ends in a FILE_NAME_INFORMATION at nameOffset, whose name the local
// volume gives relative to itself: the client gets it relative to the MUP device.
NTSTATUS QueryNameRecord(MupOpen& open, FILE_INFORMATION_CLASS infoClass, size_t nameOffset, void* buffer,
                         ULONG length, ULONG* returned)
{
    const size_t fixed = nameOffset + FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
    IO_STATUS_BLOCK ioStatus{};
    if (length < fixed) {
        // Too small for the record: the local file system's answer stands.
        NTSTATUS status = ZwQueryInformationFile(open.handle(), &ioStatus, buffer, length, infoClass);
        *returned = static_cast<ULONG>(ioStatus.Information);
        return status;
    }
    std::vector<UCHAR> scratch(fixed + kMaximumNameBytes);
    NTSTATUS status = ZwQueryInformationFile(open.handle(), &ioStatus, scratch.data(),
                                             static_cast<ULONG>(scratch.size()), infoClass);
    if (!NT_SUCCESS(status)) {
        *returned = 0;
        return status;
    }
    ULONG localBytes = 0;
    std::memcpy(&localBytes, scratch.data() + nameOffset, sizeof(localBytes));
    std::u16string name = open.prefix();
    name.append(reinterpret_cast<const char16_t*>(scratch.data() + fixed), localBytes / sizeof(WCHAR));
    const ULONG nameBytes = static_cast<ULONG>(name.size() * sizeof(WCHAR));
    const ULONG copied = std::min<ULONG>(nameBytes, static_cast<ULONG>((length - fixed) & ~size_t{1}));
    auto* out = static_cast<UCHAR*>(buffer);
    std::memcpy(out, scratch.data(), nameOffset);
    std::memcpy(out + nameOffset, &nameBytes, sizeof(nameBytes));
    std::memcpy(out + fixed, name.data(), copied);
    *returned = static_cast<ULONG>(fixed + copied);
    return copied < nameBytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

class MupVolume : public Volume {
public:
    explicit MupVolume(std::shared_ptr<Process> server) : server_(std::move(server)) {}

    const std::u16string& DeviceName() const override { return deviceName_; }
    ULONG DeviceType() const override { return FILE_DEVICE_NETWORK_FILE_SYSTEM; }
    ULONG FileSystemType() const override { return FLT_FSTYPE_MUP; }

    // The server's open follows the local volume's reparse points itself: the client never sees one.
    NTSTATUS Create(const VolumeCreateParameters& parameters, std::unique_ptr<VolumeOpen>* open,
                    ULONG_PTR* information, std::u16string* finalComponent, std::vector<UCHAR>*) override
    {
        UncPath unc;
        if (!SplitUncPath(parameters.path, &unc)) {
            return verifier::NotImplemented("an open of \\Device\\Mup itself");
        }
        if (unc.serverOnly && IsLoopbackServer(unc.server)) {
            return verifier::NotImplemented("an open of a server on \\Device\\Mup (share enumeration)");
        }
        std::u16string localPath;
        NTSTATUS status = LocalPathFor(unc, &localPath);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        // The client: whoever the requesting thread acts for.
        std::shared_ptr<Token> client = CurrentImpersonationToken();
        if (client == nullptr) {
            client = CurrentProcess().PrimaryToken();
        }
        auto mupOpen = std::make_unique<MupOpen>(std::make_unique<Session>(server_, *client),
                                                 u"\\" + unc.server + u"\\" + unc.share);
        IO_STATUS_BLOCK ioStatus{};
        mupOpen->session().Run([&] { status = mupOpen->OpenLocal(localPath, parameters, &ioStatus); });
        *information = ioStatus.Information;
        if (!NT_SUCCESS(status)) {
            return status;
        }
        if ((parameters.flags & SL_OPEN_TARGET_DIRECTORY) != 0) {
            mupOpen->session().Run([&] { *finalComponent = mupOpen->finalComponent(); });
        }
        *open = std::move(mupOpen);
        return status;
    }

    NTSTATUS Read(VolumeOpen& open, LONGLONG offset, ULONG length, void* buffer, ULONG* bytesRead) override
    {
        *bytesRead = 0;
        return Forward(open, [&](MupOpen& mupOpen) {
            IO_STATUS_BLOCK ioStatus{};
            LARGE_INTEGER at;
            at.QuadPart = offset;
            NTSTATUS status = ZwReadFile(mupOpen.handle(), nullptr, nullptr, nullptr, &ioStatus, buffer, length, &at,
                                         nullptr);
            *bytesRead = static_cast<ULONG>(ioStatus.Information);
            return status;
        });
    }

    NTSTATUS Write(VolumeOpen& open, LONGLONG offset, ULONG length, const void* buffer, ULONG* bytesWritten) override
    {
        *bytesWritten = 0;
        return Forward(open, [&](MupOpen& mupOpen) {
            IO_STATUS_BLOCK ioStatus{};
            LARGE_INTEGER at;
            at.QuadPart = offset;
            NTSTATUS status = ZwWriteFile(mupOpen.handle(), nullptr, nullptr, nullptr, &ioStatus,
                                          const_cast<void*>(buffer), length, &at, nullptr);
            *bytesWritten = static_cast<ULONG>(ioStatus.Information);
            return status;
        });
    }

    NTSTATUS QueryInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                              ULONG* returned) override
    {
        *returned = 0;
        return Forward(open, [&](MupOpen& mupOpen) {
            if (infoClass == FileNameInformation || infoClass == FileNormalizedNameInformation) {
                return QueryNameRecord(mupOpen, infoClass, 0, buffer, length, returned);
            }
            if (infoClass == FileAllInformation) {
                return QueryNameRecord(mupOpen, infoClass, FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation),
                                       buffer, length, returned);
            }
            IO_STATUS_BLOCK ioStatus{};
            NTSTATUS status = ZwQueryInformationFile(mupOpen.handle(), &ioStatus, buffer, length, infoClass);
            *returned = static_cast<ULONG>(ioStatus.Information);
            return status;
        });
    }

    NTSTATUS SetInformation(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, const void* buffer, ULONG length,
                            const std::u16string* targetPath) override
    {
        // A rename or link target on the MUP device becomes the server's local path for it.
        std::vector<UCHAR> localRecord;
        if (targetPath != nullptr) {
            UncPath unc;
            std::u16string localTarget;
            if (!SplitUncPath(*targetPath, &unc)) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            NTSTATUS status = LocalPathFor(unc, &localTarget);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            const size_t nameBytes = localTarget.size() * sizeof(WCHAR);
            localRecord.resize(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + nameBytes);
            auto* record = reinterpret_cast<FILE_RENAME_INFORMATION*>(localRecord.data());
            record->Flags = static_cast<const FILE_RENAME_INFORMATION*>(buffer)->Flags;
            record->RootDirectory = nullptr;
            record->FileNameLength = static_cast<ULONG>(nameBytes);
            std::memcpy(record->FileName, localTarget.data(), nameBytes);
            buffer = localRecord.data();
            length = static_cast<ULONG>(localRecord.size());
        }
        return Forward(open, [&](MupOpen& mupOpen) {
            IO_STATUS_BLOCK ioStatus{};
            return ZwSetInformationFile(mupOpen.handle(), &ioStatus, const_cast<void*>(buffer), length, infoClass);
        });
    }

    NTSTATUS QueryDirectory(VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
                            const UNICODE_STRING* pattern, ULONG flags, ULONG fileIndex, ULONG* returned) override
    {
        *returned = 0;
        return Forward(open, [&](MupOpen& mupOpen) {
            return IoQueryDirectoryFile(mupOpen.fileObject(), infoClass, buffer, length, pattern,
                                        static_cast<UCHAR>(flags), fileIndex, returned);
        });
    }

    NTSTATUS QueryEa(VolumeOpen& open, const VolumeEaQuery& query, void* buffer, ULONG length,
                     ULONG* returned) override
    {
        *returned = 0;
        return Forward(open, [&](MupOpen& mupOpen) {
            IO_STATUS_BLOCK ioStatus{};
            ULONG index = query.eaIndex;
            NTSTATUS status = ZwQueryEaFile(mupOpen.handle(), &ioStatus, buffer, length,
                                            (query.flags & SL_RETURN_SINGLE_ENTRY) != 0,
                                            const_cast<void*>(query.eaList), query.eaListLength,
                                            (query.flags & SL_INDEX_SPECIFIED) != 0 ? &index : nullptr,
                                            (query.flags & SL_RESTART_SCAN) != 0);
            *returned = static_cast<ULONG>(ioStatus.Information);
            return status;
        });
    }

    NTSTATUS Flush(VolumeOpen& open) override
    {
        return Forward(open, [&](MupOpen& mupOpen) {
            IO_STATUS_BLOCK ioStatus{};
            return ZwFlushBuffersFile(mupOpen.handle(), &ioStatus);
        });
    }

    void Cleanup(VolumeOpen& open) override
    {
        auto& mupOpen = static_cast<MupOpen&>(open);
        mupOpen.session().Run([&] { mupOpen.CloseLocal(); });
    }

    NTSTATUS NormalizedPath(VolumeOpen& open, std::u16string* path) override
    {
        auto& mupOpen = static_cast<MupOpen&>(open);
        NTSTATUS status = STATUS_FILE_CLOSED;
        mupOpen.session().Run([&] {
            if (!mupOpen.closed()) {
                std::u16string name;
                status = mupOpen.LocalName(&name);
                if (NT_SUCCESS(status)) {
                    *path = mupOpen.prefix() + name;
                }
            } else if (!mupOpen.nameAtClose().empty()) {
                *path = mupOpen.nameAtClose();
                status = STATUS_SUCCESS;
            }
        });
        return status;
    }

    NTSTATUS NormalizePath(const std::u16string& path, std::u16string* normalized) override
    {
        UncPath unc;
        if (!SplitUncPath(path, &unc) || unc.share.empty()) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        std::u16string localPath;
        NTSTATUS status = LocalPathFor(unc, &localPath);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        std::shared_ptr<_FLT_VOLUME> volume;
        std::u16string onVolume;
        status = iomgr::ResolveVolumePath(localPath, &volume, &onVolume);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        std::u16string name;
        status = volume->volume->NormalizePath(onVolume.empty() ? u"\\" : onVolume, &name);
        if (NT_SUCCESS(status)) {
            *normalized = u"\\" + unc.server + u"\\" + unc.share + name;
        }
        return status;
    }

private:
    std::shared_ptr<Process> server_;
    const std::u16string deviceName_{kMupDeviceName};
};

struct MupState {
    std::mutex mutex;
    std::shared_ptr<Process> server;
};

MupState& State()
{
    static auto* state = new MupState();
    return *state;
}

}  // namespace

}  // namespace ntsim::mup

namespace ntsim {

NTSTATUS MountMup()
{
    if (iomgr::FindVolumeByDeviceName(kMupDeviceName) != nullptr) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    ProcessOptions options;
    options.imageFileName = std::u16string(mup::kServerImage);
    options.userSid = std::u16string(mup::kServerSid);
    options.mode = KernelMode;
    std::shared_ptr<Process> server = CreateProcess(options);
    // MountVolume links \??\<name> to the device: \??\UNC here.
    NTSTATUS status = MountVolume(std::make_shared<mup::MupVolume>(server), u"UNC");
    if (NT_SUCCESS(status)) {
        std::lock_guard lock(mup::State().mutex);
        mup::State().server = std::move(server);
    }
    return status;
}

NTSTATUS DismountMup()
{
    NTSTATUS status = DismountVolume(kMupDeviceName);
    if (NT_SUCCESS(status)) {
        std::lock_guard lock(mup::State().mutex);
        mup::State().server.reset();
    }
    return status;
}

std::shared_ptr<Process> MupServerProcess()
{
    std::lock_guard lock(mup::State().mutex);
    return mup::State().server;
}

}  // namespace ntsim
