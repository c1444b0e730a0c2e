#pragma once
// (being written)
#include "ntdef.h"
#include "ntstatus.h"
