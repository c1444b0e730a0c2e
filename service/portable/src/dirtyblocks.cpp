// The dirty block queries.
#include <foldermerge/service/dirtyblocks.hpp>

#include <cstring>
#include <new>

namespace foldermerge::service {

namespace {

// A query message: its head (code and, for the count, the reset flag) and the path with its
// terminating zero, which the buffer's zeroed tail supplies.
HeapBuffer QueryMessage(size_t headSize, std::u16string_view devicePath)
{
    HeapBuffer message(headSize + sizeof(char16_t) * (devicePath.size() + 1));
    if (!devicePath.empty()) {
        std::memcpy(message.data() + headSize, devicePath.data(), devicePath.size() * sizeof(char16_t));
    }
    return message;
}

// The longest map whose reply's length a DWORD can count.
constexpr uint64_t kLargestMapCapacity = 0xFFFFFFFFull - DIRTY_BLOCK_MAP_REPLY_LENGTH(0);

}  // namespace

HRESULT RequestDirtyBlockMap(FilterConnection& connection, std::u16string_view devicePath, uint32_t mapCapacity,
                             DirtyBlockMap* map)
{
    if (mapCapacity > kLargestMapCapacity) {
        return E_INVALIDARG;
    }
    HeapBuffer message = QueryMessage(DIRTY_BLOCK_MAP_REQUEST_HEAD_SIZE, devicePath);
    message.as<DirtyBlockMapRequest>()->Code = CONTROL_REQUEST_DIRTY_BLOCK_MAP;
    HeapBuffer reply(DIRTY_BLOCK_MAP_REPLY_LENGTH(size_t{mapCapacity}));
    DWORD returned = 0;
    const HRESULT result = connection.SendControl(message, &reply, &returned);
    if (FAILED(result)) {
        return result;
    }
    DirtyBlockMapReply head;
    std::memcpy(&head, reply.data(), DIRTY_BLOCK_MAP_REPLY_HEAD_SIZE);
    if (returned < DIRTY_BLOCK_MAP_REPLY_LENGTH(0) || head.MapLength > returned - DIRTY_BLOCK_MAP_REPLY_LENGTH(0)) {
        return E_FAIL;
    }
    map->trackingFailed = head.bTrackingFailed != 0;
    const uint8_t* bytes = reply.data() + DIRTY_BLOCK_MAP_REPLY_HEAD_SIZE;
    map->map.assign(bytes, bytes + head.MapLength);
    return S_OK;
}

HRESULT ReadDirtyBlockMap(FilterConnection& connection, std::u16string_view devicePath, DirtyBlockMap* map,
                          uint32_t initialCapacity)
{
    uint64_t capacity = initialCapacity != 0 ? initialCapacity : 1;
    for (;;) {
        HRESULT result;
        try {
            result = RequestDirtyBlockMap(connection, devicePath, static_cast<uint32_t>(capacity), map);
        } catch (const std::bad_alloc&) {
            return E_OUTOFMEMORY;
        }
        if (result != HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER) || capacity == kLargestMapCapacity) {
            return result;
        }
        capacity = capacity * 2 < kLargestMapCapacity ? capacity * 2 : kLargestMapCapacity;
    }
}

HRESULT RequestDirtyBlockCount(FilterConnection& connection, std::u16string_view devicePath, bool reset,
                               DirtyBlockCount* count)
{
    HeapBuffer message = QueryMessage(DIRTY_BLOCK_COUNT_REQUEST_HEAD_SIZE, devicePath);
    auto* request = message.as<DirtyBlockCountRequest>();
    request->Code = CONTROL_REQUEST_DIRTY_BLOCK_COUNT;
    request->bReset = reset ? 1 : 0;
    HeapBuffer reply(sizeof(DirtyBlockCountReply));
    DWORD returned = 0;
    const HRESULT result = connection.SendControl(message, &reply, &returned);
    if (FAILED(result)) {
        return result;
    }
    if (returned < DIRTY_BLOCK_COUNT_REPLY_SIZE) {
        return E_FAIL;
    }
    DirtyBlockCountReply record;
    std::memcpy(&record, reply.data(), sizeof(record));
    count->trackingFailed = record.bTrackingFailed != 0;
    count->count = record.DirtyBlockCount;
    return S_OK;
}

}  // namespace foldermerge::service
