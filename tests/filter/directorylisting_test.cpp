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

// One record as the caller read it.
struct Record {
    std::u16string name;
    ULONG fileIndex = 0;
    LONGLONG endOfFile = 0;
    LONGLONG fileId = 0;
};

// What a whole enumeration gave: the records in order, the status that ended it, the queries made.
struct Pass {
    std::vector<Record> records;
    NTSTATUS end = STATUS_PENDING;
    int queries = 0;

    std::vector<std::u16string> Names() const
    {
        std::vector<std::u16string> names;
        for (const Record& record : records) {
            names.push_back(record.name);
        }
        return names;
    }
};

template <typename T>
T At(const UCHAR* bytes, ULONG offset)
{
    T value;
    std::memcpy(&value, bytes + offset, sizeof(T));
    return value;
}

std::vector<std::u16string> Join(std::vector<std::u16string> first, const std::vector<std::u16string>& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

// Reads the chain of records in an answer of `information` bytes; every record and its name must lie
// inside the answer, and every record but the first on an 8-byte boundary.
void ReadAnswer(const UCHAR* bytes, ULONG_PTR information, ULONG infoClass, std::vector<Record>& records)
{
    const ULONG nameOffset = ServiceListingNameOffset(infoClass);
    const ULONG lengthOffset = infoClass == FileNamesInformation ? 8 : 60;
    for (ULONG at = 0;;) {
        ASSERT_LE(at + nameOffset, information);
        const ULONG nameBytes = At<ULONG>(bytes, at + lengthOffset);
        ASSERT_LE(at + nameOffset + nameBytes, information);
        Record record{std::u16string(reinterpret_cast<const char16_t*>(bytes + at + nameOffset), nameBytes / 2),
                      At<ULONG>(bytes, at + 4)};
        if (infoClass != FileNamesInformation) {
            record.endOfFile = At<LONGLONG>(bytes, at + 40);
        }
        if (infoClass == FileIdBothDirectoryInformation || infoClass == FileIdFullDirectoryInformation) {
            record.fileId = At<LONGLONG>(bytes, at + (infoClass == FileIdBothDirectoryInformation ? 96 : 72));
        }
        records.push_back(record);
        const ULONG next = At<ULONG>(bytes, at);
        if (next == 0) {
            return;
        }
        ASSERT_EQ(next % 8, 0u);
        at += next;
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
            entries_.push_back({.name = name,
                                .shortName = name.size() > 12 ? u"SVC~" + std::u16string(1, name[4]) : u"",
                                .fileIndex = static_cast<uint32_t>(100 + entries_.size()),
                                .endOfFile = static_cast<int64_t>(1000 * name.size()),
                                .fileId = static_cast<int64_t>(0x5000 + entries_.size())});
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
                              std::vector<uint8_t> listing = listings_.Take(request.listingHandle).value_or(std::vector<uint8_t>{});
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
            ReadAnswer(buffer.data(), ioStatus.Information, infoClass, pass.records);
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

    size_t RequestsOf(uint32_t code) const
    {
        size_t count = 0;
        for (const auto& request : service_.Requests()) {
            count += request.view.has_value() && request.view->code == code ? 1 : 0;
        }
        return count;
    }

    std::vector<ListingEntry> entries_;
    service::ListingStore listings_;
    std::function<void(std::vector<uint8_t>&)> tamper_;
    std::u16string excluded_;
    service::ScriptedResponder service_;
    std::optional<ntsim::AttachThread> alice_;
};

TEST_F(ListingTest, EveryClassAndBufferSizeListsTheDiskThenEachServiceEntryOnceWithItsFields)
{
    for (ULONG infoClass : kClasses) {
        SCOPED_TRACE(infoClass);
        const std::vector<uint8_t> listing = *service::EncodeListing(infoClass, entries_);
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
            ASSERT_EQ(pass.Names(), Join(kDisk, kService)) << length << " bytes";
            ASSERT_EQ(pass.end, STATUS_NO_MORE_FILES);
            for (size_t index = 0; index < entries_.size(); index++) {
                const Record& record = pass.records[kDisk.size() + index];
                EXPECT_EQ(record.fileIndex, entries_[index].fileIndex);
                EXPECT_EQ(record.endOfFile, infoClass == FileNamesInformation ? 0 : entries_[index].endOfFile);
                const bool id = infoClass == FileIdBothDirectoryInformation || infoClass == FileIdFullDirectoryInformation;
                EXPECT_EQ(record.fileId, id ? entries_[index].fileId : 0);
            }
        }
        CloseDocs(directory);
    }
    EXPECT_EQ(listings_.size(), 0u) << "every listing was fetched";
}

TEST_F(ListingTest, ThePatternOfTheFirstQueryHoldsAndReachesTheServiceWithPlainWildcards)
{
    // Nothing on disk matches: the file system says there is no such file, and the caller gets the
    // service's entries with STATUS_SUCCESS.
    HANDLE directory = OpenDocs();
    const Pass first = Enumerate(directory, FileNamesInformation, 4096, u"svc<.t>t");
    EXPECT_EQ(first.Names(), std::vector<std::u16string>{u"svc-alpha.txt"});
    EXPECT_EQ(first.end, STATUS_NO_MORE_FILES);
    // The pass is over; a later query with another pattern fetches again with the first one.
    const Pass again = Enumerate(directory, FileNamesInformation, 4096, u"disk*");
    EXPECT_EQ(again.Names(), std::vector<std::u16string>{u"svc-alpha.txt"});
    CloseDocs(directory);

    // Without a pattern the service is asked for "*".
    directory = OpenDocs();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).Names(), Join(kDisk, kService));
    CloseDocs(directory);

    std::vector<std::u16string> patterns;
    for (const auto& request : service_.Requests()) {
        if (request.view && request.view->code == SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE) {
            patterns.push_back(request.view->filter);
        }
    }
    EXPECT_EQ(patterns, (std::vector<std::u16string>{u"svc*.t?t", u"svc*.t?t", u"*"}));

    // A pattern too long for the request is never cut: the disk's answer stands, unmerged.
    directory = OpenDocs();
    const std::u16string tooLong = u"disk" + std::u16string(258, u'?');
    const Pass refused = Enumerate(directory, FileNamesInformation, 4096, tooLong.c_str());
    EXPECT_TRUE(refused.records.empty());
    EXPECT_EQ(refused.end, STATUS_NO_SUCH_FILE);
    EXPECT_EQ(RequestsOf(SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE), 3u);
    CloseDocs(directory);
}

TEST_F(ListingTest, SingleEntryQueriesGetAllThatFitsAndEndWithNoSuchFile)
{
    HANDLE directory = OpenDocs();
    const Pass pass = Enumerate(directory, FileBothDirectoryInformation, 4096, nullptr, true);
    EXPECT_EQ(pass.Names(), Join(kDisk, kService)) << "one record a query from disk, the service's all at once";
    EXPECT_EQ(pass.queries, static_cast<int>(kDisk.size()) + 2);
    EXPECT_EQ(pass.end, STATUS_NO_SUCH_FILE);
    ASSERT_EQ(RequestsOf(SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE), 1u);
    for (const auto& request : service_.Requests()) {
        if (request.view->code == SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE) {
            EXPECT_TRUE(request.view->returnSingleEntry);
        }
    }
    CloseDocs(directory);
}

TEST_F(ListingTest, ARestartWhileAListingIsHeldRepeatsTheDiskAndGoesOnWhereTheListingStood)
{
    HANDLE directory = OpenDocs();
    // Room for one service record a query (the names are short enough for the disk's in any case).
    UserBuffer buffer(ServiceListingEntrySize(FileNamesInformation, static_cast<uint32_t>(kService[1].size() * 2)) + 1);
    Pass pass;
    while (pass.records.size() < kDisk.size() + 1) {
        ASSERT_EQ(Query(directory, buffer, FileNamesInformation, pass), STATUS_SUCCESS);
    }
    ASSERT_EQ(pass.Names(), Join(kDisk, {kService[0]}));
    ASSERT_EQ(Query(directory, buffer, FileNamesInformation, pass, nullptr, false, true), STATUS_SUCCESS);
    while (Query(directory, buffer, FileNamesInformation, pass) == STATUS_SUCCESS) {
    }
    EXPECT_EQ(pass.Names(), Join(Join(kDisk, {kService[0]}), Join(kDisk, {kService[1], kService[2]})));
    EXPECT_EQ(pass.end, STATUS_NO_MORE_FILES);
    EXPECT_EQ(RequestsOf(SERVICE_REQUEST_DIRECTORY_CONTENTS), 1u) << "one listing for the whole pass";

    // A query of another class while the listing is held ends the pass for the listing.
    Pass other;
    UserBuffer names(64);
    ASSERT_EQ(Query(directory, names, FileNamesInformation, other, nullptr, false, true), STATUS_SUCCESS);
    while (Query(directory, names, FileNamesInformation, other) == STATUS_SUCCESS && other.records.size() < 5) {
    }
    ASSERT_EQ(other.Names(), Join(kDisk, {kService[0]}));
    UserBuffer both(4096);
    EXPECT_EQ(Query(directory, both, FileBothDirectoryInformation, other), STATUS_NO_MORE_FILES);
    CloseDocs(directory);
}

TEST_F(ListingTest, AListingThatLiesAboutItsChainIsNeverHandedOut)
{
    const std::vector<std::function<void(std::vector<uint8_t>&)>> lies = {
        [](std::vector<uint8_t>& l) { std::memcpy(l.data(), "\xF8\xFF\xFF\xFF", 4); },  // wraps around
        [](std::vector<uint8_t>& l) { const uint32_t v = (uint32_t)l.size(); std::memcpy(l.data(), &v, 4); },
        [](std::vector<uint8_t>& l) { std::memset(l.data() + 8, 0x7F, 4); },  // a name of 2 GiB
        [](std::vector<uint8_t>& l) {  // the last record's copy runs 8 bytes past the block
            uint32_t at = 0;
            for (uint32_t next; std::memcpy(&next, l.data() + at, 4), next != 0;) {
                at += next;
            }
            l[at + 8] += 8;
        },
    };
    for (size_t lie = 0; lie < lies.size(); lie++) {
        SCOPED_TRACE(lie);
        tamper_ = lies[lie];
        HANDLE directory = OpenDocs();
        const Pass pass = Enumerate(directory, FileNamesInformation, 4096);
        EXPECT_EQ(pass.Names(), kDisk) << "the file system's answer stands";
        EXPECT_EQ(pass.end, STATUS_NO_MORE_FILES);
        CloseDocs(directory);
    }
    tamper_ = nullptr;
    HANDLE directory = OpenDocs();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).Names(), Join(kDisk, kService));
    CloseDocs(directory);
}

TEST_F(ListingTest, AnExcludedDirectoryAndAnotherUsersFolderShowTheDiskAlone)
{
    // Excluded after the open (a new configuration forgets the verdicts): the exclusion test is the
    // only message, and the record remembers the verdict.
    HANDLE directory = OpenDocs();
    excluded_ = u"\\Device\\HarddiskVolume2\\Data\\Docs";
    std::thread([] { ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS); }).join();
    const size_t before = service_.RequestCount();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).Names(), kDisk);
    EXPECT_EQ(service_.RequestCount(), before + 1);
    EXPECT_EQ(RequestsOf(SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE), 2u);
    PFILE_OBJECT fileObject = ntsim::ReferenceFileObjectByHandle(directory);
    ASSERT_NE(FindContextByFileObject(fileObject, FALSE), nullptr);
    EXPECT_EQ(FindContextByFileObject(fileObject, FALSE)->bExcluded, 1);
    ObDereferenceObject(fileObject);
    CloseDocs(directory);

    excluded_.clear();
    alice_.reset();
    alice_.emplace(UserProcess(kBob));
    directory = OpenDocs();
    const size_t opened = service_.RequestCount();
    EXPECT_EQ(Enumerate(directory, FileNamesInformation, 4096).Names(), kDisk);
    EXPECT_EQ(service_.RequestCount(), opened) << "no message at all for another user's folder";
    CloseDocs(directory);
}

TEST_F(ListingTest, ThePostOperationMergesWhereverTheQueryCompletes)
{
    for (auto context : {ntsim::PostOperationContext::DispatchLevel, ntsim::PostOperationContext::ArbitraryThread}) {
        ntsim::ScopedPostOperationContext where(context);
        HANDLE directory = OpenDocs();
        const Pass pass = Enumerate(directory, FileIdFullDirectoryInformation, 200);
        EXPECT_EQ(pass.Names(), Join(kDisk, kService));
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
        std::vector<std::u16string> names = pass.Names();
        EXPECT_GE(names.size(), kDisk.size());
        EXPECT_TRUE(std::equal(kDisk.begin(), kDisk.end(), names.begin()));
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
        // The failed pass has the service's entries whole or not at all; the next is whole, unless the
        // failure came after the last entry was handed out and before the listing was found used up,
        // which the next pass then finds.
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
