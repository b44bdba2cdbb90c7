#include "tools/quorbpfctl/comm_cache.h"

#include <fstream>

namespace Quor {
namespace Bpf {
namespace Ctl {

std::string CurrentComm(int32_t pid, const std::string& procRoot) {
    std::string comm;
    if (pid > 0) {
        std::ifstream in(procRoot + "/" + std::to_string(pid) + "/comm");
        if (in) std::getline(in, comm);
    }
    return comm;
}

void CommCache::Remember(int32_t pid, const std::string& comm) {
    if (names_.size() >= kMaxEntries) names_.clear();
    names_[pid] = comm;
}

std::string CommCache::Lookup(int32_t pid) {
    const auto it = names_.find(pid);
    if (it != names_.end()) return it->second;
    const std::string comm = CurrentComm(pid, procRoot_);
    // An unknown name is cached too: a process that is gone stays unknown.
    Remember(pid, comm);
    return comm;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
