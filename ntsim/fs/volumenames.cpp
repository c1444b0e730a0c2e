// Names on the in-memory volumes: case folding, validity, 8.3 short names and wildcard matching.
#include "memoryvolume.hpp"

#include <ntifs.h>

namespace ntsim::fs {

std::u16string Upcase(std::u16string_view text)
{
    std::u16string result(text);
    for (auto& c : result) {
        c = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(c)));
    }
    return result;
}

bool IsValidName(std::u16string_view name)
{
    if (name.empty() || name.size() > 255) {
        return false;
    }
    for (char16_t c : name) {
        if (c < 0x20) {
            return false;
        }
        switch (c) {
        case u'"': case u'*': case u'/': case u':': case u'<': case u'>': case u'?': case u'\\': case u'|':
            return false;
        default:
            break;
        }
    }
    return true;
}

namespace {

// Characters a DOS name may hold as they are (letters in either case).
bool IsDosCharacter(char16_t c)
{
    if ((c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9')) {
        return true;
    }
    switch (c) {
    case u'!': case u'#': case u'$': case u'%': case u'&': case u'\'': case u'(': case u')': case u'-':
    case u'@': case u'^': case u'_': case u'`': case u'{': case u'}': case u'~':
        return true;
    default:
        return false;
    }
}

// One character of a generated short name: DOS characters upcased, anything else '_'.
char16_t ShortNameCharacter(char16_t c)
{
    if (!IsDosCharacter(c)) {
        return u'_';
    }
    return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - u'a' + u'A') : c;
}

}  // namespace

bool IsShortNameCompliant(std::u16string_view name)
{
    if (name.size() > 12) {
        return false;
    }
    size_t dot = name.find(u'.');
    std::u16string_view stem = name.substr(0, dot);
    std::u16string_view extension = dot == std::u16string_view::npos ? std::u16string_view{} : name.substr(dot + 1);
    if (stem.empty() || stem.size() > 8) {
        return false;
    }
    if (dot != std::u16string_view::npos && (extension.empty() || extension.size() > 3)) {
        return false;
    }
    for (char16_t c : stem) {
        if (!IsDosCharacter(c)) {
            return false;
        }
    }
    for (char16_t c : extension) {
        if (!IsDosCharacter(c)) {  // a second dot lands here
            return false;
        }
    }
    return true;
}

void ShortNameParts(std::u16string_view longName, std::u16string* stem, std::u16string* extension)
{
    stem->clear();
    extension->clear();
    size_t first = longName.find_first_not_of(u'.');
    std::u16string_view name = first == std::u16string_view::npos ? std::u16string_view{} : longName.substr(first);
    size_t dot = name.rfind(u'.');
    std::u16string_view stemPart = name.substr(0, dot);
    std::u16string_view extensionPart = dot == std::u16string_view::npos ? std::u16string_view{} : name.substr(dot + 1);
    for (char16_t c : stemPart) {
        if (c != u' ' && c != u'.') {
            stem->push_back(ShortNameCharacter(c));
        }
    }
    for (char16_t c : extensionPart) {
        if (c != u' ' && extension->size() < 3) {
            extension->push_back(ShortNameCharacter(c));
        }
    }
    if (stem->empty()) {
        stem->push_back(u'_');
    }
}

bool NameMatches(std::u16string_view upcasedExpression, std::u16string_view name)
{
    std::u16string expressionCopy(upcasedExpression);
    std::u16string nameCopy(name);
    UNICODE_STRING expression{static_cast<USHORT>(expressionCopy.size() * sizeof(WCHAR)),
                              static_cast<USHORT>(expressionCopy.size() * sizeof(WCHAR)),
                              reinterpret_cast<PWCH>(expressionCopy.data())};
    UNICODE_STRING candidate{static_cast<USHORT>(nameCopy.size() * sizeof(WCHAR)),
                             static_cast<USHORT>(nameCopy.size() * sizeof(WCHAR)),
                             reinterpret_cast<PWCH>(nameCopy.data())};
    return FsRtlIsNameInExpression(&expression, &candidate, TRUE, nullptr) != FALSE;
}

}  // namespace ntsim::fs
