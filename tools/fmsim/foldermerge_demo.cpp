// fmsim demo: FolderMerge on ntsim, told from what happens. C: (NTFS), D: (FAT) and the MUP device;
// the filter loaded over them; a service that connects both ports, turns tracing on and configures
// two users' folders and a blacklist; opens by users, processes and modes, each with what its
// caller got, the gate's trace lines for it and the verdict read from the two; the Config port's
// departure and the same opens in pass-through mode; the next configuration; the driver's requests
// crossing the Thread port to a scripted service and its replies; the road of one open, from the
// caller's open to its close, beside the requests it makes; the service's departure; and the
// unload, with the pool accounting of the filter's tag.
//
// Every result printed is one the run produced. Each is compared with what the filter should give;
// any difference is marked on its line and the scene exits with 1.
#include "demo_requests.hpp"
#include "demo_road.hpp"
#include "describe.hpp"
#include "expectations.hpp"
#include "gate_opens.hpp"
#include "gate_traces.hpp"
#include "scenes.hpp"

#include "commands.hpp"

#include <foldermerge/service/configuration_file.hpp>
#include <foldermerge/service/simulated_service.hpp>

#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/mup.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/pool.hpp>
#include <ntsim/sim/ports.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include "driver/globals.h"
#include "driver/lifecycle.h"
#include "driver/ownedstring.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace fmsim {

namespace {

using gate::Caller;
using gate::OpenRequest;
using gate::OpenResult;
using gate::Verdict;

constexpr char16_t kSystemVolume[] = u"\\Device\\HarddiskVolume2";
constexpr char16_t kFatVolume[] = u"\\Device\\HarddiskVolume3";
constexpr char16_t kFilterName[] = u"FolderMerge";
constexpr char16_t kAltitude[] = u"185200";  // the INF's instance altitude

void PrintTraces(std::ostream& out, const std::vector<gate::TraceLine>& lines, const char* indent = "      ")
{
    for (const gate::TraceLine& line : lines) {
        out << indent << "trace   " << line.function << " (" << line.level << "): " << line.message << "\n";
    }
}

std::vector<std::string> Messages(const std::vector<gate::TraceLine>& lines)
{
    std::vector<std::string> messages;
    for (const gate::TraceLine& line : lines) {
        messages.push_back(line.message);
    }
    return messages;
}

std::string ImageName(const Caller& caller)
{
    const std::u16string& image = caller.process->ImageFileName();
    const size_t slash = image.rfind(u'\\');
    return ntsim::ToUtf8(slash == std::u16string::npos ? image : image.substr(slash + 1));
}

// One open of the demonstration and what it should give, with the filter managing and in
// pass-through mode.
struct OpenCase {
    std::string title;
    Caller caller;
    OpenRequest request;
    std::string accessText;
    Verdict managedVerdict;
    NTSTATUS managedStatus;
    NTSTATUS passThroughStatus;
    // An open by another caller that stands while this one is made.
    const Caller* holder = nullptr;
    OpenRequest held;
};

class DemoRun {
public:
    DemoRun(std::ostream& out, gate::GateTraces& traces) : out_(out), traces_(traces), expect_(out) {}

    Expectations& expect() { return expect_; }

    void Heading(const std::string& text) { out_ << "\n== " << text << "\n\n"; }

    // Runs one open and prints the caller's view, the trace lines and the verdict.
    void Run(const OpenCase& open, bool passThrough)
    {
        out_ << "  " << open.title << "\n"
             << "    " << open.caller.name << " (" << ImageName(open.caller) << ", "
             << (open.caller.mode == KernelMode ? "kernel" : "user") << " mode) opens "
             << ntsim::ToUtf8(open.request.path) << " for " << open.accessText << " ("
             << Hex(open.request.access) << ")\n";
        HANDLE held = nullptr;
        if (open.holder != nullptr) {
            const OpenResult holding = gate::Open(*open.holder, open.held, &held);
            traces_.Take();
            expect_.Line("      ", "while " + open.holder->name + " holds it open for reading, sharing reads only: ",
                         StatusName(holding.status), StatusName(STATUS_SUCCESS));
        }
        traces_.Take();
        const OpenResult result = gate::OpenAndClose(open.caller, open.request);
        const std::vector<gate::TraceLine> lines = traces_.Take();
        if (held != nullptr) {
            gate::Close(*open.holder, held);
            traces_.Take();
        }
        PrintTraces(out_, lines);
        const NTSTATUS expectedStatus = passThrough ? open.passThroughStatus : open.managedStatus;
        const std::string information =
            NT_SUCCESS(result.status) ? ", " + CreateResultName(result.information) : std::string();
        expect_.Line("      ", "caller  ", StatusName(result.status) + information,
                     StatusName(expectedStatus) +
                         (NT_SUCCESS(expectedStatus) ? ", " + CreateResultName(FILE_OPENED) : std::string()));
        const Verdict verdict = gate::Judge(open.request, result, Messages(lines));
        expect_.Line("      ", "gate    ", gate::VerdictName(verdict),
                     gate::VerdictName(passThrough ? Verdict::LeftAlone : open.managedVerdict));
        out_ << "\n";
    }

    void Traces(const std::vector<gate::TraceLine>& lines) { PrintTraces(out_, lines, "    "); }

private:
    std::ostream& out_;
    gate::GateTraces& traces_;
    Expectations expect_;
};

// The filter's instance on a volume, by name, as FltGetVolumeInstanceFromName finds it.
NTSTATUS FindInstance(std::u16string_view volumeName)
{
    ntsim::UnicodeStringHolder name(volumeName);
    PFLT_VOLUME volume = nullptr;
    NTSTATUS status = FltGetVolumeFromName(g_ServiceData.FilterHandle, name.get(), &volume);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PFLT_INSTANCE instance = nullptr;
    status = FltGetVolumeInstanceFromName(g_ServiceData.FilterHandle, volume, nullptr, &instance);
    if (NT_SUCCESS(status)) {
        FltObjectDereference(instance);
    }
    FltObjectDereference(volume);
    return status;
}

// "C:\\Users\\alice\\Velmora" as a path on the volume ("\\Users\\alice\\Velmora"), and as an NT path.
std::u16string OnVolume(const std::u16string& drivePath)
{
    return drivePath.substr(2);
}
std::u16string NtPath(const std::u16string& drivePath)
{
    return u"\\??\\" + drivePath;
}

}  // namespace

int FolderMergeDemo(std::span<const std::string> arguments, std::ostream& out)
{
    if (!arguments.empty()) {
        out << "fmsim demo takes no arguments\n";
        return 2;
    }

    // The service's configuration: alice's folder read-only at its root, bob's writable, and a
    // blacklist with backup.exe.
    const foldermerge::service::Configuration configuration = foldermerge::service::DemoConfiguration();
    const auto& blacklist = configuration.blacklist;
    if (configuration.folders.size() != 2 || !configuration.folders[0].readOnly || configuration.folders[1].readOnly ||
        std::find(blacklist.begin(), blacklist.end(), u"backup.exe") == blacklist.end()) {
        out << "fmsim: the service's demonstration configuration is not the one this scene is written for\n";
        return 1;
    }
    const std::u16string& aliceSid = configuration.folders[0].sid;
    const std::u16string& bobSid = configuration.folders[1].sid;
    const std::u16string aliceFolder = configuration.folders[0].path;  // C:\Users\alice\Velmora
    const std::u16string bobFolder = configuration.folders[1].path;
    const std::u16string alicePlan = aliceFolder + u"\\plan.txt";

    auto system = ntsim::CreateNtfsVolume(kSystemVolume);
    system->SeedFile(OnVolume(alicePlan), "alice's plan");
    system->SeedFile(OnVolume(aliceFolder) + u"\\Cache\\thumbs.db", "thumbnails");
    system->SeedFile(OnVolume(bobFolder) + u"\\notes.txt", "bob's notes");
    system->SeedFile(u"\\Windows\\win.ini", "[fonts]\r\n");
    auto fat = ntsim::CreateFatVolume(kFatVolume);
    fat->SeedFile(u"\\photo.jpg", "jpeg");
    if (ntsim::MountVolume(system, u"C:") != STATUS_SUCCESS || ntsim::MountVolume(fat, u"D:") != STATUS_SUCCESS ||
        ntsim::MountMup() != STATUS_SUCCESS) {
        out << "fmsim: the volumes could not be mounted\n";
        return 1;
    }

    out << "FolderMerge on ntsim\n"
        << "  (the platform alone, as a logging filter sees a process's file calls: fmsim platform-demo)\n";

    gate::GateTraces traces;
    DemoRun scene(out, traces);
    Expectations& expect = scene.expect();

    // ---- the filter loads ----
    scene.Heading("FolderMerge loads");
    out << "  volumes: C: " << ntsim::ToUtf8(kSystemVolume) << " NTFS, D: " << ntsim::ToUtf8(kFatVolume)
        << " FAT, \\Device\\Mup (UNC)\n";
    const NTSTATUS loaded = ntsim::LoadFilter(
        DriverEntry, {.name = kFilterName, .altitude = kAltitude, .poolTags = {FOLDERMERGE_POOL_TAG}});
    expect.Line("  ", "LoadFilter FolderMerge at altitude 185200: ", StatusName(loaded), StatusName(STATUS_SUCCESS));
    if (!NT_SUCCESS(loaded)) {
        ntsim::DismountMup();
        ntsim::DismountVolume(kFatVolume);
        ntsim::DismountVolume(kSystemVolume);
        return 1;
    }
    auto instanceText = [](NTSTATUS status) {
        return NT_SUCCESS(status) ? std::string("instance attached") : "no instance (" + StatusName(status) + ")";
    };
    expect.Line("  ", "C: NTFS           ", instanceText(FindInstance(u"C:")), instanceText(STATUS_SUCCESS));
    expect.Line("  ", "\\Device\\Mup       ", instanceText(FindInstance(u"\\Device\\Mup")),
                instanceText(STATUS_SUCCESS));
    expect.Line("  ", "D: FAT            ", instanceText(FindInstance(u"D:")),
                instanceText(STATUS_FLT_INSTANCE_NOT_FOUND));

    // ---- the service connects and configures ----
    const std::u16string portName(reinterpret_cast<const char16_t*>(FOLDERMERGE_PORT_NAME));
    {
        foldermerge::service::SimulatedService service;
        scene.Heading("The service connects both ports, turns tracing on and configures the filter");
        out << "  " << ntsim::ToUtf8(service.process()->ImageFileName()) << ", pid "
            << reinterpret_cast<uintptr_t>(service.process()->Id()) << ", "
            << ntsim::ToUtf8(foldermerge::service::SimulatedServiceOptions{}.userSid) << "\n";
        expect.Line("  ", "Thread port (4-byte context), answering requests: ", HresultName(service.ConnectThreadPort()),
                    "S_OK");
        expect.Line("  ", "Config port (no context):     ",
                    HresultName(service.Run([](auto& connection) { return connection.ConnectConfigPort(); })), "S_OK");
        expect.Line("  ", "connections on " + ntsim::ToUtf8(portName) + ": ",
                    std::to_string(ntsim::ports::ConnectionCount(portName)), "2");
        // The console tool an administrator runs, on the service's Config port.
        const std::string configurationText = foldermerge::service::FormatConfigurationText(configuration);
        const std::vector<std::string> commands = {"trace", "on", "configure", "-"};
        out << "  fmctl, the console tool, in the service's process: fmctl trace on configure -\n"
               "  with this configuration file on its standard input:\n";
        std::string line;
        for (std::istringstream lines(configurationText); std::getline(lines, line);) {
            out << "    | " << line << "\n";
        }
        std::ostringstream toolOutput;
        const int toolStatus = service.Run([&](auto& connection) {
            std::istringstream input(configurationText);
            return fmctl::RunCommands(connection, commands, input, toolOutput);
        });
        for (std::istringstream lines(toolOutput.str()); std::getline(lines, line);) {
            out << "    fmctl: " << line << "\n";
        }
        expect.Line("  ", "fmctl's exit status: ", std::to_string(toolStatus), "0");
        scene.Traces(traces.Take());

        // ---- opens ----
        auto alice = ntsim::CreateProcess(
            {.imageFileName = u"\\Device\\HarddiskVolume2\\Windows\\explorer.exe", .userSid = aliceSid});
        auto aliceBackup = ntsim::CreateProcess(
            {.imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\Backup\\backup.exe", .userSid = aliceSid});
        auto bob = ntsim::CreateProcess(
            {.imageFileName = u"\\Device\\HarddiskVolume2\\Windows\\explorer.exe", .userSid = bobSid});
        const Caller aliceUser{"alice", alice, UserMode};
        const Caller aliceKernel{"alice", alice, KernelMode};
        const Caller aliceBackupUser{"alice", aliceBackup, UserMode};
        const Caller bobUser{"bob", bob, UserMode};
        const Caller serviceCaller{"the service", service.process(), UserMode};

        const std::u16string plan = NtPath(alicePlan);
        const OpenRequest readPlan{plan, FILE_GENERIC_READ};
        std::vector<OpenCase> opens;
        auto add = [&](std::string title, const Caller& caller, OpenRequest request, std::string accessText,
                       Verdict managedVerdict, NTSTATUS managedStatus, NTSTATUS passThroughStatus) -> OpenCase& {
            OpenCase& open = opens.emplace_back();
            open.title = std::move(title);
            open.caller = caller;
            open.request = std::move(request);
            open.accessText = std::move(accessText);
            open.managedVerdict = managedVerdict;
            open.managedStatus = managedStatus;
            open.passThroughStatus = passThroughStatus;
            return open;
        };
        add("Her own folder", aliceUser, readPlan, "reading", Verdict::OwnFolder, STATUS_SUCCESS, STATUS_SUCCESS);
        add("Another user's folder", bobUser, readPlan, "reading", Verdict::OtherUsersFolder, STATUS_SUCCESS,
            STATUS_SUCCESS);
        add("A blacklisted process", aliceBackupUser, readPlan, "reading", Verdict::Blacklisted, STATUS_SUCCESS,
            STATUS_SUCCESS);
        add("A folder the service excludes", aliceUser,
            {NtPath(aliceFolder) + u"\\Cache\\thumbs.db", FILE_GENERIC_READ}, "reading", Verdict::Excluded,
            STATUS_SUCCESS, STATUS_SUCCESS);
        add("A path outside every merge folder", aliceUser, {u"\\??\\C:\\Windows\\win.ini", FILE_GENERIC_READ},
            "reading", Verdict::LeftAlone, STATUS_SUCCESS, STATUS_SUCCESS);
        add("A file below a read-only folder is writable", aliceUser, {plan, FILE_GENERIC_WRITE}, "writing",
            Verdict::OwnFolder, STATUS_SUCCESS, STATUS_SUCCESS);
        const size_t readOnlyWrite = opens.size();
        add("The read-only folder's own path, for writing", aliceUser,
            {NtPath(aliceFolder), FILE_WRITE_ATTRIBUTES, FILE_DIRECTORY_FILE}, "writing attributes", Verdict::RefusedReadOnly,
            STATUS_ACCESS_DENIED, STATUS_SUCCESS);
        add("Deleting a merge folder", bobUser,
            {NtPath(bobFolder), DELETE, FILE_DIRECTORY_FILE | FILE_DELETE_ON_CLOSE}, "delete on close",
            Verdict::RefusedDelete, STATUS_ACCESS_DENIED, STATUS_SUCCESS);
        add("Kernel mode, touching no content", aliceKernel, {NtPath(aliceFolder), FILE_APPEND_DATA, FILE_DIRECTORY_FILE},
            "appending", Verdict::KernelModeNoContent, STATUS_SUCCESS, STATUS_SUCCESS);
        add("Kernel mode, touching content", aliceKernel, {NtPath(aliceFolder), FILE_WRITE_ATTRIBUTES, FILE_DIRECTORY_FILE},
            "writing attributes", Verdict::RefusedReadOnly, STATUS_ACCESS_DENIED, STATUS_SUCCESS);
        add("Her own folder through the loopback share", aliceUser,
            {u"\\??\\UNC\\127.0.0.1\\C$" + OnVolume(alicePlan), FILE_GENERIC_READ}, "reading",
            Verdict::LoopbackOwnFolder, STATUS_SUCCESS, STATUS_SUCCESS);
        add("A share on another machine (ntsim's redirector serves 127.0.0.1 alone)", aliceUser,
            {u"\\??\\UNC\\fileserver\\share" + OnVolume(alicePlan), FILE_GENERIC_READ}, "reading",
            Verdict::LeftAlone, STATUS_BAD_NETWORK_PATH, STATUS_BAD_NETWORK_PATH);
        OpenCase& serviceOpen = add("The service's own open, sharing nothing", serviceCaller,
                                    {plan, FILE_GENERIC_READ, 0, 0}, "reading", Verdict::LeftAlone, STATUS_SUCCESS,
                                    STATUS_SHARING_VIOLATION);
        serviceOpen.holder = &aliceUser;
        serviceOpen.held = {plan, FILE_GENERIC_READ, 0, FILE_SHARE_READ};
        auto bobFolderState = [&] {
            const size_t entries = system->List(OnVolume(bobFolder)).size();
            return system->Exists(OnVolume(bobFolder)) ? "present, " + std::to_string(entries) + " entry"
                                                   : std::string("gone");
        };

        scene.Heading("Opens, as the gate judges them");
        for (const OpenCase& open : opens) {
            scene.Run(open, false);
        }
        expect.Line("  ", ntsim::ToUtf8(bobFolder) + ": ", bobFolderState(), "present, 1 entry");

        // ---- pass-through ----
        scene.Heading("The Config port goes: pass-through mode");
        service.Run([](auto& connection) { connection.DisconnectConfigPort(); });
        scene.Traces(traces.Take());
        expect.Line("  ", "connections on " + ntsim::ToUtf8(portName) + ": ",
                    std::to_string(ntsim::ports::ConnectionCount(portName)), "1");
        expect.Line("  ", "g_PassThrough: ", std::to_string(g_PassThrough), "1");
        out << "\n  The same opens:\n";
        for (const OpenCase& open : opens) {
            scene.Run(open, true);
        }
        expect.Line("  ", ntsim::ToUtf8(bobFolder) + " (NTFS keeps a directory that isn't empty): ", bobFolderState(),
                    "present, 1 entry");

        // ---- the next configuration ----
        scene.Heading("The service reconnects its Config port and configures again: pass-through mode ends");
        expect.Line("  ", "Config port: ",
                    HresultName(service.Run([](auto& connection) { return connection.ConnectConfigPort(); })), "S_OK");
        expect.Line("  ", "SetConfiguration: ",
                    HresultName(service.Run(
                        [&](auto& connection) { return connection.SetConfiguration(configuration); })),
                    "S_OK");
        scene.Traces(traces.Take());
        expect.Line("  ", "g_PassThrough: ", std::to_string(g_PassThrough), "0");
        out << "\n";
        scene.Run(opens[0], false);
        scene.Run(opens[readOnlyWrite], false);

        // ---- requests ----
        scene.Heading("The driver's requests cross the Thread port to a service, and its replies come back");
        service.Run([](auto& connection) { connection.DisconnectThreadPort(); });
        out << "  the service closes its Thread port and a scripted service takes its place\n";
        scene.Traces(traces.Take());
        ShowServiceRequests(out, expect,
                            {.requester = alice,
                             .sid = aliceSid,
                             .folderDevicePath = kSystemVolume + OnVolume(aliceFolder),
                             .fileDevicePath = kSystemVolume + OnVolume(alicePlan),
                             .fileSize = system->Content(OnVolume(alicePlan)).value_or("").size()},
                            [&] { scene.Traces(traces.Take()); });

        // ---- the road of one open ----
        scene.Heading("The road of one open: alice opens her plan, writes it and closes it");
        ShowRoadOfOneOpen(out, expect,
                          {.userName = "alice", .user = alice, .volume = system, .volumePath = OnVolume(alicePlan)});
        out << "  (" << traces.Take().size() << " trace lines of the filter on the way, not shown)\n";

        // ---- the service leaves ----
        scene.Heading("The service leaves");
        service.Run([](auto& connection) { connection.SetTracingEnabled(false); });
        service.Leave();
        scene.Traces(traces.Take());
        expect.Line("  ", "connections on " + ntsim::ToUtf8(portName) + ": ",
                    std::to_string(ntsim::ports::ConnectionCount(portName)), "0");
    }

    // ---- unload ----
    scene.Heading("FolderMerge unloads");
    const NTSTATUS unloaded = ntsim::UnloadFilter(kFilterName);
    expect.Line("  ", "UnloadFilter: ", StatusName(unloaded), StatusName(STATUS_SUCCESS));
    const ntsim::pool::Usage usage = ntsim::pool::UsageOfTag(FOLDERMERGE_POOL_TAG);
    out << "  pool tag " << ntsim::pool::TagText(FOLDERMERGE_POOL_TAG) << ": " << usage.totalAllocations
        << " blocks allocated over the run\n";
    expect.Line("  ", "  live after unload: ",
                std::to_string(usage.liveCount) + " blocks, " + std::to_string(usage.liveBytes) + " bytes",
                "0 blocks, 0 bytes");

    ntsim::DismountMup();
    ntsim::DismountVolume(kFatVolume);
    ntsim::DismountVolume(kSystemVolume);

    out << "\n";
    if (expect.failures() != 0) {
        out << "fmsim demo: " << expect.failures() << " result(s) differ from what FolderMerge should give\n";
        return 1;
    }
    out << "fmsim demo: every result is the one FolderMerge should give\n";
    return 0;
}

}  // namespace fmsim
