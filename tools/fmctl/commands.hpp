// The commands of fmctl, on a connection to FolderMerge's port: configure the filter from a file,
// turn its tracing on or off, take a file's dirty block map or read its count, and hold the
// connection while the configuration is to stand.
//
//     fmctl configure folders.txt trace on hold
//
// They run in order on the connection's Config port, which the caller has connected. The filter
// keeps a configuration only while the Config port that sent it stays connected: when the tool
// ends, the filter goes into pass-through mode. "hold" keeps it until a line is read.
#pragma once

#include <foldermerge/service/control.hpp>

#include <iosfwd>
#include <span>
#include <string>

namespace fmctl {

// The text printed for a wrong command line.
std::string Usage();

// An HRESULT as 0x and eight hex digits.
std::string HresultText(HRESULT result);

// Runs the commands in arguments (the words after the program's name) on connection's Config port.
// "configure -" reads the configuration from input; "hold" waits for a line of input. What each
// command did goes to out. The exit status: 0 when every command succeeded; 1 at the first that
// failed (the rest don't run); 2 for a command line that isn't one (nothing sent).
int RunCommands(foldermerge::service::FilterConnection& connection, std::span<const std::string> arguments,
                std::istream& input, std::ostream& out);

}  // namespace fmctl
