// Port handles and the memory a service hands to the filter.
#pragma once

#include <windows.h>
#include <fltUser.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace foldermerge::service {

// A zeroed block of the service process's heap. The filter reads and writes the buffers of a
// control message in the service's own address space, so they come from here rather than from
// the C++ allocator. Move-only; throws std::bad_alloc when the heap refuses.
class HeapBuffer {
public:
    HeapBuffer() = default;
    explicit HeapBuffer(size_t size);
    ~HeapBuffer();
    HeapBuffer(HeapBuffer&& other) noexcept;
    HeapBuffer& operator=(HeapBuffer&& other) noexcept;
    HeapBuffer(const HeapBuffer&) = delete;
    HeapBuffer& operator=(const HeapBuffer&) = delete;

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    DWORD dwordSize() const { return static_cast<DWORD>(size_); }
    std::span<uint8_t> bytes() const { return {data_, size_}; }
    template <typename T>
    T* as() const
    {
        return reinterpret_cast<T*>(data_);
    }

private:
    uint8_t* data_ = nullptr;
    size_t size_ = 0;
};

// A port handle, closed when the object goes. Move-only.
class PortHandle {
public:
    PortHandle() = default;
    explicit PortHandle(HANDLE handle) : handle_(handle) {}
    ~PortHandle() { reset(); }
    PortHandle(PortHandle&& other) noexcept : handle_(other.release()) {}
    PortHandle& operator=(PortHandle&& other) noexcept;
    PortHandle(const PortHandle&) = delete;
    PortHandle& operator=(const PortHandle&) = delete;

    HANDLE get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }
    HANDLE release();
    // Closes the handle, if any.
    void reset();

private:
    HANDLE handle_ = nullptr;
};

// Connects to the server port portName, handing the filter `context` (empty: none).
HRESULT ConnectPort(const WCHAR* portName, std::span<const uint8_t> context, PortHandle* port);

}  // namespace foldermerge::service
