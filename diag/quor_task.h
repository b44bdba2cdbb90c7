// QuorTask: what the service knows about one live process.
//
// A plain value record, copied whole into and out of the task registry
// (QuorTaskManager). Every field is zero in a default-constructed record, so
// `QuorTask task;` is a valid empty record. The rss sizes are in bytes and
// kept in the kernel's counter order (file, anonymous, swap, shared memory);
// the "Old" sizes and `oldThreadNum` are the values last reported to clients,
// against which the handlers measure change.
//
// CompareQuorTask orders records by total resident size, largest first, and
// has no secondary key: equal totals come out in no particular order.
#pragma once

#include <cstdint>

namespace Quor {
namespace Bpf {

struct QuorTask {
    int32_t pid = 0;
    int32_t ppid = 0;  // 0 when unknown
    int32_t uid = 0;   // copied from the kernel record; never printed
    int32_t threadNum = 0;
    int32_t oldThreadNum = 0;
    char comm[16] = {};  // NUL-terminated unless all 16 bytes are used
    uint32_t mmId = 0;   // 0 until a memory event sets it
    int64_t rssFileSize = 0;
    int64_t rssAnonSize = 0;
    int64_t rssSwapSize = 0;
    int64_t rssShmemSize = 0;
    int64_t rssFileOldSize = 0;
    int64_t rssAnonOldSize = 0;
    int64_t rssSwapOldSize = 0;
    int64_t rssShmemOldSize = 0;
    int64_t initTimeStamp = 0;  // seconds on the service's time base
    int64_t refreshTime = 0;    // seconds; 0 if the record was never refreshed
    int64_t createTime = 0;     // ns, clock of the kernel event that created it
    // ns, same clock: when threadNum was last taken from procfs. Thread
    // records older than that are already in the count.
    int64_t threadSyncTime = 0;
};

// True when a's four current rss sizes sum to more than b's.
bool CompareQuorTask(const QuorTask& a, const QuorTask& b);

}  // namespace Bpf
}  // namespace Quor
