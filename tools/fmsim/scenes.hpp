// The scenes fmsim can play. A scene is one source file that defines its entry point, and one row
// in kScenes below; `fmsim <name> [arguments]` runs it.
#pragma once

#include <iosfwd>
#include <span>
#include <string>
#include <string_view>

namespace fmsim {

// A scene's entry point: its arguments (after the scene's name) and where to print. Returns the
// process exit code.
using SceneMain = int (*)(std::span<const std::string> arguments, std::ostream& out);

struct Scene {
    std::string_view name;
    std::string_view summary;
    SceneMain run;
};

int PlatformDemo(std::span<const std::string> arguments, std::ostream& out);
int FolderMergeDemo(std::span<const std::string> arguments, std::ostream& out);

inline constexpr Scene kScenes[] = {
    {"demo",
     "FolderMerge on ntsim: a service configures it, the gate judges opens, pass-through mode, requests "
     "to the service, the road of one open, unload",
     FolderMergeDemo},
    {"platform-demo",
     "a logging filter on ntsim watches a user process create, write, list, rename and close files on C:",
     PlatformDemo},
};

}  // namespace fmsim
