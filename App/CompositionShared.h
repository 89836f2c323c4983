#pragma once

#include <memory>

#include "Platform/Linux/Clipboard/Pasteboards.h"
#include "Platform/Linux/Clipboard/ZipFolderArchiver.h"
#include "Platform/Linux/Discovery/AvahiServiceDiscovery.h"
#include "Platform/Linux/System/JsonPreferenceStore.h"
#include "Platform/Linux/System/LinuxKeepAwake.h"
#include "Platform/Linux/System/LinuxMachineInfo.h"
#include "Platform/Linux/Web/QtWebSocket.h"
#include "Shared/ClipboardSync.h"
#include "VelmoraKit/Core/Queue.h"
#include "VelmoraKit/Core/ThreadQueue.h"
#include "VelmoraKit/Signaling/SignalingUrl.h"

namespace velmora {

/// Those services of this system that host and viewer of a process have in common.
struct SharedServices {
    SharedServices(Queue& mainQueue, SignalingUrl service)
        : main(mainQueue), rendezvous(std::move(service)) {}
    ~SharedServices() { end(); }
    SharedServices(const SharedServices&) = delete;
    SharedServices& operator=(const SharedServices&) = delete;

    /// Nothing runs on these queues any more. Before what was made on them goes; may be repeated.
    void end() {
        files.end();
        worker.end();
        preferences.flush();
    }
    ClipboardSync::Services forClipboard();

    Queue& main;
    const SignalingUrl rendezvous;
    JsonPreferenceStore preferences{JsonPreferenceStore::defaultFile()};
    LinuxMachineInfo machine;
    LinuxKeepAwake keepAwake{main};
    const std::unique_ptr<Pasteboard> pasteboard = makePasteboard(main);
    ZipFolderArchiver archiver;
    AvahiServiceDiscovery discovery;
    QtWebSocketFactory sockets;
    ThreadQueue worker{"velmora.worker"};
    ThreadQueue files{"velmora.files"};
};

}  // namespace velmora
