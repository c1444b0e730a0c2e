// Shared pages seen at more than one address: anonymous shared mappings, and mremap of length 0 for
// each further view of them.
#include "pagemapping.hpp"

#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace ntsim {

namespace {

size_t WholePages(size_t bytes)
{
    static const size_t pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t pages = bytes == 0 ? 1 : (bytes + pageSize - 1) / pageSize;
    return pages * pageSize;
}

}  // namespace

PageMapping::PageMapping(unsigned char* address, size_t length, size_t usable)
    : address_(address), length_(length), usable_(usable)
{
    ASAN_POISON_MEMORY_REGION(address_ + usable_, length_ - usable_);
}

PageMapping::~PageMapping()
{
    ASAN_UNPOISON_MEMORY_REGION(address_, length_);
    munmap(address_, length_);
}

std::unique_ptr<PageMapping> PageMapping::Allocate(size_t usable)
{
    const size_t length = WholePages(usable);
    void* address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (address == MAP_FAILED) {
        throw std::bad_alloc();
    }
    return std::unique_ptr<PageMapping>(new PageMapping(static_cast<unsigned char*>(address), length, usable));
}

std::unique_ptr<PageMapping> PageMapping::MapAgain() const
{
    // For a shared mapping, an old size of 0 asks for a new mapping of the same pages.
    void* address = mremap(address_, 0, length_, MREMAP_MAYMOVE);
    if (address == MAP_FAILED) {
        return nullptr;
    }
    return std::unique_ptr<PageMapping>(new PageMapping(static_cast<unsigned char*>(address), length_, usable_));
}

}  // namespace ntsim
