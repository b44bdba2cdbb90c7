/*
 * Helpers shared by the two programme sets: the status-word gate, ring-buffer
 * writes that report their own failure, and the task questions that several
 * programmes ask (is this exit the end of the process, whose comm to report).
 *
 * Each object that includes this file must define, before including it:
 *   ringbuf_map     BPF_MAP_TYPE_RINGBUF
 *   ringbuf_status  BPF_MAP_TYPE_ARRAY, __u32 -> __u64, QUOR_STATUS_MAP_ENTRIES
 * so that the helpers below bind to that object's own maps.
 *
 * The status protocol, kernel side:
 *   bit 2 (CORE_ON) clear      the programmes do nothing at all;
 *   bit 2 set                  map bookkeeping runs, fork and exit records flow;
 *   bits 2 and 4 set           every other record flows too;
 *   a failed reservation       sets bit 1 (the service clears it) and copies
 *                              the ring buffer's own figures into keys 1 to 4.
 *
 * No atomic other than add is used anywhere: older kernels (5.10) reject the
 * atomic OR and compare-and-exchange, and the build checks every object for
 * them (scripts/check-bpf-object.sh).
 */
#ifndef QUOR_BPF_COMMON_BPF_H
#define QUOR_BPF_COMMON_BPF_H

#include "vmlinux.h"

#include <bpf/bpf_core_read.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "quor/quor_bpf_records.h"

/* Whether records of the given class may be written now. */
static __always_inline int quor_gate(int core)
{
    __u32 key = QUOR_STATUS_KEY_FLAGS;
    __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!flags) return 0;
    __u64 f = *flags;
    if (!(f & QUOR_STATUS_CORE_ON)) return 0;
    return core || (f & QUOR_STATUS_NORMAL_ON);
}

/* Whether the programmes are active (bit 2): bookkeeping may run. */
static __always_inline int quor_active(void)
{
    return quor_gate(1);
}

static __always_inline void quor_status_set(__u32 key, __u64 value)
{
    __u64 *slot = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (slot) *slot = value;
}

/* Copies the ring buffer's own figures into keys 1 to 4. */
static __always_inline void quor_status_refresh(void)
{
    quor_status_set(QUOR_STATUS_KEY_AVAIL_DATA, bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA));
    quor_status_set(QUOR_STATUS_KEY_RING_SIZE, bpf_ringbuf_query(&ringbuf_map, BPF_RB_RING_SIZE));
    quor_status_set(QUOR_STATUS_KEY_CONS_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_CONS_POS));
    quor_status_set(QUOR_STATUS_KEY_PROD_POS, bpf_ringbuf_query(&ringbuf_map, BPF_RB_PROD_POS));
}

/*
 * A record could not be reserved: the service learns it from bit 1. A plain
 * read-modify-write: a service write racing it can lose the bit only when the
 * service is clearing it (it reads the figures next anyway) or flipping a gate
 * bit at that moment, and the next failed reservation sets it again.
 */
static __always_inline void quor_report_overflow(void)
{
    __u32 key = QUOR_STATUS_KEY_FLAGS;
    __u64 *flags = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (flags) *flags = *flags | (__u64)QUOR_STATUS_OVERFLOW;
    quor_status_refresh();
}

/*
 * Waking the reader costs the writer an interrupt (an expensive exit on a
 * virtual machine) and the reader a context switch, so a set that defines
 * QUOR_PACED_WAKEUPS wakes it sparingly, by what the reader announces in the
 * status map (enum quor_reader_state):
 *
 *   polling      the reader consumes on its own short schedule: no wake-up;
 *   sleeping     the first record committed afterwards wakes it, once (the
 *                state moves to woken);
 *   unannounced  the pacing rule below, for readers that say nothing.
 *
 * The check for a sleeping reader comes after the commit: the commit is a
 * full barrier, and the reader announces its sleep before its last look at
 * the ring buffer, so either that look finds the record or the record finds
 * the announcement. The wake-up is carried by a discarded 8-byte record.
 *
 * Pacing rule: at most every QUOR_WAKEUP_GAP_NS; the first record after a
 * quiet gap wakes the reader at once, a storm wakes it once per gap. That
 * wake-up must be forced: once a record went unannounced the reader is
 * behind, and the kernel's own (adaptive) rule only wakes a reader that has
 * caught up, so it would never wake again. For the same reason a filling ring
 * buffer wakes such a reader long before it is full. What a storm leaves
 * unannounced when it ends is announced by quor_flush_wakeup(), which the
 * main set runs from its context-switch programme (also a safety net for a
 * reader that stopped without saying so); a set without such a programme
 * must not pace and keeps the adaptive rule, which never strands a record.
 */
#define QUOR_WAKEUP_GAP_NS 10000000ULL
#define QUOR_WAKEUP_FILL_BYTES (64 << 10)

static __always_inline __u64 quor_submit_flags(__u64 now)
{
#ifdef QUOR_PACED_WAKEUPS
    __u32 key = QUOR_STATUS_KEY_READER;
    __u64 *reader = bpf_map_lookup_elem(&ringbuf_status, &key);
    /* A reader that announced itself needs no wake-up from the submit: one
     * that polls fetches records on its own schedule, one that sleeps is
     * nudged after the commit (quor_after_submit), one just woken is about
     * to drain. Not reading the fill level spares the writer a miss on the
     * consumer's cache line, which the reader writes on every drain. */
    if (reader && *reader != QUOR_READER_UNANNOUNCED) return BPF_RB_NO_WAKEUP;
    if (bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) >= QUOR_WAKEUP_FILL_BYTES)
        return BPF_RB_FORCE_WAKEUP;
    key = QUOR_STATUS_KEY_WOKEN_NS;
    __u64 *woken = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!woken) return 0;
    if (now - *woken >= QUOR_WAKEUP_GAP_NS) {
        *woken = now;
        return BPF_RB_FORCE_WAKEUP;
    }
    return BPF_RB_NO_WAKEUP;
#else
    return 0;
#endif
}

#ifdef QUOR_PACED_WAKEUPS
/* Forces a wake-up of the reader through a discarded record. */
static __always_inline void quor_nudge_reader(void)
{
    void *nudge = bpf_ringbuf_reserve(&ringbuf_map, 8, 0);
    if (nudge) bpf_ringbuf_discard(nudge, BPF_RB_FORCE_WAKEUP);
}

/*
 * After a commit: wakes a reader that announced its sleep. A plain store: two
 * CPUs that both saw it sleeping both nudge it (a spare wake-up costs the
 * reader one empty look), and a reader that woke meanwhile and said it polls
 * may read "woken" instead, which also means "no wake-up needed"; it announces
 * its next sleep afresh.
 */
static __always_inline void quor_after_submit(void)
{
    __u32 key = QUOR_STATUS_KEY_READER;
    __u64 *reader = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!reader || *reader != QUOR_READER_SLEEPING) return;
    *reader = QUOR_READER_WOKEN;
    quor_nudge_reader();
}

/* Wakes the reader when data sits unannounced; a discarded record carries the wake-up. */
static __always_inline void quor_flush_wakeup(__u64 now)
{
    if (bpf_ringbuf_query(&ringbuf_map, BPF_RB_AVAIL_DATA) == 0) return;
    __u32 key = QUOR_STATUS_KEY_WOKEN_NS;
    __u64 *woken = bpf_map_lookup_elem(&ringbuf_status, &key);
    if (!woken || now - *woken < QUOR_WAKEUP_GAP_NS) return;
    void *nudge = bpf_ringbuf_reserve(&ringbuf_map, 8, 0);
    if (!nudge) return;
    *woken = now;
    bpf_ringbuf_discard(nudge, BPF_RB_FORCE_WAKEUP);
}
#else
static __always_inline void quor_after_submit(void) {}
#endif

#define QUOR_SUBMIT(rec)                                                                \
    do {                                                                                \
        bpf_ringbuf_submit((rec), quor_submit_flags((rec)->header.timestamp_ns));       \
        quor_after_submit();                                                            \
    } while (0)

/* bpf_ringbuf_output() by the same wake-up rule, for records built elsewhere. */
static __always_inline long quor_ringbuf_output(void *data, __u64 size, __u64 now)
{
    long err = bpf_ringbuf_output(&ringbuf_map, data, size, quor_submit_flags(now));
    if (err == 0) quor_after_submit();
    return err;
}

/*
 * Reserves a record of `size` bytes and fills its header; null (after
 * reporting the overflow) when the ring buffer is full.
 */
static __always_inline void *quor_reserve(__u64 size, __u32 type)
{
    struct quor_record_header *hdr = bpf_ringbuf_reserve(&ringbuf_map, size, 0);
    if (!hdr) {
        quor_report_overflow();
        return 0;
    }
    hdr->type = type;
    hdr->reserved = 0;
    hdr->timestamp_ns = bpf_ktime_get_ns();
    return hdr;
}

#define QUOR_RESERVE(type_struct, type_id) \
    ((struct type_struct *)quor_reserve(sizeof(struct type_struct), (type_id)))

static __always_inline __s32 quor_current_tgid(void)
{
    return (__s32)(bpf_get_current_pid_tgid() >> 32);
}

/*
 * Pid bitmaps (see QUOR_PID_BITS): which pids may have an entry in a hash
 * map. Most processes of a fork storm never get one, and looking up their
 * pid at exit is a cache miss in a table of thousands of buckets, where a
 * word of a small array stays cached. Bits are set and cleared by plain
 * read-modify-write (older kernels have no atomic OR): a bit lost to another
 * CPU's write of the same word leaves the entry to the service's cleanup of
 * ended processes, and a bit left set costs one lookup.
 */
#define QUOR_PID_BITMAP(name)                        \
    struct {                                         \
        __uint(type, BPF_MAP_TYPE_ARRAY);            \
        __type(key, __u32);                          \
        __type(value, __u64);                        \
        __uint(max_entries, QUOR_PID_BITS / 64);     \
    } name SEC(".maps")

/* The word of `bits` that holds `tgid`'s bit, or null beyond the bitmap. */
static __always_inline __u64 *quor_pid_word(void *bits, __s32 tgid, __u64 *bit)
{
    if (tgid < 0 || tgid >= QUOR_PID_BITS) return 0;
    __u32 word = (__u32)tgid / 64;
    *bit = 1ULL << (tgid & 63);
    return bpf_map_lookup_elem(bits, &word);
}

static __always_inline void quor_pid_mark(void *bits, __s32 tgid)
{
    __u64 bit = 0;
    __u64 *word = quor_pid_word(bits, tgid, &bit);
    if (word && !(*word & bit)) *word |= bit;
}

/*
 * Whether `tgid` may have an entry: its bit is set, or it lies beyond the
 * bitmap. The bit is cleared, since the caller removes the entry now.
 */
static __always_inline int quor_pid_take(void *bits, __s32 tgid)
{
    __u64 bit = 0;
    __u64 *word = quor_pid_word(bits, tgid, &bit);
    if (!word) return 1;
    if (!(*word & bit)) return 0;
    *word &= ~bit;
    return 1;
}

/* The layout of the exit tracepoint since the kernel records group_dead. */
struct trace_event_raw_sched_process_exit___group {
    bool group_dead;
} __attribute__((preserve_access_index));

/*
 * Whether the task now exiting is the last of its process. Kernels that
 * record group_dead in the tracepoint say so exactly; older ones are asked
 * through the process's live-thread count, which do_exit() has already
 * decremented (two threads dying together may then both see zero: the
 * service treats a second process exit of a pid as a no-op).
 */
static __always_inline int quor_exit_is_group_dead(void *ctx)
{
    if (bpf_core_field_exists(((struct trace_event_raw_sched_process_exit___group *)0)->group_dead)) {
        struct trace_event_raw_sched_process_exit___group *exit_ctx = ctx;
        return exit_ctx->group_dead;
    }
    struct task_struct *task = (struct task_struct *)bpf_get_current_task();
    return BPF_CORE_READ(task, signal, live.counter) == 0;
}

#endif /* QUOR_BPF_COMMON_BPF_H */
