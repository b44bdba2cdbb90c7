#include "service/event_manager.h"

#include <algorithm>

#include "diag/quor_bpf_log.h"
#include "ipc/unix_ipc_manager.h"

namespace Quor {
namespace Bpf {

std::atomic<EventManager*> EventManager::instance{nullptr};
std::mutex EventManager::quorRawEventManagerLock;

namespace {

constexpr size_t kRenoticeEvery = 256;

void EraseValue(std::vector<int>* values, int value) {
    values->erase(std::remove(values->begin(), values->end(), value), values->end());
}

}  // namespace

EventManager* EventManager::GetInstance() {
    EventManager* current = instance.load(std::memory_order_acquire);
    if (current != nullptr) return current;
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    current = instance.load(std::memory_order_relaxed);
    if (current == nullptr) {
        current = new EventManager();
        instance.store(current, std::memory_order_release);
    }
    return current;
}

void EventManager::AddObserverEvent(int fd, int eventType) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    std::vector<int>& types = observers_[fd];
    if (std::find(types.begin(), types.end(), eventType) != types.end()) return;
    types.push_back(eventType);
    events_[eventType].push_back(fd);
}

void EventManager::DelObserverEvent(int fd, int eventType) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    // Empty lists go at once: a client naming ever new types must not leave
    // an entry behind for each.
    auto observer = observers_.find(fd);
    if (observer != observers_.end()) {
        EraseValue(&observer->second, eventType);
        if (observer->second.empty()) observers_.erase(observer);
    }
    auto event = events_.find(eventType);
    if (event != events_.end()) {
        EraseValue(&event->second, fd);
        if (event->second.empty()) events_.erase(event);
    }
}

void EventManager::EraseObserver(int fd) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    auto observer = observers_.find(fd);
    if (observer == observers_.end()) return;
    for (const int type : observer->second) {
        auto event = events_.find(type);
        if (event == events_.end()) continue;
        EraseValue(&event->second, fd);
        if (event->second.empty()) events_.erase(event);
    }
    observers_.erase(observer);
}

int EventManager::AppendEvent(char* data, unsigned long len) {
    if (data == nullptr || len < sizeof(int32_t)) return 0;  // no type to route by
    const int32_t type = IpcReadS32(data);
    QuorIpcPackage package{0, nullptr};
    IpcPackageManager::Overflow overflow;
    {
        // Most records have no subscriber: one lookup, nothing built. One
        // lock for the whole fan-out: building the package is a copy into a
        // block from this thread's own cache, shorter than a second lock.
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        if (events_.empty()) return 0;
        auto event = events_.find(type);
        if (event == events_.end() || event->second.empty() || clients_ == nullptr) return 0;
        // Built once for every subscriber.
        package = IpcPackageManager::BuildSharedSecondIpcPackage(IPC_PACKAGE_EVENT, data, len);
        if (package.packageData == nullptr) return 0;
        {
            for (const int fd : event->second) {
                auto client = clients_->find(fd);
                if (client == clients_->end()) {
                    QLOGE(QUOR_TAG_SERVICE,
                          "[EventManager][AppendEvent] no client for subscriber fd %d", fd);
                    continue;
                }
                // A queue that already held packages has its write pending:
                // the socket thread drains queues to empty before it gives up
                // write interest, so an empty queue needs the notice. Every
                // so often a busy one gets it too, in case its connection
                // gave up writing after a socket error.
                const size_t queued = client->second.appendSharedIpcPackage(package, &overflow);
                if ((queued == 0 || queued % kRenoticeEvery == 0) && server_ != nullptr) {
                    (void)server_->notifyNeedWriteData(fd);
                }
            }
        }
    }
    IpcPackageManager::ReleaseSharedIpcPackage(package);
    // Every producer and client waits for the fan-out lock: the queues that
    // overflowed are reported only now.
    if (overflow.queues != 0) IpcPackageManager::FinishOverflow(&overflow);
    return 0;
}

std::vector<int> EventManager::GetObserverEvents(int fd) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    auto observer = observers_.find(fd);
    return observer == observers_.end() ? std::vector<int>() : observer->second;
}

size_t EventManager::CountObserverEvents(int fd) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    auto observer = observers_.find(fd);
    return observer == observers_.end() ? 0 : observer->second.size();
}

size_t EventManager::CountIndexEntries() {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    return observers_.size() + events_.size();
}

std::vector<int> EventManager::GetEventObservers(int eventType) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
    auto event = events_.find(eventType);
    return event == events_.end() ? std::vector<int>() : event->second;
}

}  // namespace Bpf
}  // namespace Quor
