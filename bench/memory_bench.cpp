// The daemon's resident memory: its base after start (the machine's processes
// seeded, one client connected), then with 10,000 more tasks in the registry
// (fork records through the real ring buffer), then with 64 more idle
// clients (connected, one subscription each, no traffic).
//
// Needs root; run through `make bench` (private namespaces).
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "ipc/socket_utils.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "service/quor_bpf_service_settings.h"
#include "tests/support/raw_ipc_client.h"
#include "tests/support/record_injector.h"

using namespace quor_bench;

namespace {

constexpr int32_t kMarkerPid = 4000000;
constexpr uint32_t kFirstTaskPid = 4100000;  // above any pid_max
constexpr uint32_t kTasks = 10000;
// The service takes 64 clients; the checkpoint client holds one of them.
constexpr int kIdleClients = 63;
constexpr double kMiB = 1024.0 * 1024.0;

// Injects a marker and waits until the client has it: the daemon has handled
// everything injected before.
bool Checkpoint(quor_test::RecordInjector* injector, std::atomic<int>* markers) {
    quor_cgroup_attach_record marker = {};
    marker.header.type = QUOR_EVENT_CGROUP_ATTACH;
    marker.pid = kMarkerPid;
    const int before = markers->load();
    if (injector->Inject(&marker, sizeof(marker), 1, QUOR_INJECT_PACED) != 0) return false;
    return WaitFor([&] { return markers->load() > before; }, std::chrono::seconds(30));
}

// Reads one whole frame (the answer to a request) from a blocking socket.
bool ReadAnswer(int fd) {
    int64_t length = 0;
    if (recv(fd, &length, sizeof(length), MSG_WAITALL) != sizeof(length)) return false;
    if (length <= 0 || length > 4096) return false;
    std::vector<char> body(static_cast<size_t>(length));
    return recv(fd, body.data(), body.size(), MSG_WAITALL) == static_cast<ssize_t>(body.size());
}

}  // namespace

int main() {
    std::string error;
    if (!PrepareKernelSide(&error)) {
        fprintf(stderr, "memory_bench: %s\n", error.c_str());
        return 77;
    }
    quor_test::RecordInjector injector;
    if (!injector.Open(Quor::Bpf::RINGBUF_MAP_PATHS[Quor::Bpf::RINGBUF_MAIN], &error,
                       Quor::Bpf::RINGBUF_STATUS_PATHS[Quor::Bpf::RINGBUF_MAIN])) {
        fprintf(stderr, "memory_bench: injector: %s\n", error.c_str());
        return 1;
    }
    BenchDaemon daemon;
    if (!daemon.Start("memory_bench.quorbpfd.log", &error)) {
        fprintf(stderr, "memory_bench: %s\n", error.c_str());
        return 1;
    }
    std::atomic<int> markers{0};
    Quor::Bpf::QuorBpfClient client([&markers](uint32_t type, const uint8_t* data, size_t len) {
        int32_t pid = 0;
        if (type == QUOR_EVENT_CGROUP_ATTACH && len >= sizeof(quor_cgroup_attach_record)) {
            memcpy(&pid, data + offsetof(quor_cgroup_attach_record, pid), sizeof(pid));
        }
        if (pid == kMarkerPid) markers.fetch_add(1);
    });
    std::atomic<int> answered{0};
    if (!client.connect(5000) ||
        !client.subscribe(QUOR_EVENT_CGROUP_ATTACH, [&](int32_t) { answered.fetch_add(1); }) ||
        !WaitFor([&] { return answered.load() == 1; }, std::chrono::seconds(10)) ||
        !Checkpoint(&injector, &markers)) {
        fprintf(stderr, "memory_bench: cannot reach the daemon\n");
        return 1;
    }
    const int64_t base = ResidentBytes(daemon.pid());

    // 10,000 processes, as the fork programme reports them.
    quor_fork_record fork = {};
    fork.header.type = QUOR_EVENT_TASK_CREATE;
    fork.ppid = 1;
    memcpy(fork.comm, "quormemtask", 11);
    fork.kind = QUOR_TASK_KIND_PROCESS;
    uint32_t injected = 0;
    while (injected < kTasks) {
        const uint32_t chunk = std::min<uint32_t>(1000, kTasks - injected);
        const int refused =
            injector.Inject(&fork, sizeof(fork), chunk, QUOR_INJECT_PACED,
                            offsetof(quor_fork_record, pid), kFirstTaskPid + injected);
        if (refused < 0) return 1;
        injected += chunk - refused;
        if (refused > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!Checkpoint(&injector, &markers)) return 1;
    const int64_t withTasks = ResidentBytes(daemon.pid());

    std::vector<int> idle;
    for (int i = 0; i < kIdleClients; ++i) {
        const int fd = ConnectToServer("/mnt/bpfframework/quorbpfdispatcher");
        if (fd < 0) break;
        const int flags = fcntl(fd, F_GETFL);
        (void)fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
        const std::string request =
            quortest::Request(1, Quor::Bpf::QUOR_BPF_COMMAND_SUBSCRIBE, QUOR_SERVICE_TASK_NEW);
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(request.size()) ||
            !ReadAnswer(fd)) {
            close(fd);
            break;
        }
        idle.push_back(fd);
    }
    const int64_t withClients = ResidentBytes(daemon.pid());
    for (const int fd : idle) close(fd);
    client.disconnect();
    daemon.Stop();

    const double perTask = static_cast<double>(withTasks - base) / kTasks;
    const double perClient =
        idle.empty() ? 0 : static_cast<double>(withClients - withTasks) / idle.size();
    AddRow("5.1 daemon RSS at start (MiB)", Format("%.1f", base / kMiB), "-", -1, "< 16 MiB",
           Verdict(base < 16 * kMiB));
    AddRow("5.2 daemon RSS, 10,000 more tasks (MiB)",
           Format("%.1f (%.0f B/task)", withTasks / kMiB, perTask), Format("%.1f", base / kMiB),
           static_cast<double>(withTasks) / base, "< 1 KiB per task", Verdict(perTask < 1024));
    AddRow(Format("5.3 daemon RSS, %zu idle clients (MiB)", idle.size()),
           Format("%.1f (%.1f KiB/client)", withClients / kMiB, perClient / 1024),
           Format("%.1f", withTasks / kMiB), static_cast<double>(withClients) / withTasks, "-",
           idle.size() == static_cast<size_t>(kIdleClients) ? "" : "MISSED");
    return 0;
}
