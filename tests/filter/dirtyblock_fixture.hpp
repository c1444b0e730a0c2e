// The loaded filter with helpers for dirty block tracking: map streams laid out byte for byte, the
// records of files by volume path, and what the list holds.
#pragma once

#include "instance_fixture.hpp"

#include <ntsim/sim/clock.hpp>

#include <cstring>
#include <string>
#include <vector>

#include "dirtyblocktracking.h"
#include "driver/locks.h"

namespace foldermerge::testing {

inline const std::u16string kMapStream = u":" + std::u16string(reinterpret_cast<const char16_t*>(DIRTY_BLOCK_STREAM_NAME));

// The header fields of a map stream as the filter reads them.
struct StreamHeader {
    uint8_t version = DIRTY_BLOCK_STREAM_HEADER_VERSION;
    uint32_t count = 0;
    int64_t timestamp = 0;
    uint8_t trackingFailed = 0;
};

// A stream's bytes: the 34-byte header, with filler where fill is given, and the map.
inline std::string StreamBytes(const StreamHeader& header, const std::vector<uint8_t>& map, char fill = 0)
{
    std::string bytes(DIRTY_BLOCK_STREAM_HEADER_SIZE, fill);
    bytes[0] = static_cast<char>(header.version);
    std::memcpy(bytes.data() + 1, &header.count, 4);
    std::memcpy(bytes.data() + 5, &header.timestamp, 8);
    bytes[17] = static_cast<char>(header.trackingFailed);
    bytes.append(map.begin(), map.end());
    return bytes;
}

inline StreamHeader ParseHeader(const std::string& bytes)
{
    StreamHeader header;
    if (bytes.size() >= DIRTY_BLOCK_STREAM_HEADER_SIZE) {
        header.version = static_cast<uint8_t>(bytes[0]);
        std::memcpy(&header.count, bytes.data() + 1, 4);
        std::memcpy(&header.timestamp, bytes.data() + 5, 8);
        header.trackingFailed = static_cast<uint8_t>(bytes[17]);
    }
    return header;
}

inline std::vector<uint8_t> MapOfStream(const std::string& bytes)
{
    if (bytes.size() < DIRTY_BLOCK_STREAM_HEADER_SIZE) {
        return {};
    }
    return std::vector<uint8_t>(bytes.begin() + DIRTY_BLOCK_STREAM_HEADER_SIZE, bytes.end());
}

inline std::vector<uint8_t> MapOf(const TrackedDirtyBlockFile* pRecord)
{
    return pRecord->map == nullptr ? std::vector<uint8_t>{}
                                   : std::vector<uint8_t>(pRecord->map, pRecord->map + pRecord->mapLen);
}

inline size_t SetBits(const std::vector<uint8_t>& map)
{
    size_t bits = 0;
    for (uint8_t byte : map) {
        bits += static_cast<size_t>(__builtin_popcount(byte));
    }
    return bits;
}

class DirtyBlockTest : public LoadedFilterOnVolume {
protected:
    static std::u16string DevicePath(std::u16string_view volumePath) { return kVolume + std::u16string(volumePath); }

    // The record of a file by volume path, through GetTrackedDirtyBlockRecord.
    NTSTATUS Get(std::u16string_view volumePath, TrackedDirtyBlockFile** ppRecord)
    {
        ntsim::UnicodeStringHolder path(DevicePath(volumePath));
        return GetTrackedDirtyBlockRecord(g_ServiceData.FilterHandle, instance_, path.get(), ppRecord);
    }

    TrackedDirtyBlockFile* MustGet(std::u16string_view volumePath)
    {
        TrackedDirtyBlockFile* pRecord = nullptr;
        EXPECT_EQ(Get(volumePath, &pRecord), STATUS_SUCCESS);
        return pRecord;
    }

    static std::vector<const TrackedDirtyBlockFile*> ListedRecords()
    {
        std::vector<const TrackedDirtyBlockFile*> records;
        AcquireLockExclusive(g_DirtyBlockLock);
        for (const TrackedDirtyBlockFile* pEntry = g_DirtyBlockFileList; pEntry != nullptr; pEntry = pEntry->next) {
            records.push_back(pEntry);
        }
        ReleaseLock(g_DirtyBlockLock);
        return records;
    }

    std::optional<std::string> Stream(std::u16string_view volumePath) const
    {
        return volume_->Content(std::u16string(volumePath) + kMapStream);
    }

    // Lays a stream on a file so that it is valid: written now, after the file's last write.
    void SeedStream(std::u16string_view volumePath, StreamHeader header, const std::vector<uint8_t>& map)
    {
        header.timestamp = ntsim::clock::Now();
        volume_->SeedFile(std::u16string(volumePath) + kMapStream, StreamBytes(header, map));
        FILE_BASIC_INFORMATION basic{};
        basic.LastWriteTime.QuadPart = header.timestamp;
        volume_->SeedBasicInformation(volumePath, basic);
    }
};

}  // namespace foldermerge::testing
