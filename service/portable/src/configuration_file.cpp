// A configuration read from text.
#include <foldermerge/service/configuration_file.hpp>

#include <vector>

namespace foldermerge::service {

namespace {

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

std::string_view Trim(std::string_view text)
{
    while (!text.empty() && IsBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// The first word of *text, which loses it and the blanks after it.
std::string_view TakeWord(std::string_view* text)
{
    size_t end = 0;
    while (end < text->size() && !IsBlank((*text)[end])) {
        end++;
    }
    const std::string_view word = text->substr(0, end);
    *text = Trim(text->substr(end));
    return word;
}

// Text in double quotes. (Built by appending: GCC 12 warns wrongly about `"\"" + std::string(...)`.)
std::string Quoted(std::string_view text)
{
    std::string quoted(1, '"');
    quoted += text;
    quoted += '"';
    return quoted;
}

bool IsDrivePath(std::u16string_view path)
{
    const char16_t drive = path.size() >= 3 ? static_cast<char16_t>(path[0] | 0x20) : u'\0';
    return drive >= u'a' && drive <= u'z' && path[1] == u':' && path[2] == u'\\';
}

}  // namespace

bool Utf8ToUtf16(std::string_view text, std::u16string* converted)
{
    std::u16string result;
    for (size_t at = 0; at < text.size();) {
        const auto lead = static_cast<unsigned char>(text[at]);
        size_t length;
        char32_t code;
        if (lead < 0x80) {
            length = 1;
            code = lead;
        } else if (lead >= 0xC2 && lead < 0xE0) {
            length = 2;
            code = lead & 0x1F;
        } else if (lead >= 0xE0 && lead < 0xF0) {
            length = 3;
            code = lead & 0x0F;
        } else if (lead >= 0xF0 && lead < 0xF5) {
            length = 4;
            code = lead & 0x07;
        } else {
            return false;
        }
        if (text.size() - at < length) {
            return false;
        }
        for (size_t index = 1; index < length; index++) {
            const auto next = static_cast<unsigned char>(text[at + index]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and code points past the last plane are no UTF-8.
        const char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (code < smallest[length] || (code >= 0xD800 && code < 0xE000) || code > 0x10FFFF) {
            return false;
        }
        if (code >= 0x10000) {
            result += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            result += static_cast<char16_t>(code);
        }
        at += length;
    }
    *converted = std::move(result);
    return true;
}

std::string Utf16ToUtf8(std::u16string_view text)
{
    std::string result;
    for (size_t at = 0; at < text.size(); at++) {
        char32_t code = text[at];
        if (code >= 0xD800 && code < 0xDC00 && at + 1 < text.size() && text[at + 1] >= 0xDC00 &&
            text[at + 1] < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (text[++at] - 0xDC00);
        } else if (code >= 0xD800 && code < 0xE000) {
            code = 0xFFFD;
        }
        if (code < 0x80) {
            result += static_cast<char>(code);
        } else if (code < 0x800) {
            result += static_cast<char>(0xC0 | (code >> 6));
            result += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            result += static_cast<char>(0xE0 | (code >> 12));
            result += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            result += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            result += static_cast<char>(0xF0 | (code >> 18));
            result += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            result += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            result += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    return result;
}

std::string FormatConfigurationText(const Configuration& configuration)
{
    std::string text;
    for (const ManagedFolder& folder : configuration.folders) {
        text += "folder " + Utf16ToUtf8(folder.sid) + (folder.readOnly ? " ro " : " rw ") + Utf16ToUtf8(folder.path) +
                "\n";
    }
    for (const std::u16string& name : configuration.blacklist) {
        text += "blacklist " + Utf16ToUtf8(name) + "\n";
    }
    return text;
}

bool ParseConfigurationText(std::string_view text, Configuration* configuration, std::string* error)
{
    std::vector<ManagedFolder> folders;
    std::vector<std::u16string> blacklist;
    size_t lineNumber = 0;
    auto fail = [&](const std::string& why) {
        *error = "line ";
        *error += std::to_string(lineNumber) + ": " + why;
        return false;
    };

    while (!text.empty()) {
        lineNumber++;
        const size_t end = text.find('\n');
        std::string_view line = Trim(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const std::string_view kind = TakeWord(&line);
        if (kind == "folder") {
            const std::string_view sid = TakeWord(&line);
            const std::string_view access = TakeWord(&line);
            ManagedFolder folder;
            if (sid.empty() || line.empty()) {
                return fail("a folder needs a SID, ro or rw, and a path");
            }
            if (access != "ro" && access != "rw") {
                return fail(Quoted(access) + " is neither ro nor rw");
            }
            if (!Utf8ToUtf16(sid, &folder.sid) || !Utf8ToUtf16(line, &folder.path)) {
                return fail("not UTF-8 text");
            }
            if (!IsDrivePath(folder.path)) {
                return fail(Quoted(line) + " is no drive path such as C:\\Data");
            }
            folder.readOnly = access == "ro";
            folders.push_back(std::move(folder));
        } else if (kind == "blacklist") {
            std::u16string name;
            if (line.empty()) {
                return fail("a blacklist line needs a process image name");
            }
            if (!Utf8ToUtf16(line, &name)) {
                return fail("not UTF-8 text");
            }
            blacklist.push_back(std::move(name));
        } else {
            return fail(Quoted(kind) + " is neither folder nor blacklist");
        }
    }
    configuration->folders = std::move(folders);
    configuration->blacklist = std::move(blacklist);
    return true;
}

}  // namespace foldermerge::service
