// The simulated service: its process, its ports and its answers.
#include <foldermerge/service/simulated_service.hpp>

#include <foldermerge/service/reply.hpp>
#include <foldermerge/service/request.hpp>

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace foldermerge::service {

namespace {

constexpr int32_t kInvalidParameter = static_cast<int32_t>(0xC000000Du);
constexpr int32_t kObjectNameNotFound = static_cast<int32_t>(0xC0000034u);

char16_t FoldAsciiCase(char16_t character)
{
    return character >= u'a' && character <= u'z' ? static_cast<char16_t>(character - u'a' + u'A') : character;
}

// Whether path is folder or lies below it.
bool IsAtOrBelow(std::u16string_view path, std::u16string_view folder)
{
    if (path.size() < folder.size() || (path.size() > folder.size() && path[folder.size()] != u'\\')) {
        return false;
    }
    for (size_t index = 0; index < folder.size(); index++) {
        if (FoldAsciiCase(path[index]) != FoldAsciiCase(folder[index])) {
            return false;
        }
    }
    return true;
}

// Every request gets its reply with nothing set, an exclusion query the service's verdict; bytes
// that are no request are refused.
std::optional<std::vector<uint8_t>> Answer(const IncomingRequest& request,
                                           const std::vector<std::u16string>& excludedFolders)
{
    const DecodedRequest decoded = DecodeRequest(request.Bytes());
    if (!decoded.request) {
        return EncodeRefusal(request.replyCapacity, kInvalidParameter);
    }
    ReplyContent reply;
    if (decoded.request->code == SERVICE_REQUEST_OBJECT_IS_EXCLUDED_FILE) {
        const bool excluded =
            std::any_of(excludedFolders.begin(), excludedFolders.end(),
                        [&](const std::u16string& folder) { return IsAtOrBelow(decoded.request->path, folder); });
        reply.status = excluded ? 0 : kObjectNameNotFound;
    }
    return EncodeReply(*decoded.request, reply);
}

}  // namespace

Configuration DemoConfiguration()
{
    Configuration configuration;
    configuration.folders = {
        {kDemoAliceSid, u"C:\\Users\\alice\\Velmora", true},
        {kDemoBobSid, u"C:\\Users\\bob\\Velmora", false},
    };
    configuration.blacklist = {u"SearchIndexer.exe", u"backup.exe"};
    return configuration;
}

std::vector<std::u16string> DemoExcludedFolders()
{
    return {u"\\Device\\HarddiskVolume2\\Users\\alice\\Velmora\\Cache"};
}

SimulatedService::SimulatedService(SimulatedServiceOptions options)
    : options_(std::move(options)),
      process_(ntsim::CreateProcess({.imageFileName = options_.imageFileName, .userSid = options_.userSid}))
{
}

SimulatedService::~SimulatedService()
{
    Leave();
}

HRESULT SimulatedService::Arrive()
{
    HRESULT result = ConnectThreadPort();
    if (SUCCEEDED(result)) {
        result = Run([this](FilterConnection& connection) {
            HRESULT step = connection.ConnectConfigPort();
            return SUCCEEDED(step) ? connection.SetConfiguration(options_.configuration) : step;
        });
    }
    if (FAILED(result)) {
        Leave();
    }
    return result;
}

HRESULT SimulatedService::ConnectThreadPort()
{
    return Run([this](FilterConnection& connection) {
        HRESULT step = connection.ConnectThreadPort();
        if (SUCCEEDED(step)) {
            step = connection.StartReceiving(
                [excludedFolders = options_.excludedFolders](const IncomingRequest& request) {
                    return Answer(request, excludedFolders);
                },
                options_.workers,
                                             [process = process_](std::function<void()> body) {
                                                 return std::thread([process, body = std::move(body)] {
                                                     ntsim::AttachThread attach(process);
                                                     body();
                                                 });
                                             });
        }
        return step;
    });
}

void SimulatedService::Leave()
{
    if (connection_ != nullptr) {
        ntsim::AttachThread attach(process_);
        connection_.reset();
    }
}

HRESULT VisitWithDemoService(const std::function<void(SimulatedService& service)>& whilePresent)
{
    SimulatedService service;
    const HRESULT arrived = service.Arrive();
    if (SUCCEEDED(arrived)) {
        whilePresent(service);
    }
    service.Leave();
    return arrived;
}

}  // namespace foldermerge::service
