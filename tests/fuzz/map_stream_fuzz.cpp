// The map stream as arbitrary bytes on disk, loaded through the filter's record creation.
//
// The map stream comes from the disk, where anything may have written it. Each input lays out a
// file and its stream on an NTFS volume under the loaded filter, then takes the file's record as
// an open of a tracked file does, drops it again (which writes the stream back) and checks:
//   - the record against the rule of the load, computed here on its own: a stream of at least 35
//     bytes whose timestamp isn't older than the file's last write gives its map (read into at
//     least 4 bytes), count and flag; anything else gives the wholly dirty state for the file's size;
//   - the stream written back: the header and the record's map, 34 + mapLen bytes;
//   - the pool of the filter's tag, the same after each input as before the first.
// An input (little-endian), cut where it ends:
//     u8  options       kNoStream, kDeleteFails, kTimesCanNotBeSet
//     u32 fileSize      cut to kMaxFileSize
//     i64 lastWrite     the file's last write time; 0 keeps the time of the seeding
//     the rest          the stream's bytes
// The filter stays loaded for the whole process (loaded_filter.hpp); a verifier report or a failed
// check aborts.
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/text.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dirtyblocktracking.h"
#include "driver/globals.h"
#include "driver/mergefolders.h"
#include "loaded_filter.hpp"

namespace {

using foldermerge::fuzzing::Check;
using foldermerge::fuzzing::Take;

constexpr uint8_t kNoStream = 0x01;
constexpr uint8_t kDeleteFails = 0x02;
constexpr uint8_t kTimesCanNotBeSet = 0x04;
constexpr uint32_t kMaxFileSize = 1u << 18;
constexpr char16_t kFile[] = u"\\Data\\a.txt";
const std::u16string kStream = std::u16string(kFile) + u":" + reinterpret_cast<const char16_t*>(DIRTY_BLOCK_STREAM_NAME);

// The loaded filter, its instance on the volume, and its pool at rest: no record, no stream I/O.
struct Loaded {
    std::shared_ptr<ntsim::MemoryVolume> volume;
    PFLT_INSTANCE instance = nullptr;
    std::unique_ptr<foldermerge::fuzzing::PoolAtRest> pool;
};

Loaded& LoadOnce()
{
    static Loaded* loaded = nullptr;
    if (loaded != nullptr) {
        return *loaded;
    }
    loaded = new Loaded;
    loaded->volume = foldermerge::fuzzing::LoadFilterOnce();
    ntsim::UnicodeStringHolder root(std::u16string(foldermerge::fuzzing::kVolumeDevice) + u"\\");
    Check(NT_SUCCESS(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, root.get(), &loaded->instance)),
          "no instance on the volume");
    FltObjectDereference(loaded->instance);  // it lives as long as the filter is attached
    loaded->pool = std::make_unique<foldermerge::fuzzing::PoolAtRest>();
    return *loaded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Loaded& loaded = LoadOnce();
    const uint8_t options = Take<uint8_t>(data, size);
    const uint32_t fileSize = Take<uint32_t>(data, size) % (kMaxFileSize + 1);
    const int64_t lastWrite = Take<int64_t>(data, size);
    const std::string stream(reinterpret_cast<const char*>(data), size);

    ntsim::MemoryVolume& volume = *loaded.volume;
    volume.SeedFile(kFile, std::string(fileSize, 'f'));
    if (volume.Exists(kStream)) {
        volume.SeedRemove(kStream);
    }
    if ((options & kNoStream) == 0) {
        volume.SeedFile(kStream, stream);
    }
    FILE_BASIC_INFORMATION basic{};
    basic.LastWriteTime.QuadPart = lastWrite;
    volume.SeedBasicInformation(kFile, basic);
    const LONGLONG fileLastWrite = volume.BasicInformation(kFile)->LastWriteTime.QuadPart;

    // The rule of the load, on its own.
    int64_t headerTime = 0;
    if (stream.size() >= 13) {
        std::memcpy(&headerTime, stream.data() + 5, sizeof(headerTime));
    }
    const bool valid = (options & kNoStream) == 0 && stream.size() > DIRTY_BLOCK_STREAM_HEADER_SIZE &&
                       fileLastWrite <= headerTime;

    if (options & kDeleteFails) {
        ntsim::faults::FailRoutine("ZwDeleteFile", STATUS_SHARING_VIOLATION);
    }
    if (options & kTimesCanNotBeSet) {
        ntsim::faults::FailRoutine("FltSetInformationFile", STATUS_ACCESS_DENIED);
    }
    ntsim::UnicodeStringHolder path(std::u16string(foldermerge::fuzzing::kVolumeDevice) + kFile);
    TrackedDirtyBlockFile* pRecord = nullptr;
    const NTSTATUS status = GetTrackedDirtyBlockRecord(g_ServiceData.FilterHandle, loaded.instance, path.get(), &pRecord);
    ntsim::faults::Reset();

    if (!NT_SUCCESS(status)) {
        // Only putting the times back after deleting a valid stream may fail the load here.
        Check(pRecord == nullptr, "a failed load handed out a record");
        Check(valid && (options & kTimesCanNotBeSet) != 0, "the load failed where it must not");
        Check(volume.Exists(kStream) == ((options & kDeleteFails) != 0),
              "the stream is there exactly when its delete failed");
    } else {
        Check(pRecord != nullptr && pRecord->map != nullptr && pRecord->mapLen >= 1 && pRecord->refCount == 1,
              "the record is not whole");
        const std::vector<uint8_t> map(pRecord->map, pRecord->map + pRecord->mapLen);
        if (valid) {
            const size_t streamMap = stream.size() - DIRTY_BLOCK_STREAM_HEADER_SIZE;
            Check(pRecord->mapLen == std::max<size_t>(streamMap, 4), "the map's length is not the stream's");
            Check(pRecord->bTrackingFailed == static_cast<uint8_t>(stream[17]), "the flag is not the header's");
            if (options & kDeleteFails) {
                Check(std::all_of(map.begin(), map.end(), [](uint8_t byte) { return byte == 0xFF; }),
                      "an undeletable stream left a map that isn't all dirty");
                Check(pRecord->dirtyBlockCount == pRecord->mapLen, "an undeletable stream's count isn't its length");
            } else {
                uint32_t count = 0;
                std::memcpy(&count, stream.data() + 1, sizeof(count));
                Check(pRecord->dirtyBlockCount == count, "the count is not the header's");
                Check(std::equal(map.begin(), map.begin() + streamMap,
                                 reinterpret_cast<const uint8_t*>(stream.data()) + DIRTY_BLOCK_STREAM_HEADER_SIZE),
                      "the map is not the stream's");
                Check(std::all_of(map.begin() + streamMap, map.end(), [](uint8_t byte) { return byte == 0; }),
                      "the map's tail is not zero");
                Check(!volume.Exists(kStream), "a loaded stream was not deleted");
            }
        } else {
            Check(pRecord->bTrackingFailed == 1, "an invalid stream gave a trusted map");
            Check(pRecord->mapLen == fileSize / 4096 / 8 + 1, "the wholly dirty map's length");
            Check(pRecord->dirtyBlockCount == fileSize / 4096, "the wholly dirty count");
            Check(std::all_of(map.begin(), map.end(), [](uint8_t byte) { return byte == 0xFF; }),
                  "the wholly dirty map has a clear bit");
        }

        const ULONG mapLen = pRecord->mapLen;
        Check(DerefTrackedDirtyBlockRecord(pRecord) == STATUS_SUCCESS, "the last reference failed");
        const std::optional<std::string> written = volume.Content(kStream);
        Check(written.has_value() && written->size() == DIRTY_BLOCK_STREAM_HEADER_SIZE + mapLen &&
                  std::equal(map.begin(), map.end(),
                             reinterpret_cast<const uint8_t*>(written->data()) + DIRTY_BLOCK_STREAM_HEADER_SIZE),
              "the stream written back is not the record's");
    }

    Check(g_DirtyBlockFileList == nullptr, "a record stayed in the list");
    loaded.pool->Verify("after a load and its write-back");
    return 0;
}
