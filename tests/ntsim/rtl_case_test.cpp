// Case mapping: the boundaries of the system's case table, and the string forms.
#include <wdm.h>

#include <ntsim/sim/text.hpp>

#include <gtest/gtest.h>

using ntsim::UnicodeStringHolder;

TEST(RtlUpcaseUnicodeChar, MapsAsciiAndLatin1AtTheirBoundaries)
{
    EXPECT_EQ(RtlUpcaseUnicodeChar(L'a'), L'A');
    EXPECT_EQ(RtlUpcaseUnicodeChar(L'z'), L'Z');
    EXPECT_EQ(RtlUpcaseUnicodeChar(L'`'), L'`');  // just below 'a'
    EXPECT_EQ(RtlUpcaseUnicodeChar(L'{'), L'{');  // just above 'z'
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xE0), 0xC0);
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xFE), 0xDE);
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xF7), 0xF7);  // division sign
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xDF), 0xDF);  // sharp s has no capital
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xB5), 0xB5);  // micro sign stays
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xFF), 0x178);
    EXPECT_EQ(RtlUpcaseUnicodeChar(0xD7), 0xD7);  // multiplication sign
}

TEST(RtlUpcaseUnicodeChar, MapsGreekAndCyrillic)
{
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x3B1), 0x391);  // alpha
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x3C9), 0x3A9);  // omega
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x3C2), 0x3A3);  // final sigma
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x3AC), 0x386);  // alpha with tonos
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x3CE), 0x38F);  // omega with tonos
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x3B0), 0x3B0);  // upsilon with dialytika and tonos: no capital
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x430), 0x410);
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x451), 0x401);
    EXPECT_EQ(RtlUpcaseUnicodeChar(0x100), 0x100);  // outside the modelled ranges
}

TEST(RtlDowncaseUnicodeChar, IsTheInverseMapping)
{
    EXPECT_EQ(RtlDowncaseUnicodeChar(L'@'), L'@');  // just below 'A'
    EXPECT_EQ(RtlDowncaseUnicodeChar(L'['), L'[');  // just above 'Z'
    EXPECT_EQ(RtlDowncaseUnicodeChar(0xD7), 0xD7);
    EXPECT_EQ(RtlDowncaseUnicodeChar(0x3A3), 0x3C3);  // sigma, not final sigma
    EXPECT_EQ(RtlDowncaseUnicodeChar(0x3A2), 0x3A2);  // unassigned

    // Every character that upcases to something else downcases back, except final sigma.
    for (unsigned c = 0; c < 0x10000; ++c) {
        const WCHAR upper = RtlUpcaseUnicodeChar(WCHAR(c));
        if (upper != c && c != 0x3C2) {
            ASSERT_EQ(RtlDowncaseUnicodeChar(upper), c) << std::hex << c;
        }
    }
}

TEST(RtlCaseMappingOfStrings, MapInPlaceAndRefuseAShortDestination)
{
    UnicodeStringHolder s("\\Device\\\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(RtlDowncaseUnicodeString(s.get(), s.get(), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(s.utf8(), "\\device\\\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(RtlUpcaseUnicodeString(s.get(), s.get(), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(s.utf8(), "\\DEVICE\\\xC3\x89T\xC3\x89");

    UnicodeStringHolder source("ABCD");
    UnicodeStringHolder small(u"xy", 6);
    EXPECT_EQ(RtlDowncaseUnicodeString(small.get(), source.get(), FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(small.utf8(), "xy");
    EXPECT_EQ(RtlUpcaseUnicodeString(small.get(), source.get(), FALSE), STATUS_BUFFER_OVERFLOW);

    auto exact = UnicodeStringHolder::WithCapacity(8);
    EXPECT_EQ(RtlDowncaseUnicodeString(exact.get(), source.get(), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(exact.utf8(), "abcd");
}
