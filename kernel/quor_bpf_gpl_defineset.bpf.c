/*
 * Programme set QuorBpfGplDefineset: dmabuf accounting and cgroup moves.
 *
 *   sched_sched_process_exit    forgets the dmabuf totals of a process that
 *                               ended (dmabuf_size record to 0, type 4); it
 *                               writes no exit record: the main set does
 *   cgroup_cgroup_attach_task   cgroup_attach records (type 5)
 *   dma_buf_stats_setup         a buffer was exported: accounting, dmabuf
 *                               update (type 7) and size (type 4) records
 *   dma_buf_file_release        a buffer's last file reference went away
 *
 * Maps, with the layouts the service seeds from procfs:
 *   dmabuf_allocate_map         inode -> struct dmabuf_info (holder, size)
 *   dmabuf_size_map             pid -> struct dmabuf_stat (total bytes)
 *   dmabuf_perprocess_size_map  pid -> struct dmabuf_stat, kept equal to the
 *                               above by the kernel; the service may refine it
 *   process_inode_map           (pid, inode) -> descriptors on that buffer
 *   process_mmap_infos          (pid, start) -> inode; seeded and cleaned by
 *                               the service, no hook here maps buffers
 *   dmabuf_pid_bits             which pids may have a dmabuf_size_map entry
 * The second field of dmabuf_stat is unused by the kernel (left 0).
 */
#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "quor/quor_bpf_records.h"

char LICENSE[] SEC("license") = "GPL";

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 256 << 10);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __type(key, __u32);
    __type(value, __u64);
    __uint(max_entries, QUOR_STATUS_MAP_ENTRIES);
} ringbuf_status SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, __u64);
    __type(value, struct dmabuf_info);
    __uint(max_entries, 16384);
} dmabuf_allocate_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, __s32);
    __type(value, struct dmabuf_stat);
    __uint(max_entries, 8192);
} dmabuf_size_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, __s32);
    __type(value, struct dmabuf_stat);
    __uint(max_entries, 8192);
} dmabuf_perprocess_size_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, struct quor_process_inode_key);
    __type(value, __u64);
    __uint(max_entries, 32768);
} process_inode_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_HASH);
    __type(key, struct quor_process_mmap_key);
    __type(value, __u64);
    __uint(max_entries, 32768);
} process_mmap_infos SEC(".maps");

#include "quor_bpf_common.bpf.h"

/* Which pids may have an entry in dmabuf_size_map. */
QUOR_PID_BITMAP(dmabuf_pid_bits);

static __always_inline void quor_emit_dmabuf_size(__s32 pid, __u64 total)
{
    if (!quor_gate(0)) return;
    struct quor_dmabuf_size_record *rec = QUOR_RESERVE(quor_dmabuf_size_record, QUOR_EVENT_DMABUF_SIZE);
    if (!rec) return;
    rec->pid = pid;
    rec->reserved = 0;
    rec->total_size = total;
    QUOR_SUBMIT(rec);
}

static __always_inline void quor_emit_dmabuf_update(__s32 pid, __u32 action, __u64 inode, __u64 size)
{
    if (!quor_gate(0)) return;
    struct quor_dmabuf_update_record *rec =
        QUOR_RESERVE(quor_dmabuf_update_record, QUOR_EVENT_DMABUF_UPDATE);
    if (!rec) return;
    rec->pid = pid;
    rec->action = action;
    rec->inode = inode;
    rec->size = size;
    QUOR_SUBMIT(rec);
}

/* Adds `size` bytes (negative: removes, never below 0) to pid's totals; the new total. */
static __always_inline __u64 quor_add_total(__s32 pid, __s64 size)
{
    __u64 total = 0;
    struct dmabuf_stat *stat = bpf_map_lookup_elem(&dmabuf_size_map, &pid);
    if (stat) total = stat->total_size;
    if (size >= 0) {
        total += size;
    } else {
        total = total > (__u64)-size ? total - (__u64)-size : 0;
    }
    struct dmabuf_stat fresh = {.total_size = total};
    if (total == 0) {
        (void)bpf_map_delete_elem(&dmabuf_size_map, &pid);
        (void)bpf_map_delete_elem(&dmabuf_perprocess_size_map, &pid);
    } else {
        (void)bpf_map_update_elem(&dmabuf_size_map, &pid, &fresh, BPF_ANY);
        (void)bpf_map_update_elem(&dmabuf_perprocess_size_map, &pid, &fresh, BPF_ANY);
        quor_pid_mark(&dmabuf_pid_bits, pid);
    }
    return total;
}

/* Only the last task of a process matters here: its dmabuf totals end with it. */
SEC("tracepoint/sched/sched_process_exit")
int sched_sched_process_exit(void *ctx)
{
    if (!quor_active()) return 0;
    if (!quor_exit_is_group_dead(ctx)) return 0;

    __s32 tgid = quor_current_tgid();
    if (!quor_pid_take(&dmabuf_pid_bits, tgid)) return 0;
    struct dmabuf_stat *stat = bpf_map_lookup_elem(&dmabuf_size_map, &tgid);
    if (!stat) return 0;
    (void)bpf_map_delete_elem(&dmabuf_size_map, &tgid);
    (void)bpf_map_delete_elem(&dmabuf_perprocess_size_map, &tgid);
    quor_emit_dmabuf_size(tgid, 0);
    return 0;
}

/*
 * The kernel reports the moved task by its id only: the group leader for a
 * whole-process move (whose id is the process id), the thread for a one-
 * thread move. When the caller moved one of its own threads, its process id
 * is known; otherwise pid equals tid.
 */
SEC("tracepoint/cgroup/cgroup_attach_task")
int cgroup_cgroup_attach_task(struct trace_event_raw_cgroup_migrate *ctx)
{
    if (!quor_gate(0)) return 0;

    __s32 tid = ctx->pid;
    __u64 pid_tgid = bpf_get_current_pid_tgid();
    __u32 path_loc = ctx->__data_loc_dst_path;
    __u32 comm_loc = ctx->__data_loc_comm;

    struct quor_cgroup_attach_record *rec =
        QUOR_RESERVE(quor_cgroup_attach_record, QUOR_EVENT_CGROUP_ATTACH);
    if (!rec) return 0;
    rec->tid = tid;
    rec->pid = ((__s32)(__u32)pid_tgid == tid) ? (__s32)(pid_tgid >> 32) : tid;
    /* __data_loc: low 16 bits the offset in the trace record, high 16 the length. */
    if (bpf_probe_read_kernel_str(rec->comm, sizeof(rec->comm), (char *)ctx + (comm_loc & 0xffff)) < 0)
        rec->comm[0] = 0;
    if (bpf_probe_read_kernel_str(rec->cgroup, sizeof(rec->cgroup), (char *)ctx + (path_loc & 0xffff)) < 0)
        rec->cgroup[0] = 0;
    QUOR_SUBMIT(rec);
    return 0;
}

/*
 * A buffer was exported by the current process, which is charged with it
 * until the buffer is released. The function took the dmabuf alone at first
 * (called once dmabuf->file was set); later kernels pass the file as a
 * second argument and call it before setting dmabuf->file. So the file comes
 * from the dmabuf, and from the second argument only where the dmabuf has
 * none yet: on a one-argument kernel that register holds anything.
 */
SEC("kprobe/dma_buf_stats_setup")
int BPF_KPROBE(dma_buf_stats_setup, struct dma_buf *dmabuf, struct file *arg_file)
{
    if (!quor_active()) return 0;

    __s32 tgid = quor_current_tgid();
    __u64 size = BPF_CORE_READ(dmabuf, size);
    struct file *file = BPF_CORE_READ(dmabuf, file);
    if (!file) file = arg_file;
    __u64 inode = BPF_CORE_READ(file, f_inode, i_ino);
    if (inode == 0) return 0;

    struct dmabuf_info info = {.pid = tgid, .size = size};
    /* A buffer the map cannot hold is never released from a total: not counted. */
    if (bpf_map_update_elem(&dmabuf_allocate_map, &inode, &info, BPF_ANY) != 0) return 0;
    struct quor_process_inode_key key = {.pid = tgid, .inode = inode};
    __u64 one = 1;
    (void)bpf_map_update_elem(&process_inode_map, &key, &one, BPF_NOEXIST);
    __u64 total = quor_add_total(tgid, (__s64)size);

    quor_emit_dmabuf_update(tgid, QUOR_DMABUF_SETUP, inode, size);
    quor_emit_dmabuf_size(tgid, total);
    return 0;
}

/*
 * dma_buf_file_release(inode, file): the buffer's file is gone, so is the
 * buffer; its holder's total drops by its size. Buffers that were never
 * accounted (exported before the programmes ran and not seeded) are ignored.
 */
SEC("kprobe/dma_buf_file_release")
int BPF_KPROBE(dma_buf_file_release, struct inode *inode)
{
    if (!quor_active()) return 0;

    __u64 ino = BPF_CORE_READ(inode, i_ino);
    struct dmabuf_info *found = bpf_map_lookup_elem(&dmabuf_allocate_map, &ino);
    if (!found) return 0;
    struct dmabuf_info info = *found;
    (void)bpf_map_delete_elem(&dmabuf_allocate_map, &ino);
    struct quor_process_inode_key key = {.pid = info.pid, .inode = ino};
    (void)bpf_map_delete_elem(&process_inode_map, &key);
    __u64 total = quor_add_total(info.pid, -(__s64)info.size);

    quor_emit_dmabuf_update(info.pid, QUOR_DMABUF_RELEASE, ino, info.size);
    quor_emit_dmabuf_size(info.pid, total);
    return 0;
}
