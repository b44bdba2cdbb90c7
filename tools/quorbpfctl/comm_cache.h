// CommCache: process names for records that carry only a pid (memory
// counters, dmabuf sizes, thread counts).
//
// Names come from the records that do carry one (Remember) and otherwise
// from <proc>/<pid>/comm, read once per pid. A pid's entry is dropped when
// its process exits (Forget), so a recycled pid gets a fresh name. Bounded:
// past kMaxEntries the cache starts over rather than grow without limit.
//
// Not thread-safe: one owner (the client's callback thread).
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace Quor {
namespace Bpf {
namespace Ctl {

// The name <procRoot>/<pid>/comm gives now; "" when the process is gone.
std::string CurrentComm(int32_t pid, const std::string& procRoot = "/proc");

class CommCache {
public:
    static constexpr size_t kMaxEntries = 65536;

    explicit CommCache(std::string procRoot = "/proc") : procRoot_(std::move(procRoot)) {}

    void Remember(int32_t pid, const std::string& comm);
    void Forget(int32_t pid) { names_.erase(pid); }
    // The name, "" when neither a record nor procfs knows it.
    std::string Lookup(int32_t pid);

private:
    std::string procRoot_;
    std::unordered_map<int32_t, std::string> names_;
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
