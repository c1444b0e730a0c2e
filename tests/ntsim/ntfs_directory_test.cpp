// Directory enumeration on the NTFS volume: the published record layouts, listing order, patterns,
// buffer rules, end-of-listing statuses, and single-entry, restart and index-specified scans.
#include "ntfs_test_support.hpp"

#include <ntsim/sim/text.hpp>

#include <algorithm>

using namespace ntfs_test;
using ntsim::ToUtf8;

namespace {

constexpr ULONG kRestartScan = 0x1;
constexpr ULONG kReturnSingleEntry = 0x2;
constexpr ULONG kIndexSpecified = 0x4;
constexpr FILE_INFORMATION_CLASS kClasses[] = {FileDirectoryInformation,       FileFullDirectoryInformation,
                                               FileBothDirectoryInformation,   FileNamesInformation,
                                               FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};
using Names = std::vector<std::string>;

struct Listing {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    std::vector<unsigned char> bytes;
    std::vector<std::string> names;
};

class NtfsDirectory : public VolumeTest {
protected:
    // One query; the names of the returned records, following NextEntryOffset, each record checked
    // to start on an 8-byte boundary.
    Listing List(ntsim::VolumeOpen& open, FILE_INFORMATION_CLASS infoClass, ULONG length,
                 const char* pattern = nullptr, ULONG flags = 0, ULONG fileIndex = 0)
    {
        Listing listing;
        listing.bytes.assign(length, 0xCC);
        std::optional<ntsim::UnicodeStringHolder> expression;
        if (pattern != nullptr) {
            expression.emplace(pattern);
        }
        ULONG returned = 0;
        listing.status = volume->QueryDirectory(open, infoClass, listing.bytes.data(), length,
                                                expression ? expression->get() : nullptr, flags, fileIndex,
                                                &returned);
        listing.bytes.resize(returned);
        if (listing.status != STATUS_SUCCESS) {
            return listing;
        }
        const size_t nameLengthOffset = infoClass == FileNamesInformation ? 8 : 60;
        const size_t nameOffset = NameOffsetOf(infoClass);
        for (size_t offset = 0;;) {
            EXPECT_EQ(offset % 8, 0u);
            const ULONG nameLength = At<ULONG>(listing.bytes, offset + nameLengthOffset);
            listing.names.push_back(NameAt(listing.bytes, offset + nameOffset, nameLength));
            const ULONG next = At<ULONG>(listing.bytes, offset);
            if (next == 0) {
                EXPECT_EQ(offset + nameOffset + nameLength, returned);  // the last record ends the data
                break;
            }
            offset += next;
        }
        return listing;
    }

    static size_t NameOffsetOf(FILE_INFORMATION_CLASS infoClass)
    {
        switch (infoClass) {
        case FileDirectoryInformation: return 64;
        case FileFullDirectoryInformation: return 68;
        case FileBothDirectoryInformation: return 94;
        case FileNamesInformation: return 12;
        case FileIdBothDirectoryInformation: return 104;
        case FileIdFullDirectoryInformation: return 80;
        default: return 0;
        }
    }

    // Every name of a scan, query after query, until the volume says there is no more.
    std::vector<std::string> ListAll(ntsim::VolumeOpen& open, const char* pattern, ULONG length = 4096)
    {
        std::vector<std::string> all;
        Listing listing = List(open, FileNamesInformation, length, pattern);
        while (listing.status == STATUS_SUCCESS) {
            all.insert(all.end(), listing.names.begin(), listing.names.end());
            listing = List(open, FileNamesInformation, length);
        }
        EXPECT_EQ(listing.status, STATUS_NO_MORE_FILES);
        return all;
    }

    std::unique_ptr<ntsim::VolumeOpen> OpenDirectory(std::u16string path)
    {
        return MustOpen({.path = std::move(path), .access = FILE_LIST_DIRECTORY, .options = FILE_DIRECTORY_FILE});
    }
};

TEST_F(NtfsDirectory, EveryClassPlacesItsFieldsAtThePublishedOffsets)
{
    volume->SeedFile(u"\\dir\\A Long Name.txt", std::string(5000, 'x'), FILE_ATTRIBUTE_HIDDEN);
    FILE_BASIC_INFORMATION times{{.QuadPart = 0x1111}, {.QuadPart = 0x2222}, {.QuadPart = 0x3333},
                                 {.QuadPart = 0x4444}};
    volume->SeedBasicInformation(u"\\dir\\A Long Name.txt", times);
    auto file = MustOpen({.path = u"\\dir\\A Long Name.txt"});
    const LONGLONG fileId = At<LONGLONG>(Query(*file, FileInternalInformation, 8), 0);
    const std::string shortName = ToUtf8(volume->ShortName(u"\\dir\\A Long Name.txt"));
    ASSERT_EQ(shortName, "ALONGN~1.TXT");

    for (FILE_INFORMATION_CLASS infoClass : kClasses) {
        SCOPED_TRACE(static_cast<int>(infoClass));
        auto directory = OpenDirectory(u"\\dir");
        Listing listing = List(*directory, infoClass, 1024, "a long*");
        ASSERT_EQ(listing.status, STATUS_SUCCESS);
        ASSERT_EQ(listing.names, Names{"A Long Name.txt"});
        const auto& r = listing.bytes;
        EXPECT_EQ(At<ULONG>(r, 0), 0u);  // NextEntryOffset of the last record
        EXPECT_EQ(At<ULONG>(r, 4), 3u);  // FileIndex: after "." and ".."
        if (infoClass == FileNamesInformation) {
            EXPECT_EQ(At<ULONG>(r, 8), 30u);
            continue;
        }
        for (int time = 0; time < 4; time++) {
            EXPECT_EQ(At<LONGLONG>(r, 8 + 8 * time), 0x1111 * (time + 1));
        }
        EXPECT_EQ(At<LONGLONG>(r, 40), 5000);  // EndOfFile
        EXPECT_EQ(At<LONGLONG>(r, 48), 8192);  // AllocationSize
        EXPECT_EQ(At<ULONG>(r, 56), static_cast<ULONG>(FILE_ATTRIBUTE_HIDDEN));
        EXPECT_EQ(At<ULONG>(r, 60), 30u);      // FileNameLength
        if (infoClass != FileDirectoryInformation) {
            EXPECT_EQ(At<ULONG>(r, 64), 0u);  // EaSize
        }
        if (infoClass == FileBothDirectoryInformation || infoClass == FileIdBothDirectoryInformation) {
            EXPECT_EQ(r[68], 24u);  // ShortNameLength, in bytes
            EXPECT_EQ(NameAt(r, 70, 24), shortName);
        }
        if (infoClass == FileIdBothDirectoryInformation) {
            EXPECT_EQ(At<LONGLONG>(r, 96), fileId);
        }
        if (infoClass == FileIdFullDirectoryInformation) {
            EXPECT_EQ(At<LONGLONG>(r, 72), fileId);
        }
    }
}

TEST_F(NtfsDirectory, OnlyNamesThatAreNoShortNamesCarryOneInTheBothClasses)
{
    volume->SeedFile(u"\\dir\\readme.txt");
    volume->SeedFile(u"\\dir\\Quarterly Report.docx");
    for (FILE_INFORMATION_CLASS infoClass : {FileBothDirectoryInformation, FileIdBothDirectoryInformation}) {
        SCOPED_TRACE(static_cast<int>(infoClass));
        auto directory = OpenDirectory(u"\\dir");
        Listing listing = List(*directory, infoClass, 4096);
        ASSERT_EQ(listing.names, (Names{".", "..", "Quarterly Report.docx", "readme.txt"}));
        std::vector<std::string> shortNames;
        for (size_t offset = 0;;) {
            const UCHAR shortNameLength = listing.bytes[offset + 68];
            shortNames.push_back(NameAt(listing.bytes, offset + 70, shortNameLength));
            // The rest of the 12-character field is zero.
            for (size_t at = offset + 70 + shortNameLength; at < offset + 94; ++at) {
                ASSERT_EQ(listing.bytes[at], 0) << at - offset;
            }
            const ULONG next = At<ULONG>(listing.bytes, offset);
            if (next == 0) {
                break;
            }
            offset += next;
        }
        EXPECT_EQ(shortNames, (Names{"", "", "QUARTE~1.DOC", ""}));
    }
}

TEST_F(NtfsDirectory, EveryBufferSizeHandsOutEachRecordOnceAndWritesNothingPastWhatItReturns)
{
    const std::vector<std::u16string> files = {u"a", u"Bb", u"Long File Name Number Three.txt", u"c.txt",
                                               u"dd d", u"\u00e9t\u00e9"};
    for (const std::u16string& name : files) {
        volume->SeedFile(u"\\sweep\\" + name);
    }
    const std::vector<std::u16string> order = {u".", u"..", u"a", u"Bb", u"c.txt", u"dd d",
                                               u"Long File Name Number Three.txt", u"\u00e9t\u00e9"};
    auto align8 = [](size_t value) { return (value + 7) & ~size_t{7}; };
    for (FILE_INFORMATION_CLASS infoClass : kClasses) {
        const size_t fixed = NameOffsetOf(infoClass);
        const size_t nameLengthAt = infoClass == FileNamesInformation ? 8 : 60;
        size_t whole = 0;
        for (const std::u16string& name : order) {
            whole += align8(fixed + name.size() * 2);
        }
        for (size_t length = align8(fixed + 2); length <= whole + 8; ++length) {
            SCOPED_TRACE("class " + std::to_string(infoClass) + ", buffer of " + std::to_string(length));
            auto directory = OpenDirectory(u"\\sweep");
            std::vector<std::u16string> seen;
            NTSTATUS status = STATUS_SUCCESS;
            for (int query = 0; query < 20 && status != STATUS_NO_MORE_FILES; ++query) {
                std::vector<unsigned char> bytes(length + 16, 0xCC);
                ULONG returned = 0;
                status = volume->QueryDirectory(*directory, infoClass, bytes.data(), static_cast<ULONG>(length),
                                                nullptr, 0, 0, &returned);
                ASSERT_LE(returned, length);
                const auto written = std::find_if(bytes.begin() + returned, bytes.end(),
                                                  [](unsigned char byte) { return byte != 0xCC; });
                ASSERT_EQ(written, bytes.end()) << "written past the returned bytes, at " << written - bytes.begin();
                if (status == STATUS_BUFFER_OVERFLOW) {
                    // One record cut short: its whole name's length, and the bytes of it that fit.
                    ASSERT_EQ(returned, length);
                    ASSERT_LT(seen.size(), order.size());
                    const std::u16string& expected = order[seen.size()];
                    ASSERT_EQ(At<ULONG>(bytes, 0), 0u);
                    ASSERT_EQ(At<ULONG>(bytes, nameLengthAt), expected.size() * 2);
                    ASSERT_EQ(std::memcmp(bytes.data() + fixed, expected.data(), length - fixed), 0);
                    seen.push_back(expected);
                    continue;
                }
                if (status != STATUS_SUCCESS) {
                    break;
                }
                for (size_t offset = 0;;) {
                    ASSERT_EQ(offset % 8, 0u);
                    const ULONG nameLength = At<ULONG>(bytes, offset + nameLengthAt);
                    seen.emplace_back(reinterpret_cast<const char16_t*>(bytes.data() + offset + fixed),
                                      nameLength / 2);
                    const ULONG next = At<ULONG>(bytes, offset);
                    if (next == 0) {
                        ASSERT_EQ(offset + fixed + nameLength, returned) << "the last record ends the data";
                        break;
                    }
                    ASSERT_EQ(next, align8(fixed + nameLength)) << "records are packed at 8-byte steps";
                    offset += next;
                }
            }
            EXPECT_EQ(status, STATUS_NO_MORE_FILES);
            EXPECT_EQ(seen, order);
        }
    }
}

TEST_F(NtfsDirectory, DotEntriesComeFirstThenNamesInUpcasedOrder)
{
    for (const char16_t* name : {u"\\dir\\b", u"\\dir\\_x", u"\\dir\\A", u"\\dir\\c", u"\\dir\\a1"}) {
        volume->SeedFile(name);
    }
    auto directory = OpenDirectory(u"\\dir");
    EXPECT_EQ(ListAll(*directory, nullptr), (Names{".", "..", "A", "a1", "b", "c", "_x"}));

    // The root has no "." or "..".
    auto root = OpenDirectory(u"\\");
    EXPECT_EQ(ListAll(*root, nullptr), Names{"dir"});
}

TEST_F(NtfsDirectory, EndOfListingStatusesDependOnWhetherTheScanEverStarted)
{
    volume->SeedFile(u"\\dir\\one.txt");
    auto nothing = OpenDirectory(u"\\dir");
    EXPECT_EQ(List(*nothing, FileDirectoryInformation, 512, "*.doc").status, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(List(*nothing, FileDirectoryInformation, 512).status, STATUS_NO_MORE_FILES);

    auto something = OpenDirectory(u"\\dir");
    EXPECT_EQ(List(*something, FileDirectoryInformation, 512, "*.txt").status, STATUS_SUCCESS);
    EXPECT_EQ(List(*something, FileDirectoryInformation, 512).status, STATUS_NO_MORE_FILES);
    // A restart begins the scan again, with the pattern of the first query whatever the restart names.
    EXPECT_EQ(List(*something, FileDirectoryInformation, 512, nullptr, kRestartScan).names, Names{"one.txt"});
    EXPECT_EQ(List(*something, FileDirectoryInformation, 512, "*.md", kRestartScan).names, Names{"one.txt"});

    volume->SeedFile(u"\\notadir.txt");
    auto file = MustOpen({.path = u"\\notadir.txt"});
    EXPECT_EQ(List(*file, FileDirectoryInformation, 512).status, STATUS_INVALID_PARAMETER);
}

TEST_F(NtfsDirectory, RecordsThatDoNotFitWaitForTheNextQueryUnlessNoneFits)
{
    for (const char16_t* name : {u"\\d\\aaaa", u"\\d\\bbbb", u"\\d\\cccc"}) {
        volume->SeedFile(name);
    }
    // A FileNamesInformation record of a 4-character name takes 12 + 8 = 20 bytes, 24 with padding.
    auto directory = OpenDirectory(u"\\d");
    Listing first = List(*directory, FileNamesInformation, 24 + 19, "????");
    EXPECT_EQ(first.status, STATUS_SUCCESS);
    EXPECT_EQ(first.names, Names{"aaaa"});
    Listing second = List(*directory, FileNamesInformation, 24 + 20);
    EXPECT_EQ(second.names, (Names{"bbbb", "cccc"}));
    EXPECT_EQ(At<ULONG>(second.bytes, 0), 24u);
    EXPECT_EQ(second.bytes.size(), 44u);

    // Not even the first record fits: the part that does, the whole name length, an overflow.
    auto small = OpenDirectory(u"\\d");
    Listing partial = List(*small, FileNamesInformation, 16, "????");
    EXPECT_EQ(partial.status, STATUS_BUFFER_OVERFLOW);
    ASSERT_EQ(partial.bytes.size(), 16u);
    EXPECT_EQ(At<ULONG>(partial.bytes, 8), 8u);
    EXPECT_EQ(NameAt(partial.bytes, 12, 4), "aa");
    // That record counts as handed out.
    EXPECT_EQ(List(*small, FileNamesInformation, 512).names, (Names{"bbbb", "cccc"}));

    // An odd length: the returned bytes end in half a character.
    auto odd = OpenDirectory(u"\\d");
    Listing half = List(*odd, FileNamesInformation, 17, "????");
    EXPECT_EQ(half.status, STATUS_BUFFER_OVERFLOW);
    ASSERT_EQ(half.bytes.size(), 17u);
    EXPECT_EQ(NameAt(half.bytes, 12, 4), "aa");
    EXPECT_EQ(half.bytes[16], 'a');
}

TEST_F(NtfsDirectory, PatternsMatchLongOrShortNamesWithoutRegardToCase)
{
    for (const char16_t* name : {u"\\p\\data", u"\\p\\data.txt", u"\\p\\DATA.TX", u"\\p\\data.text",
                                 u"\\p\\Quarterly Report.docx"}) {
        volume->SeedFile(name);
    }
    // A star, the DOS question mark and star, and a short name.
    for (auto [pattern, names] : {std::pair<const char*, Names>{"*.TxT", {"data.txt"}},
                                  {"data.>>>", {"DATA.TX", "data.txt"}},
                                  {"<.tx", {"DATA.TX"}},
                                  {"quarte~1.doc", {"Quarterly Report.docx"}}}) {
        EXPECT_EQ(ListAll(*OpenDirectory(u"\\p"), pattern), names) << pattern;
    }
}

TEST_F(NtfsDirectory, SingleEntryRestartAndIndexSpecifiedScans)
{
    for (const char16_t* name : {u"\\s\\one", u"\\s\\three", u"\\s\\two"}) {
        volume->SeedFile(name);
    }
    auto directory = OpenDirectory(u"\\s");
    EXPECT_EQ(List(*directory, FileNamesInformation, 512, "*", kReturnSingleEntry).names, Names{"."});
    EXPECT_EQ(List(*directory, FileNamesInformation, 512, nullptr, kReturnSingleEntry).names, Names{".."});
    EXPECT_EQ(List(*directory, FileNamesInformation, 512, nullptr, kReturnSingleEntry).names, Names{"one"});
    EXPECT_EQ(List(*directory, FileNamesInformation, 512, nullptr, kRestartScan | kReturnSingleEntry).names,
              Names{"."});

    // FileIndex 3 is "one": resuming after it gives the rest.
    Listing resumed = List(*directory, FileDirectoryInformation, 512, nullptr, kIndexSpecified, 3);
    EXPECT_EQ(resumed.names, (Names{"three", "two"}));
    EXPECT_EQ(At<ULONG>(resumed.bytes, 4), 4u);

    // Entries made between queries appear when the scan reaches their place.
    auto live = OpenDirectory(u"\\s");
    EXPECT_EQ(List(*live, FileNamesInformation, 512, "t*", kReturnSingleEntry).names, Names{"three"});
    volume->SeedFile(u"\\s\\thz");
    volume->SeedFile(u"\\s\\tha");
    EXPECT_EQ(List(*live, FileNamesInformation, 512).names, (Names{"thz", "two"}));
}

}  // namespace
