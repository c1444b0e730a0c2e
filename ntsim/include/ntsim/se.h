// Security: SIDs, access tokens, subject contexts and the access state of an open, under the
// WDK's names and x64 layouts. Tokens are opaque (PACCESS_TOKEN); ntsim builds them from SID
// text (see ntsim/sim/process.hpp).
#pragma once

#include "ntdef.h"
#include "ntstatus.h"

// ---- locally unique identifiers ----
#ifndef NTSIM_LUID_DEFINED
#define NTSIM_LUID_DEFINED
typedef struct _LUID {
    ULONG LowPart;
    LONG HighPart;
} LUID, *PLUID;
#endif

typedef struct _LUID_AND_ATTRIBUTES {
    LUID Luid;
    ULONG Attributes;
} LUID_AND_ATTRIBUTES, *PLUID_AND_ATTRIBUTES;

// ---- SIDs ----
typedef struct _SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6];  // big-endian 48-bit number
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;

typedef struct _SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[1];  // SubAuthorityCount entries
} SID, *PISID;

typedef PVOID PSID;

#define SID_REVISION 1
#define SID_MAX_SUB_AUTHORITIES 15
#define SID_RECOMMENDED_SUB_AUTHORITIES 1
#define SECURITY_MAX_SID_SIZE (sizeof(SID) - sizeof(ULONG) + (SID_MAX_SUB_AUTHORITIES * sizeof(ULONG)))

#define SECURITY_NULL_SID_AUTHORITY     {0, 0, 0, 0, 0, 0}
#define SECURITY_WORLD_SID_AUTHORITY    {0, 0, 0, 0, 0, 1}
#define SECURITY_LOCAL_SID_AUTHORITY    {0, 0, 0, 0, 0, 2}
#define SECURITY_CREATOR_SID_AUTHORITY  {0, 0, 0, 0, 0, 3}
#define SECURITY_NT_AUTHORITY           {0, 0, 0, 0, 0, 5}
#define SECURITY_LOCAL_SYSTEM_RID       0x00000012L
#define SECURITY_NT_NON_UNIQUE          0x00000015L

typedef struct _SID_AND_ATTRIBUTES {
    PSID Sid;
    ULONG Attributes;
} SID_AND_ATTRIBUTES, *PSID_AND_ATTRIBUTES;

static_assert(sizeof(SID) == 12, "SID header with one sub-authority");
static_assert(SECURITY_MAX_SID_SIZE == 68, "SECURITY_MAX_SID_SIZE");
static_assert(sizeof(SID_AND_ATTRIBUTES) == 16, "SID_AND_ATTRIBUTES");

// ---- tokens ----
typedef PVOID PACCESS_TOKEN;

typedef enum _TOKEN_INFORMATION_CLASS {
    TokenUser = 1,
    TokenGroups,
    TokenPrivileges,
    TokenOwner,
    TokenPrimaryGroup,
    TokenDefaultDacl,
    TokenSource,
    TokenType,
    TokenImpersonationLevel,
    TokenStatistics,
    TokenRestrictedSids,
    TokenSessionId,
} TOKEN_INFORMATION_CLASS, *PTOKEN_INFORMATION_CLASS;

typedef struct _TOKEN_USER {
    SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;

typedef enum _TOKEN_TYPE {
    TokenPrimary = 1,
    TokenImpersonation,
} TOKEN_TYPE, *PTOKEN_TYPE;

typedef enum _SECURITY_IMPERSONATION_LEVEL {
    SecurityAnonymous,
    SecurityIdentification,
    SecurityImpersonation,
    SecurityDelegation,
} SECURITY_IMPERSONATION_LEVEL, *PSECURITY_IMPERSONATION_LEVEL;

typedef BOOLEAN SECURITY_CONTEXT_TRACKING_MODE, *PSECURITY_CONTEXT_TRACKING_MODE;
#define SECURITY_DYNAMIC_TRACKING TRUE
#define SECURITY_STATIC_TRACKING FALSE

typedef struct _SECURITY_QUALITY_OF_SERVICE {
    ULONG Length;
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    SECURITY_CONTEXT_TRACKING_MODE ContextTrackingMode;
    BOOLEAN EffectiveOnly;
} SECURITY_QUALITY_OF_SERVICE, *PSECURITY_QUALITY_OF_SERVICE;

// A security descriptor is opaque to the filter: it only passes one along.
typedef struct _SECURITY_DESCRIPTOR SECURITY_DESCRIPTOR;
typedef PVOID PSECURITY_DESCRIPTOR;

// ---- subject context and access state ----
typedef struct _SECURITY_SUBJECT_CONTEXT {
    PACCESS_TOKEN ClientToken;  // the thread's impersonation token, or null
    SECURITY_IMPERSONATION_LEVEL ImpersonationLevel;
    PACCESS_TOKEN PrimaryToken;  // the process's token
    PVOID ProcessAuditId;
} SECURITY_SUBJECT_CONTEXT, *PSECURITY_SUBJECT_CONTEXT;

#define INITIAL_PRIVILEGE_COUNT 3

typedef struct _INITIAL_PRIVILEGE_SET {
    ULONG PrivilegeCount;
    ULONG Control;
    LUID_AND_ATTRIBUTES Privilege[INITIAL_PRIVILEGE_COUNT];
} INITIAL_PRIVILEGE_SET, *PINITIAL_PRIVILEGE_SET;

typedef struct _PRIVILEGE_SET {
    ULONG PrivilegeCount;
    ULONG Control;
    LUID_AND_ATTRIBUTES Privilege[1];
} PRIVILEGE_SET, *PPRIVILEGE_SET;

typedef struct _ACCESS_STATE {
    LUID OperationID;
    BOOLEAN SecurityEvaluated;
    BOOLEAN GenerateAudit;
    BOOLEAN GenerateOnClose;
    BOOLEAN PrivilegesAllocated;
    ULONG Flags;
    ACCESS_MASK RemainingDesiredAccess;
    ACCESS_MASK PreviouslyGrantedAccess;
    ACCESS_MASK OriginalDesiredAccess;
    SECURITY_SUBJECT_CONTEXT SubjectSecurityContext;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    PVOID AuxData;
    union {
        INITIAL_PRIVILEGE_SET InitialPrivilegeSet;
        PRIVILEGE_SET PrivilegeSet;
    } Privileges;
    BOOLEAN AuditPrivileges;
    UNICODE_STRING ObjectName;
    UNICODE_STRING ObjectTypeName;
} ACCESS_STATE, *PACCESS_STATE;

// The security context of a create, as the I/O manager hands it to the file system.
typedef struct _IO_SECURITY_CONTEXT {
    PSECURITY_QUALITY_OF_SERVICE SecurityQos;
    PACCESS_STATE AccessState;
    ACCESS_MASK DesiredAccess;
    ULONG FullCreateOptions;
} IO_SECURITY_CONTEXT, *PIO_SECURITY_CONTEXT;

static_assert(sizeof(SECURITY_SUBJECT_CONTEXT) == 32, "SECURITY_SUBJECT_CONTEXT");
static_assert(offsetof(SECURITY_SUBJECT_CONTEXT, PrimaryToken) == 16, "PrimaryToken");
static_assert(offsetof(ACCESS_STATE, RemainingDesiredAccess) == 16, "RemainingDesiredAccess");
static_assert(offsetof(ACCESS_STATE, OriginalDesiredAccess) == 24, "OriginalDesiredAccess");
static_assert(offsetof(ACCESS_STATE, SubjectSecurityContext) == 32, "SubjectSecurityContext");
static_assert(offsetof(ACCESS_STATE, SecurityDescriptor) == 64, "SecurityDescriptor");
static_assert(offsetof(ACCESS_STATE, Privileges) == 80, "Privileges");
static_assert(offsetof(ACCESS_STATE, ObjectName) == 128, "ObjectName");
static_assert(sizeof(ACCESS_STATE) == 160, "ACCESS_STATE");
static_assert(sizeof(IO_SECURITY_CONTEXT) == 24, "IO_SECURITY_CONTEXT");
static_assert(offsetof(IO_SECURITY_CONTEXT, DesiredAccess) == 16, "DesiredAccess");

extern "C" {

// ---- subject context routines ----

// Captures the calling thread's security: its impersonation token (ClientToken, with its
// level) if it impersonates, and its process's primary token. Each token is referenced until
// SeReleaseSubjectContext. PASSIVE_LEVEL.
NTKERNELAPI VOID SeCaptureSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);

// Drops the references that SeCaptureSubjectContext took and clears the tokens.
NTKERNELAPI VOID SeReleaseSubjectContext(PSECURITY_SUBJECT_CONTEXT SubjectContext);

// The token that access checks use: the client token if there is one, else the primary token.
NTKERNELAPI PACCESS_TOKEN SeQuerySubjectContextToken(PSECURITY_SUBJECT_CONTEXT SubjectContext);

// Gives a copy of one class of a token's information in paged pool; the caller frees it with
// ExFreePool (or ExFreePoolWithTag(Information, 0)). ntsim answers TokenUser, TokenType and
// TokenImpersonationLevel. PASSIVE_LEVEL.
NTKERNELAPI NTSTATUS SeQueryInformationToken(PACCESS_TOKEN Token,
                                             TOKEN_INFORMATION_CLASS TokenInformationClass,
                                             PVOID* TokenInformation);

// ---- SID routines ----

// TRUE for revision 1 with at most 15 sub-authorities.
NTSYSAPI BOOLEAN NTAPI RtlValidSid(PSID Sid);

// 8 + 4 * SubAuthorityCount bytes.
NTSYSAPI ULONG NTAPI RtlLengthSid(PSID Sid);

// Number of bytes a SID with that many sub-authorities needs.
NTSYSAPI ULONG NTAPI RtlLengthRequiredSid(ULONG SubAuthorityCount);

// Two SIDs are equal when revision, authority and every sub-authority are equal.
NTSYSAPI BOOLEAN NTAPI RtlEqualSid(PSID Sid1, PSID Sid2);

// Sets revision, authority and count; the sub-authorities are left to the caller.
NTSYSAPI NTSTATUS NTAPI RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority,
                                         UCHAR SubAuthorityCount);

// Address of the n-th sub-authority (no range check, as on Windows).
NTSYSAPI PULONG NTAPI RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority);

// Writes the SID as "S-1-<authority>-<sub>..." in decimal. An authority of 2^32 or more is
// written as "0x" and twelve upper-case hexadecimal digits (the full 48 bits, zero-padded).
// With AllocateDestinationString the buffer comes from paged pool and is freed with
// RtlFreeUnicodeString; the text is then zero-terminated. Otherwise a destination whose
// MaximumLength cannot hold the text gives STATUS_BUFFER_TOO_SMALL and stays unchanged; a
// terminating zero is written when there is room for it. An invalid SID gives
// STATUS_INVALID_SID.
NTSYSAPI NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                                     BOOLEAN AllocateDestinationString);

}  // extern "C"
