// The filter's end of the Thread port, for running the request transport without the whole driver:
// a small minifilter that owns a communication port and keeps g_ServiceData as the driver does, so
// that SendServiceRequest and the file access helpers run as they do inside FolderMerge.
//
//     TransportHost host;
//     ASSERT_EQ(host.Load(), STATUS_SUCCESS);                        // after the volumes are mounted
//     ScriptedResponder service({.portName = TransportHost::kPortName});
//     ASSERT_EQ(service.Connect(), S_OK);
//     ... BeginServiceRequest / SendServiceRequest / EndServiceRequest ...
//     EXPECT_EQ(host.Unload(), STATUS_SUCCESS);
//
// Connections follow the driver's rule: a connection context of exactly 4 bytes makes a Thread
// port connection, which takes g_ServiceData.ThreadClientPort; anything else is a Config port
// connection. Each connection closes its own client port when it ends, emptying the slot if it
// still holds that port, and the end of a Thread port connection adds 1 to
// g_ServiceData.ClientPortDisconnectCount. The host attaches to every volume, so that its instance
// can stand in for the operation's target instance. One host at a time.
#pragma once

#include <fltKernel.h>
#include <ntsim/sim/iomanager.hpp>

#include "driver/globals.h"
#include "driver/ownedstring.h"

#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace foldermerge::service {

class TransportHost {
public:
    static constexpr char16_t kPortName[] = u"\\FolderMergeTransportHost";
    static constexpr char16_t kFilterName[] = u"FolderMergeTransportHost";

    TransportHost() = default;
    ~TransportHost()
    {
        if (loaded_) {
            Unload();
        }
    }
    TransportHost(const TransportHost&) = delete;
    TransportHost& operator=(const TransportHost&) = delete;

    // Loads the host filter, with the filter's pool tag as its own: whatever a request leaves of
    // that tag is a leak at unload.
    NTSTATUS Load()
    {
        NTSTATUS status = ntsim::LoadFilter(
            DriverEntry, {.name = kFilterName, .altitude = u"185100", .poolTags = {FOLDERMERGE_POOL_TAG}});
        loaded_ = NT_SUCCESS(status);
        return status;
    }

    NTSTATUS Unload()
    {
        loaded_ = false;
        return ntsim::UnloadFilter(kFilterName);
    }

    // The host's instance on a mounted volume ("\Device\HarddiskVolume2"), or null. The instance
    // lives until the volume is dismounted or the host unloads.
    static PFLT_INSTANCE InstanceOf(std::u16string_view volumeName)
    {
        std::u16string name(volumeName);
        UNICODE_STRING counted;
        counted.Buffer = reinterpret_cast<PWCH>(name.data());
        counted.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
        counted.MaximumLength = counted.Length;
        PFLT_VOLUME volume = nullptr;
        if (!NT_SUCCESS(FltGetVolumeFromName(g_ServiceData.FilterHandle, &counted, &volume))) {
            return nullptr;
        }
        PFLT_INSTANCE instance = nullptr;
        if (!NT_SUCCESS(FltGetVolumeInstanceFromName(g_ServiceData.FilterHandle, volume, nullptr, &instance))) {
            instance = nullptr;
        }
        FltObjectDereference(volume);
        if (instance != nullptr) {
            FltObjectDereference(instance);
        }
        return instance;
    }

private:
    struct State {
        std::mutex mutex;
        PFLT_PORT serverPort = nullptr;
        std::map<PFLT_PORT, bool> connections;  // client port -> is a Thread port connection
    };

    static State& GetState()
    {
        static State state;
        return state;
    }

    static NTSTATUS FLTAPI Connect(PFLT_PORT ClientPort, PVOID, PVOID ConnectionContext, ULONG SizeOfContext,
                                   PVOID* ConnectionPortCookie)
    {
        bool threadPort = ConnectionContext != nullptr && SizeOfContext == 4;
        {
            std::lock_guard lock(GetState().mutex);
            GetState().connections[ClientPort] = threadPort;
        }
        if (threadPort) {
            g_ServiceData.ThreadClientPort = ClientPort;
        } else {
            g_ServiceData.ConfigClientPort = ClientPort;
        }
        g_ServiceData.ServiceProcess = IoGetCurrentProcess();
        *ConnectionPortCookie = ClientPort;
        return STATUS_SUCCESS;
    }

    static VOID FLTAPI Disconnect(PVOID ConnectionCookie)
    {
        PFLT_PORT port = static_cast<PFLT_PORT>(ConnectionCookie);
        bool threadPort;
        {
            std::lock_guard lock(GetState().mutex);
            auto it = GetState().connections.find(port);
            if (it == GetState().connections.end()) {
                return;
            }
            threadPort = it->second;
            GetState().connections.erase(it);
        }
        PFLT_PORT* slot = threadPort ? &g_ServiceData.ThreadClientPort : &g_ServiceData.ConfigClientPort;
        if (*slot == port) {
            FltCloseClientPort(g_ServiceData.FilterHandle, slot);
        } else {
            FltCloseClientPort(g_ServiceData.FilterHandle, &port);
        }
        if (threadPort) {
            g_ServiceData.ClientPortDisconnectCount++;
        }
    }

    static NTSTATUS FLTAPI Unload(FLT_FILTER_UNLOAD_FLAGS)
    {
        State& state = GetState();
        if (state.serverPort != nullptr) {
            FltCloseCommunicationPort(state.serverPort);
            state.serverPort = nullptr;
        }
        FltUnregisterFilter(g_ServiceData.FilterHandle);
        RtlZeroMemory(&g_ServiceData, sizeof(g_ServiceData));
        return STATUS_SUCCESS;
    }

    static NTSTATUS FLTAPI InstanceSetup(PCFLT_RELATED_OBJECTS, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE,
                                         FLT_FILESYSTEM_TYPE)
    {
        return STATUS_SUCCESS;
    }

    static NTSTATUS DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END}};
        static const FLT_REGISTRATION registration = {
            .Size = sizeof(FLT_REGISTRATION),
            .Version = FLT_REGISTRATION_VERSION,
            .OperationRegistration = operations,
            .FilterUnloadCallback = Unload,
            .InstanceSetupCallback = InstanceSetup,
        };
        RtlZeroMemory(&g_ServiceData, sizeof(g_ServiceData));
        g_PoolType = NonPagedPool;
        NTSTATUS status = FltRegisterFilter(driver, &registration, &g_ServiceData.FilterHandle);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        UNICODE_STRING portName;
        portName.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t*>(kPortName));
        portName.Length = static_cast<USHORT>((sizeof(kPortName) - sizeof(char16_t)));
        portName.MaximumLength = portName.Length;
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &portName, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr,
                                   nullptr);
        status = FltCreateCommunicationPort(g_ServiceData.FilterHandle, &GetState().serverPort, &attributes, nullptr,
                                            Connect, Disconnect, nullptr, 8);
        if (NT_SUCCESS(status)) {
            status = FltStartFiltering(g_ServiceData.FilterHandle);
            if (!NT_SUCCESS(status)) {
                FltCloseCommunicationPort(GetState().serverPort);
                GetState().serverPort = nullptr;
            }
        }
        if (!NT_SUCCESS(status)) {
            FltUnregisterFilter(g_ServiceData.FilterHandle);
            RtlZeroMemory(&g_ServiceData, sizeof(g_ServiceData));
        }
        return status;
    }

    bool loaded_ = false;
};

}  // namespace foldermerge::service
