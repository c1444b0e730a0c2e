// The path of the object a request names, and the SID of the user who asks.
//
// Every path the filter compares or sends is a device path, \Device\HarddiskVolume2\dir\file.txt or
// \Device\Mup\127.0.0.1\C$\..., in the caller's case. All results are OwnedStrings that the caller
// frees; out values are written only on success. All routines here run at PASSIVE_LEVEL.
#pragma once

#include <fltKernel.h>

#include "ownedstring.h"

// The volume's device name followed by the target file object's name, with the related file
// object's name in between when bIncludeRelated is set (one level only). A trailing \* is dropped.
// STATUS_INVALID_PARAMETER for a null argument, STATUS_NAME_TOO_LONG when the path would not fit a
// UNICODE_STRING, STATUS_NO_MEMORY, or the volume name query's status as it stands when the query
// fails (a warning such as STATUS_BUFFER_OVERFLOW included). A size query that succeeds names no
// size, and gives STATUS_UNSUCCESSFUL: success always comes with a path.
NTSTATUS PathFromRequest(PCFLT_RELATED_OBJECTS FltObjects, PFLT_IO_PARAMETER_BLOCK Iopb, UCHAR bIncludeRelated,
                         OwnedString** ppstrPath);

// Replaces *ppstrPath by the normalized (long-name) path of the request when the path holds a '~',
// the mark of an 8.3 short name. Success and no change for any other path. On failure the path is
// left as it was.
NTSTATUS NormalizeFilePath(PFLT_CALLBACK_DATA Data, OwnedString** ppstrPath);

// The SID string (S-1-5-21-...) of the requester: the client token before the primary token of
// the create's access state, or of the current thread's subject context when pSecurityContext is
// null. STATUS_INVALID_PARAMETER without a token or with an invalid SID; STATUS_INSUFFICIENT_RESOURCES
// when the copy can't be made.
NTSTATUS GetRequestSid(PIO_SECURITY_CONTEXT pSecurityContext, OwnedString** ppstrSid);

// The target of the drive link named by the first six characters of pLinkName (\??\C:), into a new
// paged OwnedString. STATUS_INVALID_PARAMETER for a name shorter than six characters or an empty
// target; the object manager's failure as it stands.
NTSTATUS DeviceNameFromSymbolicLink(PCUNICODE_STRING pLinkName, OwnedString** ppstrDeviceName);

// \??\C:\dir\file to <target of C:>\dir\file, into a new paged OwnedString. STATUS_INVALID_PARAMETER
// for a path shorter than its six-character drive link.
NTSTATUS LinkToDevicePath(PCUNICODE_STRING pLinkPath, OwnedString** ppstrDevicePath);

// The device path of a rename target: \??\ forms through their drive link (a substituted drive
// once more), \Device forms as they stand, anything else STATUS_INVALID_PARAMETER.
NTSTATUS DevicePathFromRenameInformation(PFILE_RENAME_INFORMATION pRenameInformation,
                                         OwnedString** ppstrDevicePath);
