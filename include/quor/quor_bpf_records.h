/*
 * Record layouts shared by the kernel programmes, the service and its clients.
 *
 * Every record that a kernel programme writes into a ring buffer starts with
 * `struct quor_record_header`; the service forwards records to subscribed
 * clients byte for byte, so clients decode them with these same structs.
 * Integers are little-endian (the kernel's byte order on every target), comm
 * fields are 16-byte process names, NUL-padded.
 *
 * The service also composes four records of its own (ids 50001 to 50004);
 * their first 32-bit field holds the id where a kernel record has its type.
 *
 * This header is plain C so that clang's BPF target can include it. In a
 * kernel programme include vmlinux.h first; elsewhere <linux/types.h> is used.
 * Sizes and offsets are pinned with static assertions: a layout that differs
 * on some target fails the build instead of corrupting a client's view.
 */
#ifndef QUOR_BPF_RECORDS_H
#define QUOR_BPF_RECORDS_H

#ifndef __VMLINUX_H__
#include <linux/types.h>
#endif

#ifdef __cplusplus
#define QUOR_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QUOR_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define QUOR_COMM_LEN 16

/*
 * The one list of record types: X(enumerator, id, name, record struct).
 * Everything else that depends on the set of types (the enums below, the
 * statistics slots, the names, the decoders, the subscribable set) is derived
 * from these two lists; docs/records.md says what else a new type needs.
 * Kernel types are numbered from 0 without gaps (they index the statistics);
 * the names are those the statistics file and the client library print.
 */
#define QUOR_KERNEL_EVENT_LIST(X)                                                          \
    /* a process that existed at start */                                                  \
    X(QUOR_EVENT_TASK_INIT, 0, "quor_task_init", quor_task_init_record)                    \
    /* one resident-memory counter changed */                                              \
    X(QUOR_EVENT_RSS_STAT, 1, "kmem_rss_info", quor_rss_record)                            \
    /* fork of a process or thread */                                                      \
    X(QUOR_EVENT_TASK_CREATE, 2, "sched_task_create", quor_fork_record)                    \
    /* exit of a process or thread */                                                      \
    X(QUOR_EVENT_TASK_EXIT, 3, "sched_task_exit", quor_exit_record)                        \
    /* a process's dmabuf total changed */                                                 \
    X(QUOR_EVENT_DMABUF_SIZE, 4, "dmabuf_size_info", quor_dmabuf_size_record)              \
    /* a task moved cgroup */                                                              \
    X(QUOR_EVENT_CGROUP_ATTACH, 5, "cgroup_attach_cpuset_info", quor_cgroup_attach_record) \
    /* a process installed a descriptor */                                                 \
    X(QUOR_EVENT_FD_UPDATE, 6, "fd_update_info", quor_fd_update_record)                    \
    /* a dmabuf was set up or released */                                                  \
    X(QUOR_EVENT_DMABUF_UPDATE, 7, "dmabuf_update", quor_dmabuf_update_record)

/* Records composed by the service itself. */
#define QUOR_SERVICE_EVENT_LIST(X)                                                  \
    X(QUOR_SERVICE_TASK_NEW, 50001, "task_new", quor_task_new_event)                \
    X(QUOR_SERVICE_TASK_EXIT, 50002, "task_exit", quor_task_exit_event)             \
    X(QUOR_SERVICE_THREAD_CHANGE, 50003, "thread_change", quor_thread_change_event) \
    X(QUOR_SERVICE_RSS_CHANGE, 50004, "rss_change", quor_rss_change_event)

#define QUOR_EVENT_LIST(X) QUOR_KERNEL_EVENT_LIST(X) QUOR_SERVICE_EVENT_LIST(X)

#define QUOR_EVENT_ENUMERATOR(enumerator, id, name, record) enumerator = (id),
#define QUOR_EVENT_COUNT_ONE(enumerator, id, name, record) +1

/* clang-format off */
/* Kernel record types (first field of every ring-buffer record). */
enum quor_event_type {
    QUOR_KERNEL_EVENT_LIST(QUOR_EVENT_ENUMERATOR)
    QUOR_EVENT_KERNEL_COUNT = 0 QUOR_KERNEL_EVENT_LIST(QUOR_EVENT_COUNT_ONE),
    QUOR_EVENT_KERNEL_MAX = QUOR_EVENT_KERNEL_COUNT - 1,
    QUOR_EVENT_POLL_COUNT = QUOR_EVENT_KERNEL_COUNT, /* statistics slot only, never a record */
};

/* Records composed by the service itself. */
enum quor_service_event {
    QUOR_SERVICE_EVENT_LIST(QUOR_EVENT_ENUMERATOR)
};
/* clang-format on */

/* Kinds carried by fork and exit records. */
enum quor_task_kind {
    QUOR_TASK_KIND_PROCESS = 1,
    QUOR_TASK_KIND_THREAD = 2,
};

/* Members of the rss record, in the kernel's counter order. */
enum quor_rss_member {
    QUOR_RSS_FILE = 0,
    QUOR_RSS_ANON = 1,
    QUOR_RSS_SWAP = 2,
    QUOR_RSS_SHMEM = 3,
};

struct quor_record_header {
    __u32 type;
    __u32 reserved;
    __u64 timestamp_ns; /* CLOCK_MONOTONIC (bpf_ktime_get_ns) */
};

/* Type 0: one per process that existed before the programmes were enabled. */
struct quor_task_init_record {
    struct quor_record_header header;
    __s32 pid;
    __s32 ppid;
    __s32 uid; /* third task identifier: the real uid */
    __s32 thread_count;
    char comm[QUOR_COMM_LEN];
    __s64 rss_file;  /* bytes */
    __s64 rss_anon;  /* bytes */
    __s64 rss_shmem; /* bytes */
    __s64 swap;      /* bytes */
    __s64 start_time_s;
};

/* Type 1: the new value of one resident-memory counter of process `pid`. */
struct quor_rss_record {
    struct quor_record_header header;
    __s32 pid;
    __s32 member; /* enum quor_rss_member */
    __s64 size;   /* bytes */
};

/* Type 2. For a thread (kind 2) `pid` is the thread group id. */
struct quor_fork_record {
    struct quor_record_header header;
    __s32 ppid; /* 0 when the kernel did not know it, and for threads */
    __s32 pid;
    __s32 tid; /* third task identifier: the new task's own id */
    char comm[QUOR_COMM_LEN];
    __u32 kind; /* enum quor_task_kind */
};

/* Type 3. For a thread (kind 2) `pid` is the thread group id. */
struct quor_exit_record {
    struct quor_record_header header;
    __s32 pid;
    char comm[QUOR_COMM_LEN];
    __u32 kind; /* enum quor_task_kind */
};

/* Type 4: the total size of the dmabuf buffers that `pid` holds changed. */
struct quor_dmabuf_size_record {
    struct quor_record_header header;
    __s32 pid;
    __u32 reserved;
    __u64 total_size; /* bytes, after the change */
};

/* Type 5: task `tid` was attached to cgroup `cgroup`. `pid` is its process
 * when the kernel tells (a whole-process move, or a thread moving itself),
 * else equal to `tid` (docs/records.md). */
#define QUOR_CGROUP_PATH_LEN 64
struct quor_cgroup_attach_record {
    struct quor_record_header header;
    __s32 pid;
    __s32 tid;
    char comm[QUOR_COMM_LEN];
    char cgroup[QUOR_CGROUP_PATH_LEN]; /* destination path, NUL-terminated, may be cut */
};

/* Type 6: process `pid` installed descriptor `fd`, entering a new block of 64
 * descriptor numbers; `open_fds` counts the seeded descriptors plus every
 * install since (closes are not seen). */
struct quor_fd_update_record {
    struct quor_record_header header;
    __s32 pid;
    __s32 fd;
    __u64 open_fds;
    char comm[QUOR_COMM_LEN];
};

/* Type 7: a dmabuf buffer was set up (action 1) or released (action 2). */
enum quor_dmabuf_action {
    QUOR_DMABUF_SETUP = 1,
    QUOR_DMABUF_RELEASE = 2,
};
struct quor_dmabuf_update_record {
    struct quor_record_header header;
    __s32 pid;
    __u32 action; /* enum quor_dmabuf_action */
    __u64 inode;
    __u64 size; /* bytes */
};

/*
 * The service's events carry the registry's third task identifier in `uid`:
 * the real uid for a process found running at start (task-init record), the
 * task's own id (`tid` of its fork record) for a process seen forking.
 */

/* 50001: a new process entered the task registry. */
struct quor_task_new_event {
    __u32 id;
    __s32 pid;
    __s32 ppid;
    __s32 uid;
    char comm[QUOR_COMM_LEN];
};

/* 50002: a process left the task registry. */
struct quor_task_exit_event {
    __u32 id;
    __s32 pid;
    char comm[QUOR_COMM_LEN];
};

/* 50003: a process's thread count moved by 11 or more since the last report. */
struct quor_thread_change_event {
    __u32 id;
    __s32 pid;
    __s32 ppid;
    __s32 uid;
    __s32 old_thread_count;
    __s32 thread_count;
};

/* 50004: a process's resident memory changed enough to report (bytes). */
struct quor_rss_change_event {
    __u32 id;
    __s32 pid;
    __s32 ppid;
    __s32 uid;
    char comm[QUOR_COMM_LEN];
    __s64 rss_file;
    __s64 rss_anon;
    __s64 swap;
    __s64 rss_shmem;
    __s64 old_rss_file;
    __s64 old_rss_anon;
    __s64 old_swap;
    __s64 old_rss_shmem;
};

/*
 * Status map beside each ring buffer: key __u32, value __u64.
 * The service turns the programmes on in two stages through key 0; the
 * programmes report a lost record by setting QUOR_STATUS_OVERFLOW and
 * refreshing keys 1 to 4 from the ring buffer's own figures. The main set
 * also refreshes keys 1 to 4 at most once a second from its context-switch
 * programme and notes when in key 5 (kernel clock, ns). Keys 6 and 7 pace the
 * reader's wake-ups. The service reads keys 0 to 4 and announces in key 8 how
 * it waits for records (enum quor_reader_state).
 */
enum quor_status_key {
    QUOR_STATUS_KEY_FLAGS = 0,
    QUOR_STATUS_KEY_AVAIL_DATA = 1,
    QUOR_STATUS_KEY_RING_SIZE = 2,
    QUOR_STATUS_KEY_CONS_POS = 3,
    QUOR_STATUS_KEY_PROD_POS = 4,
    QUOR_STATUS_KEY_COUNT = 5,           /* keys shared with the service */
    QUOR_STATUS_KEY_REFRESHED_NS = 5,    /* kernel side only: keys 1-4 refreshed at */
    QUOR_STATUS_KEY_WOKEN_NS = 6,        /* kernel side only: reader last woken at */
    QUOR_STATUS_KEY_FLUSHED_JIFFIES = 7, /* kernel side only: unwoken data last checked at */
    QUOR_STATUS_KEY_READER = 8,          /* the reader's state, enum quor_reader_state */
    QUOR_STATUS_MAP_ENTRIES = 9,
};

/*
 * How the reader of a paced ring buffer (the main set's) waits, in key 8.
 * A reader that says nothing (0) is woken by the pacing rule: at once after a
 * quiet gap, at most every 10 ms in a storm. A reader that polls on its own
 * schedule (1) is never woken. A reader about to sleep (2) is woken by the
 * first record committed after it said so, which moves the state to 3, so
 * that one sleep costs one wake-up; the reader sets 1 or 2 again itself.
 */
enum quor_reader_state {
    QUOR_READER_UNANNOUNCED = 0,
    QUOR_READER_POLLING = 1,
    QUOR_READER_SLEEPING = 2,
    QUOR_READER_WOKEN = 3,
};
enum quor_status_bits {
    QUOR_STATUS_OVERFLOW = 1,  /* set by the programmes, cleared by the service */
    QUOR_STATUS_CORE_ON = 2,   /* programmes active; fork and exit records flow */
    QUOR_STATUS_NORMAL_ON = 4, /* with CORE_ON: every other record flows too */
};

/*
 * map_QuorBpfDefineset_open_fd_pid_bits and map_QuorBpfGplDefineset_
 * dmabuf_pid_bits: arrays of __u64 words, bit (pid % 64) of word (pid / 64)
 * set while open_fd_caller_map, respectively dmabuf_size_map, may hold an
 * entry for a pid below QUOR_PID_BITS. Whoever writes an entry sets its bit;
 * the exit programmes look the map up only for a set bit (or a pid beyond
 * the bitmap) and clear it.
 */
#define QUOR_PID_BITS 65536

/*
 * Value of map_QuorBpfDefineset_open_fd_caller_map, keyed by pid (__s32).
 * The service seeds open_fds from /proc/<pid>/fd; the kernel adds one per
 * installed descriptor (closes are not seen, so it only grows), keeps the
 * highest descriptor number installed in max_fd, and copies open_fds into
 * open_fds_again whenever it writes a fd_update record.
 */
struct quor_open_fd_value {
    __s32 pid;
    __u32 reserved;
    __u64 open_fds;
    __u64 open_fds_again; /* seeded equal to open_fds; open_fds at the last record */
    __u64 max_fd;         /* seeded 0 */
    char comm[QUOR_COMM_LEN];
};

/* Value of dmabuf_allocate_map, keyed by inode (__u64). */
struct dmabuf_info {
    __s32 pid;
    __u32 reserved;
    __u64 size;
};

/* Value of dmabuf_size_map and dmabuf_perprocess_size_map, keyed by pid. */
struct dmabuf_stat {
    __u64 total_size;
    __u64 reserved;
};

/* Key of process_inode_map (value __u64 descriptor count). */
struct quor_process_inode_key {
    __s32 pid;
    __u32 reserved;
    __u64 inode;
};

/* Key of process_mmap_infos (value __u64 inode). */
struct quor_process_mmap_key {
    __s32 pid;
    __u32 reserved;
    __u64 start;
};

#define QUOR_ASSERT_LAYOUT(type, size) QUOR_STATIC_ASSERT(sizeof(type) == (size), #type " size")
#define QUOR_ASSERT_OFFSET(type, field, off) \
    QUOR_STATIC_ASSERT(__builtin_offsetof(type, field) == (off), #type "." #field " offset")

QUOR_ASSERT_LAYOUT(struct quor_record_header, 16);
QUOR_ASSERT_OFFSET(struct quor_record_header, timestamp_ns, 8);
QUOR_ASSERT_LAYOUT(struct quor_task_init_record, 88);
QUOR_ASSERT_OFFSET(struct quor_task_init_record, pid, 16);
QUOR_ASSERT_OFFSET(struct quor_task_init_record, thread_count, 28);
QUOR_ASSERT_OFFSET(struct quor_task_init_record, comm, 32);
QUOR_ASSERT_OFFSET(struct quor_task_init_record, rss_file, 48);
QUOR_ASSERT_OFFSET(struct quor_task_init_record, swap, 72);
QUOR_ASSERT_OFFSET(struct quor_task_init_record, start_time_s, 80);
QUOR_ASSERT_LAYOUT(struct quor_rss_record, 32);
QUOR_ASSERT_OFFSET(struct quor_rss_record, member, 20);
QUOR_ASSERT_OFFSET(struct quor_rss_record, size, 24);
QUOR_ASSERT_LAYOUT(struct quor_fork_record, 48);
QUOR_ASSERT_OFFSET(struct quor_fork_record, pid, 20);
QUOR_ASSERT_OFFSET(struct quor_fork_record, comm, 28);
QUOR_ASSERT_OFFSET(struct quor_fork_record, kind, 44);
QUOR_ASSERT_LAYOUT(struct quor_exit_record, 40);
QUOR_ASSERT_OFFSET(struct quor_exit_record, comm, 20);
QUOR_ASSERT_OFFSET(struct quor_exit_record, kind, 36);
QUOR_ASSERT_LAYOUT(struct quor_dmabuf_size_record, 32);
QUOR_ASSERT_LAYOUT(struct quor_cgroup_attach_record, 104);
QUOR_ASSERT_OFFSET(struct quor_cgroup_attach_record, cgroup, 40);
QUOR_ASSERT_LAYOUT(struct quor_fd_update_record, 48);
QUOR_ASSERT_OFFSET(struct quor_fd_update_record, comm, 32);
QUOR_ASSERT_LAYOUT(struct quor_dmabuf_update_record, 40);
QUOR_ASSERT_LAYOUT(struct quor_task_new_event, 32);
QUOR_ASSERT_LAYOUT(struct quor_task_exit_event, 24);
QUOR_ASSERT_LAYOUT(struct quor_thread_change_event, 24);
QUOR_ASSERT_LAYOUT(struct quor_rss_change_event, 96);
QUOR_ASSERT_OFFSET(struct quor_rss_change_event, rss_file, 32);
QUOR_ASSERT_OFFSET(struct quor_rss_change_event, old_rss_file, 64);
QUOR_ASSERT_LAYOUT(struct quor_open_fd_value, 48);
QUOR_ASSERT_OFFSET(struct quor_open_fd_value, comm, 32);
QUOR_ASSERT_LAYOUT(struct dmabuf_info, 16);
QUOR_ASSERT_LAYOUT(struct dmabuf_stat, 16);
QUOR_ASSERT_LAYOUT(struct quor_process_inode_key, 16);
QUOR_ASSERT_LAYOUT(struct quor_process_mmap_key, 16);

#ifdef __cplusplus
#include <cstddef>
#include <cstdint>

namespace Quor {
namespace Bpf {

struct QuorEventTypeInfo {
    uint32_t type;
    const char* name;
    size_t size;         // a whole record of the type
    const char* record;  // the struct's name
};

// Every record type a client can receive, kernel types first.
#define QUOR_EVENT_INFO(enumerator, id, name, record) \
    {(id), (name), sizeof(struct record), #record},
inline constexpr QuorEventTypeInfo kQuorEventTypes[] = {QUOR_EVENT_LIST(QUOR_EVENT_INFO)};
#undef QUOR_EVENT_INFO

inline constexpr size_t kQuorKernelEventCount = QUOR_EVENT_KERNEL_COUNT;
// Statistics slots: one per kernel type, then the poll counter.
inline constexpr size_t kQuorStatSlots = kQuorKernelEventCount + 1;

// The statistics index kernel types: they must be 0, 1, 2, ... in list order.
constexpr bool QuorKernelTypesAreDense() {
    for (size_t i = 0; i < kQuorKernelEventCount; ++i) {
        if (kQuorEventTypes[i].type != i) return false;
    }
    return true;
}
QUOR_STATIC_ASSERT(QuorKernelTypesAreDense(), "kernel event types must be 0, 1, 2, ... in order");

constexpr bool IsKernelEventType(uint32_t type) {
    return type < kQuorKernelEventCount;
}

// The types a client may subscribe to: every type in the list.
constexpr bool IsSubscribableEventType(uint32_t type) {
    for (const QuorEventTypeInfo& info : kQuorEventTypes) {
        if (info.type == type) return true;
    }
    return false;
}

// The entry of `type`, or nullptr.
constexpr const QuorEventTypeInfo* QuorFindEventType(uint32_t type) {
    for (const QuorEventTypeInfo& info : kQuorEventTypes) {
        if (info.type == type) return &info;
    }
    return nullptr;
}

}  // namespace Bpf
}  // namespace Quor
#endif /* __cplusplus */

#endif /* QUOR_BPF_RECORDS_H */
