// Control messages from a service to the loaded filter, as arbitrary bytes through the port.
//
// A simulated service (Local System, user mode) connects the Config and the Thread port once per
// process and sends each input's messages with FilterSendMessage, so they reach the filter's
// message notification exactly as a service's would: every buffer lies in the service's own
// memory, block by block, so that a read past a buffer's end is a heap overflow that AddressSanitizer
// reports. An input is a run of frames, each a 9-byte head and its bytes (little-endian):
//
//     u8  options      kThreadPort, kOutputBuffer, kOutputNotOwned, kMessageNotOwned, kLinkFolderBlock,
//                      kCompactConfiguration
//     u16 outputLength the output buffer's size (with kOutputBuffer)
//     u16 messageLength
//     u32 blockLength
//     messageLength bytes: the message, code first; blockLength bytes: a folder block
//
// Lengths are cut to what the input holds. With kLinkFolderBlock a message long enough to carry
// pFolderBlock gets the folder block's address there, so SetConfiguration reads the fuzzed records;
// without it the message's own eight bytes stand, an address the service mostly doesn't own. With
// kCompactConfiguration the message bytes are a compact description of a SetConfiguration message and its
// records (BuildConfiguration), linked as with kLinkFolderBlock. A buffer "not owned" is a block
// the service has freed: the filter's probe must refuse it, and a touch past the probe is a use
// after free.
//
// Checked for each message: a refused message leaves the output buffer as it was, and the merge
// folder table and the blacklist keep their shape (CheckTableAndBlacklist). After each input
// the service turns tracing off and sends a configuration with one folder and no blacklist, then
// one with no folder: the filter is at rest again, and the pool of its tag must be what it was at
// rest before (a leak is a POOL_LEAK bugcheck). An ETW session takes every trace the filter writes
// while an input turned tracing on. The unload at exit checks that nothing of the tag is left.
#include <fltUser.h>

#include <ntsim/sim/etw.hpp>
#include <ntsim/sim/process.hpp>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "driver/globals.h"
#include "driver/mergefolders.h"
#include "loaded_filter.hpp"
#include "servicemessages.h"
#include "trace.h"

namespace foldermerge::fuzzing {
namespace {

constexpr uint8_t kThreadPort = 0x01;
constexpr uint8_t kOutputBuffer = 0x02;
constexpr uint8_t kOutputNotOwned = 0x04;
constexpr uint8_t kMessageNotOwned = 0x08;
constexpr uint8_t kLinkFolderBlock = 0x10;
constexpr uint8_t kCompactConfiguration = 0x20;
constexpr size_t kFrameHeadSize = 9;
// More messages in one input add little that two or three don't.
constexpr size_t kMaxFramesPerInput = 8;
constexpr uint8_t kOutputFill = 0xA5;

// Reads the input from the front; what runs past the end reads as zero bytes or is cut.
class InputReader {
public:
    explicit InputReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    size_t Remaining() const { return bytes_.size() - position_; }

    template <typename T>
    T Read()
    {
        T value{};
        size_t size = std::min(sizeof(T), Remaining());
        std::memcpy(&value, bytes_.data() + position_, size);
        position_ += size;
        return value;
    }

    std::span<const uint8_t> Take(size_t length)
    {
        length = std::min(length, Remaining());
        std::span<const uint8_t> taken = bytes_.subspan(position_, length);
        position_ += length;
        return taken;
    }

private:
    std::span<const uint8_t> bytes_;
    size_t position_ = 0;
};

// A block of the service's memory, freed with the object (or at once, for a block "not owned").
class UserBlock {
public:
    UserBlock(ntsim::Process& process, size_t size) : process_(process), address_(process.AllocateUserMemory(size)) {}
    ~UserBlock()
    {
        if (address_ != nullptr) {
            process_.FreeUserMemory(address_);
        }
    }
    UserBlock(const UserBlock&) = delete;
    UserBlock& operator=(const UserBlock&) = delete;

    uint8_t* data() const { return static_cast<uint8_t*>(address_); }

    // Frees the block now and returns its address, which the service no longer owns.
    void* Release()
    {
        void* address = std::exchange(address_, nullptr);
        process_.FreeUserMemory(address);
        return address;
    }

private:
    ntsim::Process& process_;
    void* address_;
};

// The service side: its process, its two connections and the trace session.
struct Service {
    std::shared_ptr<ntsim::Process> process;
    HANDLE configPort = nullptr;
    HANDLE threadPort = nullptr;
    std::unique_ptr<ntsim::etw::Session> session;
    std::unique_ptr<PoolAtRest> rest;
};

Service& TheService()
{
    static Service& service = *new Service;
    return service;
}

HANDLE Connect(WORD contextSize)
{
    ULONG context = 0;
    HANDLE port = nullptr;
    HRESULT hr = FilterConnectCommunicationPort(FOLDERMERGE_PORT_NAME, 0, contextSize != 0 ? &context : nullptr,
                                                contextSize, nullptr, &port);
    if (FAILED(hr)) {
        Fail("the service could not connect: HRESULT " + std::to_string(static_cast<ULONG>(hr)));
    }
    return port;
}

HRESULT Send(HANDLE port, void* input, DWORD inputSize, void* output, DWORD outputSize)
{
    DWORD returned = 0;
    return FilterSendMessage(port, input, inputSize, output, outputSize, &returned);
}

// A message of the rest state, sent on the Config port from the service's memory; it must succeed.
template <typename Fill>
void SendRestMessage(Service& service, size_t size, Fill fill, std::string_view what)
{
    UserBlock message(*service.process, size);
    fill(message.data());
    HRESULT hr = Send(service.configPort, message.data(), static_cast<DWORD>(size), nullptr, 0);
    if (FAILED(hr)) {
        Fail(std::string(what) + " failed with HRESULT " + std::to_string(static_cast<ULONG>(hr)));
    }
}

void WriteText(uint16_t* field, std::u16string_view text)
{
    std::memcpy(field, text.data(), text.size() * sizeof(char16_t));
}

// Brings the filter back to rest: tracing off, no folder, an empty blacklist (only a configuration
// with a folder replaces the blacklist, and only one without folders leaves the table empty).
void ReturnToRest(Service& service)
{
    SendRestMessage(
        service, sizeof(SetTracingEnabledMessage),
        [](uint8_t* bytes) { reinterpret_cast<SetTracingEnabledMessage*>(bytes)->Code = CONTROL_SET_TRACING_ENABLED; },
        "turning tracing off");
    UserBlock block(*service.process, FIELD_OFFSET(MergeFolderBlock, Folders) + sizeof(MergeFolderRecord));
    auto* folders = reinterpret_cast<MergeFolderBlock*>(block.data());
    folders->FolderCount = 1;
    WriteText(folders->Folders[0].Sid, u"S-1-5-21-1-2-3-1001");
    WriteText(folders->Folders[0].FolderPath, u"C:\\Data");
    for (uint32_t count : {1u, 0u}) {
        folders->FolderCount = count;
        SendRestMessage(
            service, sizeof(SetConfigurationMessage),
            [&](uint8_t* bytes) {
                auto* message = reinterpret_cast<SetConfigurationMessage*>(bytes);
                message->Code = CONTROL_SET_CONFIGURATION;
                message->ConfigVersion = CONFIGURATION_MIN_VERSION;
                message->pFolderBlock = reinterpret_cast<uintptr_t>(block.data());
            },
            "the configuration of rest");
    }
    service.session->TakeEvents();
}

Service& ServiceOnce()
{
    Service& service = TheService();
    if (service.process != nullptr) {
        return service;
    }
    LoadFilterOnce();
    service.process = ntsim::CreateProcess(
        {.imageFileName = u"\\Device\\HarddiskVolume2\\Program Files\\Velmora\\service.exe", .userSid = u"S-1-5-18"});
    service.session = std::make_unique<ntsim::etw::Session>();
    // Every level and the filter's keyword: whatever an input makes the filter trace is formatted.
    service.session->EnableProvider(TRACE_PROVIDER_GUID, {.level = 5, .matchAnyKeyword = TRACE_DESCRIPTOR_INFO.Keyword});
    {
        ntsim::AttachThread attach(service.process);
        service.configPort = Connect(0);
        service.threadPort = Connect(THREAD_PORT_CONTEXT_SIZE);
        ReturnToRest(service);
    }
    service.rest = std::make_unique<PoolAtRest>();
    BeforeUnload([] {
        Service& service = TheService();
        ntsim::AttachThread attach(service.process);
        CloseHandle(service.configPort);
        CloseHandle(service.threadPort);
    });
    return service;
}

bool IsWholeString(const OwnedString* string)
{
    return string != nullptr && string->Buffer != nullptr && string->Length % 2 == 0 &&
           string->Length <= string->MaximumLength;
}

// What every configuration leaves, whatever it held: a compact table of complete rows, each link
// path in \??\ form, the rows past the count empty, and a blacklist of non-empty names without a
// bar or a zero inside.
void CheckTableAndBlacklist()
{
    if (g_MergeFolderCount > MAX_MERGE_FOLDERS) {
        Fail("the merge folder table counts " + std::to_string(g_MergeFolderCount) + " rows");
    }
    for (ULONG row = 0; row < MAX_MERGE_FOLDERS; row++) {
        const MergeFolderEntry& entry = g_MergeFolders[row];
        if (row < g_MergeFolderCount) {
            if (!IsWholeString(entry.pstrSid) || !IsWholeString(entry.pstrLinkPath) ||
                !IsWholeString(entry.pstrDevicePath)) {
                Fail("merge folder row " + std::to_string(row) + " is not complete");
            }
            static const char16_t kLinkPrefix[] = u"\\??\\";
            if (entry.pstrLinkPath->Length < 8 || std::memcmp(entry.pstrLinkPath->Buffer, kLinkPrefix, 8) != 0) {
                Fail("merge folder row " + std::to_string(row) + " has a link path outside \\??\\");
            }
        } else if (entry.pstrSid != nullptr || entry.pstrLinkPath != nullptr || entry.pstrDevicePath != nullptr) {
            Fail("merge folder row " + std::to_string(row) + " past the count holds strings");
        }
    }
    for (OwnedString** name = g_ProcessBlacklist; name != nullptr && *name != nullptr; name++) {
        if (!IsWholeString(*name) || (*name)->Length == 0) {
            Fail("a blacklist entry is empty or malformed");
        }
        for (USHORT index = 0; index < (*name)->Length / 2; index++) {
            if ((*name)->Buffer[index] == L'|' || (*name)->Buffer[index] == L'\0') {
                Fail("a blacklist entry holds a bar or a zero");
            }
        }
    }
}

// Fills a text field of fieldChars from a text description: u16 length (cut to the field), u8 count of
// characters given, the characters; the given ones start the text and the last of them (or 'A')
// fills it to its length. A length of the whole field leaves it without a terminator.
void ReadTextField(InputReader& description, uint16_t* field, size_t fieldChars)
{
    const size_t length = std::min<size_t>(description.Read<uint16_t>(), fieldChars);
    const uint8_t given = description.Read<uint8_t>();
    uint16_t character = u'A';
    for (size_t index = 0; index < length; index++) {
        if (index < given) {
            character = description.Read<uint16_t>();
        }
        field[index] = character;
    }
}

// A SetConfiguration message and its folder block from a compact description, so that the fuzzer's
// mutations land on what the handler decides by rather than on kilobytes of text fields:
//     u32 ConfigVersion, u32 FolderCount (as sent, whatever the records), a text description of the
//     blacklist, then records while the description lasts (at most one more than the handler takes):
//     u8 bReadOnly, a text description of the SID, a text description of the path.
void BuildConfiguration(InputReader description, std::vector<uint8_t>& message, std::vector<uint8_t>& block)
{
    message.assign(sizeof(SetConfigurationMessage), 0);
    auto* configuration = reinterpret_cast<SetConfigurationMessage*>(message.data());
    configuration->Code = CONTROL_SET_CONFIGURATION;
    configuration->ConfigVersion = description.Read<uint32_t>();
    const auto folderCount = description.Read<uint32_t>();
    ReadTextField(description, configuration->ProcessBlacklist, CONFIGURATION_BLACKLIST_CHARS);

    std::vector<MergeFolderRecord> records;
    while (description.Remaining() != 0 && records.size() <= CONFIGURATION_MAX_FOLDERS) {
        MergeFolderRecord& record = records.emplace_back();
        std::memset(&record, 0, sizeof(record));
        record.bReadOnly = description.Read<uint8_t>();
        ReadTextField(description, record.Sid, CONFIGURATION_SID_CHARS);
        ReadTextField(description, record.FolderPath, CONFIGURATION_PATH_CHARS);
    }
    block.assign(FIELD_OFFSET(MergeFolderBlock, Folders) + records.size() * sizeof(MergeFolderRecord), 0);
    std::memcpy(block.data(), &folderCount, sizeof(folderCount));
    if (!records.empty()) {
        std::memcpy(block.data() + FIELD_OFFSET(MergeFolderBlock, Folders), records.data(),
                    records.size() * sizeof(MergeFolderRecord));
    }
}

void SendFrame(Service& service, InputReader& input)
{
    const auto options = input.Read<uint8_t>();
    const auto outputLength = input.Read<uint16_t>();
    const auto messageLength = input.Read<uint16_t>();
    const auto blockLength = input.Read<uint32_t>();
    std::span<const uint8_t> messageBytes = input.Take(messageLength);
    std::span<const uint8_t> blockBytes = input.Take(blockLength);
    std::vector<uint8_t> builtMessage;
    std::vector<uint8_t> builtBlock;
    if ((options & kCompactConfiguration) != 0) {
        BuildConfiguration(InputReader(messageBytes), builtMessage, builtBlock);
        messageBytes = builtMessage;
        blockBytes = builtBlock;
    }

    UserBlock block(*service.process, blockBytes.size());
    std::copy(blockBytes.begin(), blockBytes.end(), block.data());
    UserBlock message(*service.process, messageBytes.size());
    std::copy(messageBytes.begin(), messageBytes.end(), message.data());
    if ((options & (kLinkFolderBlock | kCompactConfiguration)) != 0 &&
        messageBytes.size() >= offsetof(SetConfigurationMessage, pFolderBlock) + sizeof(uint64_t)) {
        const uint64_t address = reinterpret_cast<uintptr_t>(block.data());
        std::memcpy(message.data() + offsetof(SetConfigurationMessage, pFolderBlock), &address, sizeof(address));
    }
    void* messageAddress = (options & kMessageNotOwned) != 0 ? message.Release() : message.data();

    const size_t outputSize = (options & kOutputBuffer) != 0 ? outputLength : 0;
    UserBlock output(*service.process, outputSize);
    std::memset(output.data(), kOutputFill, outputSize);
    void* outputAddress = (options & kOutputNotOwned) != 0 && outputSize != 0 ? output.Release() : output.data();

    HRESULT hr = Send((options & kThreadPort) != 0 ? service.threadPort : service.configPort, messageAddress,
                      static_cast<DWORD>(messageBytes.size()), outputSize != 0 ? outputAddress : nullptr,
                      static_cast<DWORD>(outputSize));
    if (FAILED(hr) && outputAddress == output.data() &&
        std::any_of(output.data(), output.data() + outputSize, [](uint8_t byte) { return byte != kOutputFill; })) {
        Fail("a refused control message (HRESULT " + std::to_string(static_cast<ULONG>(hr)) +
             ") wrote into the service's output buffer");
    }
    CheckTableAndBlacklist();
}

}  // namespace
}  // namespace foldermerge::fuzzing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace foldermerge::fuzzing;
    Service& service = ServiceOnce();
    {
        ntsim::AttachThread attach(service.process);
        InputReader input({data, size});
        for (size_t frame = 0; frame < kMaxFramesPerInput && input.Remaining() >= kFrameHeadSize; frame++) {
            SendFrame(service, input);
        }
        ReturnToRest(service);
    }
    service.rest->Verify("after a control message input");
    return 0;
}
