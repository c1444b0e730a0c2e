// Extended attributes through the stack: NtQueryEaFile comes to filters as an IRP_MJ_QUERY_EA IRP
// (never as fast I/O) with the caller's buffer and its SL_* flags, and the file system answers with
// FILE_FULL_EA_INFORMATION entries: a scan kept in the open, an index, a list of names, short buffers,
// and the checks of the list that the I/O manager makes before any filter.
#include "io_testfilter.hpp"

#include <cstring>

namespace iotest {
namespace {

struct EaEntry {
    ULONG offset;
    ULONG next;
    UCHAR flags;
    std::string name;
    std::string value;
};

std::vector<EaEntry> ParseFullEas(const std::vector<UCHAR>& buffer, ULONG_PTR length)
{
    std::vector<EaEntry> entries;
    ULONG offset = 0;
    while (offset + FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName) <= length) {
        FILE_FULL_EA_INFORMATION header;
        std::memcpy(&header, buffer.data() + offset, FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName));
        const auto* name = reinterpret_cast<const char*>(buffer.data() + offset + 8);
        EaEntry entry{offset, header.NextEntryOffset, header.Flags, std::string(name, header.EaNameLength),
                      std::string(name + header.EaNameLength + 1, header.EaValueLength)};
        EXPECT_EQ(name[header.EaNameLength], '\0') << "the name's terminating zero";
        entries.push_back(entry);
        if (header.NextEntryOffset == 0) {
            break;
        }
        offset += header.NextEntryOffset;
    }
    return entries;
}

// A FILE_GET_EA_INFORMATION chain of names, each entry on a 4-byte boundary.
std::vector<UCHAR> NameList(const std::vector<std::string>& names)
{
    std::vector<UCHAR> list;
    size_t previous = 0;
    for (size_t i = 0; i < names.size(); ++i) {
        const size_t at = (list.size() + 3) & ~size_t{3};
        if (i != 0) {
            const ULONG next = static_cast<ULONG>(at - previous);
            std::memcpy(list.data() + previous, &next, sizeof(next));
        }
        list.resize(at + 5 + names[i].size() + 1, 0);
        list[at + 4] = static_cast<UCHAR>(names[i].size());
        std::memcpy(list.data() + at + 5, names[i].data(), names[i].size());
        previous = at;
    }
    return list;
}

class ExtendedAttributesTest : public IoTest {
protected:
    void SetUp() override
    {
        IoTest::SetUp();
        volume_->SeedFile(u"\\eas.txt", "content");
        volume_->SeedExtendedAttribute(u"\\eas.txt", "first", "1");
        volume_->SeedExtendedAttribute(u"\\eas.txt", "Second", "twenty-two", FILE_NEED_EA);
        volume_->SeedExtendedAttribute(u"\\eas.txt", "THIRD", "333");
    }

    HANDLE OpenEas(ACCESS_MASK access = FILE_READ_EA | SYNCHRONIZE)
    {
        Opened file = Open(u"\\??\\C:\\eas.txt", access, FILE_SHARE_READ, FILE_OPEN);
        EXPECT_EQ(file.status, STATUS_SUCCESS);
        return file.handle;
    }

    struct Answer {
        NTSTATUS status;
        ULONG_PTR information;
        std::vector<EaEntry> entries;
    };

    static Answer QueryEas(HANDLE handle, ULONG length, bool single = false, bool restart = false,
                           const std::vector<UCHAR>* list = nullptr, ULONG* index = nullptr)
    {
        std::vector<UCHAR> buffer(length + 1, 0xEE);
        IO_STATUS_BLOCK ioStatus{};
        Answer answer;
        answer.status = NtQueryEaFile(handle, &ioStatus, buffer.data(), length, single,
                                      list != nullptr ? const_cast<UCHAR*>(list->data()) : nullptr,
                                      list != nullptr ? static_cast<ULONG>(list->size()) : 0, index, restart);
        answer.information = ioStatus.Information;
        EXPECT_EQ(buffer[length], 0xEE) << "written past the caller's length";
        if (!NT_ERROR(answer.status)) {
            answer.entries = ParseFullEas(buffer, answer.information);
        }
        return answer;
    }

    static std::vector<std::string> Names(const Answer& answer)
    {
        std::vector<std::string> names;
        for (const EaEntry& entry : answer.entries) {
            names.push_back(entry.name);
        }
        return names;
    }
};

TEST_F(ExtendedAttributesTest, QueryComesToFiltersAsAnIrpWithTheCallersBufferAndFlags)
{
    static PVOID bufferSeen;
    static UCHAR flagsSeen;
    FilterA::script().pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (data->Iopb->MajorFunction == IRP_MJ_QUERY_EA) {
            bufferSeen = data->Iopb->Parameters.QueryEa.EaBuffer;
            flagsSeen = data->Iopb->OperationFlags;
        }
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    };
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenEas();
    ClearEvents();

    std::vector<UCHAR> buffer(256);
    IO_STATUS_BLOCK ioStatus{};
    ASSERT_EQ(NtQueryEaFile(file, &ioStatus, buffer.data(), 256, TRUE, nullptr, 0, nullptr, TRUE), STATUS_SUCCESS);
    const std::vector<Event> queries = EventsOf(IRP_MJ_QUERY_EA);
    ASSERT_EQ(queries.size(), 2u) << "one IRP, and no fast attempt before it";
    EXPECT_FALSE(queries[0].fastIo());
    EXPECT_TRUE((queries[0].flags & FLTFL_CALLBACK_DATA_IRP_OPERATION) != 0);
    EXPECT_EQ(queries[0].requestorMode, UserMode);
    EXPECT_EQ(bufferSeen, buffer.data());
    EXPECT_EQ(flagsSeen, SL_RETURN_SINGLE_ENTRY | SL_RESTART_SCAN);
    EXPECT_EQ(queries[1].status, STATUS_SUCCESS);
    NtClose(file);
}

TEST_F(ExtendedAttributesTest, EntriesAreUpperCaseNamesWithTheirValuesOnFourByteBoundaries)
{
    HANDLE file = OpenEas();
    Answer all = QueryEas(file, 256);
    ASSERT_EQ(all.status, STATUS_SUCCESS);
    ASSERT_EQ(all.entries.size(), 3u);
    EXPECT_EQ(Names(all), (std::vector<std::string>{"FIRST", "SECOND", "THIRD"})) << "in the order they were added";
    EXPECT_EQ(all.entries[1].value, "twenty-two");
    EXPECT_EQ(all.entries[1].flags, FILE_NEED_EA);
    EXPECT_EQ(all.entries[0].flags, 0);
    for (const EaEntry& entry : all.entries) {
        EXPECT_EQ(entry.offset % 4, 0u) << entry.name;
    }
    EXPECT_EQ(all.entries[0].next, 16u) << "8 + FIRST + its zero + 1, rounded up to 4";
    EXPECT_EQ(all.entries[2].next, 0u);
    EXPECT_EQ(all.information, all.entries[2].offset + 8 + 5 + 1 + 3) << "through the last value, no padding";

    // FileEaInformation gives the size a buffer needs for all of them.
    FILE_EA_INFORMATION ea{};
    IO_STATUS_BLOCK ioStatus{};
    Opened attributes = Open(u"\\??\\C:\\eas.txt", FILE_READ_ATTRIBUTES, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(NtQueryInformationFile(attributes.handle, &ioStatus, &ea, sizeof(ea), FileEaInformation), STATUS_SUCCESS);
    EXPECT_GE(ea.EaSize, all.information);
    EXPECT_LE(ea.EaSize, all.information + 3);
    NtClose(attributes.handle);
    NtClose(file);
}

TEST_F(ExtendedAttributesTest, ScanContinuesInTheOpenRestartsAndTakesAnIndex)
{
    HANDLE file = OpenEas();
    EXPECT_EQ(Names(QueryEas(file, 256, true)), std::vector<std::string>{"FIRST"});
    EXPECT_EQ(Names(QueryEas(file, 256, true)), std::vector<std::string>{"SECOND"});
    EXPECT_EQ(Names(QueryEas(file, 256)), std::vector<std::string>{"THIRD"}) << "the rest of the scan";
    EXPECT_EQ(QueryEas(file, 256).status, STATUS_NO_MORE_EAS);
    EXPECT_EQ(Names(QueryEas(file, 256, true, true)), std::vector<std::string>{"FIRST"}) << "restarted";

    // Another open of the file has a scan of its own.
    HANDLE other = OpenEas();
    EXPECT_EQ(Names(QueryEas(other, 256, true)), std::vector<std::string>{"FIRST"});
    NtClose(other);

    ULONG index = 2;
    EXPECT_EQ(Names(QueryEas(file, 256, false, false, nullptr, &index)),
              (std::vector<std::string>{"SECOND", "THIRD"}));
    index = 4;
    EXPECT_EQ(QueryEas(file, 256, false, false, nullptr, &index).status, STATUS_NO_MORE_EAS) << "one past the last";
    for (ULONG outside : {0u, 5u}) {
        index = outside;
        EXPECT_EQ(QueryEas(file, 256, false, false, nullptr, &index).status, STATUS_NONEXISTENT_EA_ENTRY) << outside;
    }
    NtClose(file);
}

TEST_F(ExtendedAttributesTest, ListOfNamesAnswersInItsOrderAndMissingNamesHaveNoValue)
{
    HANDLE file = OpenEas();
    EXPECT_EQ(Names(QueryEas(file, 256, true)), std::vector<std::string>{"FIRST"});
    const std::vector<UCHAR> list = NameList({"third", "absent", "First"});
    Answer answer = QueryEas(file, 256, false, false, &list);
    ASSERT_EQ(answer.status, STATUS_SUCCESS);
    EXPECT_EQ(Names(answer), (std::vector<std::string>{"THIRD", "ABSENT", "FIRST"}));
    EXPECT_EQ(answer.entries[0].value, "333");
    EXPECT_EQ(answer.entries[1].value, "");
    EXPECT_EQ(Names(QueryEas(file, 256, true)), std::vector<std::string>{"SECOND"})
        << "a list leaves the scan where it was";
    EXPECT_EQ(Names(QueryEas(file, 256, true, false, &list)), std::vector<std::string>{"THIRD"});
    NtClose(file);
}

TEST_F(ExtendedAttributesTest, InconsistentListIsRefusedBeforeAnyFilterWithTheOffsetOfTheBadEntry)
{
    ASSERT_EQ(FilterA::Load(u"370000"), STATUS_SUCCESS);
    HANDLE file = OpenEas();
    ClearEvents();
    std::vector<UCHAR> list = NameList({"FIRST", "SECOND"});
    std::vector<UCHAR> buffer(256);
    IO_STATUS_BLOCK ioStatus{};

    struct Case {
        const char* what;
        std::vector<UCHAR> list;
        ULONG badOffset;
    };
    std::vector<Case> cases;
    std::vector<UCHAR> misaligned = list;
    misaligned[0] = 13;
    cases.push_back({"a next entry off a 4-byte boundary", misaligned, 0});
    std::vector<UCHAR> beyond = list;
    beyond[0] = 200;
    cases.push_back({"a next entry past the list", beyond, 0});
    std::vector<UCHAR> longName = list;
    longName[12 + 4] = 40;
    cases.push_back({"a second name running past the list", longName, 12});
    std::vector<UCHAR> cut(list.begin(), list.end() - 1);
    cases.push_back({"no room for the last name's zero", cut, 12});
    for (const Case& test : cases) {
        SCOPED_TRACE(test.what);
        ioStatus = {};
        EXPECT_EQ(NtQueryEaFile(file, &ioStatus, buffer.data(), 256, FALSE, const_cast<UCHAR*>(test.list.data()),
                                static_cast<ULONG>(test.list.size()), nullptr, FALSE),
                  STATUS_EA_LIST_INCONSISTENT);
        EXPECT_EQ(ioStatus.Information, test.badOffset);
    }
    EXPECT_TRUE(EventsOf(IRP_MJ_QUERY_EA).empty());
    ASSERT_EQ(NtQueryEaFile(file, &ioStatus, buffer.data(), 256, FALSE, list.data(), static_cast<ULONG>(list.size()),
                            nullptr, FALSE),
              STATUS_SUCCESS);
    EXPECT_FALSE(EventsOf(IRP_MJ_QUERY_EA).empty());
    NtClose(file);
}

TEST_F(ExtendedAttributesTest, ShortBufferGivesWhatFitsAndTheScanGoesOnFromThere)
{
    HANDLE file = OpenEas();
    // FIRST takes 15 bytes (16 with its padding), SECOND 25: room for FIRST and part of SECOND.
    Answer partial = QueryEas(file, 30);
    EXPECT_EQ(partial.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Names(partial), std::vector<std::string>{"FIRST"});
    EXPECT_EQ(partial.information, 15u);
    EXPECT_EQ(partial.entries[0].next, 0u);

    Answer none = QueryEas(file, 10);
    EXPECT_EQ(none.status, STATUS_BUFFER_TOO_SMALL) << "not even SECOND fits";
    EXPECT_EQ(none.information, 0u);
    EXPECT_EQ(Names(QueryEas(file, 256)), (std::vector<std::string>{"SECOND", "THIRD"}));
    NtClose(file);
}

TEST_F(ExtendedAttributesTest, FileWithoutEasAndHandleWithoutAccessAreRefused)
{
    volume_->SeedFile(u"\\plain.txt", "x");
    Opened plain = Open(u"\\??\\C:\\plain.txt", FILE_READ_EA, FILE_SHARE_READ, FILE_OPEN);
    ASSERT_EQ(plain.status, STATUS_SUCCESS);
    EXPECT_EQ(QueryEas(plain.handle, 64).status, STATUS_NO_EAS_ON_FILE);
    const std::vector<UCHAR> list = NameList({"ANY"});
    EXPECT_EQ(QueryEas(plain.handle, 64, false, false, &list).status, STATUS_NO_EAS_ON_FILE);
    NtClose(plain.handle);

    HANDLE noAccess = OpenEas(FILE_READ_DATA);
    EXPECT_EQ(QueryEas(noAccess, 64).status, STATUS_ACCESS_DENIED);
    NtClose(noAccess);

    // Removing the last EA leaves the file without any.
    for (const char* name : {"FIRST", "second", "Third"}) {
        volume_->SeedExtendedAttribute(u"\\eas.txt", name, "");
    }
    HANDLE emptied = OpenEas();
    EXPECT_EQ(QueryEas(emptied, 64).status, STATUS_NO_EAS_ON_FILE);
    NtClose(emptied);
}

TEST(ExtendedAttributesOnCdrom, AreNotKept)
{
    auto cdrom = ntsim::CreateCdfsVolume(u"\\Device\\CdRom0");
    cdrom->SeedFile(u"\\disc.txt", "x");
    EXPECT_THROW(cdrom->SeedExtendedAttribute(u"\\disc.txt", "NAME", "value"), std::runtime_error);
}

}  // namespace
}  // namespace iotest
