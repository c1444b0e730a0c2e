// Set information: what a rename's destination tells the service.
#pragma once

#include <fltKernel.h>

// True when pPath, a device path (\Device\HarddiskVolume2\$Recycle.Bin\S-1-5-21-...\x), lies below
// the recycle bin at the root of its volume: the text from its third backslash on begins with
// \$Recycle.Bin\ without regard to case. The recycle bin's own directory, a $Recycle.Bin deeper in
// the path, a path of fewer than three backslashes and a null path give false. IRQL: any, for a
// resident string.
bool IsRecycleBinPath(PCUNICODE_STRING pPath);
