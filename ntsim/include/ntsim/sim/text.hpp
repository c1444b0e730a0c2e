// Text on the C++ side of ntsim and in tests: UTF-8 <-> UTF-16 conversions and an owner of a
// UNICODE_STRING. WCHAR is 16 bits on this platform; never hand it to libc's wide routines or
// to std::wstring (they assume 4 bytes). Compare strings in tests as UTF-8:
//     EXPECT_EQ(ntsim::ToUtf8(path), "\\Device\\HarddiskVolume2\\a.txt");
#pragma once

#include <ntsim/ntdef.h>

#include <memory>
#include <string>
#include <string_view>

namespace ntsim {

// UTF-16 to UTF-8. An unpaired surrogate becomes U+FFFD. An odd byte Length drops the odd byte.
std::string ToUtf8(std::u16string_view text);
std::string ToUtf8(const UNICODE_STRING& text);  // Length bytes; a null Buffer gives ""
std::string ToUtf8(PCWSTR text);                 // zero-terminated; null gives ""

// UTF-8 to UTF-16. A malformed sequence becomes U+FFFD.
std::u16string ToUtf16(std::string_view utf8);

// The text of a counted string, without a copy.
inline std::u16string_view View(const UNICODE_STRING& text)
{
    if (text.Buffer == nullptr) {
        return {};
    }
    return {reinterpret_cast<const char16_t*>(text.Buffer), text.Length / sizeof(WCHAR)};
}

inline PCWSTR AsWide(const char16_t* text) { return reinterpret_cast<PCWSTR>(text); }
inline PWSTR AsWide(char16_t* text) { return reinterpret_cast<PWSTR>(text); }

// Owns the buffer of a UNICODE_STRING. The buffer is a heap block of exactly MaximumLength
// bytes, so a routine that writes past MaximumLength trips AddressSanitizer. The text is not
// zero-terminated unless the capacity leaves room and the caller asked for it.
//     ntsim::UnicodeStringHolder name("\\dir\\file");            // Length == MaximumLength
//     ntsim::UnicodeStringHolder dest = ntsim::UnicodeStringHolder::WithCapacity(20);
//     RtlAppendUnicodeStringToString(dest.get(), name.get());
class UnicodeStringHolder {
public:
    // A string with no buffer: Length 0, MaximumLength 0, Buffer null.
    UnicodeStringHolder();
    explicit UnicodeStringHolder(std::u16string_view text);
    explicit UnicodeStringHolder(std::string_view utf8);
    explicit UnicodeStringHolder(const char* utf8) : UnicodeStringHolder(std::string_view(utf8)) {}
    // Text with a capacity of maximumLength bytes (at least the text's size). Spare capacity
    // is zero-filled.
    UnicodeStringHolder(std::u16string_view text, USHORT maximumLength);
    UnicodeStringHolder(std::string_view utf8, USHORT maximumLength);

    // An empty string (Length 0) with room for maximumLength bytes, zero-filled.
    static UnicodeStringHolder WithCapacity(USHORT maximumLength);

    UnicodeStringHolder(UnicodeStringHolder&&) noexcept = default;
    UnicodeStringHolder& operator=(UnicodeStringHolder&&) noexcept = default;
    UnicodeStringHolder(const UnicodeStringHolder&) = delete;
    UnicodeStringHolder& operator=(const UnicodeStringHolder&) = delete;

    PUNICODE_STRING get() { return &string_; }
    PCUNICODE_STRING get() const { return &string_; }
    UNICODE_STRING& operator*() { return string_; }
    const UNICODE_STRING& operator*() const { return string_; }
    PUNICODE_STRING operator->() { return &string_; }
    PCUNICODE_STRING operator->() const { return &string_; }

    std::u16string_view view() const { return View(string_); }
    std::string utf8() const { return ToUtf8(string_); }

private:
    void Assign(std::u16string_view text, size_t maximumLength);

    std::unique_ptr<WCHAR[]> storage_;
    UNICODE_STRING string_{};
};

}  // namespace ntsim
