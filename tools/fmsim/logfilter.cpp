// The simulator's logging minifilter. Callbacks may run in several threads at once (the MUP
// server's opens run in a thread of their own): each line is written whole under one mutex.
#include "logfilter.hpp"

#include "describe.hpp"

#include <ntsim/sim/filterregistration.hpp>
#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include <iomanip>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string>

namespace fmsim::logfilter {

namespace {

struct State {
    std::mutex mutex;
    std::ostream* out = nullptr;
    PFLT_FILTER filter = nullptr;
};

State& Log()
{
    static State state;
    return state;
}

// The target as "\Device\HarddiskVolume2\dir\file": the volume's name and the file object's
// ("\Device\HarddiskVolume2: file" for a name that is not from the root).
std::string TargetName(PCFLT_RELATED_OBJECTS objects, PFILE_OBJECT fileObject)
{
    WCHAR buffer[128];
    UNICODE_STRING volume{0, sizeof(buffer), buffer};
    std::string name = NT_SUCCESS(FltGetVolumeName(objects->Volume, &volume, nullptr)) ? ntsim::ToUtf8(volume) : "?";
    if (fileObject != nullptr) {
        // A target-directory open leaves only the last component in FileName.
        const std::string file = ntsim::ToUtf8(fileObject->FileName);
        name += file.empty() || file[0] == '\\' ? file : ": " + file;
    }
    return name;
}

std::string Requester(PFLT_CALLBACK_DATA data)
{
    const std::u16string& image = ntsim::CurrentProcess().ImageFileName();
    const size_t slash = image.rfind(u'\\');
    std::ostringstream text;
    text << ntsim::ToUtf8(slash == std::u16string::npos ? image : image.substr(slash + 1)) << " pid "
         << reinterpret_cast<uintptr_t>(PsGetCurrentProcessId()) << ", "
         << (data->RequestorMode == UserMode ? "user" : "kernel") << " mode";
    return text.str();
}

std::string PreDetails(PFLT_CALLBACK_DATA data)
{
    const FLT_PARAMETERS& parameters = data->Iopb->Parameters;
    std::ostringstream text;
    switch (data->Iopb->MajorFunction) {
    case IRP_MJ_CREATE:
        text << DispositionName(parameters.Create.Options >> 24) << ", access "
             << Hex(parameters.Create.SecurityContext->DesiredAccess);
        break;
    case IRP_MJ_READ:
        text << parameters.Read.Length << " bytes at " << parameters.Read.ByteOffset.QuadPart;
        break;
    case IRP_MJ_WRITE:
        text << parameters.Write.Length << " bytes at " << parameters.Write.ByteOffset.QuadPart;
        break;
    case IRP_MJ_QUERY_INFORMATION:
        text << InformationClassName(parameters.QueryFileInformation.FileInformationClass);
        break;
    case IRP_MJ_SET_INFORMATION: {
        const auto& set = parameters.SetFileInformation;
        text << InformationClassName(set.FileInformationClass);
        if (set.FileInformationClass == FileRenameInformation) {
            const auto* rename = static_cast<const FILE_RENAME_INFORMATION*>(set.InfoBuffer);
            text << " to "
                 << ntsim::ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(rename->FileName),
                                                      rename->FileNameLength / sizeof(WCHAR)));
        }
        break;
    }
    case IRP_MJ_DIRECTORY_CONTROL:
        if (data->Iopb->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
            const auto& query = parameters.DirectoryControl.QueryDirectory;
            text << InformationClassName(query.FileInformationClass);
            if (query.FileName != nullptr) {
                text << " matching " << ntsim::ToUtf8(*query.FileName);
            }
        }
        break;
    default:
        break;
    }
    return text.str();
}

std::string PostDetails(PFLT_CALLBACK_DATA data)
{
    const ULONG_PTR information = data->IoStatus.Information;
    std::ostringstream text;
    text << StatusName(data->IoStatus.Status);
    switch (data->Iopb->MajorFunction) {
    case IRP_MJ_CREATE:
        text << ", " << CreateResultName(information);
        break;
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
        text << ", " << information << " bytes";
        break;
    case IRP_MJ_QUERY_INFORMATION:
    case IRP_MJ_DIRECTORY_CONTROL:
        if (NT_SUCCESS(data->IoStatus.Status)) {
            text << ", " << information << " bytes returned";
        }
        break;
    default:
        break;
    }
    return text.str();
}

void Print(bool post, PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects)
{
    std::ostringstream line;
    line << "    " << (post ? "post " : "pre  ") << std::left << std::setw(18) << MajorName(data->Iopb->MajorFunction)
         << TargetName(objects, data->Iopb->TargetFileObject);
    if (post) {
        line << "  -> " << PostDetails(data);
    } else {
        const std::string details = PreDetails(data);
        line << "  (" << Requester(data) << (details.empty() ? "" : "; ") << details << ")";
    }
    line << "\n";
    State& log = Log();
    std::lock_guard lock(log.mutex);
    if (log.out != nullptr) {
        *log.out << line.str() << std::flush;
    }
}

FLT_PREOP_CALLBACK_STATUS FLTAPI PreOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*)
{
    Print(false, data, objects);
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS FLTAPI PostOperation(PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                                                FLT_POST_OPERATION_FLAGS)
{
    Print(true, data, objects);
    return FLT_POSTOP_FINISHED_PROCESSING;
}

NTSTATUS FLTAPI FilterUnload(FLT_FILTER_UNLOAD_FLAGS)
{
    FltUnregisterFilter(Log().filter);
    Log().filter = nullptr;
    return STATUS_SUCCESS;
}

constexpr UCHAR kLoggedOperations[] = {
    IRP_MJ_CREATE, IRP_MJ_READ, IRP_MJ_WRITE, IRP_MJ_QUERY_INFORMATION, IRP_MJ_SET_INFORMATION,
    IRP_MJ_DIRECTORY_CONTROL, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_CLEANUP, IRP_MJ_CLOSE,
};
constexpr auto kOperations = ntsim::RegisterEachOperation(kLoggedOperations, PreOperation, PostOperation);

constexpr FLT_REGISTRATION kRegistration = {
    .Size = sizeof(FLT_REGISTRATION),
    .Version = FLT_REGISTRATION_VERSION,
    .Flags = 0,
    .ContextRegistration = nullptr,
    .OperationRegistration = kOperations.entries,
    .FilterUnloadCallback = FilterUnload,
};

NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    return ntsim::RegisterAndStartFiltering(driver, kRegistration, &Log().filter);
}

constexpr std::u16string_view kServiceName = u"LogFilter";

}  // namespace

NTSTATUS Load(std::ostream& out)
{
    {
        std::lock_guard lock(Log().mutex);
        Log().out = &out;
    }
    ntsim::FilterLoadOptions options;
    options.name = std::u16string(kServiceName);
    options.altitude = u"385100";
    return ntsim::LoadFilter(DriverEntry, options);
}

NTSTATUS Unload()
{
    NTSTATUS status = ntsim::UnloadFilter(kServiceName);
    std::lock_guard lock(Log().mutex);
    Log().out = nullptr;
    return status;
}

}  // namespace fmsim::logfilter
