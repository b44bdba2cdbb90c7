// The pipeline from the kernel's ring buffer to the clients, measured on the
// whole daemon against a minimal consumer of the same ring buffer.
//
// The record injector writes rss records (the commonest kind) for one
// registered process into the real, pinned main ring buffer at kernel speed.
//   service   tools/quorbpfd runs as a child with its defaults; it drains,
//             decodes (the rss handler updates the registered task), fans out
//             and sends; 1 or 8 library clients in this process receive and
//             count. The records wake the daemon by the real programmes'
//             rule. A second daemon with the low-latency reading mode on
//             gives the latency rows that name it.
//   baseline  with the daemon stopped, one thread drains the same ring
//             buffer with libbpf, frames every record exactly as the service
//             does (the same bytes on the wire) into 32 KiB writes to one
//             Unix stream socket (or the same bytes to each of 8), whose
//             reader (one per socket) parses the frames with the client
//             library's dispatcher and counts. The records wake it by the
//             kernel's own rule (wake a reader that has caught up).
//
// Figures (each repetition restarts the daemon; medians over repetitions,
// ratios taken within a repetition):
//   throughput  records per second each client receives, the injector kept
//               at most kMaxBacklog records ahead of the slowest client so
//               that nothing may be dropped; with 8 clients the aggregate
//               (8 x the slowest client's rate) against the 8-socket
//               baseline's, since 8 readers share the same 2 CPUs;
//   latency     the record's kernel timestamp (CLOCK_MONOTONIC, stamped as
//               it is written) to its arrival in the client's callback, at
//               a steady 20, 200, 10,000 and 100,000 records per second (at
//               least kMinLatencySamples records each): p50, p99;
//   CPU         the daemon's CPU time (all threads, schedstat) per million
//               records delivered to one client, against the baseline
//               consumer thread's.
// While it measures, the main status word holds only the core bit: the
// machine's own fork and exit records still flow, the rss programme's do not,
// so that the figures are the injected records'.
//
// Needs root; run through `make bench` (private namespaces).
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "service/quor_bpf_service_settings.h"
#include "tests/support/record_injector.h"

using namespace quor_bench;
using Quor::Bpf::QuorBpfClient;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kBenchPid = 4000001;  // above any pid_max: never a real process
constexpr int kRepetitions = 5;
// Records per throughput round (QUOR_BENCH_RECORDS overrides it, e.g. for a
// profile); the latency rounds are left out when QUOR_BENCH_NO_LATENCY is set.
int64_t gThroughputRecords = 1000000;
bool gLatencyRounds = true;
constexpr int64_t kMaxBacklog = 6000;
constexpr int kClientCount = 8;
constexpr uint32_t kMaxChunk = 1024;
constexpr int kSocketBuffer = 32768;
constexpr double kLatencySeconds = 1.0;
constexpr double kMinLatencySamples = 100;
constexpr int kRateCount = 4;
constexpr double kRates[kRateCount] = {20, 200, 10000, 100000};
constexpr const char* kRateNames[kRateCount] = {"20/s", "200/s", "10k/s", "100k/s"};

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

uint64_t MonotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + now.tv_nsec;
}

quor_rss_record BenchRecord() {
    quor_rss_record rec = {};
    rec.header.type = QUOR_EVENT_RSS_STAT;
    rec.pid = kBenchPid;
    rec.member = QUOR_RSS_FILE;
    rec.size = 1 << 20;  // constant: the handler updates the task, reports nothing
    return rec;
}

// Counts the bench records one receiver gets and, while timing, keeps each
// one's latency. Written by one receiving thread, read by the main thread.
struct Receiver {
    std::atomic<int64_t> count{0};
    std::atomic<bool> timing{false};
    std::vector<double> latencyUs;

    void onRecord(const uint8_t* data, size_t len) {
        if (len < sizeof(quor_rss_record)) return;
        int32_t pid = 0;
        memcpy(&pid, data + offsetof(quor_rss_record, pid), sizeof(pid));
        if (pid != kBenchPid) return;
        const int64_t n = count.load(std::memory_order_relaxed);
        if (timing.load(std::memory_order_relaxed) && n < static_cast<int64_t>(latencyUs.size())) {
            uint64_t stamped = 0;
            memcpy(&stamped, data + offsetof(quor_record_header, timestamp_ns), sizeof(stamped));
            latencyUs[n] = static_cast<double>(MonotonicNs() - stamped) / 1000.0;
        }
        count.store(n + 1, std::memory_order_release);
    }
};

int64_t Slowest(const std::vector<Receiver*>& receivers) {
    int64_t slowest = INT64_MAX;
    for (const Receiver* r : receivers) {
        slowest = std::min(slowest, r->count.load(std::memory_order_acquire));
    }
    return slowest;
}

// Injects `total` records, never more than kMaxBacklog ahead of the slowest
// receiver; false when the injector cannot run.
bool InjectThrottled(quor_test::RecordInjector* injector, uint32_t flags, int64_t total,
                     const std::vector<Receiver*>& receivers) {
    const quor_rss_record rec = BenchRecord();
    int64_t injected = 0;
    while (injected < total) {
        const int64_t room = kMaxBacklog - (injected - Slowest(receivers));
        if (room <= 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            continue;
        }
        const uint32_t chunk =
            static_cast<uint32_t>(std::min<int64_t>({room, total - injected, kMaxChunk}));
        const int refused = injector->Inject(&rec, sizeof(rec), chunk, flags);
        if (refused < 0) return false;
        injected += chunk - refused;
        if (refused > 0) std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    return true;
}

struct ThroughputResult {
    double perClientPerS = 0;
    double cpuNsPerRecord = 0;
};

// One throughput run; `cpu` reads the consumer's CPU time in ns.
bool ThroughputRound(quor_test::RecordInjector* injector, uint32_t flags,
                     const std::vector<Receiver*>& receivers, const std::function<uint64_t()>& cpu,
                     int64_t records, ThroughputResult* out) {
    for (Receiver* r : receivers) r->count.store(0);
    const uint64_t cpuBefore = cpu();
    const auto start = Clock::now();
    if (!InjectThrottled(injector, flags, records, receivers)) return false;
    if (!WaitFor([&] { return Slowest(receivers) >= records; }, std::chrono::seconds(60))) {
        fprintf(stderr, "throughput round: only %lld of %lld records arrived\n",
                static_cast<long long>(Slowest(receivers)), static_cast<long long>(records));
        return false;
    }
    const double seconds = SecondsSince(start);
    out->perClientPerS = records / seconds;
    out->cpuNsPerRecord = static_cast<double>(cpu() - cpuBefore) / records;
    return true;
}

struct LatencyResult {
    double p50Us = 0;
    double p99Us = 0;
};

// Records at a steady `rate` for kLatencySeconds, each stamped as written.
bool LatencyRound(quor_test::RecordInjector* injector, uint32_t flags, Receiver* receiver,
                  double rate, LatencyResult* out) {
    const quor_rss_record rec = BenchRecord();
    const double seconds = std::max(kLatencySeconds, kMinLatencySamples / rate);
    const size_t expected = static_cast<size_t>(rate * seconds);
    receiver->latencyUs.assign(expected + kMaxChunk, -1.0);
    receiver->count.store(0);
    receiver->timing.store(true);
    const auto start = Clock::now();
    int64_t injected = 0;
    for (;;) {
        const double elapsed = SecondsSince(start);
        if (elapsed >= seconds) break;
        const int64_t due = static_cast<int64_t>(rate * elapsed) - injected;
        if (due <= 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(20));
            continue;
        }
        const uint32_t chunk = static_cast<uint32_t>(std::min<int64_t>(due, kMaxChunk));
        const int refused =
            injector->Inject(&rec, sizeof(rec), chunk, flags | QUOR_INJECT_STAMP_TIME);
        if (refused < 0) return false;
        injected += chunk - refused;
    }
    const bool all =
        WaitFor([&] { return receiver->count.load() >= injected; }, std::chrono::seconds(10));
    receiver->timing.store(false);
    if (!all) {
        fprintf(stderr, "latency round: only %lld of %lld records arrived\n",
                static_cast<long long>(receiver->count.load()), static_cast<long long>(injected));
        return false;
    }
    // The first 2% are the warm-up (caches, the first wake-ups).
    std::vector<double> samples;
    const size_t got = std::min<size_t>(receiver->count.load(), receiver->latencyUs.size());
    for (size_t i = got / 50; i < got; ++i) samples.push_back(receiver->latencyUs[i]);
    out->p50Us = Percentile(&samples, 50);
    out->p99Us = Percentile(&samples, 99);
    return true;
}

// The minimal consumer: libbpf drains the ring buffer, each record is framed
// as the service frames it into a 32 KiB buffer, which goes to every socket
// (one per receiver) whenever it fills and after every drained batch.
class BaselineConsumer {
public:
    explicit BaselineConsumer(std::vector<Receiver*> receivers)
        : receivers_(std::move(receivers)) {}
    ~BaselineConsumer() { Stop(); }

    bool Start() {
        for (size_t i = 0; i < receivers_.size(); ++i) {
            int fds[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return false;
            writeFds_.push_back(fds[0]);
            readFds_.push_back(fds[1]);
            (void)setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
            (void)setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof(kSocketBuffer));
        }
        ringFd_ = bpf_obj_get(Quor::Bpf::RINGBUF_MAP_PATHS[Quor::Bpf::RINGBUF_MAIN]);
        if (ringFd_ < 0) return false;
        rb_ = ring_buffer__new(ringFd_, OnRecord, this, nullptr);
        if (rb_ == nullptr) return false;
        running_ = true;
        for (size_t i = 0; i < receivers_.size(); ++i) {
            readers_.emplace_back([this, i] { ReadLoop(readFds_[i], receivers_[i]); });
        }
        consumer_ = std::thread([this] {
            tid_.store(static_cast<pid_t>(syscall(SYS_gettid)));
            while (running_.load()) {
                // Woken by the kernel's rule alone it sometimes slept out its
                // whole timeout in million-record rounds (its rate fell to 1-1.5
                // M/s from 5-9): a short timeout keeps it a fair baseline.
                (void)ring_buffer__poll(rb_, 1);
                Flush();
            }
        });
        return WaitFor([this] { return tid_.load() != 0; }, std::chrono::seconds(5));
    }

    void Stop() {
        if (!running_.exchange(false)) return;
        if (consumer_.joinable()) consumer_.join();
        for (const int fd : writeFds_) (void)shutdown(fd, SHUT_WR);
        for (std::thread& reader : readers_) reader.join();
        ring_buffer__free(rb_);
        rb_ = nullptr;
        close(ringFd_);
        for (const int fd : writeFds_) close(fd);
        for (const int fd : readFds_) close(fd);
    }

    uint64_t CpuNs() const { return ThreadCpuNs(getpid(), tid_.load()); }

private:
    static int OnRecord(void* ctx, void* data, size_t size) {
        auto* self = static_cast<BaselineConsumer*>(ctx);
        const size_t frame = IPC_FRAME_HEADER_SIZE + IPC_PACKAGE_HEADER_SIZE + size;
        if (self->used_ + frame > sizeof(self->out_)) self->Flush();
        char* at = self->out_ + self->used_;
        const int64_t length = static_cast<int64_t>(IPC_PACKAGE_HEADER_SIZE + size);
        const uint32_t type = IPC_PACKAGE_EVENT;
        const uint32_t body = static_cast<uint32_t>(size);
        memcpy(at, &length, 8);
        memcpy(at + 8, &type, 4);
        memcpy(at + 12, &body, 4);
        memcpy(at + 16, data, size);
        self->used_ += frame;
        return 0;
    }

    void Flush() {
        for (const int fd : writeFds_) {
            for (size_t sent = 0; sent < used_;) {
                const ssize_t n = send(fd, out_ + sent, used_ - sent, MSG_NOSIGNAL);
                if (n <= 0) break;
                sent += static_cast<size_t>(n);
            }
        }
        used_ = 0;
    }

    static void ReadLoop(int fd, Receiver* receiver) {
        IpcPackageHandler handler({{IPC_PACKAGE_EVENT, [receiver](int, char* body, long length) {
                                        receiver->onRecord(reinterpret_cast<uint8_t*>(body),
                                                           static_cast<size_t>(length));
                                        return 0;
                                    }}});
        std::vector<char> storage(kSocketBuffer);
        BufferState buffer{0, 0, kSocketBuffer, storage.data()};
        for (;;) {
            SaveUnuseBuffer(&buffer);
            const ssize_t n = recv(fd, buffer.buffer + buffer.bufferDataCursor,
                                   buffer.bufferSize - buffer.bufferDataCursor, 0);
            if (n <= 0) return;
            buffer.bufferDataCursor += n;
            if (!handler.handleAllIpcPackageInBuffer(fd, &buffer)) return;
        }
    }

    std::vector<Receiver*> receivers_;
    std::vector<int> writeFds_;
    std::vector<int> readFds_;
    int ringFd_ = -1;
    ring_buffer* rb_ = nullptr;
    std::atomic<bool> running_{false};
    std::atomic<pid_t> tid_{0};
    std::thread consumer_;
    std::vector<std::thread> readers_;
    char out_[kSocketBuffer];
    size_t used_ = 0;
};

// Library clients of the running daemon, each with its own receiver.
class Clients {
public:
    bool Connect(int count) {
        for (int i = 0; i < count; ++i) {
            receivers_.push_back(std::make_unique<Receiver>());
            Receiver* receiver = receivers_.back().get();
            clients_.push_back(std::make_unique<QuorBpfClient>(
                [receiver](uint32_t, const uint8_t* data, size_t len) {
                    receiver->onRecord(data, len);
                }));
            if (!clients_.back()->connect(5000)) return false;
        }
        return true;
    }

    // Subscribes (or unsubscribes) clients [first, last) to the rss type and
    // waits for every answer.
    bool Subscribe(int first, int last, bool subscribe) {
        std::atomic<int> answered{0};
        std::atomic<int> failed{0};
        for (int i = first; i < last; ++i) {
            auto done = [&](int32_t status) {
                if (status != 0) failed.fetch_add(1);
                answered.fetch_add(1);
            };
            const bool sent = subscribe ? clients_[i]->subscribe(QUOR_EVENT_RSS_STAT, done)
                                        : clients_[i]->unsubscribe(QUOR_EVENT_RSS_STAT, done);
            if (!sent) return false;
        }
        return WaitFor([&] { return answered.load() == last - first; }, std::chrono::seconds(10)) &&
               failed.load() == 0;
    }

    std::vector<Receiver*> Receivers(int count) {
        std::vector<Receiver*> out;
        for (int i = 0; i < count; ++i) out.push_back(receivers_[i].get());
        return out;
    }

    void Disconnect() {
        for (auto& client : clients_) client->disconnect();
        clients_.clear();
        receivers_.clear();
    }

private:
    std::vector<std::unique_ptr<QuorBpfClient>> clients_;
    std::vector<std::unique_ptr<Receiver>> receivers_;
};

struct Repetition {
    ThroughputResult one;
    ThroughputResult eight;
    ThroughputResult baseline;
    ThroughputResult baselineEight;
    LatencyResult latency[kRateCount];
    LatencyResult lowLatency[kRateCount];
    LatencyResult baselineLatency[kRateCount];
};

// The daemon's rounds: throughput and latency with its defaults, or only
// latency with the low-latency reading mode on.
bool ServiceRounds(quor_test::RecordInjector* injector, bool lowLatency, Repetition* rep,
                   std::string* error) {
    BenchDaemon daemon;
    if (!daemon.Start("pipeline_bench.quorbpfd.log", error, lowLatency)) return false;
    (void)WriteStatusWord(Quor::Bpf::RINGBUF_MAIN, QUOR_STATUS_CORE_ON);
    const pid_t pid = daemon.pid();
    auto cpu = [pid] { return ProcessCpuNs(pid); };

    Clients clients;
    const int count = lowLatency ? 1 : kClientCount;
    if (!clients.Connect(count) || !clients.Subscribe(0, 1, true)) {
        *error = "cannot connect and subscribe the clients";
        return false;
    }
    // The registry learns the bench process first, as from a real fork.
    quor_fork_record fork = {};
    fork.header.type = QUOR_EVENT_TASK_CREATE;
    fork.ppid = 1;
    fork.pid = kBenchPid;
    fork.tid = kBenchPid;
    memcpy(fork.comm, "quorbench", 9);
    fork.kind = QUOR_TASK_KIND_PROCESS;
    if (injector->Inject(&fork, sizeof(fork), 1, QUOR_INJECT_PACED) != 0) {
        *error = "cannot inject";
        return false;
    }
    const uint32_t paced = QUOR_INJECT_PACED;
    ThroughputResult warmUp;
    bool ok = ThroughputRound(injector, paced, clients.Receivers(1), cpu, gThroughputRecords / 10,
                              &warmUp);
    if (ok && !lowLatency) {
        ok = ThroughputRound(injector, paced, clients.Receivers(1), cpu, gThroughputRecords,
                             &rep->one) &&
             clients.Subscribe(1, kClientCount, true) &&
             ThroughputRound(injector, paced, clients.Receivers(kClientCount), cpu,
                             gThroughputRecords, &rep->eight) &&
             clients.Subscribe(1, kClientCount, false);
    }
    LatencyResult* latency = lowLatency ? rep->lowLatency : rep->latency;
    for (int i = 0; ok && gLatencyRounds && i < kRateCount; ++i) {
        ok = LatencyRound(injector, paced, clients.Receivers(1)[0], kRates[i], &latency[i]);
    }
    clients.Disconnect();
    daemon.Stop();
    if (!ok) *error = "a service round failed";
    return ok;
}

bool BaselineRounds(quor_test::RecordInjector* injector, Repetition* rep, std::string* error) {
    {
        Receiver receiver;
        BaselineConsumer consumer({&receiver});
        if (!consumer.Start()) {
            *error = "cannot start the baseline consumer";
            return false;
        }
        auto cpu = [&consumer] { return consumer.CpuNs(); };
        ThroughputResult warmUp;
        bool ok =
            ThroughputRound(injector, 0, {&receiver}, cpu, gThroughputRecords / 10, &warmUp) &&
            ThroughputRound(injector, 0, {&receiver}, cpu, gThroughputRecords, &rep->baseline);
        for (int i = 0; ok && gLatencyRounds && i < kRateCount; ++i) {
            ok = LatencyRound(injector, 0, &receiver, kRates[i], &rep->baselineLatency[i]);
        }
        if (!ok) {
            *error = "a baseline round failed";
            return false;
        }
    }
    std::vector<std::unique_ptr<Receiver>> owned;
    std::vector<Receiver*> receivers;
    for (int i = 0; i < kClientCount; ++i) {
        owned.push_back(std::make_unique<Receiver>());
        receivers.push_back(owned.back().get());
    }
    BaselineConsumer consumer(receivers);
    if (!consumer.Start()) {
        *error = "cannot start the 8-socket baseline consumer";
        return false;
    }
    auto cpu = [&consumer] { return consumer.CpuNs(); };
    if (!ThroughputRound(injector, 0, receivers, cpu, gThroughputRecords, &rep->baselineEight)) {
        *error = "the 8-socket baseline round failed";
        return false;
    }
    return true;
}

template <typename F>
std::vector<double> Collect(const std::vector<Repetition>& reps, F f) {
    std::vector<double> values;
    for (const Repetition& rep : reps) values.push_back(f(rep));
    return values;
}

void LatencyRows(const std::vector<Repetition>& reps, bool lowLatency, int* row) {
    for (int i = 0; i < kRateCount; ++i) {
        auto pick = [lowLatency, i](const Repetition& r) {
            return lowLatency ? r.lowLatency[i] : r.latency[i];
        };
        const double p50 =
            Median(Collect(reps, [&](const Repetition& r) { return pick(r).p50Us; }));
        const double p99 =
            Median(Collect(reps, [&](const Repetition& r) { return pick(r).p99Us; }));
        const double b50 =
            Median(Collect(reps, [i](const Repetition& r) { return r.baselineLatency[i].p50Us; }));
        const double b99 =
            Median(Collect(reps, [i](const Repetition& r) { return r.baselineLatency[i].p99Us; }));
        const char* mode = lowLatency ? ", low_latency=1" : "";
        AddRow(Format("2.%d latency p50 at %s%s (us)", ++*row, kRateNames[i], mode),
               Format("%.0f", p50), Format("%.0f", b50), b50 > 0 ? p50 / b50 : -1, "-", "");
        const double target = lowLatency ? 500 : 2000;
        AddRow(Format("2.%d latency p99 at %s%s (us)", ++*row, kRateNames[i], mode),
               Format("%.0f", p99), Format("%.0f", b99), b99 > 0 ? p99 / b99 : -1,
               Format("< %.0f us", target), Verdict(p99 < target));
    }
}

void Report(const std::vector<Repetition>& reps) {
    const double one =
        Median(Collect(reps, [](const Repetition& r) { return r.one.perClientPerS; }));
    const double eight =
        Median(Collect(reps, [](const Repetition& r) { return r.eight.perClientPerS; }));
    const double base =
        Median(Collect(reps, [](const Repetition& r) { return r.baseline.perClientPerS; }));
    const double baseEight =
        Median(Collect(reps, [](const Repetition& r) { return r.baselineEight.perClientPerS; }));
    const double oneRatio = Median(Collect(
        reps, [](const Repetition& r) { return r.one.perClientPerS / r.baseline.perClientPerS; }));
    const double eightRatio = Median(Collect(reps, [](const Repetition& r) {
        return r.eight.perClientPerS / r.baselineEight.perClientPerS;
    }));
    const double perClientRatio = Median(Collect(
        reps, [](const Repetition& r) { return r.eight.perClientPerS / r.one.perClientPerS; }));
    AddRow("1.1 throughput, 1 client (rec/s)", Format("%.0f", one), Format("%.0f", base), oneRatio,
           ">= 0.40 of baseline", Verdict(oneRatio >= 0.40));
    AddRow("1.2 throughput, 8 clients, aggregate (rec/s)", Format("%.0f", eight * kClientCount),
           Format("%.0f (8 sockets)", baseEight * kClientCount), eightRatio,
           ">= 0.80 of 8-socket base", Verdict(eightRatio >= 0.80));
    AddRow("1.3 throughput, 8 clients, per client (rec/s)", Format("%.0f", eight),
           Format("%.0f (1 client)", one), perClientRatio, "-", "");

    int row = 0;
    LatencyRows(reps, false, &row);
    LatencyRows(reps, true, &row);

    const double cpu =
        Median(Collect(reps, [](const Repetition& r) { return r.one.cpuNsPerRecord; }));
    const double baseCpu =
        Median(Collect(reps, [](const Repetition& r) { return r.baseline.cpuNsPerRecord; }));
    const double cpuRatio = Median(Collect(reps, [](const Repetition& r) {
        return r.one.cpuNsPerRecord / r.baseline.cpuNsPerRecord;
    }));
    // n ns per record are n ms per million records.
    AddRow("3.1 daemon CPU per 1M records, 1 client (ms)", Format("%.0f", cpu),
           Format("%.0f", baseCpu), cpuRatio, "-", "");
}

}  // namespace

int main() {
    std::string error;
    if (!PrepareKernelSide(&error)) {
        fprintf(stderr, "pipeline_bench: %s\n", error.c_str());
        return 77;
    }
    quor_test::RecordInjector injector;
    if (!injector.Open(Quor::Bpf::RINGBUF_MAP_PATHS[Quor::Bpf::RINGBUF_MAIN], &error,
                       Quor::Bpf::RINGBUF_STATUS_PATHS[Quor::Bpf::RINGBUF_MAIN])) {
        fprintf(stderr, "pipeline_bench: injector: %s\n", error.c_str());
        return 1;
    }
    // QUOR_BENCH_REPS overrides the repetitions (e.g. for a profile).
    const char* repsText = getenv("QUOR_BENCH_REPS");
    const int repetitions = repsText != nullptr ? atoi(repsText) : kRepetitions;
    if (const char* records = getenv("QUOR_BENCH_RECORDS")) gThroughputRecords = atoll(records);
    gLatencyRounds = getenv("QUOR_BENCH_NO_LATENCY") == nullptr;
    std::vector<Repetition> reps;
    for (int i = 0; i < repetitions; ++i) {
        Repetition rep;
        if (!ServiceRounds(&injector, false, &rep, &error) ||
            !ServiceRounds(&injector, true, &rep, &error) ||
            !BaselineRounds(&injector, &rep, &error)) {
            fprintf(stderr, "pipeline_bench: repetition %d: %s\n", i, error.c_str());
            continue;
        }
        fprintf(stderr,
                "rep %d: 1 client %.0f/s, 8 clients %.0f/s each, baseline %.0f/s, 8 sockets "
                "%.0f/s each; cpu %.0f vs %.0f ns/rec (8 clients %.0f vs %.0f); p99 at 200/s %.0f us "
                "(low latency %.0f, "
                "baseline %.0f), at 100k/s %.0f us (%.0f, %.0f)\n",
                i, rep.one.perClientPerS, rep.eight.perClientPerS, rep.baseline.perClientPerS,
                rep.baselineEight.perClientPerS, rep.one.cpuNsPerRecord,
                rep.baseline.cpuNsPerRecord, rep.eight.cpuNsPerRecord,
                rep.baselineEight.cpuNsPerRecord, rep.latency[1].p99Us, rep.lowLatency[1].p99Us,
                rep.baselineLatency[1].p99Us, rep.latency[3].p99Us, rep.lowLatency[3].p99Us,
                rep.baselineLatency[3].p99Us);
        reps.push_back(rep);
    }
    if (reps.empty()) {
        AddRow("1-3 pipeline", "failed", "-", -1, "-", "MISSED");
        return 1;
    }
    Report(reps);
    return 0;
}
