// The open gate's access masks.
#pragma once

#include <fltKernel.h>

// Access that touches a file's content: a kernel-mode open with none of these bits passes the gate.
// FILE_READ_DATA, FILE_WRITE_DATA, FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES, DELETE, GENERIC_ALL,
// GENERIC_WRITE, GENERIC_READ.
#define ACCESS_REQUIRING_DOWNLOAD ((ACCESS_MASK)0xD0010113)

// Access that writes: refused on a read-only merge folder's own path. FILE_WRITE_DATA,
// FILE_APPEND_DATA, FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES.
#define ACCESS_WRITING ((ACCESS_MASK)0x116)
