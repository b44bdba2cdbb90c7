#include "service/event_manager.h"

#include <algorithm>
#include <cstring>

#include "diag/quor_bpf_log.h"
#include "ipc/unix_ipc_manager.h"

namespace Quor {
namespace Bpf {

std::atomic<EventManager*> EventManager::instance{nullptr};
std::mutex EventManager::quorRawEventManagerLock;

namespace {

constexpr size_t kRenoticeEvery = 256;

// Set on the threads whose records wait in the pending run until they
// publish it.
thread_local bool tBatching = false;

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
    IpcPackageManager::Overflow overflow;
    {
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        // Whatever was appended before the change reaches its clients as
        // if it had been queued at once (and before this request's answer).
        publishLocked(&overflow);
        std::vector<int>& types = observers_[fd];
        if (std::find(types.begin(), types.end(), eventType) == types.end()) {
            types.push_back(eventType);
            events_[eventType].push_back(fd);
        }
        anySubscriber_.store(true, std::memory_order_release);
    }
    IpcPackageManager::FinishOverflow(&overflow);
}

void EventManager::DelObserverEvent(int fd, int eventType) {
    IpcPackageManager::Overflow overflow;
    {
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        publishLocked(&overflow);
        // Empty lists go at once: a client naming ever new types must not
        // leave an entry behind for each.
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
        anySubscriber_.store(!events_.empty(), std::memory_order_release);
    }
    IpcPackageManager::FinishOverflow(&overflow);
}

void EventManager::EraseObserver(int fd) {
    IpcPackageManager::Overflow overflow;
    {
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        // A run still naming fd must not outlive its client: the descriptor
        // number may come back as someone else's.
        publishLocked(&overflow);
        auto observer = observers_.find(fd);
        if (observer != observers_.end()) {
            for (const int type : observer->second) {
                auto event = events_.find(type);
                if (event == events_.end()) continue;
                EraseValue(&event->second, fd);
                if (event->second.empty()) events_.erase(event);
            }
            observers_.erase(observer);
        }
        anySubscriber_.store(!events_.empty(), std::memory_order_release);
    }
    IpcPackageManager::FinishOverflow(&overflow);
}

IpcPackageManager* EventManager::clientLocked(int fd) {
    auto client = clients_->find(fd);
    if (client != clients_->end()) return &client->second;
    QLOGE(QUOR_TAG_SERVICE, "[EventManager][AppendEvent] no client for subscriber fd %d", fd);
    return nullptr;
}

void EventManager::notifyLocked(int fd, size_t queuedBefore, size_t added) {
    // A queue that already held packages has its write pending: the socket
    // thread drains queues to empty before it gives up write interest, so
    // an empty queue needs the notice. Every so often a busy one gets it
    // too, in case its connection gave up writing after a socket error.
    if (server_ == nullptr) return;
    if (queuedBefore == 0 ||
        queuedBefore / kRenoticeEvery != (queuedBefore + added) / kRenoticeEvery) {
        (void)server_->notifyNeedWriteData(fd);
    }
}

void EventManager::publishLocked(IpcPackageManager::Overflow* overflow) {
    if (pendingFrames_ == 0) return;
    const size_t bytes = pendingBytes_;
    pendingBytes_ = 0;
    pendingFrames_ = 0;
    if (clients_ == nullptr) return;
    uint32_t frames = 0;
    const QuorIpcPackage run = IpcPackageManager::BuildSharedFrames(pending_.get(), bytes, &frames);
    if (run.packageData == nullptr) return;
    for (const int fd : pendingFds_) {
        IpcPackageManager* queue = clientLocked(fd);
        if (queue == nullptr) continue;
        notifyLocked(fd, queue->appendSharedFrames(run, frames, overflow), frames);
    }
    IpcPackageManager::ReleaseSharedIpcPackage(run);
}

void EventManager::BatchThisThread() {
    tBatching = true;
}

void EventManager::PublishPending() {
    IpcPackageManager::Overflow overflow;
    {
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        publishLocked(&overflow);
    }
    IpcPackageManager::FinishOverflow(&overflow);
}

void EventManager::appendAloneLocked(char* data, unsigned long len, const std::vector<int>& fds,
                                     IpcPackageManager::Overflow* overflow) {
    // Built once for every subscriber.
    const QuorIpcPackage package =
        IpcPackageManager::BuildSharedSecondIpcPackage(IPC_PACKAGE_EVENT, data, len);
    if (package.packageData == nullptr) return;
    for (const int fd : fds) {
        IpcPackageManager* queue = clientLocked(fd);
        if (queue == nullptr) continue;
        notifyLocked(fd, queue->appendSharedIpcPackage(package, overflow), 1);
    }
    IpcPackageManager::ReleaseSharedIpcPackage(package);
}

int EventManager::AppendEvent(char* data, unsigned long len) {
    if (data == nullptr || len < sizeof(int32_t)) return 0;  // no type to route by
    // With no subscriber at all (a device nobody watches) a record costs no
    // lock; a subscription made meanwhile starts with the next record.
    if (!anySubscriber_.load(std::memory_order_acquire)) return 0;
    const int32_t type = IpcReadS32(data);
    IpcPackageManager::Overflow overflow;
    {
        // Most records have no subscriber: one lookup, nothing built. One
        // lock for the whole fan-out: framing the record into the pending
        // run is a short copy, shorter than a second lock.
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        auto event = events_.find(type);
        if (event == events_.end() || event->second.empty() || clients_ == nullptr) return 0;
        const std::vector<int>& fds = event->second;
        const size_t frame = IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE + len;
        // The subscribers of one type stay the same while a run is pending
        // (a change publishes it first): only another type's are compared.
        if (pendingFrames_ != 0 &&
            (pendingBytes_ + frame > kRunBytes || (type != pendingType_ && pendingFds_ != fds))) {
            publishLocked(&overflow);
        }
        if (frame > kRunBytes) {
            appendAloneLocked(data, len, fds, &overflow);
        } else {
            if (pendingFrames_ == 0) pendingFds_ = fds;
            pendingType_ = type;
            char* at = pending_.get() + pendingBytes_;
            const int64_t length = static_cast<int64_t>(IPC_PACKAGE_HEADER_SIZE + len);
            const uint32_t packageType = IPC_PACKAGE_EVENT;
            const uint32_t body = static_cast<uint32_t>(len);
            memcpy(at, &length, sizeof(length));
            memcpy(at + IPC_FRAME_HEADER_SIZE, &packageType, sizeof(packageType));
            memcpy(at + IPC_FRAME_HEADER_SIZE + 4, &body, sizeof(body));
            memcpy(at + IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE, data, len);
            pendingBytes_ += frame;
            pendingFrames_ += 1;
            if (!tBatching) publishLocked(&overflow);
        }
    }
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
