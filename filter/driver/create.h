// The open gate's access masks, and the stretch of the open that follows managed content.
#pragma once

#include <fltKernel.h>

// Access that touches a file's content: a kernel-mode open with none of these bits passes the gate.
// FILE_READ_DATA, FILE_WRITE_DATA, FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES, DELETE, GENERIC_ALL,
// GENERIC_WRITE, GENERIC_READ.
#define ACCESS_REQUIRING_DOWNLOAD ((ACCESS_MASK)0xD0010113)

// Access that writes: refused on a read-only merge folder's own path. FILE_WRITE_DATA,
// FILE_APPEND_DATA, FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES.
#define ACCESS_WRITING ((ACCESS_MASK)0x116)

// Access for which the service names a signature that the upload carries: FILE_WRITE_DATA,
// FILE_WRITE_EA, FILE_WRITE_ATTRIBUTES, GENERIC_ALL, GENERIC_WRITE. An open that also asks for
// DELETE gets none.
#define ACCESS_REQUIRING_SIGNATURE ((ACCESS_MASK)0x50000112)

// Takes an open that the gate classified as managed content to the file system: asks the service
// to download the file (unless it is a known directory or bForeignUserAccess is set) and for a
// signature when the open writes, widens the share access, and makes the file object's record with
// the service's flags, its dirty block record and what its close must do. pBasic, pStandard and
// bMarkerStreamPresent are what the disk holds for pstrPath (the unknown pattern when nothing). The
// record takes copies of pstrPath and pstrSid.
// Returns FLT_PREOP_SUCCESS_WITH_CALLBACK with the record in *CompletionContext; FLT_PREOP_COMPLETE
// with the service's status when it refuses the open; FLT_PREOP_SUCCESS_NO_CALLBACK, the share
// access widened all the same, when the record can't be made.
// IRQL: PASSIVE_LEVEL, no lock held.
FLT_PREOP_CALLBACK_STATUS FollowManagedOpen(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                            PCUNICODE_STRING pstrPath, PCUNICODE_STRING pstrSid,
                                            UCHAR bForeignUserAccess, const FILE_BASIC_INFORMATION* pBasic,
                                            const FILE_STANDARD_INFORMATION* pStandard, UCHAR bMarkerStreamPresent,
                                            PVOID* CompletionContext);
