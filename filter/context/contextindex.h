// The context table's indexes, shared by the files of the table. All of it is guarded by
// g_ContextLock.
#pragma once

#include "context.h"

// Records in the table.
extern ULONG g_ContextCount;

// The indexes beside g_ContextList.
extern HashIndex g_ContextsByFileObject;
extern HashIndex g_ContextsByRecord;
extern HashIndex g_ContextsByPath;

// The hash under which a path enters g_ContextsByPath: equal for paths that RtlCompareUnicodeString
// finds equal without regard to case.
ULONGLONG HashOfPathIgnoringCase(PCUNICODE_STRING pPath);

// Puts the record's path into g_ContextsByPath, when it has one.
VOID IndexContextPath(FileContext* pContext);
