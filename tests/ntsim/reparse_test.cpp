// The re-parse of a create that a filter completes with STATUS_REPARSE and IO_REPARSE, as a
// redirecting filter relies on it: the new name is read by its Length and parsed again from the
// root, also for an open relative to a directory handle (so a name left as the pre-create found it,
// the rest of the path on the volume, names nothing there); each pass has a new file object and
// starts at the top of the stack; the filters above see the re-parse in their post-callbacks.
#include "io_testfilter.hpp"

#include <ntsim/sim/pool.hpp>

#include <cstring>

namespace iotest {
namespace {

using Strings = std::vector<std::string>;

// Gives the create's file object the name `target` in a buffer of `spare` more bytes than the name,
// which are left as garbage, and completes the create with STATUS_REPARSE / IO_REPARSE. The old
// buffer is freed and the new one, untagged, goes to the I/O manager.
void RedirectTo(PFLT_CALLBACK_DATA data, std::u16string_view target, USHORT spare)
{
    PFILE_OBJECT fileObject = data->Iopb->TargetFileObject;
    const USHORT bytes = static_cast<USHORT>(target.size() * sizeof(WCHAR));
    auto* buffer = static_cast<UCHAR*>(ExAllocatePool(NonPagedPoolNx, bytes + spare));
    ASSERT_NE(buffer, nullptr);
    std::memcpy(buffer, target.data(), bytes);
    std::memset(buffer + bytes, 'x', spare);
    ExFreePoolWithTag(fileObject->FileName.Buffer, 0);
    fileObject->FileName.Buffer = reinterpret_cast<PWCH>(buffer);
    fileObject->FileName.Length = bytes;
    fileObject->FileName.MaximumLength = static_cast<USHORT>(bytes + spare);
    data->IoStatus.Status = STATUS_REPARSE;
    data->IoStatus.Information = IO_REPARSE;
}

class ReparseTest : public IoTest {
protected:
    static inline std::vector<PFILE_OBJECT> fileObjects;

    void SetUp() override
    {
        IoTest::SetUp();
        fileObjects.clear();
        volume_->SeedFile(u"\\target.txt", "the target");
        volume_->SeedFile(u"\\dir\\source.txt", "the source");
    }

    std::string ReadAll(HANDLE handle)
    {
        char buffer[64] = {};
        IO_STATUS_BLOCK ioStatus{};
        LARGE_INTEGER at{};
        NTSTATUS status =
            NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), &at, nullptr);
        return NT_SUCCESS(status) ? std::string(buffer, ioStatus.Information) : "failed";
    }
};

TEST_F(ReparseTest, NewNameIsReadByItsLengthAndParsedFromTheRootForARelativeOpenToo)
{
    // B redirects every open of source.txt; its buffer has two bytes more than the name.
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE &&
            ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName).ends_with("source.txt")) {
            RedirectTo(data, u"\\??\\C:\\target.txt", 2);
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    ntsim::pool::Checkpoint checkpoint;

    Opened absolute = Open(u"\\??\\C:\\dir\\source.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(absolute.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(absolute.handle), "the target");
    NtClose(absolute.handle);

    Opened directory = Open(u"\\??\\C:\\dir", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN,
                            FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(directory.status, STATUS_SUCCESS);
    ClearEvents();
    Opened relative =
        Open(u"source.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, directory.handle);
    ASSERT_EQ(relative.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(relative.handle), "the target");
    const std::vector<Event> creates = EventsOf(IRP_MJ_CREATE);
    ASSERT_EQ(creates.size(), 6u);
    EXPECT_EQ(creates[0].fileName, "source.txt") << "relative to the directory's file object";
    EXPECT_EQ(creates[2].status, STATUS_REPARSE) << "A's post sees the re-parse";
    EXPECT_EQ(creates[3].fileName, "\\target.txt") << "the second pass, from the top, on the volume's root";
    NtClose(relative.handle);
    NtClose(directory.handle);
    EXPECT_TRUE(checkpoint.Verify("redirected opens")) << "each replaced name is freed with its file object";
}

TEST_F(ReparseTest, NameIsParsedAgainFromTheRootWithANewFileObjectEachTime)
{
    // B answers the first two passes of an open with STATUS_REPARSE, and lets the third go. It
    // either leaves the file object's name as it stands, or puts the file's full name back.
    static int passes;
    static bool keepName;
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_CREATE) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        fileObjects.push_back(data->Iopb->TargetFileObject);
        if (++passes > 2) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        if (keepName) {
            data->IoStatus.Status = STATUS_REPARSE;
            data->IoStatus.Information = IO_REPARSE;
        } else {
            RedirectTo(data, u"\\??\\C:\\dir\\source.txt", 0);
        }
        return FLT_PREOP_COMPLETE;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);

    // The name a pre-create finds is the rest of the path on the volume: parsed again from the
    // root of the namespace, it names nothing, and the open fails there.
    passes = 0;
    keepName = true;
    Opened unchanged = Open(u"\\??\\C:\\dir\\source.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    EXPECT_EQ(unchanged.status, STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Sequence(IRP_MJ_CREATE), (Strings{"A pre", "B pre", "A post"}));
    EXPECT_EQ(volume_->OpenCount(), 0u);

    passes = 0;
    keepName = false;
    fileObjects.clear();
    ClearEvents();
    Opened file = Open(u"\\??\\C:\\dir\\source.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    EXPECT_EQ(ReadAll(file.handle), "the source");
    EXPECT_EQ(Sequence(IRP_MJ_CREATE),
              (Strings{"A pre", "B pre", "A post", "A pre", "B pre", "A post", "A pre", "B pre", "A post"}));
    for (const Event& event : EventsOf(IRP_MJ_CREATE)) {
        if (!event.post) {
            EXPECT_EQ(event.fileName, "\\dir\\source.txt") << "each pass parses the name to the volume";
        }
    }
    ASSERT_EQ(fileObjects.size(), 3u);
    EXPECT_EQ(ntsim::ReferenceFileObjectByHandle(file.handle), fileObjects[2]);
    ObDereferenceObject(fileObjects[2]);
    NtClose(file.handle);
}

TEST_F(ReparseTest, NameThatIsNotAbsoluteOrNamesNothingFailsTheOpen)
{
    static std::u16string target;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_CREATE &&
            ntsim::ToUtf8(data->Iopb->TargetFileObject->FileName) == "\\dir\\source.txt") {
            RedirectTo(data, target, 0);
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    struct Case {
        std::u16string target;
        NTSTATUS status;
    };
    const Case cases[] = {
        {u"target.txt", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\??\\C:\\missing.txt", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\??\\Q:\\target.txt", STATUS_OBJECT_PATH_NOT_FOUND},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(ntsim::ToUtf8(test.target));
        target = test.target;
        Opened file = Open(u"\\??\\C:\\dir\\source.txt", FILE_GENERIC_READ, FILE_SHARE_READ, FILE_OPEN);
        EXPECT_EQ(file.status, test.status);
        EXPECT_EQ(volume_->OpenCount(), 0u);
    }
}

}  // namespace
}  // namespace iotest
