// The create as post-create callbacks see it: the share access the file system recorded in the file
// object, the result of each disposition, a re-parse answered from below, and the cancel of an open
// that a filter turns into a failure.
#include "io_testfilter.hpp"

#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace iotest {
namespace {

using Strings = std::vector<std::string>;
using Majors = std::vector<UCHAR>;

// The six share access flags of a file object as "RWD/rwd": access flags, then sharing flags, a '-'
// for each flag that is clear.
std::string ShareFlags(const FILE_OBJECT& fileObject)
{
    std::string text;
    text += fileObject.ReadAccess ? 'R' : '-';
    text += fileObject.WriteAccess ? 'W' : '-';
    text += fileObject.DeleteAccess ? 'D' : '-';
    text += '/';
    text += fileObject.SharedRead ? 'r' : '-';
    text += fileObject.SharedWrite ? 'w' : '-';
    text += fileObject.SharedDelete ? 'd' : '-';
    return text;
}

class PostCreateTest : public IoTest {};

// ---- share access ----

struct SharingSeen {
    std::string postCreate;
    std::string preCleanup;
};

SharingSeen& Sharing()
{
    static SharingSeen seen;
    return seen;
}

// Filter B sits above A and widens the sharing of opens of "widened.txt" to everything, as a filter
// that must let its own opens in beside the caller's does. Filter A reports what its post-create
// and pre-cleanup find in the file object.
void WatchShareAccess()
{
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE &&
            ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName) == "\\widened.txt") {
            data->Iopb->Parameters.Create.ShareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
            FltSetCallbackDataDirty(data);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CLEANUP) {
            Sharing().preCleanup = ShareFlags(*data->Iopb->TargetFileObject);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE && NT_SUCCESS(data->IoStatus.Status)) {
            Sharing().postCreate = ShareFlags(*data->Iopb->TargetFileObject);
        }
    };
}

TEST_F(PostCreateTest, FileObjectCarriesTheShareAccessTheFileSystemRecordedFromThePostCreateOn)
{
    WatchShareAccess();
    ASSERT_EQ(FilterB::Load(u"380000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    struct Case {
        const char16_t* path;
        ACCESS_MASK access;
        ULONG share;
        const char* expected;
    };
    const Case cases[] = {
        {u"\\??\\C:\\plain.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_SHARE_READ, "RW-/r--"},
        {u"\\??\\C:\\plain.txt", FILE_READ_DATA | DELETE, FILE_SHARE_READ | FILE_SHARE_DELETE, "R-D/r-d"},
        {u"\\??\\C:\\plain.txt", FILE_EXECUTE | SYNCHRONIZE, FILE_SHARE_WRITE, "R--/-w-"},
        {u"\\??\\C:\\plain.txt", FILE_APPEND_DATA | SYNCHRONIZE, 0, "-W-/---"},
        // Attributes alone take no part in share access: nothing is recorded, whatever the sharing.
        {u"\\??\\C:\\plain.txt", FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, "---/---"},
        // The file system records the sharing that reached it, not the caller's.
        {u"\\??\\C:\\widened.txt", FILE_GENERIC_READ, 0, "R--/rwd"},
    };
    for (const Case& test : cases) {
        Sharing() = SharingSeen{};
        Opened file = Open(test.path, test.access, test.share);
        ASSERT_EQ(file.status, STATUS_SUCCESS) << test.expected;
        EXPECT_EQ(Sharing().postCreate, test.expected);
        ASSERT_EQ(NtClose(file.handle), STATUS_SUCCESS);
        EXPECT_EQ(Sharing().preCleanup, test.expected) << "the flags stay for the later callbacks";
    }
}

TEST_F(PostCreateTest, OpenThatIgnoresShareAccessGetsInBesideAnExclusiveOneAndRecordsNoSharing)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);  // below A: sees the open made at A's instance
    Opened exclusive = Open(u"\\??\\C:\\held.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, 0);
    ASSERT_EQ(exclusive.status, STATUS_SUCCESS);

    static std::string seenBelow;
    FilterB::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            seenBelow = ShareFlags(*data->Iopb->TargetFileObject);
        }
    };
    HANDLE handle = nullptr;
    PFILE_OBJECT fileObject = nullptr;
    const ULONG shareReadWrite = FILE_SHARE_READ | FILE_SHARE_WRITE;
    EXPECT_EQ(OpenBelowA(u"\\??\\C:\\held.txt", FILE_GENERIC_READ, shareReadWrite, 0, &handle, &fileObject),
              STATUS_SHARING_VIOLATION);
    ASSERT_EQ(OpenBelowA(u"\\??\\C:\\held.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_SHARE_READ,
                         IO_IGNORE_SHARE_ACCESS_CHECK, &handle, &fileObject),
              STATUS_SUCCESS);
    EXPECT_EQ(seenBelow, "---/---");
    EXPECT_EQ(ShareFlags(*fileObject), "---/---");
    FltClose(handle);
    ObDereferenceObject(fileObject);

    // Without the flag, an attribute-only open still gets in; one that reads records its access.
    ASSERT_EQ(OpenBelowA(u"\\??\\C:\\held.txt", FILE_READ_ATTRIBUTES, shareReadWrite, 0, &handle, &fileObject),
              STATUS_SUCCESS);
    FltClose(handle);
    ObDereferenceObject(fileObject);
    seenBelow.clear();
    ASSERT_EQ(OpenBelowA(u"\\??\\C:\\other.txt", FILE_GENERIC_READ, FILE_SHARE_READ, 0, &handle, &fileObject,
                         FILE_OPEN_IF),
              STATUS_SUCCESS);
    EXPECT_EQ(seenBelow, "R--/r--");
    FltClose(handle);
    ObDereferenceObject(fileObject);
    NtClose(exclusive.handle);
}

// ---- the cancel of an open ----

using FilterC = TestFilter<2>;

// What a post-create of filter A does to a successful open of "\<target>": cancel it or not, set
// a status or not, keep a reference on the file object or not.
struct Refusal {
    std::string target;
    bool cancel = true;
    NTSTATUS status = STATUS_ACCESS_DENIED;  // STATUS_SUCCESS: the status is left as it is
    bool keepReference = false;
    PFILE_OBJECT kept = nullptr;
};

Refusal& Refuse()
{
    static Refusal refusal;
    return refusal;
}

class CancelTest : public PostCreateTest {
protected:
    void SetUp() override
    {
        PostCreateTest::SetUp();
        FilterC::Reset();
        Refuse() = Refusal{};
        FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID) {
            PFILE_OBJECT fileObject = data->Iopb->TargetFileObject;
            if (data->Iopb->MajorFunction != IRP_MJ_CREATE || data->IoStatus.Status != STATUS_SUCCESS ||
                ntsim::ToUtf8(fileObject->FileName) != "\\" + Refuse().target) {
                return;
            }
            if (Refuse().keepReference) {
                ObReferenceObject(fileObject);
                Refuse().kept = fileObject;
            }
            if (Refuse().cancel) {
                FltCancelFileOpen(objects->Instance, fileObject);
            }
            if (Refuse().status != STATUS_SUCCESS) {
                data->IoStatus.Status = Refuse().status;
                data->IoStatus.Information = 0;
            }
        };
        // C above A, B below it.
        ASSERT_EQ(FilterC::Load(u"380000"), STATUS_SUCCESS);
        ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
        ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    }

    // An open that shares nothing, and that A lets pass: it succeeds only when no other open
    // holds the file.
    NTSTATUS OpenExclusively(std::u16string_view path)
    {
        Refuse().target.clear();
        Opened file = Open(path, FILE_GENERIC_READ | FILE_GENERIC_WRITE, 0, FILE_OPEN);
        if (NT_SUCCESS(file.status)) {
            NtClose(file.handle);
        }
        return file.status;
    }
};

TEST_F(CancelTest, CancelledOpenIsCleanedUpAndClosedBelowTheCancellingFilterAndKeepsWhatItDid)
{
    Refuse().target = "created.txt";
    Opened file = Open(u"\\??\\C:\\created.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, 0, FILE_CREATE);
    EXPECT_EQ(file.status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(file.information, 0u);

    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_CREATE}));
    EXPECT_EQ(MajorsSeenBy('C'), (Majors{IRP_MJ_CREATE}));
    std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
    ASSERT_EQ(Sequence(IRP_MJ_CREATE), (Strings{"C pre", "A pre", "B pre", "B post", "A post", "C post"}));
    EXPECT_EQ(creates[3].status, STATUS_SUCCESS);
    EXPECT_EQ(creates[5].status, STATUS_ACCESS_DENIED) << "the filters above see the failure";

    EXPECT_TRUE(volume_->Exists(u"\\created.txt")) << "a cancel does not undo the create";
    EXPECT_EQ(volume_->HandleCount(u"\\created.txt"), 0u);
    EXPECT_EQ(volume_->OpenCount(), 0u) << "the close came with the last reference";
    EXPECT_EQ(OpenExclusively(u"\\??\\C:\\created.txt"), STATUS_SUCCESS) << "the share access was released";
}

TEST_F(CancelTest, CancelledDeleteOnCloseOpenDeletesTheFileWhenItsLastHandleGoes)
{
    volume_->SeedFile(u"\\doomed.txt", "x");
    const ULONG shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    Opened holder = Open(u"\\??\\C:\\doomed.txt", FILE_GENERIC_READ, shareAll, FILE_OPEN);
    ASSERT_EQ(holder.status, STATUS_SUCCESS);
    Refuse().target = "doomed.txt";

    Opened doomed = Open(u"\\??\\C:\\doomed.txt", DELETE | SYNCHRONIZE, shareAll, FILE_OPEN,
                         FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_EQ(doomed.status, STATUS_ACCESS_DENIED);
    Refuse().target.clear();
    EXPECT_TRUE(volume_->Exists(u"\\doomed.txt")) << "another handle is still open";
    EXPECT_EQ(Open(u"\\??\\C:\\doomed.txt", FILE_GENERIC_READ, shareAll, FILE_OPEN).status, STATUS_DELETE_PENDING);
    ASSERT_EQ(NtClose(holder.handle), STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\doomed.txt"));
}

TEST_F(CancelTest, ReferenceTakenInThePostCreateDelaysTheCloseOfACancelledOpen)
{
    Refuse().target = "kept.txt";
    Refuse().keepReference = true;
    Opened file = Open(u"\\??\\C:\\kept.txt");
    EXPECT_EQ(file.status, STATUS_ACCESS_DENIED);
    PFILE_OBJECT kept = Refuse().kept;
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP}));
    EXPECT_EQ(kept->Flags & (FO_FILE_OPEN_CANCELLED | FO_CLEANUP_COMPLETE | FO_FILE_OPEN | FO_HANDLE_CREATED),
              ULONG{FO_FILE_OPEN_CANCELLED | FO_CLEANUP_COMPLETE});
    EXPECT_EQ(volume_->OpenCount(), 1u);
    EXPECT_EQ(OpenExclusively(u"\\??\\C:\\kept.txt"), STATUS_SUCCESS) << "the cleanup released the share access";

    ClearEvents();
    ObDereferenceObject(kept);
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CLOSE}));
    EXPECT_TRUE(MajorsSeenBy('A').empty());
    EXPECT_EQ(volume_->OpenCount(), 0u);
}

TEST_F(CancelTest, FailingAnOpenWithoutCancellingItIsAVerifierErrorAndTheOpenIsCancelledForIt)
{
    Refuse().target = "forgot.txt";
    Refuse().cancel = false;
    ntsim::verifier::BugCheckCapture capture;
    Opened file = Open(u"\\??\\C:\\forgot.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, 0);
    EXPECT_EQ(file.status, STATUS_ACCESS_DENIED);
    const std::string detail = capture.ConsumeDetail("FLT_OPEN_FAILED_WITHOUT_CANCEL");
    EXPECT_NE(detail.find("TestFilterA"), std::string::npos) << detail;
    EXPECT_NE(detail.find("\\forgot.txt"), std::string::npos) << detail;
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    EXPECT_EQ(OpenExclusively(u"\\??\\C:\\forgot.txt"), STATUS_SUCCESS);

    // A failure from below is no post-create's doing.
    EXPECT_EQ(Open(u"\\??\\C:\\missing.txt", FILE_GENERIC_READ, 0, FILE_OPEN).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(capture.Count(), 0u);
}

TEST_F(CancelTest, CancelsThatWindowsRefusesAreVerifierErrors)
{
    ntsim::verifier::BugCheckCapture capture;

    // Cancelled, but left successful: the open fails all the same.
    Refuse().target = "unfailed.txt";
    Refuse().status = STATUS_SUCCESS;
    EXPECT_EQ(Open(u"\\??\\C:\\unfailed.txt").status, STATUS_CANCELLED);
    EXPECT_TRUE(capture.Consume("FLT_CANCELLED_OPEN_NOT_FAILED"));
    EXPECT_EQ(OpenExclusively(u"\\??\\C:\\unfailed.txt"), STATUS_SUCCESS);

    // In a pre-create nothing is open yet; the create goes on.
    static bool cancelled;
    cancelled = false;
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE) {
            FltCancelFileOpen(objects->Instance, data->Iopb->TargetFileObject);
            cancelled = true;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    Opened early = Open(u"\\??\\C:\\early.txt");
    EXPECT_EQ(early.status, STATUS_SUCCESS);
    EXPECT_TRUE(cancelled);
    EXPECT_NE(capture.ConsumeDetail("INVALID_CANCEL_OF_FILE_OPEN").find("outside the post-create"), std::string::npos);
    FilterB::script().pre = nullptr;

    // Once the open has a handle.
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(early.handle);
    ASSERT_NE(fileObject, nullptr);
    PFLT_INSTANCE instance = FilterA::Instance(u"C:");
    FltCancelFileOpen(instance, fileObject);
    EXPECT_NE(capture.ConsumeDetail("INVALID_CANCEL_OF_FILE_OPEN").find("has a handle"), std::string::npos);
    FltObjectDereference(instance);
    ObDereferenceObject(fileObject);
    NtClose(early.handle);

    // A create that the file system failed has nothing to cancel.
    FilterB::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE && !NT_SUCCESS(data->IoStatus.Status)) {
            FltCancelFileOpen(objects->Instance, data->Iopb->TargetFileObject);
        }
    };
    EXPECT_EQ(Open(u"\\??\\C:\\absent.txt", FILE_GENERIC_READ, 0, FILE_OPEN).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_NE(capture.ConsumeDetail("INVALID_CANCEL_OF_FILE_OPEN").find("did not open"), std::string::npos);
    EXPECT_EQ(capture.Count(), 0u);
}

// ---- what the create answered ----

TEST_F(PostCreateTest, PostCreateSeesTheInformationOfEachDisposition)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    struct Case {
        ULONG disposition;
        bool exists;
        ULONG_PTR information;
    };
    // One case per answer: which disposition gives which is the file system's, tested with it.
    const Case cases[] = {{FILE_SUPERSEDE, true, FILE_SUPERSEDED}, {FILE_OPEN_IF, true, FILE_OPENED},
                          {FILE_OPEN_IF, false, FILE_CREATED},     {FILE_OVERWRITE, true, FILE_OVERWRITTEN}};
    for (const Case& test : cases) {
        const std::string label =
            "disposition " + std::to_string(test.disposition) + (test.exists ? ", existing" : ", new");
        if (test.exists) {
            volume_->SeedFile(u"\\subject.txt", "old");
        } else if (volume_->Exists(u"\\subject.txt")) {
            volume_->SeedRemove(u"\\subject.txt");
        }
        ClearEvents();
        Opened file = Open(u"\\??\\C:\\subject.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, 0, test.disposition);
        ASSERT_EQ(file.status, STATUS_SUCCESS) << label;
        EXPECT_EQ(file.information, test.information) << label;
        std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
        ASSERT_EQ(creates.size(), 2u) << label;
        EXPECT_EQ(creates[1].status, STATUS_SUCCESS) << label;
        EXPECT_EQ(creates[1].information, test.information) << label;
        NtClose(file.handle);
    }

    // A target-directory open says whether the last component exists.
    for (bool exists : {true, false}) {
        if (!exists) {
            volume_->SeedRemove(u"\\subject.txt");
        }
        ClearEvents();
        ntsim::UnicodeStringHolder name(u"\\??\\C:\\subject.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
        IO_STATUS_BLOCK ioStatus{};
        HANDLE handle = nullptr;
        ASSERT_EQ(FltCreateFile(FilterA::script().filter, nullptr, &handle, FILE_WRITE_DATA | SYNCHRONIZE, &attributes,
                                &ioStatus, nullptr, 0, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, 0, nullptr, 0,
                                IO_OPEN_TARGET_DIRECTORY),
                  STATUS_SUCCESS);
        const ULONG_PTR expected = exists ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
        EXPECT_EQ(ioStatus.Information, expected);
        ASSERT_EQ(EventsOf(IRP_MJ_CREATE).size(), 2u);
        EXPECT_EQ(EventsOf(IRP_MJ_CREATE)[1].information, expected);
        FltClose(handle);
    }
}

// What the post-create of filter A sees of a create answered with STATUS_REPARSE.
struct ReparseSeen {
    ULONG_PTR information = 0;
    bool tagData = false;
    ULONG fileTag = 0;
    USHORT unparsedNameLength = 0;
    std::string substituteName;
    std::vector<UCHAR> data;
};

std::vector<ReparseSeen>& Reparses()
{
    static std::vector<ReparseSeen> seen;
    return seen;
}

void WatchReparses()
{
    Reparses().clear();
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE || data->IoStatus.Status != STATUS_REPARSE) {
            return;
        }
        ReparseSeen seen{.information = data->IoStatus.Information};
        if (const FLT_TAG_DATA_BUFFER* tag = data->TagData) {
            seen.tagData = true;
            seen.fileTag = tag->FileTag;
            seen.unparsedNameLength = tag->UnparsedNameLength;
            const auto* bytes = tag->GenericReparseBuffer.DataBuffer;
            seen.data.assign(bytes, bytes + tag->TagDataLength);
            if (tag->FileTag == IO_REPARSE_TAG_MOUNT_POINT) {
                const auto& mountPoint = tag->MountPointReparseBuffer;
                std::u16string name(mountPoint.SubstituteNameLength / sizeof(WCHAR), u'\0');
                std::memcpy(name.data(),
                            reinterpret_cast<const UCHAR*>(mountPoint.PathBuffer) + mountPoint.SubstituteNameOffset,
                            mountPoint.SubstituteNameLength);
                seen.substituteName = ntsim::ToUtf8(name);
            }
        }
        Reparses().push_back(seen);
    };
}

std::string ReadAll(HANDLE handle)
{
    char buffer[64] = {};
    IO_STATUS_BLOCK ioStatus{};
    const NTSTATUS status =
        NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), nullptr, nullptr);
    if (!NT_SUCCESS(status)) {
        return "(read failed)";
    }
    return std::string(buffer, ioStatus.Information);
}

TEST_F(PostCreateTest, JunctionOnTheWayAnswersWithItsReparsePointAndTheOpenFollowsIt)
{
    volume_->SeedFile(u"\\real\\file.txt", "behind the junction");
    volume_->SeedJunction(u"\\link", u"\\??\\C:\\real");
    WatchReparses();
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\link\\file.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(file.information, ULONG_PTR{FILE_OPENED});
    EXPECT_EQ(ReadAll(file.handle), "behind the junction");
    NtClose(file.handle);

    ASSERT_EQ(Reparses().size(), 1u);
    const ReparseSeen& seen = Reparses()[0];
    EXPECT_EQ(seen.information, ULONG_PTR{IO_REPARSE_TAG_MOUNT_POINT});
    ASSERT_TRUE(seen.tagData);
    EXPECT_EQ(seen.fileTag, ULONG{IO_REPARSE_TAG_MOUNT_POINT});
    EXPECT_EQ(seen.unparsedNameLength, sizeof(u"\\file.txt") - sizeof(WCHAR)) << "what follows the junction";
    EXPECT_EQ(seen.substituteName, "\\??\\C:\\real");
    std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 4u);
    EXPECT_EQ(creates[0].fileName, "\\link\\file.txt");
    EXPECT_EQ(creates[3].fileName, "\\real\\file.txt");
    EXPECT_EQ(creates[3].status, STATUS_SUCCESS);

    // As the last component the junction answers too, with nothing left unparsed. (That
    // FILE_OPEN_REPARSE_POINT opens the point itself is pinned with the unhandled tag below.)
    Reparses().clear();
    Opened through = Open(u"\\??\\C:\\link", FILE_READ_ATTRIBUTES | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(through.status, STATUS_SUCCESS);
    NtClose(through.handle);
    ASSERT_EQ(Reparses().size(), 1u);
    EXPECT_EQ(Reparses()[0].unparsedNameLength, 0u);

    // The fast attribute query gives way to an open that follows the junction.
    ntsim::UnicodeStringHolder name(u"\\??\\C:\\link\\file.txt");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(NtQueryFullAttributesFile(&attributes, &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 19);
}

TEST_F(PostCreateTest, ReparsePointThatNobodyHandlesFailsTheOpenAfterThePostCreatesSawIt)
{
    volume_->SeedFile(u"\\placeholder.txt", "stub");
    constexpr ULONG kTag = 0x9000301A;  // a tag of a third party's filter, not loaded here
    volume_->SeedReparsePoint(u"\\placeholder.txt", kTag, {1, 2, 3});
    WatchReparses();
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);

    Opened file = Open(u"\\??\\C:\\placeholder.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    EXPECT_EQ(file.status, STATUS_IO_REPARSE_TAG_NOT_HANDLED);
    EXPECT_EQ(file.information, 0u);
    ASSERT_EQ(Reparses().size(), 1u);
    EXPECT_EQ(Reparses()[0].information, ULONG_PTR{kTag});
    EXPECT_EQ(Reparses()[0].fileTag, kTag);
    EXPECT_EQ(Reparses()[0].data, (std::vector<UCHAR>{1, 2, 3}));

    Opened itself = Open(u"\\??\\C:\\placeholder.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN,
                         FILE_OPEN_REPARSE_POINT | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(itself.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(itself.handle), "stub");
    FILE_ATTRIBUTE_TAG_INFORMATION tag{};
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtQueryInformationFile(itself.handle, &ioStatus, &tag, sizeof(tag), FileAttributeTagInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(tag.ReparseTag, kTag);
    EXPECT_NE(tag.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT, 0u);
    NtClose(itself.handle);
}

TEST_F(PostCreateTest, ReparseFromALowerFilterReachesThePostCreatesAbove)
{
    volume_->SeedFile(u"\\target.txt", "redirected");
    volume_->SeedFile(u"\\after.txt", "redirected late");
    WatchReparses();
    // B, below A, sends "before.txt" elsewhere in its pre-create, and "opened.txt" in its post-create
    // once the file system has opened it.
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE &&
            ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName) == "\\before.txt") {
            Redirect(data, u"\\??\\C:\\target.txt");
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    FilterB::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE && data->IoStatus.Status == STATUS_SUCCESS &&
            ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName) == "\\opened.txt") {
            FltCancelFileOpen(objects->Instance, data->Iopb->TargetFileObject);
            Redirect(data, u"\\??\\C:\\after.txt");
        }
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    ntsim::pool::Checkpoint checkpoint;

    Opened early = Open(u"\\??\\C:\\before.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(early.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(early.handle), "redirected");
    NtClose(early.handle);

    Opened late = Open(u"\\??\\C:\\opened.txt", FILE_GENERIC_READ, 0, FILE_OPEN_IF);
    ASSERT_EQ(late.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(late.handle), "redirected late");
    NtClose(late.handle);
    EXPECT_EQ(volume_->HandleCount(u"\\opened.txt"), 0u) << "the open that B redirected was cleaned up";

    ASSERT_EQ(Reparses().size(), 2u);
    for (const ReparseSeen& seen : Reparses()) {
        EXPECT_EQ(seen.information, ULONG_PTR{IO_REPARSE});
        EXPECT_FALSE(seen.tagData) << "a filter's re-parse carries no reparse point";
    }
    EXPECT_TRUE(checkpoint.Verify("re-parsed creates"));
}

}  // namespace
}  // namespace iotest
