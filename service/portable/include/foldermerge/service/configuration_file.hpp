// A configuration written as text, for tools and services that keep theirs in a file: the merge
// folders and the process blacklist of a SetConfiguration message.
//
//     # UTF-8 text; blank lines and lines that begin with # are left out
//     folder S-1-5-21-1004336348-1177238915-682003330-1001 ro C:\Users\alice\Velmora
//     folder S-1-5-21-1004336348-1177238915-682003330-1002 rw C:\Users\bob\Velmora
//     blacklist SearchIndexer.exe
//     blacklist backup.exe
//
// A folder line gives the user's SID, "ro" when the folder's own path is read-only or "rw" when it
// isn't, and the folder as a drive path: the rest of the line, spaces and all. Words are separated
// by spaces or tabs.
#pragma once

#include <foldermerge/service/control.hpp>

#include <string>
#include <string_view>

namespace foldermerge::service {

// Reads text into *configuration (replacing its folders and blacklist). False, with *error saying
// which line and why, on text that isn't valid UTF-8, a line of another kind, a folder line without
// its three parts or with another word than ro or rw, or a path that isn't a drive path (C:\...).
// The lengths of the fields are for ConfigurationMessage::Build to judge.
bool ParseConfigurationText(std::string_view text, Configuration* configuration, std::string* error);

// The text of configuration, one line a folder and a process, that ParseConfigurationText reads
// back as it was.
std::string FormatConfigurationText(const Configuration& configuration);

// UTF-8 text as UTF-16; false for bytes that are no UTF-8 (an overlong or surrogate form included).
bool Utf8ToUtf16(std::string_view text, std::u16string* converted);

// UTF-16 text as UTF-8; a surrogate without its pair becomes U+FFFD.
std::string Utf16ToUtf8(std::u16string_view text);

}  // namespace foldermerge::service
