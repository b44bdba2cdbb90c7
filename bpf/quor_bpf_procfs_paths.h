// The procfs files the kernel-data code reads, and the line keys it looks
// for. A %s is the pid as decimal text (a /proc entry's name), a %d the pid
// as a number. QuorBpfService carries the same names as class constants.
#pragma once

namespace Quor {
namespace Bpf {
namespace Procfs {

constexpr const char* PROC_FS_PATH = "/proc";
constexpr const char* TASK_STATUS_TEMPLATE = "/proc/%s/status";
constexpr const char* TASK_STATUS_PID_TEMPLATE = "/proc/%d/status";
constexpr const char* TASK_STAT_TEMPLATE = "/proc/%s/stat";
constexpr const char* TASK_FD_TEMPLATE = "/proc/%s/fd";
constexpr const char* TASK_FDINFO_TEMPLATE = "/proc/%s/fdinfo/%s";
constexpr const char* TASK_MAPS_TEMPLATE = "/proc/%s/maps";
constexpr const char* TASK_DMABUF_PREFIX = "/dmabuf";
// How the path of a dmabuf buffer's descriptor or mapping begins.
constexpr const char* TASK_DMABUF_PATH_PREFIX = "/dmabuf:";
// Keys of "Key:\tvalue" lines in status and fdinfo files.
constexpr const char* TASK_COMM_PREFIX = "Name:\t";
constexpr const char* TASK_PPID_PREFIX = "PPid:\t";
constexpr const char* TASK_RSS_ANON_PREFIX = "RssAnon:\t";
constexpr const char* TASK_RSS_FILE_PREFIX = "RssFile:\t";
constexpr const char* TASK_RSS_SHMEM_PREFIX = "RssShmem:\t";
constexpr const char* TASK_VM_SWAP_PREFIX = "VmSwap:\t";
constexpr const char* TASK_PROC_UID_PREFIX = "Uid:\t";
constexpr const char* TASK_THREADS_PREFIX = "Threads:\t";
constexpr const char* TASK_DMABUF_SIZE_PREFIX = "size:\t";
constexpr const char* TASK_DMABUF_INO_PREFIX = "ino:\t";

}  // namespace Procfs
}  // namespace Bpf
}  // namespace Quor
