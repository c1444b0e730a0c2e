// fmctl's commands.
#include "commands.hpp"

#include <foldermerge/service/configuration_file.hpp>
#include <foldermerge/service/dirtyblocks.hpp>

#include <cstdio>
#include <fstream>
#include <istream>
#include <iterator>
#include <optional>
#include <ostream>
#include <sstream>
#include <vector>

namespace fmctl {

namespace {

using foldermerge::service::Configuration;
using foldermerge::service::FilterConnection;

// One command of the command line: its name and its one argument.
struct Command {
    std::string name;
    std::string argument;
};

// The commands of arguments, or nothing when they aren't a command line.
std::optional<std::vector<Command>> ReadCommandLine(std::span<const std::string> arguments)
{
    std::vector<Command> commands;
    for (size_t at = 0; at < arguments.size(); at++) {
        const std::string& name = arguments[at];
        if (name == "hold") {
            commands.push_back({name, {}});
            continue;
        }
        if ((name != "configure" && name != "trace" && name != "map" && name != "count") ||
            at + 1 == arguments.size()) {
            return std::nullopt;
        }
        const std::string& argument = arguments[++at];
        if (name == "trace" && argument != "on" && argument != "off") {
            return std::nullopt;
        }
        commands.push_back({name, argument});
    }
    if (commands.empty()) {
        return std::nullopt;
    }
    return commands;
}

// The text of a configuration file, or of input for "-".
std::optional<std::string> ReadText(const std::string& file, std::istream& input)
{
    if (file == "-") {
        return std::string(std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>());
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

bool Configure(FilterConnection& connection, const std::string& file, std::istream& input, std::ostream& out)
{
    const std::optional<std::string> text = ReadText(file, input);
    if (!text) {
        out << "configure " << file << ": the file can't be read\n";
        return false;
    }
    Configuration configuration;
    std::string error;
    if (!foldermerge::service::ParseConfigurationText(*text, &configuration, &error)) {
        out << "configure " << file << ": " << error << "\n";
        return false;
    }
    const HRESULT result = connection.SetConfiguration(configuration);
    if (FAILED(result)) {
        out << "configure " << file << ": SetConfiguration failed with " << HresultText(result) << "\n";
        return false;
    }
    out << "configured " << configuration.folders.size() << " merge folder(s) and "
        << configuration.blacklist.size() << " blacklisted process(es)\n";
    return true;
}

bool Trace(FilterConnection& connection, bool enable, std::ostream& out)
{
    const HRESULT result = connection.SetTracingEnabled(enable);
    if (FAILED(result)) {
        out << "trace " << (enable ? "on" : "off") << ": SetTracingEnabled failed with " << HresultText(result)
            << "\n";
        return false;
    }
    out << "tracing " << (enable ? "on" : "off") << "\n";
    return true;
}

// The device path of a command's argument, or nothing (with the reason printed) for text that is
// not UTF-8.
std::optional<std::u16string> DevicePathOf(const std::string& command, const std::string& path, std::ostream& out)
{
    std::u16string devicePath;
    if (!foldermerge::service::Utf8ToUtf16(path, &devicePath)) {
        out << command << " " << path << ": the path is not UTF-8\n";
        return std::nullopt;
    }
    return devicePath;
}

// The set bits of a map as block numbers and ranges of them: "0-3, 9".
std::string DirtyBlockList(const std::vector<uint8_t>& map)
{
    std::string list;
    const uint64_t blocks = static_cast<uint64_t>(map.size()) * 8;
    auto isDirty = [&](uint64_t block) { return (map[block / 8] & (0x80 >> (block % 8))) != 0; };
    for (uint64_t block = 0; block < blocks; block++) {
        if (!isDirty(block)) {
            continue;
        }
        uint64_t last = block;
        while (last + 1 < blocks && isDirty(last + 1)) {
            last++;
        }
        if (!list.empty()) {
            list += ", ";
        }
        list += std::to_string(block);
        if (last != block) {
            list += '-';
            list += std::to_string(last);
        }
        block = last;
    }
    return list.empty() ? "none" : list;
}

bool TakeMap(FilterConnection& connection, const std::string& path, std::ostream& out)
{
    const std::optional<std::u16string> devicePath = DevicePathOf("map", path, out);
    if (!devicePath) {
        return false;
    }
    foldermerge::service::DirtyBlockMap map;
    const HRESULT result = foldermerge::service::ReadDirtyBlockMap(connection, *devicePath, &map);
    if (FAILED(result)) {
        out << "map " << path << ": ReadDirtyBlockMap failed with " << HresultText(result) << "\n";
        return false;
    }
    out << "map of " << path << " (" << map.map.size() << " bytes, now cleared): dirty blocks "
        << DirtyBlockList(map.map) << (map.trackingFailed ? "; tracking failed: take the whole file as changed" : "")
        << "\n";
    return true;
}

bool Count(FilterConnection& connection, const std::string& path, std::ostream& out)
{
    const std::optional<std::u16string> devicePath = DevicePathOf("count", path, out);
    if (!devicePath) {
        return false;
    }
    foldermerge::service::DirtyBlockCount count;
    const HRESULT result = foldermerge::service::RequestDirtyBlockCount(connection, *devicePath, false, &count);
    if (FAILED(result)) {
        out << "count " << path << ": RequestDirtyBlockCount failed with " << HresultText(result) << "\n";
        return false;
    }
    out << "count of " << path << ": " << count.count << " dirty block(s)"
        << (count.trackingFailed ? "; tracking failed" : "") << "\n";
    return true;
}

}  // namespace

std::string HresultText(HRESULT result)
{
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(result));
    return text;
}

std::string Usage()
{
    return "usage: fmctl COMMAND...\n"
           "  configure FILE  set the merge folders and the process blacklist of FILE (- reads standard input)\n"
           "  trace on|off    turn the filter's tracing on or off\n"
           "  map PATH        take the dirty block map of the file at a device path\n"
           "                  (\\Device\\HarddiskVolume2\\Data\\a.txt); the filter clears it\n"
           "  count PATH      the file's count of dirty blocks, left as it is\n"
           "  hold            keep the connection, and so the configuration, until a line is read\n"
           "Commands run in order on one connection to the filter's Config port. When the connection\n"
           "ends, the filter drops its configuration and lets everything pass.\n"
           "A configuration file has lines such as\n"
           "  folder S-1-5-21-...-1001 ro C:\\Users\\alice\\Velmora\n"
           "  blacklist SearchIndexer.exe\n";
}

int RunCommands(FilterConnection& connection, std::span<const std::string> arguments, std::istream& input,
                std::ostream& out)
{
    const std::optional<std::vector<Command>> commands = ReadCommandLine(arguments);
    if (!commands) {
        out << Usage();
        return 2;
    }
    for (const Command& command : *commands) {
        bool done = true;
        if (command.name == "configure") {
            done = Configure(connection, command.argument, input, out);
        } else if (command.name == "trace") {
            done = Trace(connection, command.argument == "on", out);
        } else if (command.name == "map") {
            done = TakeMap(connection, command.argument, out);
        } else if (command.name == "count") {
            done = Count(connection, command.argument, out);
        } else {
            out << "holding the connection: press Enter to end it\n";
            std::string line;
            std::getline(input, line);
        }
        if (!done) {
            return 1;
        }
    }
    return 0;
}

}  // namespace fmctl
