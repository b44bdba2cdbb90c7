#include "ipc/epoll_manager.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <system_error>
#include <vector>

#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_time.h"
#include "ipc/socket_utils.h"

namespace {

using Quor::Bpf::MonotonicMs;

constexpr const char* kDefaultName = "BpfUtils";
// Pause after an epoll_wait error other than EINTR, so that a broken epoll
// descriptor does not turn the loop into a busy spin.
constexpr auto kWaitErrorBackoff = std::chrono::milliseconds(100);

cpu_set_t CallerAffinity() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (sched_getaffinity(gettid(), sizeof(cpus), &cpus) != 0) {
        QLOGE(kDefaultName, "[EpollManager] init cpu affinity failed! so use default affinity. %s",
              strerror(errno));
        CPU_ZERO(&cpus);
        CPU_SET(0, &cpus);
    }
    return cpus;
}

// A peer that vanishes must not kill the host process, and the endpoint's
// thread is no place for a quit request: keep both signals away from this
// thread only, leaving the process's own dispositions alone. Sends use
// MSG_NOSIGNAL as well.
void KeepSignalsOffThisThread() {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    sigaddset(&blocked, SIGQUIT);
    (void)pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

}  // namespace

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc,
                           const char* name, cpu_set_t cpus, int timeoutMs)
    : cpus_(cpus),
      name_(name != nullptr ? name : kDefaultName),
      epollSize_(epollSize),
      maxEvents_(maxEvents > 0 ? maxEvents : 1),
      timeoutMs_(timeoutMs),
      initFunc_(std::move(initFunc)) {
    if (CPU_COUNT(&cpus_) == 0) {
        QLOGE(kDefaultName, "[EpollManager] cpu affinity invalid!");
        CPU_SET(0, &cpus_);
    }
    if (epollSize_ <= 0) {
        errno = EINVAL;
    } else {
        epollFd_ = epoll_create1(EPOLL_CLOEXEC);
    }
    if (epollFd_ == -1) {
        QLOGE(name_.c_str(), "[EpollManager] Create epoll failed: %d, message: %s", errno,
              strerror(errno));
    }
    events_.reset(new (std::nothrow) epoll_event[maxEvents_]);
    if (!events_) {
        QLOGE(name_.c_str(), "[EpollManager] Allocate event queue failed: %d, message: %s", ENOMEM,
              strerror(ENOMEM));
    }
    controlFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (controlFd_ == -1) {
        QLOGE(name_.c_str(), "[EpollManager] Allocate control fd failed: %d, message: %s", errno,
              strerror(errno));
    } else if (!EpollCtlAdd(epollFd_, controlFd_, EPOLLIN)) {
        QLOGE(name_.c_str(), "[EpollManager] Setup control fd failed: %d, message: %s", errno,
              strerror(errno));
    }
}

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc,
                           const char* name, int timeoutMs)
    : EpollManager(epollSize, maxEvents, std::move(initFunc), name, CallerAffinity(), timeoutMs) {}

EpollManager::EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc,
                           int timeoutMs)
    : EpollManager(epollSize, maxEvents, std::move(initFunc), kDefaultName, timeoutMs) {}

EpollManager::~EpollManager() {
    stop();
    join();
    // Destroyed from one of its own callbacks: the loop ends on its own.
    if (thread_.joinable()) thread_.detach();
    if (epollFd_ != -1) (void)close(epollFd_);
    if (controlFd_ != -1) (void)close(controlFd_);
    epollFd_ = -1;
    controlFd_ = -1;
    std::lock_guard<std::mutex> lock(mutex_);
    callbacks_.clear();
    writeRetryDeadlines_.clear();
    tasks_.clear();
}

bool EpollManager::start() {
    QLOGI(name_.c_str(), "[EpollManager] main thread starting...");
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_.load()) {
        QLOGW(name_.c_str(), "[EpollManager] main thread already running");
        return false;
    }
    if (thread_.joinable()) thread_.join();  // a loop that was stopped earlier
    // Forget stop requests that the previous loop did not consume.
    uint64_t drained = 0;
    if (controlFd_ != -1) (void)read(controlFd_, &drained, sizeof(drained));
    running_.store(true);
    try {
        thread_ = std::thread(&EpollManager::mainThread, this);
    } catch (const std::system_error& e) {
        running_.store(false);
        QLOGE(name_.c_str(), "[EpollManager] thread constructor failed: %s", e.what());
        return false;
    }
    return true;
}

bool EpollManager::stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    running_.store(false);
    if (controlFd_ == -1) return false;
    const uint64_t one = 1;
    return write(controlFd_, &one, sizeof(one)) == sizeof(one);
}

void EpollManager::join() {
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

bool EpollManager::addMonitorFd(int fd, EpollCallback callback) {
    uint32_t events = 0;
    if (callback.closeCallback) events |= EPOLLRDHUP | EPOLLHUP;
    if (callback.readCallback) events |= EPOLLIN;
    std::lock_guard<std::mutex> lock(mutex_);
    if (!EpollCtlAdd(epollFd_, fd, events)) {
        QLOGE(name_.c_str(), "[EpollManager] Epoll add monitor fd failed: %d, message: %s", errno,
              strerror(errno));
        return false;
    }
    auto entry = std::make_shared<Entry>();
    entry->callback = std::move(callback);
    entry->callback.events = events;
    callbacks_[fd] = std::move(entry);
    writeRetryDeadlines_.erase(fd);
    return true;
}

bool EpollManager::delMonitorFd(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr) == -1) {
        QLOGE(name_.c_str(), "[EpollManager] Epoll del fd from epoll failed: %d, message: %s",
              errno, strerror(errno));
        return false;
    }
    callbacks_.erase(fd);
    writeRetryDeadlines_.erase(fd);
    return true;
}

bool EpollManager::notifyWriteEventReady(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) {
        QLOGE(name_.c_str(), "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
        return false;
    }
    Entry& entry = *it->second;
    entry.writeRequested = true;
    if (entry.callback.events & EPOLLOUT) return true;
    uint32_t events = entry.callback.events;
    if (entry.callback.writeCallback) events |= EPOLLOUT;
    if (!EpollCtlMod(epollFd_, fd, events)) {
        QLOGE(name_.c_str(),
              "[EpollManager][notifyWriteEventReady] Epoll mod monitor failed, fd: %d, message: %s",
              fd, strerror(errno));
        return false;
    }
    entry.callback.events = events;
    return true;
}

bool EpollManager::markWriteEventFinish(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) {
        QLOGE(name_.c_str(), "[EpollManager][markWriteEventFinish] the socket fd does not exist");
        return false;
    }
    const uint32_t events = it->second->callback.events & ~static_cast<uint32_t>(EPOLLOUT);
    if (!EpollCtlMod(epollFd_, fd, events)) {
        QLOGE(name_.c_str(),
              "[EpollManager][markWriteEventFinish] Epoll mod monitor failed, fd: %d, message: %s",
              fd, strerror(errno));
        return false;
    }
    it->second->callback.events = events;
    return true;
}

bool EpollManager::writeEventNow(int fd) {
    std::shared_ptr<Entry> entry = findEntry(fd);
    if (!entry) {
        QLOGE(name_.c_str(), "[EpollManager][notifyWriteEventReady] the socket fd does not exist");
        return false;
    }
    if (!entry->callback.writeCallback) return false;
    epoll_event event = {};
    event.data.fd = fd;
    for (;;) {
        const int result = entry->callback.writeCallback(event);
        if (result == -1) return false;
        if (result == -3) return true;
    }
}

bool EpollManager::scheduleWriteRetry(int fd, int delayMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (callbacks_.find(fd) == callbacks_.end()) return false;
    writeRetryDeadlines_[fd] = MonotonicMs() + (delayMs > 0 ? delayMs : 0);
    return true;
}

bool EpollManager::setEventsLocked(int fd, uint32_t events, const char* what) {
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) return false;
    if (it->second->callback.events == events) return true;
    if (!EpollCtlMod(epollFd_, fd, events)) {
        QLOGE(name_.c_str(), "[EpollManager][%s] Epoll mod monitor failed, fd: %d, message: %s",
              what, fd, strerror(errno));
        return false;
    }
    it->second->callback.events = events;
    return true;
}

bool EpollManager::pauseRead(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end()) return false;
    return setEventsLocked(fd, it->second->callback.events & ~static_cast<uint32_t>(EPOLLIN),
                           "pauseRead");
}

bool EpollManager::resumeRead(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end() || !it->second->callback.readCallback) return false;
    return setEventsLocked(fd, it->second->callback.events | EPOLLIN, "resumeRead");
}

void EpollManager::runAfter(int delayMs, std::function<void()> task) {
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_.emplace(MonotonicMs() + (delayMs > 0 ? delayMs : 0), std::move(task));
}

std::shared_ptr<EpollManager::Entry> EpollManager::findEntry(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = callbacks_.find(fd);
    return it == callbacks_.end() ? nullptr : it->second;
}

void EpollManager::mainThread() {
    KeepSignalsOffThisThread();
    (void)prctl(PR_SET_NAME, name_.c_str(), 0, 0, 0);
    if (sched_setaffinity(gettid(), sizeof(cpus_), &cpus_) != 0) {
        QLOGE(name_.c_str(),
              "[EpollManager][mainThread] init epoll manager thread affinity failed! %s",
              strerror(errno));
    }
    if (initFunc_ && initFunc_() == 0) {
        QLOGE(name_.c_str(), "[EpollManager][mainThread] initFunc failed");
    }

    bool waitErrorLogged = false;
    while (running_.load()) {
        const int count =
            epoll_wait(epollFd_, events_ ? events_.get() : nullptr, maxEvents_, nextWaitTimeout());
        eventCount_ = count;
        if (count < 0 && errno != EINTR) {
            if (!waitErrorLogged) {
                QLOGE(name_.c_str(),
                      "[EpollManager][mainThread] epoll wait failed: %d, message: %s", errno,
                      strerror(errno));
                waitErrorLogged = true;
            }
            std::this_thread::sleep_for(kWaitErrorBackoff);
            continue;
        }
        for (int i = 0; i < count; ++i) {
            if (!handleEvent(events_[i])) return;
        }
        runDueWriteRetries();
        runDueTasks();
    }
}

bool EpollManager::handleEvent(const epoll_event& event) {
    const int fd = event.data.fd;
    if (fd == controlFd_) {
        uint64_t value = 0;
        (void)read(controlFd_, &value, sizeof(value));
        return false;
    }
    // A descriptor unregistered earlier in this batch has no entry; its event
    // is stale and ignored.
    std::shared_ptr<Entry> entry = findEntry(fd);
    if (!entry) return true;
    const EpollCallback& callback = entry->callback;

    if ((event.events & (EPOLLHUP | EPOLLRDHUP | EPOLLERR)) && callback.closeCallback) {
        callback.closeCallback(event);
        return true;
    }
    if ((event.events & EPOLLIN) && callback.readCallback) {
        const int result = callback.readCallback(event);
        if (result == -3 || result == -2 || result == -1 || result == 1) return true;
    }
    if ((event.events & EPOLLOUT) && callback.writeCallback) {
        runWriteCallback(fd, entry, event);
    }
    return true;
}

void EpollManager::runWriteCallback(int fd, const std::shared_ptr<Entry>& entry,
                                    const epoll_event& event) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        entry->writeRequested = false;
    }
    const int result = entry->callback.writeCallback(event);
    if (result == -1 || result == -3) finishWrite(fd, entry);
}

void EpollManager::finishWrite(int fd, const std::shared_ptr<Entry>& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    // A producer queued more while the callback ran: its notice found EPOLLOUT
    // still armed, so keeping it armed is what delivers that data.
    if (entry->writeRequested) return;
    auto it = callbacks_.find(fd);
    if (it == callbacks_.end() || it->second != entry) return;
    if (!(entry->callback.events & EPOLLOUT)) return;
    const uint32_t events = entry->callback.events & ~static_cast<uint32_t>(EPOLLOUT);
    if (!EpollCtlMod(epollFd_, fd, events)) {
        QLOGE(name_.c_str(), "[EpollManager][mainThread] mark write event finish failed!");
        return;
    }
    entry->callback.events = events;
}

int EpollManager::nextWaitTimeout() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (writeRetryDeadlines_.empty() && tasks_.empty()) return timeoutMs_;
    int64_t earliest = tasks_.empty() ? INT64_MAX : tasks_.begin()->first;
    for (const auto& deadline : writeRetryDeadlines_) {
        if (deadline.second < earliest) earliest = deadline.second;
    }
    int64_t wait = earliest - MonotonicMs();
    if (wait < 0) wait = 0;
    if (timeoutMs_ >= 0 && timeoutMs_ < wait) wait = timeoutMs_;
    return static_cast<int>(wait);
}

void EpollManager::runDueWriteRetries() {
    std::vector<int> due;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (writeRetryDeadlines_.empty()) return;
        const int64_t now = MonotonicMs();
        for (auto it = writeRetryDeadlines_.begin(); it != writeRetryDeadlines_.end();) {
            if (it->second <= now) {
                due.push_back(it->first);
                it = writeRetryDeadlines_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const int fd : due) {
        std::shared_ptr<Entry> entry = findEntry(fd);
        if (!entry || !entry->callback.writeCallback) continue;
        epoll_event event = {};
        event.data.fd = fd;
        runWriteCallback(fd, entry, event);
    }
}

void EpollManager::runDueTasks() {
    std::vector<std::function<void()>> due;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const int64_t now = MonotonicMs();
        while (!tasks_.empty() && tasks_.begin()->first <= now) {
            due.push_back(std::move(tasks_.begin()->second));
            tasks_.erase(tasks_.begin());
        }
    }
    for (auto& task : due) task();
}
