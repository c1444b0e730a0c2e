// The simulated service: its process, its ports and its answers.
#include <foldermerge/service/simulated_service.hpp>

#include <foldermerge/service/reply.hpp>
#include <foldermerge/service/request.hpp>

#include <optional>
#include <thread>
#include <utility>
#include <vector>

namespace foldermerge::service {

namespace {

constexpr int32_t kInvalidParameter = static_cast<int32_t>(0xC000000Du);

// Every request gets its reply with nothing set; bytes that are no request are refused.
std::optional<std::vector<uint8_t>> AnswerHoldingNothing(const IncomingRequest& request)
{
    const DecodedRequest decoded = DecodeRequest(request.Bytes());
    if (!decoded.request) {
        return EncodeRefusal(request.replyCapacity, kInvalidParameter);
    }
    return EncodeReply(*decoded.request, ReplyContent{});
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
            step = connection.StartReceiving(AnswerHoldingNothing, options_.workers,
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
