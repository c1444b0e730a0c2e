// The system's stream names, and their hiding from the stream listings of followed files.
#include "streamnames.h"

#include "trace.h"

OwnedString** g_StreamNames;

static const PCWSTR g_StreamNameTexts[STREAM_NAME_COUNT] = {
    L":{1817910B-C48F-402e-97A7-35511415DB0D}",  // marker stream
    L":{47CF23DD-2EBE-4E96-B04D-54BB379C2A16}",
    L":{29FCDE77-E881-4B51-8912-44076F83DB7D}",
    L":{991C35CF-A2AC-4113-94D3-4C718901B2A7}",
    L":{B706972E-62AA-4769-A637-0A8DEFD570F0}",
    L":{F1585B1F-14A4-46C6-BA47-8DF1352578BF}",
    L":{A5A0A22F-0F6E-467F-84F8-14CF3B1A7ECD}",
    L":{6D6EE7D5-7753-4446-802C-38A7255F41CF}",
    L":{22ccc030-c7fd-4d41-af27-03d193e7f165}",  // block map stream
    L":{1785F7C7-EEAD-4079-BF85-B68C6BB0E743}",
    L":{6C3E8A1E-4F3D-42E7-ACD2-424029763E69}",
    L":{C8CAB137-B211-4CF7-84EC-A7AEF20BB975}",
    L":{8B01ACF6-273B-4E99-97AC-C1C5F4D39DD9}",
};

NTSTATUS CreateStreamStringTable()
{
    SIZE_T ulSize = (STREAM_NAME_COUNT + 1) * sizeof(OwnedString*);
    OwnedString** ppstrNames = (OwnedString**)AllocateBuffer(POOL_SELECTOR_PAGED, ulSize);
    if (ppstrNames == nullptr) {
        return STATUS_NO_MEMORY;
    }
    RtlZeroMemory(ppstrNames, ulSize);
    g_StreamNames = ppstrNames;
    for (ULONG ulIndex = 0; ulIndex < STREAM_NAME_COUNT; ulIndex++) {
        // The allocation holds the header only; the text stays the constant's.
        OwnedString* pstrName = CreateUnicodeString(POOL_SELECTOR_PAGED, 0);
        if (pstrName == nullptr) {
            DeleteStreamStringTable();
            return STATUS_NO_MEMORY;
        }
        RtlInitUnicodeString(pstrName, g_StreamNameTexts[ulIndex]);
        ppstrNames[ulIndex] = pstrName;
    }
    return STATUS_SUCCESS;
}

VOID DeleteStreamStringTable()
{
    if (g_StreamNames == nullptr) {
        return;
    }
    for (ULONG ulIndex = 0; ulIndex < STREAM_NAME_COUNT && g_StreamNames[ulIndex] != nullptr; ulIndex++) {
        FreeBuffer(g_StreamNames[ulIndex]);
    }
    FreeBufferAndClear((PVOID*)&g_StreamNames);
}

// The size of a stream entry's fixed part: the name begins here.
#define STREAM_ENTRY_NAME_OFFSET ((ULONG)FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName))

// Entries of a listing begin on 8-byte boundaries.
#define STREAM_ENTRY_ALIGNMENT ((ULONG)sizeof(LONGLONG))

// Whether a stream's name holds one of the system's stream names. IRQL: <= APC_LEVEL.
static bool IsVelmoraStreamName(PCUNICODE_STRING pName)
{
    for (ULONG ulIndex = 0; ulIndex < STREAM_NAME_COUNT && g_StreamNames[ulIndex] != nullptr; ulIndex++) {
        if (FindUnicodeSubstring(pName, g_StreamNames[ulIndex], 1) >= 0) {
            return true;
        }
    }
    return false;
}

// Whether the entries of a listing of ulLength bytes hold together: each entry and its name lie
// within the listing, and each NextEntryOffset is a multiple of 8 that leaves room for the entry's
// name and stays within the listing. Only then is the listing rewritten. IRQL: any.
static bool IsStreamListingWellFormed(PUCHAR pBuffer, ULONG ulLength)
{
    ULONG ulOffset = 0;
    for (;;) {
        if (ulLength - ulOffset < STREAM_ENTRY_NAME_OFFSET) {
            return false;
        }
        PFILE_STREAM_INFORMATION pEntry = (PFILE_STREAM_INFORMATION)(pBuffer + ulOffset);
        ULONG ulNameLength = pEntry->StreamNameLength;
        if (ulNameLength > MAXUSHORT || ulNameLength > ulLength - ulOffset - STREAM_ENTRY_NAME_OFFSET) {
            return false;
        }
        ULONG ulNext = pEntry->NextEntryOffset;
        if (ulNext == 0) {
            return true;
        }
        if (ulNext % STREAM_ENTRY_ALIGNMENT != 0 || ulNext < STREAM_ENTRY_NAME_OFFSET + ulNameLength ||
            ulNext >= ulLength - ulOffset) {
            return false;
        }
        ulOffset += ulNext;
    }
}

FLT_POSTOP_CALLBACK_STATUS RemoveVelmoraStreams(PFLT_CALLBACK_DATA Data, PFLT_IO_PARAMETER_BLOCK Iopb,
                                                FileContext* pContext)
{
    if (Data == nullptr || Iopb == nullptr || pContext == nullptr || !NT_SUCCESS(Data->IoStatus.Status) ||
        g_StreamNames == nullptr) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    PUCHAR pBuffer = (PUCHAR)Iopb->Parameters.QueryFileInformation.InfoBuffer;
    // The listing is what the file system wrote, never more than the caller's buffer.
    ULONG ulLength = Iopb->Parameters.QueryFileInformation.Length;
    if (Data->IoStatus.Information < ulLength) {
        ulLength = (ULONG)Data->IoStatus.Information;
    }
    if (pBuffer == nullptr || ulLength == 0 || !IsStreamListingWellFormed(pBuffer, ulLength)) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }

    ULONG ulRead = 0;        // the entry in hand
    ULONG ulWrite = 0;       // where the next kept entry goes
    ULONG ulLastKept = 0;    // the last kept entry, in its new place
    BOOLEAN bKeptAny = FALSE;
    for (;;) {
        PFILE_STREAM_INFORMATION pEntry = (PFILE_STREAM_INFORMATION)(pBuffer + ulRead);
        ULONG ulNext = pEntry->NextEntryOffset;
        UNICODE_STRING name;
        name.Buffer = pEntry->StreamName;
        name.Length = (USHORT)pEntry->StreamNameLength;
        name.MaximumLength = name.Length;
        if (IsVelmoraStreamName(&name)) {
            if (pContext->pstrPath != nullptr) {
                TRACE_INFO("Hiding stream [%wZ] of [%wZ]", &name, pContext->pstrPath);
            }
        } else {
            if (pContext->pstrPath != nullptr) {
                TRACE_INFO("Including stream [%wZ] of [%wZ]", &name, pContext->pstrPath);
            }
            if (ulWrite != ulRead) {
                RtlMoveMemory(pBuffer + ulWrite, pEntry, STREAM_ENTRY_NAME_OFFSET + pEntry->StreamNameLength);
            }
            ulLastKept = ulWrite;
            bKeptAny = TRUE;
            ulWrite += ulNext;
        }
        if (ulNext == 0) {
            break;
        }
        ulRead += ulNext;
    }

    // With nothing kept the first entry closes an empty list.
    PFILE_STREAM_INFORMATION pLastKept = (PFILE_STREAM_INFORMATION)(pBuffer + ulLastKept);
    pLastKept->NextEntryOffset = 0;
    Data->IoStatus.Status = STATUS_SUCCESS;
    Data->IoStatus.Information = bKeptAny ? ulLastKept + STREAM_ENTRY_NAME_OFFSET + pLastKept->StreamNameLength : 0;
    return FLT_POSTOP_FINISHED_PROCESSING;
}
