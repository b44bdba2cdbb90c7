#include "tools/quorbpfctl/trace_model.h"

#include <algorithm>
#include <map>

#include "quor/quorbpf_event_views.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

// Children of these are the roots of the process trees listed together.
bool IsTreeRoot(int32_t ppid) {
    return ppid <= 2;
}

// How far up the tree a seeded process looks for its group (cycles in a
// torn task table must not loop).
constexpr int kMaxAncestors = 64;

}  // namespace

TraceModel::TraceModel(TraceWriter* writer, std::function<std::string(int32_t)> commOf)
    : writer_(writer), commOf_(std::move(commOf)) {}

int32_t TraceModel::SortIndexFor(int32_t pid, int32_t ppid) {
    if (pid > 2 && !IsTreeRoot(ppid)) {
        const auto parent = processes_.find(ppid);
        if (parent != processes_.end()) return parent->second.sortIndex;
    }
    return nextSortIndex_++;
}

TraceModel::Process* TraceModel::Start(int64_t ts, int32_t pid, int32_t ppid,
                                       const std::string& comm, const char* origin,
                                       int32_t threads) {
    Process& process = processes_[pid];
    process.ppid = ppid;
    process.comm = comm;
    process.threads = std::max(threads, 1);
    process.beginTs = ts;
    process.commCheckedTs = ts - kCommRecheckNs;  // asked first once it is old enough
    process.sortIndex = SortIndexFor(pid, ppid);
    writer_->ProcessName(ts, pid, comm.empty() ? "pid " + std::to_string(pid) : comm);
    writer_->ProcessSortIndex(ts, pid, process.sortIndex);
    const auto parent = processes_.find(ppid);
    if (ppid > 0 && parent != processes_.end()) {
        writer_->ProcessLabels(ts, pid,
                               "parent: " + parent->second.comm + " " + std::to_string(ppid));
    }
    TraceArgs args;
    args.Add("ppid", ppid);
    if (origin != nullptr) args.Add("origin", origin);
    writer_->Begin(ts, pid, comm, args);
    if (process.threads > 1) {
        writer_->Counter(ts, pid, "threads", TraceArgs().Add("value", process.threads));
        process.threadTrack = true;
    }
    return &process;
}

TraceModel::Process* TraceModel::Find(int64_t ts, int32_t pid, const std::string& comm) {
    if (pid <= 0 || ended_.count(pid) != 0) return nullptr;
    const auto it = processes_.find(pid);
    if (it != processes_.end()) return &it->second;
    return Start(ts, pid, 0, comm.empty() ? commOf_(pid) : comm, "first record");
}

void TraceModel::End(int64_t ts, int32_t pid) {
    const auto it = processes_.find(pid);
    if (it == processes_.end()) return;
    FlushMemory(pid, &it->second);
    ts = std::max(ts, it->second.beginTs);
    if (it->second.threadTrack) writer_->Counter(ts, pid, "threads", TraceArgs().Add("value", 0));
    writer_->End(ts, pid, TraceArgs());
    processes_.erase(it);
    if (ended_.size() >= kMaxEnded) ended_.clear();
    ended_.insert(pid);
}

void TraceModel::Rename(int64_t ts, int32_t pid, Process* process, const std::string& comm) {
    if (comm.empty() || comm == process->comm) return;
    process->comm = comm;
    writer_->ProcessName(std::max(ts, process->beginTs), pid, comm);
}

void TraceModel::SetThreads(int64_t ts, int32_t pid, Process* process, int32_t threads) {
    threads = std::max(threads, 1);
    if (threads == process->threads) return;
    // A single-threaded process (most of a fork storm) has no threads track;
    // the track of one that starts threads begins with its slice.
    if (!process->threadTrack) {
        writer_->Counter(process->beginTs, pid, "threads",
                         TraceArgs().Add("value", process->threads));
        process->threadTrack = true;
    }
    process->threads = threads;
    writer_->Counter(std::max(ts, process->beginTs), pid, "threads",
                     TraceArgs().Add("value", threads));
}

void TraceModel::WriteMemory(int64_t ts, int32_t pid, const int64_t (&memory)[4]) {
    writer_->Counter(ts, pid, "memory",
                     TraceArgs()
                         .Add("anon", memory[QUOR_RSS_ANON])
                         .Add("file", memory[QUOR_RSS_FILE])
                         .Add("swap", memory[QUOR_RSS_SWAP])
                         .Add("shmem", memory[QUOR_RSS_SHMEM]));
}

void TraceModel::FlushMemory(int32_t pid, Process* process) {
    if (process->pendingTs < 0) return;
    WriteMemory(process->pendingTs, pid, process->pending);
    process->pendingTs = -1;
}

void TraceModel::SetMemory(int64_t ts, int32_t pid, Process* process, const int64_t (&memory)[4]) {
    if (std::equal(memory, memory + 4, process->memory)) return;
    std::copy(memory, memory + 4, process->memory);
    ts = std::max(ts, process->beginTs);
    if (process->windowTs == INT64_MIN || ts - process->windowTs >= kMemoryWindowNs) {
        FlushMemory(pid, process);
        process->windowTs = ts;
        if (ts - process->beginTs >= kCommMinAgeNs &&
            ts - process->commCheckedTs >= kCommRecheckNs) {
            process->commCheckedTs = ts;
            Rename(ts, pid, process, commOf_(pid));
        }
    }
    std::copy(memory, memory + 4, process->pending);
    process->pendingTs = ts;
}

void TraceModel::AddRunning(const std::vector<TraceProcess>& processes, int64_t nowNs) {
    std::map<int32_t, const TraceProcess*> fresh;
    for (const TraceProcess& p : processes) {
        if (p.pid > 0 && processes_.count(p.pid) == 0 && ended_.count(p.pid) == 0) {
            fresh[p.pid] = &p;
        }
    }
    // Parents first, so that each child finds its tree's sort index.
    std::map<int32_t, int> depth;
    for (const auto& [pid, p] : fresh) {
        int d = 0;
        for (int32_t up = p->ppid; d < kMaxAncestors && !IsTreeRoot(up); ++d) {
            const auto parent = fresh.find(up);
            if (parent == fresh.end()) break;
            up = parent->second->ppid;
        }
        depth[pid] = d;
    }
    std::vector<const TraceProcess*> order;
    for (const auto& entry : fresh) order.push_back(entry.second);
    std::stable_sort(order.begin(), order.end(), [&](const TraceProcess* a, const TraceProcess* b) {
        return depth[a->pid] < depth[b->pid];
    });
    for (const TraceProcess* p : order) {
        Process* started = Start(nowNs, p->pid, p->ppid, p->comm, "running at start", p->threads);
        int64_t memory[4] = {};
        memory[QUOR_RSS_FILE] = p->file;
        memory[QUOR_RSS_ANON] = p->anon;
        memory[QUOR_RSS_SWAP] = p->swap;
        memory[QUOR_RSS_SHMEM] = p->shmem;
        SetMemory(nowNs, p->pid, started, memory);
        FlushMemory(p->pid, started);
    }
}

int64_t TraceModel::KernelTime(uint64_t timestampNs, int64_t receivedNs) {
    const int64_t ts = static_cast<int64_t>(timestampNs);
    lastKernelNs_ = std::max(lastKernelNs_, ts);
    lastKernelReceivedNs_ = receivedNs;
    return ts;
}

void TraceModel::OnRecord(uint32_t type, const uint8_t* data, size_t length, int64_t receivedNs) {
    ++records_;
    constexpr int64_t kStaleNs = 1000000000;
    const int64_t serviceTs = lastKernelNs_ != 0 && receivedNs - lastKernelReceivedNs_ < kStaleNs
                                  ? lastKernelNs_
                                  : receivedNs;
    switch (type) {
        case QUOR_EVENT_TASK_INIT:
            if (QuorTaskInitView r{data, length}) {
                TraceProcess p;
                p.pid = r->pid;
                p.ppid = r->ppid;
                p.comm = QuorCommString(r->comm);
                p.threads = r->thread_count;
                p.anon = r->rss_anon;
                p.file = r->rss_file;
                p.swap = r->swap;
                p.shmem = r->rss_shmem;
                AddRunning({p}, KernelTime(r->header.timestamp_ns, receivedNs));
                return;
            }
            break;
        case QUOR_EVENT_RSS_STAT:
            if (QuorRssView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                Process* process = Find(ts, r->pid, "");
                if (process != nullptr && r->member >= 0 && r->member < 4) {
                    int64_t memory[4];
                    std::copy(process->memory, process->memory + 4, memory);
                    memory[r->member] = r->size;
                    SetMemory(ts, r->pid, process, memory);
                }
                return;
            }
            break;
        case QUOR_EVENT_TASK_CREATE:
            if (QuorForkView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                if (r->kind == QUOR_TASK_KIND_THREAD) {
                    Process* process = Find(ts, r->pid, "");
                    if (process != nullptr) SetThreads(ts, r->pid, process, process->threads + 1);
                } else if (r->pid > 0) {
                    const auto live = processes_.find(r->pid);
                    // Seeded after it forked (the record waited for the task table).
                    if (live != processes_.end() && live->second.beginTs >= ts) return;
                    // A pid met again: its exit was lost, or it was recycled.
                    End(ts, r->pid);
                    ended_.erase(r->pid);
                    Start(ts, r->pid, r->ppid, QuorCommString(r->comm), nullptr);
                }
                return;
            }
            break;
        case QUOR_EVENT_TASK_EXIT:
            if (QuorExitView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                const auto it = processes_.find(r->pid);
                if (it == processes_.end()) return;
                if (r->kind == QUOR_TASK_KIND_THREAD) {
                    SetThreads(ts, r->pid, &it->second, it->second.threads - 1);
                } else {
                    Rename(ts, r->pid, &it->second, QuorCommString(r->comm));
                    End(ts, r->pid);
                }
                return;
            }
            break;
        case QUOR_EVENT_DMABUF_SIZE:
            if (QuorDmabufSizeView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                Process* process = Find(ts, r->pid, "");
                const int64_t total = static_cast<int64_t>(r->total_size);
                if (process != nullptr && total != process->dmabuf) {
                    process->dmabuf = total;
                    writer_->Counter(std::max(ts, process->beginTs), r->pid, "dmabuf",
                                     TraceArgs().Add("bytes", total));
                }
                return;
            }
            break;
        case QUOR_EVENT_CGROUP_ATTACH:
            if (QuorCgroupAttachView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                if (const Process* p = Find(ts, r->pid, QuorCommString(r->comm))) {
                    writer_->Instant(
                        std::max(ts, p->beginTs), r->pid, "cgroup",
                        TraceArgs().Add("tid", r->tid).Add("cgroup", QuorFieldString(r->cgroup)));
                }
                return;
            }
            break;
        case QUOR_EVENT_FD_UPDATE:
            if (QuorFdUpdateView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                if (const Process* p = Find(ts, r->pid, "")) {
                    writer_->Instant(std::max(ts, p->beginTs), r->pid, "descriptors",
                                     TraceArgs()
                                         .Add("fd", r->fd)
                                         .Add("open_fds", static_cast<int64_t>(r->open_fds)));
                }
                return;
            }
            break;
        case QUOR_EVENT_DMABUF_UPDATE:
            if (QuorDmabufUpdateView r{data, length}) {
                const int64_t ts = KernelTime(r->header.timestamp_ns, receivedNs);
                if (const Process* p = Find(ts, r->pid, "")) {
                    writer_->Instant(
                        std::max(ts, p->beginTs), r->pid,
                        r->action == QUOR_DMABUF_RELEASE ? "dmabuf release" : "dmabuf setup",
                        TraceArgs()
                            .Add("inode", static_cast<int64_t>(r->inode))
                            .Add("size", static_cast<int64_t>(r->size)));
                }
                return;
            }
            break;
        case QUOR_SERVICE_TASK_NEW:
            if (QuorTaskNewView r{data, length}) {
                if (r->pid > 0 && processes_.count(r->pid) == 0 && ended_.count(r->pid) == 0) {
                    Start(serviceTs, r->pid, r->ppid, QuorCommString(r->comm), "service");
                }
                return;
            }
            break;
        case QUOR_SERVICE_TASK_EXIT:
            if (QuorTaskExitView r{data, length}) {
                End(serviceTs, r->pid);
                return;
            }
            break;
        case QUOR_SERVICE_THREAD_CHANGE:
            if (QuorThreadChangeView r{data, length}) {
                Process* process = Find(serviceTs, r->pid, "");
                if (process != nullptr) SetThreads(serviceTs, r->pid, process, r->thread_count);
                return;
            }
            break;
        case QUOR_SERVICE_RSS_CHANGE:
            if (QuorRssChangeView r{data, length}) {
                Process* process = Find(serviceTs, r->pid, QuorCommString(r->comm));
                if (process == nullptr) return;
                Rename(serviceTs, r->pid, process, QuorCommString(r->comm));
                int64_t memory[4] = {};
                memory[QUOR_RSS_FILE] = r->rss_file;
                memory[QUOR_RSS_ANON] = r->rss_anon;
                memory[QUOR_RSS_SWAP] = r->swap;
                memory[QUOR_RSS_SHMEM] = r->rss_shmem;
                SetMemory(serviceTs, r->pid, process, memory);
                return;
            }
            break;
        default:
            break;
    }
    ++undecodable_;
}

void TraceModel::Finish(int64_t nowNs) {
    std::vector<int32_t> pids;
    for (const auto& entry : processes_) pids.push_back(entry.first);
    std::sort(pids.begin(), pids.end());
    for (const int32_t pid : pids) {
        Process& process = processes_[pid];
        FlushMemory(pid, &process);
        writer_->End(std::max(nowNs, process.beginTs), pid, TraceArgs().Add("running", 1));
    }
    processes_.clear();
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
