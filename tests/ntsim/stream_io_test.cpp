// Named streams reached below a filter, as a filter keeps its own data in one: the file's times and
// attributes move with a stream's writes and its deletion, a basic information set puts them all
// back, and a read-only file takes no stream written.
#include "io_testfilter.hpp"

#include <ntsim/sim/clock.hpp>

#include <cstring>
#include <string>

namespace iotest {
namespace {

class StreamIoTest : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
        instance_ = FilterA::Instance(kDevice);
        ASSERT_NE(instance_, nullptr);
    }

    void TearDown() override
    {
        if (instance_ != nullptr) {
            FltObjectDereference(instance_);
        }
        IoTest::TearDown();
    }

    struct Stream {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        HANDLE handle = nullptr;
        PFILE_OBJECT fileObject = nullptr;
    };

    // Opens a volume-relative path below filter A, sharing everything, as a filter opens its stream.
    Stream OpenBelow(std::u16string_view volumePath, ACCESS_MASK access, ULONG disposition, ULONG flags = 0)
    {
        ntsim::UnicodeStringHolder name(std::u16string(kDevice) + std::u16string(volumePath));
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        IO_STATUS_BLOCK ioStatus{};
        Stream stream;
        stream.status = FltCreateFileEx(FilterA::script().filter, instance_, &stream.handle, &stream.fileObject, access,
                                        &attributes, &ioStatus, nullptr, 0,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition, 0,
                                        nullptr, 0, flags);
        return stream;
    }

    static void Close(Stream& stream)
    {
        EXPECT_EQ(FltClose(stream.handle), STATUS_SUCCESS);
        ObDereferenceObject(stream.fileObject);
    }

    PFLT_INSTANCE instance_ = nullptr;
};

TEST_F(StreamIoTest, StreamWritesMoveTheFilesTimesAndABasicSetPutsThemAllBack)
{
    volume_->SeedFile(u"\\f.txt", "data", FILE_ATTRIBUTE_HIDDEN);
    const FILE_BASIC_INFORMATION seeded = *volume_->BasicInformation(u"\\f.txt");
    ntsim::clock::Advance(ntsim::clock::kSecond);

    Stream stream = OpenBelow(u"\\f.txt:map", GENERIC_WRITE, FILE_OVERWRITE_IF);
    ASSERT_EQ(stream.status, STATUS_SUCCESS);
    LARGE_INTEGER at;
    at.QuadPart = 0;
    ULONG written = 0;
    ASSERT_EQ(FltWriteFile(instance_, stream.fileObject, &at, 5, const_cast<char*>("state"), 0, &written, nullptr,
                           nullptr),
              STATUS_SUCCESS);
    // A stream's own size, but the file's one set of times.
    FILE_STANDARD_INFORMATION standard{};
    ASSERT_EQ(FltQueryInformationFile(instance_, stream.fileObject, &standard, sizeof(standard),
                                      FileStandardInformation, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 5);
    Close(stream);
    const FILE_BASIC_INFORMATION afterWrite = *volume_->BasicInformation(u"\\f.txt");
    EXPECT_EQ(afterWrite.LastWriteTime.QuadPart, seeded.LastWriteTime.QuadPart + ntsim::clock::kSecond);
    EXPECT_EQ(afterWrite.ChangeTime.QuadPart, seeded.ChangeTime.QuadPart + ntsim::clock::kSecond);
    EXPECT_EQ(afterWrite.FileAttributes, ULONG{FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE});
    EXPECT_EQ(volume_->Content(u"\\f.txt"), "data");

    ntsim::clock::Advance(ntsim::clock::kSecond);
    Stream file = OpenBelow(u"\\f.txt", FILE_WRITE_ATTRIBUTES, FILE_OPEN, IO_IGNORE_SHARE_ACCESS_CHECK);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    FILE_BASIC_INFORMATION restore = seeded;
    ASSERT_EQ(FltSetInformationFile(instance_, file.fileObject, &restore, sizeof(restore), FileBasicInformation),
              STATUS_SUCCESS);
    Close(file);
    const FILE_BASIC_INFORMATION restored = *volume_->BasicInformation(u"\\f.txt");
    EXPECT_EQ(std::memcmp(&restored, &seeded, sizeof(seeded)), 0)
        << "every time, the change time too, and the attributes are as they were";
}

TEST_F(StreamIoTest, DeletingAStreamRemovesItAloneAndAReadOnlyFileTakesNoStreamWritten)
{
    volume_->SeedFile(u"\\f.txt", "data");
    volume_->SeedFile(u"\\f.txt:map", "state");
    volume_->SeedFile(u"\\f.txt:keep", "other");
    const LONGLONG seeded = volume_->BasicInformation(u"\\f.txt")->LastWriteTime.QuadPart;
    ntsim::clock::Advance(ntsim::clock::kSecond);
    ntsim::UnicodeStringHolder name(std::u16string(kDevice) + u"\\f.txt:map");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    EXPECT_EQ(ZwDeleteFile(&attributes), STATUS_SUCCESS);
    EXPECT_EQ(volume_->StreamNames(u"\\f.txt"), (std::vector<std::u16string>{u"keep"}));
    EXPECT_EQ(volume_->Content(u"\\f.txt"), "data");
    EXPECT_EQ(volume_->BasicInformation(u"\\f.txt")->LastWriteTime.QuadPart, seeded + ntsim::clock::kSecond);

    // The attribute stands for the whole file, its named streams included; reading stays open.
    volume_->SeedFile(u"\\ro.txt", "data", FILE_ATTRIBUTE_READONLY);
    volume_->SeedFile(u"\\ro.txt:map", "state");
    EXPECT_EQ(OpenBelow(u"\\ro.txt:map", GENERIC_WRITE, FILE_OVERWRITE_IF).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenBelow(u"\\ro.txt:new", GENERIC_WRITE, FILE_OVERWRITE_IF).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(volume_->Content(u"\\ro.txt:map"), "state");
    Stream stream = OpenBelow(u"\\ro.txt:map", GENERIC_READ, FILE_OPEN);
    EXPECT_EQ(stream.status, STATUS_SUCCESS);
    if (NT_SUCCESS(stream.status)) {
        Close(stream);
    }
}

}  // namespace
}  // namespace iotest
