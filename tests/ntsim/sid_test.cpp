// SIDs: validity, length, equality and the text form.
#include <gtest/gtest.h>

#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>
#include <wdm.h>

#include <stdexcept>
#include <vector>

namespace {

// A SID with the given authority bytes and sub-authorities, built without the text parser.
std::vector<UCHAR> MakeSid(SID_IDENTIFIER_AUTHORITY authority, std::vector<ULONG> subs, UCHAR revision = 1)
{
    std::vector<UCHAR> bytes(8 + 4 * subs.size());
    EXPECT_EQ(RtlInitializeSid(bytes.data(), &authority, static_cast<UCHAR>(subs.size())), STATUS_SUCCESS);
    for (size_t i = 0; i < subs.size(); ++i) {
        *RtlSubAuthoritySid(bytes.data(), static_cast<ULONG>(i)) = subs[i];
    }
    bytes[0] = revision;
    return bytes;
}

std::string Text(PSID sid)
{
    UNICODE_STRING text{};
    NTSTATUS status = RtlConvertSidToUnicodeString(&text, sid, TRUE);
    EXPECT_EQ(status, STATUS_SUCCESS);
    if (!NT_SUCCESS(status)) {
        return "<failed>";
    }
    EXPECT_EQ(text.MaximumLength, text.Length + sizeof(WCHAR));
    EXPECT_EQ(text.Buffer[text.Length / sizeof(WCHAR)], 0) << "an allocated SID string is zero-terminated";
    std::string result = ntsim::ToUtf8(text);
    RtlFreeUnicodeString(&text);
    return result;
}

TEST(SidText, DecimalFormOfAuthorityAndSubAuthorities)
{
    auto system = MakeSid(SECURITY_NT_AUTHORITY, {18});
    EXPECT_EQ(Text(system.data()), "S-1-5-18");

    auto user = MakeSid(SECURITY_NT_AUTHORITY, {21, 1004336348, 4294967295u, 682003330, 1001});
    EXPECT_EQ(Text(user.data()), "S-1-5-21-1004336348-4294967295-682003330-1001");

    auto noSubAuthority = MakeSid(SECURITY_NULL_SID_AUTHORITY, {});
    EXPECT_EQ(Text(noSubAuthority.data()), "S-1-0");

    // The largest authority still below 2^32 stays decimal.
    auto big = MakeSid({{0, 0, 0xFF, 0xFF, 0xFF, 0xFF}}, {7});
    EXPECT_EQ(Text(big.data()), "S-1-4294967295-7");
}

TEST(SidText, NumbersOfEveryWidthAreWrittenWhole)
{
    // One to ten digits, each at both ends of its width.
    std::vector<ULONG> values;
    std::string expected = "S-1-5";
    for (ULONG low = 1, width = 1; width <= 10; ++width, low = low * 10) {
        const ULONG high = width == 10 ? 4294967295u : low * 10 - 1;
        for (ULONG value : {width == 1 ? 0u : low, high}) {
            values.push_back(value);
            expected += "-" + std::to_string(value);
        }
    }
    ASSERT_EQ(values.size(), 20u);
    // Fifteen sub-authorities at most: the values go in two SIDs.
    std::vector<ULONG> first(values.begin(), values.begin() + 10), second(values.begin() + 10, values.end());
    auto one = MakeSid(SECURITY_NT_AUTHORITY, first);
    auto two = MakeSid(SECURITY_NT_AUTHORITY, second);
    EXPECT_EQ(Text(one.data()) + Text(two.data()).substr(5), expected);
}

TEST(SidText, AuthorityOfTwoToTheThirtyTwoOrMoreIsTwelveHexDigits)
{
    auto atLimit = MakeSid({{0, 1, 0, 0, 0, 0}}, {5});
    EXPECT_EQ(Text(atLimit.data()), "S-1-0x000100000000-5");

    auto full = MakeSid({{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC}}, {});
    EXPECT_EQ(Text(full.data()), "S-1-0x123456789ABC");
}

TEST(SidText, TheLongestTextComesWhole)
{
    // A hexadecimal authority and fifteen sub-authorities of ten digits: 183 characters.
    auto longest = MakeSid({{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}, std::vector<ULONG>(15, 4294967295u));
    std::string expected = "S-1-0xFFFFFFFFFFFF";
    for (int i = 0; i < 15; ++i) {
        expected += "-4294967295";
    }
    ASSERT_EQ(expected.size(), 183u);
    EXPECT_EQ(Text(longest.data()), expected);

    auto exact = ntsim::UnicodeStringHolder::WithCapacity(183 * sizeof(WCHAR));
    EXPECT_EQ(RtlConvertSidToUnicodeString(exact.get(), longest.data(), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(exact.utf8(), expected);
}

TEST(SidText, TextParsesBackToTheSameSid)
{
    for (const char16_t* text : {u"S-1-5-18", u"S-1-5-21-1-2-3-1001", u"S-1-0x000100000000-5", u"S-1-16-12288"}) {
        std::vector<UCHAR> sid = ntsim::SidFromText(text);
        EXPECT_EQ(Text(sid.data()), ntsim::ToUtf8(std::u16string_view(text)));
    }
    for (const char16_t* bad : {u"", u"S-1", u"X-1-5-18", u"S-1-5-x", u"S-1-5-4294967296", u"S-1-5--1",
                                u"S-1-0x1000000000000-1", u"S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
        EXPECT_THROW(ntsim::SidFromText(bad), std::invalid_argument) << ntsim::ToUtf8(std::u16string_view(bad));
    }
}

TEST(SidText, DestinationWithoutAllocation)
{
    auto sid = MakeSid(SECURITY_NT_AUTHORITY, {18});  // "S-1-5-18": 8 characters, 16 bytes

    auto shortBy2 = ntsim::UnicodeStringHolder::WithCapacity(14);
    EXPECT_EQ(RtlConvertSidToUnicodeString(shortBy2.get(), sid.data(), FALSE), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(shortBy2->Length, 0) << "a failed conversion leaves the destination as it was";

    auto exact = ntsim::UnicodeStringHolder::WithCapacity(16);  // no room for a terminator
    EXPECT_EQ(RtlConvertSidToUnicodeString(exact.get(), sid.data(), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(exact.utf8(), "S-1-5-18");

    auto roomy = ntsim::UnicodeStringHolder(std::u16string_view(u"xxxxxxxxxxxx"));
    EXPECT_EQ(RtlConvertSidToUnicodeString(roomy.get(), sid.data(), FALSE), STATUS_SUCCESS);
    EXPECT_EQ(roomy.utf8(), "S-1-5-18");
    EXPECT_EQ(roomy->Buffer[8], 0) << "a terminator is written when there is room";
}

TEST(SidValidity, RevisionAndSubAuthorityCount)
{
    auto fifteen = MakeSid(SECURITY_NT_AUTHORITY, std::vector<ULONG>(15, 1));
    EXPECT_TRUE(RtlValidSid(fifteen.data()));
    EXPECT_EQ(RtlLengthSid(fifteen.data()), 8u + 15 * 4);

    auto sixteen = MakeSid(SECURITY_NT_AUTHORITY, std::vector<ULONG>(15, 1));
    sixteen.resize(8 + 16 * 4);
    sixteen[1] = 16;
    EXPECT_FALSE(RtlValidSid(sixteen.data()));

    auto revision2 = MakeSid(SECURITY_NT_AUTHORITY, {18}, 2);
    EXPECT_FALSE(RtlValidSid(revision2.data()));
    EXPECT_FALSE(RtlValidSid(nullptr));

    UNICODE_STRING text{};
    EXPECT_EQ(RtlConvertSidToUnicodeString(&text, revision2.data(), TRUE), STATUS_INVALID_SID);
    EXPECT_EQ(RtlConvertSidToUnicodeString(&text, sixteen.data(), TRUE), STATUS_INVALID_SID);
    EXPECT_EQ(text.Buffer, nullptr);
}

TEST(SidValidity, EqualityComparesEverySubAuthority)
{
    auto a = ntsim::SidFromText(u"S-1-5-21-1-2-3-1001");
    auto same = ntsim::SidFromText(u"S-1-5-21-1-2-3-1001");
    auto lastDiffers = ntsim::SidFromText(u"S-1-5-21-1-2-3-1002");
    auto shorter = ntsim::SidFromText(u"S-1-5-21-1-2-3");
    auto otherAuthority = ntsim::SidFromText(u"S-1-4-21-1-2-3-1001");
    EXPECT_TRUE(RtlEqualSid(a.data(), same.data()));
    EXPECT_FALSE(RtlEqualSid(a.data(), lastDiffers.data()));
    EXPECT_FALSE(RtlEqualSid(a.data(), shorter.data()));
    EXPECT_FALSE(RtlEqualSid(a.data(), otherAuthority.data()));
}

}  // namespace
