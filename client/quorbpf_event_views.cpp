// Names, sizes and one-line text of the records a client receives.
#include "quor/quorbpf_event_views.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>

namespace Quor {
namespace Bpf {

namespace {

struct EventInfo {
    uint32_t type;
    const char* name;
    size_t size;
};

// Kernel names are those the service's statistics print.
constexpr EventInfo kEvents[] = {
    {QUOR_EVENT_TASK_INIT, "quor_task_init", sizeof(quor_task_init_record)},
    {QUOR_EVENT_RSS_STAT, "kmem_rss_info", sizeof(quor_rss_record)},
    {QUOR_EVENT_TASK_CREATE, "sched_task_create", sizeof(quor_fork_record)},
    {QUOR_EVENT_TASK_EXIT, "sched_task_exit", sizeof(quor_exit_record)},
    {QUOR_EVENT_DMABUF_SIZE, "dmabuf_size_info", sizeof(quor_dmabuf_size_record)},
    {QUOR_EVENT_CGROUP_ATTACH, "cgroup_attach_cpuset_info", sizeof(quor_cgroup_attach_record)},
    {QUOR_EVENT_FD_UPDATE, "fd_update_info", sizeof(quor_fd_update_record)},
    {QUOR_EVENT_DMABUF_UPDATE, "dmabuf_update", sizeof(quor_dmabuf_update_record)},
    {QUOR_SERVICE_TASK_NEW, "task_new", sizeof(quor_task_new_event)},
    {QUOR_SERVICE_TASK_EXIT, "task_exit", sizeof(quor_task_exit_event)},
    {QUOR_SERVICE_THREAD_CHANGE, "thread_change", sizeof(quor_thread_change_event)},
    {QUOR_SERVICE_RSS_CHANGE, "rss_change", sizeof(quor_rss_change_event)},
};

const EventInfo* FindEvent(uint32_t type) {
    for (const EventInfo& info : kEvents) {
        if (info.type == type) return &info;
    }
    return nullptr;
}

void Append(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
void Append(std::string* out, const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    const int written = vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    if (written > 0)
        out->append(text, written < static_cast<int>(sizeof(text)) ? written : sizeof(text) - 1);
}

const char* TaskKind(uint32_t kind) {
    switch (kind) {
        case QUOR_TASK_KIND_PROCESS:
            return "process";
        case QUOR_TASK_KIND_THREAD:
            return "thread";
        default:
            return "unknown";
    }
}

const char* RssMember(int32_t member) {
    switch (member) {
        case QUOR_RSS_FILE:
            return "file";
        case QUOR_RSS_ANON:
            return "anon";
        case QUOR_RSS_SWAP:
            return "swap";
        case QUOR_RSS_SHMEM:
            return "shmem";
        default:
            return "unknown";
    }
}

const char* DmabufAction(uint32_t action) {
    switch (action) {
        case QUOR_DMABUF_SETUP:
            return "setup";
        case QUOR_DMABUF_RELEASE:
            return "release";
        default:
            return "unknown";
    }
}

void AppendHeader(std::string* out, const quor_record_header& header) {
    Append(out, " ts=%" PRIu64, static_cast<uint64_t>(header.timestamp_ns));
}

std::string FormatWhole(uint32_t type, const void* data, size_t length) {
    std::string out = QuorEventName(type);
    switch (type) {
        case QUOR_EVENT_TASK_INIT: {
            const QuorTaskInitView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d ppid=%d uid=%d threads=%d comm=%s", r->pid, r->ppid, r->uid,
                   r->thread_count, QuorCommString(r->comm).c_str());
            Append(&out,
                   " rss_file=%" PRId64 " rss_anon=%" PRId64 " rss_shmem=%" PRId64 " swap=%" PRId64
                   " start=%" PRId64,
                   static_cast<int64_t>(r->rss_file), static_cast<int64_t>(r->rss_anon),
                   static_cast<int64_t>(r->rss_shmem), static_cast<int64_t>(r->swap),
                   static_cast<int64_t>(r->start_time_s));
            break;
        }
        case QUOR_EVENT_RSS_STAT: {
            const QuorRssView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d member=%s size=%" PRId64, r->pid, RssMember(r->member),
                   static_cast<int64_t>(r->size));
            break;
        }
        case QUOR_EVENT_TASK_CREATE: {
            const QuorForkView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " ppid=%d pid=%d tid=%d comm=%s kind=%s", r->ppid, r->pid, r->tid,
                   QuorCommString(r->comm).c_str(), TaskKind(r->kind));
            break;
        }
        case QUOR_EVENT_TASK_EXIT: {
            const QuorExitView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d comm=%s kind=%s", r->pid, QuorCommString(r->comm).c_str(),
                   TaskKind(r->kind));
            break;
        }
        case QUOR_EVENT_DMABUF_SIZE: {
            const QuorDmabufSizeView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d total=%" PRIu64, r->pid, static_cast<uint64_t>(r->total_size));
            break;
        }
        case QUOR_EVENT_CGROUP_ATTACH: {
            const QuorCgroupAttachView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d tid=%d comm=%s cgroup=%s", r->pid, r->tid,
                   QuorCommString(r->comm).c_str(), QuorFieldString(r->cgroup).c_str());
            break;
        }
        case QUOR_EVENT_FD_UPDATE: {
            const QuorFdUpdateView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d fd=%d open_fds=%" PRIu64 " comm=%s", r->pid, r->fd,
                   static_cast<uint64_t>(r->open_fds), QuorCommString(r->comm).c_str());
            break;
        }
        case QUOR_EVENT_DMABUF_UPDATE: {
            const QuorDmabufUpdateView r(data, length);
            AppendHeader(&out, r->header);
            Append(&out, " pid=%d action=%s inode=%" PRIu64 " size=%" PRIu64, r->pid,
                   DmabufAction(r->action), static_cast<uint64_t>(r->inode),
                   static_cast<uint64_t>(r->size));
            break;
        }
        case QUOR_SERVICE_TASK_NEW: {
            const QuorTaskNewView r(data, length);
            Append(&out, " pid=%d ppid=%d uid=%d comm=%s", r->pid, r->ppid, r->uid,
                   QuorCommString(r->comm).c_str());
            break;
        }
        case QUOR_SERVICE_TASK_EXIT: {
            const QuorTaskExitView r(data, length);
            Append(&out, " pid=%d comm=%s", r->pid, QuorCommString(r->comm).c_str());
            break;
        }
        case QUOR_SERVICE_THREAD_CHANGE: {
            const QuorThreadChangeView r(data, length);
            Append(&out, " pid=%d ppid=%d uid=%d threads=%d old_threads=%d", r->pid, r->ppid,
                   r->uid, r->thread_count, r->old_thread_count);
            break;
        }
        case QUOR_SERVICE_RSS_CHANGE: {
            const QuorRssChangeView r(data, length);
            Append(&out, " pid=%d ppid=%d uid=%d comm=%s", r->pid, r->ppid, r->uid,
                   QuorCommString(r->comm).c_str());
            Append(&out,
                   " rss_file=%" PRId64 " rss_anon=%" PRId64 " swap=%" PRId64 " rss_shmem=%" PRId64,
                   static_cast<int64_t>(r->rss_file), static_cast<int64_t>(r->rss_anon),
                   static_cast<int64_t>(r->swap), static_cast<int64_t>(r->rss_shmem));
            Append(&out,
                   " old_rss_file=%" PRId64 " old_rss_anon=%" PRId64 " old_swap=%" PRId64
                   " old_rss_shmem=%" PRId64,
                   static_cast<int64_t>(r->old_rss_file), static_cast<int64_t>(r->old_rss_anon),
                   static_cast<int64_t>(r->old_swap), static_cast<int64_t>(r->old_rss_shmem));
            break;
        }
        default:
            break;
    }
    return out;
}

}  // namespace

const char* QuorEventName(uint32_t type) {
    const EventInfo* info = FindEvent(type);
    return info == nullptr ? nullptr : info->name;
}

int64_t QuorEventTypeByName(const std::string& name) {
    for (const EventInfo& info : kEvents) {
        if (name == info.name) return info.type;
    }
    return -1;
}

size_t QuorRecordSize(uint32_t type) {
    const EventInfo* info = FindEvent(type);
    return info == nullptr ? 0 : info->size;
}

std::string QuorFormatEvent(uint32_t type, const void* data, size_t length) {
    std::string out;
    const EventInfo* info = FindEvent(type);
    if (info == nullptr) {
        Append(&out, "unknown type %u (%zu bytes)", type, length);
        return out;
    }
    uint32_t recordType = 0;
    if (data != nullptr && length >= sizeof(recordType))
        memcpy(&recordType, data, sizeof(recordType));
    if (data == nullptr || length < sizeof(recordType) || recordType != type) {
        Append(&out, "%s type mismatch (record says %u, %zu bytes)", info->name, recordType,
               length);
        return out;
    }
    if (length < info->size) {
        Append(&out, "%s truncated (%zu of %zu bytes)", info->name, length, info->size);
        return out;
    }
    return FormatWhole(type, data, length);
}

}  // namespace Bpf
}  // namespace Quor
