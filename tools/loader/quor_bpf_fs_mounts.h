// Mounting the kernel file systems that BPF programmes need on a host.
//
// On a device the platform mounts bpffs and tracefs at boot; on a plain Linux
// machine they may be absent. EnsureBpffs() mounts bpffs on a directory that
// does not already hold one (pins live there); EnsureTracefs() mounts tracefs
// on /sys/kernel/tracing unless a tracefs is already reachable there or under
// /sys/kernel/debug/tracing (BCC's tracepoint attachment reads event ids
// from it). Both return true when the file system is there afterwards and
// set *mounted when this call mounted it. Needs CAP_SYS_ADMIN to mount.
// Stateless; safe from any thread.
#pragma once

#include <string>

namespace Quor {
namespace Bpf {

constexpr const char* QUOR_BPFFS_ROOT = "/sys/fs/bpf";
constexpr const char* QUOR_TRACEFS_ROOT = "/sys/kernel/tracing";
constexpr const char* QUOR_DEBUGFS_TRACING = "/sys/kernel/debug/tracing";

// Whether `path` is the root of a file system of type `magic` (statfs).
bool IsFilesystemAt(const std::string& path, long magic);

bool EnsureBpffs(const std::string& path, bool* mounted, std::string* error);
bool EnsureTracefs(bool* mounted, std::string* error);

}  // namespace Bpf
}  // namespace Quor
