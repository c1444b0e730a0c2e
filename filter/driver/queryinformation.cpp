// IRP_MJ_QUERY_INFORMATION and IRP_MJ_NETWORK_QUERY_OPEN.
//
// A file object that a redirection left on a dummy file would report the dummy's times and size:
// its basic, standard, all and network-open queries are answered from what the service knows about
// the real file, and never reach the file system. Every followed file's stream listing loses the
// system's own streams. A network query open, which would learn a managed file's attributes without
// an open, is refused its fast form: the I/O manager then opens the file, through the open gate.
#include "context.h"
#include "globals.h"
#include "identity.h"
#include "loopback.h"
#include "mergefolders.h"
#include "operations.h"
#include "servicerequests.h"
#include "streamnames.h"
#include "trace.h"

// Every file answered from the service has this index number.
#define REDIRECTED_FILE_INDEX_NUMBER 0x000C000000000123LL

// The fixed part of a FILE_ALL_INFORMATION answer; the name follows it.
#define ALL_INFORMATION_FIXED_LENGTH ((ULONG)sizeof(FILE_ALL_INFORMATION))

// FileBasicInformation or FileStandardInformation of a redirected file, straight into the caller's
// buffer. A time-out of the request writes nothing, and no byte is reported. IRQL: PASSIVE_LEVEL.
static VOID AnswerBasicOrStandardInformation(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                             FileContext* pContext)
{
    PFLT_IO_PARAMETER_BLOCK Iopb = Data->Iopb;
    PVOID pBuffer = Iopb->Parameters.QueryFileInformation.InfoBuffer;
    BOOLEAN bBasic = Iopb->Parameters.QueryFileInformation.FileInformationClass == FileBasicInformation;
    NTSTATUS status = ServiceRequest_ObjectInformation(pContext->pstrSid, pContext->pstrPath, FltObjects, Iopb,
                                                       bBasic ? (PFILE_BASIC_INFORMATION)pBuffer : nullptr,
                                                       bBasic ? nullptr : (PFILE_STANDARD_INFORMATION)pBuffer);
    Data->IoStatus.Status = status;
    // An IRP's answer reaches the caller by its Information.
    if (status == STATUS_SUCCESS) {
        Data->IoStatus.Information = bBasic ? sizeof(FILE_BASIC_INFORMATION) : sizeof(FILE_STANDARD_INFORMATION);
    }
}

// FileNetworkOpenInformation of a redirected file: times and attributes from the service's basic
// information, sizes from its standard information. Nothing is written unless the service
// answered: a failure or a time-out is the query's status. IRQL: PASSIVE_LEVEL.
static VOID AnswerNetworkOpenInformation(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects,
                                         FileContext* pContext)
{
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;
    NTSTATUS status = ServiceRequest_ObjectInformation(pContext->pstrSid, pContext->pstrPath, FltObjects,
                                                       Data->Iopb, &basic, &standard);
    Data->IoStatus.Status = status;
    if (status != STATUS_SUCCESS) {
        return;
    }
    PFILE_NETWORK_OPEN_INFORMATION pInformation =
        (PFILE_NETWORK_OPEN_INFORMATION)Data->Iopb->Parameters.QueryFileInformation.InfoBuffer;
    pInformation->CreationTime = basic.CreationTime;
    pInformation->LastAccessTime = basic.LastAccessTime;
    pInformation->LastWriteTime = basic.LastWriteTime;
    pInformation->ChangeTime = basic.ChangeTime;
    pInformation->AllocationSize = standard.AllocationSize;
    pInformation->EndOfFile = standard.EndOfFile;
    pInformation->FileAttributes = basic.FileAttributes;
    Data->IoStatus.Information = sizeof(FILE_NETWORK_OPEN_INFORMATION);
}

// FileAllInformation of a redirected file: the service's basic and standard information, fixed
// values for the rest, and the real file's device path as its name when the buffer holds it.
// AccessInformation and ModeInformation, which the filter doesn't know, are 0: the buffer of an IRP
// is pool that no one zeroed, and nothing of it goes to the caller unwritten. A buffer short of the
// fixed part gets STATUS_BUFFER_TOO_SMALL and the needed length; one short of the name gets the
// fixed part, no name and STATUS_BUFFER_OVERFLOW. A failed or timed-out request writes nothing.
// IRQL: PASSIVE_LEVEL.
static VOID AnswerAllInformation(PFLT_CALLBACK_DATA Data, PCFLT_RELATED_OBJECTS FltObjects, FileContext* pContext)
{
    PFLT_IO_PARAMETER_BLOCK Iopb = Data->Iopb;
    ULONG ulLength = Iopb->Parameters.QueryFileInformation.Length;
    ULONG ulNeeded = ALL_INFORMATION_FIXED_LENGTH + pContext->pstrPath->Length;
    FILE_BASIC_INFORMATION basic;
    FILE_STANDARD_INFORMATION standard;

    if (ulLength < ALL_INFORMATION_FIXED_LENGTH) {
        Data->IoStatus.Status = STATUS_BUFFER_TOO_SMALL;
        Data->IoStatus.Information = ulNeeded;
        return;
    }
    NTSTATUS status = ServiceRequest_ObjectInformation(pContext->pstrSid, pContext->pstrPath, FltObjects, Iopb,
                                                       &basic, &standard);
    Data->IoStatus.Status = status;
    if (status != STATUS_SUCCESS) {
        return;
    }

    PFILE_ALL_INFORMATION pInformation = (PFILE_ALL_INFORMATION)Iopb->Parameters.QueryFileInformation.InfoBuffer;
    pInformation->BasicInformation = basic;
    pInformation->StandardInformation = standard;
    pInformation->InternalInformation.IndexNumber.QuadPart = REDIRECTED_FILE_INDEX_NUMBER;
    pInformation->EaInformation.EaSize = 0;
    pInformation->AccessInformation.AccessFlags = 0;
    pInformation->PositionInformation.CurrentByteOffset.QuadPart = 0;
    pInformation->ModeInformation.Mode = 0;
    pInformation->AlignmentInformation.AlignmentRequirement = 0;
    if (ulLength < ulNeeded) {
        pInformation->NameInformation.FileNameLength = 0;
        Data->IoStatus.Status = STATUS_BUFFER_OVERFLOW;
        Data->IoStatus.Information = ulLength;
        return;
    }
    pInformation->NameInformation.FileNameLength = pContext->pstrPath->Length;
    RtlCopyMemory(pInformation->NameInformation.FileName, pContext->pstrPath->Buffer, pContext->pstrPath->Length);
    Data->IoStatus.Information = ulNeeded;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                PCFLT_RELATED_OBJECTS FltObjects,
                                                                PVOID* CompletionContext)
{
    if (g_PassThrough) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    FileContext* pContext = FindContextByFileObject(Data->Iopb->TargetFileObject, FALSE);
    if (pContext == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    FILE_INFORMATION_CLASS infoClass = Data->Iopb->Parameters.QueryFileInformation.FileInformationClass;
    TRACE_INFO("Requested Path:[%wZ]. SID:[%wZ]. FileInformationClass:%d", pContext->pstrPath, pContext->pstrSid,
               (int)infoClass);

    switch (infoClass) {
    case FileStreamInformation:
        *CompletionContext = pContext;
        return FLT_PREOP_SUCCESS_WITH_CALLBACK;
    case FileBasicInformation:
    case FileStandardInformation:
    case FileAllInformation:
    case FileNetworkOpenInformation:
        break;
    default:
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }

    if (pContext->pstrTemporaryFile == nullptr) {
        TRACE_INFO("Exiting. No redirected file name");
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    // A record that lost its path to a rename without memory has nothing to ask the service about.
    if (pContext->pstrPath == nullptr) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }

    switch (infoClass) {
    case FileBasicInformation:
        TRACE_INFO("FileBasicInformation requested for [%wZ]", pContext->pstrTemporaryFile);
        AnswerBasicOrStandardInformation(Data, FltObjects, pContext);
        break;
    case FileStandardInformation:
        TRACE_INFO("FileStandardInformation requested for [%wZ]", pContext->pstrTemporaryFile);
        AnswerBasicOrStandardInformation(Data, FltObjects, pContext);
        break;
    case FileNetworkOpenInformation:
        TRACE_INFO("FileNetworkOpenInformation requested for [%wZ]", pContext->pstrTemporaryFile);
        AnswerNetworkOpenInformation(Data, FltObjects, pContext);
        break;
    default:
        TRACE_INFO("FileAllInformation requested for [%wZ]", pContext->pstrTemporaryFile);
        AnswerAllInformation(Data, FltObjects, pContext);
        break;
    }
    return FLT_PREOP_COMPLETE;
}

// The rewriting of a stream listing, where paged memory may be touched. IRQL: <= APC_LEVEL.
static FLT_POSTOP_CALLBACK_STATUS FLTAPI HideStreamsWhenSafe(PFLT_CALLBACK_DATA Data,
                                                             PCFLT_RELATED_OBJECTS FltObjects,
                                                             PVOID CompletionContext, FLT_POST_OPERATION_FLAGS Flags)
{
    UNREFERENCED_PARAMETER(FltObjects);
    UNREFERENCED_PARAMETER(Flags);
    return RemoveVelmoraStreams(Data, Data->Iopb, (FileContext*)CompletionContext);
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI FolderMerge_PostQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                  PCFLT_RELATED_OBJECTS FltObjects,
                                                                  PVOID CompletionContext,
                                                                  FLT_POST_OPERATION_FLAGS Flags)
{
    FileContext* pContext = (FileContext*)CompletionContext;
    FLT_POSTOP_CALLBACK_STATUS postStatus = FLT_POSTOP_FINISHED_PROCESSING;

    if (g_PassThrough || pContext == nullptr) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    TRACE_INFO("Requested Path:[%wZ]. SID:[%wZ]. FileInformationClass:%d", pContext->pstrPath, pContext->pstrSid,
               (int)Data->Iopb->Parameters.QueryFileInformation.FileInformationClass);

    // The stream names lie in paged pool: a completion above APC_LEVEL does the rewriting in a
    // worker. An instance that is detaching has its listing left as it is.
    if (!FltDoCompletionProcessingWhenSafe(Data, FltObjects, CompletionContext, Flags, HideStreamsWhenSafe,
                                           &postStatus)) {
        return FLT_POSTOP_FINISHED_PROCESSING;
    }
    return postStatus;
}

FLT_PREOP_CALLBACK_STATUS FLTAPI FolderMerge_PreNetworkQueryInformation(PFLT_CALLBACK_DATA Data,
                                                                       PCFLT_RELATED_OBJECTS FltObjects,
                                                                       PVOID* CompletionContext)
{
    UNREFERENCED_PARAMETER(CompletionContext);

    FLT_PREOP_CALLBACK_STATUS callbackStatus = FLT_PREOP_SUCCESS_NO_CALLBACK;
    OwnedString* pstrPath = nullptr;
    OwnedString* pstrSid = nullptr;
    UCHAR bReadOnly = 0;
    BOOLEAN bFastIo = FLT_IS_FASTIO_OPERATION(Data);

    if (g_PassThrough) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (ExGetPreviousMode() == KernelMode) {
        TRACE_INFO("[EXIT] Previous mode is KernelMode");
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }
    if (IoGetCurrentProcess() == g_ServiceData.ServiceProcess) {
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    }

    NTSTATUS status = PathFromRequest(FltObjects, Data->Iopb, TRUE, &pstrPath);
    if (!NT_SUCCESS(status)) {
        goto Exit;
    }
    // A share on another machine is never managed, the loopback share included.
    if (IsMupPath(pstrPath)) {
        goto Exit;
    }
    // Without the caller's SID the path can't be judged: it is taken for managed, and the open that
    // comes instead of the fast form goes through the open gate, which judges it itself.
    if (NT_SUCCESS(GetRequestSid(nullptr, &pstrSid))) {
        (VOID) NormalizeFilePath(Data, &pstrPath);
        if (!IsManagedPath(pstrSid, pstrPath, &bReadOnly)) {
            goto Exit;
        }
    }

    TRACE_INFO("FileName:[%wZ], FileInformationClass:%d", pstrPath, (int)FileNetworkOpenInformation);
    callbackStatus = bFastIo ? FLT_PREOP_DISALLOW_FASTIO : FLT_PREOP_SUCCESS_NO_CALLBACK;

Exit:
    FreeUnicodeString(&pstrPath);
    FreeUnicodeString(&pstrSid);
    return callbackStatus;
}
