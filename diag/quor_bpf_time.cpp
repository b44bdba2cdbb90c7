#include "diag/quor_bpf_time.h"

#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "diag/quor_bpf_log.h"

namespace Quor {
namespace Bpf {

namespace {

// Written once at start-up, read by every thread afterwards.
std::atomic<int64_t> __basetime{0};

int64_t Base() {
    return __basetime.load(std::memory_order_relaxed);
}

timespec ReadClock(clockid_t clock) {
    timespec ts = {};
    (void)clock_gettime(clock, &ts);
    return ts;
}

// Reads the decimal value after "btime " without exceptions: a damaged
// /proc/stat must not take the service down.
bool ParseBtimeLine(const std::string& line, int64_t* btime) {
    const size_t pos = line.find("btime ");
    if (pos == std::string::npos) return false;
    const char* value = line.c_str() + pos + 6;
    char* end = nullptr;
    errno = 0;
    const long long parsed = strtoll(value, &end, 10);
    if (end == value || errno == ERANGE) return false;
    *btime = parsed;
    return true;
}

}  // namespace

bool InitBasetime() {
    return InitBasetimeFrom("/proc/stat");
}

bool InitBasetimeFrom(const std::string& statPath) {
    std::ifstream stat(statPath);
    if (!stat.is_open()) return false;
    std::string line;
    while (std::getline(stat, line)) {
        if (line.find("btime ") == std::string::npos) continue;
        int64_t btime = 0;
        if (!ParseBtimeLine(line, &btime)) break;
        __basetime.store(btime, std::memory_order_relaxed);
        return true;
    }
    // Every clock with the base would then read as seconds since boot.
    QLOGE(QUOR_TAG_UTILS, "[InitBasetime] no readable boot time in %s; the base stays %lld",
          statPath.c_str(), static_cast<long long>(Base()));
    errno = EINVAL;
    return false;
}

int64_t GetBasetime() {
    return Base();
}

int64_t GetSystemBootNanosencondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

int64_t GetSystemNanosencondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC);
    return (static_cast<int64_t>(ts.tv_sec) + Base()) * 1000000000LL + ts.tv_nsec;
}

int64_t GetSystemMicrosencondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC);
    return (static_cast<int64_t>(ts.tv_sec) + Base()) * 1000000LL + ts.tv_nsec / 1000;
}

int64_t GetSystemMillisecondsTime(bool precise) {
    const timespec ts = ReadClock(precise ? CLOCK_MONOTONIC : CLOCK_MONOTONIC_COARSE);
    return (static_cast<int64_t>(ts.tv_sec) + Base()) * 1000LL + ts.tv_nsec / 1000000;
}

int64_t GetSystemSecondsTime() {
    const timespec ts = ReadClock(CLOCK_MONOTONIC_COARSE);
    return static_cast<int64_t>(ts.tv_sec) + Base();
}

}  // namespace Bpf
}  // namespace Quor
