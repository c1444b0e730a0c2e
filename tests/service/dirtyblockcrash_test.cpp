// Crash consistency of dirty block tracking: a file's life of opens, writes, saves at cleanup,
// closes and the service's queries, with the system stopped at each write of the map stream and
// between any two steps. The volume keeps what it held at the stop; the filter is loaded again
// over it, and every block written since the service last took the map must be marked in the map
// the filter loads, or that map must say that tracking failed. No write may be lost silently.
#include "../filter/dirtyblock_fixture.hpp"

#include <foldermerge/service/control.hpp>
#include <foldermerge/service/dirtyblocks.hpp>
#include <foldermerge/service/simulated_service.hpp>

#include <ntsim/sim/faults.hpp>

#include <functional>
#include <set>

namespace foldermerge::testing {
namespace {

using service::FilterConnection;
using service::SimulatedService;

using Blocks = std::set<uint32_t>;

constexpr char16_t kFile[] = u"\\Data\\a.txt";

// The points at which the system may stop: each write below the filter (the stream's header and
// its map) and the deletion of a loaded stream. Once stopped, nothing that changes the volume runs.
const ntsim::faults::PointSet kStopPoints{.routines = {"FltWriteFile", "ZwDeleteFile"}};
const ntsim::faults::PointSet kHalted{
    .routines = {"FltWriteFile", "ZwDeleteFile", "FltCreateFileEx", "FltSetInformationFile"}};

class DirtyBlockCrash : public DirtyBlockTest {
protected:
    // One step of the file's life. service: what the service holds once the step is over, when
    // the step completed (a reply the stopped system never delivered counts for nothing).
    struct Step {
        const char* name;
        std::function<void()> run;
        std::function<void(Blocks& pending)> completed = [](Blocks&) {};
    };

    std::vector<Step> Steps()
    {
        return {
            {"open, no stream yet", [this] { Open(); }},
            {"the service takes the map", [this] { TakeMap(); }, [](Blocks& pending) { pending.clear(); }},
            {"write block 2", [this] { Write(2, 1); }},
            {"cleanup saves the map", [this] { SaveAtCleanup(); }},
            {"write blocks 5 and 6", [this] { Write(5, 2); }},
            {"the service reads the count", [this] { Count(false); }},
            {"a second open", [this] { Open(); }},
            {"write block 9", [this] { Write(9, 1); }},
            {"the first open closes", [this] { Close(); }},
            {"the service resets the count", [this] { Count(true); }, [](Blocks& pending) { pending.clear(); }},
            {"write blocks 12 and 13", [this] { Write(12, 2); }},
            {"the last open closes", [this] { Close(); }},
            {"the file opens again", [this] { Open(); }},
            {"write block 1", [this] { Write(1, 1); }},
            {"the last open closes again", [this] { Close(); }},
        };
    }

    void Open()
    {
        TrackedDirtyBlockFile* pRecord = nullptr;
        if (NT_SUCCESS(Get(kFile, &pRecord))) {
            held_.push_back(pRecord);
        }
    }

    void Close()
    {
        if (!held_.empty()) {
            EXPECT_EQ(DerefTrackedDirtyBlockRecord(held_.front()), STATUS_SUCCESS);
            held_.erase(held_.begin());
        }
    }

    // A user's write of `count` blocks from `first` through the whole stack, then the mark that the
    // write's completion makes on the file's record.
    void Write(uint32_t first, uint32_t count)
    {
        ntsim::AttachThread attach(UserProcess(kAlice));
        HANDLE handle = nullptr;
        ASSERT_EQ(OpenHandle(u"\\??\\C:\\Data\\a.txt", FILE_WRITE_DATA, {.createOptions = FILE_SYNCHRONOUS_IO_NONALERT},
                             &handle)
                      .status,
                  STATUS_SUCCESS);
        const std::string data(count * 4096 - 20, 'w');
        LARGE_INTEGER offset;
        offset.QuadPart = static_cast<LONGLONG>(first) * 4096 + 10;
        IO_STATUS_BLOCK ioStatus{};
        ASSERT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, const_cast<char*>(data.data()),
                              static_cast<ULONG>(data.size()), &offset, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        if (!held_.empty()) {
            MarkBlockDirty(held_.front(), offset.QuadPart, static_cast<ULONG>(data.size()));
        }
        for (uint32_t block = first; block < first + count; block++) {
            pending_.insert(block);
        }
    }

    void SaveAtCleanup()
    {
        ntsim::UnicodeStringHolder path(DevicePath(kFile));
        (VOID) WriteStableDirtyBlockMap(g_ServiceData.FilterHandle, instance_, path.get(), held_.front());
    }

    void TakeMap()
    {
        service::DirtyBlockMap map;
        EXPECT_EQ(service_->Run([&](FilterConnection& connection) {
                      return service::ReadDirtyBlockMap(connection, DevicePath(kFile), &map);
                  }),
                  S_OK);
    }

    void Count(bool reset)
    {
        service::DirtyBlockCount count;
        EXPECT_EQ(service_->Run([&](FilterConnection& connection) {
                      return service::RequestDirtyBlockCount(connection, DevicePath(kFile), reset, &count);
                  }),
                  S_OK);
    }

    struct Outcome {
        bool stopped = false;
        std::string where;
    };

    // Runs the steps from a fresh file until the system stops: at the n-th stop point, or after
    // the step numbered stopAfter. Then the filter goes and comes back over the volume as it stood,
    // and the loaded map is checked against the blocks the service never got.
    Outcome RunAndReload(std::optional<uint64_t> stopPoint, std::optional<size_t> stopAfter)
    {
        volume_->SeedFile(kFile, std::string(16 * 4096, 'a'));
        if (Stream(kFile).has_value()) {
            volume_->SeedRemove(std::u16string(kFile) + kMapStream);
        }
        held_.clear();
        pending_.clear();
        service_ = std::make_unique<SimulatedService>();
        EXPECT_EQ(service_->Run([](FilterConnection& connection) { return connection.ConnectConfigPort(); }), S_OK);

        Outcome outcome;
        if (stopPoint) {
            ntsim::faults::StopAtNthPointOf(kStopPoints, *stopPoint, kHalted, STATUS_DEVICE_NOT_CONNECTED);
        }
        const std::vector<Step> steps = Steps();
        for (size_t index = 0; index < steps.size(); index++) {
            steps[index].run();
            if (ntsim::faults::FailuresInjected() != 0) {
                outcome = {true, std::string("during \"") + steps[index].name + "\""};
                break;
            }
            steps[index].completed(pending_);
            // Time goes on between the steps of a running system.
            ntsim::clock::Advance(ntsim::clock::kMillisecond);
            if (stopAfter && *stopAfter == index) {
                ntsim::faults::StopAtNthPointOf(kHalted, 1, kHalted, STATUS_DEVICE_NOT_CONNECTED);
                outcome = {true, std::string("after \"") + steps[index].name + "\""};
                break;
            }
        }

        // The stopped system ends: nothing of this reaches the volume.
        while (!held_.empty()) {
            Close();
        }
        service_.reset();
        EXPECT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
        ntsim::faults::Reset();
        EXPECT_EQ(Load(), STATUS_SUCCESS);
        ntsim::UnicodeStringHolder root(std::u16string(kVolume) + u"\\");
        EXPECT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &instance_), STATUS_SUCCESS);
        FltObjectDereference(instance_);

        TrackedDirtyBlockFile* pRecord = MustGet(kFile);
        if (pRecord == nullptr) {
            ADD_FAILURE() << outcome.where << ": no record loads";
            return outcome;
        }
        if (pRecord->bTrackingFailed == 0) {
            const std::vector<uint8_t> map = MapOf(pRecord);
            for (uint32_t block : pending_) {
                EXPECT_TRUE(block / 8 < map.size() && (map[block / 8] & (0x80 >> (block % 8))) != 0)
                    << "block " << block << " lost, stopped " << outcome.where;
            }
        }
        EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
        return outcome;
    }

    std::vector<TrackedDirtyBlockFile*> held_;
    Blocks pending_;
    std::unique_ptr<SimulatedService> service_;
};

TEST_F(DirtyBlockCrash, StopAtEachStreamWriteLosesNoWriteSilently)
{
    uint64_t stops = 0;
    for (uint64_t point = 1;; point++) {
        const Outcome outcome = RunAndReload(point, std::nullopt);
        if (!outcome.stopped) {
            break;
        }
        stops++;
    }
    // Five write-backs of a header and a map, and the deletion of the stream loaded again.
    EXPECT_EQ(stops, 11u);
    std::printf("stopped at %llu stream writes\n", static_cast<unsigned long long>(stops));
}

TEST_F(DirtyBlockCrash, StopBetweenAnyTwoStepsLosesNoWriteSilently)
{
    const size_t steps = Steps().size();
    for (size_t after = 0; after < steps; after++) {
        EXPECT_TRUE(RunAndReload(std::nullopt, after).stopped) << after;
    }
}

TEST_F(DirtyBlockCrash, WithoutAStopEveryPendingBlockIsInTheReloadedMap)
{
    // The whole life runs to its end: the last write-back holds the writes since the reset, and the
    // reload finds them, not a wholly dirty file.
    EXPECT_FALSE(RunAndReload(std::nullopt, std::nullopt).stopped);
    TrackedDirtyBlockFile* pRecord = MustGet(kFile);
    ASSERT_NE(pRecord, nullptr);
    EXPECT_EQ(pRecord->bTrackingFailed, 0);
    EXPECT_EQ(pRecord->map[0], 0x40) << "block 1";
    EXPECT_EQ(pRecord->map[1], 0x0C) << "blocks 12 and 13";
    EXPECT_EQ(DerefTrackedDirtyBlockRecord(pRecord), STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
