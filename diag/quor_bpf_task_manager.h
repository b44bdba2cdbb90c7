// QuorTaskManager: the service's registry of live processes.
//
// One QuorTask per pid, created by the fork and task-init handlers (and the
// start-up procfs scan), updated by the rss and fork handlers, deleted on
// exit, and written to a text file on request (the four Dump members). Beside
// the table by pid it keeps an index from the kernel's memory-descriptor id
// (mmId) to a record of the main table, and a table of rss temp records keyed
// by mmId.
//
// Usage:
//   auto* tasks = QuorTaskManager::GetInstance();     // created on first use
//   tasks->AddQuorTask(pid, task);                    // insert or replace
//   tasks->UpdateQuorTask(pid, [](QuorTask& t) { t.threadNum++; });
//   QuorTask copy;
//   if (tasks->GetQuorTaskCopy(pid, &copy)) ...;
//   tasks->DelQuorTask(pid);                          // -1, errno ENOENT if absent
//
// Threading: every operation takes `quorTaskManagerLock`, so the two producer
// threads and the dump thread may call any of them at once. The lock is not
// held while a dump formats or writes its file, and it is not recursive: the
// function given to UpdateQuorTask must not call back into the registry.
// A reader that visits the registry for every record of a batch holds the
// lock for the whole batch instead (BatchHold): its own calls then take no
// lock, and every other thread waits for the batch to end. A lock per record
// cost the reader a quarter of its time: each one waited for the record just
// read from the ring buffer to arrive from the writer's CPU.
// The pointers returned by GetQuorTask, GetQuorTaskByMmid and GetRssTempTask
// point into the tables without holding the lock: a pointer is only safe to
// use while no other thread deletes that entry, and reading or writing through
// it races with every other thread that touches the same record (a dump
// copies every record). Code that shares records with other threads -- the
// handlers do -- uses UpdateQuorTask / GetQuorTaskCopy instead.
// A record stays at the same address while its pid is present (AddQuorTask of
// a present pid overwrites it in place).
//
// Dump file: QUORTASK_DUMP_TEMPLATE, replaced by every dump. A header line
// with the task count and the epoch time, a column header line, then one row
// per record, largest total rss first. Row: comm padded with blanks to 16
// characters, three blanks, then fixed-width columns; sizes in KB (bytes / 1024
// truncated toward zero). The Normal variants leave out the old values; the
// IgnoreKernel variants leave out records whose four current sizes are all
// zero (kernel threads), while the header still counts every record.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "diag/quor_task.h"

namespace Quor {
namespace Bpf {

class QuorTaskManager {
public:
    static QuorTaskManager* GetInstance();

    // main[pid] = task; returns 0.
    int AddQuorTask(int32_t pid, QuorTask task);
    // The stored record or null; never inserts. See the threading note above.
    QuorTask* GetQuorTask(int32_t pid);
    // Copies the stored record to *out (when out is not null); false if absent.
    bool GetQuorTaskCopy(int32_t pid, QuorTask* out);
    // Runs fn on the stored record under the lock; false (fn not run) if absent.
    bool UpdateQuorTask(int32_t pid, const std::function<void(QuorTask&)>& fn);
    // errno = 0 and 0 when erased; errno = ENOENT and -1 when absent. Index
    // entries that point at the erased record are dropped with it.
    int DelQuorTask(int32_t pid);

    // The record indexed under mmId, or null.
    QuorTask* GetQuorTaskByMmid(uint32_t mmId);
    // index[mmId] = task (a record of the main table); returns 0.
    int AddMmidIndex(uint32_t mmId, QuorTask* task);
    // errno = 0 and 0 when erased; errno = ENOENT and -1 when absent.
    int DelMmidIndex(uint32_t mmId);

    // rssTemp[mmId] = task; returns 0.
    int AddRssTempTask(uint32_t mmId, QuorTask task);
    // The stored rss temp record or null.
    QuorTask* GetRssTempTask(uint32_t mmId);
    // errno = 0 when erased, ENOENT when absent; returns 0 either way.
    int DelRssTempTask(uint32_t mmId);

    uint32_t GetQuorTaskCount();
    // The pids of every record, in ascending order.
    std::vector<int32_t> GetQuorTaskPids();

    // Write the dump file: all columns / the Normal columns, with or without
    // the kernel tasks.
    void DumpQuorTaskInfo();
    void DumpQuorTaskIgnoreKernelTaskInfo();
    void DumpQuorTaskInfoNormal();
    void DumpQuorTaskIgnoreKernelTaskInfoNormal();

    // Holds quorTaskManagerLock on the constructing thread until destroyed;
    // that thread's registry calls meanwhile take no lock. Not nestable.
    class BatchHold {
    public:
        BatchHold();
        ~BatchHold();
        BatchHold(const BatchHold&) = delete;
        BatchHold& operator=(const BatchHold&) = delete;
    };

    static std::mutex quorTaskManagerLock;
    static constexpr const char* QUORTASK_DUMP_PATH = "/data/quorlog/stability/quorbpfframework";
    static constexpr const char* QUORTASK_DUMP_TEMPLATE =
        "/data/quorlog/stability/quorbpfframework/DUMPTASK_INFO";

private:
    QuorTaskManager() = default;
    QuorTaskManager(const QuorTaskManager&) = delete;
    QuorTaskManager& operator=(const QuorTaskManager&) = delete;

    void dump(bool full, bool ignoreKernel);

    std::map<int32_t, QuorTask> quorTaskMap_;
    std::map<uint32_t, QuorTask*> mmIdIndex_;
    std::map<uint32_t, QuorTask> rssTempTaskMap_;

    static std::atomic<QuorTaskManager*> instance;
};

}  // namespace Bpf
}  // namespace Quor
