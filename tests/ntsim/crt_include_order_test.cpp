// A unit that includes the standard library (and the C library's wide header) before the
// platform: the wide routines that kernel code calls must still be the 16-bit ones.
#include <cwchar>
#include <string>
#include <wchar.h>

#include <gtest/gtest.h>

#include <wdm.h>

TEST(CrtIncludeOrder, StandardHeadersFirstStillCallTheSixteenBitRoutines)
{
    // Read as 4-byte characters, {a, b, 0, 0} would be one character long.
    const WCHAR ab[4] = {L'a', L'b', 0, 0};
    EXPECT_EQ(wcslen(ab), 2u);
    EXPECT_EQ(wcsnlen(ab, 8), 2u);
    EXPECT_LT(wcscmp(ab, L"ac"), 0);

    // The routines are reachable by their full names too, for taking an address.
    size_t (*length)(const wchar_t*) = &ntsim::crt::wcslen;
    EXPECT_EQ(length(ab), 2u);

    char buffer[16];
    EXPECT_EQ(_snprintf(buffer, sizeof(buffer), "%ws", ab), 2);
    EXPECT_STREQ(buffer, "ab");
}
