/*
 * The kernel types the programmes read, for a build that has no BTF of its
 * target kernel: the arm64 cross build (the target's BTF is on the device,
 * not on the build machine; CMake copies this file to the build folder's
 * vmlinux.h) and the platform build (Android.bp puts this folder on the
 * programmes' include path). A native build generates vmlinux.h from the
 * running kernel's BTF instead.
 *
 * Two kinds of type, kept apart:
 *   - the stable user-space ABI (BPF map types and flags, the kprobe register
 *     frame user_pt_regs) comes from the target architecture's own UAPI
 *     headers (linux-libc-dev of that architecture, whose include folder the
 *     build adds for the BPF compile);
 *   - kernel-internal structs are declared here with only the fields the
 *     programmes use, marked preserve_access_index: every access is a CO-RE
 *     relocation that libbpf resolves against the running kernel's BTF at
 *     load time, so neither the order nor the offsets written here matter,
 *     only the names and the integer sizes.
 *
 * A programme that starts to use another kernel field must add it here; the
 * arm64 BPF objects then fail to compile until it does, and the x86 build's
 * test that loads the arm64 objects into the running kernel fails when a
 * name is wrong.
 */
#ifndef __VMLINUX_H__
#define __VMLINUX_H__

#include <linux/types.h>
#include <linux/bpf.h>
#include <asm/ptrace.h>

typedef _Bool bool;
typedef __kernel_pid_t pid_t;

#pragma clang attribute push(__attribute__((preserve_access_index)), apply_to = record)

typedef struct {
    int counter;
} atomic_t;

struct list_head {
    struct list_head *next;
    struct list_head *prev;
};

struct signal_struct {
    atomic_t live;
    struct list_head thread_head;
};

struct task_struct {
    pid_t pid;
    struct list_head children;
    struct list_head sibling;
    struct task_struct *group_leader;
    struct list_head thread_node;
    char comm[16];
    struct signal_struct *signal;
};

struct inode {
    unsigned long i_ino;
};

struct file {
    struct inode *f_inode;
};

struct dma_buf {
    __kernel_size_t size;
    struct file *file;
};

/* Tracepoint records (the kernel's trace_event_raw_<event> types). */
struct trace_event_raw_sched_process_fork {
    pid_t parent_pid;
    pid_t child_pid;
};

struct trace_event_raw_rss_stat {
    unsigned int mm_id;
    unsigned int curr;
    int member;
    long size;
};

struct trace_event_raw_cgroup_migrate {
    int pid;
    __u32 __data_loc_dst_path;
    __u32 __data_loc_comm;
};

#pragma clang attribute pop

#endif /* __VMLINUX_H__ */
