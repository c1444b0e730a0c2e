// Named streams reached below a filter, as a filter keeps its own data in one: created and cut by
// FltCreateFileEx, read and written with FltReadFile and FltWriteFile at explicit offsets, sized by
// a query, deleted by ZwDeleteFile, and the file's times and attributes moved by all this and put
// back by FltSetInformationFile.
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
        ULONG_PTR information = 0;
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
        stream.information = ioStatus.Information;
        return stream;
    }

    static void Close(Stream& stream)
    {
        EXPECT_EQ(FltClose(stream.handle), STATUS_SUCCESS);
        ObDereferenceObject(stream.fileObject);
        stream = Stream{};
    }

    NTSTATUS WriteAt(Stream& stream, LONGLONG offset, std::string_view data)
    {
        LARGE_INTEGER at;
        at.QuadPart = offset;
        ULONG written = 0;
        NTSTATUS status = FltWriteFile(instance_, stream.fileObject, &at, static_cast<ULONG>(data.size()),
                                       const_cast<char*>(data.data()), 0, &written, nullptr, nullptr);
        EXPECT_EQ(written, NT_SUCCESS(status) ? data.size() : 0u);
        return status;
    }

    NTSTATUS ReadAt(Stream& stream, LONGLONG offset, ULONG length, std::string* data)
    {
        std::string buffer(length, '\0');
        LARGE_INTEGER at;
        at.QuadPart = offset;
        ULONG read = 0;
        NTSTATUS status =
            FltReadFile(instance_, stream.fileObject, &at, length, buffer.data(), 0, &read, nullptr, nullptr);
        *data = buffer.substr(0, read);
        return status;
    }

    FILE_BASIC_INFORMATION Basic(Stream& stream)
    {
        FILE_BASIC_INFORMATION basic{};
        EXPECT_EQ(FltQueryInformationFile(instance_, stream.fileObject, &basic, sizeof(basic), FileBasicInformation,
                                          nullptr),
                  STATUS_SUCCESS);
        return basic;
    }

    PFLT_INSTANCE instance_ = nullptr;
};

TEST_F(StreamIoTest, OverwriteIfCreatesAStreamOrCutsItAndLeavesTheDefaultStreamAlone)
{
    volume_->SeedFile(u"\\f.txt", "file data");
    Stream created = OpenBelow(u"\\f.txt:map", GENERIC_WRITE, FILE_OVERWRITE_IF);
    ASSERT_EQ(created.status, STATUS_SUCCESS);
    EXPECT_EQ(created.information, ULONG_PTR{FILE_CREATED});
    EXPECT_EQ(WriteAt(created, 0, "header"), STATUS_SUCCESS);
    EXPECT_EQ(WriteAt(created, 6, "+map"), STATUS_SUCCESS);
    Close(created);
    EXPECT_EQ(volume_->Content(u"\\f.txt:map"), "header+map");

    Stream again = OpenBelow(u"\\F.TXT:MAP", GENERIC_WRITE, FILE_OVERWRITE_IF);
    ASSERT_EQ(again.status, STATUS_SUCCESS);
    EXPECT_EQ(again.information, ULONG_PTR{FILE_OVERWRITTEN});
    EXPECT_EQ(volume_->Content(u"\\f.txt:map"), "") << "the open cuts the stream before anything is written";
    Close(again);

    EXPECT_EQ(volume_->Content(u"\\f.txt"), "file data");
    EXPECT_EQ(volume_->StreamNames(u"\\f.txt"), (std::vector<std::u16string>{u"map"}));
    EXPECT_EQ(OpenBelow(u"\\f.txt:other", GENERIC_READ, FILE_OPEN).status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(StreamIoTest, ReadsStopAtTheStreamsEndAndAReadAtTheEndFails)
{
    volume_->SeedFile(u"\\f.txt", "0123456789");
    volume_->SeedFile(u"\\f.txt:map", "abcdef");
    Stream stream = OpenBelow(u"\\f.txt:map", GENERIC_READ, FILE_OPEN);
    ASSERT_EQ(stream.status, STATUS_SUCCESS);
    std::string data;
    EXPECT_EQ(ReadAt(stream, 0, 4, &data), STATUS_SUCCESS);
    EXPECT_EQ(data, "abcd");
    EXPECT_EQ(ReadAt(stream, 4, 100, &data), STATUS_SUCCESS) << "a read across the end is short, not failed";
    EXPECT_EQ(data, "ef");
    EXPECT_EQ(ReadAt(stream, 6, 4, &data), STATUS_END_OF_FILE);
    EXPECT_EQ(data, "");
    EXPECT_EQ(ReadAt(stream, 60, 4, &data), STATUS_END_OF_FILE);

    // The stream's own size, but the file's times: one set for all its streams.
    FILE_STANDARD_INFORMATION standard{};
    ASSERT_EQ(FltQueryInformationFile(instance_, stream.fileObject, &standard, sizeof(standard),
                                      FileStandardInformation, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 6);
    EXPECT_EQ(Basic(stream).LastWriteTime.QuadPart, volume_->BasicInformation(u"\\f.txt")->LastWriteTime.QuadPart);
    Close(stream);
}

TEST_F(StreamIoTest, StreamWritesMoveTheFilesTimesAndSettingBasicInformationPutsThemBack)
{
    volume_->SeedFile(u"\\f.txt", "data", FILE_ATTRIBUTE_HIDDEN);
    FILE_BASIC_INFORMATION seeded = *volume_->BasicInformation(u"\\f.txt");
    ASSERT_EQ(seeded.FileAttributes, ULONG{FILE_ATTRIBUTE_HIDDEN});
    ntsim::clock::Advance(ntsim::clock::kSecond);

    Stream stream = OpenBelow(u"\\f.txt:map", GENERIC_WRITE, FILE_OVERWRITE_IF);
    ASSERT_EQ(stream.status, STATUS_SUCCESS);
    ASSERT_EQ(WriteAt(stream, 0, "state"), STATUS_SUCCESS);
    Close(stream);
    FILE_BASIC_INFORMATION written = *volume_->BasicInformation(u"\\f.txt");
    EXPECT_EQ(written.LastWriteTime.QuadPart, seeded.LastWriteTime.QuadPart + ntsim::clock::kSecond);
    EXPECT_EQ(written.ChangeTime.QuadPart, seeded.ChangeTime.QuadPart + ntsim::clock::kSecond);
    EXPECT_EQ(written.CreationTime.QuadPart, seeded.CreationTime.QuadPart);
    EXPECT_EQ(written.FileAttributes, ULONG{FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_ARCHIVE});

    ntsim::clock::Advance(ntsim::clock::kSecond);
    Stream file = OpenBelow(u"\\f.txt", FILE_WRITE_ATTRIBUTES, FILE_OPEN, IO_IGNORE_SHARE_ACCESS_CHECK);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(FltSetInformationFile(instance_, file.fileObject, &seeded, sizeof(seeded), FileBasicInformation),
              STATUS_SUCCESS);
    Close(file);
    FILE_BASIC_INFORMATION restored = *volume_->BasicInformation(u"\\f.txt");
    EXPECT_EQ(std::memcmp(&restored, &seeded, sizeof(seeded)), 0)
        << "every time, the change time too, and the attributes are as they were";
}

TEST_F(StreamIoTest, ReadOnlyFileRefusesToHaveAStreamWrittenButNotRead)
{
    // The attribute stands for the whole file, its named streams included.
    volume_->SeedFile(u"\\f.txt", "data", FILE_ATTRIBUTE_READONLY);
    volume_->SeedFile(u"\\f.txt:map", "state");
    EXPECT_EQ(OpenBelow(u"\\f.txt:map", GENERIC_WRITE, FILE_OVERWRITE_IF).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenBelow(u"\\f.txt:new", GENERIC_WRITE, FILE_OVERWRITE_IF).status, STATUS_ACCESS_DENIED);
    EXPECT_EQ(volume_->Content(u"\\f.txt:map"), "state");
    Stream stream = OpenBelow(u"\\f.txt:map", GENERIC_READ, FILE_OPEN);
    EXPECT_EQ(stream.status, STATUS_SUCCESS);
    if (NT_SUCCESS(stream.status)) {
        Close(stream);
    }
}

TEST_F(StreamIoTest, DeletingAStreamFromTheTopRemovesItAloneAndMarksTheFilesTimes)
{
    volume_->SeedFile(u"\\f.txt", "data");
    volume_->SeedFile(u"\\f.txt:map", "state");
    volume_->SeedFile(u"\\f.txt:keep", "other");
    FILE_BASIC_INFORMATION seeded = *volume_->BasicInformation(u"\\f.txt");
    ntsim::clock::Advance(ntsim::clock::kSecond);
    ClearEvents();

    ntsim::UnicodeStringHolder name(std::u16string(kDevice) + u"\\f.txt:map");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    EXPECT_EQ(ZwDeleteFile(&attributes), STATUS_SUCCESS);
    EXPECT_EQ(volume_->StreamNames(u"\\f.txt"), (std::vector<std::u16string>{u"keep"}));
    EXPECT_EQ(volume_->Content(u"\\f.txt"), "data");
    EXPECT_EQ(volume_->BasicInformation(u"\\f.txt")->LastWriteTime.QuadPart,
              seeded.LastWriteTime.QuadPart + ntsim::clock::kSecond);
    EXPECT_FALSE(EventsOf(IRP_MJ_CREATE).empty()) << "the delete is seen by every filter";

    EXPECT_EQ(ZwDeleteFile(&attributes), STATUS_OBJECT_NAME_NOT_FOUND);
}

}  // namespace
}  // namespace iotest
