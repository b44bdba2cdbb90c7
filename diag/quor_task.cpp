#include "diag/quor_task.h"

namespace Quor {
namespace Bpf {

namespace {

// Exact in 128 bits: the sizes come from kernel records and may be anything,
// and a 64-bit sum or difference that wraps would make the ordering
// intransitive, which std::sort does not survive.
__int128 TotalRss(const QuorTask& t) {
    return static_cast<__int128>(t.rssFileSize) + t.rssAnonSize + t.rssSwapSize + t.rssShmemSize;
}

}  // namespace

bool CompareQuorTask(const QuorTask& a, const QuorTask& b) {
    return TotalRss(a) > TotalRss(b);
}

}  // namespace Bpf
}  // namespace Quor
