// The MUP device (\Device\Mup) and its loopback file server.
//
//     ASSERT_EQ(ntsim::MountMup(), STATUS_SUCCESS);          // after C: is mounted, or before
//     // A process opens \??\UNC\127.0.0.1\C$\dir\file or \Device\Mup\127.0.0.1\C$\dir\file ...
//     ntsim::DismountMup();
//
// MountMup mounts a volume named \Device\Mup of device type FILE_DEVICE_NETWORK_FILE_SYSTEM and
// file-system type FLT_FSTYPE_MUP, so filters are offered an instance on it as on any volume, and
// links \??\UNC to it. Paths on it have the form \<server>\<share>\<path>.
//
// The loopback server answers to the server names 127.0.0.1 and localhost (without regard to
// case) and shares every drive X: that \??\X: names, as the administrative share X$. It is a
// kernel-mode process of its own (image \SystemRoot\System32\drivers\srv2.sys, primary token
// S-1-5-18), not the System process, so that its opens are told apart from other kernel-mode I/O.
// Each open of the MUP device gets a session: one thread of that process which, impersonating the
// requester (as a file server impersonates its client), opens \??\X:\<path> through the whole
// stack, filters included, while the MUP open waits for it in the Filter Manager below the
// filters. A filter therefore sees
//     pre-create  \127.0.0.1\C$\dir\file   requester's thread, process and previous mode
//     pre-create  \dir\file (on C:)        session thread, server process, KernelMode
//     post-create \dir\file
//     post-create \127.0.0.1\C$\dir\file
// Reads, writes, information queries and sets, directory queries, EA queries and flushes of the
// MUP open run in the session thread on the server's open. The MUP open's cleanup closes the
// server's open (its cleanup and close follow on the local volume); I/O that comes after that
// fails with STATUS_FILE_CLOSED. Names that the server reports (FileNameInformation,
// FileAllInformation, normalized names) are MUP paths: \127.0.0.1\C$\dir\file.
//
// Failures of an open: a server other than the loopback one gives STATUS_BAD_NETWORK_PATH; a
// share that is not X$ for a linked drive, or an empty share (\127.0.0.1\ and nothing after it),
// STATUS_BAD_NETWORK_NAME; an open of the device or of a server alone (\127.0.0.1) is not
// provided (STATUS_NOT_IMPLEMENTED with a report naming it). Share access is checked on the local volume only, by the server's open, so
// IO_IGNORE_SHARE_ACCESS_CHECK on a MUP open changes nothing there, as with a real redirector.
#pragma once

#include <ntsim/ntdef.h>

#include <memory>
#include <string>
#include <string_view>

namespace ntsim {

class Process;

inline constexpr std::u16string_view kMupDeviceName = u"\\Device\\Mup";

// Mounts \Device\Mup with \??\UNC linked to it, and starts the loopback server's process.
// STATUS_OBJECT_NAME_COLLISION when it is mounted already.
NTSTATUS MountMup();

// Tears down the instances on \Device\Mup, removes it and \??\UNC, and lets the server's process
// go once its last session has closed. STATUS_NO_SUCH_DEVICE when it is not mounted.
NTSTATUS DismountMup();

// The loopback server's process while MUP is mounted, else null.
std::shared_ptr<Process> MupServerProcess();

}  // namespace ntsim
