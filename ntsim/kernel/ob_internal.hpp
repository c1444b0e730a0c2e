// Shared by the object manager, process, token and symbolic link sources of ntsim.
#pragma once

#include <ntsim/ob.h>
#include <ntsim/sim/object.hpp>

#include <string_view>

namespace ntsim::ob::internal {

// A pool tag from its four characters, as they appear in memory.
constexpr ULONG PoolTag(const char (&text)[5])
{
    return static_cast<ULONG>(static_cast<UCHAR>(text[0])) |
           static_cast<ULONG>(static_cast<UCHAR>(text[1])) << 8 |
           static_cast<ULONG>(static_cast<UCHAR>(text[2])) << 16 |
           static_cast<ULONG>(static_cast<UCHAR>(text[3])) << 24;
}

inline constexpr ULONG kSidStringTag = PoolTag("SeSd");      // RtlConvertSidToUnicodeString
inline constexpr ULONG kTokenInformationTag = PoolTag("SeTi");  // SeQueryInformationToken

// Adds or removes one handle of a known object; returns the handle count after the change.
ULONG AdjustHandleCount(void* object, int delta);

// Opens a handle for a caller of the given mode (InsertHandle with an explicit mode).
HANDLE InsertHandleForMode(void* object, ACCESS_MASK grantedAccess, ULONG attributes,
                           KPROCESSOR_MODE mode);

}  // namespace ntsim::ob::internal
