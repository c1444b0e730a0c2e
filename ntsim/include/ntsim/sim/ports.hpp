// The control side of ntsim's communication ports, for tests and other ntsim components.
#pragma once

#include <ntsim/fltport.h>

#include <cstddef>
#include <string_view>

namespace ntsim::ports {

// Verifier rules of communication ports.
namespace rules {
// A PFLT_PORT that is no live port of the kind the routine takes.
inline constexpr std::string_view kBadPort = "FLT_PORT_BAD_OBJECT";
// FltUnregisterFilter with a server port of the filter still open.
inline constexpr std::string_view kServerPortLeftOpen = "FLT_SERVER_PORT_LEFT_OPEN";
// FltUnregisterFilter, after the disconnect notifications, with a client port the filter never closed.
inline constexpr std::string_view kClientPortLeftOpen = "FLT_CLIENT_PORT_LEFT_OPEN";
// A message notification that set *ReturnOutputBufferLength above OutputBufferLength.
inline constexpr std::string_view kReturnLengthTooLarge = "FLT_PORT_RETURN_LENGTH_TOO_LARGE";
}  // namespace rules

// The Filter Manager's unregistration calls this first, in the unregistering thread: it ends every
// connection of filter's ports that has not ended yet (waiting senders return
// STATUS_PORT_DISCONNECTED, waiting FilterGetMessage calls end) and runs its disconnect
// notification; then it reports and closes the server ports and the client ports that the filter
// left open.
void DisconnectFilterPorts(PFLT_FILTER filter);

// Terminates the waits of the simulated thread threadId (PsGetThreadId): its FltSendMessage that is
// waiting now, if any, and then its next ones, `waits` in all, return STATUS_THREAD_IS_TERMINATING.
// The message of a terminated wait is withdrawn (if not yet taken) or no longer waited for.
void TerminateWaits(HANDLE threadId, unsigned waits = 1);
// Terminations requested for threadId and not yet used.
unsigned PendingTerminations(HANDLE threadId);

// Open server ports and live connections (not yet ended), of every filter: a test's leak check.
size_t ServerPortCount();
size_t ConnectionCount();
// Live connections made through the server port of that name (0 when there is none).
size_t ConnectionCount(std::u16string_view serverPortName);
// Messages sent by filters and not yet taken by a FilterGetMessage, on every connection.
size_t QueuedMessageCount();

}  // namespace ntsim::ports
