// Process-wide time base: monotonic clocks shifted by the boot time.
//
// InitBasetime() reads the boot time (epoch seconds, the "btime" line of
// /proc/stat) once; afterwards every clock below except
// GetSystemBootNanosencondsTime() is monotonic time since boot plus that base,
// i.e. an approximate wall clock that never jumps. Before InitBasetime() the
// base is 0. All functions are reentrant; the base is written once at start,
// before the threads that read it exist.
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

namespace Quor {
namespace Bpf {

// False (logged, errno set) when the file does not open or holds no
// readable "btime" line; the base is then left as it was.
bool InitBasetime();
bool InitBasetimeFrom(const std::string& statPath);
int64_t GetBasetime();
int64_t GetSystemBootNanosencondsTime();
int64_t GetSystemNanosencondsTime();
int64_t GetSystemMicrosencondsTime();
int64_t GetSystemMillisecondsTime(bool precise);
int64_t GetSystemSecondsTime();

// Plain CLOCK_MONOTONIC, without the base: for deadlines and intervals.
// Inline, so that the client library and the tools need no link to diag.
inline int64_t MonotonicNs() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}
inline int64_t MonotonicMs() {
    return MonotonicNs() / 1000000;
}
// CLOCK_REALTIME in ns since the epoch: for showing times to a person.
inline int64_t RealtimeNs() {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

}  // namespace Bpf
}  // namespace Quor
