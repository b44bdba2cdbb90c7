/*
 * Programme set QuorBpfDefineset: the process life cycle and memory figures.
 *
 *   sched_sched_process_fork   fork records (type 2), process or thread
 *   sched_sched_process_exit   exit records (type 3), and forgets the
 *                              descriptor count of a process that ended
 *   kmem_rss_stat              rss records (type 1), filtered in the kernel
 *   sched_sched_switch         for a reader that does not announce how it
 *                              waits: flushes wake-ups and refreshes the
 *                              status map's ring-buffer figures
 *   enter_fd_install           descriptor accounting, fd_update records (type 6)
 *
 * Licence: the fork and exit programmes read the task structure
 * (bpf_probe_read_kernel, bpf_get_current_task), which the kernel grants only
 * to GPL-compatible programmes, hence the dual licence.
 */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "quor/quor_bpf_records.h"

char LICENSE[] SEC("license") = "Dual BSD/GPL";

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 1 << 20);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __type(key, __u32);
    __type(value, __u64);
    __uint(max_entries, QUOR_STATUS_MAP_ENTRIES);
} ringbuf_status SEC(".maps");

/* Descriptor accounting per process, seeded by the service from procfs. */
struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, __s32);
    __type(value, struct quor_open_fd_value);
    __uint(max_entries, 32768);
} open_fd_caller_map SEC(".maps");


/*
 * The rss filter's state per address space, in a direct-mapped table indexed
 * by the low bits of the tracepoint's mm_id (a hashed pointer, stable for the
 * life of the mm, evenly spread): the owning process, learnt whenever it
 * changes its own counters, and the sizes last reported. The tracepoint fires
 * on every page an address space gains or loses, so the common case must be
 * one array access (which the verifier turns into an address computation),
 * not a hash lookup. Two live address spaces that share a slot take it over
 * in turn, which costs extra records, never wrong ones: the slot's owner word
 * holds the mm_id and the tgid in one 8-byte store, so no reader ever pairs
 * one address space's id with another's process.
 */
struct quor_rss_state {
    __u64 owner; /* mm_id << 32 | tgid; 0 for an empty slot */
    __s64 size[4]; /* bytes, as last reported */
};
#define QUOR_RSS_SLOTS 32768
struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __type(key, __u32);
    __type(value, struct quor_rss_state);
    __uint(max_entries, QUOR_RSS_SLOTS);
} rss_state_map SEC(".maps");

/* Per CPU, the jiffies at which the switch programme last looked at the ring
 * buffer: it looks at most once a tick per CPU, so a storm's switches do not
 * all read the ring buffer's positions, cache lines its writers keep busy. */
struct {
    __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
    __type(key, __u32);
    __type(value, __u64);
    __uint(max_entries, 1);
} switch_check_map SEC(".maps");

/* The context-switch programme flushes what paced submits left unannounced. */
#define QUOR_PACED_WAKEUPS
#include "quor_bpf_common.bpf.h"

/* Which pids may have an entry in open_fd_caller_map. */
QUOR_PID_BITMAP(open_fd_pid_bits);

/* An rss record is written when a counter moved this far from its last report. */
#define QUOR_RSS_MIN_DELTA (16 * 1024)
/* A fd_update record is written each time a process's highest descriptor
 * number enters a new block of this many. */
#define QUOR_FD_REPORT_BLOCK 64
/* The context-switch programme refreshes the status figures this often at most. */
#define QUOR_STATUS_REFRESH_NS 1000000000ULL
/* Jiffies between the switch programme's looks at waiting records: 2 ticks
 * are 2 to 20 ms for HZ from 1000 to 100, around the wake-up gap. */
#define QUOR_FLUSH_GAP_JIFFIES 2
/* How far back the fork programme looks in the parent's task lists. */
#define QUOR_FORK_LIST_DEPTH 4

/*
 * Whether `child` is among the last QUOR_FORK_LIST_DEPTH entries of the list
 * `head`, whose entries are task_structs linked at `member_offset`. New tasks
 * are added at the tail, so the child is normally the last entry; others
 * forked concurrently by the same parent may have landed after it. Entries
 * before `stop` (a node of the list, or null) are older than it, so the walk
 * ends there; comparing the node itself costs no read of the task.
 */
static __always_inline int quor_list_tail_has(struct list_head *head, __u64 member_offset,
                                              pid_t child, struct list_head *stop)
{
    struct list_head *node = BPF_CORE_READ(head, prev);
    for (int i = 0; i < QUOR_FORK_LIST_DEPTH; i++) {
        if (!node || node == head || node == stop) return 0;
        struct task_struct *task = (void *)node - member_offset;
        if (BPF_CORE_READ(task, pid) == child) return 1;
        node = BPF_CORE_READ(node, prev);
    }
    return 0;
}

/*
 * Runs in the parent's context after copy_process() linked the child: a new
 * thread sits at the tail of the parent's thread-group list, a new process
 * at the tail of the parent's children. A thread is looked for first (it is
 * the cheaper list and the commoner case). Residual race: when more than
 * QUOR_FORK_LIST_DEPTH tasks were linked into the same list after the child
 * before this programme ran, the child is found in neither list; it is then
 * reported as a process with parent pid 0, and the service asks procfs.
 */
SEC("tracepoint/sched/sched_process_fork")
int sched_sched_process_fork(struct trace_event_raw_sched_process_fork *ctx)
{
    if (!quor_gate(1)) return 0;

    pid_t child = ctx->child_pid;
    struct task_struct *parent = (struct task_struct *)bpf_get_current_task();
    __s32 parent_tgid = quor_current_tgid();
    __u32 kind;
    __s32 pid;
    __s32 ppid;

    struct signal_struct *signal = BPF_CORE_READ(parent, signal);
    /* The forking thread is older than a thread it creates: the walk stops at
     * its own node, so a single-threaded parent's fork costs no task read. */
    __u64 thread_node = bpf_core_field_offset(struct task_struct, thread_node);
    if (signal && quor_list_tail_has(&signal->thread_head, thread_node, child,
                                     (struct list_head *)((void *)parent + thread_node))) {
        kind = QUOR_TASK_KIND_THREAD;
        pid = parent_tgid;
        ppid = 0; /* not looked up for threads: the process's parent is already known */
    } else {
        kind = QUOR_TASK_KIND_PROCESS;
        pid = child;
        ppid = quor_list_tail_has(&parent->children,
                                  bpf_core_field_offset(struct task_struct, sibling), child, 0)
                   ? parent_tgid
                   : 0;
    }

    struct quor_fork_record *rec = QUOR_RESERVE(quor_fork_record, QUOR_EVENT_TASK_CREATE);
    if (!rec) return 0;
    rec->ppid = ppid;
    rec->pid = pid;
    rec->tid = child;
    /* copy_process() gave the child the parent's comm. */
    bpf_get_current_comm(rec->comm, sizeof(rec->comm));
    rec->kind = kind;
    QUOR_SUBMIT(rec);
    return 0;
}

/*
 * Every task's exit. The pid is always the process id; a process exit (kind
 * 1) is written once, by the last task of the group, with the group
 * leader's comm, which names the process even when a worker thread dies last.
 */
SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx)
{
    if (!quor_gate(1)) return 0;

    __u64 pid_tgid = bpf_get_current_pid_tgid();
    __s32 tgid = (__s32)(pid_tgid >> 32);
    int group_dead = quor_exit_is_group_dead(ctx);

    /* A lookup before the delete: it takes no lock, and the entry may be gone. */
    if (group_dead && quor_pid_take(&open_fd_pid_bits, tgid) &&
        bpf_map_lookup_elem(&open_fd_caller_map, &tgid))
        (void)bpf_map_delete_elem(&open_fd_caller_map, &tgid);

    struct quor_exit_record *rec = QUOR_RESERVE(quor_exit_record, QUOR_EVENT_TASK_EXIT);
    if (!rec) return 0;
    rec->pid = tgid;
    bpf_get_current_comm(rec->comm, sizeof(rec->comm));
    rec->kind = group_dead ? QUOR_TASK_KIND_PROCESS : QUOR_TASK_KIND_THREAD;
    if (group_dead && (__s32)(__u32)pid_tgid != tgid) {
        /* A worker thread died last: name the process by its leader. */
        struct task_struct *task = (struct task_struct *)bpf_get_current_task();
        struct task_struct *leader = BPF_CORE_READ(task, group_leader);
        if (leader) (void)BPF_CORE_READ_STR_INTO(&rec->comm, leader, comm);
    }
    QUOR_SUBMIT(rec);
    return 0;
}

/*
 * The tracepoint fires on every change of an mm counter, a page at a time
 * under a page-fault storm, so the kernel filters: a record is written only
 * when a counter has moved QUOR_RSS_MIN_DELTA bytes from the value last
 * reported for it (each record carries the absolute size, so nothing is lost
 * but precision below the step). The common case costs one array access.
 * Changes made from another context (curr 0: reclaim, fork's page copies)
 * go to the address space's known owner; those the owner makes itself after
 * leaving the address space are its teardown (exit, exec) and are dropped.
 */
SEC("tracepoint/kmem/rss_stat")
int kmem_rss_stat(struct trace_event_raw_rss_stat *ctx)
{
    if (!quor_gate(0)) return 0;

    int member = ctx->member;
    if (member < 0 || member > QUOR_RSS_SHMEM) return 0;
    __s64 size = ctx->size;
    __u32 mm_id = ctx->mm_id;

    __u32 slot = mm_id & (QUOR_RSS_SLOTS - 1);
    struct quor_rss_state *state = bpf_map_lookup_elem(&rss_state_map, &slot);
    if (!state) return 0;
    __u64 owner = state->owner;
    __s32 tgid;
    if (ctx->curr) {
        tgid = quor_current_tgid();
        __u64 mine = (__u64)mm_id << 32 | (__u32)tgid;
        if (owner != mine) {
            /* A new address space, or one that shares the slot with another. */
            state->owner = mine;
            state->size[0] = state->size[1] = state->size[2] = state->size[3] = 0;
        }
    } else {
        /* Another context (reclaim, fork's page copies) changes the known
         * owner's memory. The owner changing an address space it no longer
         * runs on is tearing it down (exit, exec): not worth a record per page. */
        if ((__u32)(owner >> 32) != mm_id || owner == 0) return 0;
        tgid = (__s32)(__u32)owner;
        if (tgid == quor_current_tgid()) return 0;
    }

    __s64 delta = size - state->size[member & 3];
    if (delta < 0) delta = -delta;
    if (delta < QUOR_RSS_MIN_DELTA) return 0;

    struct quor_rss_record *rec = QUOR_RESERVE(quor_rss_record, QUOR_EVENT_RSS_STAT);
    if (!rec) return 0;
    rec->pid = tgid;
    rec->member = member;
    rec->size = size;
    QUOR_SUBMIT(rec);
    state->size[member & 3] = size;
    return 0;
}

/*
 * Runs on every context switch, so its common case is two loads from the
 * status map: a reader that announced how it waits (the service's) needs
 * nothing from it. For a reader that says nothing (or one just woken),
 * once a tick per CPU at most it reads the ring buffer's fill level; with
 * records waiting, every QUOR_FLUSH_GAP_JIFFIES (and QUOR_WAKEUP_GAP_NS since
 * the last wake-up) at most it wakes the reader for records that a storm left
 * unannounced (see quor_submit_flags): a storm's tail thus waits for the gap
 * and the next switch on any CPU, never for a count of switches that an idle
 * system takes seconds to reach. At most once a second it also copies the
 * ring buffer's figures into the status map (keys 1 to 4), so that a person
 * reading the pinned map sees how full the ring buffer runs; with the service
 * reading, those keys are written when a reservation fails, which is when
 * the service reads them.
 */
SEC("tracepoint/sched/sched_switch")
int sched_sched_switch(void *ctx)
{
    __u32 key = QUOR_STATUS_KEY_FLAGS;
    __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!flags || !(*flags & QUOR_STATUS_CORE_ON)) return 0;
    key = QUOR_STATUS_KEY_READER;
    __u64 *reader = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!reader) return 0;
    /* One that polls fetches records on its own; one that sleeps is nudged by
     * the first record committed afterwards. A reader woken but not yet
     * polling keeps the net below, in case its nudge found no room. */
    if (*reader == QUOR_READER_POLLING || *reader == QUOR_READER_SLEEPING) return 0;

    /* Jiffies cost a load; the ring buffer's positions and the monotonic
     * clock cost far more under a storm or on a virtual machine. */
    key = 0;
    __u64 *checked = bpf_map_lookup_elem(&switch_check_map, &key);
    if (!checked) return 0;
    __u64 ticks = bpf_jiffies64();
    if (ticks == *checked) return 0;
    *checked = ticks;
    if (bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) == 0) return 0;

    key = QUOR_STATUS_KEY_FLUSHED_JIFFIES;
    __u64 *flushed = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!flushed) return 0;
    if (ticks - *flushed < QUOR_FLUSH_GAP_JIFFIES) return 0;
    *flushed = ticks;
    __u64 now = bpf_ktime_get_ns();
    quor_flush_wakeup(now);

    key = QUOR_STATUS_KEY_REFRESHED_NS;
    __u64 *refreshed = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!refreshed || now - *refreshed < QUOR_STATUS_REFRESH_NS) return 0;
    *refreshed = now;
    quor_status_refresh();
    return 0;
}

/*
 * fd_install(fd, file): a process got a new descriptor. The per-process
 * value counts installs on top of the seeded count and keeps the highest
 * descriptor number; a record is written when that number enters a new
 * block of QUOR_FD_REPORT_BLOCK, which follows a growing descriptor table
 * (a leak) at one record per 64 descriptors and stays silent for a process
 * that opens and closes at a steady level.
 */
SEC("kprobe/fd_install")
int BPF_KPROBE(enter_fd_install, unsigned int fd)
{
    if (!quor_active()) return 0;

    __s32 tgid = quor_current_tgid();
    struct quor_open_fd_value *value = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
    if (!value) {
        struct quor_open_fd_value fresh = {};
        fresh.pid = tgid;
        bpf_get_current_comm(fresh.comm, sizeof(fresh.comm));
        (void)bpf_map_update_elem(&open_fd_caller_map, &tgid, &fresh, BPF_NOEXIST);
        value = bpf_map_lookup_elem(&open_fd_caller_map, &tgid);
        if (!value) return 0;
        quor_pid_mark(&open_fd_pid_bits, tgid);
    }
    __sync_fetch_and_add(&value->open_fds, 1);
    __u64 old_max = value->max_fd;
    if (fd <= old_max) return 0;
    value->max_fd = fd;
    if (fd / QUOR_FD_REPORT_BLOCK == old_max / QUOR_FD_REPORT_BLOCK) return 0;
    if (!quor_gate(0)) return 0;

    struct quor_fd_update_record *rec = QUOR_RESERVE(quor_fd_update_record, QUOR_EVENT_FD_UPDATE);
    if (!rec) return 0;
    rec->pid = tgid;
    rec->fd = (__s32)fd;
    rec->open_fds = value->open_fds;
    bpf_get_current_comm(rec->comm, sizeof(rec->comm));
    QUOR_SUBMIT(rec);
    value->open_fds_again = value->open_fds;
    return 0;
}
