// The driver's global state: the service connection and the mode flag that every callback reads.
// The locks are in locks.h, the tables with the routines that keep them.
#pragma once

#include <fltKernel.h>

// The one record of the service connection.
typedef struct _ServiceData {
    PFLT_FILTER FilterHandle;        // from FltRegisterFilter
    PFLT_PORT ServerPort;            // the listening port, from start to unload
    PEPROCESS ServiceProcess;        // the process that last connected; its opens are left alone
    PFLT_PORT ThreadClientPort;      // the service's request channel
    PFLT_PORT ConfigClientPort;      // the service's control channel
    ULONG ClientPortDisconnectCount; // Thread port disconnects since load
} ServiceData;

extern ServiceData g_ServiceData;

// 1 in pass-through mode. One byte, written by the port notifications and read without a lock.
extern volatile UCHAR g_PassThrough;

// The list of users' records (user.h), guarded by g_UserListLock.
extern LIST_ENTRY g_UserList;
