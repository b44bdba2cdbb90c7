// What the service costs everything else: a fork / thread / exit storm timed
// with the daemon running (programmes attached, records drained, decoded and
// kept in the registry) against the same storm without it, in rounds of
// batches in the same run: without, with the daemon's defaults, and with its
// low-latency reading mode on; with the programmes attached but their gate
// shut (the floor of any service on these attach points: the kernel still
// prepares each tracepoint's record and calls the programme, which returns
// at its first lookup); and each kernel programme's own time per run from
// the kernel's BPF statistics, working against its floor (the status word
// at 0: the programme returns after its first map lookup).
//
// Rates are timed with statistics off. Each round starts the daemon afresh
// for each mode, so that attaching and detaching land in untimed settling
// storms; the rounds alternate whether the batch without comes first or last.
// A ratio is the median over the rounds of (time without) / (time with). On a machine shared with
// other work the wall-clock rates swing with that work, so the CPU time is given as well: the
// storm's own (this process and its children, the programmes and the wake-ups they raise included)
// plus, with the service, the daemon's; its ratio (without / with) is the rate the storm keeps
// where it and the service compete for the same CPUs.
//
// Needs root; run through `make bench` (private namespaces).
#include <bpf/bpf.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "quor/quor_bpf_records.h"
#include "service/quor_bpf_service_settings.h"

using namespace quor_bench;

namespace {

constexpr int kPairs = 21;
// A batch lasts some 100 ms or more: shorter ones measure the machine's
// hiccups and the daemon's start rather than its steady cost.
constexpr int kStormsPerBatch = 300;
constexpr int kSettleStorms = 50;
// The daemon's start (its scan of procfs, the first records) is over before
// a batch is timed.
constexpr std::chrono::milliseconds kSettleAfterStart(300);
constexpr int kStatsStorms = 1000;

// A target is either absolute or, for a programme that runs on every context
// switch, a margin over its own floor.
struct Programme {
    const char* object;
    const char* name;
    double targetNs;
    bool overFloor;
};
const Programme kProgrammes[] = {
    {"QuorBpfDefineset", "sched_sched_switch", 15, true},
    {"QuorBpfDefineset", "sched_sched_process_fork", 300, false},
    {"QuorBpfDefineset", "sched_sched_process_exit", 300, false},
    {"QuorBpfDefineset", "kmem_rss_stat", 300, false},
    {"QuorBpfGplDefineset", "sched_sched_process_exit", 300, false},
    {"QuorBpfGplDefineset", "cgroup_cgroup_attach_task", 300, false},
};

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

// CPU time of this process and its waited-for children, in seconds.
double StormCpuSeconds() {
    double total = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage = {};
        (void)getrusage(who, &usage);
        total += usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 + usage.ru_stime.tv_sec +
                 usage.ru_stime.tv_usec / 1e6;
    }
    return total;
}

struct Batch {
    double seconds = 0;
    double cpuSeconds = 0;  // the storm's, plus the daemon's when it runs
    double daemonCpuSeconds = 0;
};

Batch RunBatch(pid_t daemon) {
    const double cpuBefore = StormCpuSeconds();
    const uint64_t daemonBefore = daemon > 0 ? ProcessCpuNs(daemon) : 0;
    Batch batch;
    batch.seconds = TimeBatch(kStormsPerBatch);
    batch.cpuSeconds = StormCpuSeconds() - cpuBefore;
    if (daemon > 0) batch.daemonCpuSeconds = (ProcessCpuNs(daemon) - daemonBefore) / 1e9;
    batch.cpuSeconds += batch.daemonCpuSeconds;
    return batch;
}

struct ProgStats {
    uint64_t runTimeNs = 0;
    uint64_t runCount = 0;
};

std::map<std::string, ProgStats> ReadStats() {
    std::map<std::string, ProgStats> stats;
    for (const Programme& prog : kProgrammes) {
        const std::string path =
            std::string("/sys/fs/bpf/quor/prog_") + prog.object + "_tracepoint_" + prog.name;
        const int fd = bpf_obj_get(path.c_str());
        if (fd < 0) continue;
        bpf_prog_info info = {};
        __u32 len = sizeof(info);
        if (bpf_obj_get_info_by_fd(fd, &info, &len) == 0) {
            stats[std::string(prog.object) + "/" + prog.name] = {info.run_time_ns, info.run_cnt};
        }
        close(fd);
    }
    return stats;
}

// ns per run of every programme over `storms` storms.
std::map<std::string, double> NsPerRun(int storms) {
    const auto before = ReadStats();
    (void)TimeBatch(storms);
    std::map<std::string, double> out;
    for (const auto& [name, now] : ReadStats()) {
        const auto old = before.find(name);
        if (old == before.end()) continue;
        const uint64_t runs = now.runCount - old->second.runCount;
        if (runs == 0) continue;
        out[name] = static_cast<double>(now.runTimeNs - old->second.runTimeNs) / runs;
        fprintf(stderr, "%s: %.1f runs per storm, %.0f ns per run, %.2f us per storm\n",
                name.c_str(), static_cast<double>(runs) / storms, out[name],
                static_cast<double>(now.runTimeNs - old->second.runTimeNs) / storms / 1000.0);
    }
    return out;
}

// For a profile (bench/profile_storm.sh): `--storms N` runs N storms and
// nothing else; `--serve off|default|low_latency` prepares the kernel side,
// starts the daemon in that mode (or none), prints its pid (0 for none) and
// keeps it until standard input closes.
int ProfileMode(int argc, char** argv) {
    const std::string mode = argv[1];
    if (mode == "--storms" && argc == 3) {
        (void)TimeBatch(atoi(argv[2]));
        return 0;
    }
    if (mode != "--serve" || argc != 3) {
        fprintf(stderr, "usage: storm_bench [--storms N | --serve off|default|low_latency]\n");
        return 2;
    }
    std::string error;
    if (!PrepareKernelSide(&error)) {
        fprintf(stderr, "storm_bench: %s\n", error.c_str());
        return 77;
    }
    const std::string which = argv[2];
    BenchDaemon daemon;
    if (which != "off" &&
        !daemon.Start("storm_profile.quorbpfd.log", &error, which == "low_latency")) {
        fprintf(stderr, "storm_bench: %s\n", error.c_str());
        return 1;
    }
    (void)TimeBatch(kSettleStorms);
    printf("%d\n", daemon.running() ? daemon.pid() : 0);
    fflush(stdout);
    char byte;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) return ProfileMode(argc, argv);
    std::string error;
    if (!PrepareKernelSide(&error)) {
        fprintf(stderr, "storm_bench: %s\n", error.c_str());
        return 77;
    }
    const char* repsText = getenv("QUOR_BENCH_REPS");
    const int pairs = repsText != nullptr ? atoi(repsText) : kPairs;
    // Index 0: the daemon's defaults; 1: low latency on.
    struct Series {
        std::vector<double> with, without, ratios, cpuWith, cpuWithout, cpuRatios;
    } series[2];
    std::vector<double> shutRates, shutRatios;
    for (int i = 0; i < pairs; ++i) {
        Batch off;
        if (i % 2 == 1) {
            (void)TimeBatch(kSettleStorms);
            off = RunBatch(-1);
        }
        Batch on[2];
        Batch shut;
        bool started = true;
        for (int mode = 0; mode < 2 && started; ++mode) {
            BenchDaemon daemon;
            started = daemon.Start("storm_bench.quorbpfd.log", &error, mode == 1);
            if (!started) break;
            std::this_thread::sleep_for(kSettleAfterStart);
            (void)TimeBatch(kSettleStorms);
            on[mode] = RunBatch(daemon.pid());
            if (mode == 0) {
                // The floor of any service with these attach points: the
                // programmes stay attached but return at their first lookup.
                (void)WriteStatusWord(Quor::Bpf::RINGBUF_MAIN, 0);
                (void)WriteStatusWord(Quor::Bpf::RINGBUF_GPL, 0);
                (void)TimeBatch(kSettleStorms);
                shut = RunBatch(-1);
            }
            daemon.Stop();
        }
        if (!started) {
            fprintf(stderr, "storm_bench: %s\n", error.c_str());
            continue;
        }
        if (i % 2 == 0) {
            (void)TimeBatch(kSettleStorms);
            off = RunBatch(-1);
        }
        shutRates.push_back(kStormsPerBatch / shut.seconds);
        shutRatios.push_back(off.seconds / shut.seconds);
        for (int mode = 0; mode < 2; ++mode) {
            Series& s = series[mode];
            s.with.push_back(kStormsPerBatch / on[mode].seconds);
            s.without.push_back(kStormsPerBatch / off.seconds);
            s.ratios.push_back(off.seconds / on[mode].seconds);
            s.cpuWith.push_back(on[mode].cpuSeconds / kStormsPerBatch * 1e6);
            s.cpuWithout.push_back(off.cpuSeconds / kStormsPerBatch * 1e6);
            s.cpuRatios.push_back(off.cpuSeconds / on[mode].cpuSeconds);
            fprintf(stderr,
                    "round %d%s: %.0f storms/s with the service, %.0f without, ratio %.3f; CPU "
                    "%.0f / %.0f us per storm (daemon %.0f), ratio %.3f\n",
                    i, mode == 1 ? " (low latency)" : "", s.with.back(), s.without.back(),
                    s.ratios.back(), s.cpuWith.back(), s.cpuWithout.back(),
                    on[mode].daemonCpuSeconds / kStormsPerBatch * 1e6, s.cpuRatios.back());
        }
    }
    if (pairs > 0 && series[0].ratios.empty()) {
        AddRow("3.2 storm rate with the service (storms/s)", "failed", "-", -1, ">= 0.95",
               "MISSED");
        return 1;
    }
    for (int mode = 0; mode < 2 && pairs > 0; ++mode) {
        const Series& s = series[mode];
        const char* name = mode == 1 ? ", low_latency=1" : "";
        const double target = mode == 1 ? 0.90 : 0.95;
        const double ratio = Median(s.ratios);
        AddRow(Format("3.%d storm rate with the service%s (storms/s)", 2 + 2 * mode, name),
               Format("%.0f", Median(s.with)), Format("%.0f (without)", Median(s.without)), ratio,
               Format(">= %.2f of without", target), Verdict(ratio >= target));
        const double cpuRatio = Median(s.cpuRatios);
        AddRow(Format("3.%d storm CPU, storm + daemon%s (us/storm)", 3 + 2 * mode, name),
               Format("%.0f", Median(s.cpuWith)), Format("%.0f (without)", Median(s.cpuWithout)),
               cpuRatio, Format(">= %.2f (without/with)", target), Verdict(cpuRatio >= target));
    }

    if (!shutRatios.empty()) {
        AddRow("3.6 storm rate, programmes attached, gate shut (storms/s)",
               Format("%.0f", Median(shutRates)),
               Format("%.0f (without)", Median(series[0].without)), Median(shutRatios), "-", "");
    }

    // Each programme's own time: statistics on, working and then with the
    // status words at 0 (the floor of an attached programme).
    BenchDaemon daemon;
    if (!daemon.Start("storm_bench.quorbpfd.log", &error)) {
        fprintf(stderr, "storm_bench: %s\n", error.c_str());
        return 1;
    }
    const int statsFd = bpf_enable_stats(BPF_STATS_RUN_TIME);
    if (statsFd < 0) {
        AddRow("3.7 kernel programme time", "no BPF statistics", "-", -1, "-", "");
        return 0;
    }
    (void)TimeBatch(kSettleStorms);
    const auto working = NsPerRun(kStatsStorms);
    (void)WriteStatusWord(Quor::Bpf::RINGBUF_MAIN, 0);
    (void)WriteStatusWord(Quor::Bpf::RINGBUF_GPL, 0);
    const auto floor = NsPerRun(kStatsStorms);
    close(statsFd);
    daemon.Stop();
    for (const Programme& prog : kProgrammes) {
        const std::string name = std::string(prog.object) + "/" + prog.name;
        const auto on = working.find(name);
        const auto off = floor.find(name);
        if (on == working.end()) continue;
        const double base = off != floor.end() ? off->second : 0;
        const double limit = prog.overFloor ? base + prog.targetNs : prog.targetNs;
        AddRow("3.7 " + name + " (ns/run)", Format("%.0f", on->second),
               Format("%.0f (gate shut)", base), base > 0 ? on->second / base : -1,
               prog.overFloor ? Format("<= floor + %.0f ns", prog.targetNs)
                              : Format("<= %.0f ns", prog.targetNs),
               Verdict(on->second <= limit));
    }
    return 0;
}
