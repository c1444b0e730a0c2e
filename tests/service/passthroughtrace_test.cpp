// Pass-through mode as the filter's traces show it: the service's Config port going away enters
// it with one line, the next configuration ends it with one line, and a configuration that finds
// the filter out of pass-through mode writes neither.
#include "../filter/trace_fixture.hpp"

#include <foldermerge/service/simulated_service.hpp>

#include "driver/globals.h"

namespace foldermerge::testing {
namespace {

using service::FilterConnection;
using service::SimulatedService;

class PassThroughTraces : public TracedFilter {
protected:
    void SetUp() override
    {
        TracedFilter::SetUp();
        StartSession();
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
        service_ = std::make_unique<SimulatedService>(service::SimulatedServiceOptions{
            .configuration = {.folders = {{kAlice, u"C:\\Data", true}}}});
        volume_->SeedDirectory(u"\\Data");
    }

    void TearDown() override
    {
        service_.reset();
        TracedFilter::TearDown();
    }

    // The port notifications' lines since the last call, with the function that wrote each.
    std::vector<std::string> PortLines()
    {
        std::vector<std::string> lines;
        for (const TraceEvent& event : TakeEvents()) {
            if (event.function.starts_with("FolderMergeService_")) {
                lines.push_back(event.function + ": " + event.message);
            }
        }
        return lines;
    }

    using Lines = std::vector<std::string>;
    std::unique_ptr<SimulatedService> service_;
};

TEST_F(PassThroughTraces, EnteringAndLeavingPassThroughModeAreEachTracedOnce)
{
    // The first configuration finds the filter out of pass-through mode: no mode line.
    ASSERT_EQ(service_->Arrive(), S_OK);
    EXPECT_EQ(PortLines(), Lines{});
    ASSERT_EQ(service_->Run([&](FilterConnection& connection) {
        return connection.SetConfiguration(service_->configuration());
    }), S_OK);
    EXPECT_EQ(PortLines(), Lines{});

    service_->Leave();
    EXPECT_EQ(g_PassThrough, 1);
    EXPECT_EQ(PortLines(), (Lines{"FolderMergeService_Disconnect: Thread port disconnected",
                                  "FolderMergeService_Disconnect: Config port disconnected",
                                  "FolderMergeService_Disconnect: ENTERING PASS-THROUGH MODE"}));

    // The next arrival's configuration ends it, with one line; the one after that finds it ended.
    ASSERT_EQ(service_->Arrive(), S_OK);
    EXPECT_EQ(g_PassThrough, 0);
    EXPECT_EQ(PortLines(), (Lines{"FolderMergeService_Message: EXITING PASS-THROUGH MODE"}));
    ASSERT_EQ(service_->Run([&](FilterConnection& connection) {
        return connection.SetConfiguration(service_->configuration());
    }), S_OK);
    EXPECT_EQ(PortLines(), Lines{});
}

}  // namespace
}  // namespace foldermerge::testing
