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
// A producer that hands over records in batches (a ring-buffer reader
// draining what has come since its last round) says so once
// (BatchThisThread) and calls PublishPending after each batch: its records
// are framed one after the other into a run of its own, without a lock, and
// the run goes to the clients when the batch ends or the run is full. Only
// then are the records routed, by the subscriptions of that moment: the
// frames for the same clients are queued on all of them at once, with one
// notice to the socket server per client. A batch then costs one lock per
// run instead of one per record, and each client's share of it one queue
// entry, one copy and one wake-up. A client that subscribes meanwhile
// receives the run's records of its types, one that unsubscribes does not.
// Any other thread's records are queued at once. Records from one thread
// reach each client in the order they were appended.
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
#include <cstdint>
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
    // Records appended by the calling thread wait for its PublishPending
    // (or a full run) from now on.
    void BatchThisThread();
    // Queues the calling thread's run on its subscribers' queues now.
    void PublishPending();

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

    // The caller holds the lock; overflows are left in *overflow.
    // Routes a run of whole frames to the current subscribers of each.
    void publishRunLocked(const char* run, size_t bytes, IpcPackageManager::Overflow* overflow);
    // Queues `bytes` of whole frames on every client in `fds` as one entry.
    void queueFramesLocked(const char* frames, size_t bytes, const std::vector<int>& fds,
                           IpcPackageManager::Overflow* overflow);
    // Queues one record on every client in `fds` by itself.
    void appendAloneLocked(char* data, unsigned long len, const std::vector<int>& fds,
                           IpcPackageManager::Overflow* overflow);
    // Subscribers of eventType; null for none.
    const std::vector<int>* subscribersLocked(int32_t eventType) const;
    // fd's queue; null, with a log, when fd is no client of the server.
    IpcPackageManager* clientLocked(int fd);
    // Asks the server to write to fd when its queue was empty (or now and
    // then while it fills).
    void notifyLocked(int fd, size_t queuedBefore, size_t added);

    ClientMap* clients_ = nullptr;
    std::map<int, std::vector<int>> observers_;  // fd -> event types
    std::map<int, std::vector<int>> events_;     // event type -> fds
    UnixIpcManager* server_ = nullptr;
    // Whether events_ holds anything; written under the lock, read without.
    std::atomic<bool> anySubscriber_{false};

    // Read without the lock on every record; created under it.
    static std::atomic<EventManager*> instance;
};

}  // namespace Bpf
}  // namespace Quor
