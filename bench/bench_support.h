// What the benchmark programmes of `make bench` share: the result table, the
// daemon under test as a child process, and the measurements taken of a
// process from procfs.
//
// Table: every programme appends rows to the file named by the environment
// variable QUOR_BENCH_TABLE (standard output when it is unset); the suite
// script prints them as one table at the end. A row holds one figure, the
// baseline measured in the same run, their ratio, the target and whether
// the target is met, tab-separated:
//
//   figure \t value \t baseline \t ratio \t target \t verdict
//
// Daemon: BenchDaemon starts tools/quorbpfd as a child without loading
// (the benchmark has pinned the programme sets already) and with its
// defaults, the low-latency reading mode only when asked; it waits until both
// monitors have switched their programmes on, and stops it with SIGINT. Its
// log goes to a file in QUOR_BENCH_LOG_DIR (default /tmp).
//
// Threading: none of this is meant for more than one thread at a time,
// except ThreadCpuNs / ProcessCpuNs, which only read procfs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace quor_bench {

// --- the table -----------------------------------------------------------

// Appends one row. `ratio` < 0 prints as "-". `verdict` is "ok", "MISSED" or
// "" (a figure without a target).
void AddRow(const std::string& figure, const std::string& value, const std::string& baseline,
            double ratio, const std::string& target, const std::string& verdict);
std::string Verdict(bool met);
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The median of `values` (0 when empty); the vector is reordered.
double Median(std::vector<double> values);
// The p-th percentile (0..100) of `values`, nearest rank; reorders.
double Percentile(std::vector<double>* values, double p);

// --- measurements from procfs ---------------------------------------------

// CPU time a thread or a whole process has used, in ns (schedstat).
uint64_t ThreadCpuNs(pid_t pid, pid_t tid);
uint64_t ProcessCpuNs(pid_t pid);
// Resident set size in bytes (VmRSS), or -1.
int64_t ResidentBytes(pid_t pid);

// Polls `condition` every millisecond or so until it holds or `limit` passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit);

// --- the kernel side and the daemon ----------------------------------------

// Loads and pins both programme sets under /sys/fs/bpf/quor/ (the benchmark
// runs in a private mount namespace), creates the service's log directory.
bool PrepareKernelSide(std::string* error);

// Status word (key 0) of ring buffer 0 (main) or 1 (GPL).
uint64_t ReadStatusWord(int index);
bool WriteStatusWord(int index, uint64_t word);

class BenchDaemon {
public:
    BenchDaemon() = default;
    ~BenchDaemon() { Stop(); }
    BenchDaemon(const BenchDaemon&) = delete;
    BenchDaemon& operator=(const BenchDaemon&) = delete;

    // Clears both status words, starts quorbpfd (with
    // persist.sys.quorbpf.low_latency=1 when `lowLatency`) and waits until
    // both monitors have switched their programmes on and its socket answers.
    bool Start(const std::string& logName, std::string* error, bool lowLatency = false);
    // SIGINT, then waits for the process (SIGKILL after 5 s).
    void Stop();
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
};

// Path of the daemon binary and of the log directory.
std::string DaemonPath();
std::string LogDir();

}  // namespace quor_bench
