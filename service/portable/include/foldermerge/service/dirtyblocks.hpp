// The dirty block queries of a service: the map of a file, which the filter hands over and
// clears, and the file's count of dirty blocks. Both go out on the Config port as control
// messages; a file needs no open handle to be asked about.
#pragma once

#include <windows.h>
#include <fltUser.h>

#include <foldermerge/service/control.hpp>
#include <servicemessages.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace foldermerge::service {

// A file's map: bit 0x80 >> (b % 8) of byte b / 8 is block b (4096 bytes at b * 4096). A set bit
// is a block written since the map was last taken; bits past the file's end may be set. With
// trackingFailed the filter lost track of the file at some moment: take the whole file as changed.
struct DirtyBlockMap {
    bool trackingFailed = false;
    std::vector<uint8_t> map;
};

struct DirtyBlockCount {
    bool trackingFailed = false;
    uint32_t count = 0;
};

// Takes the map of the file at devicePath (\Device\HarddiskVolume2\Data\a.txt) with room for
// mapCapacity map bytes: the filter hands it over and clears it. A longer map fails with
// HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER) and nothing is cleared. E_FAIL for a reply that
// is no map reply.
HRESULT RequestDirtyBlockMap(FilterConnection& connection, std::u16string_view devicePath, uint32_t mapCapacity,
                             DirtyBlockMap* map);

// Takes the map of the file whatever its length: the filter doesn't say how long a map is, so
// the room starts at initialCapacity bytes and doubles while the filter finds it too small (which
// clears nothing), up to the largest map a message can carry.
HRESULT ReadDirtyBlockMap(FilterConnection& connection, std::u16string_view devicePath, DirtyBlockMap* map,
                          uint32_t initialCapacity = 4096);

// The file's count of dirty blocks and its flag; with reset the filter clears the map and the
// count (not the flag) once read.
HRESULT RequestDirtyBlockCount(FilterConnection& connection, std::u16string_view devicePath, bool reset,
                               DirtyBlockCount* count);

}  // namespace foldermerge::service
