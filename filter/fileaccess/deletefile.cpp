// Deleting a file or stream by path.
#include "fileaccess.h"

#include "trace.h"

NTSTATUS DeleteFile(PCUNICODE_STRING pPath)
{
    OBJECT_ATTRIBUTES objectAttributes;

    InitializeObjectAttributes(&objectAttributes, (PUNICODE_STRING)pPath, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    NTSTATUS status = ZwDeleteFile(&objectAttributes);
    if (!NT_SUCCESS(status)) {
        TRACE_ERROR("ZwDeleteFile failed (0x%08x)", status);
    }
    return status;
}
