// The open gate as its traces show it: an open of each class, through the whole I/O path, writes
// exactly its lines from FolderMerge_PreCreate, and an open that the gate lets by unmanaged writes
// none.
#include "trace_fixture.hpp"

#include <ntsim/sim/process.hpp>

namespace foldermerge::testing {
namespace {

constexpr char kApp[] = "\\Device\\HarddiskVolume2\\Apps\\app.exe";
constexpr char kBackup[] = "\\Device\\HarddiskVolume2\\Tools\\backup.exe";

class GateTraces : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedDirectory(u"\\Empty");
        volume_->SeedFile(u"\\Shared\\c.txt", "bob's file");
        volume_->SeedFile(u"\\Other\\d.txt", "d");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true}, {kAlice, u"C:\\Empty"}, {kBob, u"C:\\Shared"}},
                            u"backup.exe"),
                  STATUS_SUCCESS);
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
        alice_ = UserProcess(kAlice);
        aliceBackup_ = UserProcess(kAlice, u"\\Device\\HarddiskVolume2\\Tools\\backup.exe");
    }

    // Opens path as process and returns the gate's lines that the open wrote.
    std::vector<std::string> GateLinesOf(const std::shared_ptr<ntsim::Process>& process, std::u16string_view path,
                                         ACCESS_MASK access, const OpenOptions& options = {},
                                         NTSTATUS expected = STATUS_SUCCESS)
    {
        ntsim::AttachThread attach(process);
        EXPECT_EQ(OpenAndClose(path, access, options).status, expected) << ntsim::ToUtf8(path);
        return PreCreateLines();
    }

    // The lines that FolderMerge_PreCreate wrote since the last call.
    std::vector<std::string> PreCreateLines()
    {
        std::vector<std::string> lines;
        for (const TraceEvent& event : TakeEvents()) {
            if (event.function == "FolderMerge_PreCreate") {
                EXPECT_EQ(event.id, 101) << "the gate traces at info level: " << event.message;
                lines.push_back(event.message);
            }
        }
        return lines;
    }

    using Lines = std::vector<std::string>;
    std::shared_ptr<ntsim::Process> alice_, aliceBackup_;
};

TEST_F(GateTraces, AnOpenInTheCallersOwnFolderIsNamedWithItsSid)
{
    EXPECT_EQ(GateLinesOf(alice_, u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA),
              (Lines{"Normalized requested Path is [\\Device\\HarddiskVolume2\\Data\\a.txt] and the user SID is "
                     "[S-1-5-21-1-2-3-1001]"}));
}

TEST_F(GateTraces, AnOpenInAnotherUsersFolderTakesTheOwnersSid)
{
    EXPECT_EQ(GateLinesOf(alice_, u"\\??\\C:\\Shared\\c.txt", FILE_READ_DATA),
              (Lines{std::string("Permitting access to [\\Device\\HarddiskVolume2\\Shared\\c.txt] to local content "
                                 "only for non-blacklisted process [") +
                         kApp + "]",
                     "Normalized requested Path is [\\Device\\HarddiskVolume2\\Shared\\c.txt] and the user SID is "
                     "[S-1-5-21-1-2-3-1002]"}));
    EXPECT_EQ(GateLinesOf(aliceBackup_, u"\\??\\C:\\Shared\\c.txt", FILE_READ_DATA), Lines{})
        << "a blacklisted process passes another user's folder without a trace";
}

TEST_F(GateTraces, ABlacklistedProcessIsIgnoredInItsOwnFolder)
{
    EXPECT_EQ(GateLinesOf(aliceBackup_, u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA),
              (Lines{std::string("Ignoring blacklisted process [") + kBackup + "]"}));
}

TEST_F(GateTraces, AnOpenOutsideEveryMergeFolderLeavesNoTrace)
{
    EXPECT_EQ(GateLinesOf(alice_, u"\\??\\C:\\Other\\d.txt", FILE_READ_DATA | FILE_WRITE_DATA), Lines{});
}

TEST_F(GateTraces, RefusedOpensSayWhy)
{
    EXPECT_EQ(GateLinesOf(alice_, u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE},
                          STATUS_ACCESS_DENIED),
              (Lines{"Normalized requested Path is [\\Device\\HarddiskVolume2\\Data] and the user SID is "
                     "[S-1-5-21-1-2-3-1001]",
                     "[EXIT] [\\Device\\HarddiskVolume2\\Data] is readonly and the desired access is write. "
                     "Returning STATUS_ACCESS_DENIED"}));
    // The deletion of a merge folder is refused without a trace of its own.
    EXPECT_EQ(GateLinesOf(alice_, u"\\??\\C:\\Empty", DELETE,
                          {.createOptions = FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE}, STATUS_ACCESS_DENIED),
              (Lines{"Normalized requested Path is [\\Device\\HarddiskVolume2\\Empty] and the user SID is "
                     "[S-1-5-21-1-2-3-1001]"}));
}

TEST_F(GateTraces, StreamsAndKernelModeOpensLeaveTheGateWithTheirOwnLines)
{
    EXPECT_EQ(GateLinesOf(alice_, u"\\??\\C:\\Data\\a.txt:notes", FILE_READ_DATA | FILE_WRITE_DATA,
                          {.disposition = FILE_OPEN_IF}),
              (Lines{"Normalized requested Path is [\\Device\\HarddiskVolume2\\Data\\a.txt:notes] and the user SID "
                     "is [S-1-5-21-1-2-3-1001]",
                     "[EXIT] Requested path [\\Device\\HarddiskVolume2\\Data\\a.txt:notes] is ADS, ignoring"}));

    ntsim::AttachThread attach(alice_);
    ntsim::ScopedPreviousMode kernel(KernelMode);
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data\\a.txt", FILE_READ_ATTRIBUTES).status, STATUS_SUCCESS);
    EXPECT_EQ(PreCreateLines(), (Lines{"[EXIT] Previous mode is KernelMode"}));
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data\\a.txt", FILE_READ_DATA).status, STATUS_SUCCESS);
    EXPECT_EQ(PreCreateLines(),
              (Lines{"Previous mode is KernelMode but access requires download",
                     "Normalized requested Path is [\\Device\\HarddiskVolume2\\Data\\a.txt] and the user SID is "
                     "[S-1-5-21-1-2-3-1001]"}));
}

}  // namespace
}  // namespace foldermerge::testing
