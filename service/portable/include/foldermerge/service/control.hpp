// The service's connection to the filter: its two client ports, the control messages that go out
// on the Config port, and the receiver of requests on the Thread port.
#pragma once

#include <foldermerge/service/port.hpp>
#include <foldermerge/service/receiver.hpp>

#include <servicemessages.h>
#include <servicerequests.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace foldermerge::service {

// One managed folder: the user's SID text, the folder as a drive path (C:\Data), and whether its
// root is read-only.
struct ManagedFolder {
    std::u16string sid;
    std::u16string path;
    bool readOnly = false;
};

struct Configuration {
    std::vector<ManagedFolder> folders;
    std::vector<std::u16string> blacklist;  // process image names (a.exe)
    uint32_t version = CONFIGURATION_MIN_VERSION;
};

// A SetConfiguration message ready to go: the record and the folder block its pFolderBlock points
// at, both in the service's heap and alive as long as the object. A caller may change either before
// sending it (to send a record the filter must refuse, for instance).
class ConfigurationMessage {
public:
    // E_INVALIDARG when a SID, a path or the joined blacklist does not fit its field. Any number
    // of folders is encoded; the filter takes at most CONFIGURATION_MAX_FOLDERS.
    static HRESULT Build(const Configuration& configuration, ConfigurationMessage* message);

    SetConfigurationMessage* record() const { return record_.as<SetConfigurationMessage>(); }
    MergeFolderBlock* folderBlock() const { return block_.as<MergeFolderBlock>(); }
    const HeapBuffer& recordBuffer() const { return record_; }

private:
    HeapBuffer record_;
    HeapBuffer block_;
};

class FilterConnection {
public:
    explicit FilterConnection(const WCHAR* portName = FOLDERMERGE_PORT_NAME);
    // Closes both ports (the receiver's workers end with the Thread port).
    ~FilterConnection();
    FilterConnection(const FilterConnection&) = delete;
    FilterConnection& operator=(const FilterConnection&) = delete;

    // The Thread port: a connection context of THREAD_PORT_CONTEXT_SIZE bytes. A Thread port that
    // is connected already is disconnected first. The filter takes one connection of each kind:
    // while another Thread port stands (this service's or another's) it refuses this one with
    // HRESULT_FROM_WIN32(ERROR_CONNECTION_REFUSED).
    HRESULT ConnectThreadPort();
    // The Config port: no connection context. Refused as the Thread port is while another Config
    // port stands.
    HRESULT ConnectConfigPort();
    // Both, the Thread port first, so that requests have a channel by the time the filter is
    // configured. On a failure neither stays connected.
    HRESULT Connect();
    // Closing the Thread port ends the receiver's workers and joins them.
    void DisconnectThreadPort();
    // Closing the Config port puts the filter into pass-through mode.
    void DisconnectConfigPort();
    void Disconnect();

    HANDLE threadPort() const { return threadPort_.get(); }
    HANDLE configPort() const { return configPort_.get(); }

    // ---- control messages, on the Config port (E_HANDLE when it is not connected) ----
    // A message of the caller's making; output may be null. *returned gets the reply's length.
    HRESULT SendControl(const HeapBuffer& message, HeapBuffer* output, DWORD* returned);
    HRESULT SetConfiguration(const Configuration& configuration);
    HRESULT Send(const ConfigurationMessage& message);
    HRESULT SetTracingEnabled(bool enable);
    // The dirty block queries are in dirtyblocks.hpp.

    // ---- requests, on the Thread port ----
    // Starts `workers` threads answering the filter's requests with handler. E_HANDLE when the
    // Thread port is not connected; HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS) when a receiver runs
    // already (it ends with DisconnectThreadPort).
    HRESULT StartReceiving(RequestHandler handler, unsigned workers, ThreadStarter starter = {},
                           size_t bufferSize = sizeof(FILTER_MESSAGE_HEADER) + kLargestRequest);
    RequestReceiver* receiver() const { return receiver_.get(); }

    // The largest request the filter sends: a head and two strings of 65,534 bytes.
    static constexpr size_t kLargestRequest = SERVICE_REQUEST_MAX_SIZE;

private:
    const WCHAR* portName_;
    PortHandle threadPort_;
    PortHandle configPort_;
    std::unique_ptr<RequestReceiver> receiver_;
};

}  // namespace foldermerge::service
