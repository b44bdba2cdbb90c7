#include "tools/quorbpfctl/record_command.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "quor/quorbpf_client.h"
#include "quor/quorbpf_event_views.h"
#include "tools/quorbpfctl/comm_cache.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/stop_signals.h"
#include "tools/quorbpfctl/task_snapshot.h"
#include "tools/quorbpfctl/trace_model.h"
#include "tools/quorbpfctl/trace_writer.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr int kReconnectIntervalMs = 1000;
constexpr size_t kFileBuffer = 1 << 20;
// Records that arrive while the task table is fetched wait for it, up to this much.
constexpr size_t kMaxEarlyBytes = 64 << 20;

struct EarlyRecord {
    uint32_t type;
    int64_t receivedNs;
    std::vector<uint8_t> bytes;
};

int64_t MonotonicNs() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

std::vector<TraceProcess> FromTaskTable(const TaskDump& dump) {
    std::vector<TraceProcess> processes;
    for (const TaskRow& row : dump.rows) {
        TraceProcess p;
        p.pid = row.pid;
        p.ppid = row.ppid;
        p.comm = row.comm;
        p.threads = row.threads;
        p.anon = row.anonKb * 1024;
        p.file = row.fileKb * 1024;
        p.swap = row.swapKb * 1024;
        p.shmem = row.shmemKb * 1024;
        processes.push_back(p);
    }
    return processes;
}

}  // namespace

int RunRecordCommand(const CtlOptions& options, FILE* err) {
    const std::string path = options.outputPath.empty() ? kDefaultTraceFile : options.outputPath;
    // Before the client's (and the server's) threads exist.
    const sigset_t stop = BlockStopSignals();

    FILE* file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        fprintf(err, "quorbpfctl: cannot write %s: %s\n", path.c_str(), strerror(errno));
        return errno == EACCES || errno == EPERM ? kExitPermission : kExitFailure;
    }
    setvbuf(file, nullptr, _IOFBF, kFileBuffer);

    std::mutex mutex;  // the writer and the model: client thread and this one
    TraceWriter writer(file);
    TraceModel model(&writer, [](int32_t pid) { return CurrentComm(pid); });
    std::atomic<uint64_t> losses{0};
    // Until the task table is written, records wait here, so that the trace opens
    // with what was running and the records since follow it.
    bool seeded = false;
    std::vector<EarlyRecord> early;
    size_t earlyBytes = 0;
    uint64_t earlyDropped = 0;

    QuorBpfClient::Options clientOptions;
    if (!options.socketName.empty()) clientOptions.socketName = options.socketName;
    clientOptions.reconnectIntervalMs = kReconnectIntervalMs;
    QuorBpfClient client(
        [&](uint32_t type, const uint8_t* data, size_t length) {
            const int64_t now = MonotonicNs();
            std::lock_guard<std::mutex> lock(mutex);
            if (seeded) {
                model.OnRecord(type, data, length, now);
            } else if (earlyBytes + length <= kMaxEarlyBytes) {
                early.push_back({type, now, std::vector<uint8_t>(data, data + length)});
                earlyBytes += length;
            } else {
                ++earlyDropped;
            }
        },
        clientOptions);
    std::atomic<bool> connectedOnce{false};
    std::atomic<bool> stopping{false};
    client.setConnectionCallback([&](bool connected) {
        if (stopping.load()) return;
        if (!connectedOnce.load()) {
            if (connected) connectedOnce.store(true);
            return;
        }
        if (!connected) losses.fetch_add(1);
        fprintf(err, "\nquorbpfctl: %s\n",
                connected ? "reconnected to the service; events in between are missing"
                          : "lost the connection to the service; reconnecting");
    });
    const std::vector<uint32_t>& types = options.types.empty() ? AllEventTypes() : options.types;
    for (const uint32_t type : types) (void)client.subscribe(static_cast<int32_t>(type));
    if (!client.connect(options.timeoutMs)) {
        fprintf(err, "quorbpfctl: the service is not running: nothing answered on its socket\n");
        fclose(file);
        (void)unlink(path.c_str());
        return kExitNotRunning;
    }

    TaskDump dump;
    const bool haveTable = FetchTaskSnapshot(options, &dump, err) == kExitOk;
    if (!haveTable) fprintf(err, "quorbpfctl: recording without the processes already running\n");
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (haveTable) model.AddRunning(FromTaskTable(dump), MonotonicNs());
        for (const EarlyRecord& record : early) {
            model.OnRecord(record.type, record.bytes.data(), record.bytes.size(),
                           record.receivedNs);
        }
        early = {};
        seeded = true;
    }

    const bool terminal = isatty(fileno(err)) != 0;
    const int64_t start = MonotonicNs();
    const int64_t end = options.durationS > 0 ? start + options.durationS * 1000000000LL : 0;
    int64_t nextReport = start;
    const uint64_t maxBytes = options.maxSizeMiB << 20;
    bool failed = false;
    bool full = false;
    const auto report = [&](const char* ending) {
        std::lock_guard<std::mutex> lock(mutex);
        fprintf(err, "%squorbpfctl record: %.0f s, %llu events, %.1f MiB, %llu dropped%s",
                terminal ? "\r" : "", (MonotonicNs() - start) / 1e9,
                static_cast<unsigned long long>(model.records()), writer.bytes() / 1048576.0,
                static_cast<unsigned long long>(model.undecodable() + earlyDropped), ending);
        fflush(err);
    };
    const timespec tick = {0, 100 * 1000 * 1000};
    while (!failed && !full) {
        const int64_t now = MonotonicNs();
        if (end != 0 && now >= end) break;
        if (now >= nextReport) {
            // Without a terminal a line every 10 s is enough for a log.
            report(terminal ? "" : "\n");
            nextReport = now + (terminal ? 1000000000LL : 10000000000LL);
        }
        if (sigtimedwait(&stop, nullptr, &tick) > 0) break;
        std::lock_guard<std::mutex> lock(mutex);
        failed = writer.failed();
        full = writer.bytes() >= maxBytes;
    }
    stopping.store(true);
    client.disconnect();
    report("\n");
    if (full) {
        fprintf(err, "quorbpfctl: stopped at --max-size %llu MiB\n",
                static_cast<unsigned long long>(options.maxSizeMiB));
    }
    bool ok = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        model.Finish(MonotonicNs());
        ok = writer.Close();
    }
    ok = fclose(file) == 0 && ok;
    if (!ok) {
        fprintf(err, "quorbpfctl: writing %s failed: %s\n", path.c_str(), strerror(errno));
        return kExitFailure;
    }
    fprintf(err, "quorbpfctl: trace written to %s (%llu trace events, %llu connection losses)\n",
            path.c_str(), static_cast<unsigned long long>(writer.events()),
            static_cast<unsigned long long>(losses.load()));
    return kExitOk;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
