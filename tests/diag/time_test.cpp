#include <gtest/gtest.h>
#include <time.h>

#include <fstream>
#include <string>

#include "diag/quor_bpf_time.h"

using namespace Quor::Bpf;

namespace {

int64_t BtimeFromProc() {
    std::ifstream stat("/proc/stat");
    std::string line;
    while (std::getline(stat, line)) {
        if (line.rfind("btime ", 0) == 0) return std::stoll(line.substr(6));
    }
    return -1;
}

int64_t MonotonicSeconds(clockid_t clock) {
    timespec ts = {};
    clock_gettime(clock, &ts);
    return ts.tv_sec;
}

}  // namespace

// One test because the base is process-wide and only ever set once.
TEST(TimeBaseTest, BaseIsZeroUntilInitThenBootTime) {
    EXPECT_EQ(GetBasetime(), 0);
    EXPECT_LE(GetSystemSecondsTime() - MonotonicSeconds(CLOCK_MONOTONIC_COARSE), 1);
    ASSERT_TRUE(InitBasetime());
    const int64_t btime = BtimeFromProc();
    ASSERT_GT(btime, 0);
    EXPECT_EQ(GetBasetime(), btime);

    const int64_t seconds = GetSystemSecondsTime();
    EXPECT_NEAR(seconds, btime + MonotonicSeconds(CLOCK_MONOTONIC_COARSE), 1);
    EXPECT_NEAR(GetSystemNanosencondsTime() / 1000000000, seconds, 1);
    // Boot-relative nanoseconds never include the base.
    const int64_t bootNs = GetSystemBootNanosencondsTime();
    EXPECT_NEAR(bootNs / 1000000000, MonotonicSeconds(CLOCK_MONOTONIC), 1);
    EXPECT_LT(bootNs, GetSystemNanosencondsTime());
}
