// EpollManager: the one event-loop thread of an IPC endpoint.
//
// It owns an epoll instance, a control eventfd that ends the loop, and a table
// of callbacks per descriptor. Write interest (EPOLLOUT) is armed only while
// the endpoint has something to send, so a quiet connection never wakes the
// loop:
//   producer:  queue data, then notifyWriteEventReady(fd)
//   loop:      calls writeCallback whenever fd is writable; the callback
//              returns 0 while it sent something (stay armed), -3 when it
//              found nothing to send or -1 on failure (both disarm, unless a
//              producer asked again while the callback ran).
// A write callback that cannot make progress may ask for one more call after
// a delay (scheduleWriteRetry) instead of blocking the loop.
//
// Use: construct, addMonitorFd() from initFunc or from callbacks, start();
// stop() or the destructor ends the loop. initFunc runs once on the loop
// thread before the first wait.
//
// Threading: every callback runs on the loop thread. notifyWriteEventReady,
// markWriteEventFinish, delMonitorFd and writeEventNow may be called from any
// thread; the table is guarded by the manager's mutex, and a callback keeps
// its entry alive while it runs even if it unregisters its own descriptor.
// No lock is held while a callback runs.
#pragma once

#include <sched.h>
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

struct EpollCallback {
    std::function<int(epoll_event)> readCallback;   // on EPOLLIN
    std::function<int(epoll_event)> writeCallback;  // on EPOLLOUT (armed on request)
    std::function<int(epoll_event)> closeCallback;  // on EPOLLHUP, EPOLLRDHUP or EPOLLERR
    uint32_t events = 0;  // interest currently registered; kept by the manager
};

class EpollManager {
public:
    // epollSize: size hint (> 0); maxEvents: events handled per wait;
    // name: thread name and log tag ("BpfUtils" when null); cpus: the loop
    // thread's affinity (an empty set means CPU 0); timeoutMs: -1 waits forever.
    EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* name,
                 cpu_set_t cpus, int timeoutMs);
    // As above, with the calling thread's affinity (CPU 0 if it cannot be read).
    EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, const char* name,
                 int timeoutMs);
    // As above, named "BpfUtils".
    EpollManager(int epollSize, int maxEvents, std::function<int()> initFunc, int timeoutMs);
    ~EpollManager();

    EpollManager(const EpollManager&) = delete;
    EpollManager& operator=(const EpollManager&) = delete;

    // Starts the loop thread; false if it is already running or cannot be
    // created. A stopped manager can be started again.
    bool start();
    // Ends the loop at its next wake-up (at once through the control fd).
    bool stop();
    // Waits until the loop thread has ended (after stop()); a no-op on the
    // loop thread itself or when no thread runs.
    void join();

    bool addMonitorFd(int fd, EpollCallback callback);
    bool delMonitorFd(int fd);
    bool notifyWriteEventReady(int fd);
    bool markWriteEventFinish(int fd);
    // Runs fd's write callback on the caller's thread until it returns -1
    // (false) or -3 (true).
    bool writeEventNow(int fd);
    // Calls fd's write callback once more after delayMs even if the socket
    // does not become writable (the entry's deadline is replaced).
    bool scheduleWriteRetry(int fd, int delayMs);
    // Stops / resumes watching fd for input (EPOLLIN); hang-ups still
    // arrive while it is paused. Any thread.
    bool pauseRead(int fd);
    bool resumeRead(int fd);
    // Runs `task` once on the loop thread, delayMs from now (a task still
    // waiting when the loop ends runs if it is started again). Called on the
    // loop thread: a call from another thread counts from its next wake-up.
    void runAfter(int delayMs, std::function<void()> task);

    bool isRunning() const { return running_.load(); }
    const std::string& name() const { return name_; }

    void mainThread();

private:
    struct Entry {
        EpollCallback callback;
        // A producer asked for a write since the write callback last started.
        bool writeRequested = false;
    };

    std::shared_ptr<Entry> findEntry(int fd);
    // Handles one event; false when the loop must end.
    bool handleEvent(const epoll_event& event);
    void runWriteCallback(int fd, const std::shared_ptr<Entry>& entry, const epoll_event& event);
    // Disarms EPOLLOUT after a write callback gave up, unless more was asked
    // for meanwhile or the descriptor was unregistered by the callback.
    void finishWrite(int fd, const std::shared_ptr<Entry>& entry);
    int nextWaitTimeout();
    void runDueWriteRetries();
    void runDueTasks();
    // EPOLL_CTL_MOD of fd's entry with `events`; the caller holds mutex_.
    bool setEventsLocked(int fd, uint32_t events, const char* what);

    cpu_set_t cpus_;
    std::string name_;
    int eventCount_ = 0;
    int controlFd_ = -1;
    std::atomic<bool> running_{false};
    std::mutex mutex_;
    std::thread thread_;
    int epollFd_ = -1;
    int epollSize_ = 0;
    int maxEvents_ = 0;
    int timeoutMs_ = -1;
    std::unique_ptr<epoll_event[]> events_;
    std::map<int, std::shared_ptr<Entry>> callbacks_;
    std::map<int, int64_t> writeRetryDeadlines_;           // fd -> monotonic ms
    std::multimap<int64_t, std::function<void()>> tasks_;  // due (monotonic ms) -> task
    std::function<int()> initFunc_;
};
