// Reaching a file by path, without a caller's open: its metadata below the filter, the path of one
// of its streams, and its deletion.
//
// GetFileInformation and SetFileInformation open the file themselves with FltCreateFileEx at the
// given instance, so the open starts below this filter and none of its callbacks sees it, and they
// ignore share modes, so a file that another process holds open exclusively is still reached.
#pragma once

#include <fltKernel.h>

#include "driver/ownedstring.h"

// The marker stream: a file that has it was put on the disk by the service.
#define MARKER_STREAM_NAME L"{1817910B-C48F-402e-97A7-35511415DB0D}"

// The unknown pattern of FILE_BASIC_INFORMATION: nothing could be learned about the file. Every
// reader of attributes compares them with FILE_ATTRIBUTES_UNKNOWN before it tests a bit.
#define FILE_TIME_UNKNOWN 0x7FFFFFFFFFFFFFFFll
#define FILE_ATTRIBUTES_UNKNOWN 0xFFFFFFFFu

// Writes the unknown pattern into pBasic: all four times FILE_TIME_UNKNOWN, attributes
// FILE_ATTRIBUTES_UNKNOWN. IRQL: any.
VOID SetUnknownFileInformation(PFILE_BASIC_INFORMATION pBasic);

// True when pBasic holds known attributes, so that its attribute bits can be tested. IRQL: any.
BOOLEAN AreFileAttributesKnown(const FILE_BASIC_INFORMATION* pBasic);

// The basic and standard information of the file at pPath (a device path) as the volume below
// pInstance sees it, and whether it has the marker stream.
// Both outs are required (STATUS_INVALID_PARAMETER, nothing touched). They first get the unknown
// pattern and zeros, and keep them when the file can't be opened; a failed standard query puts the
// pattern back, so a caller has both halves or neither.
// Without pbMarkerStreamPresent the result is the status of the information queries (or of the
// open). With it, a successful open of the file always ends in the status of the marker stream's
// open, so the result tells about the stream: callers that pass it read the outs, not the result.
// *pbMarkerStreamPresent is 1 only when the stream could be opened.
// IRQL: PASSIVE_LEVEL.
NTSTATUS GetFileInformation(PCUNICODE_STRING pPath, PFLT_FILTER pFilter, PFLT_INSTANCE pInstance,
                            PFILE_BASIC_INFORMATION pBasic, PFILE_STANDARD_INFORMATION pStandard,
                            PUCHAR pbMarkerStreamPresent);

// Sets the basic information (times and attributes) of the file at pPath below pInstance.
// STATUS_INVALID_PARAMETER for a null pBasic; otherwise the status of the open or of the set.
// IRQL: PASSIVE_LEVEL.
NTSTATUS SetFileInformation(PCUNICODE_STRING pPath, PFLT_FILTER pFilter, PFLT_INSTANCE pInstance,
                            PFILE_BASIC_INFORMATION pBasic);

// The path of a stream: pPath without its trailing backslashes, ":", then pszStreamName.
// \a\b\\ and x give \a\b:x; a path of backslashes only gives :x. A new OwnedString from g_PoolType
// that the caller frees, or null when out of memory or for a null argument.
// IRQL: <= DISPATCH_LEVEL, for resident strings.
OwnedString* JoinPathAndStreamName(PCUNICODE_STRING pPath, PCWSTR pszStreamName);

// Deletes the file or stream at pPath (ZwDeleteFile, names compared without regard to case). The
// delete goes through the whole I/O stack, this filter's own pre-create included.
// IRQL: PASSIVE_LEVEL.
NTSTATUS DeleteFile(PCUNICODE_STRING pPath);
