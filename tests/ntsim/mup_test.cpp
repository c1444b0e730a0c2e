// The MUP device as a filter sees it: a loopback open reaches the filter twice (the requester's
// MUP open, and inside it the server's kernel-mode open of the local file in a thread of its own),
// data and names pass through the MUP handle, and unserved servers and shares fail.
#include <gtest/gtest.h>

#include <fltKernel.h>
#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/mup.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/object.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <userbuffer.hpp>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr ULONG kNet = FILE_DEVICE_NETWORK_FILE_SYSTEM;
constexpr ULONG kDisk = FILE_DEVICE_DISK_FILE_SYSTEM;
constexpr const char16_t* kLocalDevice = u"\\Device\\HarddiskVolume2";
constexpr const char16_t* kUserSid = u"S-1-5-21-1004336348-1177238915-682003330-1001";

struct Seen {
    UCHAR major = 0;
    bool post = false;
    ULONG deviceType = 0;
    std::string fileName;
    HANDLE processId = nullptr;
    HANDLE threadId = nullptr;
    KPROCESSOR_MODE mode = KernelMode;
    NTSTATUS status = 0;
    std::string clientSid;    // the impersonation token's user on a pre-create, if any
    std::string primarySid;   // the process token's user on a pre-create
    std::string normalized;   // FltGetFileNameInformation on a pre-create, or its failure
    ACCESS_MASK desiredAccess = 0;  // on a pre-create
};

std::string SidText(PACCESS_TOKEN token)
{
    if (token == nullptr) {
        return {};
    }
    WCHAR buffer[192];
    UNICODE_STRING text{0, sizeof(buffer), buffer};
    if (!NT_SUCCESS(RtlConvertSidToUnicodeString(&text, ntsim::TokenFromAccessToken(token)->UserSid(), FALSE))) {
        return "?";
    }
    return ntsim::ToUtf8(text);
}

struct Recorder {
    static std::mutex& mutex()
    {
        static std::mutex instance;
        return instance;
    }
    static std::vector<Seen>& seen()
    {
        static std::vector<Seen> instance;
        return instance;
    }
    static inline PFLT_FILTER filter = nullptr;
    // Runs in the pre-create of an open of the MUP device, after the event is noted.
    static inline std::function<void()> onRequesterPreCreate;
    static inline std::vector<std::pair<ULONG, ULONG>> setups;  // device type, file-system type

    static void Note(PFLT_CALLBACK_DATA data, bool post)
    {
        Seen event;
        event.major = data->Iopb->MajorFunction;
        event.post = post;
        PFILE_OBJECT fileObject = data->Iopb->TargetFileObject;
        event.deviceType = fileObject->DeviceObject->DeviceType;
        event.fileName = ntsim::ToUtf8(fileObject->FileName);
        event.processId = PsGetCurrentProcessId();
        event.threadId = PsGetCurrentThreadId();
        event.mode = data->RequestorMode;
        event.status = data->IoStatus.Status;
        if (event.major == IRP_MJ_CREATE && !post) {
            const SECURITY_SUBJECT_CONTEXT& subject =
                data->Iopb->Parameters.Create.SecurityContext->AccessState->SubjectSecurityContext;
            event.desiredAccess = data->Iopb->Parameters.Create.SecurityContext->DesiredAccess;
            event.clientSid = SidText(subject.ClientToken);
            event.primarySid = SidText(subject.PrimaryToken);
            PFLT_FILE_NAME_INFORMATION name = nullptr;
            NTSTATUS status = FltGetFileNameInformation(data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_DEFAULT,
                                                        &name);
            event.normalized = NT_SUCCESS(status) ? ntsim::ToUtf8(name->Name) : "failed";
            if (NT_SUCCESS(status)) {
                FltReleaseFileNameInformation(name);
            }
        }
        std::lock_guard lock(mutex());
        seen().push_back(event);
    }

    static FLT_PREOP_CALLBACK_STATUS FLTAPI Pre(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*)
    {
        Note(data, false);
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE && onRequesterPreCreate &&
            data->Iopb->TargetFileObject->DeviceObject->DeviceType == FILE_DEVICE_NETWORK_FILE_SYSTEM) {
            onRequesterPreCreate();
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    }

    static FLT_POSTOP_CALLBACK_STATUS FLTAPI Post(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID,
                                                  FLT_POST_OPERATION_FLAGS)
    {
        Note(data, true);
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    static NTSTATUS FLTAPI Setup(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE deviceType,
                                 FLT_FILESYSTEM_TYPE fileSystemType)
    {
        setups.emplace_back(deviceType, fileSystemType);
        return STATUS_SUCCESS;
    }

    static NTSTATUS FLTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
    {
        FltUnregisterFilter(filter);
        filter = nullptr;
        return STATUS_SUCCESS;
    }

    static constexpr UCHAR kWatched[] = {IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE};
    static constexpr auto kOperations = ntsim::RegisterEachOperation(kWatched, Pre, Post);

    static constexpr FLT_REGISTRATION kRegistration = {
        .Size = sizeof(FLT_REGISTRATION),
        .Version = FLT_REGISTRATION_VERSION,
        .OperationRegistration = kOperations.entries,
        .FilterUnloadCallback = Unload,
        .InstanceSetupCallback = Setup,
    };

    static NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        return ntsim::RegisterAndStartFiltering(driver, kRegistration, &filter);
    }
};

class MupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Recorder::seen().clear();
        Recorder::setups.clear();
        Recorder::onRequesterPreCreate = nullptr;
        volume_ = ntsim::CreateNtfsVolume(kLocalDevice);
        ASSERT_EQ(ntsim::MountVolume(volume_, u"C:"), STATUS_SUCCESS);
        ntsim::FilterLoadOptions options;
        options.name = u"MupRecorder";
        ASSERT_EQ(ntsim::LoadFilter(Recorder::DriverEntry, options), STATUS_SUCCESS);
        ASSERT_EQ(ntsim::MountMup(), STATUS_SUCCESS);
        server_ = ntsim::MupServerProcess();
        ASSERT_NE(server_, nullptr);
        kernelHandles_ = ntsim::ob::KernelHandleCount();
        ntsim::ProcessOptions requester;
        requester.userSid = kUserSid;
        process_ = ntsim::CreateProcess(requester);
        attach_ = std::make_unique<ntsim::AttachThread>(process_);
    }

    void TearDown() override
    {
        attach_.reset();
        EXPECT_EQ(ntsim::ob::KernelHandleCount(), kernelHandles_) << "the server left a handle open";
        EXPECT_EQ(volume_->OpenCount(), 0u) << "the server left a local open unclosed";
        EXPECT_EQ(ntsim::DismountMup(), STATUS_SUCCESS);
        EXPECT_EQ(ntsim::MupServerProcess(), nullptr);
        EXPECT_EQ(ntsim::UnloadFilter(u"MupRecorder"), STATUS_SUCCESS);
        EXPECT_EQ(ntsim::DismountVolume(kLocalDevice), STATUS_SUCCESS);
    }

    NTSTATUS Open(std::u16string_view path, HANDLE* handle, ULONG disposition = FILE_OPEN, ULONG options = 0)
    {
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK ioStatus{};
        return NtCreateFile(handle, FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE, &attributes, &ioStatus, nullptr,
                            FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, disposition, options, nullptr, 0);
    }

    static std::vector<Seen> Of(UCHAR major)
    {
        std::vector<Seen> result;
        for (const Seen& event : Recorder::seen()) {
            if (event.major == major) {
                result.push_back(event);
            }
        }
        return result;
    }

    std::shared_ptr<ntsim::MemoryVolume> volume_;
    std::shared_ptr<ntsim::Process> server_;
    std::shared_ptr<ntsim::Process> process_;
    std::unique_ptr<ntsim::AttachThread> attach_;
    size_t kernelHandles_ = 0;
};

TEST_F(MupTest, FilterGetsAnInstanceOnTheMupDeviceAsANetworkFileSystem)
{
    ASSERT_EQ(Recorder::setups.size(), 2u);
    EXPECT_EQ(Recorder::setups[1], (std::pair<ULONG, ULONG>{FILE_DEVICE_NETWORK_FILE_SYSTEM, FLT_FSTYPE_MUP}));
    PDEVICE_OBJECT device = ntsim::GetVolumeDeviceObject(u"\\Device\\Mup");
    ASSERT_NE(device, nullptr);
    EXPECT_NE(device->Characteristics & FILE_REMOTE_DEVICE, 0u);
    EXPECT_EQ(ntsim::ob::SymbolicLinkTarget(u"\\??\\UNC"), u"\\Device\\Mup");
    EXPECT_NE(server_->Id(), ntsim::SystemProcess()->Id()) << "the server must be told apart from the System process";
    EXPECT_EQ(server_->Mode(), KernelMode);
}

TEST_F(MupTest, LoopbackOpenIsSeenTwiceWithTheServersOpenInsideTheRequestersPendingOne)
{
    volume_->SeedFile(u"\\Shared Documents\\report.txt", "content");
    const std::u16string shortDirectory = volume_->ShortName(u"\\Shared Documents");
    ASSERT_FALSE(shortDirectory.empty());

    // The same open in each name form the loopback server answers to.
    const std::u16string forms[] = {
        u"\\??\\UNC\\127.0.0.1\\C$\\Shared Documents\\report.txt",
        u"\\Device\\Mup\\LOCALHOST\\c$\\" + shortDirectory + u"\\report.txt",
    };
    for (const std::u16string& path : forms) {
        SCOPED_TRACE(ntsim::ToUtf8(path));
        Recorder::seen().clear();
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(path, &handle), STATUS_SUCCESS);
        std::vector<Seen> creates = Of(IRP_MJ_CREATE);
        ASSERT_EQ(creates.size(), 4u);
        const Seen& outerPre = creates[0];
        const Seen& innerPre = creates[1];
        const Seen& innerPost = creates[2];
        const Seen& outerPost = creates[3];

        // Outer pre, inner pre, inner post, outer post: the server's open runs while the
        // requester's is pending below the filter.
        std::vector<std::pair<ULONG, bool>> shape;
        for (const Seen& event : creates) {
            shape.emplace_back(event.deviceType, event.post);
        }
        EXPECT_EQ(shape,
                  (std::vector<std::pair<ULONG, bool>>{{kNet, false}, {kDisk, false}, {kDisk, true}, {kNet, true}}));
        EXPECT_EQ(innerPost.status, STATUS_SUCCESS);
        EXPECT_EQ(outerPost.status, STATUS_SUCCESS);

        // The requester's identity on the outer open; the server's, in another thread, on the inner.
        EXPECT_EQ(outerPre.processId, process_->Id());
        EXPECT_EQ(outerPre.mode, UserMode);
        EXPECT_EQ(outerPre.threadId, PsGetCurrentThreadId());
        EXPECT_EQ(innerPre.processId, server_->Id());
        EXPECT_EQ(innerPre.mode, KernelMode);
        EXPECT_NE(innerPre.threadId, outerPre.threadId);
        EXPECT_EQ(innerPost.threadId, innerPre.threadId);
        EXPECT_EQ(outerPost.threadId, outerPre.threadId);

        // The server impersonates the requester: the user's SID rides on the inner open.
        EXPECT_EQ(innerPre.primarySid, "S-1-5-18");
        EXPECT_EQ(innerPre.clientSid, ntsim::ToUtf8(kUserSid));
        EXPECT_EQ(outerPre.primarySid, ntsim::ToUtf8(kUserSid));

        // Names: the local file on C:, and the MUP path normalized to long names.
        // The server opens the name as the client wrote it; normalized, it has its long form.
        const bool shortForm = path.find(shortDirectory) != std::u16string::npos;
        EXPECT_EQ(innerPre.fileName,
                  (shortForm ? "\\" + ntsim::ToUtf8(shortDirectory) : std::string("\\Shared Documents")) +
                      "\\report.txt");
        EXPECT_EQ(innerPre.normalized, "\\Device\\HarddiskVolume2\\Shared Documents\\report.txt");
        const std::string share = path.find(u"LOCALHOST") != std::u16string::npos ? "LOCALHOST\\c$" : "127.0.0.1\\C$";
        EXPECT_EQ(outerPre.normalized, "\\Device\\Mup\\" + share + "\\Shared Documents\\report.txt");
        EXPECT_EQ(volume_->HandleCount(u"\\Shared Documents\\report.txt"), 1u);

        Recorder::seen().clear();
        ASSERT_EQ(NtClose(handle), STATUS_SUCCESS);
        // The requester's cleanup closes the server's open: its cleanup and close come inside it.
        std::vector<std::pair<ULONG, UCHAR>> ends;
        for (const Seen& event : Recorder::seen()) {
            if (!event.post) {
                ends.emplace_back(event.deviceType, event.major);
            }
        }
        EXPECT_EQ(ends, (std::vector<std::pair<ULONG, UCHAR>>{
                      {kNet, IRP_MJ_CLEANUP}, {kDisk, IRP_MJ_CLEANUP}, {kDisk, IRP_MJ_CLOSE}, {kNet, IRP_MJ_CLOSE}}));
        EXPECT_EQ(volume_->HandleCount(u"\\Shared Documents\\report.txt"), 0u);
    }
}

TEST_F(MupTest, DataNamesListingsAndRenamesGoThroughTheServersOpen)
{
    volume_->SeedFile(u"\\dir\\a.txt", "0123456789");
    volume_->SeedFile(u"\\dir\\b.txt");
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\Device\\Mup\\127.0.0.1\\C$\\dir\\a.txt", &handle), STATUS_SUCCESS);

    IO_STATUS_BLOCK ioStatus{};
    LARGE_INTEGER at;
    at.QuadPart = 8;
    ASSERT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, const_cast<char*>("89AB"), 4, &at, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(ioStatus.Information, 4u);
    EXPECT_EQ(volume_->Content(u"\\dir\\a.txt"), "0123456789AB");
    char buffer[16] = {};
    at.QuadPart = 6;
    ASSERT_EQ(NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), &at, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, ioStatus.Information), "6789AB");
    at.QuadPart = 12;
    EXPECT_EQ(NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), &at, nullptr),
              STATUS_END_OF_FILE);

    // The local read and write are the server's, in kernel mode.
    std::vector<Seen> reads = Of(IRP_MJ_READ);
    ASSERT_EQ(reads.size(), 8u);  // two reads, each seen on MUP and on C:, pre and post
    EXPECT_EQ(reads[1].deviceType, ULONG{FILE_DEVICE_DISK_FILE_SYSTEM});
    EXPECT_EQ(reads[1].processId, server_->Id());
    EXPECT_EQ(reads[1].mode, KernelMode);

    FILE_STANDARD_INFORMATION standard{};
    ASSERT_EQ(NtQueryInformationFile(handle, &ioStatus, &standard, sizeof(standard), FileStandardInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 12);
    // Names the server reports are MUP paths; a short buffer gets as much as fits.
    alignas(8) UCHAR nameBuffer[256];
    auto* name = reinterpret_cast<FILE_NAME_INFORMATION*>(nameBuffer);
    ASSERT_EQ(NtQueryInformationFile(handle, &ioStatus, name, sizeof(nameBuffer), FileNameInformation),
              STATUS_SUCCESS);
    const std::string expected = "\\127.0.0.1\\C$\\dir\\a.txt";
    EXPECT_EQ(ntsim::ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(name->FileName),
                                                 name->FileNameLength / sizeof(WCHAR))),
              expected);
    EXPECT_EQ(ioStatus.Information, 4 + expected.size() * 2);
    ASSERT_EQ(NtQueryInformationFile(handle, &ioStatus, name, 4 + 10, FileNameInformation), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(name->FileNameLength, expected.size() * 2);
    EXPECT_EQ(ioStatus.Information, 14u);

    // A rename to a MUP path renames the local file.
    const std::u16string target = u"\\??\\UNC\\127.0.0.1\\C$\\dir\\renamed.txt";
    alignas(8) UCHAR renameBuffer[sizeof(FILE_RENAME_INFORMATION) + 128] = {};
    auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(renameBuffer);
    rename->FileNameLength = static_cast<ULONG>(target.size() * sizeof(WCHAR));
    std::memcpy(rename->FileName, target.data(), rename->FileNameLength);
    ASSERT_EQ(NtSetInformationFile(handle, &ioStatus, rename, sizeof(renameBuffer), FileRenameInformation),
              STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\dir\\renamed.txt"));
    EXPECT_FALSE(volume_->Exists(u"\\dir\\a.txt"));
    ASSERT_EQ(NtClose(handle), STATUS_SUCCESS);

    // A directory listing through the share.
    ASSERT_EQ(Open(u"\\??\\UNC\\127.0.0.1\\C$\\dir", &handle, FILE_OPEN, FILE_DIRECTORY_FILE), STATUS_SUCCESS);
    UserBuffer listing(1024);
    ASSERT_EQ(NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &ioStatus, listing.data(), listing.size(),
                                   FileNamesInformation, FALSE, nullptr, TRUE),
              STATUS_SUCCESS);
    std::vector<std::string> names;
    for (ULONG offset = 0;;) {
        auto* entry = reinterpret_cast<FILE_NAMES_INFORMATION*>(listing.data() + offset);
        names.push_back(ntsim::ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(entry->FileName),
                                                          entry->FileNameLength / sizeof(WCHAR))));
        if (entry->NextEntryOffset == 0) {
            break;
        }
        offset += entry->NextEntryOffset;
    }
    EXPECT_EQ(names, (std::vector<std::string>{".", "..", "b.txt", "renamed.txt"}));
    EXPECT_EQ(NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &ioStatus, listing.data(), listing.size(),
                                   FileNamesInformation, FALSE, nullptr, FALSE),
              STATUS_NO_MORE_FILES);
    ASSERT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(MupTest, ServersAndSharesTheLoopbackServerDoesNotServeFailWithoutALocalOpen)
{
    volume_->SeedFile(u"\\x.txt", "x");
    struct Case {
        const char16_t* path;
        NTSTATUS status;
    };
    const Case cases[] = {
        {u"\\Device\\Mup\\10.0.0.7\\C$\\x.txt", STATUS_BAD_NETWORK_PATH},
        {u"\\??\\UNC\\fileserver\\C$\\x.txt", STATUS_BAD_NETWORK_PATH},
        {u"\\Device\\Mup\\127.0.0.1\\Q$\\x.txt", STATUS_BAD_NETWORK_NAME},  // no drive Q:
        {u"\\Device\\Mup\\127.0.0.1\\IPC$\\x.txt", STATUS_BAD_NETWORK_NAME},
        {u"\\Device\\Mup\\127.0.0.1\\C\\x.txt", STATUS_BAD_NETWORK_NAME},
        {u"\\Device\\Mup\\127.0.0.1\\C", STATUS_BAD_NETWORK_NAME},
        {u"\\Device\\Mup\\127.0.0.1\\", STATUS_BAD_NETWORK_NAME},  // the share's name is empty
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(ntsim::ToUtf8(test.path));
        Recorder::seen().clear();
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(test.path, &handle), test.status);
        std::vector<Seen> creates = Of(IRP_MJ_CREATE);
        ASSERT_EQ(creates.size(), 2u) << "only the MUP open, pre and post";
        EXPECT_EQ(creates[0].deviceType, kNet);
        EXPECT_EQ(creates[1].status, test.status);
    }
}

TEST_F(MupTest, MissingLocalFileFailsBothOpensAndLeavesNothingOpen)
{
    HANDLE handle = nullptr;
    EXPECT_EQ(Open(u"\\Device\\Mup\\127.0.0.1\\C$\\dir\\missing.txt", &handle), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\Device\\Mup\\127.0.0.1\\C$\\missing.txt", &handle), STATUS_OBJECT_NAME_NOT_FOUND);
    std::vector<Seen> creates = Of(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 8u);
    for (size_t i : {6, 7}) {
        EXPECT_EQ(creates[i].deviceType, i == 6 ? kDisk : kNet);
        EXPECT_EQ(creates[i].status, STATUS_OBJECT_NAME_NOT_FOUND);
    }
    EXPECT_TRUE(Of(IRP_MJ_CLEANUP).empty());

    // FILE_CREATE through the share makes the local file.
    ASSERT_EQ(Open(u"\\Device\\Mup\\127.0.0.1\\C$\\missing.txt", &handle, FILE_CREATE), STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\missing.txt"));
    ASSERT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(MupTest, AttributeOnlyAccessAndAttributeQueriesReachTheServersOpenAsTheRequesterAskedThem)
{
    volume_->SeedFile(u"\\dir\\attributes.txt", "0123456789");

    // An open for attributes alone: the server's kernel-mode open asks for that much and no more.
    HANDLE handle = nullptr;
    ntsim::UnicodeStringHolder name(u"\\Device\\Mup\\127.0.0.1\\C$\\dir\\attributes.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtCreateFile(&handle, FILE_READ_ATTRIBUTES | SYNCHRONIZE, &attributes, &ioStatus, nullptr, 0,
                           FILE_SHARE_READ, FILE_OPEN, 0, nullptr, 0),
              STATUS_SUCCESS);
    std::vector<Seen> creates = Of(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 4u);
    EXPECT_EQ(creates[0].desiredAccess, ACCESS_MASK{FILE_READ_ATTRIBUTES | SYNCHRONIZE});
    EXPECT_EQ(creates[1].desiredAccess, ACCESS_MASK{FILE_READ_ATTRIBUTES | SYNCHRONIZE}) << "the server's open";
    ASSERT_EQ(NtClose(handle), STATUS_SUCCESS);

    // NtQueryFullAttributesFile of a loopback path: the fast query open of the MUP device is served
    // by a server open of the local file, for its attributes, through the whole stack.
    Recorder::seen().clear();
    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(NtQueryFullAttributesFile(&attributes, &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 10);
    creates = Of(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 2u) << "the server's open of the local file, pre and post";
    EXPECT_EQ(creates[0].deviceType, ULONG{FILE_DEVICE_DISK_FILE_SYSTEM});
    EXPECT_EQ(creates[0].fileName, "\\dir\\attributes.txt");
    EXPECT_EQ(creates[0].desiredAccess, ACCESS_MASK{FILE_READ_ATTRIBUTES});
    EXPECT_EQ(creates[0].clientSid, ntsim::ToUtf8(kUserSid));
    EXPECT_EQ(volume_->HandleCount(u"\\dir\\attributes.txt"), 0u);
}

TEST_F(MupTest, LoopbackOpensInFlightTogetherEachReachTheServerAsTheirOwnRequester)
{
    volume_->SeedFile(u"\\one.txt", "1");
    volume_->SeedFile(u"\\two.txt", "2");
    constexpr const char16_t* kOtherSid = u"S-1-5-21-1004336348-1177238915-682003330-1002";
    ntsim::ProcessOptions otherOptions;
    otherOptions.userSid = kOtherSid;
    std::shared_ptr<ntsim::Process> other = ntsim::CreateProcess(otherOptions);

    // Each requester's MUP open waits in its pre-create until the other's has arrived, so that both
    // are in flight when the server's opens run.
    std::mutex mutex;
    std::condition_variable changed;
    int arrived = 0;
    Recorder::onRequesterPreCreate = [&] {
        std::unique_lock lock(mutex);
        ++arrived;
        changed.notify_all();
        changed.wait(lock, [&] { return arrived >= 2; });
    };
    HANDLE otherHandle = nullptr;
    NTSTATUS otherStatus = STATUS_UNSUCCESSFUL;
    {
        ntsim::SimulatedThread otherRequester(other, [&] {
            otherStatus = Open(u"\\Device\\Mup\\127.0.0.1\\C$\\two.txt", &otherHandle);
        });
        HANDLE handle = nullptr;
        ASSERT_EQ(Open(u"\\Device\\Mup\\127.0.0.1\\C$\\one.txt", &handle), STATUS_SUCCESS);
        otherRequester.Join();
        ASSERT_EQ(NtClose(handle), STATUS_SUCCESS);
    }
    Recorder::onRequesterPreCreate = nullptr;
    ASSERT_EQ(otherStatus, STATUS_SUCCESS);

    std::map<std::string, Seen> requesters;
    std::map<std::string, Seen> servers;
    for (const Seen& event : Of(IRP_MJ_CREATE)) {
        if (event.post) {
            continue;
        }
        const bool local = event.deviceType == FILE_DEVICE_DISK_FILE_SYSTEM;
        const std::string file = event.fileName.substr(event.fileName.rfind('\\') + 1);
        (local ? servers : requesters)[file] = event;
    }
    ASSERT_EQ(requesters.size(), 2u);
    ASSERT_EQ(servers.size(), 2u);
    EXPECT_EQ(requesters["one.txt"].processId, process_->Id());
    EXPECT_EQ(requesters["two.txt"].processId, other->Id());
    EXPECT_EQ(servers["one.txt"].clientSid, ntsim::ToUtf8(kUserSid));
    EXPECT_EQ(servers["two.txt"].clientSid, ntsim::ToUtf8(kOtherSid));
    for (const char* file : {"one.txt", "two.txt"}) {
        EXPECT_EQ(servers[file].processId, server_->Id()) << file;
        EXPECT_EQ(servers[file].mode, KernelMode) << file;
    }
    EXPECT_NE(servers["one.txt"].threadId, servers["two.txt"].threadId) << "each open has a session of its own";

    ntsim::AttachThread asOther(other);
    ASSERT_EQ(NtClose(otherHandle), STATUS_SUCCESS);
}

}  // namespace
