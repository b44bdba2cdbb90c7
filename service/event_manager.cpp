#include "service/event_manager.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "diag/quor_bpf_log.h"
#include "ipc/unix_ipc_manager.h"

namespace Quor {
namespace Bpf {

std::atomic<EventManager*> EventManager::instance{nullptr};
std::mutex EventManager::quorRawEventManagerLock;

namespace {

constexpr size_t kRenoticeEvery = 256;

// A batching thread's records since its last publication: whole frames in
// append order, each an 8-byte length, the package header and the record.
constexpr size_t kRunBytes = 16384;
struct Run {
    char bytes[kRunBytes];
    size_t used = 0;
};
// Set on the threads that batch (BatchThisThread); only that thread touches it.
thread_local std::unique_ptr<Run> tRun;

constexpr size_t kRecordOffset = IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE;

// The event type of the frame at `frame` (the record's first 32-bit field).
int32_t FrameEventType(const char* frame) {
    return IpcReadS32(frame + kRecordOffset);
}

size_t FrameSize(const char* frame) {
    return IPC_FRAME_HEADER_SIZE + static_cast<size_t>(IpcReadS64(frame));
}

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
    if (std::find(types.begin(), types.end(), eventType) == types.end()) {
        types.push_back(eventType);
        events_[eventType].push_back(fd);
    }
    anySubscriber_.store(true, std::memory_order_release);
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
    anySubscriber_.store(!events_.empty(), std::memory_order_release);
}

void EventManager::EraseObserver(int fd) {
    std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
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

const std::vector<int>* EventManager::subscribersLocked(int32_t eventType) const {
    auto event = events_.find(eventType);
    return event == events_.end() || event->second.empty() ? nullptr : &event->second;
}

void EventManager::queueFramesLocked(const char* frames, size_t bytes, const std::vector<int>& fds,
                                     IpcPackageManager::Overflow* overflow) {
    uint32_t count = 0;
    const QuorIpcPackage run = IpcPackageManager::BuildSharedFrames(frames, bytes, &count);
    if (run.packageData == nullptr) return;
    for (const int fd : fds) {
        IpcPackageManager* queue = clientLocked(fd);
        if (queue == nullptr) continue;
        notifyLocked(fd, queue->appendSharedFrames(run, count, overflow), count);
    }
    IpcPackageManager::ReleaseSharedIpcPackage(run);
}

void EventManager::publishRunLocked(const char* run, size_t bytes,
                                    IpcPackageManager::Overflow* overflow) {
    if (clients_ == nullptr) return;
    // Consecutive frames whose types have the same subscribers go out as one
    // entry; frames nobody subscribed to are skipped. Types are looked up
    // only where they change.
    for (size_t at = 0; at < bytes;) {
        int32_t type = FrameEventType(run + at);
        const std::vector<int>* fds = subscribersLocked(type);
        size_t end = at + FrameSize(run + at);
        while (end < bytes) {
            const int32_t next = FrameEventType(run + end);
            if (next != type) {
                const std::vector<int>* nextFds = subscribersLocked(next);
                if (fds == nullptr || nextFds == nullptr ? fds != nextFds : *fds != *nextFds) {
                    break;
                }
                type = next;
            }
            end += FrameSize(run + end);
        }
        if (fds != nullptr) queueFramesLocked(run + at, end - at, *fds, overflow);
        at = end;
    }
}

void EventManager::BatchThisThread() {
    // Without memory for the run the thread's records are queued at once.
    if (tRun == nullptr) tRun.reset(new (std::nothrow) Run);
}

void EventManager::PublishPending() {
    Run* run = tRun.get();
    if (run == nullptr || run->used == 0) return;
    IpcPackageManager::Overflow overflow;
    {
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        publishRunLocked(run->bytes, run->used, &overflow);
    }
    run->used = 0;
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
    // lock and no copy; a subscription made meanwhile starts with the next
    // record.
    if (!anySubscriber_.load(std::memory_order_acquire)) return 0;
    const size_t frame = kRecordOffset + len;
    Run* run = tRun.get();
    if (run != nullptr && frame <= kRunBytes) {
        if (run->used + frame > kRunBytes) PublishPending();
        char* at = run->bytes + run->used;
        const int64_t length = static_cast<int64_t>(IPC_PACKAGE_HEADER_SIZE + len);
        const uint32_t packageType = IPC_PACKAGE_EVENT;
        const uint32_t body = static_cast<uint32_t>(len);
        memcpy(at, &length, sizeof(length));
        memcpy(at + IPC_FRAME_HEADER_SIZE, &packageType, sizeof(packageType));
        memcpy(at + IPC_FRAME_HEADER_SIZE + 4, &body, sizeof(body));
        memcpy(at + kRecordOffset, data, len);
        run->used += frame;
        return 0;
    }
    // Another thread's record, or one larger than a run: queued now, after
    // what this thread's run holds.
    PublishPending();
    IpcPackageManager::Overflow overflow;
    {
        std::lock_guard<std::mutex> lock(quorRawEventManagerLock);
        const std::vector<int>* fds = subscribersLocked(IpcReadS32(data));
        if (fds == nullptr || clients_ == nullptr) return 0;
        appendAloneLocked(data, len, *fds, &overflow);
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
