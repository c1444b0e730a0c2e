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

const char* YesNo(bool value)
{
    return value ? "yes" : "no";
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
    switch (view.code) {
    case SERVICE_REQUEST_OBJECT_RENAME_FROM_MANAGED:
        out << "      to a recycle bin: " << YesNo(view.toRecycleBin) << "\n";
        break;
    case SERVICE_REQUEST_OBJECT_DOWNLOAD_IF_REQUIRED:
        out << "      open: options " << Hex(view.createOptions) << ", share " << Hex(view.shareAccess) << ", access "
            << Hex(view.desiredAccess) << "\n";
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS_SIZE:
        out << "      pattern ";
        if (view.filter.empty()) {
            out << "none";
        } else {
            out << '"' << ntsim::ToUtf8(view.filter) << '"';
        }
        out << ", class " << view.fileInformationClass << ", handle wanted " << YesNo(view.wantListingHandle)
            << ", single entry " << YesNo(view.returnSingleEntry) << "\n";
        break;
    case SERVICE_REQUEST_DIRECTORY_CONTENTS:
        out << "      listing handle " << Hex(view.listingHandle) << ", " << view.listingLength << " bytes\n";
        break;
    case SERVICE_REQUEST_OBJECT_SIGNATURE:
        out << "      access " << Hex(view.desiredAccess) << "\n";
        break;
    case SERVICE_REQUEST_OBJECT_REDIRECT_ATTRIBUTES:
        out << "      room for a name of " << view.replyNameCapacity << " bytes\n";
        break;
    case SERVICE_REQUEST_OBJECT_CHANGED:
        out << "      attributes only: " << YesNo(view.attributesOnly) << "\n";
        break;
    default:
        break;
    }
}

}  // namespace foldermerge::service
