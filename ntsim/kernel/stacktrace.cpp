// Call stacks for verifier reports. With AddressSanitizer linked, its symbolizer names functions,
// files and lines; otherwise glibc's backtrace names what the dynamic symbol table knows.
#include "stacktrace.hpp"

#include <execinfo.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

// GCC announces AddressSanitizer with __SANITIZE_ADDRESS__, clang (before 18) only through
// __has_feature.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NTSIM_HAVE_SANITIZER_SYMBOLIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define NTSIM_HAVE_SANITIZER_SYMBOLIZER 1
#endif
#if defined(NTSIM_HAVE_SANITIZER_SYMBOLIZER)
#include <sanitizer/common_interface_defs.h>
#endif

namespace ntsim::kernel {

std::vector<const void*> CaptureStack(const void* anchor, size_t depth)
{
    // Unwinding costs per frame: walk only as far as the anchor (a few frames up) plus depth.
    constexpr int kMaxFrames = 64;
    constexpr size_t kFramesAboveAnchor = 4;
    void* frames[kMaxFrames];
    int count = backtrace(frames, static_cast<int>(std::min<size_t>(kMaxFrames, depth + kFramesAboveAnchor)));
    std::vector<const void*> result;
    int start = -1;
    for (int i = 0; i < count; ++i) {
        if (frames[i] == anchor) {
            start = i;
            break;
        }
    }
    if (start < 0) {
        result.push_back(anchor);
        return result;
    }
    for (int i = start; i < count && result.size() < depth; ++i) {
        result.push_back(frames[i]);
    }
    return result;
}

std::string SymbolizeReturnAddress(const void* returnAddress)
{
    // The call instruction lies just before the return address.
    const char* pc = static_cast<const char*>(returnAddress) - 1;
#if defined(NTSIM_HAVE_SANITIZER_SYMBOLIZER)
    char buffer[1024];
    buffer[0] = '\0';
    __sanitizer_symbolize_pc(const_cast<char*>(pc), "%f %S", buffer, sizeof buffer);
    if (buffer[0] != '\0') {
        return buffer;
    }
#endif
    void* address = const_cast<char*>(pc);
    char** names = backtrace_symbols(&address, 1);
    std::string text = names != nullptr && names[0] != nullptr ? names[0] : "?";
    free(names);
    return text;
}

std::string FormatStack(const std::vector<const void*>& frames, std::string_view indent)
{
    std::string text;
    for (const void* frame : frames) {
        text.append(indent);
        text.append(SymbolizeReturnAddress(frame));
        text.push_back('\n');
    }
    return text;
}

void PrintCurrentStack()
{
#if defined(NTSIM_HAVE_SANITIZER_SYMBOLIZER)
    __sanitizer_print_stack_trace();
#else
    void* frames[64];
    int count = backtrace(frames, 64);
    backtrace_symbols_fd(frames, count, STDERR_FILENO);
#endif
}

}  // namespace ntsim::kernel
