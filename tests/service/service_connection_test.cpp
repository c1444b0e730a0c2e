// The service library against a stand-in filter: both connections, the control messages as the
// filter reads them from the service's memory, and the receiver of requests on the Thread port.
#include "../ntsim/port_testfilter.hpp"

#include <foldermerge/service/control.hpp>
#include <foldermerge/service/dirtyblocks.hpp>

#include <atomic>
#include <future>
#include <thread>

using namespace porttest;
using namespace foldermerge::service;

namespace {

std::u16string TextAt(const UCHAR* bytes)
{
    std::u16string text;
    for (size_t i = 0;; i += 2) {
        const auto c = ReadAt<char16_t>(bytes, i);
        if (c == 0) {
            return text;
        }
        text.push_back(c);
    }
}

class ServiceConnectionTest : public PortFixture {
protected:
    void SetUp() override
    {
        PortFixture::SetUp();
        Load();
        AttachToService();
        connection_.emplace(kPortName);
    }
    void TearDown() override
    {
        connection_.reset();
        PortFixture::TearDown();
    }

    // Records each control message as the filter sees it, reading it through probes in the
    // service's thread as a minifilter must.
    void RecordMessages()
    {
        State().onMessage = [this](PVOID input, ULONG length, PVOID, ULONG, PULONG) {
            NTSTATUS status = STATUS_SUCCESS;
            __try {
                ProbeForRead(input, length, 1);
                const auto* bytes = static_cast<const UCHAR*>(input);
                messages_.emplace_back(bytes, bytes + length);
                if (length >= 8736 && ReadAt<ULONG>(bytes, 0) == CONTROL_SET_CONFIGURATION) {
                    auto* block = reinterpret_cast<const UCHAR*>(ReadAt<ULONGLONG>(bytes, 8728));
                    ProbeForRead(block, 4, 1);
                    const size_t blockLength = 4 + ReadAt<ULONG>(block, 0) * size_t{2616};
                    ProbeForRead(block, blockLength, 1);
                    folderBlocks_.emplace_back(block, block + blockLength);
                }
            } __except (EXCEPTION_EXECUTE_HANDLER) {
                status = GetExceptionCode();
            }
            return status;
        };
    }

    std::thread ServiceThread(std::function<void()> body)
    {
        return std::thread([process = service_, body = std::move(body)] {
            ntsim::AttachThread attach(process);
            body();
        });
    }

    std::optional<FilterConnection> connection_;
    std::vector<std::vector<UCHAR>> messages_;
    std::vector<std::vector<UCHAR>> folderBlocks_;
};

TEST_F(ServiceConnectionTest, ConnectMakesAThreadPortWithAFourByteContextThenAConfigPortWithNone)
{
    ASSERT_EQ(connection_->Connect(), S_OK);
    ASSERT_EQ(State().connects.size(), 2u);
    EXPECT_EQ(State().connects[0].sizeOfContext, static_cast<ULONG>(THREAD_PORT_CONTEXT_SIZE));
    EXPECT_FALSE(State().connects[0].contextNull);
    EXPECT_TRUE(State().connects[1].contextNull);
    EXPECT_EQ(State().connects[1].sizeOfContext, 0u);

    connection_->DisconnectConfigPort();
    ASSERT_EQ(State().DisconnectCount(), 1u);
    EXPECT_EQ(State().disconnects[0].cookie, State().connects[1].clientPort);
    connection_->Disconnect();
    EXPECT_EQ(State().DisconnectCount(), 2u);
}

TEST_F(ServiceConnectionTest, FailedConfigConnectionLeavesNoThreadPortBehind)
{
    HANDLE other = nullptr;
    ASSERT_EQ(ConnectService(&other), S_OK);  // one of the two places taken
    EXPECT_EQ(connection_->Connect(), HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT));
    EXPECT_EQ(connection_->threadPort(), nullptr);
    EXPECT_EQ(ntsim::ports::ConnectionCount(), 1u);
    EXPECT_TRUE(CloseHandle(other));
}

TEST_F(ServiceConnectionTest, SetConfigurationSendsTheRecordAndAFolderBlockInTheServicesMemory)
{
    RecordMessages();
    ASSERT_EQ(connection_->Connect(), S_OK);
    Configuration configuration;
    configuration.folders = {{u"S-1-5-21-1-2-3-1001", u"C:\\Data", false}, {u"S-1-5-21-1-2-3-1002", u"D:\\Work\\x", true}};
    configuration.blacklist = {u"a.exe", u"b.exe"};
    ASSERT_EQ(connection_->SetConfiguration(configuration), S_OK);

    ASSERT_EQ(messages_.size(), 1u);
    const std::vector<UCHAR>& record = messages_[0];
    ASSERT_EQ(record.size(), 8736u);
    EXPECT_EQ(ReadAt<ULONG>(record.data(), 0), 1u);
    EXPECT_EQ(ReadAt<ULONG>(record.data(), 4), 4u);
    EXPECT_EQ(TextAt(record.data() + 530), u"a.exe|b.exe");
    ASSERT_EQ(folderBlocks_.size(), 1u) << "the folder block must be readable in the service's thread";
    const std::vector<UCHAR>& block = folderBlocks_[0];
    EXPECT_EQ(ReadAt<ULONG>(block.data(), 0), 2u);
    EXPECT_EQ(TextAt(block.data() + 4), u"S-1-5-21-1-2-3-1001");
    EXPECT_EQ(TextAt(block.data() + 4 + 522), u"C:\\Data");
    EXPECT_EQ(ReadAt<ULONG>(block.data(), 4 + 2604), 0u);
    EXPECT_EQ(TextAt(block.data() + 4 + 2616), u"S-1-5-21-1-2-3-1002");
    EXPECT_EQ(TextAt(block.data() + 4 + 2616 + 522), u"D:\\Work\\x");
    EXPECT_EQ(ReadAt<ULONG>(block.data(), 4 + 2616 + 2604), 1u);

    // A text that does not fit its field is refused before anything is sent.
    configuration.folders[0].sid = std::u16string(261, u'1');
    EXPECT_EQ(connection_->SetConfiguration(configuration), E_INVALIDARG);
    configuration.folders[0].sid = std::u16string(260, u'1');
    EXPECT_EQ(connection_->SetConfiguration(configuration), S_OK);
    EXPECT_EQ(messages_.size(), 2u);

    // A message built and then changed goes out as it stands.
    ConfigurationMessage message;
    ASSERT_EQ(ConfigurationMessage::Build({.version = 3}, &message), S_OK);
    ASSERT_EQ(connection_->Send(message), S_OK);
    EXPECT_EQ(ReadAt<ULONG>(messages_.back().data(), 4), 3u);
    EXPECT_EQ(ReadAt<ULONG>(folderBlocks_.back().data(), 0), 0u);
}

TEST_F(ServiceConnectionTest, TracingAndDirtyBlockMessagesHaveTheirWireLayouts)
{
    RecordMessages();
    auto record = State().onMessage;
    State().onMessage = [record](PVOID input, ULONG length, PVOID output, ULONG outputLength, PULONG returned) {
        NTSTATUS status = record(input, length, output, outputLength, returned);
        const auto code = ReadAt<ULONG>(static_cast<UCHAR*>(input), 0);
        if (code == CONTROL_REQUEST_DIRTY_BLOCK_MAP) {
            const UCHAR reply[15] = {1, 0, 0, 0, 3, 0, 0, 0, 0xA1, 0xA2, 0xA3, 0, 0, 0, 0};
            if (outputLength < sizeof(reply)) {
                return STATUS_BUFFER_TOO_SMALL;
            }
            std::memcpy(output, reply, sizeof(reply));
            *returned = sizeof(reply);
        } else if (code == CONTROL_REQUEST_DIRTY_BLOCK_COUNT) {
            const UCHAR reply[8] = {0, 0, 0, 0, 42, 0, 0, 0};
            std::memcpy(output, reply, sizeof(reply));
            *returned = sizeof(reply);
        }
        return status;
    };
    EXPECT_EQ(connection_->SetTracingEnabled(true), E_HANDLE) << "control messages need the Config port";
    ASSERT_EQ(connection_->ConnectConfigPort(), S_OK);

    ASSERT_EQ(connection_->SetTracingEnabled(true), S_OK);
    ASSERT_EQ(messages_.back().size(), 9u);
    EXPECT_EQ(ReadAt<ULONG>(messages_.back().data(), 0), 2u);
    EXPECT_EQ(messages_.back()[8], 1);

    DirtyBlockMap map;
    ASSERT_EQ(RequestDirtyBlockMap(*connection_, u"\\Device\\HarddiskVolume2\\a.txt", 3, &map), S_OK);
    EXPECT_EQ(ReadAt<ULONG>(messages_.back().data(), 0), 3u);
    EXPECT_EQ(TextAt(messages_.back().data() + 8), u"\\Device\\HarddiskVolume2\\a.txt");
    EXPECT_TRUE(map.trackingFailed);
    EXPECT_EQ(map.map, (std::vector<uint8_t>{0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(RequestDirtyBlockMap(*connection_, u"\\Device\\HarddiskVolume2\\a.txt", 2, &map),
              HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));

    DirtyBlockCount count;
    ASSERT_EQ(RequestDirtyBlockCount(*connection_, u"\\Device\\HarddiskVolume2\\b.txt", true, &count), S_OK);
    EXPECT_EQ(ReadAt<ULONG>(messages_.back().data(), 0), 4u);
    EXPECT_EQ(messages_.back()[8], 1);
    EXPECT_EQ(TextAt(messages_.back().data() + 10), u"\\Device\\HarddiskVolume2\\b.txt");
    EXPECT_FALSE(count.trackingFailed);
    EXPECT_EQ(count.count, 42u);
}

TEST_F(ServiceConnectionTest, ReceiverAnswersRequestsWithTheReplyRecordAfterTheHeader)
{
    ASSERT_EQ(connection_->Connect(), S_OK);
    std::mutex seenMutex;
    std::vector<IncomingRequest> seen;
    auto handler = [&](const IncomingRequest& request) -> std::optional<std::vector<uint8_t>> {
        {
            std::lock_guard lock(seenMutex);
            seen.push_back(request);
        }
        const uint8_t tag = request.message[0];
        if (tag == 0xFF) {
            return std::nullopt;  // left unanswered
        }
        // A reply record: a status the filter reads at 0, then the request's tag.
        std::vector<uint8_t> reply(17, 0);
        const NTSTATUS status = STATUS_ACCESS_DENIED;
        std::memcpy(reply.data(), &status, sizeof(status));
        reply[16] = tag;
        return reply;
    };
    ASSERT_EQ(connection_->StartReceiving(handler, 3, [this](std::function<void()> body) { return ServiceThread(std::move(body)); }),
              S_OK);
    EXPECT_EQ(connection_->StartReceiving(handler, 1), HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));

    PFLT_PORT threadPort = State().ClientOf(0);
    std::vector<std::future<std::pair<NTSTATUS, std::vector<UCHAR>>>> replies;
    for (UCHAR tag = 1; tag <= 6; ++tag) {
        replies.push_back(std::async(std::launch::async, [&, tag] {
            ntsim::AttachThread attach(app_);
            PFLT_PORT port = threadPort;
            UCHAR request[4] = {tag, 0, 0, 0};
            std::vector<UCHAR> reply(20, 0xEE);
            ULONG length = static_cast<ULONG>(reply.size());
            NTSTATUS status = FltSendMessage(State().filter, &port, request, sizeof(request), reply.data(), &length, nullptr);
            reply.resize(length);
            return std::pair{status, reply};
        }));
    }
    for (UCHAR tag = 1; tag <= 6; ++tag) {
        auto [status, reply] = replies[tag - 1].get();
        ASSERT_EQ(status, STATUS_SUCCESS);
        ASSERT_EQ(reply.size(), 17u);
        EXPECT_EQ(ReadAt<NTSTATUS>(reply.data(), 0), STATUS_ACCESS_DENIED);
        EXPECT_EQ(reply[16], tag);
    }
    {
        std::lock_guard lock(seenMutex);
        ASSERT_EQ(seen.size(), 6u);
        EXPECT_EQ(seen[0].replyCapacity, 20u);
        EXPECT_FALSE(seen[0].truncated);
    }

    // An unanswered request waits until its deadline; then the connection goes, and the workers with it.
    NTSTATUS unanswered = STATUS_PENDING;
    std::thread sender([&] {
        ntsim::AttachThread attach(app_);
        PFLT_PORT port = threadPort;
        UCHAR request[1] = {0xFF};
        UCHAR reply[4];
        ULONG length = sizeof(reply);
        LARGE_INTEGER timeout;
        timeout.QuadPart = -ntsim::clock::kMinute;
        unanswered = FltSendMessage(State().filter, &port, request, 1, reply, &length, &timeout);
    });
    while (connection_->receiver()->received() < 7) {
        std::this_thread::yield();
    }
    ASSERT_TRUE(ntsim::clock::WaitForWaiters(3));  // the sender and at least two idle workers
    ntsim::clock::Advance(ntsim::clock::kMinute);
    sender.join();
    EXPECT_EQ(unanswered, STATUS_TIMEOUT);
    EXPECT_EQ(connection_->receiver()->answered(), 6u);
    connection_->DisconnectThreadPort();
    EXPECT_EQ(connection_->receiver(), nullptr);
}

TEST_F(ServiceConnectionTest, ReceiverWithASmallBufferGetsRequestsCut)
{
    ASSERT_EQ(connection_->ConnectThreadPort(), S_OK);
    std::promise<IncomingRequest> got;
    ASSERT_EQ(connection_->StartReceiving(
                  [&](const IncomingRequest& request) -> std::optional<std::vector<uint8_t>> {
                      got.set_value(request);
                      return std::vector<uint8_t>{};
                  },
                  1, [this](std::function<void()> body) { return ServiceThread(std::move(body)); },
                  sizeof(FILTER_MESSAGE_HEADER) + 4),
              S_OK);
    std::thread sender([&] {
        ntsim::AttachThread attach(app_);
        PFLT_PORT port = State().ClientOf(0);
        UCHAR request[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
        EXPECT_EQ(FltSendMessage(State().filter, &port, request, sizeof(request), nullptr, nullptr, nullptr),
                  STATUS_SUCCESS);
    });
    IncomingRequest request = got.get_future().get();
    sender.join();
    EXPECT_TRUE(request.truncated);
    EXPECT_EQ(request.replyCapacity, 0u);
    ASSERT_EQ(request.message.size(), 4u);
    connection_->DisconnectThreadPort();
}

}  // namespace
