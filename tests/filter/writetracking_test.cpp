// Writes of followed files: the notice to the service at most once a second of virtual time, the
// held-back upload cancelled by the first write, the upload and signature marks, the blocks marked
// dirty after a write that succeeded; and the writes that aren't a caller's cached write (non-cached,
// the lazy writer's, the modified page writer's), the fast path and failed writes.
#include "followed_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include <string>
#include <thread>

#include "driver/operations.h"

namespace foldermerge::testing {
namespace {

constexpr char16_t kFile[] = u"\\Data\\report.txt";
constexpr LONGLONG kOneSecond = 10'000'000;

void ClearLowerEvents()
{
    std::lock_guard lock(iotest::EventsMutex());
    iotest::Events().clear();
}

class WriteTrackingTest : public FollowedFileTest {
protected:
    void TearDown() override
    {
        if (lowerFilterLoaded_) {
            EXPECT_EQ(ntsim::UnloadFilter(iotest::FilterA::Name()), STATUS_SUCCESS);
        }
        FollowedFileTest::TearDown();
    }

    // A filter below FolderMerge that sees what reaches the file system, and may fail it.
    void LoadLowerFilter()
    {
        iotest::FilterA::Reset();
        ClearLowerEvents();
        ASSERT_EQ(iotest::FilterA::Load(u"100000"), STATUS_SUCCESS);
        lowerFilterLoaded_ = true;
    }

    static NTSTATUS Write(HANDLE handle, std::string_view data, LONGLONG offset)
    {
        IO_STATUS_BLOCK ioStatus{};
        LARGE_INTEGER byteOffset{};
        byteOffset.QuadPart = offset;
        return NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, const_cast<char*>(data.data()),
                           static_cast<ULONG>(data.size()), &byteOffset, nullptr);
    }

    bool lowerFilterLoaded_ = false;
};

TEST_F(WriteTrackingTest, FirstWriteNotifiesAndNextNoticeComesOnlyPastOneSecond)
{
    volume_->SeedFile(kFile, "content");
    Serve();
    HANDLE file = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(file);
    const size_t mark = Mark();

    ASSERT_EQ(Write(file, "a", 0), STATUS_SUCCESS);
    const LONGLONG firstNotice = ntsim::clock::Now();
    EXPECT_EQ(pContext->LastWriteNotifyTime, firstNotice);
    ASSERT_EQ(Write(file, "b", 1), STATUS_SUCCESS);
    ntsim::clock::Advance(kOneSecond);
    ASSERT_EQ(Write(file, "c", 2), STATUS_SUCCESS);
    EXPECT_EQ(CodesSince(mark), std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_WRITE_NOTIFY})
        << "a write at exactly one second after the notice sends nothing";
    EXPECT_EQ(pContext->LastWriteNotifyTime, firstNotice);

    ntsim::clock::Advance(1);
    ASSERT_EQ(Write(file, "d", 3), STATUS_SUCCESS);
    const std::vector<RequestView> notices = RequestsSince(mark);
    ASSERT_EQ(notices.size(), 2u);
    EXPECT_EQ(notices[1].code, uint32_t{SERVICE_REQUEST_OBJECT_WRITE_NOTIFY});
    EXPECT_EQ(ntsim::ToUtf8(notices[1].path), ntsim::ToUtf8(OnVolume(kFile)));
    EXPECT_EQ(ntsim::ToUtf8(notices[1].sid), ntsim::ToUtf8(kAlice));
    EXPECT_EQ(pContext->LastWriteNotifyTime, firstNotice + kOneSecond + 1);
    Close(file);
}

// A notice the service never answers still counts: the next write within the second sends nothing.
TEST_F(WriteTrackingTest, ANoticeThatTimedOutStillHoldsTheThrottle)
{
    volume_->SeedFile(kFile, "content");
    Serve({{.code = SERVICE_REQUEST_OBJECT_WRITE_NOTIFY, .action = ResponderAction::NoAnswer, .uses = 1}});
    HANDLE file = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(file);
    const size_t mark = Mark();
    const LONGLONG before = ntsim::clock::Now();

    std::thread writer([&] {
        ntsim::AttachThread thread(alice_);
        EXPECT_EQ(Write(file, "a", 0), STATUS_SUCCESS);
    });
    ASSERT_TRUE(service_.WaitForRequests(mark + 1));
    ASSERT_TRUE(ntsim::clock::WaitForWaiters(1));
    ntsim::clock::Advance(30 * 60 * kOneSecond);
    writer.join();

    EXPECT_EQ(pContext->LastWriteNotifyTime, before);
    EXPECT_EQ(pContext->OnClose & ON_CLOSE_UPLOAD, ULONG{ON_CLOSE_UPLOAD});
    Close(file);
}

// The post-write may run at DISPATCH_LEVEL in another thread: it marks there all the same.
TEST_F(WriteTrackingTest, SuccessfulWritesMarkUploadAndTheRequestedBlocks)
{
    ntsim::ScopedPostOperationContext dispatch(ntsim::PostOperationContext::ArbitraryThread);
    volume_->SeedFile(kFile, std::string(20000, 'x'));
    Serve({Tracked(kFile)});
    HANDLE file = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(file);
    TrackedDirtyBlockFile* pRecord = Track(pContext);
    const ULONG countBefore = pRecord->dirtyBlockCount;
    const std::vector<uint8_t> mapBefore(pRecord->map, pRecord->map + pRecord->mapLen);
    EXPECT_EQ(pContext->OnClose & ON_CLOSE_UPLOAD, 0u);

    // 5000-5009 lies in block 1; a write that ends on a boundary marks the block behind it too; a
    // write of no bytes marks its own block.
    ASSERT_EQ(Write(file, "0123456789", 5000), STATUS_SUCCESS);
    ASSERT_EQ(Write(file, std::string(4096, 'y'), 12288), STATUS_SUCCESS);
    ASSERT_EQ(Write(file, "", 6 * 4096 + 1), STATUS_SUCCESS);

    EXPECT_EQ(pContext->OnClose & ON_CLOSE_UPLOAD, ULONG{ON_CLOSE_UPLOAD});
    std::vector<uint8_t> expected = mapBefore;
    expected.resize(std::max<size_t>(expected.size(), pRecord->mapLen));
    expected[0] |= 0x40 | 0x10 | 0x08 | 0x02;  // blocks 1, 3, 4 and 6
    EXPECT_EQ(std::vector<uint8_t>(pRecord->map, pRecord->map + pRecord->mapLen), expected);
    EXPECT_EQ(pRecord->dirtyBlockCount, countBefore + 4);
    Close(file);
}

TEST_F(WriteTrackingTest, FirstWriteCancelsTheHeldBackUploadOnceAndMarksTheSignature)
{
    volume_->SeedFile(kFile, "content");
    Serve({{.code = SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED, .reply = {.uploadCancelled = true}},
           {.code = SERVICE_REQUEST_OBJECT_SIGNATURE, .reply = {.status = static_cast<int32_t>(STATUS_UNSUCCESSFUL)}}});
    HANDLE file = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(file);
    ASSERT_EQ(pContext->bUploadCancelled, 1) << "the open kept the service's flag";
    ASSERT_EQ(pContext->pstrSignatureName, nullptr) << "the open was given no signature";
    const size_t mark = Mark();

    // No signature name: the mark stays as it is.
    ASSERT_EQ(Write(file, "a", 0), STATUS_SUCCESS);
    EXPECT_EQ(CodesSince(mark),
              (std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD, SERVICE_REQUEST_OBJECT_WRITE_NOTIFY}));
    EXPECT_EQ(pContext->bUploadCancelled, 0);
    EXPECT_EQ(pContext->bSignatureRequired, 0);

    pContext->pstrSignatureName = CreateUnicodeStringFromText(L"sig-7");
    ntsim::clock::Advance(2 * kOneSecond);
    ASSERT_EQ(Write(file, "b", 1), STATUS_SUCCESS);
    EXPECT_EQ(CodesSince(mark),
              (std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD, SERVICE_REQUEST_OBJECT_WRITE_NOTIFY,
                                     SERVICE_REQUEST_OBJECT_WRITE_NOTIFY}));
    EXPECT_EQ(pContext->bSignatureRequired, 1);
    Close(file);
}

// A write that the file system fails: its notice and the cancelled upload have had their effect
// before, but it marks neither the upload nor a block.
TEST_F(WriteTrackingTest, FailedWriteNotifiesButMarksNothing)
{
    volume_->SeedFile(kFile, "content");
    Serve({Tracked(kFile)});
    LoadLowerFilter();
    iotest::FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_WRITE) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        data->IoStatus.Status = STATUS_DISK_FULL;
        data->IoStatus.Information = 0;
        return FLT_PREOP_COMPLETE;
    };
    HANDLE file = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(file);
    TrackedDirtyBlockFile* pRecord = Track(pContext);
    const std::vector<uint8_t> mapBefore(pRecord->map, pRecord->map + pRecord->mapLen);
    const size_t mark = Mark();

    EXPECT_EQ(Write(file, "a", 8192), STATUS_DISK_FULL);
    EXPECT_EQ(CodesSince(mark), std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_WRITE_NOTIFY});
    EXPECT_EQ(pContext->OnClose & ON_CLOSE_UPLOAD, 0u);
    EXPECT_EQ(std::vector<uint8_t>(pRecord->map, pRecord->map + pRecord->mapLen), mapBefore);
    Close(file);
}

// Non-cached writes, the lazy writer's write-back and the modified page writer's writes of a
// followed file are not seen: no notice, no mark, no block.
TEST_F(WriteTrackingTest, NonCachedAndPagingWritesAreNotFollowed)
{
    volume_->SeedFile(kFile, std::string(3 * 4096, 'x'));
    Serve({Tracked(kFile)});
    HANDLE direct = Open(kFile, FILE_GENERIC_WRITE, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING);
    FileContext* pDirect = Follow(direct);
    TrackedDirtyBlockFile* pRecord = Track(pDirect);
    HANDLE cached = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pCached = Follow(cached);
    ASSERT_EQ(Track(pCached), pRecord);
    const size_t mark = Mark();

    ASSERT_EQ(Write(direct, std::string(512, 'd'), 4096), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::IoWriteModifiedPages(FileObjectOf(direct), 2 * 4096 + 10, 3, "abc"), STATUS_SUCCESS);
    EXPECT_TRUE(CodesSince(mark).empty());
    EXPECT_EQ(pDirect->OnClose, 0u);
    EXPECT_EQ(pDirect->LastWriteNotifyTime, 0);

    // A cached write at 100 marks block 0; its page's write-back, 4096 bytes from 0, would mark
    // block 1 as well.
    ASSERT_EQ(Write(cached, "cached", 100), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::IoLazyWrite(FileObjectOf(cached)), STATUS_SUCCESS);
    EXPECT_EQ(CodesSince(mark), std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_WRITE_NOTIFY});
    EXPECT_EQ(pCached->OnClose & ON_CLOSE_UPLOAD, ULONG{ON_CLOSE_UPLOAD});
    EXPECT_EQ(pRecord->map[0], 0x80) << "only the cached write's block";
    EXPECT_EQ(pRecord->dirtyBlockCount, 1u);
    Close(cached);
    Close(direct);
}

// Each bit of the mask alone keeps a write out of sight, before the record is even looked up.
TEST_F(WriteTrackingTest, EachIrpFlagOfTheMaskAloneLeavesTheWriteUnseen)
{
    Serve();
    FILE_OBJECT fileObject{};
    ntsim::UnicodeStringHolder path(OnVolume(kFile));
    ntsim::UnicodeStringHolder sid(kAlice);
    FileContext* pContext = nullptr;
    ASSERT_EQ(CreateContext(&fileObject, path.get(), sid.get(), &pContext), STATUS_SUCCESS);
    ASSERT_TRUE(AddContextToContextTable(pContext));
    pContext->LastWriteNotifyTime = ntsim::clock::Now();  // no notice within the second

    FLT_IO_PARAMETER_BLOCK iopb{};
    iopb.MajorFunction = IRP_MJ_WRITE;
    iopb.TargetFileObject = &fileObject;
    iopb.TargetInstance = instance_;
    FLT_CALLBACK_DATA data{.Flags = FLTFL_CALLBACK_DATA_IRP_OPERATION, .Thread = nullptr, .Iopb = &iopb};
    FLT_RELATED_OBJECTS objects{sizeof(FLT_RELATED_OBJECTS), 0, g_ServiceData.FilterHandle, nullptr, instance_,
                                &fileObject, nullptr};
    for (ULONG flag : {ULONG{IRP_NOCACHE}, ULONG{IRP_PAGING_IO}, ULONG{IRP_SYNCHRONOUS_PAGING_IO}}) {
        iopb.IrpFlags = flag;
        PVOID completion = nullptr;
        EXPECT_EQ(FolderMerge_PreWrite(&data, &objects, &completion), FLT_PREOP_SUCCESS_NO_CALLBACK) << flag;
        EXPECT_EQ(completion, nullptr) << flag;
    }
    iopb.IrpFlags = IRP_SYNCHRONOUS_API;
    PVOID completion = nullptr;
    EXPECT_EQ(FolderMerge_PreWrite(&data, &objects, &completion), FLT_PREOP_SUCCESS_WITH_CALLBACK);
    EXPECT_EQ(completion, pContext);

    ASSERT_TRUE(RemoveContextFromContextTable(pContext));
    DeleteContext(pContext);
}

// The fast path is refused for a followed file only: its write comes again as an IRP, while a file
// without a record goes on to the fast path below.
TEST_F(WriteTrackingTest, FastWriteIsRefusedOnlyForAFollowedFile)
{
    volume_->SeedFile(kFile, "content");
    volume_->SeedFile(u"\\Outside\\free.txt", "content");
    Serve();
    LoadLowerFilter();
    HANDLE followed = Open(kFile, FILE_GENERIC_WRITE);
    FileContext* pContext = Follow(followed);
    HANDLE free = Open(u"\\Outside\\free.txt", FILE_GENERIC_WRITE);
    const size_t mark = Mark();
    ULONG written = 0;

    ClearLowerEvents();
    ASSERT_EQ(ntsim::IoWriteFile(FileObjectOf(followed), 0, 4, "fast", {.fastIo = true}, &written), STATUS_SUCCESS);
    std::vector<iotest::Event> below = iotest::EventsOf(IRP_MJ_WRITE);
    ASSERT_FALSE(below.empty());
    for (const iotest::Event& event : below) {
        EXPECT_FALSE(event.fastIo()) << "the fast attempt of a followed file reached the filter below";
    }
    EXPECT_EQ(CodesSince(mark), std::vector<uint32_t>{SERVICE_REQUEST_OBJECT_WRITE_NOTIFY}) << "one notice, for the IRP";
    EXPECT_EQ(pContext->OnClose & ON_CLOSE_UPLOAD, ULONG{ON_CLOSE_UPLOAD});

    ClearLowerEvents();
    ASSERT_EQ(ntsim::IoWriteFile(FileObjectOf(free), 0, 4, "fast", {.fastIo = true}, &written), STATUS_SUCCESS);
    below = iotest::EventsOf(IRP_MJ_WRITE);
    ASSERT_FALSE(below.empty());
    EXPECT_TRUE(below.front().fastIo()) << "a file without a record keeps its fast attempt";
    Close(free);
    Close(followed);
}

}  // namespace
}  // namespace foldermerge::testing
