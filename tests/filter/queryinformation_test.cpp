// Stream listings and full-attribute queries of managed files: the system's streams are gone from
// every listing of a followed file, wherever they stand and however their names are written; a
// managed path's fast network query open is refused, so that its attributes come through an open
// that the gate sees, while every other caller keeps the fast path.
#include "redirect_fixture.hpp"

#include "../ntsim/io_testfilter.hpp"

#include "driver/globals.h"

namespace foldermerge::testing {
namespace {

constexpr char16_t kMapStream[] = u"{22ccc030-c7fd-4d41-af27-03d193e7f165}";

// The names of a listing in their order; the chain must end where Information says.
std::vector<std::u16string> StreamNames(const QueryResult& listing)
{
    std::vector<std::u16string> names;
    for (ULONG offset = 0; listing.information != 0;) {
        const auto* entry = reinterpret_cast<const FILE_STREAM_INFORMATION*>(listing.bytes.data() + offset);
        names.emplace_back(reinterpret_cast<const char16_t*>(entry->StreamName), entry->StreamNameLength / 2);
        if (entry->NextEntryOffset == 0) {
            EXPECT_EQ(listing.information,
                      offset + FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName) + entry->StreamNameLength);
            break;
        }
        offset += entry->NextEntryOffset;
    }
    return names;
}

class StreamAndAttributeQueries : public RedirectingService {
protected:
    void SetUp() override
    {
        RedirectingService::SetUp();
        // On a managed and an unmanaged file: the map stream in upper case, the marker stream in
        // lower case, a name that begins with the map stream's, and one that holds it without its
        // colon (which isn't the map stream's name).
        for (const std::u16string file : {u"\\Data\\a.txt", u"\\Other\\d.txt"}) {
            for (const char16_t* stream :
                 {u"notes", u"{22CCC030-C7FD-4D41-AF27-03D193E7F165}", u"{1817910b-c48f-402e-97a7-35511415db0d}",
                  u"{22ccc030-c7fd-4d41-af27-03d193e7f165}junk", u"x{22ccc030-c7fd-4d41-af27-03d193e7f165}y", u"zzz",
                  u"~tail"}) {
                volume_->SeedFile(file + u":" + stream, "s");
            }
        }
        ASSERT_EQ(service_.Connect(), S_OK);
    }

    QueryResult Listing(std::u16string_view path, ULONG length = 1024, OpenOptions options = {})
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(path, FILE_READ_DATA, &handle, options).status, STATUS_SUCCESS);
        QueryResult listing = Query(handle, FileStreamInformation, length);
        Close(handle);
        return listing;
    }

    NTSTATUS QueryFullAttributes(const std::shared_ptr<ntsim::Process>& process, KPROCESSOR_MODE mode,
                                 std::u16string_view path = u"\\??\\C:\\Data\\a.txt", LONGLONG* endOfFile = nullptr)
    {
        ntsim::AttachThread thread(process, {.previousMode = mode});
        ntsim::UnicodeStringHolder name(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        FILE_NETWORK_OPEN_INFORMATION information{};
        const NTSTATUS status = mode == KernelMode ? ZwQueryFullAttributesFile(&attributes, &information)
                                                   : NtQueryFullAttributesFile(&attributes, &information);
        if (endOfFile != nullptr) {
            *endOfFile = information.EndOfFile.QuadPart;
        }
        return status;
    }

    // Whether the file system below got the fast network query open since the last call.
    static bool FastPathTaken()
    {
        bool taken = false;
        for (const iotest::Event& event : iotest::EventsOf(IRP_MJ_NETWORK_QUERY_OPEN)) {
            taken |= event.fastIo();
        }
        std::lock_guard lock(iotest::EventsMutex());
        iotest::Events().clear();
        return taken;
    }
};

TEST_F(StreamAndAttributeQueries, AFollowedFilesListingLosesTheSystemsStreamsWhereverAndHoweverWritten)
{
    const std::vector<std::u16string> everything = StreamNames(Listing(u"\\??\\C:\\Other\\d.txt"));
    ASSERT_EQ(everything.size(), 8u) << "an unmanaged file's listing is whole";
    // In upcased order: ::$DATA, notes, x...y, zzz, the marker, the map, the map...junk, ~tail.
    const std::vector<std::u16string> kept = {everything[0], everything[1], everything[2], everything[3],
                                              everything[7]};
    EXPECT_EQ(kept[2], u":x" + std::u16string(kMapStream) + u"y:$DATA");
    EXPECT_EQ(StreamNames(Listing(u"\\??\\C:\\Data\\a.txt")), kept);

    // Wherever the post-callback runs.
    for (auto where : {ntsim::PostOperationContext::DispatchLevel, ntsim::PostOperationContext::ArbitraryThread}) {
        ntsim::ScopedPostOperationContext context(where);
        EXPECT_EQ(StreamNames(Listing(u"\\??\\C:\\Data\\a.txt")), kept);
    }

    // A listing cut short by the caller's buffer goes back as the file system gave it, the hidden
    // marker stream in it.
    const QueryResult cut = Listing(u"\\??\\C:\\Data\\a.txt", 400);
    EXPECT_EQ(cut.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(StreamNames(cut), std::vector<std::u16string>(everything.begin(), everything.begin() + 5));

    // A directory's listing of hidden streams alone is empty.
    volume_->SeedDirectory(u"\\Data\\Sub");
    volume_->SeedFile(u"\\Data\\Sub:" + std::u16string(kMapStream), "map");
    const QueryResult empty = Listing(u"\\??\\C:\\Data\\Sub", 256, {.createOptions = FILE_DIRECTORY_FILE});
    EXPECT_EQ(empty.status, STATUS_SUCCESS);
    EXPECT_EQ(empty.information, 0u);

    // In pass-through mode a record made before is no longer the filter's business.
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA, &handle).status, STATUS_SUCCESS);
    g_PassThrough = 1;
    EXPECT_EQ(StreamNames(Query(handle, FileStreamInformation, 1024)), everything);
    g_PassThrough = 0;
    Close(handle);
}

TEST_F(StreamAndAttributeQueries, AManagedPathsFullAttributesComeThroughAnOpenOthersThroughTheFastPath)
{
    service_.AddRule({.code = kRedirectCode, .reply = {.redirected = false}, .uses = 1});
    Redirect();
    AnswerInformation();
    ASSERT_EQ(iotest::TestFilter<0>::Load(u"100000"), STATUS_SUCCESS);
    LONGLONG endOfFile = 0;

    // Not managed: the fast form reaches the file system.
    ASSERT_EQ(QueryFullAttributes(alice_, UserMode, u"\\??\\C:\\Other\\d.txt", &endOfFile), STATUS_SUCCESS);
    EXPECT_EQ(endOfFile, 1);
    EXPECT_TRUE(FastPathTaken());
    EXPECT_TRUE(NewCalls().empty());

    // Managed: refused, and the query-only open goes through the gate, which offers it to the
    // service; first not redirected (the disk answers), then redirected (the service answers, and
    // the open's cleanup takes the dummy with it).
    ASSERT_EQ(QueryFullAttributes(alice_, UserMode, u"\\??\\C:\\Data\\a.txt", &endOfFile), STATUS_SUCCESS);
    EXPECT_EQ(endOfFile, 12);
    EXPECT_FALSE(FastPathTaken());
    EXPECT_EQ(NewCalls().at(0), std::make_pair(kRedirectCode, std::u16string(kRealFile)));
    ASSERT_EQ(QueryFullAttributes(alice_, UserMode, u"\\??\\C:\\Data\\a.txt", &endOfFile), STATUS_SUCCESS);
    EXPECT_EQ(endOfFile, 5000);
    EXPECT_FALSE(volume_->Exists(kDummyOnVolume));
    NewCalls();

    // The service's own process and a kernel-mode caller keep the fast form on a path managed for
    // them, and the IRP form is left alone.
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}, {u"S-1-5-18", u"C:\\Data"}}), STATUS_SUCCESS);
    ASSERT_EQ(QueryFullAttributes(service_.ServiceProcess(), UserMode), STATUS_SUCCESS);
    EXPECT_TRUE(FastPathTaken());
    ASSERT_EQ(QueryFullAttributes(alice_, KernelMode), STATUS_SUCCESS);
    EXPECT_TRUE(FastPathTaken());
    {
        ntsim::AttachThread thread(alice_);
        ntsim::UnicodeStringHolder name(u"\\??\\C:\\Data\\a.txt");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        FILE_NETWORK_OPEN_INFORMATION information{};
        EXPECT_EQ(ntsim::IoNetworkQueryOpen(&attributes, &information, false), STATUS_SUCCESS);
    }
    EXPECT_EQ(iotest::EventsOf(IRP_MJ_NETWORK_QUERY_OPEN).size(), 2u) << "the IRP reached the file system";
    EXPECT_TRUE(NewCalls().empty());
}

}  // namespace
}  // namespace foldermerge::testing
