// ExporterMetrics: what `quorbpfctl exporter` serves, kept current from the
// service's records: events by type, processes started and ended, the live
// processes with their threads, memory and dmabuf bytes, dmabuf buffers set
// up and released, and the exporter's own dropped records and reconnects.
//
//   ExporterMetrics metrics([](int32_t pid) { return commFromProc(pid); });
//   metrics.AddRunning(taskDump);          // what is running already
//   metrics.OnRecord(type, data, length);  // every record received
//   serve(metrics.Render(20));             // Prometheus text, top 20
//
// Records are decoded with the client library's views; one that does not
// decode is a dropped record. A process is started by its fork (or the
// service's task_new) and ended by its exit (or task_exit), each once; a
// record of an unknown process adds it without counting a start, and late
// records of an exited process are ignored.
//
// Threading: every public member takes the object's lock (records arrive on
// the client's thread, scrapes on the HTTP server's).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "tools/quorbpfctl/task_dump.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

class ExporterMetrics {
public:
    static constexpr size_t kMaxEnded = 65536;

    explicit ExporterMetrics(std::function<std::string(int32_t pid)> commOf);

    void AddRunning(const TaskDump& dump);
    void OnRecord(uint32_t type, const uint8_t* data, size_t length);
    // Every lost connection that comes back is a reconnect.
    void OnConnection(bool connected);
    // Forgets the processes for which `alive` says no: an exit record lost to
    // a full ring buffer must not keep a process in the metrics for good.
    // Not counted as ended.
    void Prune(const std::function<bool(int32_t pid)>& alive);
    // The metrics text; per-process series for the `top` largest by resident
    // memory, named as procfs names them now.
    std::string Render(size_t top);

private:
    struct Process {
        std::string comm;
        int64_t threads = 1;
        int64_t anon = 0, file = 0, shmem = 0, swap = 0, dmabuf = 0;
    };

    Process* Find(int32_t pid);
    void Started(int32_t pid, const std::string& comm);
    void Ended(int32_t pid);

    std::mutex mutex_;
    std::function<std::string(int32_t)> commOf_;
    std::unordered_map<int32_t, Process> processes_;
    std::unordered_set<int32_t> ended_;
    std::map<uint32_t, uint64_t> events_;
    uint64_t started_ = 0, endedCount_ = 0;
    uint64_t dmabufCreated_ = 0, dmabufReleased_ = 0;
    uint64_t dropped_ = 0, reconnects_ = 0;
    bool connected_ = false, everConnected_ = false;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
