// Listings of a managed directory through ntsim: NtQueryDirectoryFile as Alice on C:\Data\Docs, the
// disk's entries first, then those of a scripted service that builds its listings as a service
// would (the pattern applied, held by handle between its two requests).
#include "filter_fixture.hpp"

#include <foldermerge/service/listing.hpp>
#include <foldermerge/service/responder.hpp>

#include <ntsim/sim/faults.hpp>
#include <userbuffer.hpp>

#include <functional>
#include <optional>
#include <thread>

#include "context.h"
#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::ListingEntry;
using service::ReplyContent;
using service::RequestView;

constexpr ULONG kClasses[] = {FileDirectoryInformation,       FileFullDirectoryInformation,
                              FileBothDirectoryInformation,   FileNamesInformation,
                              FileIdBothDirectoryInformation, FileIdFullDirectoryInformation};
const std::vector<std::u16string> kDisk = {u".", u"..", u"disk-a.txt", u"disk-b.txt"};
const std::vector<std::u16string> kService = {u"svc-alpha.txt", u"svc-beta with a longer name.docx", u"svc-c"};

// What a whole enumeration gave: the names in order, the status that ended it, the queries made.
struct Pass {
    std::vector<std::u16string> names;
    NTSTATUS end = STATUS_PENDING;
    int queries = 0;
};

std::vector<std::u16string> Join(std::vector<std::u16string> first, const std::vector<std::u16string>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Reads the names of an answer of `information` bytes by its chain; every record and its name must
// lie inside the answer, and every record on an 8-byte boundary. (The merge's records are checked
// byte for byte against the listing's by listing_merge_fuzz.)
void ReadAnswer(const UCHAR* bytes, ULONG_PTR information, ULONG infoClass, std::vector<std::u16string>& names)
{
    const ULONG nameOffset = ServiceListingNameOffset(infoClass);
    const ULONG lengthOffset = infoClass == FileNamesInformation ? 8 : 60;
    for (ULONG at = 0, next = 0;; at += next) {
        ASSERT_EQ(at % 8, 0u);
        ASSERT_LE(at + nameOffset, information);
        ULONG nameBytes;
        std::memcpy(&nameBytes, bytes + at + lengthOffset, sizeof(ULONG));
        ASSERT_LE(at + nameOffset + nameBytes, information);
        names.emplace_back(reinterpret_cast<const char16_t*>(bytes + at + nameOffset), nameBytes / 2);
        std::memcpy(&next, bytes + at, sizeof(ULONG));
        if (next == 0) {
            return;
        }
    }
}

class ListingTest : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\Docs\\disk-a.txt", "aa");
        volume_->SeedFile(u"\\Data\\Docs\\disk-b.txt", "bbbb");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
        for (const std::u16string& name : kService) {
            entries_.push_back({.name = name});
        }
        service_.AddRule({.code = SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE,
                          .answer = [this](const RequestView& request) {
                              return ReplyContent{.status = request.path == excluded_
                                                                ? 0
                                                                : static_cast<int32_t>(STATUS_OBJECT_NAME_NOT_FOUND)};
                          }});
        service_.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE, .answer = [this](const RequestView& r) {
                              auto listing = service::EncodeListing(r.fileInformationClass,
                                                                    service::SelectEntries(r.filter, entries_));
                              return ReplyContent{.listingHandle = listings_.Hold(*listing),
                                                  .listingLength = static_cast<uint32_t>(listing->size())};
                          }});
        service_.AddRule({.code = SERVICE_REQUEST_DIRECTORY_CONTENTS, .answer = [this](const RequestView& request) {
                              auto listing = listings_.Take(request.listingHandle).value_or(std::vector<uint8_t>{});
                              if (tamper_) {
                                  tamper_(listing);
                              }
                              return ReplyContent{.listing = listing};
                          }});
        ASSERT_EQ(service_.Connect(), S_OK);
        alice_.emplace(UserProcess(kAlice));
    }

    void TearDown() override
    {
        alice_.reset();
        service_.Disconnect();
        LoadedFilter::TearDown();
    }

    HANDLE OpenDocs()
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(OpenHandle(u"\\??\\C:\\Data\\Docs", FILE_LIST_DIRECTORY,
                             {.createOptions = FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT}, &handle)
                      .status,
                  STATUS_SUCCESS);
        return handle;
    }

    void CloseDocs(HANDLE directory) { EXPECT_EQ(ZwClose(directory), STATUS_SUCCESS); }

    // One query; its answer's records are added to pass.
    NTSTATUS Query(HANDLE directory, UserBuffer& buffer, ULONG infoClass, Pass& pass, const char16_t* pattern = nullptr,
                   bool singleEntry = false, bool restart = false)
    {
        std::optional<ntsim::UnicodeStringHolder> expression;
        if (pattern != nullptr) {
            expression.emplace(pattern);
        }
        IO_STATUS_BLOCK ioStatus{};
        const NTSTATUS status = NtQueryDirectoryFile(
            directory, nullptr, nullptr, nullptr, &ioStatus, buffer.data(), buffer.size(),
            static_cast<FILE_INFORMATION_CLASS>(infoClass), singleEntry, expression ? expression->get() : nullptr,
            restart);
        pass.queries++;
        if (status == STATUS_SUCCESS) {
            EXPECT_LE(ioStatus.Information, buffer.size());
            ReadAnswer(buffer.data(), ioStatus.Information, infoClass, pass.names);
        } else {
            EXPECT_EQ(ioStatus.Information, 0u);
            pass.end = status;
        }
        return status;
    }

    // Queries until the enumeration ends (or plainly never would).
    Pass Enumerate(HANDLE directory, ULONG infoClass, ULONG length, const char16_t* pattern = nullptr,
                   bool singleEntry = false, bool restart = false)
    {
        UserBuffer buffer(length);
        Pass pass;
        while (Query(directory, buffer, infoClass, pass, pattern, singleEntry, restart && pass.queries == 0) ==
                   STATUS_SUCCESS &&
               pass.queries < 64) {
        }
        return pass;
    }

    // The size requests the service received, in order.
    std::vector<RequestView> SizeRequests() const
    {
        std::vector<RequestView> views;
        for (const auto& request : service_.Requests()) {
            if (request.view && request.view->code == SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE) {
                views.push_back(*request.view);
            }
        }
        return views;
    }

    std::vector<ListingEntry> entries_;
    service::ListingStore listings_;
    std::function<void(std::vector<uint8_t>&)> tamper_;
    std::u16string excluded_;
    service::ScriptedResponder service_;
    std::optional<ntsim::AttachThread> alice_;
};

TEST_F(ListingTest, EveryClassAndBufferSizeListsTheDiskThenEachServiceEntryOnce)
{
    for (ULONG infoClass : kClasses) {
        SCOPED_TRACE(infoClass);
        // From one buffer that the largest record fits to one that the whole listing fits.
        ULONG largest = 0;
        ULONG whole = 0;
        for (const ListingEntry& entry : entries_) {
            const ULONG size = ServiceListingEntrySize(infoClass, static_cast<uint32_t>(entry.name.size() * 2));
            largest = std::max(largest, size);
            whole += size;
        }
        // One handle: each pass restarts the disk's scan, and the listing is fetched anew for it.
        HANDLE directory = OpenDocs();
        for (ULONG length = largest + 1; length <= whole + 1; length++) {
            const Pass pass = Enumerate(directory, infoClass, length, nullptr, false, true);
            ASSERT_EQ(pass.names, Join(kDisk, kService)) << length << " bytes";
            ASSERT_EQ(pass.end, STATUS_NO_MORE_FILES);
        }
        CloseDocs(directory);
    }
    EXPECT_EQ(listings_.size(), 0u) << "every listing was fetched";
}

TEST_F(ListingTest, ThePatternOfTheFirstQueryHoldsAndReachesTheServiceWithPlainWildcards)
{
    // Nothing on disk matches: the file system says there is no such file, and the caller gets the
    // service's entries with STATUS_SUCCESS. A query after the end fetches again, with the first
    // pattern whatever the query's own.
    HANDLE directory = OpenDocs();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096, u"svc<.t>t").names,
              std::vector<std::u16string>{u"svc-alpha.txt"});
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096, u"disk*").names,
              std::vector<std::u16string>{u"svc-alpha.txt"});
    CloseDocs(directory);
    directory = OpenDocs();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).names, Join(kDisk, kService));
    CloseDocs(directory);
    // A pattern too long for the request is never cut: no request, and the disk's answer stands.
    directory = OpenDocs();
    const std::u16string tooLong = u"disk" + std::u16string(258, u'?');
    const Pass refused = Enumerate(directory, FileNamesInformation, 4096, tooLong.c_str());
    EXPECT_TRUE(refused.names.empty());
    EXPECT_EQ(refused.end, STATUS_NO_SUCH_FILE);
    CloseDocs(directory);

    std::vector<std::u16string> patterns;
    for (const RequestView& request : SizeRequests()) {
        patterns.push_back(request.filter);
        EXPECT_FALSE(request.returnSingleEntry);
    }
    EXPECT_EQ(patterns, (std::vector<std::u16string>{u"svc*.t?t", u"svc*.t?t", u"*"}));
}

TEST_F(ListingTest, SingleEntryQueriesGetAllThatFitsAndEndWithNoSuchFile)
{
    HANDLE directory = OpenDocs();
    const Pass pass = Enumerate(directory, FileBothDirectoryInformation, 4096, nullptr, true);
    EXPECT_EQ(pass.names, Join(kDisk, kService)) << "one record a query from disk, the service's all at once";
    EXPECT_EQ(pass.queries, static_cast<int>(kDisk.size()) + 2);
    EXPECT_EQ(pass.end, STATUS_NO_SUCH_FILE);
    ASSERT_EQ(SizeRequests().size(), 1u);
    EXPECT_TRUE(SizeRequests()[0].returnSingleEntry);
    CloseDocs(directory);
}

TEST_F(ListingTest, ARestartWhileAListingIsHeldRepeatsTheDiskAndGoesOnWhereTheListingStood)
{
    HANDLE directory = OpenDocs();
    // Room for one service record a query.
    UserBuffer buffer(ServiceListingEntrySize(FileNamesInformation, static_cast<uint32_t>(kService[1].size() * 2)) + 1);
    Pass pass;
    while (pass.names.size() < kDisk.size() + 1) {
        ASSERT_EQ(Query(directory, buffer, FileNamesInformation, pass), STATUS_SUCCESS);
    }
    ASSERT_EQ(Query(directory, buffer, FileNamesInformation, pass, nullptr, false, true), STATUS_SUCCESS);
    while (Query(directory, buffer, FileNamesInformation, pass) == STATUS_SUCCESS) {
    }
    EXPECT_EQ(pass.names, Join(Join(kDisk, {kService[0]}), Join(kDisk, {kService[1], kService[2]})));
    EXPECT_EQ(pass.end, STATUS_NO_MORE_FILES);
    EXPECT_EQ(SizeRequests().size(), 1u) << "one listing for the whole pass";

    // A query of another class while a listing is held ends the listing's pass.
    Pass other;
    ASSERT_EQ(Query(directory, buffer, FileNamesInformation, other, nullptr, false, true), STATUS_SUCCESS);
    while (other.names.size() < kDisk.size() + 1) {
        ASSERT_EQ(Query(directory, buffer, FileNamesInformation, other), STATUS_SUCCESS);
    }
    UserBuffer both(4096);
    EXPECT_EQ(Query(directory, both, FileBothDirectoryInformation, other), STATUS_NO_MORE_FILES);
    CloseDocs(directory);
}

TEST_F(ListingTest, AListingThatLiesAboutItsChainIsNeverHandedOut)
{
    const std::vector<std::function<void(std::vector<uint8_t>&)>> lies = {
        [](std::vector<uint8_t>& l) { std::memcpy(l.data(), "\xF8\xFF\xFF\xFF", 4); },  // an offset that wraps
        [](std::vector<uint8_t>& l) {  // the last record's copy runs 8 bytes past the block
            uint32_t at = 0;
            for (uint32_t next; std::memcpy(&next, l.data() + at, 4), next != 0;) {
                at += next;
            }
            l[at + 8] += 8;
        },
    };
    for (const auto& lie : lies) {
        tamper_ = lie;
        HANDLE directory = OpenDocs();
        const Pass pass = Enumerate(directory, FileNamesInformation, 4096);
        EXPECT_EQ(pass.names, kDisk) << "the file system's answer stands";
        EXPECT_EQ(pass.end, STATUS_NO_MORE_FILES);
        CloseDocs(directory);
    }
}

TEST_F(ListingTest, AnExcludedDirectoryAndAnotherUsersFolderShowTheDiskAlone)
{
    // Excluded after the open (a new configuration forgets the verdicts): the exclusion test is the
    // only message, and the record keeps the verdict.
    HANDLE directory = OpenDocs();
    excluded_ = u"\\Device\\HarddiskVolume2\\Data\\Docs";
    std::thread([] { ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS); }).join();
    const size_t before = service_.RequestCount();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).names, kDisk);
    ASSERT_EQ(service_.RequestCount(), before + 1);
    EXPECT_EQ(service_.Requests().back().view->code, SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(directory);
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE)->bExcluded, 1);
    ObDereferenceObject(fileObject);
    CloseDocs(directory);

    alice_.reset();
    alice_.emplace(UserProcess(kBob));
    directory = OpenDocs();
    const size_t opened = service_.RequestCount();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).names, kDisk);
    EXPECT_EQ(service_.RequestCount(), opened) << "no message at all for another user's folder";
    CloseDocs(directory);
}

TEST_F(ListingTest, ThePostOperationMergesWhereverTheQueryCompletes)
{
    for (auto context : {ntsim::PostOperationContext::DispatchLevel, ntsim::PostOperationContext::ArbitraryThread}) {
        ntsim::ScopedPostOperationContext where(context);
        HANDLE directory = OpenDocs();
        const Pass pass = Enumerate(directory, FileIdFullDirectoryInformation, 200);
        EXPECT_EQ(pass.names, Join(kDisk, kService));
        EXPECT_EQ(pass.end, STATUS_NO_MORE_FILES);
        CloseDocs(directory);
    }
}

TEST_F(ListingTest, EveryFailureOfTheFiltersOwnWorkLeavesTheDisksAnswerAndLosesNoServiceEntry)
{
    const ntsim::faults::PointSet points{.tags = {FOLDERMERGE_POOL_TAG},
                                         .routines = {"FltLockUserBuffer", "FltSendMessage"}};
    // The service's entries of a pass, behind the disk's.
    auto serviceNames = [](const Pass& pass) {
        const std::vector<std::u16string>& names = pass.names;
        EXPECT_TRUE(names.size() >= kDisk.size() && std::equal(kDisk.begin(), kDisk.end(), names.begin()));
        return std::vector<std::u16string>(names.begin() + std::min(names.size(), kDisk.size()), names.end());
    };
    for (uint64_t point = 1;; point++) {
        SCOPED_TRACE(point);
        HANDLE directory = OpenDocs();
        ntsim::faults::FailNthPointOf(points, point);
        const Pass failed = Enumerate(directory, FileNamesInformation, 200);
        const bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        EXPECT_EQ(failed.end, STATUS_NO_MORE_FILES);
        // The service's entries come whole or not at all; the next pass has them, unless the failure
        // came after the last one was handed out and before the listing was found used up, which the
        // next pass then finds.
        const std::vector<std::u16string> lost = serviceNames(failed);
        EXPECT_TRUE(lost.empty() || lost == kService);
        const std::vector<std::u16string> after =
            serviceNames(Enumerate(directory, FileNamesInformation, 200, nullptr, false, true));
        EXPECT_TRUE(after == kService || (lost == kService && after.empty()));
        CloseDocs(directory);
        if (!injected) {
            break;
        }
    }
}

}  // namespace
}  // namespace foldermerge::testing
