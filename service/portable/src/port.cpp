// Port handles and heap buffers.
#include <foldermerge/service/port.hpp>

#include <new>
#include <utility>

namespace foldermerge::service {

HeapBuffer::HeapBuffer(size_t size) : size_(size)
{
    data_ = static_cast<uint8_t*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, size == 0 ? 1 : size));
    if (data_ == nullptr) {
        throw std::bad_alloc();
    }
}

HeapBuffer::~HeapBuffer()
{
    if (data_ != nullptr) {
        HeapFree(GetProcessHeap(), 0, data_);
    }
}

HeapBuffer::HeapBuffer(HeapBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0))
{
}

HeapBuffer& HeapBuffer::operator=(HeapBuffer&& other) noexcept
{
    if (this != &other) {
        HeapBuffer old(std::move(*this));
        data_ = std::exchange(other.data_, nullptr);
        size_ = std::exchange(other.size_, 0);
    }
    return *this;
}

PortHandle& PortHandle::operator=(PortHandle&& other) noexcept
{
    if (this != &other) {
        reset();
        handle_ = other.release();
    }
    return *this;
}

HANDLE PortHandle::release()
{
    return std::exchange(handle_, nullptr);
}

void PortHandle::reset()
{
    if (HANDLE handle = release(); handle != nullptr) {
        CloseHandle(handle);
    }
}

HRESULT ConnectPort(const WCHAR* portName, std::span<const uint8_t> context, PortHandle* port)
{
    HANDLE handle = nullptr;
    const HRESULT result =
        FilterConnectCommunicationPort(portName, 0, context.empty() ? nullptr : context.data(),
                                       static_cast<WORD>(context.size()), nullptr, &handle);
    if (SUCCEEDED(result)) {
        *port = PortHandle(handle);
    }
    return result;
}

}  // namespace foldermerge::service
