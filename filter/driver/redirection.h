// The redirection of attribute-only opens to the service's dummy files.
#pragma once

#include <fltKernel.h>

#include "ownedstring.h"

// What the open gate does after the redirection step.
typedef enum _REDIRECTION_OUTCOME {
    RedirectionGoOn = 0,  // the gate goes on, with the path and file information as they now stand
    RedirectionEnded = 1, // the open ends here with the step's callback result
} REDIRECTION_OUTCOME;

// Whether an open of managed content asks for a file's attributes alone: FILE_READ_ATTRIBUTES and
// no access that needs the content, on a path that isn't a known directory (its attributes unknown
// or without FILE_ATTRIBUTE_DIRECTORY). IRQL: any.
bool IsAttributeOnlyOpen(ACCESS_MASK DesiredAccess, const FILE_BASIC_INFORMATION* pBasic);

// Asks the service whether the attribute-only open of *ppstrPath goes to a dummy file, in the name
// of pstrSid. The service answers in one of three ways:
//   - not redirected: RedirectionGoOn, nothing changed, and the open is an ordinary one;
//   - redirected by a re-parse (the first pass, also when the request failed): the target file
//     object gets the service's name, if it gave one, and the open completes with STATUS_REPARSE
//     for the I/O manager to parse that name again from the root: RedirectionEnded with
//     FLT_PREOP_COMPLETE. When the name's buffer can't be allocated the file object is left as it
//     was and the open passes: RedirectionEnded with FLT_PREOP_SUCCESS_NO_CALLBACK;
//   - redirected without a re-parse (the second pass, at the dummy file): *ppstrTemporaryFile
//     takes over the dummy file's path, *ppstrPath becomes the real file's path that the service
//     names, and the file information, which described the dummy, is unknown again (the standard
//     record's other members stay): RedirectionGoOn. Without the real path (its copy couldn't be
//     made) nothing changes, and the open goes on as an ordinary open of the dummy file.
// *ppstrTemporaryFile must be null on entry; the caller frees it unless a record takes it over.
// IRQL: PASSIVE_LEVEL, no lock held (the service is asked).
REDIRECTION_OUTCOME RedirectAttributeOnlyOpen(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                              PCUNICODE_STRING pstrSid, OwnedString** ppstrPath,
                                              PFILE_BASIC_INFORMATION pBasic, PFILE_STANDARD_INFORMATION pStandard,
                                              OwnedString** ppstrTemporaryFile,
                                              FLT_PREOP_CALLBACK_STATUS* pCallbackStatus);
