// Names for what the logging filter and the scenes print: operations, statuses, create results
// and dispositions, information classes.
#pragma once

#include <fltKernel.h>

#include <string>

namespace fmsim {

std::string MajorName(UCHAR major);                         // "CREATE", "WRITE", ...
std::string StatusName(NTSTATUS status);                    // "STATUS_SUCCESS", or "0xC0000043"
std::string CreateResultName(ULONG_PTR information);       // "FILE_CREATED", ...
std::string DispositionName(ULONG disposition);             // "FILE_OPEN_IF", ...
std::string InformationClassName(FILE_INFORMATION_CLASS infoClass);  // "FileRenameInformation", ...
std::string HresultName(HRESULT result);                    // "S_OK", or "0x80070005"
std::string Hex(ULONG value);                               // "0x0012019F"

}  // namespace fmsim
