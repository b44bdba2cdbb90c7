#include "bench/bench_support.h"

#include <bpf/bpf.h>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "ipc/socket_utils.h"
#include "quor/quor_bpf_records.h"
#include "service/quor_bpf_service_settings.h"
#include "tools/loader/quor_bpf_loader.h"

namespace quor_bench {

namespace {

constexpr const char* kSocketName = "/mnt/bpfframework/quorbpfdispatcher";
constexpr const char* kLogDirForService = "/data/quorlog/stability/quorbpfframework";

uint64_t ReadSchedstatNs(const std::string& path) {
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) return 0;
    unsigned long long runNs = 0;
    if (fscanf(file, "%llu", &runNs) != 1) runNs = 0;
    (void)fclose(file);
    return runNs;
}

}  // namespace

std::string Format(const char* format, ...) {
    char text[256];
    va_list args;
    va_start(args, format);
    (void)vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

std::string Verdict(bool met) {
    return met ? "ok" : "MISSED";
}

void AddRow(const std::string& figure, const std::string& value, const std::string& baseline,
            double ratio, const std::string& target, const std::string& verdict) {
    const char* path = getenv("QUOR_BENCH_TABLE");
    FILE* out = path != nullptr ? fopen(path, "ae") : stdout;
    if (out == nullptr) out = stdout;
    const std::string ratioText = ratio < 0 ? "-" : Format("%.2f", ratio);
    fprintf(out, "%s\t%s\t%s\t%s\t%s\t%s\n", figure.c_str(), value.c_str(), baseline.c_str(),
            ratioText.c_str(), target.c_str(), verdict.c_str());
    if (out != stdout) (void)fclose(out);
    // The programme's own output says what it found as it goes, too.
    fprintf(stderr, "[table] %s: %s (baseline %s, ratio %s, target %s) %s\n", figure.c_str(),
            value.c_str(), baseline.c_str(), ratioText.c_str(), target.c_str(), verdict.c_str());
}

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 == 1 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

double Percentile(std::vector<double>* values, double p) {
    if (values->empty()) return 0;
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * values->size()));
    if (rank == 0) rank = 1;
    if (rank > values->size()) rank = values->size();
    std::nth_element(values->begin(), values->begin() + (rank - 1), values->end());
    return (*values)[rank - 1];
}

uint64_t ThreadCpuNs(pid_t pid, pid_t tid) {
    return ReadSchedstatNs("/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) +
                           "/schedstat");
}

uint64_t ProcessCpuNs(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* tasks = opendir(dir.c_str());
    if (tasks == nullptr) return 0;
    uint64_t total = 0;
    while (const dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') continue;
        total += ReadSchedstatNs(dir + "/" + entry->d_name + "/schedstat");
    }
    (void)closedir(tasks);
    return total;
}

int64_t ResidentBytes(pid_t pid) {
    FILE* file = fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "re");
    if (file == nullptr) return -1;
    char line[256];
    int64_t bytes = -1;
    while (fgets(line, sizeof(line), file) != nullptr) {
        long long kb = 0;
        if (sscanf(line, "VmRSS: %lld kB", &kb) == 1) {
            bytes = kb * 1024;
            break;
        }
    }
    (void)fclose(file);
    return bytes;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return true;
}

bool PrepareKernelSide(std::string* error) {
    if (geteuid() != 0) {
        *error = "needs root (BPF programmes, private namespaces)";
        return false;
    }
    Quor::Bpf::QuorBpfLoadReport report;
    if (Quor::Bpf::QuorBpfLoader::Load(Quor::Bpf::QuorBpfLoader::Options(), &report) != 0) {
        *error = "loading the programme sets failed:";
        for (const auto& failure : report.failures) *error += " " + failure;
        return false;
    }
    if (system((std::string("mkdir -p ") + kLogDirForService).c_str()) != 0) {
        *error = "cannot create the service's log directory";
        return false;
    }
    return true;
}

uint64_t ReadStatusWord(int index) {
    const int fd = bpf_obj_get(Quor::Bpf::RINGBUF_STATUS_PATHS[index]);
    if (fd < 0) return 0;
    const uint32_t key = QUOR_STATUS_KEY_FLAGS;
    uint64_t word = 0;
    (void)bpf_map_lookup_elem(fd, &key, &word);
    close(fd);
    return word;
}

bool WriteStatusWord(int index, uint64_t word) {
    const int fd = bpf_obj_get(Quor::Bpf::RINGBUF_STATUS_PATHS[index]);
    if (fd < 0) return false;
    const uint32_t key = QUOR_STATUS_KEY_FLAGS;
    const bool ok = bpf_map_update_elem(fd, &key, &word, BPF_ANY) == 0;
    close(fd);
    return ok;
}

std::string DaemonPath() {
    const char* path = getenv("QUOR_BENCH_DAEMON");
    return path != nullptr ? path : QUOR_BPFD_PATH;
}

std::string LogDir() {
    const char* dir = getenv("QUOR_BENCH_LOG_DIR");
    return dir != nullptr ? dir : "/tmp";
}

bool BenchDaemon::Start(const std::string& logName, std::string* error, bool lowLatency) {
    Stop();
    const uint64_t on = QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON;
    (void)WriteStatusWord(Quor::Bpf::RINGBUF_MAIN, 0);
    (void)WriteStatusWord(Quor::Bpf::RINGBUF_GPL, 0);
    const std::string daemon = DaemonPath();
    const std::string log = LogDir() + "/" + logName;
    const pid_t child = fork();
    if (child < 0) {
        *error = std::string("fork: ") + strerror(errno);
        return false;
    }
    if (child == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd >= 0) {
            (void)dup2(fd, STDOUT_FILENO);
            (void)dup2(fd, STDERR_FILENO);
        }
        const char* mode =
            lowLatency ? "persist.sys.quorbpf.low_latency=1" : "persist.sys.quorbpf.low_latency=0";
        execl(daemon.c_str(), daemon.c_str(), "--no-load", "--property", "sys.quor_bpf_ready=1",
              "--property", mode, static_cast<char*>(nullptr));
        _exit(127);
    }
    pid_ = child;
    const bool ready = WaitFor(
        [&] {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return true;
            }
            return ReadStatusWord(Quor::Bpf::RINGBUF_MAIN) == on &&
                   ReadStatusWord(Quor::Bpf::RINGBUF_GPL) == on;
        },
        std::chrono::seconds(60));
    if (pid_ < 0) {
        *error = "the daemon ended at start; see " + log;
        return false;
    }
    if (!ready) {
        *error = "the daemon did not switch its programmes on within 60 s; see " + log;
        Stop();
        return false;
    }
    const bool answers = WaitFor(
        [] {
            const int fd = ConnectToServer(kSocketName);
            if (fd < 0) return false;
            close(fd);
            return true;
        },
        std::chrono::seconds(10));
    if (!answers) {
        *error = "the daemon's socket does not answer; see " + log;
        Stop();
        return false;
    }
    return true;
}

void BenchDaemon::Stop() {
    if (pid_ <= 0) return;
    (void)kill(pid_, SIGINT);
    const bool ended =
        WaitFor([&] { return waitpid(pid_, nullptr, WNOHANG) == pid_; }, std::chrono::seconds(5));
    if (!ended) {
        (void)kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
}

}  // namespace quor_bench
