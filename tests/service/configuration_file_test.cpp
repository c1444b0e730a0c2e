// A configuration read from text: folder and blacklist lines, what is left out, the errors that name
// their line, and the UTF-8 that becomes the UTF-16 of the configuration message.
#include <gtest/gtest.h>

#include <foldermerge/service/configuration_file.hpp>

#include <string>

namespace foldermerge::service {
namespace {

TEST(ConfigurationFile, FoldersAndBlacklistAreReadWithCommentsBlankLinesAndCarriageReturnsLeftOut)
{
    const std::string text =
        "# two users\r\n"
        "\r\n"
        "folder S-1-5-21-1-2-3-1001 ro C:\\Users\\alice\\My Velmora\r\n"
        "  folder\tS-1-5-21-1-2-3-1002\trw   d:\\bob  \n"
        "blacklist SearchIndexer.exe\n"
        "blacklist backup tool.exe";
    Configuration configuration{.folders = {{u"S-1-1-0", u"C:\\old"}}, .blacklist = {u"old.exe"}};
    std::string error;
    ASSERT_TRUE(ParseConfigurationText(text, &configuration, &error)) << error;
    ASSERT_EQ(configuration.folders.size(), 2u);
    EXPECT_EQ(configuration.folders[0].sid, u"S-1-5-21-1-2-3-1001");
    EXPECT_EQ(configuration.folders[0].path, u"C:\\Users\\alice\\My Velmora");
    EXPECT_TRUE(configuration.folders[0].readOnly);
    EXPECT_EQ(configuration.folders[1].sid, u"S-1-5-21-1-2-3-1002");
    EXPECT_EQ(configuration.folders[1].path, u"d:\\bob");
    EXPECT_FALSE(configuration.folders[1].readOnly);
    EXPECT_EQ(configuration.blacklist, (std::vector<std::u16string>{u"SearchIndexer.exe", u"backup tool.exe"}));
}

TEST(ConfigurationFile, ALineThatIsNoneOfTheKindsIsRefusedByItsNumberAndNothingIsChanged)
{
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"# ok\nfolders S-1 rw C:\\x\n", "line 2: \"folders\" is neither folder nor blacklist"},
        {"folder S-1 rw\n", "line 1: a folder needs a SID, ro or rw, and a path"},
        {"folder S-1 C:\\x\n", "line 1: a folder needs a SID, ro or rw, and a path"},
        {"\n\nfolder S-1 readonly C:\\x\n", "line 3: \"readonly\" is neither ro nor rw"},
        {"folder S-1 ro \\\\server\\share\n", "line 1: \"\\\\server\\share\" is no drive path such as C:\\Data"},
        {"folder S-1 ro C:x\n", "line 1: \"C:x\" is no drive path such as C:\\Data"},
        {"blacklist\n", "line 1: a blacklist line needs a process image name"},
        {"blacklist caf\xC3\n", "line 1: not UTF-8 text"},
    };
    for (const auto& [text, why] : refused) {
        Configuration configuration{.blacklist = {u"kept.exe"}};
        std::string error;
        EXPECT_FALSE(ParseConfigurationText(text, &configuration, &error)) << text;
        EXPECT_EQ(error, why) << text;
        EXPECT_EQ(configuration.blacklist, (std::vector<std::u16string>{u"kept.exe"}));
    }
}

TEST(ConfigurationFile, Utf8BecomesUtf16AndMalformedUtf8IsRefused)
{
    std::u16string converted;
    ASSERT_TRUE(Utf8ToUtf16("C:\\Jos\xC3\xA9\\\xE2\x82\xAC\\\xF0\x9F\x93\x81", &converted));
    EXPECT_EQ(converted, u"C:\\Jos\u00e9\\\u20ac\\\U0001F4C1");
    EXPECT_EQ(converted.size(), 12u) << "the folder sign takes a surrogate pair";

    for (const std::string bad : {"\xC0\xAF",            // overlong '/'
                                  "\xE0\x80\xAF",        // overlong again
                                  "\xED\xA0\x80",        // a surrogate
                                  "\xF4\x90\x80\x80",    // past the last plane
                                  "\xE2\x82",            // cut short
                                  "\x80",                // a continuation without a lead
                                  "\xC3\x28"}) {         // a lead without its continuation
        EXPECT_FALSE(Utf8ToUtf16(bad, &converted)) << testing::PrintToString(bad);
    }
}

TEST(ConfigurationFile, FormattedTextReadsBackAsTheConfigurationItWas)
{
    const Configuration configuration{
        .folders = {{u"S-1-5-21-1-2-3-1001", u"C:\\Users\\Jos\u00e9\\\U0001F4C1 Velmora", true},
                    {u"S-1-5-21-1-2-3-1002", u"E:\\b", false}},
        .blacklist = {u"SearchIndexer.exe", u"backup tool.exe"}};
    const std::string text = FormatConfigurationText(configuration);
    EXPECT_EQ(text.substr(0, 38), "folder S-1-5-21-1-2-3-1001 ro C:\\Users");
    Configuration readBack;
    std::string error;
    ASSERT_TRUE(ParseConfigurationText(text, &readBack, &error)) << error;
    ASSERT_EQ(readBack.folders.size(), 2u);
    for (size_t index = 0; index < 2; index++) {
        EXPECT_EQ(readBack.folders[index].sid, configuration.folders[index].sid);
        EXPECT_EQ(readBack.folders[index].path, configuration.folders[index].path);
        EXPECT_EQ(readBack.folders[index].readOnly, configuration.folders[index].readOnly);
    }
    EXPECT_EQ(readBack.blacklist, configuration.blacklist);
    EXPECT_EQ(Utf16ToUtf8(u"a\xD800" u"b"), "a\xEF\xBF\xBD" "b") << "a lone surrogate";
}

}  // namespace
}  // namespace foldermerge::service
