// The ERESOURCEs that are initialized and not yet deleted. Internal to ntsim/kernel: the pool asks
// it before freeing a block.
#pragma once

#include <cstddef>

namespace ntsim::kernel {

// The first live ERESOURCE inside [address, address + size), or null.
const void* FindLiveResourceIn(const void* address, size_t size);

}  // namespace ntsim::kernel
