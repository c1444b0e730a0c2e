// UTF-8 <-> UTF-16 conversions and UnicodeStringHolder (sim/text.hpp).
#include <ntsim/sim/text.hpp>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace ntsim {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

void AppendUtf8(std::string& out, char32_t cp)
{
    if (cp < 0x80) {
        out += char(cp);
    } else if (cp < 0x800) {
        out += char(0xC0 | (cp >> 6));
        out += char(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += char(0xE0 | (cp >> 12));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    } else {
        out += char(0xF0 | (cp >> 18));
        out += char(0x80 | ((cp >> 12) & 0x3F));
        out += char(0x80 | ((cp >> 6) & 0x3F));
        out += char(0x80 | (cp & 0x3F));
    }
}

void AppendUtf16(std::u16string& out, char32_t cp)
{
    if (cp < 0x10000) {
        out += char16_t(cp);
    } else {
        cp -= 0x10000;
        out += char16_t(0xD800 + (cp >> 10));
        out += char16_t(0xDC00 + (cp & 0x3FF));
    }
}

}  // namespace

std::string ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char32_t unit = text[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            AppendUtf8(out, kReplacement);
        } else {
            AppendUtf8(out, unit);
        }
    }
    return out;
}

std::string ToUtf8(const UNICODE_STRING& text)
{
    return ToUtf8(View(text));
}

std::string ToUtf8(PCWSTR text)
{
    if (text == nullptr) {
        return {};
    }
    return ToUtf8(std::u16string_view(reinterpret_cast<const char16_t*>(text)));
}

std::u16string ToUtf16(std::string_view utf8)
{
    std::u16string out;
    out.reserve(utf8.size());
    size_t i = 0;
    while (i < utf8.size()) {
        const auto lead = static_cast<unsigned char>(utf8[i]);
        size_t extra;
        char32_t cp;
        char32_t minimum;
        if (lead < 0x80) {
            out += char16_t(lead);
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            extra = 1, cp = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, cp = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, cp = lead & 0x07, minimum = 0x10000;
        } else {
            AppendUtf16(out, kReplacement);
            ++i;
            continue;
        }
        size_t k = 1;
        for (; k <= extra && i + k < utf8.size(); ++k) {
            const auto next = static_cast<unsigned char>(utf8[i + k]);
            if ((next & 0xC0) != 0x80) {
                break;
            }
            cp = (cp << 6) | (next & 0x3F);
        }
        if (k <= extra || cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            AppendUtf16(out, kReplacement);
            i += k;  // skip the lead byte and the continuation bytes that were read
            continue;
        }
        AppendUtf16(out, cp);
        i += k;
    }
    return out;
}

UnicodeStringHolder::UnicodeStringHolder() = default;

UnicodeStringHolder::UnicodeStringHolder(std::u16string_view text)
{
    Assign(text, text.size() * sizeof(WCHAR));
}

UnicodeStringHolder::UnicodeStringHolder(std::string_view utf8)
{
    const std::u16string text = ToUtf16(utf8);
    Assign(text, text.size() * sizeof(WCHAR));
}

UnicodeStringHolder::UnicodeStringHolder(std::u16string_view text, USHORT maximumLength)
{
    Assign(text, std::max<size_t>(maximumLength, text.size() * sizeof(WCHAR)));
}

UnicodeStringHolder::UnicodeStringHolder(std::string_view utf8, USHORT maximumLength)
{
    const std::u16string text = ToUtf16(utf8);
    Assign(text, std::max<size_t>(maximumLength, text.size() * sizeof(WCHAR)));
}

UnicodeStringHolder UnicodeStringHolder::WithCapacity(USHORT maximumLength)
{
    UnicodeStringHolder holder;
    holder.Assign({}, maximumLength);
    return holder;
}

void UnicodeStringHolder::Assign(std::u16string_view text, size_t maximumLength)
{
    if (maximumLength > MAXUSHORT) {
        throw std::length_error("UnicodeStringHolder: text longer than a UNICODE_STRING can hold");
    }
    // Exactly maximumLength bytes (rounded up to whole characters), so that AddressSanitizer
    // sees a write past the capacity.
    const size_t characters = (maximumLength + 1) / sizeof(WCHAR);
    storage_ = std::make_unique<WCHAR[]>(characters);  // zero-filled
    if (!text.empty()) {
        std::memcpy(storage_.get(), text.data(), text.size() * sizeof(WCHAR));
    }
    string_.Buffer = storage_.get();
    string_.Length = USHORT(text.size() * sizeof(WCHAR));
    string_.MaximumLength = USHORT(maximumLength);
}

}  // namespace ntsim
