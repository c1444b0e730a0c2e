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

class PostCreateTest : public IoTest {
protected:
    // Opens through FltCreateFileEx at the instance of filter A (kernel handle, file object referenced).
    NTSTATUS OpenBelowA(std::u16string_view path, ACCESS_MASK access, ULONG share, ULONG flags, HANDLE* handle,
                        PFILE_OBJECT* fileObject)
    {
        PFLT_INSTANCE instance = FilterA::Instance(u"C:");
        EXPECT_NE(instance, nullptr);
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        IO_STATUS_BLOCK ioStatus{};
        NTSTATUS status = FltCreateFileEx(FilterA::script().filter, instance, handle, fileObject, access, &attributes,
                                          &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL, share, FILE_OPEN_IF, 0, nullptr,
                                          0, flags);
        FltObjectDereference(instance);
        return status;
    }
};

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

TEST_F(PostCreateTest, OpenThatIgnoresShareAccessRecordsNoneInItsFileObject)
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
    ASSERT_EQ(OpenBelowA(u"\\??\\C:\\held.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_SHARE_READ,
                         IO_IGNORE_SHARE_ACCESS_CHECK, &handle, &fileObject),
              STATUS_SUCCESS);
    EXPECT_EQ(seenBelow, "---/---");
    EXPECT_EQ(ShareFlags(*fileObject), "---/---");
    FltClose(handle);
    ObDereferenceObject(fileObject);

    seenBelow.clear();
    ASSERT_EQ(OpenBelowA(u"\\??\\C:\\other.txt", FILE_GENERIC_READ, FILE_SHARE_READ, 0, &handle, &fileObject),
              STATUS_SUCCESS);
    EXPECT_EQ(seenBelow, "R--/r--") << "the same open without the flag records its share access";
    FltClose(handle);
    ObDereferenceObject(fileObject);
    NtClose(exclusive.handle);
}

}  // namespace
}  // namespace iotest
