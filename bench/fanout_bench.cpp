// Fan-out throughput of the running service against a direct socket.
//
// FanOut/N: one producer thread hands 48-byte records to
// EventManager::AppendEvent; N clients of libquorbpfclient, subscribed to
// their type, receive them over the service's socket and count them. The
// producer keeps every client's backlog under 8000 records, below the queue
// bound, so that every record must arrive.
//
// Baseline: the same records, framed the same way (the same bytes on the
// wire), written through one Unix stream socket in 32 KiB writes, as the
// service's socket thread writes them, and parsed by one reader with the same
// package dispatcher the client library uses.
//
// Items per second are records per second that each client receives. After
// the runs a summary gives the ratios the targets are stated in:
//   FanOut/1 / Baseline        >= 0.40
//   FanOut/8 / FanOut/1        >= 0.80  (per client)
//   records lost               == 0
// Run it through `make bench` (private namespaces: it starts the service).
#include <android-base/properties.h>
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ipc/ipc_package.h"
#include "ipc/ipc_package_handler.h"
#include "quor/bpf_service_main.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "service/event_manager.h"

using namespace Quor::Bpf;

namespace {

constexpr int64_t kRecords = 300000;
constexpr size_t kRecordSize = 48;
constexpr int64_t kMaxBacklog = 8000;
constexpr int kBufferSize = 32768;

std::string MakeRecord() {
    quor_fork_record fork = {};
    fork.header.type = QUOR_EVENT_TASK_CREATE;
    fork.pid = 1234;
    memcpy(fork.comm, "bench", 5);
    static_assert(sizeof(fork) == kRecordSize, "48-byte records");
    return std::string(reinterpret_cast<const char*>(&fork), sizeof(fork));
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Reads frames from `fd` until `expected` records were dispatched.
void ReadFrames(int fd, int64_t expected, std::atomic<int64_t>* counted) {
    int64_t count = 0;
    IpcPackageHandler handler({{IPC_PACKAGE_EVENT, [&count](int, char*, long) {
                                    ++count;
                                    return 0;
                                }}});
    std::vector<char> storage(kBufferSize);
    BufferState buffer{0, 0, kBufferSize, storage.data()};
    while (count < expected) {
        SaveUnuseBuffer(&buffer);
        const ssize_t n = recv(fd, buffer.buffer + buffer.bufferDataCursor,
                               buffer.bufferSize - buffer.bufferDataCursor, 0);
        if (n <= 0) break;
        buffer.bufferDataCursor += n;
        if (!handler.handleAllIpcPackageInBuffer(fd, &buffer)) break;
    }
    counted->store(count);
}

std::string EventFrame(const std::string& record) {
    std::string frame;
    const int64_t length = IPC_PACKAGE_HEADER_SIZE + record.size();
    const uint32_t type = IPC_PACKAGE_EVENT;
    const uint32_t body = record.size();
    frame.append(reinterpret_cast<const char*>(&length), 8);
    frame.append(reinterpret_cast<const char*>(&type), 4);
    frame.append(reinterpret_cast<const char*>(&body), 4);
    return frame + record;
}

bool SendAll(int fd, const char* data, size_t size) {
    for (size_t sent = 0; sent < size;) {
        const ssize_t n = send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += n;
    }
    return true;
}

// The same frames straight through one socket: in writes of up to 32 KiB
// (batched) or one write per record.
void RunBaseline(benchmark::State& state, bool batched) {
    const std::string frame = EventFrame(MakeRecord());
    int64_t lost = 0;
    for (auto _ : state) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
            state.SkipWithError("socketpair failed");
            return;
        }
        (void)setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &kBufferSize, sizeof(kBufferSize));
        (void)setsockopt(fds[1], SOL_SOCKET, SO_RCVBUF, &kBufferSize, sizeof(kBufferSize));
        std::atomic<int64_t> counted{0};
        const auto start = std::chrono::steady_clock::now();
        std::thread reader(ReadFrames, fds[1], kRecords, &counted);
        std::vector<char> out(kBufferSize);
        size_t used = 0;
        for (int64_t i = 0; i < kRecords; ++i) {
            if (!batched) {
                SendAll(fds[0], frame.data(), frame.size());
                continue;
            }
            if (used + frame.size() > out.size()) {
                SendAll(fds[0], out.data(), used);
                used = 0;
            }
            memcpy(out.data() + used, frame.data(), frame.size());
            used += frame.size();
        }
        SendAll(fds[0], out.data(), used);
        reader.join();
        state.SetIterationTime(Seconds(start));
        lost += kRecords - counted.load();
        close(fds[0]);
        close(fds[1]);
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
    state.counters["lost"] = static_cast<double>(lost);
}

void BM_Baseline(benchmark::State& state) {
    RunBaseline(state, true);
}
void BM_BaselineWritePerRecord(benchmark::State& state) {
    RunBaseline(state, false);
}

void BM_FanOut(benchmark::State& state) {
    const int clientCount = static_cast<int>(state.range(0));
    std::vector<std::unique_ptr<std::atomic<int64_t>>> received;
    std::vector<std::unique_ptr<QuorBpfClient>> clients;
    for (int i = 0; i < clientCount; ++i) {
        received.push_back(std::make_unique<std::atomic<int64_t>>(0));
        std::atomic<int64_t>* count = received.back().get();
        clients.push_back(
            std::make_unique<QuorBpfClient>([count](uint32_t, const uint8_t*, size_t) {
                count->fetch_add(1, std::memory_order_relaxed);
            }));
        std::atomic<int32_t> status{1};
        if (!clients.back()->connect(5000) ||
            !clients.back()->subscribe(QUOR_EVENT_TASK_CREATE,
                                       [&status](int32_t s) { status.store(s); })) {
            state.SkipWithError("cannot reach the service");
            return;
        }
        while (status.load() == 1) std::this_thread::yield();
    }

    std::string record = MakeRecord();
    EventManager* events = EventManager::GetInstance();
    int64_t lost = 0;
    for (auto _ : state) {
        for (auto& count : received) count->store(0);
        const auto start = std::chrono::steady_clock::now();
        for (int64_t i = 0; i < kRecords; ++i) {
            if ((i & 255) == 0) {
                // Stay below the queue bound: nothing may be dropped.
                for (;;) {
                    int64_t slowest = INT64_MAX;
                    for (auto& count : received) slowest = std::min(slowest, count->load());
                    if (i - slowest < kMaxBacklog) break;
                    std::this_thread::yield();
                }
            }
            events->AppendEvent(&record[0], record.size());
        }
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        for (auto& count : received) {
            while (count->load() < kRecords && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::yield();
            }
        }
        state.SetIterationTime(Seconds(start));
        for (auto& count : received) lost += kRecords - count->load();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
    state.counters["clients"] = clientCount;
    state.counters["lost"] = static_cast<double>(lost);
    for (auto& client : clients) client->disconnect();
}

// The machine may be shared: each figure is the median of five runs.
BENCHMARK(BM_Baseline)
    ->UseManualTime()
    ->Iterations(3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BaselineWritePerRecord)
    ->UseManualTime()
    ->Iterations(3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FanOut)
    ->Arg(1)
    ->Arg(8)
    ->UseManualTime()
    ->Iterations(3)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMillisecond);

// Prints the runs as usual and keeps their rates for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    SummaryReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.aggregate_name == "median") {
                const auto items = run.counters.find("items_per_second");
                if (items != run.counters.end()) rates[run.run_name.str()] = items->second.value;
            }
            if (run.aggregate_name == "mean") {  // any loss in any run shows here
                const auto lostRecords = run.counters.find("lost");
                if (lostRecords != run.counters.end()) lost += lostRecords->second.value;
            }
        }
    }
    std::map<std::string, double> rates;
    double lost = 0;
};

double Find(const std::map<std::string, double>& rates, const std::string& prefix) {
    for (const auto& rate : rates) {
        if (rate.first.rfind(prefix, 0) == 0) return rate.second;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (system("mkdir -p /data/quorlog/stability/quorbpfframework") != 0) return 1;
    android::base::SetProperty("sys.quor_bpf_ready", "0");  // no kernel side
    if (BpfServiceMain() != 1) return 1;

    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double baseline = Find(reporter.rates, "BM_Baseline/");
    const double perRecord = Find(reporter.rates, "BM_BaselineWritePerRecord/");
    const double one = Find(reporter.rates, "BM_FanOut/1/");
    const double eight = Find(reporter.rates, "BM_FanOut/8/");
    if (baseline > 0 && one > 0 && eight > 0) {
        printf("\nrecords per second per client (48-byte records)\n");
        printf("  baseline, direct socket     %12.0f  (32 KiB writes)\n", baseline);
        if (perRecord > 0) {
            printf("  direct socket, one write per record %.0f: fan-out, 1 client is %.2f of it\n",
                   perRecord, one / perRecord);
        }
        printf("  fan-out, 1 client           %12.0f  %.2f of baseline (target >= 0.40) %s\n", one,
               one / baseline, one / baseline >= 0.40 ? "ok" : "MISSED");
        printf("  fan-out, 8 clients          %12.0f  %.2f of 1 client (target >= 0.80) %s\n",
               eight, eight / one, eight / one >= 0.80 ? "ok" : "MISSED");
        printf("  fan-out, 8 clients in total %12.0f  %.2f of baseline\n", 8 * eight,
               8 * eight / baseline);
        printf("  records lost                %12.0f  (target 0) %s\n", reporter.lost,
               reporter.lost == 0 ? "ok" : "MISSED");
    }
    benchmark::Shutdown();
    return 0;
}
