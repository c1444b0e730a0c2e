// Names for the values the simulator prints.
#include "describe.hpp"

#include <cstdio>

namespace fmsim {

std::string Hex(ULONG value)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(value));
    return text;
}

std::string HresultName(HRESULT result)
{
    return result == 0 ? "S_OK" : Hex(static_cast<ULONG>(result));
}

std::string MajorName(UCHAR major)
{
    switch (major) {
    case IRP_MJ_CREATE: return "CREATE";
    case IRP_MJ_CLOSE: return "CLOSE";
    case IRP_MJ_READ: return "READ";
    case IRP_MJ_WRITE: return "WRITE";
    case IRP_MJ_QUERY_INFORMATION: return "QUERY_INFORMATION";
    case IRP_MJ_SET_INFORMATION: return "SET_INFORMATION";
    case IRP_MJ_QUERY_EA: return "QUERY_EA";
    case IRP_MJ_FLUSH_BUFFERS: return "FLUSH_BUFFERS";
    case IRP_MJ_DIRECTORY_CONTROL: return "DIRECTORY_CONTROL";
    case IRP_MJ_CLEANUP: return "CLEANUP";
    case IRP_MJ_NETWORK_QUERY_OPEN: return "NETWORK_QUERY_OPEN";
    case IRP_MJ_ACQUIRE_FOR_CC_FLUSH: return "ACQUIRE_FOR_CC_FLUSH";
    case IRP_MJ_RELEASE_FOR_CC_FLUSH: return "RELEASE_FOR_CC_FLUSH";
    default: return "MAJOR_" + std::to_string(major);
    }
}

std::string StatusName(NTSTATUS status)
{
    switch (status) {
    case STATUS_SUCCESS: return "STATUS_SUCCESS";
    case STATUS_BUFFER_OVERFLOW: return "STATUS_BUFFER_OVERFLOW";
    case STATUS_NO_MORE_FILES: return "STATUS_NO_MORE_FILES";
    case STATUS_END_OF_FILE: return "STATUS_END_OF_FILE";
    case STATUS_NO_SUCH_FILE: return "STATUS_NO_SUCH_FILE";
    case STATUS_ACCESS_DENIED: return "STATUS_ACCESS_DENIED";
    case STATUS_OBJECT_NAME_NOT_FOUND: return "STATUS_OBJECT_NAME_NOT_FOUND";
    case STATUS_OBJECT_NAME_COLLISION: return "STATUS_OBJECT_NAME_COLLISION";
    case STATUS_OBJECT_PATH_NOT_FOUND: return "STATUS_OBJECT_PATH_NOT_FOUND";
    case STATUS_SHARING_VIOLATION: return "STATUS_SHARING_VIOLATION";
    case STATUS_DELETE_PENDING: return "STATUS_DELETE_PENDING";
    case STATUS_FILE_CLOSED: return "STATUS_FILE_CLOSED";
    case STATUS_BAD_NETWORK_PATH: return "STATUS_BAD_NETWORK_PATH";
    case STATUS_BAD_NETWORK_NAME: return "STATUS_BAD_NETWORK_NAME";
    case STATUS_DIRECTORY_NOT_EMPTY: return "STATUS_DIRECTORY_NOT_EMPTY";
    case STATUS_TIMEOUT: return "STATUS_TIMEOUT";
    case STATUS_PORT_DISCONNECTED: return "STATUS_PORT_DISCONNECTED";
    case STATUS_FLT_INSTANCE_NOT_FOUND: return "STATUS_FLT_INSTANCE_NOT_FOUND";
    default: return Hex(static_cast<ULONG>(status));
    }
}

std::string CreateResultName(ULONG_PTR information)
{
    switch (information) {
    case FILE_SUPERSEDED: return "FILE_SUPERSEDED";
    case FILE_OPENED: return "FILE_OPENED";
    case FILE_CREATED: return "FILE_CREATED";
    case FILE_OVERWRITTEN: return "FILE_OVERWRITTEN";
    case FILE_EXISTS: return "FILE_EXISTS";
    case FILE_DOES_NOT_EXIST: return "FILE_DOES_NOT_EXIST";
    default: return std::to_string(information);
    }
}

std::string DispositionName(ULONG disposition)
{
    switch (disposition) {
    case FILE_SUPERSEDE: return "FILE_SUPERSEDE";
    case FILE_OPEN: return "FILE_OPEN";
    case FILE_CREATE: return "FILE_CREATE";
    case FILE_OPEN_IF: return "FILE_OPEN_IF";
    case FILE_OVERWRITE: return "FILE_OVERWRITE";
    case FILE_OVERWRITE_IF: return "FILE_OVERWRITE_IF";
    default: return std::to_string(disposition);
    }
}

std::string InformationClassName(FILE_INFORMATION_CLASS infoClass)
{
    switch (infoClass) {
    case FileDirectoryInformation: return "FileDirectoryInformation";
    case FileFullDirectoryInformation: return "FileFullDirectoryInformation";
    case FileBothDirectoryInformation: return "FileBothDirectoryInformation";
    case FileBasicInformation: return "FileBasicInformation";
    case FileStandardInformation: return "FileStandardInformation";
    case FileNameInformation: return "FileNameInformation";
    case FileRenameInformation: return "FileRenameInformation";
    case FileLinkInformation: return "FileLinkInformation";
    case FileNamesInformation: return "FileNamesInformation";
    case FileDispositionInformation: return "FileDispositionInformation";
    case FileAllInformation: return "FileAllInformation";
    case FileEndOfFileInformation: return "FileEndOfFileInformation";
    case FileStreamInformation: return "FileStreamInformation";
    case FileNetworkOpenInformation: return "FileNetworkOpenInformation";
    case FileIdBothDirectoryInformation: return "FileIdBothDirectoryInformation";
    case FileIdFullDirectoryInformation: return "FileIdFullDirectoryInformation";
    default: return "class " + std::to_string(static_cast<int>(infoClass));
    }
}

}  // namespace fmsim
