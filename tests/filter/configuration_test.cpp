// The configuration handlers on their own: the blacklist tokenizer, records whose text fills its
// field, and the blacklist when pool runs out.
#include "filter_fixture.hpp"

#include <ntsim/sim/faults.hpp>

#include "driver/globals.h"
#include "driver/mergefolders.h"

namespace foldermerge::testing {
namespace {

// Every token NextBarToken gives for text, up to its first null.
std::vector<std::string> Tokens(std::u16string text)
{
    std::vector<std::string> tokens;
    for (PWSTR token = NextBarToken(reinterpret_cast<PWSTR>(text.data())); token != nullptr;
         token = NextBarToken(nullptr)) {
        tokens.push_back(ntsim::ToUtf8(reinterpret_cast<const char16_t*>(token)));
    }
    // Used up, it stays used up.
    EXPECT_EQ(NextBarToken(nullptr), nullptr);
    return tokens;
}

std::vector<std::string> Blacklist()
{
    std::vector<std::string> names;
    for (OwnedString** entry = g_ProcessBlacklist; entry != nullptr && *entry != nullptr; entry++) {
        names.push_back(ntsim::ToUtf8(**entry));
    }
    return names;
}

using Configuration = LoadedFilter;

TEST_F(Configuration, NextBarTokenSkipsEmptyTokensAndSplitsInPlace)
{
    using Names = std::vector<std::string>;
    EXPECT_EQ(Tokens(u"a||b|"), (Names{"a", "b"}));
    EXPECT_EQ(Tokens(u"|a.exe||b.exe|"), (Names{"a.exe", "b.exe"}));
    EXPECT_EQ(Tokens(u"one"), (Names{"one"}));
    EXPECT_EQ(Tokens(u"|"), Names{});
    EXPECT_EQ(Tokens(u"||"), Names{});
    EXPECT_EQ(Tokens(u""), Names{});

    std::u16string text = u"x|y";
    PWSTR first = NextBarToken(reinterpret_cast<PWSTR>(text.data()));
    EXPECT_EQ(first, reinterpret_cast<PWSTR>(text.data()));
    EXPECT_EQ(text[1], u'\0');
}

TEST_F(Configuration, TextThatFillsItsFieldIsNeverReadPastIt)
{
    // A SID or a path without its zero inside the field drops that folder alone.
    ASSERT_EQ(Configure({{std::u16string(CONFIGURATION_SID_CHARS, u'1'), u"C:\\Data", false},
                         {kAlice, u"C:\\" + std::u16string(CONFIGURATION_PATH_CHARS - 3, u'p'), false},
                         {kBob, u"C:\\" + std::u16string(CONFIGURATION_PATH_CHARS - 4, u'p'), false},
                         {kAlice, u"C:", false},
                         {kAlice, u"Data", false}}),
              STATUS_SUCCESS);
    ASSERT_EQ(g_MergeFolderCount, 2u);
    EXPECT_EQ(ntsim::ToUtf8(*g_MergeFolders[0].pstrSid), ntsim::ToUtf8(kBob));
    EXPECT_EQ(g_MergeFolders[0].pstrDevicePath->Length, (23 + CONFIGURATION_PATH_CHARS - 3) * 2);
    // A drive alone is the volume's root.
    EXPECT_EQ(ntsim::ToUtf8(*g_MergeFolders[1].pstrDevicePath), "\\Device\\HarddiskVolume2");

    // A blacklist that fills its field ends at the field's end, not in the folder block's address.
    std::u16string full(CONFIGURATION_BLACKLIST_CHARS, u'x');
    full[3] = u'|';
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}, full), STATUS_SUCCESS);
    EXPECT_EQ(Blacklist(), (std::vector<std::string>{"xxx", std::string(CONFIGURATION_BLACKLIST_CHARS - 4, 'x')}));
}

TEST_F(Configuration, AMessageWithoutRecordOrFolderBlockIsRefused)
{
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", false}}, u"keep.exe"), STATUS_SUCCESS);
    ClearConfiguration();
    EXPECT_EQ(SetConfiguration(nullptr), STATUS_INVALID_PARAMETER);

    auto message = std::make_unique<SetConfigurationMessage>();
    std::memset(message.get(), 0, sizeof(SetConfigurationMessage));
    message->Code = CONTROL_SET_CONFIGURATION;
    message->ConfigVersion = CONFIGURATION_MIN_VERSION;
    EXPECT_EQ(SetConfiguration(message.get()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(Blacklist(), std::vector<std::string>{"keep.exe"});
}

TEST_F(Configuration, ABlacklistThatRunsOutOfPoolKeepsTheFoldersAndWhatItBuilt)
{
    auto configure = [] { return Configure({{kAlice, u"C:\\Data", true}}, u"a.exe|b.exe"); };
    ntsim::faults::Reset();
    ASSERT_EQ(configure(), STATUS_SUCCESS);
    const uint64_t allocations = ntsim::faults::AllocationsPassed();

    // The last allocation is the last name's.
    ntsim::faults::Reset();
    ntsim::faults::FailNthAllocation(allocations);
    EXPECT_EQ(configure(), STATUS_NO_MEMORY);
    EXPECT_EQ(g_MergeFolderCount, 1u);
    EXPECT_EQ(Blacklist(), std::vector<std::string>{"a.exe"});

    // Before the names comes their array: without it the old list is gone and none replaces it.
    ntsim::faults::Reset();
    ntsim::faults::FailNthAllocation(allocations - 2);
    EXPECT_EQ(configure(), STATUS_NO_MEMORY);
    EXPECT_EQ(g_MergeFolderCount, 1u);
    EXPECT_EQ(g_ProcessBlacklist, nullptr);
    ntsim::faults::Reset();
}

}  // namespace
}  // namespace foldermerge::testing
