// UTF-8 <-> UTF-16 conversions and the UNICODE_STRING owner that tests build on.
#include <wdm.h>

#include <ntsim/sim/text.hpp>

#include <gtest/gtest.h>

using ntsim::ToUtf16;
using ntsim::ToUtf8;
using ntsim::UnicodeStringHolder;

TEST(TextConversion, RoundTripsEveryPlaneThroughSurrogatePairs)
{
    const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // a, U+00E9, U+20AC, U+1F600
    const std::u16string utf16 = ToUtf16(utf8);
    EXPECT_EQ(utf16, (std::u16string{u'a', 0xE9, 0x20AC, 0xD83D, 0xDE00}));
    EXPECT_EQ(ToUtf8(utf16), utf8);
    EXPECT_EQ(ToUtf8(static_cast<PCWSTR>(nullptr)), "");
}

TEST(TextConversion, MalformedInputBecomesTheReplacementCharacter)
{
    EXPECT_EQ(ToUtf8(std::u16string{u'a', 0xD800, u'b'}), "a\xEF\xBF\xBD" "b");  // lone high surrogate
    EXPECT_EQ(ToUtf8(std::u16string{0xDC00}), "\xEF\xBF\xBD");                  // lone low surrogate
    EXPECT_EQ(ToUtf16("a\xFF" "b"), (std::u16string{u'a', 0xFFFD, u'b'}));       // invalid byte
    EXPECT_EQ(ToUtf16("\xC0\xAF"), (std::u16string{0xFFFD}));                    // overlong '/'
    EXPECT_EQ(ToUtf16("\xE2\x82"), (std::u16string{0xFFFD}));                    // cut short
    EXPECT_EQ(ToUtf16("\xED\xA0\x80"), (std::u16string{0xFFFD}));                // encoded surrogate
}

TEST(UnicodeStringHolder, DescribesItsTextAndCapacityInBytes)
{
    UnicodeStringHolder text("\\dir");
    EXPECT_EQ(text->MaximumLength, 8);

    UnicodeStringHolder roomy(u"ab", 10);
    EXPECT_EQ(roomy->Length, 4);
    EXPECT_EQ(roomy->MaximumLength, 10);
    for (int i = 2; i < 5; ++i) {
        EXPECT_EQ(roomy->Buffer[i], 0) << i;  // spare capacity is zero-filled
    }

    // Moving keeps the buffer the UNICODE_STRING points at.
    UnicodeStringHolder moved = std::move(text);
    EXPECT_EQ(moved.utf8(), "\\dir");
}
