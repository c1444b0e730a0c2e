// fmctl's commands against the FolderMerge filter on ntsim, run on a service process's connection as
// the tool runs them on Windows: a configuration from text, tracing on and off, a file's dirty
// block map and count, holding the connection, and the failures that stop the command line.
#include "../filter/filter_fixture.hpp"

#include "commands.hpp"

#include <foldermerge/service/simulated_service.hpp>

#include <sstream>
#include <string>
#include <vector>

#include "driver/globals.h"
#include "driver/mergefolders.h"
#include "trace.h"

namespace foldermerge::testing {
namespace {

using service::FilterConnection;
using service::SimulatedService;

struct ToolRun {
    int status = -1;
    std::string output;
};

class FmctlCommands : public LoadedFilter {
protected:
    // Runs the command line on the service's Config port (connected first when connect is set).
    ToolRun Commands(std::vector<std::string> arguments, const std::string& input = "", bool connect = true)
    {
        std::istringstream in(input);
        std::ostringstream out;
        const int status = service_.Run([&](FilterConnection& connection) {
            if (connect && connection.configPort() == nullptr) {
                EXPECT_EQ(connection.ConnectConfigPort(), S_OK);
            }
            return fmctl::RunCommands(connection, arguments, in, out);
        });
        return {status, out.str()};
    }

    SimulatedService service_;
};

const std::string kAliceAndBlacklist =
    "folder S-1-5-21-1-2-3-1001 ro C:\\Data\n"
    "folder S-1-5-21-1-2-3-1002 rw C:\\Shared\n"
    "blacklist tool.exe\n";

TEST_F(FmctlCommands, ConfigureFromTextAndTraceOnReachTheFilterInOrder)
{
    const ToolRun run = Commands({"trace", "on", "configure", "-"}, kAliceAndBlacklist);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "tracing on\nconfigured 2 merge folder(s) and 1 blacklisted process(es)\n");
    EXPECT_EQ(g_MergeFolderCount, 2u);
    EXPECT_EQ(g_PassThrough, 0);
    EXPECT_NE(g_TraceProvider, nullptr);
    ntsim::UnicodeStringHolder sid(kAlice);
    ntsim::UnicodeStringHolder root(u"\\??\\C:\\Data");
    EXPECT_TRUE(IsMergeFolderRoot(sid.get(), root.get()));

    EXPECT_EQ(Commands({"trace", "off"}).status, 0);
    EXPECT_EQ(g_TraceProvider, nullptr);
}

TEST_F(FmctlCommands, AFailedCommandStopsTheLineAndAWrongLineSendsNothing)
{
    ASSERT_EQ(Commands({"configure", "-"}, kAliceAndBlacklist).status, 0);

    const ToolRun unreadable = Commands({"configure", "/no/such/folders.txt", "trace", "on"});
    EXPECT_EQ(unreadable.status, 1);
    EXPECT_EQ(unreadable.output, "configure /no/such/folders.txt: the file can't be read\n");
    EXPECT_EQ(g_TraceProvider, nullptr) << "the commands after the failure don't run";

    const ToolRun malformed = Commands({"configure", "-"}, "folder S-1-5-21-1-2-3-1001 C:\\Data\n");
    EXPECT_EQ(malformed.status, 1);
    EXPECT_EQ(malformed.output, "configure -: line 1: a folder needs a SID, ro or rw, and a path\n");
    EXPECT_EQ(g_MergeFolderCount, 2u) << "the configuration stands";

    // A SID that the message's field can't hold: the library refuses it before anything is sent.
    const ToolRun tooLong = Commands({"configure", "-"}, "folder S-1-5-21-" + std::string(300, '7') + " rw C:\\Data\n");
    EXPECT_EQ(tooLong.status, 1);
    EXPECT_EQ(tooLong.output, "configure -: SetConfiguration failed with 0x80070057\n");
    EXPECT_EQ(g_MergeFolderCount, 2u);

    for (const std::vector<std::string>& line : std::vector<std::vector<std::string>>{
             {}, {"trace"}, {"trace", "maybe", "configure", "-"}, {"configure"}, {"unload"}}) {
        const ToolRun wrong = Commands(line, kAliceAndBlacklist);
        EXPECT_EQ(wrong.status, 2);
        EXPECT_EQ(wrong.output, fmctl::Usage());
    }
    EXPECT_EQ(g_TraceProvider, nullptr);
}

TEST_F(FmctlCommands, MapPrintsTheDirtyBlocksAsRangesAndTakingItClearsThem)
{
    // A file the filter never saw is wholly dirty until its map has been taken once: for 20000
    // bytes a count of 4 whole blocks and one map byte of set bits, handed over in four bytes.
    volume_->SeedFile(u"\\Data\\a.txt", std::string(20000, 'a'));
    const std::string path = "\\Device\\HarddiskVolume2\\Data\\a.txt";
    const ToolRun first = Commands({"count", path, "map", path, "count", path, "map", path});
    EXPECT_EQ(first.status, 0);
    EXPECT_EQ(first.output, "count of " + path + ": 4 dirty block(s); tracking failed\n"
                            "map of " + path + " (4 bytes, now cleared): dirty blocks 0-7; tracking failed: take "
                            "the whole file as changed\n"
                            "count of " + path + ": 0 dirty block(s)\n"
                            "map of " + path + " (4 bytes, now cleared): dirty blocks none\n");

    const ToolRun missing = Commands({"map", "\\Device\\HarddiskVolume2\\Data\\none.txt", "trace", "on"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.output.rfind("map \\Device\\HarddiskVolume2\\Data\\none.txt: ReadDirtyBlockMap failed with 0x", 0),
              0u)
        << missing.output;
    EXPECT_EQ(g_TraceProvider, nullptr) << "the commands after the failure don't run";
}

TEST_F(FmctlCommands, HoldKeepsTheConfigurationUntilALineIsRead)
{
    const ToolRun run = Commands({"configure", "-", "hold"}, kAliceAndBlacklist);
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output.find("holding the connection: press Enter to end it\n"), std::string::npos);
    EXPECT_EQ(g_PassThrough, 0);

    // The tool's end closes the Config port: the filter drops the configuration.
    service_.Leave();
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(g_MergeFolderCount, 0u);
}

TEST_F(FmctlCommands, WithoutAConfigPortTheFirstCommandFailsWithTheLibrarysHresult)
{
    const ToolRun run = Commands({"trace", "on"}, "", false);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "trace on: SetTracingEnabled failed with 0x80070006\n");
}

}  // namespace
}  // namespace foldermerge::testing
