/* Context of the record injector's syscall programme. Plain C: shared by the
 * programme and the user-space tests that run it. */
#ifndef QUOR_RECORD_INJECTOR_H
#define QUOR_RECORD_INJECTOR_H

#ifndef __VMLINUX_H__
#include <linux/types.h>
#endif

#define QUOR_INJECT_MAX_LEN 256
#define QUOR_INJECT_NO_SEQ 0xffffffffu

enum quor_inject_flags {
    QUOR_INJECT_STAMP_TIME = 1, /* overwrite bytes 8..15 with bpf_ktime_get_ns() */
    QUOR_INJECT_PACED = 2,      /* wake the reader by the real programmes' rule, not the
                                   kernel's default one */
};

struct quor_inject_args {
    __u32 len;        /* bytes of `data` per record, 16..QUOR_INJECT_MAX_LEN */
    __u32 count;      /* records to write */
    __u32 flags;      /* enum quor_inject_flags */
    __u32 seq_offset; /* where to write a running __u64 sequence, or QUOR_INJECT_NO_SEQ */
    __u64 seq_start;
    __u8 data[QUOR_INJECT_MAX_LEN];
};

#endif
