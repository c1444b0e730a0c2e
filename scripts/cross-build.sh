#!/usr/bin/env bash
# Builds the portable service library, the protocol headers and fmctl for Windows with Debian's
# mingw-w64 toolchain, against its own Windows headers and its FltLib (libfltlib.a): what a real
# Windows service links. Installs the toolchain when it is missing. The result is
# build/windows/fmctl.exe; nothing here runs it.
#
# The SDK's header is fltuser.h on a file system that tells case apart, while the service library
# includes <fltUser.h> as Windows spells it: the build gives it a one-line header of that name that
# includes the toolchain's own.
set -euo pipefail
cd "$(dirname "$0")/.."

# The cross compilers and the Windows headers and import libraries, FltLib's among them.
bash scripts/install-deps.sh g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix mingw-w64-x86-64-dev

# The posix thread model: the library's request receiver runs std::thread workers.
cxx=x86_64-w64-mingw32-g++-posix
cc=x86_64-w64-mingw32-gcc-posix
out=build/windows
mkdir -p "$out/include" "$out/obj"
printf '#include <fltuser.h>\n' > "$out/include/fltUser.h"

includes=(-I"$out/include" -Iservice/portable/include -Iprotocol)
cxxflags=(-std=c++20 -O2 -Wall -Wextra -Werror -Wno-missing-field-initializers -D_WIN32_WINNT=0x0601 "${includes[@]}")

# The protocol headers as a C service includes them, under the C compiler's layout.
$cc -std=c11 -Wall -Wextra -Werror -Iprotocol -c tests/protocol/protocol_c_check.c -o "$out/obj/protocol_c_check.o"

objects=()
for source in service/portable/src/*.cpp tools/fmctl/commands.cpp tools/fmctl/main.cpp; do
  object="$out/obj/$(echo "${source%.cpp}" | tr '/' '_').o"
  $cxx "${cxxflags[@]}" -c "$source" -o "$object"
  objects+=("$object")
done
$cxx -static -o "$out/fmctl.exe" "${objects[@]}" -lfltlib
echo "built $out/fmctl.exe"
