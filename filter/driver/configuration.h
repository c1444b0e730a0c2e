// The configuration the service sets: the merge folder table and the process blacklist.
#pragma once

#include <fltKernel.h>

#include "mergefolders.h"
#include "servicemessages.h"

// Empties the merge folder table and ends every user record with its exclusion cache. The blacklist
// stays until a configuration with folders replaces it. Always STATUS_SUCCESS. IRQL: PASSIVE_LEVEL;
// takes g_ConfigLock, and g_UserListLock inside it.
NTSTATUS ClearConfiguration();

// Fills the table and the blacklist from a SetConfiguration message, after ClearConfiguration.
// The message and its folder block are read only through guarded copies; from a user-mode caller
// both must lie in its memory, and an address that doesn't ends the call with the exception's code
// (STATUS_ACCESS_VIOLATION), with the rows set so far kept. STATUS_INVALID_PARAMETER for a null
// message, a version below 4, a null folder block or more than 50 folders; STATUS_SUCCESS with
// nothing changed for 0 folders; STATUS_NO_MEMORY when the blacklist can't be built whole. A
// folder that can't be set is dropped alone.
// IRQL: PASSIVE_LEVEL, in the sending process; holds g_ConfigLock throughout.
NTSTATUS SetConfiguration(SetConfigurationMessage* pMessage);

// Fills one row from a folder record: the SID, \??\ + the path, and the drive's device name + the
// path without drive letter and colon. On failure the row may hold some strings: the caller frees
// them. STATUS_INVALID_PARAMETER for text that isn't terminated inside its field; the failure of
// the drive link's resolution; STATUS_INSUFFICIENT_RESOURCES. The caller holds g_ConfigLock.
NTSTATUS SetMergeFolder(MergeFolderEntry* pRow, const MergeFolderRecord* pFolder);

// The next token of a '|' list, in place: NextBarToken(text) starts, NextBarToken(nullptr) goes on.
// Empty tokens are skipped; null when the text is used up. Keeps its place in one static pointer:
// its caller holds g_ConfigLock.
PWSTR NextBarToken(PWSTR pszText);

// Frees the blacklist, each string and the array, and sets it to null. The caller holds
// g_ConfigLock, or is the unload with no callback left.
VOID FreeProcessBlacklist();
