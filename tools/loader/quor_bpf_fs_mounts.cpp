#include "tools/loader/quor_bpf_fs_mounts.h"

#include <errno.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <cstring>

namespace Quor {
namespace Bpf {

bool IsFilesystemAt(const std::string& path, long magic) {
    struct statfs fs = {};
    if (statfs(path.c_str(), &fs) != 0) return false;
    return static_cast<long>(fs.f_type) == magic;
}

namespace {

bool MountAt(const char* type, const std::string& path, const char* data, bool* mounted,
             std::string* error) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        *error = "mkdir " + path + ": " + strerror(errno);
        return false;
    }
    if (mount(type, path.c_str(), type, MS_NOSUID | MS_NODEV | MS_NOEXEC, data) != 0) {
        *error = std::string("mount ") + type + " on " + path + ": " + strerror(errno);
        return false;
    }
    *mounted = true;
    return true;
}

}  // namespace

bool EnsureBpffs(const std::string& path, bool* mounted, std::string* error) {
    *mounted = false;
    if (IsFilesystemAt(path, BPF_FS_MAGIC)) return true;
    return MountAt("bpf", path, "mode=0700", mounted, error);
}

bool EnsureTracefs(bool* mounted, std::string* error) {
    *mounted = false;
    if (IsFilesystemAt(QUOR_TRACEFS_ROOT, TRACEFS_MAGIC)) return true;
    if (IsFilesystemAt(QUOR_DEBUGFS_TRACING, TRACEFS_MAGIC)) return true;
    return MountAt("tracefs", QUOR_TRACEFS_ROOT, nullptr, mounted, error);
}

}  // namespace Bpf
}  // namespace Quor
