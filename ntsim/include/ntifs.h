// File-system interfaces (the WDK's ntifs.h) for ntsim.
#pragma once
#include "ntddk.h"
#include "ntsim/fsrtl.h"     // FsRtlIsNameInExpression
#include "ntsim/fileinfo.h"  // FILE_INFORMATION_CLASS and the published information records
#include "ntsim/io.h"        // FILE_OBJECT, IO_STATUS_BLOCK, the Nt/Zw file API
