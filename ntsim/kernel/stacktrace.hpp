// Call stacks for verifier reports: capture, symbolize, print. Internal to ntsim/kernel.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace ntsim::kernel {

// The return addresses of the current stack, innermost first, starting at the frame whose return
// address is anchor (when it is found in the stack; otherwise the list starts with anchor).
std::vector<const void*> CaptureStack(const void* anchor, size_t depth);
// "function file:line" for a return address, as well as the build allows.
std::string SymbolizeReturnAddress(const void* returnAddress);
// One line per frame, each indented by indent.
std::string FormatStack(const std::vector<const void*>& frames, std::string_view indent);
// Prints the symbolized stack of the calling thread to standard error.
void PrintCurrentStack();

}  // namespace ntsim::kernel
