// fmctl: connects to FolderMerge's port as its Config port and runs the commands of its command line
// (see commands.hpp). Run it as an administrator while no service holds the Config port: the filter
// takes one Config port at a time.
#include "commands.hpp"

#include <iostream>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty()) {
        std::cout << fmctl::Usage();
        return 2;
    }
    foldermerge::service::FilterConnection connection;
    const HRESULT connected = connection.ConnectConfigPort();
    if (FAILED(connected)) {
        std::cout << "connecting to FolderMerge's port failed with " << fmctl::HresultText(connected)
                  << " (is the filter loaded, and is this an administrator?)\n";
        return 1;
    }
    return fmctl::RunCommands(connection, arguments, std::cin, std::cout);
}
