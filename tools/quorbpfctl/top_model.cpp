#include "tools/quorbpfctl/top_model.h"

#include <algorithm>

#include "quor/quorbpf_event_views.h"
#include "tools/quorbpfctl/event_formatter.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

// How long after an exit a late memory record of that pid is ignored.
constexpr int64_t kExitedMemoryMs = 5000;

std::string Clock(int64_t epochMs) {
    return FormatLocalTime(epochMs * 1000000, false).substr(0, 8);
}

}  // namespace

TopModel::TopModel(std::function<std::string(int32_t pid)> commOf) : commOf_(std::move(commOf)) {}

TopModel::Process& TopModel::Find(int32_t pid, int64_t nowMs, const std::string& comm) {
    auto it = processes_.find(pid);
    if (it == processes_.end()) {
        Process process;
        process.comm = comm.empty() && commOf_ ? commOf_(pid) : comm;
        process.isNew = true;
        process.history.push_back({nowMs, 0});
        it = processes_.emplace(pid, std::move(process)).first;
    } else if (!comm.empty()) {
        it->second.comm = comm;
    }
    return it->second;
}

void TopModel::Changed(Process* process, int64_t nowMs) {
    auto& history = process->history;
    history.push_back({nowMs, process->Rss()});
    // Keep one entry at or before the window's start: the value to compare with.
    while (history.size() >= 2 && history[1].first <= nowMs - kRecentWindowMs) history.pop_front();
}

void TopModel::Note(int64_t nowMs, const std::string& text) {
    recent_.push_back(Clock(nowMs) + " " + text);
    while (recent_.size() > kRecentLines) recent_.pop_front();
}

void TopModel::Exited(int32_t pid, const std::string& comm, int64_t nowMs) {
    const auto it = processes_.find(pid);
    if (it == processes_.end()) return;
    Note(nowMs, "exit  " + std::to_string(pid) + " " +
                    PrintableText(comm.empty() ? it->second.comm : comm) + " (rss " +
                    FormatSize(it->second.Rss()) + ")");
    processes_.erase(it);
    exited_[pid] = nowMs;
}

void TopModel::LoadBaseline(const TaskDump& dump, int64_t nowMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const TaskRow& row : dump.rows) {
        if (row.anonKb == 0 && row.fileKb == 0 && row.shmemKb == 0 && row.swapKb == 0) continue;
        if (processes_.count(row.pid) != 0) continue;  // an event was newer
        Process process;
        process.comm = row.comm;
        process.anon = row.anonKb * 1024;
        process.file = row.fileKb * 1024;
        process.shmem = row.shmemKb * 1024;
        process.swap = row.swapKb * 1024;
        process.startRss = process.Rss();
        process.history.push_back({nowMs, process.Rss()});
        processes_.emplace(row.pid, std::move(process));
    }
}

void TopModel::OnEvent(uint32_t type, const uint8_t* data, size_t length, int64_t nowMs) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++events_;
    for (auto it = exited_.begin(); it != exited_.end();) {
        it = it->second < nowMs - kExitedMemoryMs ? exited_.erase(it) : std::next(it);
    }
    switch (type) {
        case QUOR_EVENT_RSS_STAT: {
            const QuorRssView r(data, length);
            if (!r || exited_.count(r->pid) != 0) return;
            Process& p = Find(r->pid, nowMs, "");
            switch (r->member) {
                case QUOR_RSS_FILE:
                    p.file = r->size;
                    break;
                case QUOR_RSS_ANON:
                    p.anon = r->size;
                    break;
                case QUOR_RSS_SWAP:
                    p.swap = r->size;
                    break;
                case QUOR_RSS_SHMEM:
                    p.shmem = r->size;
                    break;
                default:
                    return;
            }
            Changed(&p, nowMs);
            return;
        }
        case QUOR_EVENT_TASK_INIT: {
            const QuorTaskInitView r(data, length);
            if (!r) return;
            Process& p = Find(r->pid, nowMs, QuorCommString(r->comm));
            p.anon = r->rss_anon;
            p.file = r->rss_file;
            p.shmem = r->rss_shmem;
            p.swap = r->swap;
            Changed(&p, nowMs);
            return;
        }
        case QUOR_SERVICE_RSS_CHANGE: {
            const QuorRssChangeView r(data, length);
            if (!r || exited_.count(r->pid) != 0) return;
            Process& p = Find(r->pid, nowMs, QuorCommString(r->comm));
            p.anon = r->rss_anon;
            p.file = r->rss_file;
            p.shmem = r->rss_shmem;
            p.swap = r->swap;
            Changed(&p, nowMs);
            const int64_t old = r->old_rss_anon + r->old_rss_file + r->old_rss_shmem;
            const int64_t delta = p.Rss() - old;
            if (delta >= kNotableChange || delta <= -kNotableChange) {
                Note(nowMs, "rss   " + std::to_string(r->pid) + " " + PrintableText(p.comm) + " " +
                                FormatSizeChange(delta) + " -> " + FormatSize(p.Rss()));
            }
            return;
        }
        case QUOR_SERVICE_TASK_NEW: {
            const QuorTaskNewView r(data, length);
            if (!r) return;
            exited_.erase(r->pid);
            const bool known = processes_.count(r->pid) != 0;
            Process& p = Find(r->pid, nowMs, QuorCommString(r->comm));
            if (!known || p.isNew) {
                Note(nowMs, "start " + std::to_string(r->pid) + " " + PrintableText(p.comm) +
                                " (parent " + std::to_string(r->ppid) + ")");
            }
            return;
        }
        case QUOR_EVENT_TASK_CREATE: {
            const QuorForkView r(data, length);
            if (!r || r->kind != QUOR_TASK_KIND_PROCESS) return;
            exited_.erase(r->pid);
            (void)Find(r->pid, nowMs, QuorCommString(r->comm));
            return;
        }
        case QUOR_SERVICE_TASK_EXIT: {
            const QuorTaskExitView r(data, length);
            if (r) Exited(r->pid, QuorCommString(r->comm), nowMs);
            return;
        }
        case QUOR_EVENT_TASK_EXIT: {
            const QuorExitView r(data, length);
            if (r && r->kind == QUOR_TASK_KIND_PROCESS) {
                Exited(r->pid, QuorCommString(r->comm), nowMs);
            }
            return;
        }
        default:
            return;
    }
}

void TopModel::SetConnected(bool connected) {
    std::lock_guard<std::mutex> lock(mutex_);
    connected_ = connected;
}

void TopModel::Prune(const std::function<bool(int32_t pid)>& alive) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = processes_.begin(); it != processes_.end();) {
        it = alive(it->first) ? std::next(it) : processes_.erase(it);
    }
}

void TopModel::Rename(int32_t pid, const std::string& comm) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = processes_.find(pid);
    if (it != processes_.end() && !comm.empty()) it->second.comm = comm;
}

TopSnapshot TopModel::Snapshot(int64_t nowMs, size_t maxRows, size_t maxRecent) {
    std::lock_guard<std::mutex> lock(mutex_);
    TopSnapshot snapshot;
    snapshot.processes = processes_.size();
    snapshot.connected = connected_;
    if (lastSnapshotMs_ != 0 && nowMs > lastSnapshotMs_) {
        rate_ = static_cast<double>(events_ - eventsAtLastSnapshot_) * 1000.0 /
                static_cast<double>(nowMs - lastSnapshotMs_);
    }
    lastSnapshotMs_ = nowMs;
    eventsAtLastSnapshot_ = events_;
    snapshot.eventsPerSecond = rate_;

    std::vector<TopRow> rows;
    rows.reserve(processes_.size());
    for (auto& [pid, process] : processes_) {
        auto& history = process.history;
        while (history.size() >= 2 && history[1].first <= nowMs - kRecentWindowMs) {
            history.pop_front();
        }
        TopRow row;
        row.pid = pid;
        row.comm = process.comm;
        row.rss = process.Rss();
        row.anon = process.anon;
        row.file = process.file;
        row.shmem = process.shmem;
        row.swap = process.swap;
        row.recentChange = row.rss - history.front().second;
        row.sinceStart = row.rss - process.startRss;
        row.isNew = process.isNew;
        rows.push_back(std::move(row));
    }
    const size_t keep = std::min(maxRows, rows.size());
    std::partial_sort(rows.begin(), rows.begin() + keep, rows.end(),
                      [](const TopRow& a, const TopRow& b) {
                          return a.rss != b.rss ? a.rss > b.rss : a.pid < b.pid;
                      });
    rows.resize(keep);
    snapshot.rows = std::move(rows);
    const size_t recent = std::min(maxRecent, recent_.size());
    snapshot.recent.assign(recent_.end() - recent, recent_.end());
    return snapshot;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
