// EventManager: who subscribed to which event type, and the fan-out of each
// record to those subscribers.
//
// Clients subscribe by event type (kernel types 0 to 7, service events 50001
// to 50004) through request packages; the service's request callback calls
// AddObserverEvent / DelObserverEvent, and the close callback EraseObserver.
// The producers hand every record to AppendEvent, which queues a type-3
// package holding a copy of it on the outgoing queue of every client
// subscribed to the record's type (its first 32-bit field) and asks the
// socket server to write.
//
// Wiring: the service, holding quorRawEventManagerLock, sets the client map
// (descriptor -> outgoing queue) and the server once at construction.
//
// Threading: quorRawEventManagerLock guards creation of the instance, both
// indexes and every fan-out. The client map is changed only on the socket
// thread and only under that lock; AppendEvent reads it under the lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <mutex>
#include <vector>

#include "ipc/ipc_package_manager.h"

class UnixIpcManager;

namespace Quor {
namespace Bpf {

class EventManager {
public:
    using ClientMap = std::map<int, IpcPackageManager>;

    static EventManager* GetInstance();
    static std::mutex quorRawEventManagerLock;

    void AddObserverEvent(int fd, int eventType);
    void DelObserverEvent(int fd, int eventType);
    void EraseObserver(int fd);
    // Queues the record for every subscriber of its type; returns 0.
    int AppendEvent(char* data, unsigned long len);

    // The caller holds quorRawEventManagerLock.
    void setClientMapLocked(ClientMap* clients) { clients_ = clients; }
    void setServerLocked(UnixIpcManager* server) { server_ = server; }

    // Types fd subscribed to, in subscription order.
    std::vector<int> GetObserverEvents(int fd);
    size_t CountObserverEvents(int fd);
    // Descriptors subscribed to eventType, in subscription order.
    std::vector<int> GetEventObservers(int eventType);
    // Entries of both indexes; an empty list is never kept.
    size_t CountIndexEntries();

private:
    EventManager() = default;

    ClientMap* clients_ = nullptr;
    std::map<int, std::vector<int>> observers_;  // fd -> event types
    std::map<int, std::vector<int>> events_;     // event type -> fds
    UnixIpcManager* server_ = nullptr;

    // Read without the lock on every record; created under it.
    static std::atomic<EventManager*> instance;
};

}  // namespace Bpf
}  // namespace Quor
