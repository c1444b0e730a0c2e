// Set information as filters see it: the target of a rename or link and the directory opened for
// it, the Ex forms and their flags, the checks before any filter, dispositions, size changes through
// the stack and the cache, and a rename issued below an instance.
#include "io_testfilter.hpp"

#include <cstring>

namespace iotest {
namespace {

using Majors = std::vector<UCHAR>;

// What a filter saw of one set-information request.
struct SetInfoSeen {
    char filter = '?';
    bool post = false;
    FILE_INFORMATION_CLASS infoClass{};
    PFILE_OBJECT parentOfTarget = nullptr;
    std::string parentName;  // ParentOfTarget->FileName
    BOOLEAN replaceIfExists = FALSE;
    HANDLE deleteHandle = nullptr;
    std::vector<UCHAR> buffer;
    BOOLEAN deletePending = FALSE;  // the target file object's, in the post-callback
};

// Builds the record of a rename or link: the plain classes get ReplaceIfExists, the Ex ones Flags.
std::vector<UCHAR> RenameRecord(std::u16string_view target, ULONG flags, HANDLE root = nullptr, bool ex = false)
{
    const size_t nameBytes = target.size() * sizeof(WCHAR);
    std::vector<UCHAR> buffer(
        std::max<size_t>(sizeof(FILE_RENAME_INFORMATION), FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + nameBytes));
    auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
    if (ex) {
        rename->Flags = flags;
    } else {
        rename->ReplaceIfExists = flags != 0;
    }
    rename->RootDirectory = root;
    rename->FileNameLength = static_cast<ULONG>(nameBytes);
    std::memcpy(rename->FileName, target.data(), nameBytes);
    return buffer;
}

template <typename Record>
std::vector<UCHAR> Bytes(const Record& record)
{
    std::vector<UCHAR> buffer(sizeof(Record));
    std::memcpy(buffer.data(), &record, sizeof(Record));
    return buffer;
}

class SetInformationTest : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        WatchSetInformation<FilterA>();
        WatchSetInformation<FilterB>();
    }

    // Records what the filter sees of set-information requests and of target-directory opens.
    template <typename Filter>
    void WatchSetInformation()
    {
        Filter::script().pre = [this](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            Note(Filter::kName, false, data);
            if (preHook_ && Filter::kName == hookedFilter_) {
                return preHook_(data);
            }
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        };
        Filter::script().post = [this](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
            Note(Filter::kName, true, data);
        };
    }

    void Note(char filter, bool post, PFLT_CALLBACK_DATA data)
    {
        const FLT_IO_PARAMETER_BLOCK& iopb = *data->Iopb;
        if (iopb.MajorFunction == IRP_MJ_CREATE && !post && (iopb.OperationFlags & SL_OPEN_TARGET_DIRECTORY) != 0) {
            targetOpens_.push_back(iopb.TargetFileObject);
            targetOpenModes_.push_back(data->RequestorMode);
        }
        if (iopb.MajorFunction == IRP_MJ_WRITE && !post) {
            writes_.push_back({iopb.Parameters.Write.ByteOffset.QuadPart, iopb.Parameters.Write.Length});
        }
        if (iopb.MajorFunction != IRP_MJ_SET_INFORMATION) {
            return;
        }
        const auto& set = iopb.Parameters.SetFileInformation;
        SetInfoSeen seen;
        seen.filter = filter;
        seen.post = post;
        seen.infoClass = set.FileInformationClass;
        seen.parentOfTarget = set.ParentOfTarget;
        if (set.ParentOfTarget != nullptr) {
            seen.parentName = ntsim::ToUtf8(set.ParentOfTarget->FileName);
        }
        if (set.FileInformationClass == FileDispositionInformation) {
            seen.deleteHandle = set.DeleteHandle;
        } else {
            seen.replaceIfExists = set.ReplaceIfExists;  // meaningful for renames and links
        }
        const auto* bytes = static_cast<const UCHAR*>(set.InfoBuffer);
        seen.buffer.assign(bytes, bytes + set.Length);
        seen.deletePending = iopb.TargetFileObject->DeletePending;
        seen_.push_back(std::move(seen));
    }

    // The pre-callbacks of one filter.
    std::vector<SetInfoSeen> PreSeenBy(char filter) const
    {
        std::vector<SetInfoSeen> result;
        for (const SetInfoSeen& seen : seen_) {
            if (seen.filter == filter && !seen.post) {
                result.push_back(seen);
            }
        }
        return result;
    }

    void Forget()
    {
        ClearEvents();
        seen_.clear();
        writes_.clear();
        targetOpens_.clear();
        targetOpenModes_.clear();
    }

    NTSTATUS Set(HANDLE handle, FILE_INFORMATION_CLASS infoClass, std::vector<UCHAR> buffer,
                 std::optional<ULONG> length = std::nullopt)
    {
        IO_STATUS_BLOCK ioStatus{};
        return NtSetInformationFile(handle, &ioStatus, buffer.data(),
                                    length.value_or(static_cast<ULONG>(buffer.size())), infoClass);
    }

    NTSTATUS Rename(HANDLE handle, std::u16string_view target, ULONG flags = 0, HANDLE root = nullptr,
                    FILE_INFORMATION_CLASS infoClass = FileRenameInformation)
    {
        const bool ex = infoClass == FileRenameInformationEx || infoClass == FileLinkInformationEx;
        return Set(handle, infoClass, RenameRecord(target, flags, root, ex));
    }

    NTSTATUS Dispose(HANDLE handle, ULONG flags)
    {
        FILE_DISPOSITION_INFORMATION_EX disposition{flags};
        return Set(handle, FileDispositionInformationEx, Bytes(disposition));
    }

    FILE_STANDARD_INFORMATION Standard(HANDLE handle)
    {
        FILE_STANDARD_INFORMATION standard{};
        IO_STATUS_BLOCK ioStatus{};
        EXPECT_EQ(NtQueryInformationFile(handle, &ioStatus, &standard, sizeof(standard), FileStandardInformation),
                  STATUS_SUCCESS);
        return standard;
    }

    HANDLE MustOpen(std::u16string_view path, ACCESS_MASK access, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT,
                    ULONG disposition = FILE_OPEN)
    {
        Opened opened = Open(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                             options);
        EXPECT_EQ(opened.status, STATUS_SUCCESS) << ntsim::ToUtf8(path);
        return opened.handle;
    }

    std::vector<SetInfoSeen> seen_;
    std::vector<std::pair<LONGLONG, ULONG>> writes_;  // offset and length of each write a filter saw
    std::vector<PFILE_OBJECT> targetOpens_;
    std::vector<KPROCESSOR_MODE> targetOpenModes_;
    char hookedFilter_ = 'A';
    std::function<FLT_PREOP_CALLBACK_STATUS(PFLT_CALLBACK_DATA)> preHook_;
};

TEST_F(SetInformationTest, RenameTargetComesFromAFullPathARootDirectoryOrTheSourcesOwnDirectory)
{
    volume_->SeedFile(u"\\a\\one.txt", "1");
    volume_->SeedDirectory(u"\\a\\sub");
    volume_->SeedDirectory(u"\\b");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\a\\one.txt", DELETE | SYNCHRONIZE);
    HANDLE directory = MustOpen(u"\\??\\C:\\a", FILE_LIST_DIRECTORY | SYNCHRONIZE,
                                FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);

    // A full path in device form: the target's directory is opened first, through the stack.
    Forget();
    ASSERT_EQ(Rename(file, u"\\Device\\HarddiskVolume2\\b\\two.txt"), STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\b\\two.txt"));
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_CREATE, IRP_MJ_SET_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    ASSERT_EQ(PreSeenBy('A').size(), 1u);
    ASSERT_EQ(targetOpens_.size(), 1u);
    EXPECT_EQ(PreSeenBy('A')[0].parentOfTarget, targetOpens_[0]);
    EXPECT_EQ(PreSeenBy('A')[0].parentName, "two.txt");
    EXPECT_EQ(targetOpenModes_[0], UserMode);

    // Relative to a directory handle, with a path below it.
    Forget();
    ASSERT_EQ(Rename(file, u"sub\\three.txt", 0, directory), STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\a\\sub\\three.txt"));
    ASSERT_EQ(PreSeenBy('A').size(), 1u);
    EXPECT_NE(PreSeenBy('A')[0].parentOfTarget, nullptr);
    EXPECT_EQ(PreSeenBy('A')[0].parentName, "three.txt");

    // A bare name stays in the source's directory: nothing is opened, ParentOfTarget is null.
    Forget();
    ASSERT_EQ(Rename(file, u"four.txt"), STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\a\\sub\\four.txt"));
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_SET_INFORMATION}));
    EXPECT_EQ(PreSeenBy('A')[0].parentOfTarget, nullptr);

    // A path that is neither full nor relative to a handle is no name the file system takes.
    Forget();
    EXPECT_EQ(Rename(file, u"sub\\five.txt"), STATUS_OBJECT_NAME_INVALID);
    EXPECT_TRUE(volume_->Exists(u"\\a\\sub\\four.txt"));
    EXPECT_TRUE(targetOpens_.empty());

    // A target directory that does not exist fails the open, and the request never starts.
    Forget();
    EXPECT_EQ(Rename(file, u"\\??\\C:\\nowhere\\six.txt"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_TRUE(PreSeenBy('A').empty());
    EXPECT_EQ(targetOpens_.size(), 1u);

    NtClose(directory);
    NtClose(file);
}

TEST_F(SetInformationTest, TargetOnAnotherVolumeIsRefusedAfterItsDirectoryIsClosedAgain)
{
    auto other = ntsim::CreateNtfsVolume(u"\\Device\\HarddiskVolume3");
    ASSERT_EQ(ntsim::MountVolume(other, u"D:"), STATUS_SUCCESS);
    other->SeedDirectory(u"\\dest");
    volume_->SeedFile(u"\\here.txt", "x");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\here.txt", DELETE | SYNCHRONIZE);
    Forget();
    EXPECT_EQ(Rename(file, u"\\??\\D:\\dest\\there.txt"), STATUS_NOT_SAME_DEVICE);
    EXPECT_EQ(Rename(file, u"\\??\\D:\\dest\\there.txt", 0, nullptr, FileLinkInformation), STATUS_NOT_SAME_DEVICE);
    EXPECT_TRUE(PreSeenBy('A').empty());
    EXPECT_EQ(other->OpenCount(), 0u) << "the target directory on the other volume was left open";
    EXPECT_TRUE(volume_->Exists(u"\\here.txt"));
    NtClose(file);
    ASSERT_EQ(ntsim::DismountVolume(u"\\Device\\HarddiskVolume3"), STATUS_SUCCESS);
}

TEST_F(SetInformationTest, ExRenameReadsItsFlagsWordForReplacePosixAndReadOnlyTargets)
{
    volume_->SeedFile(u"\\source.txt", "new");
    volume_->SeedFile(u"\\target.txt", "old");
    volume_->SeedFile(u"\\readonly.txt", "kept", FILE_ATTRIBUTE_READONLY);
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE source = MustOpen(u"\\??\\C:\\source.txt", DELETE | FILE_READ_DATA | SYNCHRONIZE);
    Forget();

    EXPECT_EQ(Rename(source, u"\\??\\C:\\target.txt", 0, nullptr, FileRenameInformationEx),
              STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(PreSeenBy('A').size(), 1u);
    EXPECT_EQ(PreSeenBy('A')[0].infoClass, FileRenameInformationEx);
    EXPECT_EQ(PreSeenBy('A')[0].replaceIfExists, FALSE);
    EXPECT_NE(PreSeenBy('A')[0].parentOfTarget, nullptr) << "the Ex form is resolved like the plain one";

    // A target that another handle holds open is replaced only with POSIX semantics.
    HANDLE holder = MustOpen(u"\\??\\C:\\target.txt", FILE_READ_DATA | SYNCHRONIZE);
    Forget();
    EXPECT_EQ(Rename(source, u"\\??\\C:\\target.txt", FILE_RENAME_REPLACE_IF_EXISTS, nullptr, FileRenameInformationEx),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(PreSeenBy('A')[0].replaceIfExists, TRUE);
    ASSERT_EQ(Rename(source, u"\\??\\C:\\target.txt", FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_POSIX_SEMANTICS,
                     nullptr, FileRenameInformationEx),
              STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\target.txt"), "new");
    EXPECT_FALSE(volume_->Exists(u"\\source.txt"));
    NtClose(holder);

    // A read-only target is replaced only when its attribute is ignored.
    EXPECT_EQ(Rename(source, u"readonly.txt", FILE_RENAME_REPLACE_IF_EXISTS, nullptr, FileRenameInformationEx),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(volume_->Content(u"\\readonly.txt"), "kept");
    ASSERT_EQ(Rename(source, u"readonly.txt", FILE_RENAME_REPLACE_IF_EXISTS | FILE_RENAME_IGNORE_READONLY_ATTRIBUTE,
                     nullptr, FileRenameInformationEx),
              STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\readonly.txt"), "new");
    EXPECT_FALSE(volume_->Exists(u"\\target.txt"));
    NtClose(source);
}

TEST_F(SetInformationTest, ExLinkAddsANameWithTheFlagsOfItsWordAndNeedsNoAccessOnTheSource)
{
    volume_->SeedFile(u"\\file.txt", "shared");
    volume_->SeedFile(u"\\taken.txt", "other");
    volume_->SeedDirectory(u"\\links");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\file.txt", FILE_READ_ATTRIBUTES | SYNCHRONIZE);
    Forget();

    ASSERT_EQ(Rename(file, u"\\??\\C:\\links\\second.txt", 0, nullptr, FileLinkInformationEx), STATUS_SUCCESS);
    EXPECT_EQ(volume_->LinkCount(u"\\file.txt"), 2u);
    EXPECT_EQ(volume_->Content(u"\\links\\second.txt"), "shared");
    ASSERT_EQ(PreSeenBy('A').size(), 1u);
    EXPECT_EQ(PreSeenBy('A')[0].infoClass, FileLinkInformationEx);
    EXPECT_EQ(PreSeenBy('A')[0].parentName, "second.txt");

    EXPECT_EQ(Rename(file, u"taken.txt", 0, nullptr, FileLinkInformationEx), STATUS_OBJECT_NAME_COLLISION);
    ASSERT_EQ(Rename(file, u"taken.txt", FILE_LINK_REPLACE_IF_EXISTS, nullptr, FileLinkInformationEx), STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\taken.txt"), "shared");
    EXPECT_EQ(volume_->LinkCount(u"\\file.txt"), 3u);
    NtClose(file);
}

TEST_F(SetInformationTest, AccessAndLengthsAreCheckedBeforeAnyFilterSeesTheRequest)
{
    volume_->SeedFile(u"\\file.txt", "0123");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE reader = MustOpen(u"\\??\\C:\\file.txt", FILE_READ_DATA | SYNCHRONIZE);
    HANDLE deleter = MustOpen(u"\\??\\C:\\file.txt", DELETE | FILE_WRITE_DATA | SYNCHRONIZE);
    Forget();

    EXPECT_EQ(Rename(reader, u"renamed.txt"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Rename(reader, u"renamed.txt", 0, nullptr, FileRenameInformationEx), STATUS_ACCESS_DENIED);
    EXPECT_EQ(Dispose(reader, FILE_DISPOSITION_DELETE), STATUS_ACCESS_DENIED);
    FILE_END_OF_FILE_INFORMATION endOfFile{};
    EXPECT_EQ(Set(reader, FileEndOfFileInformation, Bytes(endOfFile)), STATUS_ACCESS_DENIED);

    // A record shorter than its class's fixed part, or a name that runs past the buffer.
    std::vector<UCHAR> rename = RenameRecord(u"renamed.txt", 0);
    EXPECT_EQ(Set(deleter, FileRenameInformationEx, rename, FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName)),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(Set(deleter, FileRenameInformation, rename, static_cast<ULONG>(rename.size()) - 2),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Set(deleter, FileDispositionInformationEx, Bytes(FILE_DISPOSITION_INFORMATION_EX{1}), 1),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(Set(deleter, FileEndOfFileInformation, Bytes(endOfFile), 4), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_TRUE(MajorsSeenBy('A').empty());
    EXPECT_EQ(volume_->Content(u"\\file.txt"), "0123");
    EXPECT_FALSE(Standard(deleter).DeletePending);
    NtClose(reader);
    NtClose(deleter);
}

TEST_F(SetInformationTest, DispositionIsSetAndClearedOnTheFileObjectAndReachesTheFilterWithItsHandle)
{
    volume_->SeedFile(u"\\doomed.txt", "x");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE deleter = MustOpen(u"\\??\\C:\\doomed.txt", DELETE | SYNCHRONIZE);
    HANDLE reader = MustOpen(u"\\??\\C:\\doomed.txt", FILE_READ_DATA | SYNCHRONIZE);
    Forget();

    FILE_DISPOSITION_INFORMATION disposition{TRUE};
    ASSERT_EQ(Set(deleter, FileDispositionInformation, Bytes(disposition)), STATUS_SUCCESS);
    EXPECT_TRUE(Standard(reader).DeletePending);
    ASSERT_EQ(seen_.size(), 2u);
    EXPECT_EQ(seen_[0].deleteHandle, deleter);
    EXPECT_EQ(seen_[0].buffer, (std::vector<UCHAR>{1}));
    EXPECT_TRUE(seen_[1].post);
    EXPECT_TRUE(seen_[1].deletePending) << "the file object is delete pending once the file system agreed";

    Forget();
    disposition.DeleteFile = FALSE;
    ASSERT_EQ(Set(deleter, FileDispositionInformation, Bytes(disposition)), STATUS_SUCCESS);
    EXPECT_FALSE(Standard(reader).DeletePending);
    EXPECT_FALSE(seen_[1].deletePending);
    NtClose(deleter);
    NtClose(reader);
    EXPECT_TRUE(volume_->Exists(u"\\doomed.txt")) << "the last state of the disposition counts";
}

TEST_F(SetInformationTest, ExDispositionRefusesAReadOnlyFileUnlessTheAttributeIsIgnored)
{
    volume_->SeedFile(u"\\readonly.txt", "r", FILE_ATTRIBUTE_READONLY);
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE readOnly = MustOpen(u"\\??\\C:\\readonly.txt", DELETE | SYNCHRONIZE);
    Forget();
    EXPECT_EQ(Dispose(readOnly, FILE_DISPOSITION_DELETE), STATUS_CANNOT_DELETE);
    EXPECT_FALSE(Standard(readOnly).DeletePending);
    ASSERT_EQ(Dispose(readOnly, FILE_DISPOSITION_DELETE | FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE), STATUS_SUCCESS);
    ASSERT_EQ(PreSeenBy('A').size(), 2u);
    EXPECT_EQ(PreSeenBy('A')[1].infoClass, FileDispositionInformationEx);
    FILE_DISPOSITION_INFORMATION_EX flags{};
    std::memcpy(&flags, PreSeenBy('A')[1].buffer.data(), sizeof(flags));
    EXPECT_EQ(flags.Flags, ULONG{FILE_DISPOSITION_DELETE | FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE});
    NtClose(readOnly);
    EXPECT_FALSE(volume_->Exists(u"\\readonly.txt"));
}

TEST_F(SetInformationTest, PosixDeleteRemovesTheNameAtThatHandlesCleanupWhileOthersReadOn)
{
    volume_->SeedFile(u"\\posix.txt", "still here");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE deleter = MustOpen(u"\\??\\C:\\posix.txt", DELETE | SYNCHRONIZE);
    HANDLE reader = MustOpen(u"\\??\\C:\\posix.txt", FILE_READ_DATA | SYNCHRONIZE);

    // The semantics alone, without the delete flag, set nothing pending.
    Forget();
    ASSERT_EQ(Dispose(deleter, FILE_DISPOSITION_POSIX_SEMANTICS), STATUS_SUCCESS);
    EXPECT_FALSE(seen_.back().deletePending);
    EXPECT_FALSE(Standard(reader).DeletePending);

    Forget();
    ASSERT_EQ(Dispose(deleter, FILE_DISPOSITION_DELETE | FILE_DISPOSITION_POSIX_SEMANTICS), STATUS_SUCCESS);
    EXPECT_TRUE(seen_.back().deletePending);
    EXPECT_TRUE(volume_->Exists(u"\\posix.txt")) << "the name stays until that handle's cleanup";
    NtClose(deleter);
    EXPECT_FALSE(volume_->Exists(u"\\posix.txt")) << "the other handle does not keep the name";
    NtClose(reader);
}

TEST_F(SetInformationTest, DeleteOnCloseDispositionMarksOnlyTheHandleAndCanBeTakenBack)
{
    volume_->SeedFile(u"\\temp.txt");
    volume_->SeedFile(u"\\kept.txt");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);

    HANDLE temp = MustOpen(u"\\??\\C:\\temp.txt", DELETE | SYNCHRONIZE);
    Forget();
    ASSERT_EQ(Dispose(temp, FILE_DISPOSITION_DELETE | FILE_DISPOSITION_ON_CLOSE), STATUS_SUCCESS);
    EXPECT_FALSE(seen_.back().deletePending);
    NtClose(temp);
    EXPECT_FALSE(volume_->Exists(u"\\temp.txt"));

    // FILE_DISPOSITION_ON_CLOSE without the delete flag clears FILE_DELETE_ON_CLOSE of the open.
    HANDLE kept = MustOpen(u"\\??\\C:\\kept.txt", DELETE | SYNCHRONIZE,
                           FILE_DELETE_ON_CLOSE | FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(Dispose(kept, FILE_DISPOSITION_ON_CLOSE), STATUS_SUCCESS);
    NtClose(kept);
    EXPECT_TRUE(volume_->Exists(u"\\kept.txt"));
}

TEST_F(SetInformationTest, SizeChangesPassEveryFilterAndTheVolumeAppliesWhatReachesIt)
{
    volume_->SeedFile(u"\\size.txt", "0123456789");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    HANDLE writer = MustOpen(u"\\??\\C:\\size.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    HANDLE other = MustOpen(u"\\??\\C:\\size.txt", FILE_READ_ATTRIBUTES | SYNCHRONIZE);
    Forget();

    FILE_END_OF_FILE_INFORMATION endOfFile{};
    endOfFile.EndOfFile.QuadPart = 6;
    ASSERT_EQ(Set(writer, FileEndOfFileInformation, Bytes(endOfFile)), STATUS_SUCCESS);
    EXPECT_EQ(Sequence(IRP_MJ_SET_INFORMATION), (std::vector<std::string>{"A pre", "B pre", "B post", "A post"}));
    for (char filter : {'A', 'B'}) {
        ASSERT_EQ(PreSeenBy(filter).size(), 1u);
        EXPECT_EQ(PreSeenBy(filter)[0].infoClass, FileEndOfFileInformation);
        EXPECT_EQ(PreSeenBy(filter)[0].buffer, Bytes(endOfFile));
    }
    EXPECT_EQ(volume_->Content(u"\\size.txt"), "012345");
    EXPECT_EQ(Standard(other).EndOfFile.QuadPart, 6);

    // A filter that changes the record in the system buffer changes what B below sees and what the
    // volume applies.
    Forget();
    preHook_ = [](PFLT_CALLBACK_DATA data) {
        if (data->Iopb->MajorFunction == IRP_MJ_SET_INFORMATION) {
            static_cast<PFILE_END_OF_FILE_INFORMATION>(data->Iopb->Parameters.SetFileInformation.InfoBuffer)
                ->EndOfFile.QuadPart = 1;
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    endOfFile.EndOfFile.QuadPart = 5;
    ASSERT_EQ(Set(writer, FileEndOfFileInformation, Bytes(endOfFile)), STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\size.txt"), "0");
    FILE_END_OF_FILE_INFORMATION changed{};
    changed.EndOfFile.QuadPart = 1;
    EXPECT_EQ(PreSeenBy('B')[0].buffer, Bytes(changed));
    NtClose(writer);
    NtClose(other);
}

TEST_F(SetInformationTest, CachedPagesPastANewEndAreNotWrittenBack)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE writer = MustOpen(u"\\??\\C:\\cached.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                             FILE_SYNCHRONOUS_IO_NONALERT, FILE_CREATE);
    HANDLE second = MustOpen(u"\\??\\C:\\cached.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    ASSERT_EQ(Write(writer, std::string(3 * 4096, 'w'), 0), STATUS_SUCCESS);
    ASSERT_EQ(Write(second, "late", 2 * 4096 + 10), STATUS_SUCCESS);

    FILE_END_OF_FILE_INFORMATION endOfFile{};
    endOfFile.EndOfFile.QuadPart = 100;
    ASSERT_EQ(Set(writer, FileEndOfFileInformation, Bytes(endOfFile)), STATUS_SUCCESS);
    PFILE_OBJECT writerObject = ntsim::ReferenceFileObjectByHandle(writer);
    PFILE_OBJECT secondObject = ntsim::ReferenceFileObjectByHandle(second);
    Forget();

    // The truncating file object's cache lost its pages past the end: only the first is written.
    ASSERT_EQ(ntsim::IoLazyWrite(writerObject), STATUS_SUCCESS);
    EXPECT_EQ(writes_, (std::vector<std::pair<LONGLONG, ULONG>>{{0, 4096}}));
    EXPECT_EQ(volume_->Content(u"\\cached.txt"), std::string(100, 'w'));

    // Another file object's page past the end still comes, and the file system cuts it at the end.
    Forget();
    ASSERT_EQ(ntsim::IoLazyWrite(secondObject), STATUS_SUCCESS);
    EXPECT_EQ(writes_, (std::vector<std::pair<LONGLONG, ULONG>>{{2 * 4096, 4096}}));
    EXPECT_EQ(volume_->Content(u"\\cached.txt"), std::string(100, 'w')) << "a write-back brought truncated data back";
    ObDereferenceObject(writerObject);
    ObDereferenceObject(secondObject);
    NtClose(writer);
    NtClose(second);
}

TEST_F(SetInformationTest, FltSetInformationFileRenamesBelowItsInstanceWithTheTargetDirectoryOpenedThere)
{
    volume_->SeedFile(u"\\source.txt", "content");
    volume_->SeedDirectory(u"\\dest");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\source.txt", DELETE | SYNCHRONIZE);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file);
    PFLT_INSTANCE instance = FilterA::Instance(u"C:");
    ASSERT_NE(instance, nullptr);
    Forget();

    std::vector<UCHAR> rename = RenameRecord(u"\\Device\\HarddiskVolume2\\dest\\moved.txt", 0);
    ASSERT_EQ(FltSetInformationFile(instance, fileObject, rename.data(), static_cast<ULONG>(rename.size()),
                                    FileRenameInformation),
              STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\dest\\moved.txt"));
    EXPECT_TRUE(MajorsSeenBy('A').empty()) << "the filter above the instance saw the rename or its target open";
    EXPECT_EQ(MajorsSeenBy('B'), (Majors{IRP_MJ_CREATE, IRP_MJ_SET_INFORMATION, IRP_MJ_CLEANUP, IRP_MJ_CLOSE}));
    ASSERT_EQ(targetOpens_.size(), 1u);
    ASSERT_EQ(PreSeenBy('B').size(), 1u);
    EXPECT_EQ(PreSeenBy('B')[0].parentOfTarget, targetOpens_[0]);
    for (const Event& event : EventsOf(IRP_MJ_CREATE)) {
        EXPECT_TRUE((event.flags & FLTFL_CALLBACK_DATA_GENERATED_IO) != 0);
        EXPECT_EQ(event.requestorMode, KernelMode);
    }

    // The file system follows the ParentOfTarget that reaches it: B hands it another directory.
    volume_->SeedDirectory(u"\\elsewhere");
    HANDLE elsewhere = nullptr;
    PFILE_OBJECT elsewhereObject = nullptr;
    ASSERT_EQ(OpenBelowA(u"\\Device\\HarddiskVolume2\\elsewhere\\final.txt", FILE_ADD_FILE | SYNCHRONIZE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, IO_OPEN_TARGET_DIRECTORY, &elsewhere, &elsewhereObject),
              STATUS_SUCCESS);
    hookedFilter_ = 'B';
    preHook_ = [elsewhereObject](PFLT_CALLBACK_DATA data) {
        if (data->Iopb->MajorFunction == IRP_MJ_SET_INFORMATION) {
            data->Iopb->Parameters.SetFileInformation.ParentOfTarget = elsewhereObject;
            FltSetCallbackDataDirty(data);
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    rename = RenameRecord(u"\\Device\\HarddiskVolume2\\dest\\again.txt", 0);
    ASSERT_EQ(FltSetInformationFile(instance, fileObject, rename.data(), static_cast<ULONG>(rename.size()),
                                    FileRenameInformation),
              STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\elsewhere\\final.txt")) << "not where the record's name points";
    FltClose(elsewhere);
    ObDereferenceObject(elsewhereObject);

    FltObjectDereference(instance);
    ObDereferenceObject(fileObject);
    NtClose(file);
}

}  // namespace
}  // namespace iotest
