// Lock tracking shared by ntsim's own locks: the locks each thread holds and the order in which
// locks were ever nested. Internal to ntsim/kernel; other components use verifier.hpp.
#pragma once

#include <string>
#include <string_view>

namespace ntsim::kernel {

// Before the calling thread acquires lock (and may block on it): checks the new nestings against the
// order history and records them. Nothing to check when the thread already holds lock. anchor is the
// return address of the platform routine's caller, where the recorded stack starts.
void CheckLockOrder(const void* lock, std::string_view kind, const void* anchor);
// The calling thread now holds lock once more.
void PushHeldLock(const void* lock, std::string_view kind);
// The calling thread released its latest acquisition of lock; false when it held none.
bool PopHeldLock(const void* lock);
// "ERESOURCE g_ConfigLock (0x...)" or "spin lock 0x...".
std::string LockLabel(const void* lock, std::string_view kind);

}  // namespace ntsim::kernel
