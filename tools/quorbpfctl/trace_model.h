// TraceModel: turns the service's records into trace events (TraceWriter).
//
// Each process gets its own track: named from its comm (named again when a
// record brings a new one), listed beside its parent (processes of one tree
// share a sort index, and a child is labelled with its parent), with one
// slice from its start to its exit, a "threads" counter (for a process that
// has more than one thread at some point), a "memory" counter
// (anon, file, swap, shmem, bytes), a "dmabuf" counter (bytes held) and
// instant events for cgroup moves, descriptor-count crossings and dmabuf
// buffers set up or released.
//
//   TraceModel model(&writer, [](int32_t pid) { return commFromProc(pid); });
//   model.AddRunning(processesFromTheTaskTable, nowNs);  // what was running already
//   model.OnRecord(type, data, length, nowNs);           // every record received
//   model.Finish(nowNs);                                 // ends the open slices
//
// Kernel records are placed at their own timestamps (CLOCK_MONOTONIC), so
// records from different CPUs sort right. The service's own records carry
// none; each follows the kernel record it was made from, so it is placed at
// the latest kernel timestamp seen (at `receivedNs` when no kernel record
// came in the last second), which keeps it inside its process's slice. Records are decoded with the
// client library's views; one that does not decode is counted in undecodable(). A record of a
// process the model has not seen starts its track there; late records of a process that exited are
// ignored.
//
// Not thread-safe: one owner (the caller serialises).
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "tools/quorbpfctl/trace_writer.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

struct TraceProcess {
    int32_t pid = 0;
    int32_t ppid = 0;
    std::string comm;
    int32_t threads = 1;
    int64_t anon = 0, file = 0, swap = 0, shmem = 0;  // bytes
};

class TraceModel {
public:
    // Bounds the exited-pid memory that keeps late records from reviving a process.
    static constexpr size_t kMaxEnded = 65536;
    // A busy process changes its memory counters thousands of times a
    // second. Per process and window the trace keeps the last value (at its
    // own time), which bounds the file and still shows the curve at a
    // resolution the viewers draw.
    static constexpr int64_t kMemoryWindowNs = 20 * 1000 * 1000;

    // An exec renames a process without a record that says so: a process
    // whose memory moves is asked its name again at most this often, once it
    // has lived kCommMinAgeNs (so a fork storm's children are never asked).
    static constexpr int64_t kCommRecheckNs = 1000 * 1000 * 1000;
    static constexpr int64_t kCommMinAgeNs = 100 * 1000 * 1000;

    // `commOf` names a process now ("" if unknown): one met in a record
    // without a name, and one asked again.
    TraceModel(TraceWriter* writer, std::function<std::string(int32_t pid)> commOf);

    // Processes running when the recording began; those already met are skipped.
    void AddRunning(const std::vector<TraceProcess>& processes, int64_t nowNs);
    void OnRecord(uint32_t type, const uint8_t* data, size_t length, int64_t receivedNs);
    // Ends the slice of every process still running.
    void Finish(int64_t nowNs);

    uint64_t records() const { return records_; }
    uint64_t undecodable() const { return undecodable_; }
    size_t live() const { return processes_.size(); }

private:
    struct Process {
        int32_t ppid = 0;
        std::string comm;
        int32_t threads = 1;
        int64_t memory[4] = {0, 0, 0, 0};  // indexed by enum quor_rss_member
        int64_t dmabuf = 0;
        int32_t sortIndex = 0;
        int64_t beginTs = 0;           // nothing of it is drawn before its slice begins
        int64_t windowTs = INT64_MIN;  // when the last memory window opened
        bool threadTrack = false;      // a threads counter was written
        int64_t commCheckedTs = 0;     // when its name was last asked
        int64_t pendingTs = -1;        // the window's latest value, not yet written
        int64_t pending[4] = {0, 0, 0, 0};
    };

    // `origin`: how it was found; nullptr for a fork.
    Process* Start(int64_t ts, int32_t pid, int32_t ppid, const std::string& comm,
                   const char* origin, int32_t threads = 1);
    // The process, started here when it is new; nullptr when it has exited.
    Process* Find(int64_t ts, int32_t pid, const std::string& comm);
    void End(int64_t ts, int32_t pid);
    void Rename(int64_t ts, int32_t pid, Process* process, const std::string& comm);
    void SetThreads(int64_t ts, int32_t pid, Process* process, int32_t threads);
    void SetMemory(int64_t ts, int32_t pid, Process* process, const int64_t (&memory)[4]);
    void WriteMemory(int64_t ts, int32_t pid, const int64_t (&memory)[4]);
    void FlushMemory(int32_t pid, Process* process);
    int32_t SortIndexFor(int32_t pid, int32_t ppid);
    int64_t KernelTime(uint64_t timestampNs, int64_t receivedNs);

    TraceWriter* writer_;
    std::function<std::string(int32_t)> commOf_;
    std::unordered_map<int32_t, Process> processes_;
    std::unordered_set<int32_t> ended_;
    int32_t nextSortIndex_ = 1;
    int64_t lastKernelNs_ = 0;          // the latest kernel timestamp
    int64_t lastKernelReceivedNs_ = 0;  // when a kernel record last came
    uint64_t records_ = 0;
    uint64_t undecodable_ = 0;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
