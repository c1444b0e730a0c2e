// The filter's requests to the service, over the Thread port, and the service's replies.
//
// A request is one ServiceRequestMessage: a fixed head of SERVICE_REQUEST_HEAD_SIZE bytes, zero
// wherever no field of its code is set, followed by up to two UTF-16LE strings with no terminator
// and no padding between them (the path, then for codes 4 and 8 a second string). MessageLength
// covers head and strings; a message can reach SERVICE_REQUEST_MAX_SIZE bytes.
//
// A reply is a ServiceReply of the length its code gives (SERVICE_REPLY_LENGTH_*). Its first
// 16 bytes stand where FILTER_REPLY_HEADER stands in what the service passes to
// FilterReplyMessage: Status in the header's Status, ListingHandle in its MessageId. The lengths
// include those 16 bytes.
//
// Little-endian, packed, fixed-width fields only; C and C++ alike.
#pragma once

#include <stddef.h>
#include <stdint.h>
#ifndef __cplusplus
#include <assert.h>  // static_assert is a macro of <assert.h> in C11
#endif

// ---- request codes (9, 10, 11, 13 and 15 are never sent) ----
#define SERVICE_REQUEST_OBJECT_EXISTS 1
#define SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED 2
#define SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED 3
#define SERVICE_REQUEST_OBJECT_UPLOAD_IF_REQUIRED 4
#define SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE 5
#define SERVICE_REQUEST_DIRECTORY_CONTENTS 6
#define SERVICE_REQUEST_OBJECT_DELETED 7
#define SERVICE_REQUEST_OBJECT_RENAME 8
#define SERVICE_REQUEST_OBJECT_SIGNATURE 12
#define SERVICE_REQUEST_OBJECT_INFORMATION 14
#define SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE 16
#define SERVICE_REQUEST_OBJECT_CANCEL_UPLOAD 17
#define SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES 18
#define SERVICE_REQUEST_OBJECT_WRITE_NOTIFY 19
#define SERVICE_REQUEST_OBJECT_IS_READ_ONLY 20
#define SERVICE_REQUEST_OBJECT_CHANGED 21
#define SERVICE_REQUEST_OBJECT_IS_LOCKED 22
#define SERVICE_REQUEST_OBJECT_RENAME_TO_MANAGED 23

// ---- sizes ----
#define SERVICE_REQUEST_HEAD_SIZE 2088
#define SERVICE_REQUEST_MAX_SIZE (SERVICE_REQUEST_HEAD_SIZE + 2 * 65534)
#define SERVICE_REQUEST_SID_FIELD_BYTES 524
// The SID text, its lowest length bit ignored, must stay below this for the codes that test it.
#define SERVICE_REQUEST_SID_LIMIT_BYTES 520
#define SERVICE_REQUEST_AREA_OFFSET 560
#define SERVICE_REQUEST_AREA_BYTES 1528
#define SERVICE_REQUEST_FILTER_FIELD_BYTES 524
// The longest search pattern: the field must keep the zero character that ends it.
#define SERVICE_REQUEST_FILTER_TEXT_MAX_BYTES (SERVICE_REQUEST_FILTER_FIELD_BYTES - 2)
// Offsets that AllocateServerRequestMessage writes the two string lengths to.
#define SERVICE_REQUEST_PATH_LENGTH_OFFSET 556
#define SERVICE_REQUEST_SECOND_LENGTH_OFFSET 560

#define SERVICE_REPLY_HEAD_SIZE 16
// A signature name has at most this many characters, followed by a zero character.
#define SERVICE_SIGNATURE_NAME_CHARS 260
// A redirect reply's first room for a name: the larger of the path's length and this, in bytes.
#define SERVICE_REDIRECT_NAME_MIN_CAPACITY 260
// A redirect name becomes a counted string with room for a zero character: even, at most this long.
#define SERVICE_REDIRECT_NAME_MAX_BYTES 65532

// ---- reply lengths, head included ----
#define SERVICE_REPLY_LENGTH_OBJECT_EXISTS 18
#define SERVICE_REPLY_LENGTH_OBJECT_RENAME_FROM_MANAGED 16
#define SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED 19
#define SERVICE_REPLY_LENGTH_OBJECT_UPLOAD_IF_REQUIRED 16
#define SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS_SIZE 20
#define SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS(ulListingLength) ((ulListingLength) + 16)
#define SERVICE_REPLY_LENGTH_OBJECT_DELETED 16
#define SERVICE_REPLY_LENGTH_OBJECT_RENAME 16
#define SERVICE_REPLY_LENGTH_OBJECT_SIGNATURE 538
#define SERVICE_REPLY_LENGTH_OBJECT_INFORMATION 80
#define SERVICE_REPLY_LENGTH_OBJECT_IS_EXCLUDED_FILE 16
#define SERVICE_REPLY_LENGTH_OBJECT_CANCEL_UPLOAD 16
#define SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(ulNameCapacity) ((ulNameCapacity) + 24)
#define SERVICE_REPLY_LENGTH_OBJECT_WRITE_NOTIFY 16
#define SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY 17
#define SERVICE_REPLY_LENGTH_OBJECT_CHANGED 24
#define SERVICE_REPLY_LENGTH_OBJECT_IS_LOCKED 16
#define SERVICE_REPLY_LENGTH_OBJECT_RENAME_TO_MANAGED 16

// The unknown pattern of a file information block: no local file could be looked at.
#define SERVICE_UNKNOWN_FILE_TIME 0x7FFFFFFFFFFFFFFFll
#define SERVICE_UNKNOWN_FILE_ATTRIBUTES 0xFFFFFFFFu

#pragma pack(push, 1)

// The layout of FILE_BASIC_INFORMATION: times in 100 ns units since 1601.
typedef struct _ServiceBasicInformation {
    int64_t CreationTime;
    int64_t LastAccessTime;
    int64_t LastWriteTime;
    int64_t ChangeTime;
    uint32_t FileAttributes;
    uint32_t Padding;
} ServiceBasicInformation;

// The layout of FILE_STANDARD_INFORMATION.
typedef struct _ServiceStandardInformation {
    int64_t AllocationSize;
    int64_t EndOfFile;
    uint32_t NumberOfLinks;
    uint8_t DeletePending;
    uint8_t Directory;
    uint8_t Padding[2];
} ServiceStandardInformation;

// The file information block: the file at the request's path as the volume below the filter sees
// it, or the unknown pattern with a zero standard half.
typedef struct _FileInformationBlock {
    ServiceBasicInformation Basic;
    ServiceStandardInformation Standard;
} FileInformationBlock;

// ---- request areas, by code; each begins at SERVICE_REQUEST_AREA_OFFSET ----

// Codes 1, 14, 16, 17 and 23 (14 and 23 leave the marker byte 0).
typedef struct _ObjectInformationArea {
    FileInformationBlock Information;
    uint8_t bMarkerStreamPresent;
} ObjectInformationArea;

// Code 2.
typedef struct _RenameFromManagedArea {
    FileInformationBlock Information;
    uint8_t bToRecycleBin;  // the rename's destination lies in a recycle bin
    uint8_t bMarkerStreamPresent;
} RenameFromManagedArea;

// Code 3.
typedef struct _DownloadIfRequiredArea {
    uint32_t CreateOptions;  // the open's Options: disposition in the top 8 bits
    uint16_t ShareAccess;
    uint16_t Padding1;
    uint32_t DesiredAccess;
    uint32_t Padding2;
    FileInformationBlock Information;
    uint8_t bMarkerStreamPresent;
} DownloadIfRequiredArea;

// Code 4: the signature name, if any, is the second string.
typedef struct _UploadIfRequiredArea {
    uint32_t SecondStringLength;
    uint32_t Padding;
    FileInformationBlock Information;
    uint8_t bMarkerStreamPresent;
} UploadIfRequiredArea;

// Code 5. Filter is the search pattern, ended by the zero fill; empty when there is none.
typedef struct _DirectoryContentsSizeArea {
    uint16_t Filter[SERVICE_REQUEST_FILTER_FIELD_BYTES / 2];
    uint32_t FileInformationClass;
    uint32_t bWantListingHandle;
    uint8_t bReturnSingleEntry;
} DirectoryContentsSizeArea;

// Code 8: the first string is the old path, the second the new one; the block is the new path's.
typedef struct _RenameArea {
    uint32_t SecondStringLength;
    uint32_t Padding;
    FileInformationBlock Information;
} RenameArea;

// Code 12.
typedef struct _SignatureArea {
    uint32_t DesiredAccess;
    uint32_t Padding;
    FileInformationBlock Information;
} SignatureArea;

// Code 18.
typedef struct _RedirectAttributesArea {
    uint32_t ReplyNameCapacity;  // bytes of name the reply has room for
    uint32_t Padding;
    FileInformationBlock Information;
    uint8_t bMarkerStreamPresent;
} RedirectAttributesArea;

// Code 21.
typedef struct _ChangedArea {
    FileInformationBlock Information;
    uint8_t bMarkerStreamPresent;
    uint8_t bAttributesOnly;  // 0 after a create or replace, 1 after basic information was set
} ChangedArea;

// Code 22.
typedef struct _IsLockedArea {
    uint8_t bLocked;  // always 0
} IsLockedArea;

typedef union _ServiceRequestArea {
    uint8_t Bytes[SERVICE_REQUEST_AREA_BYTES];
    ObjectInformationArea ObjectInformation;
    RenameFromManagedArea RenameFromManaged;
    DownloadIfRequiredArea DownloadIfRequired;
    UploadIfRequiredArea UploadIfRequired;
    DirectoryContentsSizeArea DirectoryContentsSize;
    RenameArea Rename;
    SignatureArea Signature;
    RedirectAttributesArea RedirectAttributes;
    ChangedArea Changed;
    IsLockedArea IsLocked;
} ServiceRequestArea;

// Code 6 carries no SID: its listing stands in the SID field's bytes.
typedef struct _ServiceRequestListing {
    uint64_t ListingHandle;
    uint32_t ListingLength;
} ServiceRequestListing;

typedef union _ServiceRequestIdentity {
    uint16_t Sid[SERVICE_REQUEST_SID_FIELD_BYTES / 2];  // SID text, ended by the zero fill
    ServiceRequestListing Listing;                      // code 6
} ServiceRequestIdentity;

typedef struct _ServiceRequestMessage {
    uint32_t RequestCode;
    uint32_t Reserved1;
    uint64_t ProcessId;  // the process whose thread runs the callback
    uint64_t ThreadId;
    uint32_t MessageLength;  // SERVICE_REQUEST_HEAD_SIZE + PathLength + the second string's length
    uint32_t Reserved2;
    ServiceRequestIdentity Identity;
    uint32_t PathLength;  // bytes of the first string of the tail
    ServiceRequestArea Area;
    // The tail follows: PathLength bytes of path, then the second string.
} ServiceRequestMessage;

// ---- replies ----

typedef struct _ObjectExistsPayload {
    uint8_t bExists;
    uint8_t bSecondFlag;  // not read by the filter
} ObjectExistsPayload;

typedef struct _DownloadIfRequiredPayload {
    uint8_t bUploadCancelled;
    uint8_t bLocked;
    uint8_t bTrackDirtyBlocks;
} DownloadIfRequiredPayload;

typedef struct _DirectoryContentsSizePayload {
    uint32_t ListingLength;
} DirectoryContentsSizePayload;

// Code 6: ListingLength bytes of listing follow the head.
typedef struct _DirectoryContentsPayload {
    uint8_t Listing[1];
} DirectoryContentsPayload;

typedef struct _SignaturePayload {
    uint16_t SignatureName[SERVICE_SIGNATURE_NAME_CHARS + 1];  // ended by a zero character
} SignaturePayload;

typedef struct _ObjectInformationPayload {
    ServiceBasicInformation Basic;
    ServiceStandardInformation Standard;
} ObjectInformationPayload;

// Code 18: NameLength bytes of name follow at Name; the reply has room for ReplyNameCapacity.
typedef struct _RedirectAttributesPayload {
    uint32_t NameLength;
    uint8_t bReparse;
    uint8_t bRedirected;
    uint8_t Unused[2];
    uint16_t Name[1];
} RedirectAttributesPayload;

typedef struct _IsReadOnlyPayload {
    uint8_t bReadOnly;
} IsReadOnlyPayload;

typedef struct _ChangedPayload {
    uint64_t Unused;  // not read by the filter
} ChangedPayload;

typedef union _ServiceReplyPayload {
    ObjectExistsPayload ObjectExists;
    DownloadIfRequiredPayload DownloadIfRequired;
    DirectoryContentsSizePayload DirectoryContentsSize;
    DirectoryContentsPayload DirectoryContents;
    SignaturePayload Signature;
    ObjectInformationPayload ObjectInformation;
    RedirectAttributesPayload RedirectAttributes;
    IsReadOnlyPayload IsReadOnly;
    ChangedPayload Changed;
} ServiceReplyPayload;

typedef struct _ServiceReply {
    int32_t Status;  // NTSTATUS of the request as the service decided it
    uint32_t Reserved;
    uint64_t ListingHandle;  // code 5 only
    ServiceReplyPayload Payload;
} ServiceReply;

#pragma pack(pop)

// ---- pinned layouts ----

static_assert(sizeof(ServiceBasicInformation) == 40, "ServiceBasicInformation size");
static_assert(offsetof(ServiceBasicInformation, LastAccessTime) == 8, "ServiceBasicInformation.LastAccessTime");
static_assert(offsetof(ServiceBasicInformation, LastWriteTime) == 16, "ServiceBasicInformation.LastWriteTime");
static_assert(offsetof(ServiceBasicInformation, ChangeTime) == 24, "ServiceBasicInformation.ChangeTime");
static_assert(offsetof(ServiceBasicInformation, FileAttributes) == 32, "ServiceBasicInformation.FileAttributes");
static_assert(sizeof(ServiceStandardInformation) == 24, "ServiceStandardInformation size");
static_assert(offsetof(ServiceStandardInformation, EndOfFile) == 8, "ServiceStandardInformation.EndOfFile");
static_assert(offsetof(ServiceStandardInformation, NumberOfLinks) == 16,
              "ServiceStandardInformation.NumberOfLinks");
static_assert(offsetof(ServiceStandardInformation, DeletePending) == 20,
              "ServiceStandardInformation.DeletePending");
static_assert(offsetof(ServiceStandardInformation, Directory) == 21, "ServiceStandardInformation.Directory");
static_assert(sizeof(FileInformationBlock) == 64, "FileInformationBlock size");
static_assert(offsetof(FileInformationBlock, Standard) == 40, "FileInformationBlock.Standard");

static_assert(offsetof(ServiceRequestMessage, RequestCode) == 0, "RequestCode");
static_assert(offsetof(ServiceRequestMessage, ProcessId) == 8, "ProcessId");
static_assert(offsetof(ServiceRequestMessage, ThreadId) == 16, "ThreadId");
static_assert(offsetof(ServiceRequestMessage, MessageLength) == 24, "MessageLength");
static_assert(offsetof(ServiceRequestMessage, Identity.Sid) == 32, "Sid");
static_assert(sizeof(ServiceRequestIdentity) == SERVICE_REQUEST_SID_FIELD_BYTES, "Sid size");
static_assert(offsetof(ServiceRequestMessage, Identity.Listing.ListingHandle) == 32, "ListingHandle");
static_assert(offsetof(ServiceRequestMessage, Identity.Listing.ListingLength) == 40, "ListingLength");
static_assert(offsetof(ServiceRequestMessage, PathLength) == SERVICE_REQUEST_PATH_LENGTH_OFFSET, "PathLength");
static_assert(offsetof(ServiceRequestMessage, Area) == SERVICE_REQUEST_AREA_OFFSET, "request area");
static_assert(sizeof(ServiceRequestArea) == SERVICE_REQUEST_AREA_BYTES, "request area size");
static_assert(sizeof(ServiceRequestMessage) == SERVICE_REQUEST_HEAD_SIZE, "ServiceRequestMessage size");

// Codes 1, 14, 16, 17, 23.
static_assert(offsetof(ServiceRequestMessage, Area.ObjectInformation.Information) == 560, "1: block");
static_assert(offsetof(ServiceRequestMessage, Area.ObjectInformation.bMarkerStreamPresent) == 624, "1: marker");
// Code 2.
static_assert(offsetof(ServiceRequestMessage, Area.RenameFromManaged.Information) == 560, "2: block");
static_assert(offsetof(ServiceRequestMessage, Area.RenameFromManaged.bToRecycleBin) == 624, "2: recycle bin");
static_assert(offsetof(ServiceRequestMessage, Area.RenameFromManaged.bMarkerStreamPresent) == 625, "2: marker");
// Code 3.
static_assert(offsetof(ServiceRequestMessage, Area.DownloadIfRequired.CreateOptions) == 560, "3: options");
static_assert(offsetof(ServiceRequestMessage, Area.DownloadIfRequired.ShareAccess) == 564, "3: share access");
static_assert(offsetof(ServiceRequestMessage, Area.DownloadIfRequired.DesiredAccess) == 568, "3: access");
static_assert(offsetof(ServiceRequestMessage, Area.DownloadIfRequired.Information) == 576, "3: block");
static_assert(offsetof(ServiceRequestMessage, Area.DownloadIfRequired.bMarkerStreamPresent) == 640, "3: marker");
// Code 4.
static_assert(offsetof(ServiceRequestMessage, Area.UploadIfRequired.SecondStringLength) ==
                  SERVICE_REQUEST_SECOND_LENGTH_OFFSET,
              "4: second length");
static_assert(offsetof(ServiceRequestMessage, Area.UploadIfRequired.Information) == 568, "4: block");
static_assert(offsetof(ServiceRequestMessage, Area.UploadIfRequired.bMarkerStreamPresent) == 632, "4: marker");
// Code 5.
static_assert(offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.Filter) == 560, "5: filter");
static_assert(offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.FileInformationClass) == 1084,
              "5: information class");
static_assert(offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.bWantListingHandle) == 1088,
              "5: want handle");
static_assert(offsetof(ServiceRequestMessage, Area.DirectoryContentsSize.bReturnSingleEntry) == 1092,
              "5: single entry");
// Code 8.
static_assert(offsetof(ServiceRequestMessage, Area.Rename.SecondStringLength) == SERVICE_REQUEST_SECOND_LENGTH_OFFSET,
              "8: second length");
static_assert(offsetof(ServiceRequestMessage, Area.Rename.Information) == 568, "8: block");
// Code 12.
static_assert(offsetof(ServiceRequestMessage, Area.Signature.DesiredAccess) == 560, "12: access");
static_assert(offsetof(ServiceRequestMessage, Area.Signature.Information) == 568, "12: block");
// Code 18.
static_assert(offsetof(ServiceRequestMessage, Area.RedirectAttributes.ReplyNameCapacity) == 560, "18: capacity");
static_assert(offsetof(ServiceRequestMessage, Area.RedirectAttributes.Information) == 568, "18: block");
static_assert(offsetof(ServiceRequestMessage, Area.RedirectAttributes.bMarkerStreamPresent) == 632, "18: marker");
// Code 21.
static_assert(offsetof(ServiceRequestMessage, Area.Changed.Information) == 560, "21: block");
static_assert(offsetof(ServiceRequestMessage, Area.Changed.bMarkerStreamPresent) == 624, "21: marker");
static_assert(offsetof(ServiceRequestMessage, Area.Changed.bAttributesOnly) == 625, "21: attributes only");
// Code 22.
static_assert(offsetof(ServiceRequestMessage, Area.IsLocked.bLocked) == 560, "22: locked");

static_assert(offsetof(ServiceReply, Status) == 0, "reply Status");
static_assert(offsetof(ServiceReply, ListingHandle) == 8, "reply ListingHandle");
static_assert(offsetof(ServiceReply, Payload) == SERVICE_REPLY_HEAD_SIZE, "reply payload");
static_assert(offsetof(ServiceReply, Payload.ObjectExists.bSecondFlag) == 17, "1: second flag");
static_assert(offsetof(ServiceReply, Payload) + sizeof(ObjectExistsPayload) == SERVICE_REPLY_LENGTH_OBJECT_EXISTS,
              "1: reply length");
static_assert(offsetof(ServiceReply, Payload.DownloadIfRequired.bLocked) == 17, "3: locked");
static_assert(offsetof(ServiceReply, Payload.DownloadIfRequired.bTrackDirtyBlocks) == 18, "3: track");
static_assert(offsetof(ServiceReply, Payload) + sizeof(DownloadIfRequiredPayload) ==
                  SERVICE_REPLY_LENGTH_OBJECT_DOWNLOAD_IF_REQUIRED,
              "3: reply length");
static_assert(offsetof(ServiceReply, Payload) + sizeof(DirectoryContentsSizePayload) ==
                  SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS_SIZE,
              "5: reply length");
static_assert(offsetof(ServiceReply, Payload.DirectoryContents.Listing) == SERVICE_REPLY_LENGTH_DIRECTORY_CONTENTS(0),
              "6: listing");
static_assert(offsetof(ServiceReply, Payload) + sizeof(SignaturePayload) == SERVICE_REPLY_LENGTH_OBJECT_SIGNATURE,
              "12: reply length");
static_assert(offsetof(ServiceReply, Payload.ObjectInformation.Standard) == 56, "14: standard information");
static_assert(offsetof(ServiceReply, Payload) + sizeof(ObjectInformationPayload) ==
                  SERVICE_REPLY_LENGTH_OBJECT_INFORMATION,
              "14: reply length");
static_assert(offsetof(ServiceReply, Payload.RedirectAttributes.bReparse) == 20, "18: reparse");
static_assert(offsetof(ServiceReply, Payload.RedirectAttributes.bRedirected) == 21, "18: redirected");
static_assert(offsetof(ServiceReply, Payload.RedirectAttributes.Name) ==
                  SERVICE_REPLY_LENGTH_OBJECT_REDIRECT_ATTRIBUTES(0),
              "18: name");
static_assert(offsetof(ServiceReply, Payload) + sizeof(IsReadOnlyPayload) == SERVICE_REPLY_LENGTH_OBJECT_IS_READ_ONLY,
              "20: reply length");
static_assert(offsetof(ServiceReply, Payload) + sizeof(ChangedPayload) == SERVICE_REPLY_LENGTH_OBJECT_CHANGED,
              "21: reply length");
static_assert(sizeof(ServiceReply) == SERVICE_REPLY_LENGTH_OBJECT_SIGNATURE, "ServiceReply size: its largest payload");
