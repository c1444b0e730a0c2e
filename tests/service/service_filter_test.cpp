// The service library against the FolderMerge filter itself: a service process connects, configures
// and leaves, and the filter goes through its states; the open gate's verdicts and the service
// requests show which state it is in.
#include "../filter/filter_fixture.hpp"

#include <foldermerge/service/control.hpp>
#include <foldermerge/service/simulated_service.hpp>

#include <ntsim/sim/ports.hpp>

#include "driver/globals.h"
#include "driver/mergefolders.h"
#include "servicerequests.h"

namespace foldermerge::testing {
namespace {

using service::Configuration;
using service::ConfigurationMessage;
using service::FilterConnection;
using service::SimulatedService;

// What the filter's state shows from outside.
struct Observed {
    UCHAR passThrough;
    ULONG rows;
    NTSTATUS aliceWritesHerReadOnlyRoot;
    NTSTATUS request;  // a service request of alice's, as the filter judged it

    bool operator==(const Observed&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Observed& observed)
{
    return out << "{passThrough " << int(observed.passThrough) << ", rows " << observed.rows << ", write 0x"
               << std::hex << observed.aliceWritesHerReadOnlyRoot << ", request 0x" << observed.request << std::dec
               << "}";
}

constexpr NTSTATUS kAnswered = STATUS_SUCCESS;

class ServiceAndFilter : public LoadedFilter {
protected:
    void SetUp() override
    {
        LoadedFilter::SetUp();
        volume_->SeedFile(u"\\Data\\a.txt", "a");
        volume_->SeedFile(u"\\Shared\\b.txt", "b");
        service_ = std::make_unique<SimulatedService>(service::SimulatedServiceOptions{
            .configuration = {.folders = {{kAlice, u"C:\\Data", true}}, .blacklist = {u"tool.exe"}}});
    }

    void TearDown() override
    {
        service_.reset();
        LoadedFilter::TearDown();
        EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);
    }

    NTSTATUS WriteRoot(std::u16string_view sid, std::u16string_view root,
                       std::u16string_view image = u"\\Device\\HarddiskVolume2\\Apps\\app.exe")
    {
        ntsim::AttachThread thread(UserProcess(sid, image));
        return OpenAndClose(root, FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status;
    }

    // A request as an open of alice's would make it, judged by the filter's request frame.
    NTSTATUS AlicesRequest()
    {
        ntsim::AttachThread thread(UserProcess(kAlice));
        ntsim::UnicodeStringHolder sid(kAlice);
        ntsim::UnicodeStringHolder path(u"\\Device\\HarddiskVolume2\\Data\\a.txt");
        UCHAR bExists = 0;
        UCHAR bSecondFlag = 0;
        return ServiceRequest_ObjectExists(sid.get(), path.get(), nullptr, nullptr, &bExists, &bSecondFlag);
    }

    Observed Observe()
    {
        return {g_PassThrough, g_MergeFolderCount, WriteRoot(kAlice, u"\\??\\C:\\Data"), AlicesRequest()};
    }

    HRESULT Configure(const Configuration& configuration)
    {
        return service_->Run([&](FilterConnection& connection) { return connection.SetConfiguration(configuration); });
    }

    std::unique_ptr<SimulatedService> service_;
};

TEST_F(ServiceAndFilter, EveryStateAndTransitionOfTheServiceConnection)
{
    // Not yet configured: nothing is managed, and there is nobody to ask.
    EXPECT_EQ(Observe(), (Observed{0, 0, STATUS_SUCCESS, STATUS_PORT_DISCONNECTED}));

    // Operating, configured by the service's arrival; its receiver answers the requests: the
    // exclusion query of alice's write to her folder (not excluded), then her request.
    ASSERT_EQ(service_->Arrive(), S_OK);
    EXPECT_EQ(Observe(), (Observed{0, 1, STATUS_ACCESS_DENIED, kAnswered}));
    EXPECT_TRUE(service_->WaitForRequestsAnswered(2));
    EXPECT_EQ(service_->requestsAnswered(), 2u);

    // Operating, with the configuration replaced whole: alice's folder writable, bob's read-only.
    ASSERT_EQ(Configure({.folders = {{kAlice, u"C:\\Data", false}, {kBob, u"C:\\Shared", true}}}), S_OK);
    EXPECT_EQ(Observe(), (Observed{0, 2, STATUS_SUCCESS, kAnswered}));
    EXPECT_EQ(WriteRoot(kBob, u"\\??\\C:\\Shared"), STATUS_ACCESS_DENIED);
    ASSERT_EQ(Configure(service_->configuration()), S_OK);

    // Operating, request channel lost: the configuration stands, requests fail.
    service_->Run([](FilterConnection& connection) { connection.DisconnectThreadPort(); });
    EXPECT_EQ(Observe(), (Observed{0, 1, STATUS_ACCESS_DENIED, STATUS_PORT_DISCONNECTED}));
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);

    // A new Thread port gives operating again.
    ASSERT_EQ(service_->ConnectThreadPort(), S_OK);
    EXPECT_EQ(Observe(), (Observed{0, 1, STATUS_ACCESS_DENIED, kAnswered}));

    // Pass-through, when the Config port goes: nothing is looked at, and nothing is asked. The
    // blacklist, the service process and the Thread port's count stay.
    PEPROCESS serviceProcess = g_ServiceData.ServiceProcess;
    service_->Run([](FilterConnection& connection) { connection.DisconnectConfigPort(); });
    EXPECT_EQ(Observe(), (Observed{1, 0, STATUS_SUCCESS, kAnswered}));
    EXPECT_NE(g_ProcessBlacklist, nullptr);
    EXPECT_EQ(g_ServiceData.ServiceProcess, serviceProcess);
    EXPECT_EQ(g_ServiceData.ClientPortDisconnectCount, 1u);

    // A Config port connection alone changes nothing.
    ASSERT_EQ(service_->Run([](FilterConnection& connection) { return connection.ConnectConfigPort(); }), S_OK);
    EXPECT_EQ(g_PassThrough, 1);

    // A configuration on the Thread port ends pass-through as well as one on the Config port.
    ASSERT_EQ(service_->Run([&](FilterConnection& connection) {
        ConfigurationMessage message;
        HRESULT built = ConfigurationMessage::Build(service_->configuration(), &message);
        DWORD returned = 0;
        return FAILED(built) ? built
                             : FilterSendMessage(connection.threadPort(), message.recordBuffer().data(),
                                                 message.recordBuffer().dwordSize(), nullptr, 0, &returned);
    }), S_OK);
    EXPECT_EQ(Observe(), (Observed{0, 1, STATUS_ACCESS_DENIED, kAnswered}));
}

TEST_F(ServiceAndFilter, LosingTheConfigPortFromAnyStateEntersPassThrough)
{
    // From not yet configured.
    ASSERT_EQ(service_->Run([](FilterConnection& connection) { return connection.ConnectConfigPort(); }), S_OK);
    service_->Leave();
    EXPECT_EQ(g_PassThrough, 1);

    // From operating with the request channel lost.
    ASSERT_EQ(service_->Arrive(), S_OK);
    EXPECT_EQ(g_PassThrough, 0);
    service_->Run([](FilterConnection& connection) { connection.DisconnectThreadPort(); });
    EXPECT_EQ(g_PassThrough, 0);
    service_->Leave();
    EXPECT_EQ(Observe(), (Observed{1, 0, STATUS_SUCCESS, STATUS_PORT_DISCONNECTED}));

    // A bad configuration still ends pass-through, leaving no rows.
    ASSERT_EQ(service_->Run([](FilterConnection& connection) { return connection.ConnectConfigPort(); }), S_OK);
    EXPECT_EQ(Configure({.folders = {{kAlice, u"C:\\Data", true}}, .version = 3}), E_INVALIDARG);
    EXPECT_EQ(g_PassThrough, 0);
    EXPECT_EQ(g_MergeFolderCount, 0u);
}

TEST_F(ServiceAndFilter, ConfigurationsAsTheServiceSendsThem)
{
    ASSERT_EQ(service_->Arrive(), S_OK);

    // Fifty folders are taken; fifty-one are refused after the table was cleared.
    Configuration many;
    many.folders.assign(49, {kBob, u"C:\\Shared", false});
    many.folders.push_back({kAlice, u"C:\\Data", true});
    ASSERT_EQ(Configure(many), S_OK);
    EXPECT_EQ(g_MergeFolderCount, 50u);
    EXPECT_EQ(WriteRoot(kAlice, u"\\??\\C:\\Data"), STATUS_ACCESS_DENIED);
    many.folders.push_back({kAlice, u"C:\\Data", true});
    EXPECT_EQ(Configure(many), E_INVALIDARG);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(WriteRoot(kAlice, u"\\??\\C:\\Data"), STATUS_SUCCESS);

    // Versions below 4 are refused; later ones are taken.
    EXPECT_EQ(Configure({.folders = {{kAlice, u"C:\\Data", true}}, .version = 3}), E_INVALIDARG);
    EXPECT_EQ(g_MergeFolderCount, 0u);
    EXPECT_EQ(Configure({.folders = {{kAlice, u"C:\\Data", true}}, .version = 5}), S_OK);
    EXPECT_EQ(g_MergeFolderCount, 1u);

    // A folder on a drive without a link is dropped alone; the blacklist's empty names are skipped,
    // and its processes pass the gate whatever their case.
    ASSERT_EQ(Configure({.folders = {{kAlice, u"C:\\Data", true}, {kBob, u"X:\\Lost", true}, {kBob, u"C:\\Shared", true}},
                         .blacklist = {u"", u"Tool.EXE", u"", u"sync.exe"}}),
              S_OK);
    EXPECT_EQ(g_MergeFolderCount, 2u);
    EXPECT_EQ(WriteRoot(kBob, u"\\??\\C:\\Shared"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(WriteRoot(kAlice, u"\\??\\C:\\Data", u"\\Device\\HarddiskVolume2\\Apps\\tool.exe"), STATUS_SUCCESS);
    EXPECT_EQ(WriteRoot(kAlice, u"\\??\\C:\\Data", u"\\Device\\HarddiskVolume2\\Apps\\SYNC.exe"), STATUS_SUCCESS);
    EXPECT_EQ(WriteRoot(kAlice, u"\\??\\C:\\Data", u"\\Device\\HarddiskVolume2\\Apps\\tool.exe.bak"),
              STATUS_ACCESS_DENIED);
}

TEST_F(ServiceAndFilter, TheDemoServiceVisitsAndLeavesTheFilterInPassThrough)
{
    volume_->SeedFile(u"\\Users\\alice\\Velmora\\notes.txt", "n");
    volume_->SeedFile(u"\\Users\\bob\\Velmora\\plan.txt", "p");
    constexpr char16_t kAliceRoot[] = u"\\??\\C:\\Users\\alice\\Velmora";
    constexpr char16_t kBobRoot[] = u"\\??\\C:\\Users\\bob\\Velmora";
    constexpr char16_t kIndexer[] = u"\\Device\\HarddiskVolume2\\Windows\\System32\\SearchIndexer.exe";

    HRESULT visit = service::VisitWithDemoService([&](SimulatedService& demo) {
        EXPECT_TRUE(demo.present());
        EXPECT_EQ(g_ServiceData.ServiceProcess, demo.process()->AsEprocess());
        EXPECT_EQ(WriteRoot(service::kDemoAliceSid, kAliceRoot), STATUS_ACCESS_DENIED);
        EXPECT_EQ(WriteRoot(service::kDemoBobSid, kBobRoot), STATUS_SUCCESS);
        EXPECT_EQ(WriteRoot(service::kDemoAliceSid, kAliceRoot, kIndexer), STATUS_SUCCESS);
    });
    ASSERT_EQ(visit, S_OK);
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(WriteRoot(service::kDemoAliceSid, kAliceRoot), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::ports::ConnectionCount(), 0u);

    // A second service can't arrive beside the first: the filter takes one port of each kind.
    ASSERT_EQ(service_->Arrive(), S_OK);
    SimulatedService second;
    EXPECT_EQ(second.Arrive(), HRESULT_FROM_WIN32(ERROR_CONNECTION_REFUSED));
    EXPECT_FALSE(second.present());
    EXPECT_EQ(g_ServiceData.ServiceProcess, service_->process()->AsEprocess());
    EXPECT_EQ(WriteRoot(kAlice, u"\\??\\C:\\Data"), STATUS_ACCESS_DENIED);
}

}  // namespace
}  // namespace foldermerge::testing
