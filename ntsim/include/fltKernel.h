// The Filter Manager's interface to minifilters (the WDK's fltKernel.h) for ntsim.
// Filter sources include this header and nothing of the platform besides.
#pragma once
#include "ntifs.h"
#include "ntsim/fltmgr.h"
#include "ntsim/fltport.h"
