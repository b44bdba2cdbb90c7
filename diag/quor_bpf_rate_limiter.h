// A bound on how often a fault that outsiders can provoke gets reported.
//
// A client can send a damaged frame as fast as the socket carries it, and
// each report rewrites the whole error log; without a bound, one client
// would keep the socket thread busy writing and starve every other client.
// The limiter lets a burst through, then one report per interval, and counts
// what it held back so the next report can say so.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>

namespace Quor {
namespace Bpf {

class RateLimiter {
public:
    using Clock = std::chrono::steady_clock;

    RateLimiter(int burst, Clock::duration interval)
        : burst_(burst), interval_(interval), tokens_(burst) {}

    // True when this occurrence may be reported. *heldBack is then the number
    // of occurrences held back since the last report (0 otherwise).
    bool allow(uint64_t* heldBack) { return allowAt(Clock::now(), heldBack); }

    bool allowAt(Clock::time_point now, uint64_t* heldBack) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!started_) {
            started_ = true;
            refilled_ = now;
        }
        if (now > refilled_) {
            // One token per whole interval passed, never more than the burst.
            const auto earned = (now - refilled_) / interval_;
            if (earned > 0) {
                tokens_ = earned >= burst_ - tokens_ ? burst_ : tokens_ + static_cast<int>(earned);
                refilled_ += interval_ * earned;
            }
        }
        *heldBack = 0;
        if (tokens_ == 0) {
            ++heldBack_;
            return false;
        }
        --tokens_;
        *heldBack = heldBack_;
        heldBack_ = 0;
        return true;
    }

private:
    std::mutex mutex_;
    const int burst_;
    const Clock::duration interval_;
    int tokens_;
    bool started_ = false;
    Clock::time_point refilled_;
    uint64_t heldBack_ = 0;
};

}  // namespace Bpf
}  // namespace Quor
