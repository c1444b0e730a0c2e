// Buffers as a user-mode caller passes them: heap blocks of the calling thread's simulated process,
// which the kernel's probes accept in that process's threads only.
#pragma once

#include <windows.h>

#include <cstddef>

// A heap block of the calling thread's process, freed at scope end (in a thread of that process).
class UserBuffer {
public:
    explicit UserBuffer(size_t size) : size_(size), bytes_(static_cast<UCHAR*>(HeapAlloc(GetProcessHeap(), 0, size))) {}
    ~UserBuffer() { HeapFree(GetProcessHeap(), 0, bytes_); }
    UserBuffer(const UserBuffer&) = delete;
    UserBuffer& operator=(const UserBuffer&) = delete;

    UCHAR* data() const { return bytes_; }
    DWORD size() const { return static_cast<DWORD>(size_); }
    template <typename T>
    T* as() const { return reinterpret_cast<T*>(bytes_); }

private:
    size_t size_;
    UCHAR* bytes_;
};
