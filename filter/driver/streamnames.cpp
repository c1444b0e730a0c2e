// The table of the system's stream names.
#include "streamnames.h"

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
