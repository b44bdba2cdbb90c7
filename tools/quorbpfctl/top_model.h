// TopModel: what `quorbpfctl top` shows, kept current from the service's
// events: every known process with its resident memory (anon, file, shmem)
// and swap, the change over the last 10 seconds and since the view started,
// and a short list of recent starts, exits and large changes.
//
// Feed it a task dump first (LoadBaseline), then every record received
// (OnEvent): kmem_rss_info sets one counter of a process, rss_change and
// quor_task_init set all four, task_new/sched_task_create add a process,
// task_exit/sched_task_exit (process kind) remove it. Snapshot() returns the
// largest processes by resident memory, at most `maxRows`.
//
// Times are epoch milliseconds passed in by the caller, so tests drive it
// with a clock of their own.
//
// Threading: OnEvent runs on the client's thread, Snapshot on the display
// thread; every public member takes the model's lock.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tools/quorbpfctl/task_dump.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

struct TopRow {
    int32_t pid = 0;
    std::string comm;
    int64_t rss = 0;  // anon + file + shmem, bytes
    int64_t anon = 0, file = 0, shmem = 0, swap = 0;
    int64_t recentChange = 0;  // rss change over the last kRecentWindowMs
    int64_t sinceStart = 0;    // rss change since the baseline (or since it appeared)
    bool isNew = false;        // appeared after the view started
};

struct TopSnapshot {
    size_t processes = 0;
    double eventsPerSecond = 0;
    bool connected = false;
    std::vector<TopRow> rows;         // largest rss first
    std::vector<std::string> recent;  // newest last
};

class TopModel {
public:
    static constexpr int64_t kRecentWindowMs = 10000;
    // rss_change events that move a process by at least this much are listed.
    static constexpr int64_t kNotableChange = 1024 * 1024;
    static constexpr size_t kRecentLines = 64;

    // `commOf` names a process that appears in a record without a name.
    explicit TopModel(std::function<std::string(int32_t pid)> commOf);

    void LoadBaseline(const TaskDump& dump, int64_t nowMs);
    void OnEvent(uint32_t type, const uint8_t* data, size_t length, int64_t nowMs);
    void SetConnected(bool connected);
    // Drops the processes for which `alive` says no: an exit record lost to a
    // full ring buffer must not leave a process on the screen for good.
    void Prune(const std::function<bool(int32_t pid)>& alive);
    // A newer name for a process (exec changes it without an event).
    void Rename(int32_t pid, const std::string& comm);
    TopSnapshot Snapshot(int64_t nowMs, size_t maxRows, size_t maxRecent);

private:
    struct Process {
        std::string comm;
        int64_t anon = 0, file = 0, shmem = 0, swap = 0;
        int64_t startRss = 0;
        bool isNew = false;
        std::deque<std::pair<int64_t, int64_t>> history;  // (ms, rss), oldest first
        int64_t Rss() const { return anon + file + shmem; }
    };

    Process& Find(int32_t pid, int64_t nowMs, const std::string& comm);
    void Changed(Process* process, int64_t nowMs);
    void Exited(int32_t pid, const std::string& comm, int64_t nowMs);
    void Note(int64_t nowMs, const std::string& text);

    std::mutex mutex_;
    std::function<std::string(int32_t)> commOf_;
    std::map<int32_t, Process> processes_;
    std::map<int32_t, int64_t> exited_;  // pid -> ms; late memory records are ignored
    std::deque<std::string> recent_;
    uint64_t events_ = 0;
    uint64_t eventsAtLastSnapshot_ = 0;
    int64_t lastSnapshotMs_ = 0;
    double rate_ = 0;
    bool connected_ = false;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
