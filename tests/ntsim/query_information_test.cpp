// Information queries as the I/O manager and the Filter Manager carry them: fast I/O with the
// caller's buffer and its refusal, the checks before any filter, the system buffer and what goes
// back from it, filters that complete or rewrite a query, and where a handle's query starts.
#include "io_testfilter.hpp"

#include <ntsim/sim/verifier.hpp>

#include <cstring>

namespace iotest {
namespace {

// What one query callback saw of its parameters.
struct QuerySeen {
    ULONG flags = 0;
    ULONG length = 0;
    PVOID buffer = nullptr;
};

class QueryInformationTest : public IoTest {
protected:
    static std::vector<QuerySeen>& Queries()
    {
        static std::vector<QuerySeen> queries;
        return queries;
    }

    static void Note(PFLT_CALLBACK_DATA data)
    {
        if (data->Iopb->MajorFunction == IRP_MJ_QUERY_INFORMATION) {
            const auto& query = data->Iopb->Parameters.QueryFileInformation;
            Queries().push_back({data->Flags, query.Length, query.InfoBuffer});
        }
    }

    void SetUp() override
    {
        IoTest::SetUp();
        Queries().clear();
        FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            Note(data);
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        };
        FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) { Note(data); };
    }

    HANDLE OpenSeeded(std::u16string_view path, ACCESS_MASK access = FILE_GENERIC_READ)
    {
        Opened file = Open(path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN);
        EXPECT_EQ(file.status, STATUS_SUCCESS);
        return file.handle;
    }

    static NTSTATUS Query(HANDLE handle, void* buffer, ULONG length, FILE_INFORMATION_CLASS infoClass,
                          ULONG_PTR* information = nullptr)
    {
        IO_STATUS_BLOCK ioStatus{};
        ioStatus.Information = 0xDEAD;
        NTSTATUS status = NtQueryInformationFile(handle, &ioStatus, buffer, length, infoClass);
        if (information != nullptr) {
            *information = ioStatus.Information;
        }
        return status;
    }
};

TEST_F(QueryInformationTest, BasicAndStandardQueriesAreOfferedAsFastIoWithTheCallersOwnBuffer)
{
    volume_->SeedFile(u"\\fast.txt", "12345");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\fast.txt");
    ClearEvents();

    FILE_BASIC_INFORMATION basic{};
    ULONG_PTR information = 0;
    ASSERT_EQ(Query(file, &basic, sizeof(basic) + 8, FileBasicInformation, &information), STATUS_SUCCESS);
    EXPECT_EQ(information, sizeof(basic));
    EXPECT_EQ(basic.FileAttributes, ULONG{FILE_ATTRIBUTE_ARCHIVE});
    FILE_STANDARD_INFORMATION standard{};
    ASSERT_EQ(Query(file, &standard, sizeof(standard), FileStandardInformation, &information), STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 5);

    ASSERT_EQ(Queries().size(), 4u) << "one fast attempt each, taken: no IRP follows";
    for (const QuerySeen& seen : Queries()) {
        EXPECT_EQ(seen.flags & (FLTFL_CALLBACK_DATA_FAST_IO_OPERATION | FLTFL_CALLBACK_DATA_IRP_OPERATION |
                                FLTFL_CALLBACK_DATA_SYSTEM_BUFFER),
                  ULONG{FLTFL_CALLBACK_DATA_FAST_IO_OPERATION});
    }
    EXPECT_EQ(Queries()[0].buffer, &basic) << "fast I/O writes straight into the caller's buffer";
    EXPECT_EQ(Queries()[0].length, sizeof(FILE_BASIC_INFORMATION)) << "the fast routine's record, not the caller's length";
    EXPECT_EQ(Queries()[2].buffer, &standard);
    EXPECT_EQ(Queries()[2].length, sizeof(FILE_STANDARD_INFORMATION));

    // Any other class comes as an IRP with a system buffer of the caller's length.
    Queries().clear();
    FILE_NETWORK_OPEN_INFORMATION network{};
    ASSERT_EQ(Query(file, &network, sizeof(network), FileNetworkOpenInformation), STATUS_SUCCESS);
    EXPECT_EQ(network.EndOfFile.QuadPart, 5);
    ASSERT_EQ(Queries().size(), 2u);
    EXPECT_TRUE((Queries()[0].flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0);
    EXPECT_TRUE((Queries()[0].flags & FLTFL_CALLBACK_DATA_SYSTEM_BUFFER) != 0);
    EXPECT_NE(Queries()[0].buffer, &network);
    NtClose(file);
}

TEST_F(QueryInformationTest, RefusedFastQueryComesAgainAsAnIrpAndTheSystemBufferGoesBack)
{
    volume_->SeedFile(u"\\refused.txt", "123");
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        Note(data);
        return FLT_IS_FASTIO_OPERATION(data) ? FLT_PREOP_DISALLOW_FASTIO : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    FilterB::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) { Note(data); };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\refused.txt");
    ClearEvents();

    FILE_STANDARD_INFORMATION standard{};
    ULONG_PTR information = 0;
    ASSERT_EQ(Query(file, &standard, sizeof(standard), FileStandardInformation, &information), STATUS_SUCCESS);
    EXPECT_EQ(standard.EndOfFile.QuadPart, 3);
    EXPECT_EQ(information, sizeof(standard));
    // The refusal's order and status are the Filter Manager's, tested with a fast write.
    ASSERT_EQ(Queries().size(), 7u) << "two fast callbacks and the post above the refusal, then the IRP";
    for (size_t i = 3; i < Queries().size(); ++i) {
        EXPECT_TRUE((Queries()[i].flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0) << i;
        EXPECT_NE(Queries()[i].buffer, &standard) << i;
        EXPECT_EQ(Queries()[i].length, sizeof(standard)) << i;
    }
    NtClose(file);
}

TEST_F(QueryInformationTest, ClassesAndLengthsAreCheckedBeforeAnyFilterSeesTheQuery)
{
    volume_->SeedFile(u"\\checked.txt", "x");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\checked.txt");
    ClearEvents();

    struct Case {
        FILE_INFORMATION_CLASS infoClass;
        ULONG minimum;
    };
    const Case cases[] = {
        {FileBasicInformation, 40},       {FileStandardInformation, 24}, {FileAllInformation, 104},
        {FileStreamInformation, 32},      {FileNetworkOpenInformation, 56}, {FileNameInformation, 8},
        {FileAttributeTagInformation, 8}, {FileEaInformation, 4},
    };
    std::vector<UCHAR> buffer(512);
    for (const Case& test : cases) {
        SCOPED_TRACE(static_cast<int>(test.infoClass));
        EXPECT_EQ(Query(file, buffer.data(), test.minimum - 1, test.infoClass), STATUS_INFO_LENGTH_MISMATCH);
        EXPECT_TRUE(EventsOf(IRP_MJ_QUERY_INFORMATION).empty());
        // The same buffer at the class's fixed part reaches the stack.
        NTSTATUS status = Query(file, buffer.data(), test.minimum, test.infoClass);
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_BUFFER_OVERFLOW) << std::hex << status;
        EXPECT_FALSE(EventsOf(IRP_MJ_QUERY_INFORMATION).empty());
        ClearEvents();
    }
    // Set-only and directory classes are no queries at all, whatever the length.
    for (FILE_INFORMATION_CLASS infoClass : {FileRenameInformation, FileDispositionInformation, FileEndOfFileInformation,
                                             FileDirectoryInformation, FileMaximumInformation}) {
        EXPECT_EQ(Query(file, buffer.data(), static_cast<ULONG>(buffer.size()), infoClass), STATUS_INVALID_INFO_CLASS);
    }
    EXPECT_TRUE(EventsOf(IRP_MJ_QUERY_INFORMATION).empty());
    NtClose(file);

    // The length check comes before the handle's access is looked at.
    Opened noAttributes = Open(u"\\??\\C:\\checked.txt", SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(noAttributes.status, STATUS_SUCCESS);
    EXPECT_EQ(Query(noAttributes.handle, buffer.data(), 39, FileBasicInformation), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(Query(noAttributes.handle, buffer.data(), 40, FileBasicInformation), STATUS_ACCESS_DENIED);
    NtClose(noAttributes.handle);
}

TEST_F(QueryInformationTest, FltQueryInformationFileHasNoLengthCheckOfTheIoManagers)
{
    volume_->SeedFile(u"\\below.txt", "x");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\below.txt");
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(file);
    PFLT_INSTANCE instanceOfA = FilterA::Instance(u"C:");
    ASSERT_NE(instanceOfA, nullptr);
    ClearEvents();

    std::vector<UCHAR> buffer(103);
    ULONG returned = 7;
    EXPECT_EQ(FltQueryInformationFile(instanceOfA, fileObject, buffer.data(), 103, FileAllInformation, &returned),
              STATUS_INFO_LENGTH_MISMATCH) << "the file system's answer";
    EXPECT_EQ(returned, 0u);
    EXPECT_EQ(MajorsSeenBy('B'), (std::vector<UCHAR>{IRP_MJ_QUERY_INFORMATION})) << "the instance below sees it";
    EXPECT_TRUE(MajorsSeenBy('A').empty()) << "the calling instance does not";
    EXPECT_TRUE((EventsOf(IRP_MJ_QUERY_INFORMATION).front().flags & FLTFL_CALLBACK_DATA_GENERATED_IO) != 0);

    FltObjectDereference(instanceOfA);
    ObDereferenceObject(fileObject);
    NtClose(file);
}

TEST_F(QueryInformationTest, FilterThatCompletesAQueryAnswersTheCallerInEitherForm)
{
    volume_->SeedFile(u"\\answered.txt", "on disk");
    // A answers basic information itself, in whichever form it comes, and the network-open query
    // with a record of which it reports only the first 32 bytes.
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_QUERY_INFORMATION) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        auto& query = data->Iopb->Parameters.QueryFileInformation;
        if (query.FileInformationClass == FileBasicInformation) {
            FILE_BASIC_INFORMATION basic{};
            basic.CreationTime.QuadPart = 0x1111;
            basic.FileAttributes = FILE_ATTRIBUTE_READONLY;
            std::memcpy(query.InfoBuffer, &basic, sizeof(basic));
            data->IoStatus.Status = STATUS_SUCCESS;
            data->IoStatus.Information = sizeof(basic);
            return FLT_PREOP_COMPLETE;
        }
        if (query.FileInformationClass == FileNetworkOpenInformation) {
            std::memset(query.InfoBuffer, 0x5A, query.Length);
            data->IoStatus.Status = STATUS_SUCCESS;
            data->IoStatus.Information = 32;
            return FLT_PREOP_COMPLETE;
        }
        // Reports the whole fixed part, of which it writes only the basic record.
        if (query.FileInformationClass == FileAllInformation) {
            std::memset(query.InfoBuffer, 0x5A, sizeof(FILE_BASIC_INFORMATION));
            data->IoStatus.Status = STATUS_SUCCESS;
            data->IoStatus.Information = sizeof(FILE_ALL_INFORMATION);
            return FLT_PREOP_COMPLETE;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    static bool refuseFast;
    FilterB::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return refuseFast && FLT_IS_FASTIO_OPERATION(data) ? FLT_PREOP_DISALLOW_FASTIO : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    // B stands above A, so that its refusal sends the query to A as an IRP.
    ASSERT_EQ(FilterB::Load(u"380000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\answered.txt");

    for (bool refused : {false, true}) {
        SCOPED_TRACE(refused ? "as an IRP" : "as fast I/O");
        refuseFast = refused;
        FILE_BASIC_INFORMATION basic{};
        ULONG_PTR information = 0;
        ASSERT_EQ(Query(file, &basic, sizeof(basic), FileBasicInformation, &information), STATUS_SUCCESS);
        EXPECT_EQ(basic.CreationTime.QuadPart, 0x1111);
        EXPECT_EQ(basic.FileAttributes, ULONG{FILE_ATTRIBUTE_READONLY});
        EXPECT_EQ(information, sizeof(basic));
    }

    // Only IoStatus.Information bytes of the system buffer reach the caller.
    FILE_NETWORK_OPEN_INFORMATION network;
    std::memset(&network, 0xC3, sizeof(network));
    ULONG_PTR information = 0;
    ASSERT_EQ(Query(file, &network, sizeof(network), FileNetworkOpenInformation, &information), STATUS_SUCCESS);
    EXPECT_EQ(information, 32u);
    const auto* bytes = reinterpret_cast<const UCHAR*>(&network);
    EXPECT_EQ(bytes[0], 0x5A);
    EXPECT_EQ(bytes[31], 0x5A);
    EXPECT_EQ(bytes[32], 0xC3) << "bytes past IoStatus.Information stay as the caller had them";
    EXPECT_EQ(bytes[55], 0xC3);

    // The system buffer is pool, not zeroed: what the filter reported without writing reaches the
    // caller as the pool held it.
    std::vector<UCHAR> all(sizeof(FILE_ALL_INFORMATION), 0xC3);
    ASSERT_EQ(Query(file, all.data(), static_cast<ULONG>(all.size()), FileAllInformation, &information),
              STATUS_SUCCESS);
    EXPECT_EQ(information, sizeof(FILE_ALL_INFORMATION));
    EXPECT_EQ(all[sizeof(FILE_BASIC_INFORMATION) - 1], 0x5A);
    EXPECT_EQ(all[sizeof(FILE_BASIC_INFORMATION)], 0xA5) << "the pool's fill";
    EXPECT_EQ(all.back(), 0xA5);
    NtClose(file);
}

TEST_F(QueryInformationTest, ErrorCopiesNothingBackAWarningWhatItReportsAndInformationBeyondIsCut)
{
    volume_->SeedFile(u"\\statuses.txt", "x");
    static NTSTATUS answer;
    static ULONG_PTR reported;  // 0: 16 bytes past the buffer
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction != IRP_MJ_QUERY_INFORMATION) {
            return FLT_PREOP_SUCCESS_NO_CALLBACK;
        }
        auto& query = data->Iopb->Parameters.QueryFileInformation;
        std::memset(query.InfoBuffer, 0x77, query.Length);
        data->IoStatus.Status = answer;
        data->IoStatus.Information = reported != 0 ? reported : query.Length + 16;
        return FLT_PREOP_COMPLETE;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\statuses.txt");

    reported = 8;
    ULONG_PTR information = 0;
    for (NTSTATUS status : {STATUS_ACCESS_DENIED, STATUS_BUFFER_OVERFLOW}) {
        answer = status;
        std::vector<UCHAR> buffer(200, 0);
        EXPECT_EQ(Query(file, buffer.data(), 200, FileAllInformation, &information), status);
        const bool copied = status == STATUS_BUFFER_OVERFLOW;
        EXPECT_EQ(buffer[7], copied ? 0x77 : 0x00) << std::hex << status;
        EXPECT_EQ(buffer[8], 0x00) << std::hex << status;
        if (copied) {
            EXPECT_EQ(information, 8u);
        }
    }

    answer = STATUS_SUCCESS;
    reported = 0;
    ntsim::verifier::BugCheckCapture capture;
    std::vector<UCHAR> buffer(64);
    EXPECT_EQ(Query(file, buffer.data(), 56, FileNetworkOpenInformation, &information), STATUS_SUCCESS);
    EXPECT_TRUE(capture.Consume("IO_INFORMATION_BEYOND_BUFFER"));
    EXPECT_EQ(information, 56u);
    NtClose(file);
}

TEST_F(QueryInformationTest, PostCallbackRewritesTheAnswerInEitherForm)
{
    volume_->SeedFile(u"\\rewritten.txt", "0123456789");
    static bool refuseFast;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return refuseFast && FLT_IS_FASTIO_OPERATION(data) ? FLT_PREOP_DISALLOW_FASTIO
                                                           : FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        auto& query = data->Iopb->Parameters.QueryFileInformation;
        if (data->Iopb->MajorFunction == IRP_MJ_QUERY_INFORMATION && NT_SUCCESS(data->IoStatus.Status) &&
            query.FileInformationClass == FileStandardInformation) {
            FILE_STANDARD_INFORMATION standard;
            std::memcpy(&standard, query.InfoBuffer, sizeof(standard));
            standard.EndOfFile.QuadPart = 4242;
            std::memcpy(query.InfoBuffer, &standard, sizeof(standard));
        }
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\rewritten.txt");
    for (bool refused : {false, true}) {
        refuseFast = refused;
        FILE_STANDARD_INFORMATION standard{};
        ASSERT_EQ(Query(file, &standard, sizeof(standard), FileStandardInformation), STATUS_SUCCESS);
        EXPECT_EQ(standard.EndOfFile.QuadPart, 4242) << (refused ? "as an IRP" : "as fast I/O");
        EXPECT_EQ(standard.NumberOfLinks, 1u);
    }
    NtClose(file);
}

TEST_F(QueryInformationTest, AllInformationHasEveryPartAtItsPublishedOffset)
{
    volume_->SeedFile(u"\\dir\\all.txt", "0123456789");
    volume_->SeedExtendedAttribute(u"\\dir\\all.txt", "Colour", "blue");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    const ACCESS_MASK access = FILE_READ_DATA | FILE_READ_ATTRIBUTES | FILE_READ_EA | SYNCHRONIZE;
    Opened opened = Open(u"\\??\\C:\\dir\\all.txt", access, FILE_SHARE_READ, FILE_OPEN,
                         FILE_SYNCHRONOUS_IO_NONALERT | FILE_SEQUENTIAL_ONLY);
    ASSERT_EQ(opened.status, STATUS_SUCCESS);
    HANDLE file = opened.handle;
    char data[4];
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtReadFile(file, nullptr, nullptr, nullptr, &ioStatus, data, sizeof(data), nullptr, nullptr),
              STATUS_SUCCESS);

    FILE_EA_INFORMATION ea{};
    ASSERT_EQ(Query(file, &ea, sizeof(ea), FileEaInformation), STATUS_SUCCESS);
    EXPECT_NE(ea.EaSize, 0u);

    const std::u16string name = u"\\dir\\all.txt";
    const ULONG nameBytes = static_cast<ULONG>(name.size() * sizeof(char16_t));
    std::vector<UCHAR> buffer(104 + nameBytes + 6, 0xEE);
    ULONG_PTR information = 0;
    ASSERT_EQ(Query(file, buffer.data(), static_cast<ULONG>(buffer.size()), FileAllInformation, &information),
              STATUS_SUCCESS);
    EXPECT_EQ(information, 100u + nameBytes);
    auto at = [&](size_t offset, auto value) {
        std::memcpy(&value, buffer.data() + offset, sizeof(value));
        return value;
    };
    // The file system's own parts are tested with it; these are the ones the file object holds.
    EXPECT_EQ(at(48, LONGLONG{}), 10) << "EndOfFile";
    EXPECT_EQ(at(72, ULONG{}), ea.EaSize);
    EXPECT_EQ(at(76, ULONG{}), access) << "AccessFlags";
    EXPECT_EQ(at(80, LONGLONG{}), 4) << "CurrentByteOffset of the synchronous file object";
    EXPECT_EQ(at(88, ULONG{}) & FILE_SEQUENTIAL_ONLY, ULONG{FILE_SEQUENTIAL_ONLY}) << "Mode";
    EXPECT_EQ(at(96, ULONG{}), nameBytes);
    EXPECT_EQ(std::memcmp(buffer.data() + 100, name.data(), nameBytes), 0);

    // A buffer with room for two characters of the name: the fixed part, what fits of the name,
    // the whole name's length, and STATUS_BUFFER_OVERFLOW.
    std::fill(buffer.begin(), buffer.end(), 0xEE);
    ASSERT_EQ(Query(file, buffer.data(), 104, FileAllInformation, &information), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(information, 104u);
    EXPECT_EQ(at(96, ULONG{}), nameBytes);
    EXPECT_EQ(std::memcmp(buffer.data() + 100, name.data(), 4), 0);
    EXPECT_EQ(buffer[104], 0xEE);
    NtClose(file);
}

// One FILE_STREAM_INFORMATION entry as a listing holds it.
struct StreamEntry {
    ULONG offset;
    ULONG next;
    std::string name;
    LONGLONG size;
};

std::vector<StreamEntry> StreamEntries(const std::vector<UCHAR>& buffer, ULONG_PTR length)
{
    std::vector<StreamEntry> entries;
    ULONG offset = 0;
    while (offset + FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) <= length) {
        FILE_STREAM_INFORMATION entry;
        std::memcpy(&entry, buffer.data() + offset, FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName));
        std::u16string name(entry.StreamNameLength / sizeof(char16_t), u'\0');
        std::memcpy(name.data(), buffer.data() + offset + FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName),
                    entry.StreamNameLength);
        entries.push_back({offset, entry.NextEntryOffset, ntsim::ToUtf8(name), entry.StreamSize.QuadPart});
        if (entry.NextEntryOffset == 0) {
            break;
        }
        offset += entry.NextEntryOffset;
    }
    return entries;
}

TEST_F(QueryInformationTest, PostCallbackThatDropsAStreamShortensTheListingTheCallerGets)
{
    volume_->SeedFile(u"\\hidden.txt", "default");
    volume_->SeedFile(u"\\hidden.txt:private", "p");
    volume_->SeedFile(u"\\hidden.txt:public", "q");
    // A takes ":private:$DATA" out of every stream listing, moving what follows it up.
    FilterA::script().post = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID) {
        auto& query = data->Iopb->Parameters.QueryFileInformation;
        if (data->Iopb->MajorFunction != IRP_MJ_QUERY_INFORMATION ||
            query.FileInformationClass != FileStreamInformation || !NT_SUCCESS(data->IoStatus.Status)) {
            return;
        }
        auto* bytes = static_cast<UCHAR*>(query.InfoBuffer);
        std::vector<UCHAR> copy(bytes, bytes + data->IoStatus.Information);
        std::vector<StreamEntry> entries = StreamEntries(copy, copy.size());
        ULONG out = 0;
        ULONG previous = 0;
        bool any = false;
        for (const StreamEntry& entry : entries) {
            if (entry.name == ":private:$DATA") {
                continue;
            }
            const ULONG size = FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) +
                               static_cast<ULONG>(ntsim::ToUtf16(entry.name).size() * sizeof(char16_t));
            std::memmove(bytes + out, copy.data() + entry.offset, size);
            const ULONG zero = 0;
            std::memcpy(bytes + out, &zero, sizeof(zero));
            if (any) {
                const ULONG link = out - previous;
                std::memcpy(bytes + previous, &link, sizeof(link));
            }
            any = true;
            previous = out;
            data->IoStatus.Information = out + size;
            out = (out + size + 7) & ~7u;
        }
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenSeeded(u"\\??\\C:\\hidden.txt");
    std::vector<UCHAR> buffer(512, 0);
    ULONG_PTR information = 0;
    ASSERT_EQ(Query(file, buffer.data(), static_cast<ULONG>(buffer.size()), FileStreamInformation, &information),
              STATUS_SUCCESS);
    std::vector<StreamEntry> entries = StreamEntries(buffer, information);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "::$DATA");
    EXPECT_EQ(entries[1].name, ":public:$DATA");
    EXPECT_EQ(information, entries[1].offset + 24 + 13 * sizeof(char16_t));
    NtClose(file);
}

TEST_F(QueryInformationTest, HandleQueryStartsBelowTheInstanceThatOpenedTheFile)
{
    volume_->SeedFile(u"\\opened below.txt", "abc");
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    ASSERT_EQ(FilterB::Load(u"360000"), STATUS_SUCCESS);
    HANDLE handle = nullptr;
    ASSERT_EQ(OpenBelowA(u"\\??\\C:\\opened below.txt", FILE_GENERIC_READ, FILE_SHARE_READ, 0, &handle, nullptr),
              STATUS_SUCCESS);
    IO_STATUS_BLOCK ioStatus{};
    ClearEvents();

    for (FILE_INFORMATION_CLASS infoClass : {FileStandardInformation, FileNetworkOpenInformation}) {
        SCOPED_TRACE(static_cast<int>(infoClass));
        std::vector<UCHAR> buffer(64);
        ASSERT_EQ(ZwQueryInformationFile(handle, &ioStatus, buffer.data(), static_cast<ULONG>(buffer.size()), infoClass),
                  STATUS_SUCCESS);
        EXPECT_TRUE(MajorsSeenBy('A').empty()) << "the instance that opened the file is not asked";
        EXPECT_FALSE(MajorsSeenBy('B').empty());
        ClearEvents();
    }
    EXPECT_EQ(FltClose(handle), STATUS_SUCCESS);
}

}  // namespace
}  // namespace iotest
