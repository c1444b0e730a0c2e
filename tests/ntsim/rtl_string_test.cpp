// Counted strings: initialisation, copy and append bounds, comparison rules, ANSI conversion,
// allocation and release, and the IRQL rule of the paged routines.
#include <wdm.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <gtest/gtest.h>

#include <string>

using ntsim::ToUtf8;
using ntsim::UnicodeStringHolder;

namespace {

LONG Compare(const char* a, const char* b, bool caseInsensitive)
{
    UnicodeStringHolder s1(a), s2(b);
    return RtlCompareUnicodeString(s1.get(), s2.get(), caseInsensitive);
}

bool Prefix(const char* a, const char* b, bool caseInsensitive)
{
    UnicodeStringHolder s1(a), s2(b);
    return RtlPrefixUnicodeString(s1.get(), s2.get(), caseInsensitive) != FALSE;
}

}  // namespace

TEST(RtlCopyUnicodeString, CutsAtTheDestinationCapacityAndTerminatesOnlyWithRoom)
{
    UnicodeStringHolder source("abcdef");
    auto exact = UnicodeStringHolder::WithCapacity(12);  // no room for a terminator
    RtlCopyUnicodeString(exact.get(), source.get());
    EXPECT_EQ(exact.utf8(), "abcdef");

    auto roomy = UnicodeStringHolder::WithCapacity(16);
    roomy->Buffer[6] = L'x';
    RtlCopyUnicodeString(roomy.get(), source.get());
    EXPECT_EQ(roomy->Buffer[6], L'\0');

    auto small = UnicodeStringHolder::WithCapacity(6);
    RtlCopyUnicodeString(small.get(), source.get());
    EXPECT_EQ(small.utf8(), "abc");
}

TEST(RtlAppendUnicodeStringToString, RefusesAnOverflowAndLeavesTheDestinationUnchanged)
{
    UnicodeStringHolder dest(u"\\dir", 10);  // room for one more character, no terminator
    dest->Buffer[4] = L'#';
    UnicodeStringHolder tail("\\f");
    EXPECT_EQ(RtlAppendUnicodeStringToString(dest.get(), tail.get()), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.utf8(), "\\dir");
    EXPECT_EQ(dest->Buffer[4], L'#');

    EXPECT_EQ(RtlAppendUnicodeToString(dest.get(), L"xy"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(dest.utf8(), "\\dir");
}

TEST(RtlAppendUnicodeStringToString, FillsToTheExactCapacityAndTerminatesWhenThereIsRoom)
{
    // Exactly full: no terminator may be written (the buffer ends at MaximumLength).
    UnicodeStringHolder dest(u"ab", 8);
    UnicodeStringHolder tail("cd");
    EXPECT_EQ(RtlAppendUnicodeStringToString(dest.get(), tail.get()), STATUS_SUCCESS);
    EXPECT_EQ(dest.utf8(), "abcd");
    EXPECT_EQ(dest->Length, 8);

    UnicodeStringHolder roomy(u"ab", 12);
    roomy->Buffer[3] = L'#';
    EXPECT_EQ(RtlAppendUnicodeToString(roomy.get(), L"c"), STATUS_SUCCESS);
    EXPECT_EQ(roomy.utf8(), "abc");
    EXPECT_EQ(roomy->Buffer[3], L'\0');

    // Appending an empty string to a full one is no overflow.
    UnicodeStringHolder empty("");
    EXPECT_EQ(RtlAppendUnicodeStringToString(dest.get(), empty.get()), STATUS_SUCCESS);
}

TEST(RtlCompareUnicodeString, FirstDifferenceDecidesThenTheShorterIsLess)
{
    EXPECT_LT(Compare("abc", "abd", false), 0);
    EXPECT_GT(Compare("abd", "abc", false), 0);
    EXPECT_LT(Compare("ab", "abc", false), 0);
    EXPECT_GT(Compare("abc", "ab", false), 0);
    // The first difference wins over the length.
    EXPECT_GT(Compare("b", "abc", false), 0);
    // Case-sensitive: 'B' (0x42) is below 'a' (0x61).
    EXPECT_LT(Compare("B", "a", false), 0);
    // Case-insensitive compares upcased characters: 'A' < 'B'.
    EXPECT_GT(Compare("B", "a", true), 0);
    EXPECT_EQ(Compare("\\Device\\X", "\\DEVICE\\x", true), 0);
    // Upcasing, not downcasing: '_' (0x5F) is above 'Z' (0x5A).
    EXPECT_GT(Compare("_", "z", true), 0);
    // 16-bit values compare unsigned: U+FF21 is above 'a'.
    EXPECT_GT(Compare("\xEF\xBC\xA1", "a", false), 0);
}

TEST(RtlEqualUnicodeString, DifferentLengthsAreNeverEqual)
{
    UnicodeStringHolder a("abc"), upper("ABC"), longer("abc\\");
    EXPECT_TRUE(RtlEqualUnicodeString(a.get(), upper.get(), TRUE));
    EXPECT_FALSE(RtlEqualUnicodeString(a.get(), upper.get(), FALSE));
    EXPECT_FALSE(RtlEqualUnicodeString(a.get(), longer.get(), TRUE));
    // Equal text up to Length; what lies beyond Length does not count.
    UnicodeStringHolder spare(u"abc", 20);
    spare->Buffer[3] = L'z';
    EXPECT_TRUE(RtlEqualUnicodeString(a.get(), spare.get(), FALSE));
}

TEST(RtlPrefixUnicodeString, LongerFirstStringIsNoPrefixAndEmptyIsAPrefixOfAnything)
{
    EXPECT_TRUE(Prefix("\\Device\\Vol", "\\Device\\Vol\\dir", false));
    EXPECT_TRUE(Prefix("\\device\\vol", "\\Device\\Vol\\dir", true));
    EXPECT_FALSE(Prefix("\\device\\vol", "\\Device\\Vol\\dir", false));
    EXPECT_FALSE(Prefix("abcd", "abc", false));
    EXPECT_TRUE(Prefix("", "abc", false));
    EXPECT_TRUE(Prefix("", "", false));
    EXPECT_FALSE(Prefix("abd", "abcd", true));
}

TEST(RtlIntegerToUnicodeString, WritesDigitsInTheBaseAndNeedsRoomForTheTerminator)
{
    auto s = UnicodeStringHolder::WithCapacity(22);
    EXPECT_EQ(RtlIntegerToUnicodeString(4294967295u, 0, s.get()), STATUS_SUCCESS);
    EXPECT_EQ(s.utf8(), "4294967295");
    EXPECT_EQ(RtlIntegerToUnicodeString(0xBEEF, 16, s.get()), STATUS_SUCCESS);
    EXPECT_EQ(s.utf8(), "BEEF");

    auto tight = UnicodeStringHolder::WithCapacity(6);  // three digits, no terminator
    EXPECT_EQ(RtlIntegerToUnicodeString(123, 10, tight.get()), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(tight->Length, 0);
}

TEST(RtlAnsiConversion, GoesThroughCodePage1252BothWays)
{
    // U+00E9 and U+20AC are in 1252 (0xE9, 0x80); U+0100 is not.
    UnicodeStringHolder source("a\xC3\xA9\xE2\x82\xAC\xC4\x80");
    ANSI_STRING ansi{};
    ASSERT_EQ(RtlUnicodeStringToAnsiString(&ansi, source.get(), TRUE), STATUS_SUCCESS);
    EXPECT_EQ(std::string(ansi.Buffer, ansi.Length), "a\xE9\x80?");
    EXPECT_EQ(ansi.Buffer[ansi.Length], '\0');

    UNICODE_STRING back{};
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&back, &ansi, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(back), "a\xC3\xA9\xE2\x82\xAC?");
    EXPECT_EQ(back.Buffer[back.Length / 2], L'\0');

    RtlFreeAnsiString(&ansi);
    RtlFreeUnicodeString(&back);
    EXPECT_EQ(ansi.Buffer, nullptr);
    EXPECT_EQ(back.Buffer, nullptr);
}

TEST(RtlAnsiConversion, ShortDestinationsGiveBufferOverflow)
{
    UnicodeStringHolder source("abcdef");
    char storage[4] = {'x', 'x', 'x', 'x'};
    ANSI_STRING ansi{0, sizeof(storage), storage};
    // Unicode to ANSI keeps what fits, terminated.
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, source.get(), FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::string(storage), "abc");
    EXPECT_EQ(ansi.Length, 3);

    // ANSI to Unicode needs room for the text and its terminator, else nothing changes.
    ANSI_STRING abc;
    RtlInitAnsiString(&abc, "abc");
    auto exact = UnicodeStringHolder::WithCapacity(6);
    EXPECT_EQ(RtlAnsiStringToUnicodeString(exact.get(), &abc, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(exact->Length, 0);
    auto enough = UnicodeStringHolder::WithCapacity(8);
    EXPECT_EQ(RtlAnsiStringToUnicodeString(enough.get(), &abc, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(enough.utf8(), "abc");
}

TEST(RtlAllocatedStrings, ComeFromPagedPoolAndAreReleasedByTheFreeRoutines)
{
    ntsim::pool::Checkpoint checkpoint;
    UnicodeStringHolder source("MixedCase");
    UNICODE_STRING upper{};
    ASSERT_EQ(RtlUpcaseUnicodeString(&upper, source.get(), TRUE), STATUS_SUCCESS);
    EXPECT_EQ(ToUtf8(upper), "MIXEDCASE");
    EXPECT_EQ(upper.MaximumLength, source->Length);
    const auto leaks = checkpoint.Leaks();
    ASSERT_EQ(leaks.size(), 1u);
    EXPECT_EQ(leaks[0].type, PagedPool);
    EXPECT_EQ(leaks[0].address, upper.Buffer);

    RtlFreeUnicodeString(&upper);
    EXPECT_TRUE(checkpoint.Leaks().empty());
    EXPECT_EQ(upper.Buffer, nullptr);
    EXPECT_EQ(upper.Length, 0);
}

TEST(RtlAllocatedStrings, AFailedAllocationGivesNoMemoryAndLeavesTheDestination)
{
    UnicodeStringHolder source("text");
    UNICODE_STRING dest{2, 4, reinterpret_cast<PWCH>(0x1234)};
    ntsim::faults::FailNthAllocation(1);
    EXPECT_EQ(RtlDowncaseUnicodeString(&dest, source.get(), TRUE), STATUS_NO_MEMORY);
    EXPECT_EQ(dest.Length, 2);
    EXPECT_EQ(dest.MaximumLength, 4);
    EXPECT_EQ(dest.Buffer, reinterpret_cast<PWCH>(0x1234));

    ANSI_STRING ansi{};
    ntsim::faults::FailNthAllocation(1);
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, source.get(), TRUE), STATUS_NO_MEMORY);
    EXPECT_EQ(ansi.Buffer, nullptr);
    ntsim::faults::Reset();
}

TEST(RtlPagedRoutines, AreReportedAboveApcLevel)
{
    UnicodeStringHolder a("a"), b("b");
    ntsim::verifier::BugCheckCapture capture;
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    RtlCompareUnicodeString(a.get(), b.get(), TRUE);
    KeLowerIrql(old);
    EXPECT_NE(capture.ConsumeDetail(ntsim::verifier::rules::kPagedCode).find("RtlCompareUnicodeString"),
              std::string::npos);

    // The same call at APC_LEVEL is allowed.
    KeRaiseIrql(APC_LEVEL, &old);
    RtlEqualUnicodeString(a.get(), b.get(), TRUE);
    KeLowerIrql(old);
    EXPECT_EQ(capture.Count(), 0u);
}
