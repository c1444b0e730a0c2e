// Basic NT types, the Windows data model, counted strings and doubly linked lists.
// The widths follow 64-bit Windows (LLP64): ULONG and LONG are 32 bits, WCHAR is 16.
#pragma once

#include <stddef.h>
#include <stdint.h>

static_assert(sizeof(wchar_t) == 2, "build with -fshort-wchar so that WCHAR and L\"\" are UTF-16");

// ---- calling conventions, SAL and decoration (no meaning on this platform) ----
#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define FLTAPI
#define WINAPI
#define CALLBACK
#define FORCEINLINE inline __attribute__((always_inline))
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#define UNALIGNED
#define IN
#define OUT
#define OPTIONAL
#define _In_
#define _In_opt_
#define _Out_
#define _Out_opt_
#define _Inout_
#define _Inout_opt_
#define _In_reads_bytes_(x)
#define _In_reads_bytes_opt_(x)
#define _Out_writes_bytes_(x)
#define _Out_writes_bytes_opt_(x)
#define _Out_writes_bytes_to_(x, y)
#define _Out_writes_bytes_to_opt_(x, y)
#define _Outptr_
#define _Outptr_result_maybenull_
#define _Outptr_opt_
#define _Inout_updates_bytes_(x)
#define _When_(x, y)
#define _IRQL_requires_max_(x)
#define _IRQL_requires_(x)
#define _IRQL_raises_(x)
#define _IRQL_saves_
#define _IRQL_restores_
#define _Use_decl_annotations_
#define _Must_inspect_result_
#define _Check_return_
#define _Success_(x)
#define _Function_class_(x)
#define _Flt_CompletionContext_Outptr_
#define _Acquires_lock_(x)
#define _Releases_lock_(x)
#define _Requires_lock_held_(x)
#define _Post_satisfies_(x)
#define _Pre_satisfies_(x)
#define _Printf_format_string_
#define _Null_terminated_
#define _Field_size_bytes_(x)
#define _Field_size_bytes_part_(x, y)

#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define C_ASSERT(e) static_assert(e, #e)
#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define ARRAYSIZE(a) (sizeof(a) / sizeof((a)[0]))
#define RTL_NUMBER_OF(a) ARRAYSIZE(a)
#define CONTAINING_RECORD(address, type, field) \
    ((type*)((PCHAR)(address) - (ULONG_PTR)(&((type*)0)->field)))
#define MAXUSHORT 0xFFFF
#define MAXULONG 0xFFFFFFFFu
#define MAXLONGLONG 0x7FFFFFFFFFFFFFFFll

// ---- scalar types ----
typedef void VOID, *PVOID;
typedef const void* PCVOID;
typedef char CHAR, *PCHAR, *PSTR, *LPSTR;
typedef const char* PCSTR, *LPCSTR, *PCSZ;
typedef signed char CCHAR;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef int BOOL;
typedef int16_t SHORT, *PSHORT, CSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD;
typedef int32_t LONG, *PLONG, INT;
typedef uint32_t ULONG, *PULONG, DWORD, *PDWORD, UINT;
typedef int64_t LONGLONG, *PLONGLONG, LONG64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, DWORD64;
typedef intptr_t LONG_PTR, *PLONG_PTR;
typedef uintptr_t ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T;
typedef wchar_t WCHAR, *PWCHAR, *PWSTR, *LPWSTR, *PWCH;
typedef const wchar_t* PCWSTR, *LPCWSTR, *PCWCH;
typedef LONG NTSTATUS, *PNTSTATUS;
typedef LONG HRESULT;
typedef PVOID HANDLE, *PHANDLE;
typedef ULONG ACCESS_MASK, *PACCESS_MASK;
typedef UCHAR KIRQL, *PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG LOGICAL;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef enum _MODE { KernelMode = 0, UserMode = 1, MaximumMode } MODE;

static_assert(sizeof(ULONG) == 4 && sizeof(LONG) == 4 && sizeof(LONGLONG) == 8);
static_assert(sizeof(WCHAR) == 2 && sizeof(NTSTATUS) == 4 && sizeof(USHORT) == 2);

// ---- standard and generic access rights (every object type's ACCESS_MASK) ----
#define DELETE                           0x00010000L
#define READ_CONTROL                     0x00020000L
#define WRITE_DAC                        0x00040000L
#define WRITE_OWNER                      0x00080000L
#define SYNCHRONIZE                      0x00100000L
#define STANDARD_RIGHTS_REQUIRED         0x000F0000L
#define STANDARD_RIGHTS_READ             READ_CONTROL
#define STANDARD_RIGHTS_WRITE            READ_CONTROL
#define STANDARD_RIGHTS_EXECUTE          READ_CONTROL
#define STANDARD_RIGHTS_ALL              0x001F0000L
#define SPECIFIC_RIGHTS_ALL              0x0000FFFFL
#define ACCESS_SYSTEM_SECURITY           0x01000000L
#define MAXIMUM_ALLOWED                  0x02000000L
#define GENERIC_READ                     0x80000000L
#define GENERIC_WRITE                    0x40000000L
#define GENERIC_EXECUTE                  0x20000000L
#define GENERIC_ALL                      0x10000000L

// ---- status helpers ----
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

// ---- 64-bit integers ----
typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

// ---- GUID ----
typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *PGUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID& REFGUID;
static_assert(sizeof(GUID) == 16);

inline bool IsEqualGUID(const GUID& a, const GUID& b)
{
    return __builtin_memcmp(&a, &b, sizeof(GUID)) == 0;
}

// ---- counted strings ----
typedef struct _UNICODE_STRING {
    USHORT Length;          // bytes, without a terminating zero
    USHORT MaximumLength;   // bytes
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING* PCANSI_STRING;

// The counted-string types point at writable text; a constant string's literal is const.
constexpr PWCH NtsimConstantStringBuffer(const WCHAR* Text) { return const_cast<PWCH>(Text); }
constexpr PCHAR NtsimConstantStringBuffer(const CHAR* Text) { return const_cast<PCHAR>(Text); }

#define RTL_CONSTANT_STRING(s) \
    { (USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s), NtsimConstantStringBuffer(s) }

// ---- doubly linked lists ----
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

FORCEINLINE VOID InitializeListHead(PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY Blink = Entry->Blink;
    PLIST_ENTRY Flink = Entry->Flink;
    Blink->Flink = Flink;
    Flink->Blink = Blink;
    return (BOOLEAN)(Flink == Blink);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Flink;
    PLIST_ENTRY Flink = Entry->Flink;
    ListHead->Flink = Flink;
    Flink->Blink = ListHead;
    return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Blink;
    PLIST_ENTRY Blink = Entry->Blink;
    ListHead->Blink = Blink;
    Blink->Flink = ListHead;
    return Entry;
}

FORCEINLINE VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Blink = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = Blink;
    Blink->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY Flink = ListHead->Flink;
    Entry->Flink = Flink;
    Entry->Blink = ListHead;
    Flink->Blink = Entry;
    ListHead->Flink = Entry;
}

// ---- object attributes ----
#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
typedef const OBJECT_ATTRIBUTES* PCOBJECT_ATTRIBUTES;

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->Attributes = (a);                    \
        (p)->ObjectName = (n);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = nullptr;  \
    } while (0)

// ---- pool types ----
typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolNx = 512,
    NonPagedPoolNxCacheAligned = 516,
} POOL_TYPE;

// ---- IRQLs ----
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

// ---- exception filter results ----
#define EXCEPTION_EXECUTE_HANDLER 1
#define EXCEPTION_CONTINUE_SEARCH 0
#define EXCEPTION_CONTINUE_EXECUTION (-1)
