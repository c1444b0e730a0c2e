// SIDs: validation, comparison, length, and the text form S-1-<authority>-<sub>...
#include <ntsim/ex.h>
#include <ntsim/rtl.h>
#include <ntsim/se.h>
#include <ntsim/sim/process.hpp>

#include <cstring>
#include <stdexcept>
#include <string>

#include "ob_internal.hpp"

namespace {

constexpr ULONG kSidHeaderLength = 8;  // revision, count, authority

const SID* AsSid(PSID sid) { return static_cast<const SID*>(sid); }

ULONGLONG AuthorityValue(const SID_IDENTIFIER_AUTHORITY& authority)
{
    ULONGLONG value = 0;
    for (UCHAR byte : authority.Value) {
        value = (value << 8) | byte;
    }
    return value;
}

// The longest SID text: "S-", a revision of three digits, a dash, the authority in hexadecimal
// ("0x" and twelve digits), and fifteen sub-authorities of a dash and ten digits each.
constexpr size_t kMaxSidTextChars = 2 + 3 + 1 + 14 + SID_MAX_SUB_AUTHORITIES * 11;

// SID text is built in place, in a buffer of the caller's stack, as Windows builds it: no heap
// allocation but the string that is handed out.
struct SidTextBuffer {
    WCHAR characters[kMaxSidTextChars];
    size_t length = 0;

    void Append(char c) { characters[length++] = static_cast<WCHAR>(c); }
};

// Every number written in decimal fits 32 bits: the revision, a sub-authority, and an authority
// below 2^32. The digits go straight to their place, from the last, two at a time.
void AppendDecimal(SidTextBuffer& text, ULONG value)
{
    static const char kPairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    const size_t digits =
        value < 100000
            ? (value < 100 ? (value < 10 ? 1 : 2) : (value < 1000 ? 3 : (value < 10000 ? 4 : 5)))
            : (value < 10000000 ? (value < 1000000 ? 6 : 7)
                                : (value < 100000000 ? 8 : (value < 1000000000 ? 9 : 10)));
    text.length += digits;
    WCHAR* next = text.characters + text.length;
    while (value >= 100) {
        const ULONG pair = (value % 100) * 2;
        value /= 100;
        *--next = static_cast<WCHAR>(kPairs[pair + 1]);
        *--next = static_cast<WCHAR>(kPairs[pair]);
    }
    if (value >= 10) {
        *--next = static_cast<WCHAR>(kPairs[value * 2 + 1]);
        *--next = static_cast<WCHAR>(kPairs[value * 2]);
    } else {
        *--next = static_cast<WCHAR>('0' + value);
    }
}

// The authority: decimal below 2^32, otherwise 0x and the full twelve hexadecimal digits of its
// 48 bits, upper case (S-1-0x123456789ABC-...).
void AppendAuthority(SidTextBuffer& text, const SID_IDENTIFIER_AUTHORITY& authority)
{
    if (authority.Value[0] == 0 && authority.Value[1] == 0) {
        AppendDecimal(text, static_cast<ULONG>(AuthorityValue(authority)));
        return;
    }
    static const char kHex[] = "0123456789ABCDEF";
    text.Append('0');
    text.Append('x');
    for (UCHAR byte : authority.Value) {
        text.Append(kHex[byte >> 4]);
        text.Append(kHex[byte & 0xF]);
    }
}

// The text of a valid SID (at most SID_MAX_SUB_AUTHORITIES sub-authorities).
void SidText(const SID* sid, SidTextBuffer& text)
{
    text.Append('S');
    text.Append('-');
    AppendDecimal(text, sid->Revision);
    text.Append('-');
    AppendAuthority(text, sid->IdentifierAuthority);
    for (UCHAR i = 0; i < sid->SubAuthorityCount; ++i) {
        text.Append('-');
        AppendDecimal(text, sid->SubAuthority[i]);
    }
}

// Parses one number of SID text: decimal, or 0x and hexadecimal digits.
bool ParseNumber(std::u16string_view field, ULONGLONG limit, ULONGLONG* value)
{
    int base = 10;
    if (field.size() > 2 && field[0] == u'0' && (field[1] == u'x' || field[1] == u'X')) {
        base = 16;
        field.remove_prefix(2);
    }
    if (field.empty()) {
        return false;
    }
    ULONGLONG result = 0;
    for (char16_t c : field) {
        int digit;
        if (c >= u'0' && c <= u'9') {
            digit = c - u'0';
        } else if (base == 16 && c >= u'a' && c <= u'f') {
            digit = c - u'a' + 10;
        } else if (base == 16 && c >= u'A' && c <= u'F') {
            digit = c - u'A' + 10;
        } else {
            return false;
        }
        if (result > (limit - digit) / base) {
            return false;
        }
        result = result * base + digit;
    }
    *value = result;
    return true;
}

}  // namespace

extern "C" {

BOOLEAN NTAPI RtlValidSid(PSID Sid)
{
    if (Sid == nullptr) {
        return FALSE;
    }
    const SID* sid = AsSid(Sid);
    return (BOOLEAN)(sid->Revision == SID_REVISION && sid->SubAuthorityCount <= SID_MAX_SUB_AUTHORITIES);
}

ULONG NTAPI RtlLengthRequiredSid(ULONG SubAuthorityCount)
{
    return kSidHeaderLength + SubAuthorityCount * sizeof(ULONG);
}

ULONG NTAPI RtlLengthSid(PSID Sid)
{
    return RtlLengthRequiredSid(AsSid(Sid)->SubAuthorityCount);
}

BOOLEAN NTAPI RtlEqualSid(PSID Sid1, PSID Sid2)
{
    const SID* a = AsSid(Sid1);
    const SID* b = AsSid(Sid2);
    if (a->Revision != b->Revision || a->SubAuthorityCount != b->SubAuthorityCount) {
        return FALSE;
    }
    return (BOOLEAN)(std::memcmp(a, b, RtlLengthSid(Sid1)) == 0);
}

NTSTATUS NTAPI RtlInitializeSid(PSID Sid, PSID_IDENTIFIER_AUTHORITY IdentifierAuthority,
                                UCHAR SubAuthorityCount)
{
    if (SubAuthorityCount > SID_MAX_SUB_AUTHORITIES) {
        return STATUS_INVALID_PARAMETER;
    }
    SID* sid = static_cast<SID*>(Sid);
    sid->Revision = SID_REVISION;
    sid->SubAuthorityCount = SubAuthorityCount;
    sid->IdentifierAuthority = *IdentifierAuthority;
    return STATUS_SUCCESS;
}

PULONG NTAPI RtlSubAuthoritySid(PSID Sid, ULONG SubAuthority)
{
    return &static_cast<SID*>(Sid)->SubAuthority[SubAuthority];
}

NTSTATUS NTAPI RtlConvertSidToUnicodeString(PUNICODE_STRING UnicodeString, PSID Sid,
                                            BOOLEAN AllocateDestinationString)
{
    if (UnicodeString == nullptr || !RtlValidSid(Sid)) {
        return STATUS_INVALID_SID;
    }
    SidTextBuffer text;
    SidText(AsSid(Sid), text);
    const size_t bytes = text.length * sizeof(WCHAR);

    if (AllocateDestinationString) {
        auto* buffer = static_cast<PWCH>(
            ExAllocatePoolWithTag(PagedPool, bytes + sizeof(WCHAR), ntsim::ob::internal::kSidStringTag));
        if (buffer == nullptr) {
            return STATUS_NO_MEMORY;
        }
        std::memcpy(buffer, text.characters, bytes);
        buffer[text.length] = 0;
        UnicodeString->Buffer = buffer;
        UnicodeString->Length = static_cast<USHORT>(bytes);
        UnicodeString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
        return STATUS_SUCCESS;
    }

    if (bytes > UnicodeString->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(UnicodeString->Buffer, text.characters, bytes);
    if (bytes + sizeof(WCHAR) <= UnicodeString->MaximumLength) {
        UnicodeString->Buffer[text.length] = 0;
    }
    UnicodeString->Length = static_cast<USHORT>(bytes);
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace ntsim {

std::vector<UCHAR> SidFromText(std::u16string_view sidText)
{
    const std::u16string_view original = sidText;
    auto fail = [&]() -> std::vector<UCHAR> {
        throw std::invalid_argument("not a SID: " + std::string(original.begin(), original.end()));
    };
    if (sidText.size() < 2 || (sidText[0] != u'S' && sidText[0] != u's') || sidText[1] != u'-') {
        return fail();
    }
    sidText.remove_prefix(2);

    std::vector<std::u16string_view> fields;
    while (true) {
        const size_t dash = sidText.find(u'-');
        fields.push_back(sidText.substr(0, dash));
        if (dash == std::u16string_view::npos) {
            break;
        }
        sidText.remove_prefix(dash + 1);
    }
    // revision, authority, then 0 to 15 sub-authorities
    if (fields.size() < 2 || fields.size() - 2 > SID_MAX_SUB_AUTHORITIES) {
        return fail();
    }
    ULONGLONG revision = 0;
    ULONGLONG authority = 0;
    if (!ParseNumber(fields[0], 0xFF, &revision) || !ParseNumber(fields[1], 0xFFFFFFFFFFFFull, &authority)) {
        return fail();
    }

    const UCHAR count = static_cast<UCHAR>(fields.size() - 2);
    std::vector<UCHAR> bytes(RtlLengthRequiredSid(count));
    SID* sid = reinterpret_cast<SID*>(bytes.data());
    sid->Revision = static_cast<UCHAR>(revision);
    sid->SubAuthorityCount = count;
    for (int i = 5; i >= 0; --i) {
        sid->IdentifierAuthority.Value[i] = static_cast<UCHAR>(authority & 0xFF);
        authority >>= 8;
    }
    for (UCHAR i = 0; i < count; ++i) {
        ULONGLONG sub = 0;
        if (!ParseNumber(fields[2 + i], 0xFFFFFFFFull, &sub)) {
            return fail();
        }
        const ULONG value = static_cast<ULONG>(sub);
        std::memcpy(bytes.data() + kSidHeaderLength + i * sizeof(ULONG), &value, sizeof(ULONG));
    }
    return bytes;
}

}  // namespace ntsim
