// The filter's tracing through a real ETW session: turning it on and off by control message, the
// provider's three event descriptors, the six fields of the payload, the gate at each site, and a
// system without ETW.
#include "trace_fixture.hpp"

#include <fltUser.h>

#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/system.hpp>

#include <atomic>
#include <thread>

#include "driver/globals.h"

namespace foldermerge::testing {
namespace {

class FilterTracing : public TracedFilter {
protected:
    // One trace of each level, from this test.
    static void TraceEachLevel()
    {
        TRACE_INFO("an info event");
        TRACE_WARNING("a warning event");
        TRACE_ERROR("an error event");
    }

    // A session, tracing on, and the event of turning it on taken away.
    void StartTracing(const ntsim::etw::EnableParameters& parameters = {.level = 4, .matchAnyKeyword = kTraceKeyword})
    {
        StartSession(parameters);
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        TakeEvents();
    }

    std::vector<UCHAR> Levels()
    {
        std::vector<UCHAR> levels;
        for (const TraceEvent& event : TakeEvents()) {
            levels.push_back(event.level);
        }
        return levels;
    }
};

TEST_F(FilterTracing, TheServiceTurnsTracingOnAndOffWithControlMessageTwo)
{
    StartSession();
    size_t providers = ntsim::etw::RegisteredProviderCount();
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data"}}), STATUS_SUCCESS);
    EXPECT_TRUE(TakeMessages().empty()) << "tracing is off from the start";
    EXPECT_EQ(g_TraceProvider, nullptr);

    auto service = UserProcess(u"S-1-5-18", u"\\Device\\HarddiskVolume2\\Velmora\\service.exe");
    ntsim::AttachThread attach(service);
    HANDLE port = nullptr;
    ASSERT_EQ(FilterConnectCommunicationPort(FOLDERMERGE_PORT_NAME, 0, nullptr, 0, nullptr, &port), S_OK);
    auto send = [&](UCHAR enable, DWORD size) {
        auto* message = static_cast<SetTracingEnabledMessage*>(
            HeapAlloc(GetProcessHeap(), 0, sizeof(SetTracingEnabledMessage)));
        *message = {CONTROL_SET_TRACING_ENABLED, 0xFFFFFFFF, enable};
        DWORD returned = 0;
        HRESULT hr = FilterSendMessage(port, message, size, nullptr, 0, &returned);
        HeapFree(GetProcessHeap(), 0, message);
        return hr;
    };

    EXPECT_EQ(send(7, sizeof(SetTracingEnabledMessage)), S_OK) << "any non-zero bEnable turns tracing on";
    EXPECT_NE(g_TraceProvider, nullptr);
    EXPECT_EQ(send(1, sizeof(SetTracingEnabledMessage)), S_OK);
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), providers + 1) << "two enabling messages register once";
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{"Driver tracing enabled", "Driver tracing enabled"}));

    EXPECT_EQ(send(0, CONTROL_MESSAGE_MIN_SIZE), E_INVALIDARG) << "bEnable lies past an 8-byte message";
    EXPECT_NE(g_TraceProvider, nullptr);

    EXPECT_EQ(send(0, sizeof(SetTracingEnabledMessage)), S_OK);
    EXPECT_EQ(g_TraceProvider, nullptr);
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), providers);
    EXPECT_EQ(send(0, sizeof(SetTracingEnabledMessage)), S_OK) << "off when off changes nothing";
    TRACE_INFO("after tracing was turned off");
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{"Disabling driver tracing"}));
    CloseHandle(port);
}

TEST_F(FilterTracing, EachLevelHasItsOwnDescriptor)
{
    StartTracing({.level = 0, .matchAnyKeyword = kTraceKeyword});
    TraceEachLevel();
    auto records = session_->TakeEvents();
    ASSERT_EQ(records.size(), 3u);
    const EVENT_DESCRIPTOR expected[] = {{101, 0, 16, 4, 0, 2, kTraceKeyword},
                                         {102, 0, 16, 3, 0, 2, kTraceKeyword},
                                         {103, 0, 16, 2, 0, 2, kTraceKeyword}};
    for (size_t index = 0; index < 3; index++) {
        EXPECT_EQ(std::memcmp(&records[index].descriptor, &expected[index], sizeof(EVENT_DESCRIPTOR)), 0)
            << "event " << index << " has id " << records[index].descriptor.Id;
    }
}

TEST_F(FilterTracing, ThePayloadHasItsSixFields)
{
    StartTracing();
    ntsim::UnicodeStringHolder name(u"a.txt");
    TraceWrite(g_TraceProvider, &TRACE_DESCRIPTOR_INFO, "C:\\src\\filter\\create.cpp", 42, "FolderMerge_PreCreate",
               "Open of [%wZ] by %S for 0x%08x", name.get(), L"app.exe", 0x80u);
    auto records = session_->Events();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(ntsim::etw::FormatEvent(records[0], TRACE_EVENT_LAYOUT),
              "101 info | create.cpp | 42 | FolderMerge_PreCreate | 0 | Velmora_Driver.sys | "
              "Open of [a.txt] by app.exe for 0x00000080");
    EXPECT_EQ(records[0].fields[4].size(), 19u) << "the module name's Length + 1";

    // Missing texts, a path without a backslash, and a message past the limit.
    std::string longText(600, 'x');
    TraceWrite(g_TraceProvider, &TRACE_DESCRIPTOR_ERROR, nullptr, 1, nullptr, nullptr);
    TraceWrite(g_TraceProvider, &TRACE_DESCRIPTOR_ERROR, "/src/trace/trace.cpp", 2, "F", "%s", longText.c_str());
    records = session_->TakeEvents();
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(ntsim::etw::FormatEvent(records[1], TRACE_EVENT_LAYOUT),
              "103 error | NULL | 1 | NULL | 0 | Velmora_Driver.sys | NULL");
    EXPECT_EQ(records[1].fields[0].size(), 5u);
    EXPECT_EQ(FieldText(records[2].fields[0]), "/src/trace/trace.cpp");
    EXPECT_EQ(records[2].fields[5].size(), 512u);
    EXPECT_EQ(FieldText(records[2].fields[5]), longText.substr(0, 511));

    // A site's own source file, line and function.
    ULONG line = __LINE__ + 1;
    TRACE_WARNING("from the test");
    auto events = TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].file, __FILE__);
    EXPECT_EQ(events[0].line, line);
    EXPECT_EQ(events[0].function, "TestBody");
}

TEST_F(FilterTracing, TheGateFollowsTheSessionsLevelAndKeywords)
{
    ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
    StartSession();
    struct Case {
        ntsim::etw::EnableParameters session;
        std::vector<UCHAR> levels;  // of the events that pass, of info, warning, error
    };
    const std::vector<Case> cases = {
        {{.level = 3, .matchAnyKeyword = kTraceKeyword}, {3, 2}},
        {{.level = 0, .matchAnyKeyword = kTraceKeyword}, {4, 3, 2}},
        {{.level = 255, .matchAnyKeyword = kTraceKeyword}, {4, 3, 2}},
        {{.level = 2, .matchAnyKeyword = kTraceKeyword}, {2}},
        {{.level = 1, .matchAnyKeyword = kTraceKeyword}, {}},
        {{.level = 4, .matchAnyKeyword = 0x1}, {}},
        {{.level = 4, .matchAnyKeyword = 0}, {4, 3, 2}},  // ETW hands the provider every keyword
        {{.level = 4, .matchAnyKeyword = kTraceKeyword | 1}, {4, 3, 2}},
        {{.level = 4, .matchAnyKeyword = kTraceKeyword, .matchAllKeyword = 1}, {}},
        {{.level = 4, .matchAnyKeyword = kTraceKeyword, .matchAllKeyword = kTraceKeyword}, {4, 3, 2}},
    };
    for (const Case& test : cases) {
        session_->EnableProvider(TRACE_PROVIDER_GUID, test.session);
        TakeEvents();
        TraceEachLevel();
        EXPECT_EQ(Levels(), test.levels) << "level " << int(test.session.level) << ", any 0x" << std::hex
                                         << test.session.matchAnyKeyword << ", all 0x" << test.session.matchAllKeyword;
        std::vector<UCHAR> admitted;
        for (PCEVENT_DESCRIPTOR descriptor :
             {&TRACE_DESCRIPTOR_INFO, &TRACE_DESCRIPTOR_WARNING, &TRACE_DESCRIPTOR_ERROR}) {
            if (IsTraceEnabled(descriptor)) {
                admitted.push_back(descriptor->Level);
            }
        }
        EXPECT_EQ(admitted, test.levels) << "IsTraceEnabled is the same gate";
    }

    EXPECT_FALSE(IsTraceEnabled(nullptr));
    session_->EnableProvider(TRACE_PROVIDER_GUID, {.level = 4, .matchAnyKeyword = 0x1});
    const EVENT_DESCRIPTOR noKeyword = {1, 0, 0, 4, 0, 0, 0};
    EXPECT_TRUE(IsTraceEnabled(&noKeyword)) << "an event without keywords needs none";
}

TEST_F(FilterTracing, WithoutAnEnablingSessionNothingReachesEtwWrite)
{
    ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
    // From now on each call that reaches EtwWrite is failed and counted.
    ntsim::faults::FailRoutine("EtwWrite", STATUS_UNSUCCESSFUL, ntsim::faults::Persistence::Persistent);
    TraceEachLevel();
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 0u) << "registered, no session: the gate drops everything";

    StartSession();
    EXPECT_EQ(g_TraceProvider->Level, 4);
    EXPECT_EQ(g_TraceProvider->MatchAnyKeyword, kTraceKeyword);
    TraceEachLevel();
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 3u);

    session_.reset();  // the disabling callback
    EXPECT_EQ(g_TraceProvider->Level, 0);
    EXPECT_EQ(g_TraceProvider->MatchAnyKeyword, 0u);
    EXPECT_EQ(g_TraceProvider->MatchAllKeyword, 0u);
    TraceEachLevel();
    EXPECT_EQ(ntsim::faults::FailuresInjected(), 3u) << "traces stop once the session lets go";
}

TEST_F(FilterTracing, NothingIsTracedAbovePassiveLevel)
{
    StartTracing();
    for (KIRQL level : {APC_LEVEL, DISPATCH_LEVEL}) {
        KIRQL oldIrql;
        KeRaiseIrql(level, &oldIrql);
        TRACE_ERROR("above PASSIVE_LEVEL");
        KeLowerIrql(oldIrql);
    }
    TRACE_ERROR("at PASSIVE_LEVEL");
    EXPECT_EQ(TakeMessages(), (std::vector<std::string>{"at PASSIVE_LEVEL"}));
}

TEST_F(FilterTracing, ASystemWithoutEtwRunsTheFilterUntraced)
{
    ASSERT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    ntsim::ScopedHiddenSystemRoutine hidden(u"EtwWrite");
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    StartSession();
    size_t providers = ntsim::etw::RegisteredProviderCount();
    EXPECT_EQ(SetTracing(true), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(g_TraceProvider, nullptr);
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), providers) << "nothing is registered without all three";
    EXPECT_EQ(SetTracing(false), STATUS_SUCCESS);

    volume_->SeedFile(u"\\Data\\a.txt", "a");
    ASSERT_EQ(Configure({{kAlice, u"C:\\Data", true}}), STATUS_SUCCESS);
    auto alice = UserProcess(kAlice);
    ntsim::AttachThread attach(alice);
    EXPECT_EQ(OpenAndClose(u"\\??\\C:\\Data", FILE_WRITE_ATTRIBUTES, {.createOptions = FILE_DIRECTORY_FILE}).status,
              STATUS_ACCESS_DENIED)
        << "the filter works on";
    EXPECT_TRUE(TakeEvents().empty());
}

TEST_F(FilterTracing, EveryFailureWhileTurningTracingOnLeavesItOffOrWhole)
{
    StartSession();
    size_t providers = ntsim::etw::RegisteredProviderCount();
    size_t blocks = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount;
    for (uint64_t point = 1;; point++) {
        ntsim::faults::FailNthPoint(point, STATUS_INSUFFICIENT_RESOURCES);
        NTSTATUS status = SetTracing(true);
        auto injected = ntsim::faults::Injected();
        ntsim::faults::Reset();
        if (injected.empty()) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            // The record, EtwRegister, the module name's header, the name, the first event.
            EXPECT_GE(point, 6u);
            EXPECT_EQ(SetTracing(false), STATUS_SUCCESS);
            break;
        }
        SCOPED_TRACE("failing " + injected[0].routine + " at point " + std::to_string(point));
        if (status == STATUS_SUCCESS) {
            // A failed module name or a failed event leaves tracing on; the name is then missing.
            ASSERT_NE(g_TraceProvider, nullptr);
            bool nameFailed = injected[0].routine == "ExAllocatePoolWithTag" && injected[0].tag != FOLDERMERGE_POOL_TAG;
            EXPECT_TRUE(nameFailed || injected[0].routine == "EtwWrite");
            TakeEvents();
            TRACE_INFO("after the failure");
            auto events = TakeEvents();
            ASSERT_EQ(events.size(), 1u);
            EXPECT_EQ(events[0].module, nameFailed ? "NULL" : "Velmora_Driver.sys");
        } else {
            EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
            EXPECT_EQ(g_TraceProvider, nullptr);
            EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), providers);
        }
        EXPECT_EQ(SetTracing(false), STATUS_SUCCESS);
        EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), providers);
        EXPECT_EQ(ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG).liveCount, blocks) << "nothing of tracing is left";
    }
}

TEST_F(FilterTracing, UnloadEndsTracing)
{
    StartSession();
    size_t providers = ntsim::etw::RegisteredProviderCount();
    ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
    ASSERT_EQ(ntsim::etw::RegisteredProviderCount(), providers + 1);
    TakeEvents();
    ASSERT_EQ(ntsim::UnloadFilter(kFilterName), STATUS_SUCCESS);
    loaded_ = false;
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), providers);
    auto events = TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].function, "FolderMerge_Unload");
    EXPECT_EQ(events[0].message, "FolderMerge_Unload");
}

TEST_F(FilterTracing, TurningTracingOffWhileOtherThreadsTraceIsSafe)
{
    StartSession();
    std::atomic<bool> stop{false};
    std::vector<std::thread> writers;
    for (int index = 0; index < 3; index++) {
        writers.emplace_back([&] {
            while (!stop) {
                TRACE_INFO("busy");
            }
        });
    }
    for (int round = 0; round < 200; round++) {
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        ASSERT_EQ(SetTracing(false), STATUS_SUCCESS);
    }
    stop = true;
    for (auto& writer : writers) {
        writer.join();
    }
    for (const TraceEvent& event : TakeEvents()) {
        ASSERT_EQ(event.module, "Velmora_Driver.sys") << "an event written from a live record";
    }
}

TEST_F(FilterTracing, SessionsComingAndGoingWhileTracingIsTurnedOffNeitherBlockNorTouchAFreedRecord)
{
    // The enable callback runs in the session's thread; tracing turned off meanwhile unregisters
    // the provider and frees the record that callback is given.
    std::atomic<bool> stop{false};
    std::thread sessions([&] {
        while (!stop) {
            ntsim::etw::Session session;
            session.EnableProvider(TRACE_PROVIDER_GUID, {.level = 4, .matchAnyKeyword = kTraceKeyword});
            session.EnableProvider(TRACE_PROVIDER_GUID, {.level = 2, .matchAnyKeyword = kTraceKeyword});
        }
    });
    for (int round = 0; round < 300; round++) {
        ASSERT_EQ(SetTracing(true), STATUS_SUCCESS);
        ASSERT_EQ(SetTracing(false), STATUS_SUCCESS);
    }
    stop = true;
    sessions.join();
    EXPECT_EQ(g_TraceProvider, nullptr);
    EXPECT_FALSE(IsTraceEnabled(&TRACE_DESCRIPTOR_ERROR));
}

}  // namespace
}  // namespace foldermerge::testing
