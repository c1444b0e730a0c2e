// The filter's registration with the Filter Manager.
#pragma once

#include <fltKernel.h>

// Version 0x0202, no Filter Manager contexts (the filter keeps its own table), the 13 operations
// and the unload and instance callbacks.
extern const FLT_REGISTRATION FilterRegistration;
