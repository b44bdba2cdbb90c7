// Names, sizes and the one decoder of the records a client receives; the
// text line and every other rendering are built from the decoded fields.
#include "quor/quorbpf_event_views.h"

#include <utility>

namespace Quor {
namespace Bpf {

namespace {

using Kind = QuorEventField::Kind;

QuorEventField Field(const char* name, const char* label, Kind kind) {
    QuorEventField field;
    field.name = name;
    field.label = label;
    field.kind = kind;
    return field;
}

QuorEventField Int(const char* name, const char* label, int64_t value) {
    QuorEventField field = Field(name, label, Kind::kInt);
    field.number = value;
    return field;
}

QuorEventField Uint(const char* name, const char* label, uint64_t value) {
    QuorEventField field = Field(name, label, Kind::kUint);
    field.unsignedNumber = value;
    return field;
}

QuorEventField Size(const char* name, const char* label, int64_t bytes) {
    QuorEventField field = Field(name, label, Kind::kSize);
    field.number = bytes;
    return field;
}

QuorEventField Text(const char* name, const char* label, std::string value) {
    QuorEventField field = Field(name, label, Kind::kText);
    field.text = std::move(value);
    return field;
}

std::string EnumName(const char* name, int64_t value) {
    if (name != nullptr) return name;
    return "unknown(" + std::to_string(value) + ")";
}

const char* TaskKind(uint32_t kind) {
    switch (kind) {
        case QUOR_TASK_KIND_PROCESS:
            return "process";
        case QUOR_TASK_KIND_THREAD:
            return "thread";
        default:
            return nullptr;
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
            return nullptr;
    }
}

const char* DmabufAction(uint32_t action) {
    switch (action) {
        case QUOR_DMABUF_SETUP:
            return "setup";
        case QUOR_DMABUF_RELEASE:
            return "release";
        default:
            return nullptr;
    }
}

void SetHeader(QuorDecodedEvent* event, const quor_record_header& header) {
    event->hasTimestamp = true;
    event->timestampNs = header.timestamp_ns;
}

void SetComm(QuorDecodedEvent* event, const char (&comm)[QUOR_COMM_LEN]) {
    event->hasComm = true;
    event->comm = QuorCommString(comm);
}

// One Decode per record struct of the type list: a type added to the list
// without one here does not compile.

void Decode(const quor_task_init_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    e->ppid = r.ppid;
    SetComm(e, r.comm);
    e->fields = {Int("ppid", "ppid", r.ppid),
                 Int("uid", "uid", r.uid),
                 Int("thread_count", "threads", r.thread_count),
                 Size("rss_file", "file", r.rss_file),
                 Size("rss_anon", "anon", r.rss_anon),
                 Size("rss_shmem", "shmem", r.rss_shmem),
                 Size("swap", "swap", r.swap),
                 Int("start_time_s", "start", r.start_time_s)};
}

void Decode(const quor_rss_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    // A known member labels the size ("anon=5.5 MiB"); an unknown one is shown.
    const char* member = RssMember(r.member);
    e->fields = {Text("member", member != nullptr ? nullptr : "member", EnumName(member, r.member)),
                 Size("size", member != nullptr ? member : "size", r.size)};
}

void Decode(const quor_fork_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    e->ppid = r.ppid;
    SetComm(e, r.comm);
    e->fields = {Int("ppid", "ppid", r.ppid), Int("tid", "tid", r.tid),
                 Text("kind", "kind", EnumName(TaskKind(r.kind), r.kind))};
}

void Decode(const quor_exit_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    SetComm(e, r.comm);
    e->fields = {Text("kind", "kind", EnumName(TaskKind(r.kind), r.kind))};
}

void Decode(const quor_dmabuf_size_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    e->fields = {Uint("total_size", nullptr, r.total_size),
                 Size(nullptr, "dmabuf_total", static_cast<int64_t>(r.total_size))};
}

void Decode(const quor_cgroup_attach_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    SetComm(e, r.comm);
    e->fields = {Int("tid", "tid", r.tid), Text("cgroup", "cgroup", QuorFieldString(r.cgroup))};
}

void Decode(const quor_fd_update_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    SetComm(e, r.comm);
    e->fields = {Int("fd", "fd", r.fd), Uint("open_fds", "open_fds", r.open_fds)};
}

void Decode(const quor_dmabuf_update_record& r, QuorDecodedEvent* e) {
    SetHeader(e, r.header);
    e->pid = r.pid;
    e->fields = {Text("action", "action", EnumName(DmabufAction(r.action), r.action)),
                 Uint("inode", "inode", r.inode), Uint("size", nullptr, r.size),
                 Size(nullptr, "size", static_cast<int64_t>(r.size))};
}

void Decode(const quor_task_new_event& r, QuorDecodedEvent* e) {
    e->pid = r.pid;
    e->ppid = r.ppid;
    SetComm(e, r.comm);
    // The member is named uid, but for a process seen forking it holds the
    // new task's own id; the label says what a reader mostly sees.
    e->fields = {Int("ppid", "ppid", r.ppid), Int("uid", "tid", r.uid)};
}

void Decode(const quor_task_exit_event& r, QuorDecodedEvent* e) {
    e->pid = r.pid;
    SetComm(e, r.comm);
}

void Decode(const quor_thread_change_event& r, QuorDecodedEvent* e) {
    e->pid = r.pid;
    e->ppid = r.ppid;
    e->fields = {Int("ppid", "ppid", r.ppid), Int("uid", "uid", r.uid),
                 Int("old_thread_count", "old_threads", r.old_thread_count),
                 Int("thread_count", "threads", r.thread_count)};
}

void Decode(const quor_rss_change_event& r, QuorDecodedEvent* e) {
    e->pid = r.pid;
    e->ppid = r.ppid;
    SetComm(e, r.comm);
    // The old values carry no label: a line of text shows each size with its
    // change instead.
    e->fields = {Int("ppid", "ppid", r.ppid),
                 Int("uid", "uid", r.uid),
                 Size("rss_file", "file", r.rss_file),
                 Size("rss_anon", "anon", r.rss_anon),
                 Size("swap", "swap", r.swap),
                 Size("rss_shmem", "shmem", r.rss_shmem),
                 Size("old_rss_file", nullptr, r.old_rss_file),
                 Size("old_rss_anon", nullptr, r.old_rss_anon),
                 Size("old_swap", nullptr, r.old_swap),
                 Size("old_rss_shmem", nullptr, r.old_rss_shmem)};
}

// Fills pid, comm and fields of a record already known to be whole.
void DecodeWhole(const void* data, size_t length, QuorDecodedEvent* e) {
    switch (e->type) {
#define QUOR_DECODE_CASE(enumerator, id, name, record)    \
    case (id):                                            \
        Decode(*QuorRecordView<record>(data, length), e); \
        break;
        QUOR_EVENT_LIST(QUOR_DECODE_CASE)
#undef QUOR_DECODE_CASE
        default:
            break;
    }
}

}  // namespace

QuorDecodedEvent QuorDecodeEvent(uint32_t type, const void* data, size_t length) {
    QuorDecodedEvent event;
    event.type = type;
    event.length = length;
    event.name = QuorEventName(type);
    if (event.name == nullptr) {
        event.error = "unknown type";
        return event;
    }
    uint32_t recordType = 0;
    if (data == nullptr || length < sizeof(recordType)) {
        event.error = "truncated";
        return event;
    }
    memcpy(&recordType, data, sizeof(recordType));
    if (recordType != type) {
        event.error = "type mismatch: record says " + std::to_string(recordType);
        return event;
    }
    if (length < QuorRecordSize(type)) {
        event.error = "truncated";
        return event;
    }
    DecodeWhole(data, length, &event);
    return event;
}

const char* QuorEventName(uint32_t type) {
    const QuorEventTypeInfo* info = QuorFindEventType(type);
    return info == nullptr ? nullptr : info->name;
}

int64_t QuorEventTypeByName(const std::string& name) {
    for (const QuorEventTypeInfo& info : kQuorEventTypes) {
        if (name == info.name) return info.type;
    }
    return -1;
}

size_t QuorRecordSize(uint32_t type) {
    const QuorEventTypeInfo* info = QuorFindEventType(type);
    return info == nullptr ? 0 : info->size;
}

std::string QuorFormatEvent(uint32_t type, const void* data, size_t length) {
    const QuorDecodedEvent event = QuorDecodeEvent(type, data, length);
    std::string out = event.name != nullptr ? event.name : "type " + std::to_string(type);
    if (!event.error.empty())
        return out + " " + event.error + " (" + std::to_string(length) + " bytes)";
    if (event.hasTimestamp) out += " ts=" + std::to_string(event.timestampNs);
    out += " pid=" + std::to_string(event.pid);
    if (event.hasComm) out += " comm=" + event.comm;
    for (const QuorEventField& field : event.fields) {
        if (field.name == nullptr) continue;
        out += std::string(" ") + field.name + "=";
        switch (field.kind) {
            case Kind::kInt:
            case Kind::kSize:
                out += std::to_string(field.number);
                break;
            case Kind::kUint:
                out += std::to_string(field.unsignedNumber);
                break;
            case Kind::kText:
                out += field.text;
                break;
        }
    }
    return out;
}

}  // namespace Bpf
}  // namespace Quor
