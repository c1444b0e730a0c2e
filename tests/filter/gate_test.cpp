// Opens of simulated users and processes through the whole I/O path, judged by the open gate.
//
// Until the service requests exist, the gate's verdicts that a caller can see are its refusals (a
// write to a read-only merge folder, the deletion of a merge folder) and the opens it lets reach
// the file system; every test here asserts which of the two a caller met, and what the volume
// holds afterwards.
#include "filter_fixture.hpp"

#include <ntsim/sim/object.hpp>

namespace foldermerge::testing {
namespace {

class OpenGate : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "alice's file");
        volume_->SeedFile(u"\\Data\\Sub\\b.txt", "b");
        volume_->SeedDirectory(u"\\Empty");
        volume_->SeedFile(u"\\Shared\\c.txt", "bob's file");
        volume_->SeedDirectory(u"\\Projects\\Inner");
        volume_->SeedDirectory(u"\\LongFolderName");
        volume_->SeedFile(u"\\Other\\d.txt", "d");
        ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true},
                             {kAlice, u"C:\\Empty", false},
                             {kAlice, u"C:\\LongFolderName", true},
                             {kBob, u"C:\\Shared", false},
                             {kBob, u"C:\\Projects\\Inner", true}},
                            u"backup.exe|Indexer.EXE"),
                  STATUS_SUCCESS);
    }

    NTSTATUS OpenAs(const std::shared_ptr<ntsim::Process>& process, std::u16string_view path, ACCESS_MASK access,
                    const OpenOptions& options = {})
    {
        ntsim::AttachThread thread(process);
        return OpenAndClose(path, access, options).status;
    }

    static constexpr OpenOptions kDirectory{.createOptions = FILE_DIRECTORY_FILE};
    static constexpr OpenOptions kDeleteDirectory{.createOptions = FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE};
};

TEST_F(OpenGate, AReadOnlyMergeFolderRefusesWritesToItsOwnPathOnly)
{
    auto alice = UserProcess(kAlice);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenAs(alice, u"\\??\\c:\\DATA", FILE_ADD_FILE, kDirectory), STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data", FILE_APPEND_DATA, kDirectory), STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data", FILE_WRITE_EA, kDirectory), STATUS_ACCESS_DENIED);
    // An open of dir\* is an open of dir.
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data\\*", FILE_WRITE_ATTRIBUTES), STATUS_ACCESS_DENIED);

    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data", FILE_LIST_DIRECTORY | FILE_READ_ATTRIBUTES | DELETE | READ_CONTROL,
                     kDirectory),
              STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data\\a.txt", FILE_WRITE_DATA), STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data\\Sub", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Empty", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_SUCCESS);
}

TEST_F(OpenGate, ARelativeOpenIsJudgedByItsWholePath)
{
    auto bob = UserProcess(kBob);
    ntsim::AttachThread thread(bob);
    HANDLE directory = nullptr;
    ASSERT_EQ(OpenHandle(u"\\??\\C:\\Projects", FILE_LIST_DIRECTORY, kDirectory, &directory).status, STATUS_SUCCESS);
    // \Projects + \ + Inner: the folder's own path, read-only for bob.
    EXPECT_EQ(OpenAndClose(u"Inner", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE, .root = directory})
                  .status,
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(
        OpenAndClose(u"Inner", FILE_READ_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE, .root = directory}).status,
        STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(directory), STATUS_SUCCESS);
}

TEST_F(OpenGate, AnotherUsersMergeFolderIsNeverReadOnlyForHim)
{
    auto bob = UserProcess(kBob);
    auto alice = UserProcess(kAlice);
    EXPECT_EQ(OpenAs(bob, u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Projects\\Inner", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(bob, u"\\??\\C:\\Projects\\Inner", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_ACCESS_DENIED);
}

TEST_F(OpenGate, TheImpersonatedUserIsTheOneWhoseFoldersCount)
{
    auto bob = UserProcess(kBob);
    ntsim::AttachThread thread(bob);
    ntsim::ScopedImpersonation impersonation(ntsim::CreateToken(kAlice, TokenImpersonation));
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory).status, STATUS_ACCESS_DENIED);
}

TEST_F(OpenGate, ABlacklistedProcessIsLeftAloneByItsFileName)
{
    EXPECT_EQ(OpenAs(UserProcess(kAlice, u"\\Device\\HarddiskVolume2\\Tools\\BACKUP.exe"), u"\\??\\C:\\Data",
                     FILE_WRITE_ATTRIBUTES, kDirectory),
              STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(UserProcess(kAlice, u"\\Device\\HarddiskVolume2\\Tools\\backup"), u"\\??\\C:\\Data",
                     FILE_WRITE_ATTRIBUTES, kDirectory),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenAs(UserProcess(kAlice, u"\\Device\\HarddiskVolume2\\backup.exe\\app.exe"), u"\\??\\C:\\Data",
                     FILE_WRITE_ATTRIBUTES, kDirectory),
              STATUS_ACCESS_DENIED);
    // An image name too long for the gate's 260 bytes can't be tested: the process is managed.
    auto deep = UserProcess(kAlice, u"\\Device\\HarddiskVolume2\\" + std::u16string(120, u'd') + u"\\backup.exe");
    EXPECT_EQ(OpenAs(deep, u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_ACCESS_DENIED);
}

TEST_F(OpenGate, AMergeFolderCanBeDeletedOnlyByAProcessTheGateLeavesAlone)
{
    auto alice = UserProcess(kAlice);
    auto bob = UserProcess(kBob);
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Empty", DELETE, kDeleteDirectory), STATUS_ACCESS_DENIED);
    EXPECT_EQ(OpenAs(bob, u"\\??\\C:\\Empty", DELETE, kDeleteDirectory), STATUS_ACCESS_DENIED);
    {
        // Kernel-mode deletion by the System process: DELETE touches content, and the folder's
        // owner is who counts.
        ntsim::UnicodeStringHolder name(u"\\??\\C:\\Empty");
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr,
                                   nullptr);
        EXPECT_EQ(ZwDeleteFile(&attributes), STATUS_ACCESS_DENIED);
    }
    EXPECT_TRUE(volume_->Exists(u"\\Empty"));

    // Below the folder, files go as usual; and so does the folder for a blacklisted process.
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data\\a.txt", DELETE, {.createOptions = FILE_DELETE_ON_CLOSE}),
              STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\Data\\a.txt"));
    EXPECT_EQ(OpenAs(UserProcess(kBob, u"\\Device\\HarddiskVolume2\\Search\\indexer.exe"), u"\\??\\C:\\Empty",
                     DELETE, kDeleteDirectory),
              STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\Empty"));
}

TEST_F(OpenGate, AKernelModeOpenCountsOnlyWhenItTouchesContent)
{
    auto alice = UserProcess(kAlice);
    {
        ntsim::AttachThread thread(alice, {.previousMode = KernelMode});
        // FILE_APPEND_DATA writes but touches no content: the open passes before any lookup.
        EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_APPEND_DATA, kDirectory).status, STATUS_SUCCESS);
        EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_READ_ATTRIBUTES | FILE_WRITE_ATTRIBUTES, kDirectory).status,
                  STATUS_ACCESS_DENIED);
    }
    EXPECT_EQ(OpenAs(alice, u"\\??\\C:\\Data", FILE_APPEND_DATA, kDirectory), STATUS_ACCESS_DENIED);
}

TEST_F(OpenGate, AShortNameIsJudgedByItsLongForm)
{
    std::u16string shortName = volume_->ShortName(u"\\LongFolderName");
    ASSERT_FALSE(shortName.empty());
    EXPECT_EQ(OpenAs(UserProcess(kAlice), u"\\??\\C:\\" + shortName, FILE_WRITE_ATTRIBUTES, kDirectory),
              STATUS_ACCESS_DENIED);
    // A new file with a '~' in its name has no long form to find: it is judged as it is.
    EXPECT_EQ(OpenAs(UserProcess(kAlice), u"\\??\\C:\\Data\\new~1.txt", FILE_WRITE_DATA,
                     {.disposition = FILE_CREATE}),
              STATUS_SUCCESS);
    EXPECT_TRUE(volume_->Exists(u"\\Data\\new~1.txt"));
}

TEST_F(OpenGate, StreamsOfManagedFilesReachTheFileSystem)
{
    auto alice = UserProcess(kAlice);
    ntsim::AttachThread thread(alice);
    HANDLE handle = nullptr;
    ASSERT_EQ(OpenHandle(u"\\??\\C:\\Data\\a.txt:notes", FILE_WRITE_DATA,
                         {.disposition = FILE_OPEN_IF, .createOptions = FILE_SYNCHRONOUS_IO_NONALERT, .share = 0},
                         &handle)
                  .status,
              STATUS_SUCCESS);
    IO_STATUS_BLOCK ioStatus{};
    char text[] = "note";
    EXPECT_EQ(NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, text, 4, nullptr, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(volume_->Content(u"\\Data\\a.txt:notes"), "note");
}

TEST_F(OpenGate, AnEmptyTableManagesNothing)
{
    ClearConfiguration();
    EXPECT_EQ(OpenAs(UserProcess(kAlice), u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, kDirectory), STATUS_SUCCESS);
    EXPECT_EQ(OpenAs(UserProcess(kAlice), u"\\??\\C:\\Empty", DELETE, kDeleteDirectory), STATUS_SUCCESS);
    EXPECT_FALSE(volume_->Exists(u"\\Empty"));
}

// A share on another machine, reached through a drive mapped onto the MUP device.
class RemoteGate : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        mup_ = ntsim::CreateNtfsVolume(u"\\Device\\Mup");
        ASSERT_EQ(ntsim::MountVolume(mup_), STATUS_SUCCESS);
        mup_->SeedDirectory(u"\\fileserver\\share\\Docs");
        mup_->SeedDirectory(u"\\127.0.0.1\\C$\\Docs");
        ASSERT_EQ(Configure({{kAlice, u"Z:\\Docs", true}, {kAlice, u"L:\\Docs", true}}), STATUS_SUCCESS);
    }

    void TearDown() override
    {
        EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\Mup"), STATUS_SUCCESS);
        LoadedFilter::TearDown();
    }

    std::shared_ptr<ntsim::MemoryVolume> mup_;
    ntsim::ob::SymbolicLink remote_ =
        ntsim::ob::CreateSymbolicLink(u"\\??\\Z:", u"\\Device\\Mup\\fileserver\\share");
    ntsim::ob::SymbolicLink loopback_ = ntsim::ob::CreateSymbolicLink(u"\\??\\L:", u"\\Device\\Mup\\127.0.0.1\\C$");
};

TEST_F(RemoteGate, APathToAnotherMachinePassesBeforeAnyLookup)
{
    auto alice = UserProcess(kAlice);
    ntsim::AttachThread thread(alice);
    EXPECT_EQ(OpenAndClose(u"\\??\\Z:\\Docs", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status,
              STATUS_SUCCESS);
    EXPECT_EQ(OpenAndClose(u"\\Device\\Mup\\FILESERVER\\share\\Docs", FILE_WRITE_ATTRIBUTES,
                           {.createOptions = FILE_DIRECTORY_FILE})
                  .status,
              STATUS_SUCCESS);
    // The loopback share is the local machine, and isn't judged as a remote path or as a local one.
    EXPECT_EQ(OpenAndClose(u"\\??\\L:\\Docs", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status,
              STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
