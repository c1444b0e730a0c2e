// The merge folder table, its lookups and the blacklist, filled the way the service fills them.
#include "filter_fixture.hpp"

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/object.hpp>

#include "driver/globals.h"
#include "driver/mergefolders.h"

namespace foldermerge::testing {
namespace {

class MergeFolderTable : public LoadedFilter {
protected:
    static bool Managed(std::u16string_view sid, std::u16string_view path, UCHAR* pbReadOnly)
    {
        ntsim::UnicodeStringHolder sidText(sid);
        ntsim::UnicodeStringHolder pathText(path);
        *pbReadOnly = 0xCC;
        return IsManagedPath(sidText.get(), pathText.get(), pbReadOnly);
    }

    static bool Root(std::u16string_view sid, std::u16string_view path)
    {
        ntsim::UnicodeStringHolder sidText(sid);
        ntsim::UnicodeStringHolder pathText(path);
        return IsMergeFolderRoot(sidText.get(), pathText.get());
    }

    static std::string Owner(std::u16string_view path)
    {
        ntsim::UnicodeStringHolder pathText(path);
        OwnedString* pstrOwner = FindMergeFolderOwner(pathText.get());
        std::string owner = pstrOwner != nullptr ? ntsim::ToUtf8(*pstrOwner) : "<none>";
        FreeUnicodeString(&pstrOwner);
        return owner;
    }

    static bool Blacklisted(std::u16string_view image)
    {
        ntsim::UnicodeStringHolder imageText(image);
        return IsProcessBlacklisted(imageText.get());
    }
};

TEST_F(MergeFolderTable, APathIsManagedAtAndBelowAFolderOfItsUser)
{
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true}}), STATUS_SUCCESS);
    UCHAR bReadOnly;
    EXPECT_TRUE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data", &bReadOnly));
    EXPECT_EQ(bReadOnly, 1);
    EXPECT_TRUE(Managed(kAlice, u"\\device\\harddiskvolume2\\DATA", &bReadOnly));
    EXPECT_EQ(bReadOnly, 1);
    EXPECT_TRUE(Managed(kAlice, u"\\??\\C:\\Data", &bReadOnly));
    EXPECT_EQ(bReadOnly, 1);
    EXPECT_TRUE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data\\Sub\\x.txt", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);
    EXPECT_TRUE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data\\", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);
    EXPECT_TRUE(Managed(kAlice, u"\\??\\C:\\Data\\x", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);

    EXPECT_FALSE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Database", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);
    EXPECT_FALSE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Dat", &bReadOnly));
    EXPECT_FALSE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data:stream", &bReadOnly));
    EXPECT_FALSE(Managed(kBob, u"\\Device\\HarddiskVolume2\\Data", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);
}

TEST_F(MergeFolderTable, TheFirstMatchingRowDecides)
{
    ASSERT_EQ(Configure({{kBob, u"C:\\Data", false},
                         {kAlice, u"C:\\Data", true},
                         {kAlice, u"C:\\Data", false},
                         {kAlice, u"C:\\Data\\Inner", true}}),
              STATUS_SUCCESS);
    UCHAR bReadOnly;
    EXPECT_TRUE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data", &bReadOnly));
    EXPECT_EQ(bReadOnly, 1);
    // \Data\Inner lies below alice's first row, which decides before the row of Inner is reached.
    EXPECT_TRUE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data\\Inner", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Data\\a.txt"), "S-1-5-21-1-2-3-1002");
    EXPECT_EQ(Owner(u"\\??\\C:\\Data"), "S-1-5-21-1-2-3-1002");
}

TEST_F(MergeFolderTable, ARootIsTheExactPathOfAFolderOfThatUser)
{
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}), STATUS_SUCCESS);
    EXPECT_TRUE(Root(kAlice, u"\\Device\\HarddiskVolume2\\data"));
    EXPECT_TRUE(Root(kAlice, u"\\??\\C:\\Data"));
    EXPECT_FALSE(Root(kAlice, u"\\Device\\HarddiskVolume2\\Data\\a.txt"));
    EXPECT_FALSE(Root(kBob, u"\\Device\\HarddiskVolume2\\Data"));
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Other"), "<none>");
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Database"), "<none>");
}

TEST_F(MergeFolderTable, AnEmptyTableAnswersNoToEverything)
{
    UCHAR bReadOnly;
    EXPECT_FALSE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Data", &bReadOnly));
    EXPECT_EQ(bReadOnly, 0);
    EXPECT_FALSE(Root(kAlice, u"\\Device\\HarddiskVolume2\\Data"));
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Data"), "<none>");
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\a.exe"));
}

TEST_F(MergeFolderTable, AConfigurationReplacesTheTableWholeAndDropsFoldersItCannotSet)
{
    // The second folder is on a drive without a link: the others keep compact rows.
    ASSERT_EQ(Configure({{kAlice, u"C:\\One", false}, {kAlice, u"X:\\Two", false}, {kBob, u"C:\\Three", false}}),
              STATUS_SUCCESS);
    EXPECT_EQ(g_MergeFolderCount, 2u);
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Three"), "S-1-5-21-1-2-3-1002");
    ASSERT_NE(g_MergeFolders[1].pstrDevicePath, nullptr);
    EXPECT_EQ(ntsim::ToUtf8(*g_MergeFolders[1].pstrDevicePath), "\\Device\\HarddiskVolume2\\Three");
    EXPECT_EQ(ntsim::ToUtf8(*g_MergeFolders[1].pstrLinkPath), "\\??\\C:\\Three");

    std::vector<Folder> fifty(50, Folder{kAlice, u"C:\\Many", false});
    EXPECT_EQ(Configure(fifty), STATUS_SUCCESS);
    EXPECT_EQ(g_MergeFolderCount, 50u);

    std::vector<Folder> fiftyOne(51, Folder{kAlice, u"C:\\Many", false});
    EXPECT_EQ(Configure(fiftyOne), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Many"), "<none>");

    EXPECT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u"", 3), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u"", 5), STATUS_SUCCESS);
    EXPECT_EQ(g_MergeFolderCount, 1u);
}

TEST_F(MergeFolderTable, TheBlacklistMatchesTheImageFileNameWithoutRegardToCase)
{
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u"|a.exe||Tool.EXE|"), STATUS_SUCCESS);
    EXPECT_TRUE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\A.EXE"));
    EXPECT_TRUE(Blacklisted(u"\\Device\\HarddiskVolume2\\tool.exe"));
    EXPECT_TRUE(Blacklisted(u"a.exe"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\a.exe\\b.exe"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\xa.exe"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\a"));

    // A configuration without folders leaves the blacklist as it was; one with folders replaces it.
    ASSERT_EQ(Configure({}, u"other.exe"), STATUS_SUCCESS);
    EXPECT_TRUE(Blacklisted(u"\\a.exe"));
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u"other.exe"), STATUS_SUCCESS);
    EXPECT_FALSE(Blacklisted(u"\\a.exe"));
    EXPECT_TRUE(Blacklisted(u"\\OTHER.exe"));
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u""), STATUS_SUCCESS);
    EXPECT_FALSE(Blacklisted(u"\\other.exe"));
}

TEST_F(MergeFolderTable, EveryCharacterOfAFolderAndASidFoldsCaseTheLastOneToo)
{
    // The last characters differ in case only, in ASCII and beyond it (e-acute, y-diaeresis).
    ASSERT_EQ(Configure({{u"S-1-5-21-1-2-3-1001", u"C:\\Data", true},
                         {kBob, u"C:\\Caf\u00e9", false},
                         {kBob, u"C:\\Stra\u00ff", false}}),
              STATUS_SUCCESS);
    UCHAR bReadOnly;
    EXPECT_TRUE(Managed(u"s-1-5-21-1-2-3-1001", u"\\Device\\HarddiskVolume2\\datA", &bReadOnly));
    EXPECT_EQ(bReadOnly, 1);
    EXPECT_TRUE(Root(u"s-1-5-21-1-2-3-1001", u"\\??\\c:\\DATA"));
    EXPECT_TRUE(Managed(kBob, u"\\Device\\HarddiskVolume2\\CAF\u00c9\\x", &bReadOnly));
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\caf\u00c9"), "S-1-5-21-1-2-3-1002");
    EXPECT_EQ(Owner(u"\\??\\C:\\STRA\u0178\\y"), "S-1-5-21-1-2-3-1002");
    // The same length and last character are not enough: every character counts.
    EXPECT_FALSE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Dita", &bReadOnly));
    EXPECT_FALSE(Managed(u"S-1-5-21-1-9-3-1001", u"\\Device\\HarddiskVolume2\\Data", &bReadOnly));
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Cof\u00e9\\x"), "<none>");
}

TEST_F(MergeFolderTable, ALinkFormPrefixThatEndsInsideANameDecidesItsRowAlone)
{
    // The folder L: has the link form \??\L: and, through the link, the device form \??\L:x.
    // \??\L:x\file lies below the device form, but the link form is a prefix of it first, one
    // that ends inside the name L:x: the row is passed by without its device form being tried.
    ntsim::ob::SymbolicLink drive = ntsim::ob::CreateSymbolicLink(u"\\??\\L:", u"\\??\\L:x");
    ASSERT_EQ(Configure({{kAlice, u"L:", false}}), STATUS_SUCCESS);
    ASSERT_EQ(g_MergeFolderCount, 1u);
    ASSERT_EQ(ntsim::ToUtf8(*g_MergeFolders[0].pstrDevicePath), "\\??\\L:x");
    UCHAR bReadOnly;
    EXPECT_FALSE(Managed(kAlice, u"\\??\\L:x\\file", &bReadOnly));
    EXPECT_EQ(Owner(u"\\??\\L:x\\file"), "<none>");
    // The device form itself is the folder, and a path below the link form lies below it.
    EXPECT_TRUE(Managed(kAlice, u"\\??\\L:x", &bReadOnly));
    EXPECT_TRUE(Root(kAlice, u"\\??\\L:X"));
    EXPECT_EQ(Owner(u"\\??\\L:\\file"), "S-1-5-21-1-2-3-1001");
}

TEST_F(MergeFolderTable, ABlacklistEntryMatchesTheWholeFileNameOnly)
{
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u"a|tool"), STATUS_SUCCESS);
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\A.EXE"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\ab"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\tool.exe"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\a\\b.exe"));
    EXPECT_TRUE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\A"));
    EXPECT_TRUE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\TOOL"));
    EXPECT_FALSE(Blacklisted(u"\\Device\\HarddiskVolume2\\Apps\\"));
}

TEST_F(MergeFolderTable, ConfigurationSurvivesEveryFailedAllocationWithoutLeaks)
{
    for (uint64_t point = 1;; point++) {
        ntsim::faults::Reset();
        ntsim::faults::FailNthAllocation(point);
        NTSTATUS status = Configure({{kAlice, u"C:\\Data", true}, {kBob, u"C:\\Shared", false}}, u"a.exe|b.exe");
        bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        UCHAR bReadOnly;
        if (!injected) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_TRUE(Managed(kBob, u"\\Device\\HarddiskVolume2\\Shared\\x", &bReadOnly));
            EXPECT_TRUE(Blacklisted(u"\\b.exe"));
            break;
        }
        // Whatever failed, every row that is there is complete and answers lookups.
        for (ULONG row = 0; row < g_MergeFolderCount; row++) {
            EXPECT_NE(g_MergeFolders[row].pstrSid, nullptr) << "allocation " << point;
            EXPECT_NE(g_MergeFolders[row].pstrLinkPath, nullptr) << "allocation " << point;
            EXPECT_NE(g_MergeFolders[row].pstrDevicePath, nullptr) << "allocation " << point;
        }
    }
}

TEST_F(MergeFolderTable, EveryRowThatAFailedConfigurationLeavesIsFound)
{
    const std::vector<Folder> folders = {{kAlice, u"C:\\Data", true}, {kBob, u"C:\\Shared", false},
                                         {kAlice, u"C:\\Deep\\Inner\\Most", false}};
    for (uint64_t point = 1;; point++) {
        ntsim::faults::Reset();
        ntsim::faults::FailNthAllocation(point);
        NTSTATUS status = Configure(folders, u"a.exe");
        bool injected = ntsim::faults::FailuresInjected() != 0;
        ntsim::faults::Reset();
        // The rows that were set, whatever failed after them, answer every lookup.
        for (ULONG row = 0; row < g_MergeFolderCount; row++) {
            const std::u16string device(g_MergeFolders[row].pstrDevicePath->Buffer,
                                        g_MergeFolders[row].pstrDevicePath->Buffer +
                                            g_MergeFolders[row].pstrDevicePath->Length / sizeof(WCHAR));
            const std::u16string sid(g_MergeFolders[row].pstrSid->Buffer,
                                     g_MergeFolders[row].pstrSid->Buffer +
                                         g_MergeFolders[row].pstrSid->Length / sizeof(WCHAR));
            UCHAR bReadOnly;
            EXPECT_TRUE(Managed(sid, device + u"\\x", &bReadOnly)) << "allocation " << point << ", row " << row;
            EXPECT_TRUE(Root(sid, device)) << "allocation " << point << ", row " << row;
            EXPECT_NE(Owner(device), "<none>") << "allocation " << point << ", row " << row;
        }
        if (!injected) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_EQ(g_MergeFolderCount, 3u);
            break;
        }
    }
    // And once the table is cleared, nothing is.
    ClearConfiguration();
    UCHAR bReadOnly;
    EXPECT_FALSE(Managed(kAlice, u"\\Device\\HarddiskVolume2\\Deep\\Inner\\Most", &bReadOnly));
    EXPECT_EQ(Owner(u"\\Device\\HarddiskVolume2\\Shared"), "<none>");
}

TEST_F(MergeFolderTable, TheVolumeInstanceIsFoundFromADevicePath)
{
    ntsim::UnicodeStringHolder local(u"\\Device\\HarddiskVolume2\\Data\\a.txt");
    PFLT_INSTANCE pInstance = nullptr;
    ASSERT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, local.get(), &pInstance), STATUS_SUCCESS);
    ASSERT_NE(pInstance, nullptr);
    FltObjectDereference(pInstance);

    // \Device\ is matched with regard to case, and a path needs a volume and something on it.
    for (std::u16string_view bad : {u"\\device\\HarddiskVolume2\\x", u"\\Device\\HarddiskVolume2", u"Device\\a\\b",
                                    u"\\", u"\\??\\C:\\Data"}) {
        ntsim::UnicodeStringHolder path(bad);
        pInstance = nullptr;
        EXPECT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, path.get(), &pInstance),
                  STATUS_OBJECT_PATH_INVALID)
            << ntsim::ToUtf8(bad);
        EXPECT_EQ(pInstance, nullptr);
    }

    // The volume of \Device\Mup\127.0.0.1\share\file is \Device\Mup.
    auto mupVolume = ntsim::CreateNtfsVolume(u"\\Device\\Mup");
    ASSERT_EQ(ntsim::MountVolume(mupVolume), STATUS_SUCCESS);
    ntsim::UnicodeStringHolder mup(u"\\Device\\Mup\\127.0.0.1\\share\\file");
    PFLT_INSTANCE pMupInstance = nullptr;
    ASSERT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, mup.get(), &pMupInstance), STATUS_SUCCESS);
    ASSERT_EQ(GetVolumeInstanceForPath(g_ServiceData.FilterHandle, local.get(), &pInstance), STATUS_SUCCESS);
    EXPECT_NE(pMupInstance, pInstance);
    FltObjectDereference(pMupInstance);
    FltObjectDereference(pInstance);
    EXPECT_EQ(ntsim::DismountVolume(u"\\Device\\Mup"), STATUS_SUCCESS);
}

}  // namespace
}  // namespace foldermerge::testing
