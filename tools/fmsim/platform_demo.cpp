// fmsim platform-demo: the platform alone, as a filter sees it. An NTFS volume as C:, the MUP
// device, the logging filter, and a user process that creates and writes two files, lists their
// directory, renames one, closes everything, and reads a file again through the loopback share.
// Each call of the process is printed with its result, and between them the filter's callbacks.
#include "describe.hpp"
#include "logfilter.hpp"
#include "scenes.hpp"

#include <ntsim/sim/iomanager.hpp>
#include <ntsim/sim/mup.hpp>
#include <ntsim/sim/ntfs.hpp>
#include <ntsim/sim/process.hpp>
#include <ntsim/sim/text.hpp>

#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace fmsim {

namespace {

constexpr std::u16string_view kVolumeDevice = u"\\Device\\HarddiskVolume2";
constexpr std::u16string_view kImage = u"\\Device\\HarddiskVolume2\\Windows\\System32\\notepad.exe";
constexpr std::u16string_view kUserSid = u"S-1-5-21-1004336348-1177238915-682003330-1001";

class Demo {
public:
    explicit Demo(std::ostream& out) : out_(out) {}

    // One call of the process: announced, run (the filter prints meanwhile), and its result.
    template <typename Call>
    NTSTATUS Step(const std::string& description, Call call)
    {
        out_ << "  > " << description << "\n";
        std::string result;
        NTSTATUS status = call(&result);
        out_ << "  < " << StatusName(status) << (result.empty() ? "" : ", " + result) << "\n\n";
        return status;
    }

    NTSTATUS Open(const std::u16string& path, ACCESS_MASK access, ULONG disposition, ULONG options, HANDLE* handle)
    {
        const std::string description = "NtCreateFile " + ntsim::ToUtf8(path) + " " + DispositionName(disposition) +
                                        ", access " + Hex(access);
        return Step(description, [&](std::string* result) {
            ntsim::UnicodeStringHolder name(path);
            OBJECT_ATTRIBUTES attributes;
            InitializeObjectAttributes(&attributes, name.get(), OBJ_CASE_INSENSITIVE, nullptr, nullptr);
            IO_STATUS_BLOCK ioStatus{};
            NTSTATUS status = NtCreateFile(handle, access, &attributes, &ioStatus, nullptr, FILE_ATTRIBUTE_NORMAL,
                                           FILE_SHARE_READ, disposition, options | FILE_SYNCHRONOUS_IO_NONALERT,
                                           nullptr, 0);
            if (NT_SUCCESS(status)) {
                *result = CreateResultName(ioStatus.Information);
            }
            return status;
        });
    }

    NTSTATUS Write(HANDLE handle, std::string_view text)
    {
        return Step("NtWriteFile " + std::to_string(text.size()) + " bytes at the current position",
                    [&](std::string* result) {
                        IO_STATUS_BLOCK ioStatus{};
                        NTSTATUS status = NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus,
                                                      const_cast<char*>(text.data()), static_cast<ULONG>(text.size()),
                                                      nullptr, nullptr);
                        *result = std::to_string(ioStatus.Information) + " bytes written";
                        return status;
                    });
    }

    NTSTATUS Read(HANDLE handle)
    {
        return Step("NtReadFile 256 bytes at 0", [&](std::string* result) {
            char buffer[256];
            IO_STATUS_BLOCK ioStatus{};
            LARGE_INTEGER at{};
            NTSTATUS status =
                NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, sizeof(buffer), &at, nullptr);
            if (NT_SUCCESS(status)) {
                *result = "read \"" + Escaped(std::string_view(buffer, ioStatus.Information)) + "\"";
            }
            return status;
        });
    }

    NTSTATUS List(HANDLE handle, bool restart)
    {
        return Step(std::string("NtQueryDirectoryFile FileDirectoryInformation") + (restart ? ", restart scan" : ""),
                    [&](std::string* result) {
                        // A user-mode caller lists into its own memory: the I/O manager probes the buffer.
                        ntsim::Process& process = ntsim::CurrentProcess();
                        const std::unique_ptr<UCHAR, std::function<void(UCHAR*)>> listing(
                            static_cast<UCHAR*>(process.AllocateUserMemory(2048)),
                            [&process](UCHAR* block) { process.FreeUserMemory(block); });
                        const UCHAR* buffer = listing.get();
                        IO_STATUS_BLOCK ioStatus{};
                        NTSTATUS status =
                            NtQueryDirectoryFile(handle, nullptr, nullptr, nullptr, &ioStatus, listing.get(), 2048,
                                                 FileDirectoryInformation, FALSE, nullptr, restart ? TRUE : FALSE);
                        if (!NT_SUCCESS(status)) {
                            return status;
                        }
                        *result = "entries:";
                        for (ULONG offset = 0;;) {
                            const auto* entry = reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(buffer + offset);
                            *result += "\n      " +
                                       ntsim::ToUtf8(std::u16string_view(
                                           reinterpret_cast<const char16_t*>(entry->FileName),
                                           entry->FileNameLength / sizeof(WCHAR))) +
                                       ((entry->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0
                                            ? "  <DIR>"
                                            : "  " + std::to_string(entry->EndOfFile.QuadPart) + " bytes");
                            if (entry->NextEntryOffset == 0) {
                                break;
                            }
                            offset += entry->NextEntryOffset;
                        }
                        return status;
                    });
    }

    NTSTATUS Rename(HANDLE handle, const std::u16string& target)
    {
        return Step("NtSetInformationFile FileRenameInformation to " + ntsim::ToUtf8(target), [&](std::string*) {
            std::vector<UCHAR> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * sizeof(WCHAR));
            auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
            rename->ReplaceIfExists = FALSE;
            rename->RootDirectory = nullptr;
            rename->FileNameLength = static_cast<ULONG>(target.size() * sizeof(WCHAR));
            std::memcpy(rename->FileName, target.data(), rename->FileNameLength);
            IO_STATUS_BLOCK ioStatus{};
            return NtSetInformationFile(handle, &ioStatus, rename, static_cast<ULONG>(buffer.size()),
                                        FileRenameInformation);
        });
    }

    NTSTATUS Close(HANDLE handle)
    {
        return Step("NtClose", [&](std::string*) { return NtClose(handle); });
    }

    void Heading(const std::string& text) { out_ << "-- " << text << "\n\n"; }

private:
    static std::string Escaped(std::string_view text)
    {
        std::string escaped;
        for (char c : text) {
            escaped += c == '\r' ? std::string("\\r") : c == '\n' ? std::string("\\n") : std::string(1, c);
        }
        return escaped;
    }

    std::ostream& out_;
};

}  // namespace

int PlatformDemo(std::span<const std::string> arguments, std::ostream& out)
{
    if (!arguments.empty()) {
        out << "fmsim platform-demo takes no arguments\n";
        return 2;
    }
    auto volume = ntsim::CreateNtfsVolume(std::u16string(kVolumeDevice));
    volume->SeedFile(u"\\Demo\\readme.txt", "Files written by the platform demo.\r\n");
    if (ntsim::MountVolume(volume, u"C:") != STATUS_SUCCESS || ntsim::MountMup() != STATUS_SUCCESS) {
        out << "fmsim: the volumes could not be mounted\n";
        return 1;
    }
    NTSTATUS loaded = logfilter::Load(out);
    if (!NT_SUCCESS(loaded)) {
        out << "fmsim: the logging filter did not load: " << StatusName(loaded) << "\n";
        return 1;
    }

    ntsim::ProcessOptions options;
    options.imageFileName = std::u16string(kImage);
    options.userSid = std::u16string(kUserSid);
    auto process = ntsim::CreateProcess(options);
    out << "ntsim platform demo\n"
        << "  C: is an NTFS volume, " << ntsim::ToUtf8(kVolumeDevice) << "; \\Device\\Mup serves \\\\127.0.0.1\\C$\n"
        << "  LogFilter (altitude 385100) prints each callback: 'pre' with the requester and parameters,\n"
        << "  'post' with the status and Information the filter sees\n"
        << "  the process: " << ntsim::ToUtf8(kImage) << ", pid " << reinterpret_cast<uintptr_t>(process->Id())
        << ", user " << ntsim::ToUtf8(kUserSid) << "\n\n";

    int failures = 0;
    {
        ntsim::AttachThread attach(process);
        Demo demo(out);
        auto expect = [&](NTSTATUS status, NTSTATUS wanted) { failures += status == wanted ? 0 : 1; };
        HANDLE handle = nullptr;

        demo.Heading("create a file and write two lines");
        expect(demo.Open(u"\\??\\C:\\Demo\\notes.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE, FILE_CREATE, 0,
                         &handle),
               STATUS_SUCCESS);
        expect(demo.Write(handle, "Meeting notes\r\n"), STATUS_SUCCESS);
        expect(demo.Write(handle, "- ship the platform\r\n"), STATUS_SUCCESS);
        expect(demo.Close(handle), STATUS_SUCCESS);

        demo.Heading("create a draft, replacing any old one");
        expect(demo.Open(u"\\??\\C:\\Demo\\draft.txt", FILE_GENERIC_WRITE, FILE_OVERWRITE_IF, 0, &handle),
               STATUS_SUCCESS);
        expect(demo.Write(handle, "draft"), STATUS_SUCCESS);
        expect(demo.Close(handle), STATUS_SUCCESS);

        demo.Heading("list the directory");
        expect(demo.Open(u"\\??\\C:\\Demo", FILE_LIST_DIRECTORY | SYNCHRONIZE, FILE_OPEN, FILE_DIRECTORY_FILE,
                         &handle),
               STATUS_SUCCESS);
        expect(demo.List(handle, true), STATUS_SUCCESS);
        expect(demo.List(handle, false), STATUS_NO_MORE_FILES);
        expect(demo.Close(handle), STATUS_SUCCESS);

        demo.Heading("rename the draft");
        expect(demo.Open(u"\\??\\C:\\Demo\\draft.txt", DELETE | SYNCHRONIZE, FILE_OPEN, 0, &handle), STATUS_SUCCESS);
        expect(demo.Rename(handle, u"\\??\\C:\\Demo\\final.txt"), STATUS_SUCCESS);
        expect(demo.Close(handle), STATUS_SUCCESS);

        demo.Heading("read the notes through \\\\127.0.0.1\\C$: the server's own open of the local file comes "
                     "inside the pending MUP open");
        expect(demo.Open(u"\\??\\UNC\\127.0.0.1\\C$\\Demo\\notes.txt", FILE_GENERIC_READ, FILE_OPEN, 0, &handle),
               STATUS_SUCCESS);
        expect(demo.Read(handle), STATUS_SUCCESS);
        expect(demo.Close(handle), STATUS_SUCCESS);
    }

    out << "-- C:\\Demo now holds:";
    for (const std::u16string& name : volume->List(u"\\Demo")) {
        out << " " << ntsim::ToUtf8(name);
    }
    out << "\n";

    NTSTATUS unloaded = logfilter::Unload();
    ntsim::DismountMup();
    ntsim::DismountVolume(kVolumeDevice);
    if (!NT_SUCCESS(unloaded)) {
        out << "fmsim: the logging filter did not unload: " << StatusName(unloaded) << "\n";
        return 1;
    }
    if (failures != 0) {
        out << "fmsim: " << failures << " call(s) did not give the expected status\n";
        return 1;
    }
    return 0;
}

}  // namespace fmsim
