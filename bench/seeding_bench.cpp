// Start-up seeding: initTaskInfo(), the walk over /proc that tells the
// registry about every process that ran before the kernel programmes, against
// `ps -e -o pid,ppid,nlwp,rss,comm` over the same processes, with 2,000
// extra sleeping processes on the machine. The two run in turn, so that
// both see the same machine; the ratio is the median of the pairs' ratios
// (initTaskInfo time over ps time).
//
// Run through `make bench`; it needs no privilege of its own.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <vector>

#include "bench/bench_support.h"
#include "diag/quor_bpf_task_manager.h"
#include "service/quor_bpf_service.h"

extern char** environ;

using namespace quor_bench;

namespace {

constexpr int kSleepers = 2000;

std::vector<double> g_seedMs;
std::vector<double> g_psMs;
std::vector<double> g_ratios;
size_t g_tasks = 0;

double Ms(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

// ps with its output thrown away; false when it cannot run.
bool RunPs() {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    char* argv[] = {const_cast<char*>("ps"), const_cast<char*>("-e"), const_cast<char*>("-o"),
                    const_cast<char*>("pid,ppid,nlwp,rss,comm"), nullptr};
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, "ps", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return false;
    int status = 0;
    (void)waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void BM_SeedingAgainstPs(benchmark::State& state) {
    Quor::Bpf::QuorBpfService* service = Quor::Bpf::QuorBpfService::GetInstance();
    for (auto _ : state) {
        auto start = std::chrono::steady_clock::now();
        service->initTaskInfo();
        const double seed = Ms(start);
        start = std::chrono::steady_clock::now();
        if (!RunPs()) {
            state.SkipWithError("ps cannot run");
            return;
        }
        const double ps = Ms(start);
        g_seedMs.push_back(seed);
        g_psMs.push_back(ps);
        g_ratios.push_back(seed / ps);
    }
    g_tasks = Quor::Bpf::QuorTaskManager::GetInstance()->GetQuorTaskCount();
    state.counters["initTaskInfo_ms"] = Median(g_seedMs);
    state.counters["ps_ms"] = Median(g_psMs);
    state.counters["ratio"] = Median(g_ratios);
    state.counters["tasks"] = static_cast<double>(g_tasks);
}
BENCHMARK(BM_SeedingAgainstPs)->Iterations(15)->Unit(benchmark::kMillisecond);

// Children that sleep until their pipe closes.
std::vector<pid_t> StartSleepers(int count, int* writeEnd) {
    int fds[2];
    std::vector<pid_t> pids;
    if (pipe2(fds, O_CLOEXEC) != 0) return pids;
    for (int i = 0; i < count; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            close(fds[1]);
            char byte;
            while (read(fds[0], &byte, 1) < 0) {
            }
            _exit(0);
        }
        if (pid < 0) break;
        pids.push_back(pid);
    }
    close(fds[0]);
    *writeEnd = fds[1];
    return pids;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    int writeEnd = -1;
    const std::vector<pid_t> sleepers = StartSleepers(kSleepers, &writeEnd);
    benchmark::RunSpecifiedBenchmarks();
    close(writeEnd);
    for (const pid_t pid : sleepers) (void)waitpid(pid, nullptr, 0);
    if (g_ratios.empty()) {
        AddRow("4.1 start-up seeding", "failed", "-", -1, "<= 1.00", "MISSED");
        return 1;
    }
    const double ratio = Median(g_ratios);
    AddRow(Format("4.1 seeding, %zu extra procs, %zu tasks (ms)", sleepers.size(), g_tasks),
           Format("%.1f", Median(g_seedMs)), Format("%.1f (ps)", Median(g_psMs)), ratio,
           "<= 1.00 of ps", Verdict(ratio <= 1.0));
    benchmark::Shutdown();
    return 0;
}
