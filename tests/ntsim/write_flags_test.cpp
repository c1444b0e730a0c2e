// The IRP flags of writes as a filter sees them: what the file object adds to a caller's write
// (IRP_NOCACHE without intermediate buffering, IRP_SYNCHRONOUS_API on a synchronous file object),
// the cache's write-back by a flush or the lazy writer (synchronous paging writes), the modified
// page writer's writes of mapped pages (paging writes), and the flags of FltWriteFile.
#include "io_testfilter.hpp"

#include <algorithm>

namespace iotest {
namespace {

using Majors = std::vector<UCHAR>;

// The bits a filter tests to tell a caller's cached write from the rest.
constexpr ULONG kNotCallersCachedWrite = IRP_NOCACHE | IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO;

struct WriteSeen {
    LONGLONG offset = 0;
    ULONG length = 0;
    ULONG irpFlags = 0;
    bool fastIo = false;
    KPROCESSOR_MODE requestorMode = KernelMode;
};

class WriteFlagsTest : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        FilterA::script().pre = [this](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            return Watch('A', data);
        };
        FilterB::script().pre = [this](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            return Watch('B', data);
        };
    }

    FLT_PREOP_CALLBACK_STATUS Watch(char filter, PFLT_CALLBACK_DATA data)
    {
        const FLT_IO_PARAMETER_BLOCK& iopb = *data->Iopb;
        if (iopb.MajorFunction == IRP_MJ_WRITE && filter == watched_) {
            writes_.push_back({iopb.Parameters.Write.ByteOffset.QuadPart, iopb.Parameters.Write.Length,
                               iopb.IrpFlags, (data->Flags & FLTFL_CALLBACK_DATA_FAST_IO_OPERATION) != 0,
                               data->RequestorMode});
        }
        if (iopb.MajorFunction == IRP_MJ_ACQUIRE_FOR_MOD_WRITE) {
            endingOffset_ = iopb.Parameters.AcquireForModifiedPageWriter.EndingOffset->QuadPart;
            if (refuseModWrite_) {
                data->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
                return FLT_PREOP_COMPLETE;
            }
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    }

    HANDLE MustOpen(std::u16string_view path, ULONG options, ULONG disposition = FILE_OPEN_IF)
    {
        Opened opened = Open(path, FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition, options);
        EXPECT_EQ(opened.status, STATUS_SUCCESS) << ntsim::ToUtf8(path);
        return opened.handle;
    }

    void Forget()
    {
        ClearEvents();
        writes_.clear();
    }

    char watched_ = 'A';
    std::vector<WriteSeen> writes_;
    LONGLONG endingOffset_ = -1;
    bool refuseModWrite_ = false;
};

TEST_F(WriteFlagsTest, SynchronousApiMarksOnlyWritesThroughASynchronousFileObject)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    struct Case {
        const char16_t* path;
        ULONG options;
        bool synchronous;
    };
    for (const Case& c : {Case{u"\\??\\C:\\nonalert.txt", FILE_SYNCHRONOUS_IO_NONALERT, true},
                          Case{u"\\??\\C:\\alert.txt", FILE_SYNCHRONOUS_IO_ALERT, true},
                          Case{u"\\??\\C:\\async.txt", 0, false}}) {
        HANDLE file = MustOpen(c.path, c.options);
        Forget();
        ASSERT_EQ(Write(file, "first", 0), STATUS_SUCCESS);
        ASSERT_EQ(writes_.size(), 1u);
        const WriteSeen& write = writes_[0];
        EXPECT_EQ((write.irpFlags & IRP_SYNCHRONOUS_API) != 0, c.synchronous) << ntsim::ToUtf8(c.path);
        EXPECT_EQ(write.irpFlags & kNotCallersCachedWrite, 0u) << "a caller's cached write";
        EXPECT_TRUE((write.irpFlags & IRP_WRITE_OPERATION) != 0);
        EXPECT_EQ(write.requestorMode, UserMode);
        NtClose(file);
    }
}

TEST_F(WriteFlagsTest, WritesWithoutIntermediateBufferingAreNonCachedAndLeaveNothingToWriteBack)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE direct = MustOpen(u"\\??\\C:\\direct.txt", FILE_NO_INTERMEDIATE_BUFFERING | FILE_SYNCHRONOUS_IO_NONALERT);
    HANDLE cached = MustOpen(u"\\??\\C:\\cached.txt", FILE_SYNCHRONOUS_IO_NONALERT);
    Forget();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(Write(direct, std::string(512, 'd')), STATUS_SUCCESS);
        ASSERT_EQ(Write(cached, std::string(512, 'c')), STATUS_SUCCESS);
    }
    ASSERT_EQ(writes_.size(), 4u);
    for (int i : {0, 2}) {
        EXPECT_EQ(writes_[i].irpFlags & kNotCallersCachedWrite, ULONG{IRP_NOCACHE}) << "write " << i;
        EXPECT_TRUE((writes_[i].irpFlags & IRP_SYNCHRONOUS_API) != 0);
        EXPECT_FALSE(writes_[i].fastIo) << "non-cached I/O never goes fast";
        EXPECT_EQ(writes_[i].offset, i == 0 ? 0 : 512);
    }
    EXPECT_EQ(writes_[1].irpFlags & kNotCallersCachedWrite, 0u);
    EXPECT_TRUE(writes_[3].fastIo) << "the second cached write goes fast once the cache is set up";
    EXPECT_EQ(volume_->Content(u"\\direct.txt"), std::string(1024, 'd'));

    Forget();
    PFILE_OBJECT directObject = ntsim::ReferenceFileObjectByHandle(direct);
    ASSERT_EQ(ntsim::IoLazyWrite(directObject), STATUS_SUCCESS);
    EXPECT_TRUE(writes_.empty()) << "non-cached writes left dirty pages behind";
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_RELEASE_FOR_CC_FLUSH}));
    ObDereferenceObject(directObject);
    NtClose(direct);
    NtClose(cached);
}

TEST_F(WriteFlagsTest, LazyWriterWritesDirtyPagesBackAsSynchronousPagingWritesOnce)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\lazy.txt", FILE_SYNCHRONOUS_IO_NONALERT, FILE_CREATE);
    ASSERT_EQ(Write(file, "hello", 10), STATUS_SUCCESS);
    ASSERT_EQ(Write(file, "world", 9000), STATUS_SUCCESS);
    const std::optional<std::string> before = volume_->Content(u"\\lazy.txt");
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file);
    NtClose(file);  // the lazy writer comes after the cleanup
    Forget();

    ASSERT_EQ(ntsim::IoLazyWrite(fileObject), STATUS_SUCCESS);
    EXPECT_EQ(MajorsSeenBy('A'),
              (Majors{IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_WRITE, IRP_MJ_WRITE, IRP_MJ_RELEASE_FOR_CC_FLUSH}));
    ASSERT_EQ(writes_.size(), 2u);
    for (size_t i = 0; i < writes_.size(); ++i) {
        EXPECT_EQ(writes_[i].irpFlags & kNotCallersCachedWrite, kNotCallersCachedWrite) << "write " << i;
        EXPECT_EQ(writes_[i].irpFlags & IRP_SYNCHRONOUS_API, 0u);
        EXPECT_EQ(writes_[i].requestorMode, KernelMode);
        EXPECT_EQ(writes_[i].length, 4096u) << "whole pages";
    }
    EXPECT_EQ(writes_[0].offset, 0);
    EXPECT_EQ(writes_[1].offset, 8192) << "the page nothing was written to stays clean";
    for (const Event& event : EventsOf(IRP_MJ_ACQUIRE_FOR_CC_FLUSH)) {
        EXPECT_EQ(event.requestorMode, KernelMode);
    }
    EXPECT_EQ(volume_->Content(u"\\lazy.txt"), before) << "the write-back changed the file";

    Forget();
    ASSERT_EQ(ntsim::IoLazyWrite(fileObject), STATUS_SUCCESS);
    EXPECT_TRUE(writes_.empty()) << "pages written back stay clean";
    ObDereferenceObject(fileObject);
}

TEST_F(WriteFlagsTest, FlushWritesDirtyPagesBackInsideTheFlushAndAFailedWriteKeepsThemDirty)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\flushed.txt", FILE_SYNCHRONOUS_IO_NONALERT, FILE_CREATE);
    ASSERT_EQ(Write(file, "data"), STATUS_SUCCESS);
    Forget();

    // B refuses paging writes once: the flush fails with its status, and the page stays dirty.
    static bool refuse;
    refuse = true;
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (refuse && data->Iopb->MajorFunction == IRP_MJ_WRITE) {
            data->IoStatus.Status = STATUS_DISK_FULL;
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(NtFlushBuffersFile(file, &ioStatus), STATUS_DISK_FULL);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_FLUSH_BUFFERS, IRP_MJ_ACQUIRE_FOR_CC_FLUSH, IRP_MJ_WRITE,
                                         IRP_MJ_RELEASE_FOR_CC_FLUSH}));
    EXPECT_EQ(EventsOf(IRP_MJ_ACQUIRE_FOR_CC_FLUSH).front().requestorMode, UserMode);
    ASSERT_EQ(writes_.size(), 1u);
    EXPECT_EQ(writes_[0].requestorMode, KernelMode) << "paging I/O is the system's";

    refuse = false;
    Forget();
    ASSERT_EQ(NtFlushBuffersFile(file, &ioStatus), STATUS_SUCCESS);
    EXPECT_EQ(writes_.size(), 1u) << "the page the refused write left dirty";
    Forget();
    ASSERT_EQ(NtFlushBuffersFile(file, &ioStatus), STATUS_SUCCESS);
    EXPECT_TRUE(writes_.empty());
    NtClose(file);
}

TEST_F(WriteFlagsTest, ModifiedPageWriterWritesMappedPagesAsPagingWritesThatNeverExtendTheFile)
{
    volume_->SeedFile(u"\\mapped.bin", std::string(5000, '.'));
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = MustOpen(u"\\??\\C:\\mapped.bin", FILE_SYNCHRONOUS_IO_NONALERT, FILE_OPEN);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file);
    Forget();

    ASSERT_EQ(ntsim::IoWriteModifiedPages(fileObject, 4100, 3, "abc"), STATUS_SUCCESS);
    EXPECT_EQ(MajorsSeenBy('A'), (Majors{IRP_MJ_ACQUIRE_FOR_MOD_WRITE, IRP_MJ_WRITE, IRP_MJ_RELEASE_FOR_MOD_WRITE}));
    EXPECT_TRUE((EventsOf(IRP_MJ_ACQUIRE_FOR_MOD_WRITE).front().flags & FLTFL_CALLBACK_DATA_FS_FILTER_OPERATION) != 0);
    EXPECT_EQ(endingOffset_, 8192);
    ASSERT_EQ(writes_.size(), 1u);
    EXPECT_EQ(writes_[0].irpFlags & kNotCallersCachedWrite, ULONG{IRP_PAGING_IO | IRP_NOCACHE})
        << "an asynchronous page write carries no IRP_SYNCHRONOUS_PAGING_IO";
    EXPECT_EQ(writes_[0].offset, 4096);
    EXPECT_EQ(writes_[0].length, 4096u);
    EXPECT_EQ(writes_[0].requestorMode, KernelMode);
    std::string expected(5000, '.');
    expected.replace(4100, 3, "abc");
    EXPECT_EQ(volume_->Content(u"\\mapped.bin"), expected) << "the page is cut at the end of file";

    // Past the end of file a page holds nothing the file keeps, in the last page or beyond it.
    ASSERT_EQ(ntsim::IoWriteModifiedPages(fileObject, 6000, 3, "xyz"), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::IoWriteModifiedPages(fileObject, 9000, 3, "xyz"), STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\mapped.bin"), expected);

    // A filter that fails the acquire keeps the write from happening.
    Forget();
    refuseModWrite_ = true;
    EXPECT_EQ(ntsim::IoWriteModifiedPages(fileObject, 0, 1, "!"), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(writes_.empty());
    EXPECT_EQ(volume_->Content(u"\\mapped.bin"), expected);
    ObDereferenceObject(fileObject);
    NtClose(file);
}

TEST_F(WriteFlagsTest, FltWriteFileCarriesTheFlagsItIsGivenBelowTheCallingInstance)
{
    volume_->SeedFile(u"\\below.bin", std::string(8192, '0'));
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    watched_ = 'B';
    HANDLE file = MustOpen(u"\\??\\C:\\below.bin", FILE_SYNCHRONOUS_IO_NONALERT, FILE_OPEN);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file);
    PFLT_INSTANCE instance = FilterA::Instance(u"C:");
    ASSERT_NE(instance, nullptr);
    Forget();

    struct Case {
        FLT_IO_OPERATION_FLAGS flags;
        ULONG expected;
    };
    const Case cases[] = {
        {0, 0},
        {FLTFL_IO_OPERATION_NON_CACHED, IRP_NOCACHE},
        {FLTFL_IO_OPERATION_PAGING, IRP_PAGING_IO | IRP_NOCACHE},
        {FLTFL_IO_OPERATION_PAGING | FLTFL_IO_OPERATION_SYNCHRONOUS_PAGING,
         IRP_PAGING_IO | IRP_NOCACHE | IRP_SYNCHRONOUS_PAGING_IO},
    };
    for (const Case& c : cases) {
        LARGE_INTEGER offset;
        offset.QuadPart = 4096;
        ULONG written = 0;
        ASSERT_EQ(FltWriteFile(instance, fileObject, &offset, 4096, std::string(4096, '1').data(), c.flags, &written,
                               nullptr, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(written, 4096u);
    }
    ASSERT_EQ(writes_.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(writes_[i].irpFlags & kNotCallersCachedWrite, cases[i].expected) << "case " << i;
        // Only a caller's non-paging write on this synchronous file object is a synchronous API call.
        const bool paging = (cases[i].expected & IRP_PAGING_IO) != 0;
        EXPECT_EQ((writes_[i].irpFlags & IRP_SYNCHRONOUS_API) != 0, !paging) << "case " << i;
    }
    const Majors seenByA = MajorsSeenBy('A');
    EXPECT_EQ(std::count(seenByA.begin(), seenByA.end(), IRP_MJ_WRITE), 0) << "filter A saw its own writes";
    FltObjectDereference(instance);
    ObDereferenceObject(fileObject);
    NtClose(file);
}

}  // namespace
}  // namespace iotest
