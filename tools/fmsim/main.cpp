// fmsim: runs one scene of FolderMerge's simulator on ntsim.
//     fmsim                      lists the scenes
//     fmsim <scene> [arguments]  plays one
#include "scenes.hpp"

#include <iostream>
#include <string>
#include <vector>

namespace {

void Usage(std::ostream& out)
{
    out << "usage: fmsim <scene> [arguments]\n\nscenes:\n";
    for (const fmsim::Scene& scene : fmsim::kScenes) {
        out << "  " << scene.name << std::string(scene.name.size() < 16 ? 16 - scene.name.size() : 1, ' ')
            << scene.summary << "\n";
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        Usage(std::cout);
        return 0;
    }
    const std::string name = argv[1];
    if (name == "help" || name == "--help" || name == "-h") {
        Usage(std::cout);
        return 0;
    }
    for (const fmsim::Scene& scene : fmsim::kScenes) {
        if (scene.name == name) {
            const std::vector<std::string> arguments(argv + 2, argv + argc);
            return scene.run(arguments, std::cout);
        }
    }
    std::cerr << "fmsim: no scene named '" << name << "'\n\n";
    Usage(std::cerr);
    return 2;
}
