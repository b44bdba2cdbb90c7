// Where the kernel maps that the service seeds and prunes are pinned.
#pragma once

namespace Quor {
namespace Bpf {
namespace Pins {

constexpr const char* OPEN_FD_CALLER_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_open_fd_caller_map";
constexpr const char* OPEN_FD_PID_BITS_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfDefineset_open_fd_pid_bits";
constexpr const char* DMABUF_PID_BITS_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_pid_bits";
constexpr const char* DMABUF_ALLOCATE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_allocate_map";
constexpr const char* DMABUF_SIZE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_size_map";
constexpr const char* DMABUF_PERPROCESS_SIZE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_perprocess_size_map";
// The two per-process dmabuf maps.
constexpr const char* DMABUF_BPF_PROCESS_INODE_MAP_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_process_inode_map";
constexpr const char* DMABUF_BPF_PROCESS_MMAP_INFOS_PATH =
    "/sys/fs/bpf/quor/map_QuorBpfGplDefineset_process_mmap_infos";

}  // namespace Pins
}  // namespace Bpf
}  // namespace Quor
