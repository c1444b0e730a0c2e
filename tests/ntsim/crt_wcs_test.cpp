// The 16-bit wide string routines, in a unit that includes the platform header before the
// standard library (crt_include_order_test.cpp checks the other order).
#include <wdm.h>

#include <cwchar>
#include <string>

#include <gtest/gtest.h>

namespace {

// "ab" followed by zeros: read as 4-byte characters it would be one character long.
const WCHAR kAb[4] = {L'a', L'b', 0, 0};

}  // namespace

TEST(WideLength, CountsSixteenBitCharacters)
{
    EXPECT_EQ(wcslen(kAb), 2u);
    EXPECT_EQ(wcsnlen(kAb, 1), 1u);
    EXPECT_EQ(wcsnlen(kAb, 10), 2u);
    // The standard library still works beside the redirection.
    EXPECT_EQ(std::u16string(u"abc").size(), 3u);
}

TEST(WideCompare, OrdersByUnsignedValueAndFoldsCaseToLower)
{
    EXPECT_LT(wcscmp(L"ab", L"abc"), 0);
    EXPECT_GT(wcscmp(L"b", L"abc"), 0);
    EXPECT_GT(wcscmp(L"\xFF21", L"a"), 0);  // above 0x7FFF still compares greater

    EXPECT_EQ(_wcsicmp(L"NOTEPAD.EXE", L"notepad.exe"), 0);
    EXPECT_EQ(_wcsicmp(L"\xC9T\xC9", L"\xE9t\xE9"), 0);
    EXPECT_LT(_wcsicmp(L"abc", L"ABCD"), 0);
    // Lower-case folding: '_' (0x5F) is below 'z' (0x7A) though above 'Z'.
    EXPECT_LT(_wcsicmp(L"_", L"Z"), 0);
    EXPECT_EQ(_wcsicmp(nullptr, L"a"), _NLSCMPERROR);

    EXPECT_EQ(_wcsnicmp(L"ABCx", L"abcy", 3), 0);
    EXPECT_NE(_wcsnicmp(L"ABCx", L"abcy", 4), 0);
}

TEST(WideCopy, ShortDestinationBecomesEmptyWithAnError)
{
    WCHAR dest[4] = {L'x', L'x', L'x', L'x'};
    EXPECT_EQ(wcscpy_s(dest, 4, L"abc"), 0);
    EXPECT_EQ(wcscmp(dest, L"abc"), 0);
    EXPECT_EQ(wcscpy_s(dest, 4, L"abcd"), ERANGE);
    EXPECT_EQ(dest[0], L'\0');

    EXPECT_EQ(wcscpy_s(dest, 4, nullptr), EINVAL);
    EXPECT_EQ(dest[0], L'\0');
    dest[0] = L'q';
    EXPECT_EQ(wcscpy_s(dest, 0, L"a"), EINVAL);
    EXPECT_EQ(dest[0], L'q');  // a size of 0 leaves the destination alone
}

TEST(WideCopy, BoundedCopyTakesAtMostCountAndCanTruncate)
{
    WCHAR dest[4];
    // Count below the text: the first Count characters, terminated.
    EXPECT_EQ(wcsncpy_s(dest, 4, L"abcdef", 3), 0);
    EXPECT_EQ(wcscmp(dest, L"abc"), 0);
    EXPECT_EQ(wcsncpy_s(dest, 4, L"abcdef", 4), ERANGE);
    EXPECT_EQ(dest[0], L'\0');
    EXPECT_EQ(wcsncpy_s(dest, 4, L"abcdef", _TRUNCATE), STRUNCATE);
    EXPECT_EQ(wcscmp(dest, L"abc"), 0);
    EXPECT_EQ(wcsncpy_s(dest, 4, nullptr, 0), 0);
    EXPECT_EQ(dest[0], L'\0');
    EXPECT_EQ(wcsncpy_s(dest, 4, nullptr, 1), EINVAL);
}

TEST(WideConcatenate, AppendsOrEmptiesTheDestination)
{
    // Building a stream path the way the filter does: a path, then ":" and the stream name.
    WCHAR path[16];
    EXPECT_EQ(wcsncpy_s(path, 16, L"\\dir\\file", 9), 0);
    EXPECT_EQ(wcscat_s(path, 16, L":"), 0);
    EXPECT_EQ(wcscat_s(path, 16, L"map"), 0);
    EXPECT_EQ(wcscmp(path, L"\\dir\\file:map"), 0);

    EXPECT_EQ(wcscat_s(path, 16, L"xyz"), ERANGE);  // 13 + 3 characters leave no terminator
    EXPECT_EQ(path[0], L'\0');

    WCHAR unterminated[3] = {L'a', L'b', L'c'};
    EXPECT_EQ(wcscat_s(unterminated, 3, L""), EINVAL);
    EXPECT_EQ(unterminated[0], L'\0');
}
