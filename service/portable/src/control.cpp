// The service's two connections and its control messages.
#include <foldermerge/service/control.hpp>

namespace foldermerge::service {

namespace {

// Copies text and its terminating zero into a field of `chars` characters; false when it does not fit.
bool PutText(uint16_t* field, size_t chars, std::u16string_view text)
{
    if (text.size() + 1 > chars) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        field[i] = static_cast<uint16_t>(text[i]);
    }
    field[text.size()] = 0;
    return true;
}

}  // namespace

HRESULT ConfigurationMessage::Build(const Configuration& configuration, ConfigurationMessage* message)
{
    ConfigurationMessage built;
    built.record_ = HeapBuffer(sizeof(SetConfigurationMessage));
    const size_t folders = configuration.folders.size();
    built.block_ = HeapBuffer(offsetof(MergeFolderBlock, Folders) + folders * sizeof(MergeFolderRecord));

    SetConfigurationMessage* record = built.record();
    record->Code = CONTROL_SET_CONFIGURATION;
    record->ConfigVersion = configuration.version;
    std::u16string blacklist;
    for (const std::u16string& name : configuration.blacklist) {
        if (!blacklist.empty()) {
            blacklist += u'|';
        }
        blacklist += name;
    }
    if (!PutText(record->ProcessBlacklist, CONFIGURATION_BLACKLIST_CHARS, blacklist)) {
        return E_INVALIDARG;
    }
    record->pFolderBlock = reinterpret_cast<uintptr_t>(built.block_.data());

    MergeFolderBlock* block = built.folderBlock();
    block->FolderCount = static_cast<uint32_t>(folders);
    for (size_t i = 0; i < folders; ++i) {
        const ManagedFolder& folder = configuration.folders[i];
        // Records lie back to back behind the count; the first is the block's Folders[0].
        auto* entry = reinterpret_cast<MergeFolderRecord*>(built.block_.data() + offsetof(MergeFolderBlock, Folders) +
                                                           i * sizeof(MergeFolderRecord));
        if (!PutText(entry->Sid, CONFIGURATION_SID_CHARS, folder.sid) ||
            !PutText(entry->FolderPath, CONFIGURATION_PATH_CHARS, folder.path)) {
            return E_INVALIDARG;
        }
        entry->bReadOnly = folder.readOnly ? 1 : 0;
    }
    *message = std::move(built);
    return S_OK;
}

FilterConnection::FilterConnection(const WCHAR* portName) : portName_(portName) {}

FilterConnection::~FilterConnection()
{
    Disconnect();
}

HRESULT FilterConnection::ConnectThreadPort()
{
    // The filter tells the Thread port by the context's size alone; its bytes are not read.
    const uint8_t context[THREAD_PORT_CONTEXT_SIZE] = {};
    DisconnectThreadPort();
    return ConnectPort(portName_, context, &threadPort_);
}

HRESULT FilterConnection::ConnectConfigPort()
{
    return ConnectPort(portName_, {}, &configPort_);
}

HRESULT FilterConnection::Connect()
{
    HRESULT result = ConnectThreadPort();
    if (FAILED(result)) {
        return result;
    }
    result = ConnectConfigPort();
    if (FAILED(result)) {
        DisconnectThreadPort();
    }
    return result;
}

void FilterConnection::DisconnectThreadPort()
{
    threadPort_.reset();
    receiver_.reset();  // joins the workers, whose waits the close ended
}

void FilterConnection::DisconnectConfigPort()
{
    configPort_.reset();
}

void FilterConnection::Disconnect()
{
    DisconnectThreadPort();
    DisconnectConfigPort();
}

HRESULT FilterConnection::SendControl(const HeapBuffer& message, HeapBuffer* output, DWORD* returned)
{
    *returned = 0;
    if (!configPort_) {
        return E_HANDLE;
    }
    return FilterSendMessage(configPort_.get(), message.data(), message.dwordSize(),
                             output != nullptr ? output->data() : nullptr, output != nullptr ? output->dwordSize() : 0,
                             returned);
}

HRESULT FilterConnection::Send(const ConfigurationMessage& message)
{
    DWORD returned = 0;
    return SendControl(message.recordBuffer(), nullptr, &returned);
}

HRESULT FilterConnection::SetConfiguration(const Configuration& configuration)
{
    ConfigurationMessage message;
    const HRESULT built = ConfigurationMessage::Build(configuration, &message);
    return FAILED(built) ? built : Send(message);
}

HRESULT FilterConnection::SetTracingEnabled(bool enable)
{
    HeapBuffer message(sizeof(SetTracingEnabledMessage));
    auto* record = message.as<SetTracingEnabledMessage>();
    record->Code = CONTROL_SET_TRACING_ENABLED;
    record->bEnable = enable ? 1 : 0;
    DWORD returned = 0;
    return SendControl(message, nullptr, &returned);
}

HRESULT FilterConnection::StartReceiving(RequestHandler handler, unsigned workers, ThreadStarter starter,
                                         size_t bufferSize)
{
    if (!threadPort_) {
        return E_HANDLE;
    }
    if (receiver_ != nullptr) {
        return HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS);
    }
    receiver_ = std::make_unique<RequestReceiver>(threadPort_.get(), std::move(handler), workers, bufferSize,
                                                  std::move(starter));
    return S_OK;
}

}  // namespace foldermerge::service
