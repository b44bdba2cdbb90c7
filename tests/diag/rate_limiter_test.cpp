#include <gtest/gtest.h>

#include "diag/quor_bpf_rate_limiter.h"

using namespace Quor::Bpf;
using std::chrono::milliseconds;

TEST(RateLimiterTest, BurstThenOnePerIntervalCountingWhatWasHeldBack) {
    RateLimiter limiter(3, milliseconds(1000));
    const RateLimiter::Clock::time_point t0{};
    uint64_t heldBack = 99;
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(limiter.allowAt(t0, &heldBack));
        EXPECT_EQ(heldBack, 0u);
    }
    for (int i = 0; i < 5; ++i) EXPECT_FALSE(limiter.allowAt(t0 + milliseconds(999), &heldBack));
    // One interval earns one report, which carries the count held back.
    EXPECT_TRUE(limiter.allowAt(t0 + milliseconds(1000), &heldBack));
    EXPECT_EQ(heldBack, 5u);
    EXPECT_FALSE(limiter.allowAt(t0 + milliseconds(1999), &heldBack));
    EXPECT_TRUE(limiter.allowAt(t0 + milliseconds(2000), &heldBack));
    EXPECT_EQ(heldBack, 1u);
    // A long quiet spell refills the burst and no more.
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(limiter.allowAt(t0 + std::chrono::hours(1000), &heldBack));
    EXPECT_FALSE(limiter.allowAt(t0 + std::chrono::hours(1000), &heldBack));
}
