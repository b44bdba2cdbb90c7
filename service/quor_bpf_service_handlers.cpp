// Kernel records -> task registry updates and the service's own events.
//
// Handlers run on both producer threads. Registry records are changed only
// through QuorTaskManager::UpdateQuorTask (under the registry lock), and
// events are sent after it returns. The main reader holds the registry lock
// for each drain of its ring buffer, so its handlers run with it held and take
// the service's other locks inside it; no thread takes the registry lock while
// it holds another of them.
#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bpf/quor_bpf_proc_info.h"
#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"
#include "diag/quor_bpf_task_manager.h"
#include "diag/quor_bpf_time.h"
#include "quor/quor_bpf_records.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr int64_t kSettleTimeNs = 3000000000LL;  // a new process's first 3 s
constexpr int32_t kThreadReportDelta = 11;
constexpr int64_t kRssReportBytes = 16384;
constexpr int64_t kRefreshIntervalS = 2;
constexpr int32_t kKernelThreadParent = 2;
constexpr int32_t kLowestReportedPid = 300;
constexpr uint32_t kMemoryEventMmId = 1000;
constexpr int64_t kDmabufCleanupIntervalMs = 1000;
constexpr size_t kDmabufCleanupMaxPending = 4096;
// Processes ended by the loss sweep whose exit record may still come. Each
// goes at its record or when its pid is forked again; one whose record was
// truly lost stays until then, so the list is bounded, oldest out first.
constexpr size_t kMaxSweptExits = 32768;

// Copies a record of type T out of the ring buffer; false when it is shorter
// than T (nothing is read beyond the record).
template <typename T>
bool ReadRecord(const char* data, long len, T* out) {
    if (data == nullptr || len < static_cast<long>(sizeof(T))) return false;
    memcpy(out, data, sizeof(T));
    return true;
}

template <typename T>
void SendEvent(const T& event) {
    EventManager::GetInstance()->AppendEvent(
        const_cast<char*>(reinterpret_cast<const char*>(&event)), sizeof(T));
}

void CopyComm(char (&dst)[QUOR_COMM_LEN], const char* src) {
    memcpy(dst, src, QUOR_COMM_LEN);
    dst[QUOR_COMM_LEN - 1] = '\0';
}

int64_t* CurrentSize(QuorTask& task, int32_t member) {
    switch (member) {
        case QUOR_RSS_FILE:
            return &task.rssFileSize;
        case QUOR_RSS_ANON:
            return &task.rssAnonSize;
        case QUOR_RSS_SWAP:
            return &task.rssSwapSize;
        case QUOR_RSS_SHMEM:
            return &task.rssShmemSize;
        default:
            return nullptr;
    }
}

bool ExcludedFromRssReports(const QuorTask& task) {
    if (task.pid != 1 && task.pid <= kLowestReportedPid) return true;
    if (task.ppid == kKernelThreadParent) return true;
    return strncmp(task.comm, "dumpsys", 7) == 0 || strncmp(task.comm, "sh", 2) == 0;
}

// Applies a thread created (+1) or ended (-1) to `pid`; fills `event` and
// returns true when the change since the last report is worth one.
bool ApplyThreadChange(int32_t pid, uint64_t eventTime, int32_t step,
                       quor_thread_change_event* event) {
    bool report = false;
    QuorTaskManager::GetInstance()->UpdateQuorTask(pid, [&](QuorTask& task) {
        if (task.createTime >= static_cast<int64_t>(eventTime) ||
            task.threadSyncTime >= static_cast<int64_t>(eventTime)) {
            return;
        }
        task.threadNum += step;
        if (static_cast<int64_t>(eventTime) - task.createTime < kSettleTimeNs) return;
        if (SubAbs(task.threadNum, task.oldThreadNum) < kThreadReportDelta) return;
        *event = {QUOR_SERVICE_THREAD_CHANGE, task.pid,      task.ppid, task.uid,
                  task.oldThreadNum,          task.threadNum};
        task.oldThreadNum = task.threadNum;
        report = true;
    });
    return report;
}

}  // namespace

void TestHandleEvent(char* /*data*/, long /*len*/) {}

int QuorBpfService::handleQuorTaskInitEvent(char* data, long len) {
    quor_task_init_record rec;
    if (!ReadRecord(data, len, &rec)) return 0;
    QuorTask task = {};
    task.pid = rec.pid;
    task.ppid = rec.ppid;
    task.uid = rec.uid;
    task.threadNum = rec.thread_count;
    task.oldThreadNum = rec.thread_count;
    CopyComm(task.comm, rec.comm);
    task.rssFileSize = task.rssFileOldSize = rec.rss_file;
    task.rssAnonSize = task.rssAnonOldSize = rec.rss_anon;
    task.rssSwapSize = task.rssSwapOldSize = rec.swap;
    task.rssShmemSize = task.rssShmemOldSize = rec.rss_shmem;
    task.initTimeStamp = rec.start_time_s;
    task.createTime = static_cast<int64_t>(rec.header.timestamp_ns);
    QuorTaskManager::GetInstance()->AddQuorTask(rec.pid, task);
    return 0;
}

int QuorBpfService::handleSched_SchedProcessFork(char* data, long len) {
    quor_fork_record rec;
    if (!ReadRecord(data, len, &rec)) return 0;
    QuorTaskManager* tasks = QuorTaskManager::GetInstance();
    if (rec.kind == QUOR_TASK_KIND_PROCESS) {
        // A pid used again must not lose its new entries to the old
        // process's cleanup, nor its exit to the old process's sweep.
        flushDmabufCleanup(rec.pid);
        (void)takeSweptExit(rec.pid);
        QuorTask existing;
        if (tasks->GetQuorTaskCopy(rec.pid, &existing)) return 0;
        QuorTask task = {};
        task.pid = rec.pid;
        task.ppid = rec.ppid;
        task.uid = rec.tid;
        CopyComm(task.comm, rec.comm);
        if (task.ppid == 0) {
            UpdateProcessExdata info = {};
            if (getProcessInfo(rec.pid, &info) == 0) {
                task.ppid = info.ppid;
                CopyComm(task.comm, info.comm);
            }
        }
        task.threadNum = task.oldThreadNum = 1;
        task.initTimeStamp = GetSystemSecondsTime();
        task.createTime = static_cast<int64_t>(rec.header.timestamp_ns);
        tasks->AddQuorTask(rec.pid, task);

        quor_task_new_event event = {QUOR_SERVICE_TASK_NEW, task.pid, task.ppid, task.uid, {}};
        CopyComm(event.comm, task.comm);
        SendEvent(event);
    } else if (rec.kind == QUOR_TASK_KIND_THREAD) {
        quor_thread_change_event event;
        if (ApplyThreadChange(rec.pid, rec.header.timestamp_ns, +1, &event)) SendEvent(event);
    } else {
        QLOGE(QUOR_TAG_SERVICE,
              "[QuorBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    }
    return 0;
}

int QuorBpfService::handleSched_SchedProcessExit(char* data, long len) {
    quor_exit_record rec;
    if (!ReadRecord(data, len, &rec)) return 0;
    if (rec.kind == QUOR_TASK_KIND_PROCESS) {
        // The loss sweep already ended this process for the clients.
        if (takeSweptExit(rec.pid)) return 0;
        (void)QuorTaskManager::GetInstance()->DelQuorTask(rec.pid);
        quor_task_exit_event event = {QUOR_SERVICE_TASK_EXIT, rec.pid, {}};
        CopyComm(event.comm, rec.comm);
        SendEvent(event);
        scheduleDmabufCleanup(rec.pid);
        forgetFdEntryOfScanExit(rec.pid, rec.header.timestamp_ns);
    } else if (rec.kind == QUOR_TASK_KIND_THREAD) {
        quor_thread_change_event event;
        if (ApplyThreadChange(rec.pid, rec.header.timestamp_ns, -1, &event)) SendEvent(event);
    } else {
        QLOGE(QUOR_TAG_SERVICE, "[QuorBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
    }
    return 0;
}

namespace {

// What one rss record does to its task; run under the registry lock. The
// handler hands UpdateQuorTask a lambda that captures only a pointer to this,
// which std::function keeps without allocating.
struct RssUpdate {
    const quor_rss_record* rec;
    const std::map<std::string, std::string>* refreshNames;
    int64_t now = 0;          // seconds, read only for names that may be refreshed
    bool refreshDue = false;  // set when the name needs procfs first: nothing changed
    bool refreshed = false;   // procfs was read (whether or not it answered)
    const UpdateProcessExdata* info = nullptr;  // its answer, when it answered
    bool report = false;
    quor_rss_change_event event = {};

    static bool MayRefresh(const std::map<std::string, std::string>& names, const char* comm) {
        // comm holds QUOR_COMM_LEN bytes, not always terminated.
        for (const auto& name : names) {
            const size_t length = name.first.size();
            if (length <= QUOR_COMM_LEN && memcmp(name.first.data(), comm, length) == 0 &&
                (length == QUOR_COMM_LEN || comm[length] == '\0')) {
                return true;
            }
        }
        return false;
    }

    void apply(QuorTask& task) {
        if (!refreshed && MayRefresh(*refreshNames, task.comm)) {
            now = GetSystemSecondsTime();
            if (now - task.refreshTime > kRefreshIntervalS) {
                refreshDue = true;  // the caller reads procfs outside the lock and comes back
                return;
            }
        }
        if (refreshed) {
            if (info != nullptr) {
                task.ppid = info->ppid;
                CopyComm(task.comm, info->comm);
            }
            task.refreshTime = now;
        }
        task.mmId = kMemoryEventMmId;
        *CurrentSize(task, rec->member) = rec->size;
        const int64_t change = SubAbs(task.rssFileSize, task.rssFileOldSize) +
                               SubAbs(task.rssAnonSize, task.rssAnonOldSize) +
                               SubAbs(task.rssSwapSize, task.rssSwapOldSize) +
                               SubAbs(task.rssShmemSize, task.rssShmemOldSize);
        // Cheapest first: most records move a process by less than a report,
        // and a young process's records (its old sizes stay until its first
        // report) would otherwise all reach the name comparisons.
        if (change < kRssReportBytes) return;
        if (static_cast<int64_t>(rec->header.timestamp_ns) - task.createTime < kSettleTimeNs) {
            return;
        }
        if (ExcludedFromRssReports(task)) return;
        event = {QUOR_SERVICE_RSS_CHANGE,
                 task.pid,
                 task.ppid,
                 task.uid,
                 {},
                 task.rssFileSize,
                 task.rssAnonSize,
                 task.rssSwapSize,
                 task.rssShmemSize,
                 task.rssFileOldSize,
                 task.rssAnonOldSize,
                 task.rssSwapOldSize,
                 task.rssShmemOldSize};
        CopyComm(event.comm, task.comm);
        task.rssFileOldSize = task.rssFileSize;
        task.rssAnonOldSize = task.rssAnonSize;
        task.rssSwapOldSize = task.rssSwapSize;
        task.rssShmemOldSize = task.rssShmemSize;
        report = true;
    }
};

}  // namespace

int QuorBpfService::handleKmem_RssStat(char* data, long len) {
    quor_rss_record rec;
    if (!ReadRecord(data, len, &rec)) return 0;
    if (rec.size < 0 || rec.member < QUOR_RSS_FILE || rec.member > QUOR_RSS_SHMEM) return 0;

    // One registry visit in the common case; a process still carrying a
    // generic name is re-read from procfs (at most every 2 seconds) outside
    // the update, and then visited again.
    QuorTaskManager* tasks = QuorTaskManager::GetInstance();
    RssUpdate update;
    update.rec = &rec;
    update.refreshNames = &refreshNameMap_;
    RssUpdate* const pending = &update;
    const auto apply = [pending](QuorTask& task) { pending->apply(task); };
    if (!tasks->UpdateQuorTask(rec.pid, apply)) return 0;
    if (update.refreshDue) {
        UpdateProcessExdata info = {};
        update.refreshDue = false;
        update.refreshed = true;
        update.info = getProcessInfo(rec.pid, &info) == 0 ? &info : nullptr;
        if (!tasks->UpdateQuorTask(rec.pid, apply)) return 0;
    }
    if (update.report) SendEvent(update.event);
    return 0;
}

void QuorBpfService::scheduleDmabufCleanup(int32_t pid) {
    std::vector<int32_t> due;
    {
        std::lock_guard<std::mutex> lock(dmabufCleanupMutex_);
        dmabufCleanupPids_.push_back(pid);
        if (pid >= 0 && pid < QUOR_PID_BITS) dmabufCleanupPending_.set(pid);
        const int64_t now = MonotonicMs();
        if (now - dmabufCleanupAtMs_ < kDmabufCleanupIntervalMs &&
            dmabufCleanupPids_.size() < kDmabufCleanupMaxPending) {
            return;
        }
        dmabufCleanupAtMs_ = now;
        due = takeDmabufCleanup();
    }
    (void)cleanUpDmabufMaps(due);
}

std::vector<int32_t> QuorBpfService::takeDmabufCleanup() {
    std::vector<int32_t> due;
    due.swap(dmabufCleanupPids_);
    for (const int32_t pid : due) {
        if (pid >= 0 && pid < QUOR_PID_BITS) dmabufCleanupPending_.reset(pid);
    }
    return due;
}

void QuorBpfService::flushDueDmabufCleanup() {
    std::vector<int32_t> due;
    {
        std::lock_guard<std::mutex> lock(dmabufCleanupMutex_);
        // Without a later exit nothing else would flush the last ones.
        if (dmabufCleanupPids_.empty() ||
            MonotonicMs() - dmabufCleanupAtMs_ < kDmabufCleanupIntervalMs) {
            return;
        }
        dmabufCleanupAtMs_ = MonotonicMs();
        due = takeDmabufCleanup();
    }
    (void)cleanUpDmabufMaps(due);
}

void QuorBpfService::flushDmabufCleanup(int32_t reusedPid) {
    std::vector<int32_t> due;
    {
        std::lock_guard<std::mutex> lock(dmabufCleanupMutex_);
        const bool pending = reusedPid >= 0 && reusedPid < QUOR_PID_BITS
                                 ? dmabufCleanupPending_.test(reusedPid)
                                 : std::find(dmabufCleanupPids_.begin(), dmabufCleanupPids_.end(),
                                             reusedPid) != dmabufCleanupPids_.end();
        if (!pending) return;
        dmabufCleanupAtMs_ = MonotonicMs();
        due = takeDmabufCleanup();
    }
    (void)cleanUpDmabufMaps(due);
}

int QuorBpfService::handleBpfPassthrough(char* data, long len) {
    if (data == nullptr || len <= 0) return 0;
    EventManager::GetInstance()->AppendEvent(data, static_cast<unsigned long>(len));
    return 0;
}

size_t QuorBpfService::reapLostExits() {
    // Records carry the kernel's own pids, which are this process's pids too:
    // the service runs in the initial pid namespace.
    QuorTaskManager* tasks = QuorTaskManager::GetInstance();
    size_t reaped = 0;
    for (const int32_t pid : tasks->GetQuorTaskPids()) {
        if (pid <= 0) continue;
        if (kill(pid, 0) == 0 || errno != ESRCH) {
            resyncThreads(pid);
            continue;
        }
        QuorTask task;
        if (!tasks->GetQuorTaskCopy(pid, &task)) continue;  // its exit came meanwhile
        quor_exit_record rec = {};
        rec.header.type = QUOR_EVENT_TASK_EXIT;
        rec.header.timestamp_ns = static_cast<uint64_t>(GetSystemBootNanosencondsTime());
        rec.pid = pid;
        rec.kind = QUOR_TASK_KIND_PROCESS;
        CopyComm(rec.comm, task.comm);
        (void)handleSched_SchedProcessExit(reinterpret_cast<char*>(&rec), sizeof(rec));
        // Its own exit record may only be unread: that one must not end the
        // process a second time.
        addSweptExit(pid);
        ++reaped;
    }
    return reaped;
}

void QuorBpfService::resyncThreads(int32_t pid) {
    // Stamped before the read: a thread record stamped later was not yet in
    // what procfs said and still counts.
    const int64_t syncTime = GetSystemBootNanosencondsTime();
    int32_t threads = 0;
    if (!ReadProcessThreads(pid, &threads)) return;
    (void)QuorTaskManager::GetInstance()->UpdateQuorTask(pid, [&](QuorTask& task) {
        task.threadNum = threads;
        task.threadSyncTime = syncTime;
    });
}

void QuorBpfService::addSweptExit(int32_t pid) {
    std::lock_guard<std::mutex> lock(sweptExitsMutex_);
    if (!sweptExits_.insert(pid).second) return;
    sweptExitOrder_.push_back(pid);
    while (sweptExitOrder_.size() > kMaxSweptExits) {
        sweptExits_.erase(sweptExitOrder_.front());
        sweptExitOrder_.pop_front();
    }
    sweptExitCount_.store(sweptExits_.size(), std::memory_order_relaxed);
}

bool QuorBpfService::takeSweptExit(int32_t pid) {
    if (sweptExitCount_.load(std::memory_order_relaxed) == 0) return false;
    std::lock_guard<std::mutex> lock(sweptExitsMutex_);
    if (sweptExits_.erase(pid) == 0) return false;
    // The order list keeps the pid until it reaches the front; erasing a
    // pid that is no longer in the set is harmless there.
    sweptExitCount_.store(sweptExits_.size(), std::memory_order_relaxed);
    return true;
}

}  // namespace Bpf
}  // namespace Quor
