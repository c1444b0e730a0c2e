// The communication port that carries the whole dialogue with the service.
#pragma once

#include <fltKernel.h>

// Creates the server port \Velmora_DriverPort with pSecurityDescriptor, at most 8 connections, into
// g_ServiceData.ServerPort. The notifications may run as soon as this returns. IRQL: PASSIVE_LEVEL.
NTSTATUS CreateServicePort(PSECURITY_DESCRIPTOR pSecurityDescriptor);

// Closes the server port, if there is one: no new connection is accepted afterwards.
VOID CloseServicePort();

// A connection with a context of exactly 4 bytes is the Thread port, any other the Config port. The
// connecting process becomes the service process. One connection of each kind at a time: a second
// one while the first stands is refused with STATUS_CONNECTION_REFUSED, and changes nothing.
// IRQL: PASSIVE_LEVEL; takes g_ConfigLock for a moment.
NTSTATUS FLTAPI FolderMergeService_Connect(PFLT_PORT ClientPort, PVOID ServerPortCookie, PVOID ConnectionContext,
                                          ULONG SizeOfContext, PVOID* ConnectionPortCookie);

// Thread port: closes it and counts the disconnect. Config port: closes it, clears the
// configuration and enters pass-through mode. IRQL: PASSIVE_LEVEL.
VOID FLTAPI FolderMergeService_Disconnect(PVOID ConnectionCookie);

// Dispatches a control message by its first u32. IRQL: PASSIVE_LEVEL, in the sending process.
NTSTATUS FLTAPI FolderMergeService_Message(PVOID PortCookie, PVOID InputBuffer, ULONG InputBufferLength,
                                          PVOID OutputBuffer, ULONG OutputBufferLength,
                                          PULONG ReturnOutputBufferLength);
