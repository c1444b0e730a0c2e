// _vsnprintf and _snprintf with the Microsoft run-time's conversions and result rules
// (described in crt.h).
#include <ntsim/crt.h>
#include <ntsim/rtl.h>

#include <ntsim/sim/verifier.hpp>

#include <string>

#include "rtl_internal.hpp"

namespace {

// Collects the output: stores what fits in the caller's buffer and counts everything.
class Output {
public:
    Output(char* buffer, size_t count) : buffer_(buffer), count_(count) {}

    void Put(char c)
    {
        if (buffer_ != nullptr && length_ < count_) {
            buffer_[length_] = c;
        }
        ++length_;
    }
    void Put(const char* text, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            Put(text[i]);
        }
    }
    void Repeat(char c, size_t n)
    {
        for (size_t i = 0; i < n; ++i) {
            Put(c);
        }
    }
    size_t length() const { return length_; }

private:
    char* buffer_;
    size_t count_;
    size_t length_ = 0;
};

enum class Size { Default, Char, Short, Bits32, Bits64, Wide, Narrow };

struct Conversion {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    size_t width = 0;
    long precision = -1;  // -1: none given
    Size size = Size::Default;
    char type = 0;
};

void Pad(Output& out, const Conversion& c, size_t used, bool before)
{
    if (c.width > used && c.left != before) {
        out.Repeat(' ', c.width - used);
    }
}

void FormatInteger(Output& out, const Conversion& c, ULONGLONG magnitude, bool negative)
{
    const bool isSigned = c.type == 'd' || c.type == 'i';
    const unsigned base = (c.type == 'o') ? 8 : (c.type == 'x' || c.type == 'X' || c.type == 'p') ? 16 : 10;
    const char* digitSet = (c.type == 'X' || c.type == 'p') ? "0123456789ABCDEF" : "0123456789abcdef";

    char digits[64];
    size_t count = 0;
    while (magnitude != 0) {
        digits[count++] = digitSet[magnitude % base];
        magnitude /= base;
    }
    // Precision is the least number of digits; a zero with precision 0 prints no digit.
    const size_t minimum = c.precision < 0 ? 1 : size_t(c.precision);
    size_t zeros = count < minimum ? minimum - count : 0;
    if (c.type == 'o' && c.alternate && zeros == 0 && (count == 0 || digits[count - 1] != '0')) {
        zeros = 1;
    }

    char prefix[2];
    size_t prefixLength = 0;
    if (isSigned && negative) {
        prefix[prefixLength++] = '-';
    } else if (isSigned && c.plus) {
        prefix[prefixLength++] = '+';
    } else if (isSigned && c.space) {
        prefix[prefixLength++] = ' ';
    } else if (c.alternate && count != 0 && (c.type == 'x' || c.type == 'X')) {
        prefix[prefixLength++] = '0';
        prefix[prefixLength++] = c.type;
    }

    size_t used = prefixLength + zeros + count;
    if (c.zero && !c.left && c.precision < 0 && c.width > used) {
        zeros += c.width - used;
        used = c.width;
    }
    Pad(out, c, used, true);
    out.Put(prefix, prefixLength);
    out.Repeat('0', zeros);
    while (count != 0) {
        out.Put(digits[--count]);
    }
    Pad(out, c, used, false);
}

// Narrow text of known length, cut at the precision.
void FormatNarrow(Output& out, const Conversion& c, const char* text, size_t length)
{
    if (c.precision >= 0 && size_t(c.precision) < length) {
        length = size_t(c.precision);
    }
    Pad(out, c, length, true);
    out.Put(text, length);
    Pad(out, c, length, false);
}

// Wide text of known length, written through the ANSI code page and cut at the precision.
void FormatWide(Output& out, const Conversion& c, const WCHAR* text, size_t length)
{
    ntsim::verifier::AssertIrqlAtMost(PASSIVE_LEVEL, "_vsnprintf (Unicode conversion)");
    if (c.precision >= 0 && size_t(c.precision) < length) {
        length = size_t(c.precision);
    }
    Pad(out, c, length, true);
    for (size_t i = 0; i < length; ++i) {
        out.Put(ntsim::rtl::UnicodeToAnsiChar(text[i]));
    }
    Pad(out, c, length, false);
}

constexpr char kNull[] = "(null)";

void FormatNull(Output& out, const Conversion& c)
{
    FormatNarrow(out, c, kNull, sizeof(kNull) - 1);
}

size_t CountNarrow(const char* text, const Conversion& c)
{
    size_t n = 0;
    while ((c.precision < 0 || n < size_t(c.precision)) && text[n] != '\0') {
        ++n;
    }
    return n;
}

size_t CountWide(const WCHAR* text, const Conversion& c)
{
    size_t n = 0;
    while ((c.precision < 0 || n < size_t(c.precision)) && text[n] != L'\0') {
        ++n;
    }
    return n;
}

// Reads the size prefix at *p and advances past it.
Size ParseSize(const char*& p)
{
    switch (*p) {
    case 'h':
        ++p;
        if (*p == 'h') {
            ++p;
            return Size::Char;
        }
        return Size::Short;
    case 'l':
        ++p;
        if (*p == 'l') {
            ++p;
            return Size::Bits64;
        }
        return Size::Bits32;
    case 'I':
        ++p;
        if (p[0] == '6' && p[1] == '4') {
            p += 2;
            return Size::Bits64;
        }
        if (p[0] == '3' && p[1] == '2') {
            p += 2;
            return Size::Bits32;
        }
        return sizeof(void*) == 8 ? Size::Bits64 : Size::Bits32;
    case 'z':
    case 't':
    case 'j':
        ++p;
        return Size::Bits64;
    case 'w':
        ++p;
        return Size::Wide;
    default:
        return Size::Default;
    }
}

bool Unsupported(const char* conversionStart, const char* end)
{
    std::string detail = "_vsnprintf: conversion \"";
    detail.append(conversionStart, end);
    detail += "\" is not supported";
    ntsim::verifier::BugCheck(ntsim::verifier::rules::kNotImplemented, detail);
    return false;
}

// Formats the whole text into out. False for a format that cannot be honoured.
bool Format(Output& out, const char* format, va_list args)
{
    for (const char* p = format; *p != '\0';) {
        if (*p != '%') {
            out.Put(*p++);
            continue;
        }
        const char* start = p++;
        Conversion c;
        for (;; ++p) {
            if (*p == '-') {
                c.left = true;
            } else if (*p == '+') {
                c.plus = true;
            } else if (*p == ' ') {
                c.space = true;
            } else if (*p == '#') {
                c.alternate = true;
            } else if (*p == '0') {
                c.zero = true;
            } else {
                break;
            }
        }
        if (*p == '*') {
            ++p;
            const int width = va_arg(args, int);
            if (width < 0) {
                c.left = true;
                c.width = size_t(-(long)width);
            } else {
                c.width = size_t(width);
            }
        } else {
            while (*p >= '0' && *p <= '9') {
                c.width = c.width * 10 + size_t(*p++ - '0');
                if (c.width > 0x7FFFFFFF) {
                    return Unsupported(start, p);
                }
            }
        }
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                ++p;
                const int precision = va_arg(args, int);
                c.precision = precision < 0 ? -1 : precision;
            } else {
                c.precision = 0;
                while (*p >= '0' && *p <= '9') {
                    c.precision = c.precision * 10 + (*p++ - '0');
                    if (c.precision > 0x7FFFFFFF) {
                        return Unsupported(start, p);
                    }
                }
            }
        }
        c.size = ParseSize(p);
        c.type = *p;
        if (c.type == '\0') {
            return Unsupported(start, p);
        }
        ++p;

        switch (c.type) {
        case '%':
            out.Put('%');
            break;
        case 'd':
        case 'i': {
            LONGLONG value;
            switch (c.size) {
            case Size::Bits64:
                value = va_arg(args, long long);
                break;
            case Size::Short:
                value = static_cast<short>(va_arg(args, int));
                break;
            case Size::Char:
                value = static_cast<signed char>(va_arg(args, int));
                break;
            default:
                value = va_arg(args, int);
                break;
            }
            const bool negative = value < 0;
            FormatInteger(out, c, negative ? 0 - ULONGLONG(value) : ULONGLONG(value), negative);
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o': {
            ULONGLONG value;
            switch (c.size) {
            case Size::Bits64:
                value = va_arg(args, unsigned long long);
                break;
            case Size::Short:
                value = static_cast<unsigned short>(va_arg(args, unsigned int));
                break;
            case Size::Char:
                value = static_cast<unsigned char>(va_arg(args, unsigned int));
                break;
            default:
                value = va_arg(args, unsigned int);
                break;
            }
            FormatInteger(out, c, value, false);
            break;
        }
        case 'p': {
            Conversion pointer = c;
            pointer.precision = 2 * sizeof(void*);
            pointer.alternate = false;
            FormatInteger(out, pointer, reinterpret_cast<ULONG_PTR>(va_arg(args, void*)), false);
            break;
        }
        case 'c':
        case 'C': {
            const bool wide = c.size == Size::Wide || c.size == Size::Bits32 ||
                              (c.type == 'C' && c.size != Size::Short);
            const int value = va_arg(args, int);
            Conversion single = c;
            single.precision = -1;
            if (wide) {
                const WCHAR character = WCHAR(value);
                FormatWide(out, single, &character, 1);
            } else {
                const char character = char(value);
                FormatNarrow(out, single, &character, 1);
            }
            break;
        }
        case 's':
        case 'S': {
            const bool wide = c.size == Size::Wide || c.size == Size::Bits32 ||
                              (c.type == 'S' && c.size != Size::Short);
            if (wide) {
                const auto* text = va_arg(args, const WCHAR*);
                if (text == nullptr) {
                    FormatNull(out, c);
                } else {
                    FormatWide(out, c, text, CountWide(text, c));
                }
            } else {
                const auto* text = va_arg(args, const char*);
                if (text == nullptr) {
                    FormatNull(out, c);
                } else {
                    FormatNarrow(out, c, text, CountNarrow(text, c));
                }
            }
            break;
        }
        case 'Z': {
            if (c.size == Size::Wide) {
                const auto* text = va_arg(args, const UNICODE_STRING*);
                if (text == nullptr || text->Buffer == nullptr) {
                    FormatNull(out, c);
                } else {
                    FormatWide(out, c, text->Buffer, text->Length / sizeof(WCHAR));
                }
            } else {
                const auto* text = va_arg(args, const ANSI_STRING*);
                if (text == nullptr || text->Buffer == nullptr) {
                    FormatNull(out, c);
                } else {
                    FormatNarrow(out, c, text->Buffer, text->Length);
                }
            }
            break;
        }
        default:
            // Floating point, %n and anything unknown.
            return Unsupported(start, p);
        }
    }
    return true;
}

}  // namespace

namespace ntsim::crt {

int(_vsnprintf)(char* Buffer, size_t Count, const char* Format, va_list ArgList)
{
    if (Format == nullptr || (Buffer == nullptr && Count != 0)) {
        return -1;
    }
    Output out(Buffer, Count);
    va_list args;
    va_copy(args, ArgList);
    const bool formatted = ::Format(out, Format, args);
    va_end(args);
    if (!formatted) {
        return -1;
    }
    const size_t length = out.length();
    if (Buffer == nullptr) {
        return int(length);
    }
    if (length < Count) {
        Buffer[length] = '\0';
        return int(length);
    }
    return length == Count ? int(length) : -1;
}

int(_snprintf)(char* Buffer, size_t Count, const char* Format, ...)
{
    va_list args;
    va_start(args, Format);
    const int result = _vsnprintf(Buffer, Count, Format, args);
    va_end(args);
    return result;
}

}  // namespace ntsim::crt
