// What the kernel programmes cost: a fork / thread / exit storm with the
// tracepoint programmes attached against the same storm detached, in the
// same run and interleaved batch by batch, plus each programme's own time
// per run from the kernel's BPF statistics (run_time_ns / run_cnt, counted
// while the storm runs with every status bit on and the ring buffers being
// drained).
//
// The rates are timed with statistics off; the per-programme times come
// from a further attached batch with statistics on. Needs root. It works in a private mount
// namespace with a bpffs and tracefs of its own, so it pins nothing on the machine; the statistics
// are switched on through BPF_ENABLE_STATS, which the kernel switches off again when the
// benchmark's descriptor closes (the sysctl kernel.bpf_stats_enabled is left
// as it was).
//
//   build/bench/kernel_prog_cost_bench
// Counters: detached_per_s, attached_per_s, ratio (attached rate over
// detached rate, the median over interleaved pairs of short batches; target
// >= 0.97), ratio_of_totals and ns_<programme> (targets: sched_switch <= 100, others
// <= 300). working:0 is the same storm with the status word at 0: the floor.
#include <android-base/properties.h>
#include <benchmark/benchmark.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bpf/quor_bpf_prog_attach.h"
#include "quor/quor_bpf_records.h"
#include "tools/loader/quor_bpf_loader.h"

namespace {

constexpr const char* kDir = "/sys/fs/bpf/quor/";
constexpr int kStormsPerBatch = 40;
// Untimed storms after each attach or detach: enabling and disabling a
// tracepoint patches kernel text and frees perf events behind an RCU grace
// period, work that would otherwise land in the next timed batch.
constexpr int kSettleStorms = 5;
constexpr int kStatsStorms = 1000;

struct Hook {
    const char* object;
    const char* prog;
    const char* subsystem;
    const char* event;
};
const Hook kHooks[] = {
    {"QuorBpfDefineset", "sched_sched_switch", "sched", "sched_switch"},
    {"QuorBpfDefineset", "sched_sched_process_exit", "sched", "sched_process_exit"},
    {"QuorBpfDefineset", "sched_sched_process_fork", "sched", "sched_process_fork"},
    {"QuorBpfDefineset", "kmem_rss_stat", "kmem", "rss_stat"},
    {"QuorBpfGplDefineset", "sched_sched_process_exit", "sched", "sched_process_exit"},
    {"QuorBpfGplDefineset", "cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task"},
};

std::string g_setupError;
std::vector<int> g_attached;
std::atomic<bool> g_draining{false};
std::atomic<uint64_t> g_records{0};

void* Idle(void*) {
    return nullptr;
}

// One storm: a child that starts and joins a thread and exits. Its page
// faults (stack, copy-on-write) are what the rss programme sees.
void Storm() {
    const pid_t pid = fork();
    if (pid == 0) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, Idle, nullptr) == 0) pthread_join(thread, nullptr);
        _exit(0);
    }
    if (pid > 0) (void)waitpid(pid, nullptr, 0);
}

double TimeBatch(int storms) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < storms; ++i) Storm();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool Attach() {
    for (const auto& hook : kHooks) {
        const int fd = Quor::Bpf::AttachTracepointProgram(kDir, hook.object, hook.prog,
                                                          hook.subsystem, hook.event);
        if (fd < 0) return false;
        g_attached.push_back(fd);
    }
    return true;
}

// Closing the perf-event descriptors detaches the programmes. The programme
// descriptors RetrieveProgramFd opened stay open (as in the service).
void Detach() {
    for (int fd : g_attached) close(fd);
    g_attached.clear();
}

struct ProgStats {
    uint64_t runTimeNs = 0;
    uint64_t runCount = 0;
};

std::map<std::string, ProgStats> ReadStats() {
    std::map<std::string, ProgStats> stats;
    for (const auto& hook : kHooks) {
        const std::string name = std::string(hook.object) + "_" + hook.prog;
        const std::string path =
            std::string(kDir) + "prog_" + hook.object + "_tracepoint_" + hook.prog;
        const int fd = bpf_obj_get(path.c_str());
        if (fd < 0) continue;
        bpf_prog_info info = {};
        __u32 len = sizeof(info);
        if (bpf_obj_get_info_by_fd(fd, &info, &len) == 0)
            stats[name] = {info.run_time_ns, info.run_cnt};
        close(fd);
    }
    return stats;
}

void DrainLoop(const char* mapName) {
    const int fd = bpf_obj_get((std::string(kDir) + mapName).c_str());
    if (fd < 0) return;
    ring_buffer* rb = ring_buffer__new(
        fd,
        [](void*, void*, size_t) {
            g_records.fetch_add(1, std::memory_order_relaxed);
            return 0;
        },
        nullptr, nullptr);
    while (rb != nullptr && g_draining.load()) (void)ring_buffer__poll(rb, 100);
    if (rb != nullptr) ring_buffer__free(rb);
    close(fd);
}

void SetStatus(const char* mapName, uint64_t flags) {
    const int fd = bpf_obj_get((std::string(kDir) + mapName).c_str());
    if (fd < 0) return;
    const uint32_t key = QUOR_STATUS_KEY_FLAGS;
    (void)bpf_map_update_elem(fd, &key, &flags, BPF_ANY);
    close(fd);
}

void BM_ForkThreadExitStorm(benchmark::State& state) {
    if (!g_setupError.empty()) {
        state.SkipWithError(g_setupError.c_str());
        return;
    }
    const uint64_t flags = state.range(0) != 0 ? QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON : 0;
    SetStatus("map_QuorBpfDefineset_ringbuf_status", flags);
    SetStatus("map_QuorBpfGplDefineset_ringbuf_status", flags);
    // Rates, without statistics (they add two clock reads per run): a
    // detached batch and an attached batch in turn, so that both see the same
    // machine; the median of the pairs' ratios shrugs off bursts of other
    // work on a shared machine.
    double detached = 0;
    double attached = 0;
    std::vector<double> pairRatios;
    for (auto _ : state) {
        (void)TimeBatch(kSettleStorms);
        const double off = TimeBatch(kStormsPerBatch);
        state.PauseTiming();
        if (!Attach()) {
            state.SkipWithError("attach failed");
            Detach();
            return;
        }
        (void)TimeBatch(kSettleStorms);
        state.ResumeTiming();
        const double on = TimeBatch(kStormsPerBatch);
        state.PauseTiming();
        Detach();
        state.ResumeTiming();
        detached += off;
        attached += on;
        pairRatios.push_back(off / on);
    }
    // Then the programmes' own time, over a longer attached run (untimed:
    // the benchmark loop has ended).
    std::map<std::string, ProgStats> delta;
    const int statsFd = bpf_enable_stats(BPF_STATS_RUN_TIME);
    if (statsFd >= 0 && Attach()) {
        auto before = ReadStats();
        (void)TimeBatch(kStatsStorms);
        for (const auto& [name, now] : ReadStats()) {
            delta[name].runTimeNs = now.runTimeNs - before[name].runTimeNs;
            delta[name].runCount = now.runCount - before[name].runCount;
        }
    }
    Detach();
    if (statsFd >= 0) close(statsFd);

    const double storms = static_cast<double>(pairRatios.size()) * kStormsPerBatch;
    std::sort(pairRatios.begin(), pairRatios.end());
    state.counters["detached_per_s"] = storms / detached;
    state.counters["attached_per_s"] = storms / attached;
    state.counters["ratio"] = pairRatios[pairRatios.size() / 2];
    state.counters["ratio_of_totals"] = detached / attached;
    for (const auto& [name, stats] : delta) {
        if (stats.runCount != 0) {
            state.counters["ns_" + name] =
                static_cast<double>(stats.runTimeNs) / static_cast<double>(stats.runCount);
            state.counters["runs_" + name] = static_cast<double>(stats.runCount);
        }
    }
}
// Arg 1: every status bit on, the programmes do their work. Arg 0: the
// status word is 0, each programme returns after its first map lookup: the
// floor of what an attached programme costs and of what statistics add.
BENCHMARK(BM_ForkThreadExitStorm)
    ->ArgName("working")
    ->Arg(1)
    ->Arg(0)
    ->Iterations(40)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);

// A private mount namespace with fresh bpffs and tracefs, the programme sets
// loaded into it, every status bit on and both ring buffers drained.
void SetUp() {
    if (geteuid() != 0) {
        g_setupError = "needs root";
        return;
    }
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("bpf", "/sys/fs/bpf", "bpf", 0, "mode=0700") != 0) {
        g_setupError = std::string("private bpffs: ") + strerror(errno);
        return;
    }
    (void)mount("tracefs", "/sys/kernel/tracing", "tracefs", 0, nullptr);
    Quor::Bpf::QuorBpfLoadReport report;
    if (Quor::Bpf::QuorBpfLoader::Load(Quor::Bpf::QuorBpfLoader::Options(), &report) != 0) {
        g_setupError = "loading the programme sets failed";
        return;
    }
    g_draining = true;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    SetUp();
    std::thread mainDrain;
    std::thread gplDrain;
    if (g_setupError.empty()) {
        mainDrain = std::thread(DrainLoop, "map_QuorBpfDefineset_ringbuf_map");
        gplDrain = std::thread(DrainLoop, "map_QuorBpfGplDefineset_ringbuf_map");
    }
    benchmark::RunSpecifiedBenchmarks();
    g_draining = false;
    if (mainDrain.joinable()) mainDrain.join();
    if (gplDrain.joinable()) gplDrain.join();
    benchmark::Shutdown();
    return 0;
}
