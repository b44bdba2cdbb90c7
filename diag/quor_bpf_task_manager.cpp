#include "diag/quor_bpf_task_manager.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "diag/quor_bpf_log.h"

namespace Quor {
namespace Bpf {

std::mutex QuorTaskManager::quorTaskManagerLock;
std::atomic<QuorTaskManager*> QuorTaskManager::instance{nullptr};

namespace {

// Set while the calling thread holds quorTaskManagerLock for a batch.
thread_local bool tBatchHeld = false;

// The registry's lock, unless this thread already holds it for its batch.
class RegistryLock {
public:
    RegistryLock() : taken_(!tBatchHeld) {
        if (taken_) QuorTaskManager::quorTaskManagerLock.lock();
    }
    ~RegistryLock() {
        if (taken_) QuorTaskManager::quorTaskManagerLock.unlock();
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

private:
    const bool taken_;
};

constexpr const char* TASK_DUMP_HEADER =
    "============ DUMP ALL QUOR TASKS INFO (count: %u, time: %lu) ============\n";
constexpr const char* TASK_COLUMNS_FULL[3] = {
    "comm               pid         ppid        threadNum   oldThreadNum mmId        "
    "rssAnonSize         rssAnonOldSize      ",
    "rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
    "rssSwapSize         rssSwapOldSize      ",
    "initTimeStamp       \n",
};
constexpr const char* TASK_COLUMNS_NORMAL[3] = {
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         ",
    "rssFileSize         rssShmemSize        rssSwapSize         ",
    "initTimeStamp       \n",
};
constexpr const char* TASK_ROW_FULL =
    "   %-12d%-12d%-12d%-13d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld KB%17ld "
    "KB%20ld\n";
constexpr const char* TASK_ROW_NORMAL =
    "   %-12d%-12d%-12d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%20ld\n";
constexpr size_t COMM_WIDTH = sizeof(QuorTask::comm);

// Division truncates toward zero, so -1536 bytes print as -1 KB.
long Kb(int64_t bytes) {
    return static_cast<long>(bytes / 1024);
}

bool IsKernelTask(const QuorTask& t) {
    return t.rssFileSize == 0 && t.rssAnonSize == 0 && t.rssSwapSize == 0 && t.rssShmemSize == 0;
}

// comm may fill all 16 bytes without a terminator; never read past them.
void WriteComm(FILE* out, const QuorTask& t) {
    const size_t len = strnlen(t.comm, COMM_WIDTH);
    (void)fprintf(out, "%.*s%*s", static_cast<int>(len), t.comm, static_cast<int>(COMM_WIDTH - len),
                  "");
}

void WriteRow(FILE* out, const QuorTask& t, bool full) {
    WriteComm(out, t);
    if (full) {
        (void)fprintf(out, TASK_ROW_FULL, t.pid, t.ppid, t.threadNum, t.oldThreadNum, t.mmId,
                      Kb(t.rssAnonSize), Kb(t.rssAnonOldSize), Kb(t.rssFileSize),
                      Kb(t.rssFileOldSize), Kb(t.rssShmemSize), Kb(t.rssShmemOldSize),
                      Kb(t.rssSwapSize), Kb(t.rssSwapOldSize), static_cast<long>(t.initTimeStamp));
    } else {
        (void)fprintf(out, TASK_ROW_NORMAL, t.pid, t.ppid, t.threadNum, t.mmId, Kb(t.rssAnonSize),
                      Kb(t.rssFileSize), Kb(t.rssShmemSize), Kb(t.rssSwapSize),
                      static_cast<long>(t.initTimeStamp));
    }
}

}  // namespace

QuorTaskManager::BatchHold::BatchHold() {
    quorTaskManagerLock.lock();
    tBatchHeld = true;
}

QuorTaskManager::BatchHold::~BatchHold() {
    tBatchHeld = false;
    quorTaskManagerLock.unlock();
}

QuorTaskManager* QuorTaskManager::GetInstance() {
    QuorTaskManager* current = instance.load(std::memory_order_acquire);
    if (current != nullptr) return current;
    RegistryLock lock;
    current = instance.load(std::memory_order_relaxed);
    if (current == nullptr) {
        current = new QuorTaskManager();
        instance.store(current, std::memory_order_release);
    }
    return current;
}

int QuorTaskManager::AddQuorTask(int32_t pid, QuorTask task) {
    RegistryLock lock;
    // Assignment keeps the node, so pointers to a replaced record stay valid.
    quorTaskMap_[pid] = task;
    return 0;
}

QuorTask* QuorTaskManager::GetQuorTask(int32_t pid) {
    RegistryLock lock;
    auto it = quorTaskMap_.find(pid);
    return it == quorTaskMap_.end() ? nullptr : &it->second;
}

bool QuorTaskManager::GetQuorTaskCopy(int32_t pid, QuorTask* out) {
    RegistryLock lock;
    auto it = quorTaskMap_.find(pid);
    if (it == quorTaskMap_.end()) return false;
    if (out != nullptr) *out = it->second;
    return true;
}

bool QuorTaskManager::UpdateQuorTask(int32_t pid, const std::function<void(QuorTask&)>& fn) {
    RegistryLock lock;
    auto it = quorTaskMap_.find(pid);
    if (it == quorTaskMap_.end()) return false;
    if (fn) fn(it->second);
    return true;
}

int QuorTaskManager::DelQuorTask(int32_t pid) {
    RegistryLock lock;
    errno = 0;
    auto it = quorTaskMap_.find(pid);
    if (it == quorTaskMap_.end()) {
        errno = ENOENT;
        return -1;
    }
    // An index entry must not outlive its record: nothing could tell a
    // dangling pointer from a live one later.
    const QuorTask* record = &it->second;
    for (auto index = mmIdIndex_.begin(); index != mmIdIndex_.end();) {
        index = index->second == record ? mmIdIndex_.erase(index) : std::next(index);
    }
    quorTaskMap_.erase(it);
    return 0;
}

QuorTask* QuorTaskManager::GetQuorTaskByMmid(uint32_t mmId) {
    RegistryLock lock;
    auto it = mmIdIndex_.find(mmId);
    return it == mmIdIndex_.end() ? nullptr : it->second;
}

int QuorTaskManager::AddMmidIndex(uint32_t mmId, QuorTask* task) {
    RegistryLock lock;
    mmIdIndex_[mmId] = task;
    return 0;
}

int QuorTaskManager::DelMmidIndex(uint32_t mmId) {
    RegistryLock lock;
    errno = 0;
    if (mmIdIndex_.erase(mmId) == 0) {
        errno = ENOENT;
        return -1;
    }
    return 0;
}

int QuorTaskManager::AddRssTempTask(uint32_t mmId, QuorTask task) {
    RegistryLock lock;
    rssTempTaskMap_[mmId] = task;
    return 0;
}

QuorTask* QuorTaskManager::GetRssTempTask(uint32_t mmId) {
    RegistryLock lock;
    auto it = rssTempTaskMap_.find(mmId);
    return it == rssTempTaskMap_.end() ? nullptr : &it->second;
}

int QuorTaskManager::DelRssTempTask(uint32_t mmId) {
    RegistryLock lock;
    errno = 0;
    // Absence is reported through errno only; callers rely on the 0.
    if (rssTempTaskMap_.erase(mmId) == 0) errno = ENOENT;
    return 0;
}

uint32_t QuorTaskManager::GetQuorTaskCount() {
    RegistryLock lock;
    return static_cast<uint32_t>(quorTaskMap_.size());
}

std::vector<int32_t> QuorTaskManager::GetQuorTaskPids() {
    RegistryLock lock;
    std::vector<int32_t> pids;
    pids.reserve(quorTaskMap_.size());
    for (const auto& entry : quorTaskMap_) pids.push_back(entry.first);
    return pids;
}

void QuorTaskManager::DumpQuorTaskInfo() {
    dump(true, false);
}

void QuorTaskManager::DumpQuorTaskIgnoreKernelTaskInfo() {
    dump(true, true);
}

void QuorTaskManager::DumpQuorTaskInfoNormal() {
    dump(false, false);
}

void QuorTaskManager::DumpQuorTaskIgnoreKernelTaskInfoNormal() {
    dump(false, true);
}

void QuorTaskManager::dump(bool full, bool ignoreKernel) {
    // Copy under the lock, then sort and write without it: the handlers must
    // not wait for file I/O. The count is taken with the same lock so that the
    // header matches the rows of the full variants.
    std::vector<QuorTask> tasks;
    uint32_t count = 0;
    {
        RegistryLock lock;
        count = static_cast<uint32_t>(quorTaskMap_.size());
        tasks.reserve(quorTaskMap_.size());
        for (const auto& entry : quorTaskMap_) {
            if (ignoreKernel && IsKernelTask(entry.second)) continue;
            tasks.push_back(entry.second);
        }
    }
    std::sort(tasks.begin(), tasks.end(), CompareQuorTask);

    (void)mkdir(QUORTASK_DUMP_PATH, 0775);
    (void)remove(QUORTASK_DUMP_TEMPLATE);
    FILE* out = fopen(QUORTASK_DUMP_TEMPLATE, "we");
    if (out == nullptr) {
        // The kernel-free variants have always stayed silent here.
        if (!ignoreKernel) {
            QLOGE(QUOR_TAG_UTILS, "failed to dump quor task, error: %s", strerror(errno));
        }
        return;
    }
    (void)fprintf(out, TASK_DUMP_HEADER, count, static_cast<unsigned long>(time(nullptr)));
    for (const char* columns : full ? TASK_COLUMNS_FULL : TASK_COLUMNS_NORMAL) {
        (void)fputs(columns, out);
    }
    for (const QuorTask& task : tasks) WriteRow(out, task, full);
    (void)fclose(out);
}

}  // namespace Bpf
}  // namespace Quor
