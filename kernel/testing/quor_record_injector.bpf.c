// Writes caller-given records into a ring buffer, so that tests and
// benchmarks can drive everything downstream of the kernel with exact bytes
// at kernel speed. A syscall programme: run it with BPF_PROG_TEST_RUN and a
// struct quor_inject_args as its context. The ring buffer is meant to be
// replaced (bpf_map__reuse_fd) by the pinned ring buffer under test, and the
// status map by that ring buffer's status map when records are to wake the
// reader as the real programmes' records do (QUOR_INJECT_PACED).
#include "vmlinux.h"

#include <bpf/bpf_helpers.h>

#include "quor/quor_bpf_records.h"
#include "quor_record_injector.h"

char LICENSE[] SEC("license") = "GPL";

struct {
    __uint(type, BPF_MAP_TYPE_RINGBUF);
    __uint(max_entries, 256 * 1024);
} ringbuf_map SEC(".maps");

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __type(key, __u32);
    __type(value, __u64);
    __uint(max_entries, QUOR_STATUS_MAP_ENTRIES);
} ringbuf_status SEC(".maps");

/* The same wake-up rule as the main programme set. */
#define QUOR_PACED_WAKEUPS
#include "quor_bpf_common.bpf.h"

struct injector_state {
    __u32 len;
    __u32 flags;
    __u32 seq_offset;
    __u32 dropped;
    __u64 seq;
    __u8 data[QUOR_INJECT_MAX_LEN];
};

struct {
    __uint(type, BPF_MAP_TYPE_ARRAY);
    __uint(max_entries, 1);
    __type(key, __u32);
    __type(value, struct injector_state);
} injector_state_map SEC(".maps");

// bpf_loop hands the callback a stack pointer only, so the state is looked
// up again per record (an array lookup is a few instructions).
static long emit_one(__u64 index, void* ctx) {
    __u32 key = 0;
    struct injector_state* s = bpf_map_lookup_elem(&injector_state_map, &key);
    if (!s) return 1;
    __u32 len = s->len;
    if (len < 16 || len > QUOR_INJECT_MAX_LEN) return 1;
    __u64 now = bpf_ktime_get_ns();
    if (s->flags & QUOR_INJECT_STAMP_TIME) __builtin_memcpy(&s->data[8], &now, sizeof(now));
    __u32 off = s->seq_offset;
    if (off <= QUOR_INJECT_MAX_LEN - sizeof(__u64)) {
        __u64 seq = s->seq;
        __builtin_memcpy(&s->data[off], &seq, sizeof(seq));
    }
    s->seq++;
    if (s->flags & QUOR_INJECT_PACED) {
        if (quor_ringbuf_output(s->data, len, now) != 0) s->dropped++;
    } else if (bpf_ringbuf_output(&ringbuf_map, s->data, len, 0) != 0) {
        s->dropped++;
    }
    return 0;
}

SEC("syscall")
int inject(struct quor_inject_args* args) {
    __u32 key = 0;
    struct injector_state* s = bpf_map_lookup_elem(&injector_state_map, &key);
    if (!s) return -1;
    s->len = args->len;
    s->flags = args->flags;
    s->seq_offset = args->seq_offset;
    s->seq = args->seq_start;
    s->dropped = 0;
    __builtin_memcpy(s->data, args->data, QUOR_INJECT_MAX_LEN);
    bpf_loop(args->count, emit_one, NULL, 0);
    return s->dropped;
}
