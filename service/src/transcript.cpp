// Transcript lines of the filter's requests.
#include <foldermerge/service/transcript.hpp>

#include <ntsim/sim/text.hpp>

#include <cstdio>
#include <string>

namespace foldermerge::service {

namespace {

std::string Hex(uint64_t value)
{
    char text[24];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

void PrintRequest(std::ostream& out, const RecordedRequest& recorded)
{
    if (!recorded.view) {
        out << "  filter -> service: undecodable (" << recorded.decodeError << ")\n";
        return;
    }
    const RequestView& view = *recorded.view;
    out << "  filter -> service: code " << view.code << " " << RequestName(view.code) << ", " << view.messageLength
        << " bytes, pid " << view.processId << ", reply buffer " << recorded.replyLength << " bytes\n";
    if (!view.sid.empty()) {
        out << "      sid    " << ntsim::ToUtf8(view.sid) << "\n";
    }
    if (!view.path.empty()) {
        out << "      path   " << ntsim::ToUtf8(view.path) << "\n";
    }
    if (!view.secondString.empty()) {
        out << "      second " << ntsim::ToUtf8(view.secondString) << "\n";
    }
    if (view.information) {
        if (view.information->IsUnknown()) {
            out << "      local file: none (unknown pattern)\n";
        } else {
            out << "      local file: attributes " << Hex(view.information->fileAttributes) << ", "
                << view.information->endOfFile << " bytes, written at " << view.information->lastWriteTime << "\n";
        }
    }
    if (view.markerStreamPresent) {
        out << "      marker stream: " << (*view.markerStreamPresent ? "present" : "absent") << "\n";
    }
    if (view.code == SERVICE_REQUEST_DIRECTORY_CONTENTS) {
        out << "      listing handle " << Hex(view.listingHandle) << ", " << view.listingLength << " bytes\n";
    }
}

}  // namespace foldermerge::service
