#include "tools/quorbpfctl/exporter_metrics.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "quor/quorbpf_event_views.h"
#include "tools/quorbpfctl/comm_cache.h"
#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/prometheus_text.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

ExporterMetrics::ExporterMetrics(std::function<std::string(int32_t)> commOf)
    : commOf_(std::move(commOf)) {
    for (const uint32_t type : AllEventTypes()) events_[type] = 0;
}

void ExporterMetrics::AddRunning(const TaskDump& dump) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const TaskRow& row : dump.rows) {
        if (row.pid <= 0 || processes_.count(row.pid) != 0 || ended_.count(row.pid) != 0) continue;
        Process& p = processes_[row.pid];
        p.comm = row.comm;
        p.threads = std::max(row.threads, 1);
        p.anon = row.anonKb * 1024;
        p.file = row.fileKb * 1024;
        p.shmem = row.shmemKb * 1024;
        p.swap = row.swapKb * 1024;
    }
}

void ExporterMetrics::OnConnection(bool connected) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (connected && everConnected_ && !connected_) ++reconnects_;
    everConnected_ = everConnected_ || connected;
    connected_ = connected;
}

void ExporterMetrics::Prune(const std::function<bool(int32_t)>& alive) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = processes_.begin(); it != processes_.end();) {
        it = alive(it->first) ? std::next(it) : processes_.erase(it);
    }
}

ExporterMetrics::Process* ExporterMetrics::Find(int32_t pid) {
    if (pid <= 0 || ended_.count(pid) != 0) return nullptr;
    const auto it = processes_.find(pid);
    if (it != processes_.end()) return &it->second;
    Process& p = processes_[pid];
    p.comm = commOf_(pid);
    return &p;
}

void ExporterMetrics::Started(int32_t pid, const std::string& comm) {
    if (pid <= 0) return;
    Ended(pid);  // a pid met again: its exit was lost, or it was recycled
    ended_.erase(pid);
    processes_[pid].comm = comm;
    ++started_;
}

void ExporterMetrics::Ended(int32_t pid) {
    if (processes_.erase(pid) == 0) return;
    ++endedCount_;
    if (ended_.size() >= kMaxEnded) ended_.clear();
    ended_.insert(pid);
}

void ExporterMetrics::OnRecord(uint32_t type, const uint8_t* data, size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    // The views check the record's own type; it must also be the one it came as.
    uint32_t ownType = 0;
    if (data != nullptr && length >= sizeof(ownType)) memcpy(&ownType, data, sizeof(ownType));
    if (ownType != type) {
        ++dropped_;
        return;
    }
    bool decoded = true;
    if (QuorTaskInitView r{data, length}) {
        if (r->pid > 0 && processes_.count(r->pid) == 0) {
            Process& p = processes_[r->pid];
            p.comm = QuorCommString(r->comm);
            p.threads = std::max(r->thread_count, 1);
            p.anon = r->rss_anon;
            p.file = r->rss_file;
            p.shmem = r->rss_shmem;
            p.swap = r->swap;
        }
    } else if (QuorRssView r{data, length}) {
        Process* p = Find(r->pid);
        if (p != nullptr) {
            int64_t* member[] = {&p->file, &p->anon, &p->swap, &p->shmem};
            if (r->member >= 0 && r->member < 4) *member[r->member] = r->size;
        }
    } else if (QuorForkView r{data, length}) {
        if (r->kind == QUOR_TASK_KIND_THREAD) {
            Process* p = Find(r->pid);
            if (p != nullptr) ++p->threads;
        } else {
            Started(r->pid, QuorCommString(r->comm));
        }
    } else if (QuorExitView r{data, length}) {
        const auto it = processes_.find(r->pid);
        if (it != processes_.end() && r->kind == QUOR_TASK_KIND_THREAD) {
            it->second.threads = std::max<int64_t>(it->second.threads - 1, 1);
        } else if (it != processes_.end()) {
            Ended(r->pid);
        }
    } else if (QuorDmabufSizeView r{data, length}) {
        Process* p = Find(r->pid);
        if (p != nullptr) p->dmabuf = static_cast<int64_t>(r->total_size);
    } else if (QuorDmabufUpdateView r{data, length}) {
        ++(r->action == QUOR_DMABUF_RELEASE ? dmabufReleased_ : dmabufCreated_);
    } else if (QuorTaskNewView r{data, length}) {
        if (processes_.count(r->pid) == 0 && ended_.count(r->pid) == 0) {
            Started(r->pid, QuorCommString(r->comm));
        }
    } else if (QuorTaskExitView r{data, length}) {
        Ended(r->pid);
    } else if (QuorThreadChangeView r{data, length}) {
        Process* p = Find(r->pid);
        if (p != nullptr) p->threads = std::max(r->thread_count, 1);
    } else if (QuorRssChangeView r{data, length}) {
        Process* p = Find(r->pid);
        if (p != nullptr) {
            const std::string comm = QuorCommString(r->comm);
            if (!comm.empty()) p->comm = comm;
            p->anon = r->rss_anon;
            p->file = r->rss_file;
            p->shmem = r->rss_shmem;
            p->swap = r->swap;
        }
    } else {
        // Cgroup moves and descriptor crossings are only counted.
        decoded =
            QuorCgroupAttachView(data, length).valid() || QuorFdUpdateView(data, length).valid();
    }
    if (decoded && events_.count(type) != 0) {
        ++events_[type];
    } else {
        ++dropped_;
    }
}

std::string ExporterMetrics::Render(size_t top) {
    std::lock_guard<std::mutex> lock(mutex_);
    PrometheusText text;
    text.Family("quorbpf_events_total", "counter", "Events received from the service, by type.");
    for (const auto& [type, count] : events_) {
        text.Sample("quorbpf_events_total", {{"type", QuorEventName(type)}},
                    static_cast<int64_t>(count));
    }
    text.Family("quorbpf_processes_started_total", "counter", "Processes seen starting.");
    text.Sample("quorbpf_processes_started_total", static_cast<int64_t>(started_));
    text.Family("quorbpf_processes_ended_total", "counter", "Processes seen ending.");
    text.Sample("quorbpf_processes_ended_total", static_cast<int64_t>(endedCount_));
    text.Family("quorbpf_processes", "gauge", "Processes alive.");
    text.Sample("quorbpf_processes", static_cast<int64_t>(processes_.size()));

    std::vector<std::pair<int64_t, int32_t>> bySize;  // (resident bytes, pid)
    int64_t dmabuf = 0;
    for (const auto& [pid, p] : processes_) {
        bySize.emplace_back(p.anon + p.file + p.shmem, pid);
        dmabuf += p.dmabuf;
    }
    const size_t shown = std::min(top, bySize.size());
    std::partial_sort(bySize.begin(), bySize.begin() + shown, bySize.end(),
                      [](const auto& a, const auto& b) {
                          return a.first != b.first ? a.first > b.first : a.second < b.second;
                      });
    // An exec or prctl renames a process and tells no one.
    for (size_t i = 0; i < shown; ++i) {
        const std::string comm = CurrentComm(bySize[i].second);
        if (!comm.empty()) processes_[bySize[i].second].comm = comm;
    }
    const auto labels = [&](size_t i) {
        const int32_t pid = bySize[i].second;
        return PrometheusLabels{{"pid", std::to_string(pid)}, {"comm", processes_[pid].comm}};
    };
    text.Family("quorbpf_process_threads", "gauge",
                "Threads of the processes with the most resident memory.");
    for (size_t i = 0; i < shown; ++i) {
        text.Sample("quorbpf_process_threads", labels(i), processes_[bySize[i].second].threads);
    }
    text.Family("quorbpf_process_resident_memory_bytes", "gauge",
                "Resident memory of the processes with the most, by type (anon, file, shmem).");
    for (size_t i = 0; i < shown; ++i) {
        const Process& p = processes_[bySize[i].second];
        for (const auto& [kind, bytes] :
             {std::make_pair("anon", p.anon), std::make_pair("file", p.file),
              std::make_pair("shmem", p.shmem)}) {
            PrometheusLabels withType = labels(i);
            withType.emplace_back("type", kind);
            text.Sample("quorbpf_process_resident_memory_bytes", withType, bytes);
        }
    }
    text.Family("quorbpf_process_swap_bytes", "gauge",
                "Swapped-out memory of the processes with the most resident memory.");
    for (size_t i = 0; i < shown; ++i) {
        text.Sample("quorbpf_process_swap_bytes", labels(i), processes_[bySize[i].second].swap);
    }
    text.Family("quorbpf_dmabuf_bytes", "gauge", "Bytes of dmabuf buffers held by processes.");
    text.Sample("quorbpf_dmabuf_bytes", dmabuf);
    text.Family("quorbpf_dmabuf_buffers_created_total", "counter", "Dmabuf buffers set up.");
    text.Sample("quorbpf_dmabuf_buffers_created_total", static_cast<int64_t>(dmabufCreated_));
    text.Family("quorbpf_dmabuf_buffers_released_total", "counter", "Dmabuf buffers released.");
    text.Sample("quorbpf_dmabuf_buffers_released_total", static_cast<int64_t>(dmabufReleased_));
    text.Family("quorbpf_exporter_dropped_records_total", "counter",
                "Records from the service the exporter could not decode.");
    text.Sample("quorbpf_exporter_dropped_records_total", static_cast<int64_t>(dropped_));
    text.Family("quorbpf_exporter_reconnects_total", "counter",
                "Connections to the service regained after a loss.");
    text.Sample("quorbpf_exporter_reconnects_total", static_cast<int64_t>(reconnects_));
    text.Family("quorbpf_exporter_connected", "gauge", "1 while connected to the service.");
    text.Sample("quorbpf_exporter_connected", connected_ ? 1 : 0);
    return text.Text();
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
