// Pages of memory that can be seen at more than one address.
//
// A simulated process's user memory is made of such pages, so that the memory manager can map a
// locked range of it a second time, as the system's view that an MDL describes
// (MmGetSystemAddressForMdlSafe): one set of pages, two addresses, and a write through either is
// seen through the other at once. A view begins on a page boundary and covers whole pages; the
// bytes past its usable size are poisoned under AddressSanitizer, so an access beyond the block is
// reported through either view.
#pragma once

#include <cstddef>
#include <memory>

namespace ntsim {

class PageMapping {
public:
    // Zeroed pages that hold at least `usable` bytes (one page for 0). Throws std::bad_alloc when
    // the host refuses the mapping.
    static std::unique_ptr<PageMapping> Allocate(size_t usable);

    ~PageMapping();
    PageMapping(const PageMapping&) = delete;
    PageMapping& operator=(const PageMapping&) = delete;

    unsigned char* Data() const { return address_; }
    size_t Usable() const { return usable_; }

    // A second view of the same pages, with the same usable size. It stays valid when this view is
    // unmapped: the pages live while any view of them does. Null when the host refuses it.
    std::unique_ptr<PageMapping> MapAgain() const;

private:
    PageMapping(unsigned char* address, size_t length, size_t usable);

    unsigned char* address_;
    size_t length_;  // whole pages
    size_t usable_;
};

}  // namespace ntsim
