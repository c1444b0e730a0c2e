// Stream listings and full-attribute queries of managed files through the I/O path: the system's
// streams are gone from every listing of a followed file, wherever they stand and however their
// names are written; a managed path's fast network query open is refused, so that its attributes
// come through an open that the gate sees (and that may be redirected), while every other caller
// keeps the fast path.
#include "redirect_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include <cstring>

#include "driver/globals.h"

namespace foldermerge::testing {
namespace {

// A filter below FolderMerge: what reaches the file system.
using BelowFilter = iotest::TestFilter<0>;

constexpr char16_t kMapStream[] = u"{22ccc030-c7fd-4d41-af27-03d193e7f165}";
constexpr char16_t kMarkerStream[] = u"{1817910B-C48F-402e-97A7-35511415DB0D}";
constexpr char16_t kMarkerStreamLower[] = u"{1817910b-c48f-402e-97a7-35511415db0d}";

// The names of a listing in their order, checking that its chain ends where Information says.
std::vector<std::u16string> StreamNames(const QueryResult& listing)
{
    std::vector<std::u16string> names;
    if (listing.information == 0) {
        return names;
    }
    ULONG offset = 0;
    for (;;) {
        const auto* entry = reinterpret_cast<const FILE_STREAM_INFORMATION*>(listing.bytes.data() + offset);
        names.emplace_back(reinterpret_cast<const char16_t*>(entry->StreamName),
                           entry->StreamNameLength / sizeof(WCHAR));
        if (entry->NextEntryOffset == 0) {
            EXPECT_EQ(listing.information, offset + FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) +
                                               entry->StreamNameLength)
                << "Information is the end of the last entry";
            return names;
        }
        offset += entry->NextEntryOffset;
    }
}

std::u16string Upper(std::u16string text)
{
    for (char16_t& c : text) {
        c = RtlUpcaseUnicodeChar(c);
    }
    return text;
}

class StreamAndAttributeQueries : public RedirectingService {
protected:
    void SetUp() override
    {
        RedirectingService::SetUp();
        // The same streams on a managed file and an unmanaged one: the map stream in upper case,
        // the marker stream in lower case, a name that ends in the map stream's, and one that holds
        // it without its colon.
        for (const std::u16string file : {u"\\Data\\a.txt", u"\\Other\\d.txt"}) {
            for (const std::u16string& stream :
                 {std::u16string(u"notes"), Upper(kMapStream), std::u16string(kMarkerStreamLower),
                  std::u16string(kMapStream) + u"junk", u"x" + std::u16string(kMapStream) + u"y",
                  std::u16string(u"zzz"), std::u16string(u"~tail")}) {
                volume_->SeedFile(file + u":" + stream, "s");
            }
        }
    }

    QueryResult Listing(std::u16string_view path, ULONG length = 1024)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(path, FILE_READ_DATA, &handle).status, STATUS_SUCCESS);
        QueryResult listing = Query(handle, FileStreamInformation, length);
        Close(handle);
        return listing;
    }

    // NtQueryFullAttributesFile (or ZwQueryFullAttributesFile for a kernel-mode caller).
    NTSTATUS QueryFullAttributes(std::u16string_view path, FILE_NETWORK_OPEN_INFORMATION* information,
                                 const std::shared_ptr<ntsim::Process>& process = nullptr,
                                 KPROCESSOR_MODE mode = UserMode)
    {
        ntsim::AttachThread thread(process != nullptr ? process : alice_, {.previousMode = mode});
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        return mode == KernelMode ? ZwQueryFullAttributesFile(&attributes, information)
                                  : NtQueryFullAttributesFile(&attributes, information);
    }

    // Whether the file system got the fast network query open, or an open, since the last call.
    struct Reached {
        bool fastQueryOpen = false;
        bool create = false;
    };
    Reached BelowSaw()
    {
        Reached reached;
        for (const iotest::Event& event : iotest::EventsOf(IRP_MJ_NETWORK_QUERY_OPEN)) {
            reached.fastQueryOpen |= !event.post && event.fastIo();
        }
        reached.create = !iotest::EventsOf(IRP_MJ_CREATE).empty();
        std::lock_guard lock(iotest::EventsMutex());
        iotest::Events().clear();
        return reached;
    }
};

TEST_F(StreamAndAttributeQueries, AFollowedFilesListingLosesTheSystemsStreamsWhereverAndHoweverWritten)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    const std::vector<std::u16string> everything = StreamNames(Listing(u"\\??\\C:\\Other\\d.txt"));
    ASSERT_EQ(everything.size(), 8u) << "an unmanaged file's listing is left alone";

    const QueryResult managed = Listing(u"\\??\\C:\\Data\\a.txt");
    ASSERT_EQ(managed.status, STATUS_SUCCESS);
    std::vector<std::u16string> kept;
    for (const std::u16string& name : everything) {
        if (Upper(name).find(Upper(u":" + std::u16string(kMapStream))) == std::u16string::npos &&
            Upper(name).find(Upper(u":" + std::u16string(kMarkerStream))) == std::u16string::npos) {
            kept.push_back(name);
        }
    }
    ASSERT_EQ(kept.size(), 5u);
    EXPECT_EQ(kept.back(), u":~tail:$DATA") << "a stream behind hidden ones";
    EXPECT_EQ(StreamNames(managed), kept);

    // A listing cut short by the caller's buffer goes back as the file system gave it.
    const QueryResult cut = Listing(u"\\??\\C:\\Data\\a.txt", 400);
    EXPECT_EQ(cut.status, STATUS_BUFFER_OVERFLOW);
    const std::vector<std::u16string> unfiltered(everything.begin(), everything.begin() + 5);
    EXPECT_EQ(unfiltered.back(), u":" + std::u16string(kMarkerStreamLower) + u":$DATA");
    EXPECT_EQ(StreamNames(cut), unfiltered);
}

TEST_F(StreamAndAttributeQueries, AListingOfNothingButHiddenStreamsIsEmpty)
{
    volume_->SeedDirectory(u"\\Data\\Sub");
    volume_->SeedFile(u"\\Data\\Sub:" + std::u16string(kMapStream), "map");
    ASSERT_EQ(service_.Connect(), S_OK);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\Sub", FILE_LIST_DIRECTORY, &handle, {.createOptions = FILE_DIRECTORY_FILE}).status,
              STATUS_SUCCESS);
    const QueryResult listing = Query(handle, FileStreamInformation, 256);
    EXPECT_EQ(listing.status, STATUS_SUCCESS);
    EXPECT_EQ(listing.information, 0u);
    Close(handle);
}

TEST_F(StreamAndAttributeQueries, ListingsAreFilteredWhereverThePostCallbackRunsButNotInPassThroughMode)
{
    ASSERT_EQ(service_.Connect(), S_OK);
    const std::vector<std::u16string> filtered = StreamNames(Listing(u"\\??\\C:\\Data\\a.txt"));
    ASSERT_EQ(filtered.size(), 5u);
    for (ntsim::PostOperationContext where :
         {ntsim::PostOperationContext::DispatchLevel, ntsim::PostOperationContext::ArbitraryThread}) {
        ntsim::ScopedPostOperationContext context(where);
        EXPECT_EQ(StreamNames(Listing(u"\\??\\C:\\Data\\a.txt")), filtered);
    }

    // A record made before the service went: its listing is no longer the filter's business.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, &handle).status, STATUS_SUCCESS);
    g_PassThrough = 1;
    EXPECT_EQ(StreamNames(Query(handle, FileStreamInformation, 1024)).size(), 8u);
    g_PassThrough = 0;
    Close(handle);
}

TEST_F(StreamAndAttributeQueries, AManagedPathsFullAttributesComeThroughAnOpenOthersThroughTheFastPath)
{
    service_.AddRule({.code = kRedirectCode, .reply = {.redirected = false}});
    ASSERT_EQ(BelowFilter::Load(u"100000"), STATUS_SUCCESS);
    ASSERT_EQ(service_.Connect(), S_OK);
    FILE_NETWORK_OPEN_INFORMATION information{};

    // Not managed: the fast query open reaches the file system, and no open is made.
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\Other\\d.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 1);
    Reached reached = BelowSaw();
    EXPECT_TRUE(reached.fastQueryOpen);
    EXPECT_FALSE(reached.create);
    EXPECT_TRUE(NewCalls().empty());

    // Managed: the fast form is refused and the query-only open goes through the gate, which
    // offers it to the service as an attribute-only open.
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\Data\\a.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 12);
    reached = BelowSaw();
    EXPECT_FALSE(reached.fastQueryOpen);
    EXPECT_TRUE(reached.create);
    const std::vector<std::pair<uint32_t, std::u16string>> calls = NewCalls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls[0], std::make_pair(kRedirectCode, std::u16string(kRealFile)));

    // The service's own process, and a kernel-mode caller, keep the fast path on a path managed for
    // them.
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {u"S-1-5-18", u"C:\\Data"}}), STATUS_SUCCESS);
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\Data\\a.txt", &information, service_.ServiceProcess()),
              STATUS_SUCCESS);
    EXPECT_TRUE(BelowSaw().fastQueryOpen);
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\Data\\a.txt", &information, alice_, KernelMode), STATUS_SUCCESS);
    EXPECT_TRUE(BelowSaw().fastQueryOpen);

    // The IRP form of the operation is left alone.
    {
        ntsim::AttachThread thread(alice_);
        ntsim::UnicodeStringHolder name(u"\\??\\C:\\Data\\a.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        EXPECT_EQ(ntsim::IoNetworkQueryOpen(&attributes, &information, false), STATUS_SUCCESS);
    }
    EXPECT_EQ(iotest::EventsOf(IRP_MJ_NETWORK_QUERY_OPEN).size(), 2u) << "the IRP reached the file system";
    EXPECT_TRUE(NewCalls().empty());
}

TEST_F(StreamAndAttributeQueries, ARedirectedFullAttributeQueryIsAnsweredForTheRealFileFromTheDummy)
{
    RedirectFirstPass();
    RedirectSecondPass();
    AnswerInformation();
    ASSERT_EQ(service_.Connect(), S_OK);
    FILE_NETWORK_OPEN_INFORMATION information{};
    ASSERT_EQ(QueryFullAttributes(u"\\??\\C:\\Data\\a.txt", &information), STATUS_SUCCESS);
    EXPECT_EQ(information.EndOfFile.QuadPart, 5000);
    EXPECT_EQ(information.AllocationSize.QuadPart, 8192);
    EXPECT_EQ(information.LastWriteTime.QuadPart, 3333);
    EXPECT_EQ(information.FileAttributes, ULONG{FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_ARCHIVE});
    // The query-only open's cleanup took the dummy with it.
    EXPECT_FALSE(volume_->Exists(kDummyOnVolume));
    const std::vector<std::pair<uint32_t, std::u16string>> calls = NewCalls();
    EXPECT_NE(std::find(calls.begin(), calls.end(), std::make_pair(kInformationCode, std::u16string(kRealFile))),
              calls.end());
}

}  // namespace
}  // namespace foldermerge::testing
