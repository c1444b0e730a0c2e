// Event tracing: providers and their enable callbacks, sessions that enable them with a level and
// keywords, the delivery of EtwWrite's events, and their decoding into lines.
#include <gtest/gtest.h>

#include <ntsim/sim/clock.hpp>
#include <ntsim/sim/etw.hpp>
#include <ntsim/sim/faults.hpp>
#include <ntsim/sim/system.hpp>
#include <ntsim/sim/text.hpp>
#include <wdm.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr GUID kProvider = {0x11111111, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kOtherProvider = {0x99999999, 0x2222, 0x3333, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr ULONGLONG kBit63 = 0x8000000000000000ull;

struct Notification {
    GUID source;
    ULONG code;
    UCHAR level;
    ULONGLONG matchAny;
    ULONGLONG matchAll;
    bool filterDataNull = true;
    bool operator==(const Notification& other) const
    {
        return IsEqualGUID(source, other.source) && code == other.code && level == other.level &&
               matchAny == other.matchAny && matchAll == other.matchAll && filterDataNull == other.filterDataNull;
    }
    friend std::ostream& operator<<(std::ostream& stream, const Notification& n)
    {
        return stream << "code " << n.code << ", level " << int(n.level) << std::hex << ", any 0x" << n.matchAny
                      << ", all 0x" << n.matchAll << (n.filterDataNull ? "" : ", filter data");
    }
};

// What an enable callback for kProvider is told.
Notification Enabled(UCHAR level, ULONGLONG matchAny, ULONGLONG matchAll)
{
    return {kProvider, EVENT_CONTROL_CODE_ENABLE_PROVIDER, level, matchAny, matchAll};
}

// What a provider's enable callback was told, in order.
struct Provider {
    std::vector<Notification> notifications;
    REGHANDLE handle = 0;

    static VOID NTAPI Callback(LPCGUID source, ULONG code, UCHAR level, ULONGLONG matchAny, ULONGLONG matchAll,
                               PEVENT_FILTER_DESCRIPTOR filterData, PVOID context)
    {
        static_cast<Provider*>(context)->notifications.push_back(
            {*source, code, level, matchAny, matchAll, filterData == nullptr});
    }

    NTSTATUS Register(const GUID& guid = kProvider) { return EtwRegister(&guid, &Callback, this, &handle); }
    ~Provider()
    {
        if (handle != 0) {
            EtwUnregister(handle);
        }
    }
    const Notification& Last() const { return notifications.back(); }
};

EVENT_DESCRIPTOR Descriptor(USHORT id, UCHAR level, ULONGLONG keyword)
{
    return {id, 0, 16, level, 0, 2, keyword};
}

NTSTATUS Write(REGHANDLE handle, const EVENT_DESCRIPTOR& descriptor, const char* text = "x")
{
    EVENT_DATA_DESCRIPTOR field;
    EventDataDescCreate(&field, text, static_cast<ULONG>(std::strlen(text) + 1));
    return EtwWrite(handle, &descriptor, nullptr, 1, &field);
}

std::vector<USHORT> Ids(const std::vector<ntsim::etw::EventRecord>& events)
{
    std::vector<USHORT> ids;
    for (const auto& event : events) {
        ids.push_back(event.descriptor.Id);
    }
    return ids;
}

TEST(EtwEnableCallback, ASessionThatCameFirstIsAnnouncedDuringRegistration)
{
    ntsim::etw::Session session;
    session.EnableProvider(kProvider, {.level = 3, .matchAnyKeyword = kBit63, .matchAllKeyword = kBit63});
    Provider provider;
    ASSERT_EQ(provider.Register(), STATUS_SUCCESS);
    EXPECT_NE(provider.handle, 0u);
    ASSERT_EQ(provider.notifications.size(), 1u) << "the callback runs inside EtwRegister";
    EXPECT_EQ(provider.Last(), Enabled(3, kBit63, kBit63));

    Provider unwatched;
    ASSERT_EQ(unwatched.Register(kOtherProvider), STATUS_SUCCESS);
    EXPECT_TRUE(unwatched.notifications.empty()) << "no session enables this GUID";
}

TEST(EtwEnableCallback, SessionsAreCombinedAndTheLastOneToLeaveDisables)
{
    Provider provider;
    ASSERT_EQ(provider.Register(), STATUS_SUCCESS);
    EXPECT_TRUE(provider.notifications.empty());
    {
        ntsim::etw::Session errors;
        errors.EnableProvider(kProvider, {.level = 2, .matchAnyKeyword = 0x1, .matchAllKeyword = 0x3});
        ASSERT_EQ(provider.notifications.size(), 1u) << "enabling calls the callback in the enabling thread";
        EXPECT_EQ(provider.Last(), Enabled(2, 0x1, 0x3));
        {
            ntsim::etw::Session verbose;
            verbose.EnableProvider(kProvider, {.level = 5, .matchAnyKeyword = 0x4, .matchAllKeyword = 0x1});
            EXPECT_EQ(provider.Last(), Enabled(5, 0x5, 0x1)) << "the highest level, the union, the intersection";

            verbose.EnableProvider(kProvider, {.level = 0, .matchAnyKeyword = 0x4});
            EXPECT_EQ(provider.Last().level, 0) << "a session at level 0 wants everything";
            EXPECT_EQ(provider.Last().matchAll, 0u);
        }
        EXPECT_EQ(provider.Last(), Enabled(2, 0x1, 0x3)) << "one session still enables the provider";

        EXPECT_FALSE(errors.DisableProvider(kOtherProvider));
        size_t before = provider.notifications.size();
        EXPECT_TRUE(errors.DisableProvider(kProvider));
        ASSERT_EQ(provider.notifications.size(), before + 1);
        EXPECT_EQ(provider.Last(), (Notification{kProvider, EVENT_CONTROL_CODE_DISABLE_PROVIDER, 0, 0, 0}));
        errors.EnableProvider(kProvider, {.level = 4, .matchAnyKeyword = kBit63});
    }
    EXPECT_EQ(provider.Last().code, ULONG(EVENT_CONTROL_CODE_DISABLE_PROVIDER)) << "closing a session disables";
}

TEST(EtwEnableCallback, ASessionAskingForNoKeywordGivesTheProviderEveryKeyword)
{
    Provider provider;
    ASSERT_EQ(provider.Register(), STATUS_SUCCESS);
    ntsim::etw::Session any;
    any.EnableProvider(kProvider, {.level = 4});
    EXPECT_EQ(provider.Last().matchAny, ~0ull) << "0 stands for every keyword";
    ntsim::etw::Session narrow;
    narrow.EnableProvider(kProvider, {.level = 4, .matchAnyKeyword = 0x1});
    EXPECT_EQ(provider.Last().matchAny, ~0ull) << "the union with every keyword";
    any.DisableProvider(kProvider);
    EXPECT_EQ(provider.Last().matchAny, 0x1u);
}

TEST(EtwRegistration, UnregisteredProvidersHearAndWriteNothing)
{
    size_t registered = ntsim::etw::RegisteredProviderCount();
    Provider provider;
    ASSERT_EQ(provider.Register(), STATUS_SUCCESS);
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), registered + 1);
    REGHANDLE handle = provider.handle;
    ASSERT_EQ(EtwUnregister(handle), STATUS_SUCCESS);
    provider.handle = 0;
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), registered);
    EXPECT_EQ(EtwUnregister(handle), STATUS_INVALID_HANDLE);

    ntsim::etw::Session session;
    session.EnableProvider(kProvider, {});
    EXPECT_TRUE(provider.notifications.empty());
    EXPECT_EQ(Write(handle, Descriptor(1, 4, 0)), STATUS_INVALID_HANDLE);
    EXPECT_TRUE(session.Events().empty());

    REGHANDLE untouched = 77;
    EXPECT_EQ(EtwRegister(nullptr, &Provider::Callback, &provider, &untouched), STATUS_INVALID_PARAMETER);
    ntsim::faults::FailRoutine("EtwRegister", STATUS_NO_MEMORY);
    EXPECT_EQ(provider.Register(), STATUS_NO_MEMORY);
    EXPECT_EQ(provider.handle, 0u);
    EXPECT_EQ(ntsim::etw::RegisteredProviderCount(), registered);
}

TEST(EtwRegistration, UnregisterWaitsForACallbackRunningInAnotherThread)
{
    struct Blocking {
        std::atomic<bool> entered{false};
        std::atomic<bool> release{false};
        static VOID NTAPI Callback(LPCGUID, ULONG, UCHAR, ULONGLONG, ULONGLONG, PEVENT_FILTER_DESCRIPTOR, PVOID context)
        {
            auto* self = static_cast<Blocking*>(context);
            self->entered = true;
            while (!self->release) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
    } blocking;
    REGHANDLE handle = 0;
    ASSERT_EQ(EtwRegister(&kProvider, &Blocking::Callback, &blocking, &handle), STATUS_SUCCESS);
    ntsim::etw::Session session;
    std::thread enabler([&] { session.EnableProvider(kProvider, {}); });
    while (!blocking.entered) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::atomic<bool> unregistered{false};
    std::thread unregisterer([&] {
        EXPECT_EQ(EtwUnregister(handle), STATUS_SUCCESS);
        unregistered = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(unregistered) << "EtwUnregister returned while its callback still ran";
    blocking.release = true;
    unregisterer.join();
    enabler.join();
    EXPECT_TRUE(unregistered);
}

TEST(EtwWrite, EachSessionGetsTheEventsItsLevelAndKeywordsAdmit)
{
    Provider provider;
    ASSERT_EQ(provider.Register(), STATUS_SUCCESS);
    ntsim::etw::Session warnings;  // level 3, bit 63 required
    warnings.EnableProvider(kProvider, {.level = 3, .matchAnyKeyword = kBit63, .matchAllKeyword = kBit63});
    ntsim::etw::Session everything;  // level 0, every keyword
    everything.EnableProvider(kProvider, {});
    ntsim::etw::Session elsewhere;
    elsewhere.EnableProvider(kOtherProvider, {});

    // Info, warning, error, an error without bit 63, and an event of level and keyword 0 that always passes.
    for (EVENT_DESCRIPTOR descriptor : {Descriptor(1, 4, kBit63), Descriptor(2, 3, kBit63),
                                        Descriptor(3, 2, kBit63 | 1), Descriptor(4, 2, 1), Descriptor(5, 0, 0)}) {
        EXPECT_EQ(Write(provider.handle, descriptor), STATUS_SUCCESS) << descriptor.Id;
    }
    EXPECT_EQ(Ids(warnings.Events()), (std::vector<USHORT>{2, 3, 5}));
    EXPECT_EQ(Ids(everything.Events()), (std::vector<USHORT>{1, 2, 3, 4, 5}));
    EXPECT_TRUE(elsewhere.Events().empty());

    EXPECT_EQ(Ids(everything.TakeEvents()).size(), 5u);
    EXPECT_TRUE(everything.Events().empty());
    warnings.EnableProvider(kProvider, {.level = 5, .matchAnyKeyword = 1});
    EXPECT_EQ(Write(provider.handle, Descriptor(6, 4, 1)), STATUS_SUCCESS);
    EXPECT_EQ(Ids(warnings.TakeEvents()), (std::vector<USHORT>{2, 3, 5, 6})) << "new parameters apply at once";
}

TEST(EtwWrite, ThePayloadIsCopiedWithTheWritersIdentity)
{
    Provider provider;
    ASSERT_EQ(provider.Register(), STATUS_SUCCESS);
    ntsim::etw::Session session;
    session.EnableProvider(kProvider, {});
    ntsim::clock::Advance(5 * ntsim::clock::kSecond);

    char text[] = "abc";
    ULONG number = 0x01020304;
    EVENT_DATA_DESCRIPTOR fields[3];
    EventDataDescCreate(&fields[0], text, sizeof(text));
    EventDataDescCreate(&fields[1], &number, sizeof(number));
    EventDataDescCreate(&fields[2], nullptr, 0);
    const GUID activity = kOtherProvider;
    EVENT_DESCRIPTOR descriptor = Descriptor(101, 4, kBit63);
    ASSERT_EQ(EtwWrite(provider.handle, &descriptor, &activity, 3, fields), STATUS_SUCCESS);
    text[0] = 'z';

    auto events = session.Events();
    ASSERT_EQ(events.size(), 1u);
    const auto& event = events[0];
    EXPECT_TRUE(IsEqualGUID(event.provider, kProvider));
    EXPECT_EQ(std::memcmp(&event.descriptor, &descriptor, sizeof(descriptor)), 0);
    EXPECT_TRUE(IsEqualGUID(event.activityId, kOtherProvider));
    EXPECT_EQ(event.processId, PsGetCurrentProcessId());
    EXPECT_EQ(event.threadId, PsGetCurrentThreadId());
    EXPECT_EQ(event.timestamp, ntsim::clock::kStart + 5 * ntsim::clock::kSecond);
    ASSERT_EQ(event.fields.size(), 3u);
    EXPECT_EQ(event.fields[0], (std::vector<uint8_t>{'a', 'b', 'c', 0})) << "copied when written";
    EXPECT_EQ(event.fields[1], (std::vector<uint8_t>{4, 3, 2, 1}));
    EXPECT_TRUE(event.fields[2].empty());

    EXPECT_EQ(EtwWrite(provider.handle, nullptr, nullptr, 0, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(EtwWrite(provider.handle, &descriptor, nullptr, 1, nullptr), STATUS_INVALID_PARAMETER);
    std::vector<EVENT_DATA_DESCRIPTOR> many(MAX_EVENT_DATA_DESCRIPTORS + 1, fields[1]);
    EXPECT_EQ(EtwWrite(provider.handle, &descriptor, nullptr, ULONG(many.size()), many.data()),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(session.Events().size(), 1u);
}

TEST(EtwSystemRoutines, AreExportedFromTheStartAndFoundByNameUnlessHidden)
{
    for (auto [name, routine] : {std::pair<const char*, PVOID>{"EtwWrite", reinterpret_cast<PVOID>(&EtwWrite)},
                                 {"EtwRegister", reinterpret_cast<PVOID>(&EtwRegister)},
                                 {"EtwUnregister", reinterpret_cast<PVOID>(&EtwUnregister)}}) {
        ntsim::UnicodeStringHolder text(name);
        EXPECT_EQ(MmGetSystemRoutineAddress(text.get()), routine) << name;
    }
    ntsim::UnicodeStringHolder write("EtwWrite");
    ntsim::ScopedHiddenSystemRoutine hidden(u"EtwWrite");
    EXPECT_EQ(MmGetSystemRoutineAddress(write.get()), nullptr);
}

TEST(EtwDecoder, PrintsEachFieldByItsLetterAndMarksMalformedOnes)
{
    ntsim::etw::EventRecord event;
    event.descriptor = Descriptor(102, 3, kBit63);
    const char16_t wide[] = u"\u00e9t\u00e9";
    event.fields = {{'a', '.', 'c', 0},
                    {0x2A, 0, 0, 0},
                    {0xFF, 0, 0, 0},
                    {1, 0, 0, 0, 0, 0, 0, 0},
                    {0x10, 0, 0, 0, 0, 0, 0, 0},
                    std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(wide),
                                         reinterpret_cast<const uint8_t*>(wide) + sizeof(wide)),
                    {0xAB, 0x01}};
    EXPECT_EQ(ntsim::etw::FormatEvent(event, "suxUXSb"),
              "102 warning | a.c | 42 | 0xff | 1 | 0x10 | \xC3\xA9t\xC3\xA9 | ab01");

    event.fields = {{'n', 'o'}, {'a', 0, 'b', 0}, {1, 2, 3}, {7, 0, 0, 0}};
    EXPECT_EQ(ntsim::etw::FormatEvent(event, "ssu"),
              "102 warning | <bad:6e6f> | <bad:61006200> | <bad:010203> | <bad:07000000>")
        << "no terminator, text past its terminator, a u32 of 3 bytes, a field the layout doesn't have";
    event.fields = {{'x', 0}};
    EXPECT_EQ(ntsim::etw::FormatEvent(event, "su"), "102 warning | x | <missing>");

    ntsim::etw::EventRecord other = event;
    other.provider = kOtherProvider;
    event.provider = kProvider;
    event.descriptor.Level = 9;
    EXPECT_EQ(ntsim::etw::FormatEvents({event, other}, kProvider, "s"), (std::vector<std::string>{"102 9 | x"}));
    EXPECT_EQ(ntsim::etw::LevelName(1), "critical");
    EXPECT_EQ(ntsim::etw::LevelName(5), "verbose");
}

}  // namespace
