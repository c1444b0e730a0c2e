// Decoding collected events into text lines.
#include <ntsim/sim/text.hpp>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "etw_internal.hpp"

namespace ntsim::etw {
namespace {

std::string Hex(const std::vector<uint8_t>& bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 0xF];
    }
    return text;
}

std::string Bad(const std::vector<uint8_t>& bytes)
{
    return "<bad:" + Hex(bytes) + ">";
}

template <typename T>
bool Read(const std::vector<uint8_t>& bytes, T* value)
{
    if (bytes.size() != sizeof(T)) {
        return false;
    }
    std::memcpy(value, bytes.data(), sizeof(T));
    return true;
}

std::string Number(const char* format, uint64_t value)
{
    char text[32];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

std::string FormatField(char letter, const std::vector<uint8_t>& bytes)
{
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    switch (letter) {
    case 's': {
        // Exactly one terminator, at the end of the field.
        const void* end = std::memchr(bytes.data(), 0, bytes.size());
        if (bytes.empty() || end != bytes.data() + bytes.size() - 1) {
            return Bad(bytes);
        }
        return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1);
    }
    case 'S': {
        if (bytes.size() < 2 || bytes.size() % 2 != 0) {
            return Bad(bytes);
        }
        std::u16string text(bytes.size() / 2, u'\0');
        std::memcpy(text.data(), bytes.data(), bytes.size());
        if (text.find(u'\0') != text.size() - 1) {
            return Bad(bytes);
        }
        text.pop_back();
        return ToUtf8(text);
    }
    case 'u':
        return Read(bytes, &u32) ? Number("%" PRIu64, u32) : Bad(bytes);
    case 'x':
        return Read(bytes, &u32) ? Number("0x%" PRIx64, u32) : Bad(bytes);
    case 'U':
        return Read(bytes, &u64) ? Number("%" PRIu64, u64) : Bad(bytes);
    case 'X':
        return Read(bytes, &u64) ? Number("0x%" PRIx64, u64) : Bad(bytes);
    case 'b':
        return Hex(bytes);
    default:
        return Bad(bytes);
    }
}

}  // namespace

std::string LevelName(UCHAR level)
{
    switch (level) {
    case 1:
        return "critical";
    case 2:
        return "error";
    case 3:
        return "warning";
    case 4:
        return "info";
    case 5:
        return "verbose";
    default:
        return std::to_string(level);
    }
}

std::string FormatEvent(const EventRecord& event, std::string_view layout)
{
    std::string line = std::to_string(event.descriptor.Id) + " " + LevelName(event.descriptor.Level);
    size_t count = std::max(layout.size(), event.fields.size());
    for (size_t index = 0; index < count; index++) {
        line += " | ";
        if (index >= event.fields.size()) {
            line += "<missing>";
        } else if (index >= layout.size()) {
            line += Bad(event.fields[index]);
        } else {
            line += FormatField(layout[index], event.fields[index]);
        }
    }
    return line;
}

std::vector<std::string> FormatEvents(const std::vector<EventRecord>& events, const GUID& provider,
                                      std::string_view layout)
{
    std::vector<std::string> lines;
    for (const EventRecord& event : events) {
        if (IsEqualGUID(event.provider, provider)) {
            lines.push_back(FormatEvent(event, layout));
        }
    }
    return lines;
}

void PrintEvents(std::ostream& out, const Session& session, const GUID& provider, std::string_view layout)
{
    for (const std::string& line : FormatEvents(session.Events(), provider, layout)) {
        out << line << '\n';
    }
}

}  // namespace ntsim::etw
