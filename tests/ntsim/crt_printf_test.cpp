// _snprintf/_vsnprintf: the Windows-specific conversions, the integer sizes, and the result
// and terminator rules when the output does not fit.
#include <wdm.h>

#include <ntsim/sim/text.hpp>
#include <ntsim/sim/verifier.hpp>

#include <gtest/gtest.h>

#include <string>

namespace {

// Formats into a roomy buffer and returns the text; fails the test on a negative result.
template <typename... Args>
std::string Format(const char* format, Args... args)
{
    char buffer[256];
    const int n = _snprintf(buffer, sizeof(buffer), format, args...);
    EXPECT_GE(n, 0) << format;
    return n < 0 ? std::string("<error>") : std::string(buffer, size_t(n));
}

}  // namespace

TEST(FormatCountedStrings, WideAndAnsiCountedStringsPrintTheirLengthOnly)
{
    ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\a.txt", 80);
    path->Buffer[path->Length / 2] = L'!';  // beyond Length: must not show
    EXPECT_EQ(Format("Path [%wZ]", path.get()), "Path [\\Device\\HarddiskVolume2\\a.txt]");

    char text[] = "abcdef";
    ANSI_STRING ansi{3, sizeof(text), text};
    EXPECT_EQ(Format("[%Z]", &ansi), "[abc]");

    EXPECT_EQ(Format("[%wZ]", static_cast<PUNICODE_STRING>(nullptr)), "[(null)]");
    UNICODE_STRING noBuffer{};
    EXPECT_EQ(Format("[%wZ]", &noBuffer), "[(null)]");
}

TEST(FormatWideText, WsAndCapitalSTakeSixteenBitText)
{
    const WCHAR ab[4] = {L'a', L'b', 0, 0};
    EXPECT_EQ(Format("%ws|%S|%ls|%s|%hS", ab, ab, ab, "n", "h"), "ab|ab|ab|n|h");
    // The foreign-user trace passes " not " or " " as a wide string.
    EXPECT_EQ(Format("Access is%Sset", L" not "), "Access is not set");
    EXPECT_EQ(Format("[%.1ws][%5ws][%-4ws]", ab, ab, ab), "[a][   ab][ab  ]");
    EXPECT_EQ(Format("%ws", L"\x00E9\x20AC\x0100"), "\xE9\x80?");  // through code page 1252
    EXPECT_EQ(Format("%c%C%wc", 'x', L'y', L'z'), "xyz");
    EXPECT_EQ(Format("%ws", static_cast<PCWSTR>(nullptr)), "(null)");
}

TEST(FormatIntegers, LIsThirtyTwoBitsAndLlOrI64SixtyFour)
{
    const ULONGLONG big = 0x123456789ULL;
    EXPECT_EQ(Format("%llx %I64x %Ix", big, big, big), "123456789 123456789 123456789");
    EXPECT_EQ(Format("%lld %I64d", -5000000000LL, -5000000000LL), "-5000000000 -5000000000");
    EXPECT_EQ(Format("%lu %ld", 4294967295u, -2147483647 - 1), "4294967295 -2147483648");
    EXPECT_EQ(Format("%hd %hu %hhx", 70000, 70000, 0x1FF), "4464 4464 ff");
    EXPECT_EQ(Format("%I32x", 0xDEADBEEFu), "deadbeef");
}

TEST(FormatIntegers, FlagsWidthAndPrecision)
{
    EXPECT_EQ(Format("0x%08x", 0xC0000022u), "0xc0000022");
    EXPECT_EQ(Format("0x%08X|%x", 0x22u, 0x102u), "0x00000022|102");
    EXPECT_EQ(Format("[%5d][%-5d][%05d][%+d][% d]", 42, 42, -42, 42, 42), "[   42][42   ][-0042][+42][ 42]");
    EXPECT_EQ(Format("[%.3d][%8.3d][%.0d][%#x][%#o][%o]", 7, -7, 0, 255, 8, 8),
              "[007][    -007][][0xff][010][10]");
    EXPECT_EQ(Format("[%*d][%-*d][%.*d]", 4, 1, 3, 2, 2, 3), "[   1][2  ][03]");
    EXPECT_EQ(Format("%i%%", -1), "-1%");
}

TEST(FormatPointers, PrintSixteenUpperCaseHexDigits)
{
    EXPECT_EQ(Format("Context [0x%p]", reinterpret_cast<void*>(0xABCDEF12ULL)), "Context [0x00000000ABCDEF12]");
    EXPECT_EQ(Format("%p", static_cast<void*>(nullptr)), "0000000000000000");
}

TEST(FormatResult, CountWhenItFitsMinusOneWithoutTerminatorWhenItDoesNot)
{
    char buffer[8];
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 8, "%s", "abc"), 3);
    EXPECT_STREQ(buffer, "abc");

    // Exactly Count characters: all stored, no terminator, the count returned.
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 4, "%s", "abcd"), 4);
    EXPECT_EQ(std::string(buffer, 5), "abcd#");

    // More than Count: Count characters stored, no terminator, -1.
    memset(buffer, '#', sizeof(buffer));
    EXPECT_EQ(_snprintf(buffer, 4, "%d", 123456), -1);
    EXPECT_EQ(std::string(buffer, 5), "1234#");

    // A null buffer with a zero count measures.
    EXPECT_EQ(_snprintf(nullptr, 0, "%ws-%d", L"ab", 10), 5);
    EXPECT_EQ(_snprintf(nullptr, 4, "x"), -1);
}

TEST(FormatUnsupported, FloatingPointAndPercentNAreReportedAndFail)
{
    ntsim::verifier::BugCheckCapture capture;
    char buffer[32];
    EXPECT_EQ(_snprintf(buffer, sizeof(buffer), "%f", 1.0), -1);
    EXPECT_NE(capture.ConsumeDetail(ntsim::verifier::rules::kNotImplemented).find("%f"), std::string::npos);
    int count = 0;
    EXPECT_EQ(_snprintf(buffer, sizeof(buffer), "ab%n", &count), -1);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kNotImplemented));
    EXPECT_EQ(count, 0);
}

TEST(FormatWideText, IsReportedAbovePassiveLevel)
{
    ntsim::verifier::BugCheckCapture capture;
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    char buffer[16];
    _snprintf(buffer, sizeof(buffer), "%ws", L"a");
    _snprintf(buffer, sizeof(buffer), "%d", 1);  // narrow conversions are fine at any level
    KeLowerIrql(old);
    EXPECT_TRUE(capture.Consume(ntsim::verifier::rules::kIrqlTooHigh));
    EXPECT_EQ(capture.Count(), 0u);
}
