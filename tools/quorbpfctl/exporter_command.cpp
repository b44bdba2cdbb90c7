#include "tools/quorbpfctl/exporter_command.h"

#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "quor/quorbpf_client.h"
#include "tools/quorbpfctl/comm_cache.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/exporter_metrics.h"
#include "tools/quorbpfctl/metrics_http_server.h"
#include "tools/quorbpfctl/stop_signals.h"
#include "tools/quorbpfctl/task_snapshot.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr int kReconnectIntervalMs = 1000;

bool Alive(int32_t pid) {
    return kill(pid, 0) == 0 || errno != ESRCH;
}

}  // namespace

bool WriteFileAtomically(const std::string& dir, const std::string& name, const std::string& text,
                         std::string* error) {
    // A dot file: the textfile collector reads only *.prom.
    const std::string temp = dir + "/." + name + "." + std::to_string(getpid());
    const std::string path = dir + "/" + name;
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        *error = "cannot write " + temp + ": " + strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) break;
        done += static_cast<size_t>(wrote);
    }
    const bool written = done == text.size() && fsync(fd) == 0;
    const int savedErrno = errno;
    close(fd);
    if (!written || rename(temp.c_str(), path.c_str()) != 0) {
        *error = "cannot write " + path + ": " + strerror(written ? errno : savedErrno);
        (void)unlink(temp.c_str());
        return false;
    }
    return true;
}

int RunExporterCommand(const CtlOptions& options, FILE* err) {
    // Before the client's (and the server's) threads exist.
    const sigset_t stop = BlockStopSignals();

    std::string error;
    sockaddr_storage address;
    if (options.textfileDir.empty() && !ParseListenAddress(options.listen, &address, &error)) {
        fprintf(err, "quorbpfctl: %s\n", error.c_str());
        return kExitUsage;
    }

    // The cache is used under the metrics' lock only.
    CommCache comms;
    ExporterMetrics metrics([&comms](int32_t pid) { return comms.Lookup(pid); });
    QuorBpfClient::Options clientOptions;
    if (!options.socketName.empty()) clientOptions.socketName = options.socketName;
    clientOptions.reconnectIntervalMs = kReconnectIntervalMs;
    QuorBpfClient client([&metrics](uint32_t type, const uint8_t* data,
                                    size_t length) { metrics.OnRecord(type, data, length); },
                         clientOptions);
    client.setConnectionCallback([&metrics](bool connected) { metrics.OnConnection(connected); });
    for (const uint32_t type : AllEventTypes()) (void)client.subscribe(static_cast<int32_t>(type));
    if (!client.connect(options.timeoutMs)) {
        fprintf(err, "quorbpfctl: the service is not running: nothing answered on its socket\n");
        return kExitNotRunning;
    }
    TaskDump dump;
    if (FetchTaskSnapshot(options, &dump, err) == kExitOk) {
        metrics.AddRunning(dump);
    } else {
        fprintf(err, "quorbpfctl: without the task table only processes seen since are known\n");
    }

    const size_t top = static_cast<size_t>(options.topN);
    const auto render = [&metrics, top] {
        metrics.Prune(Alive);
        return metrics.Render(top);
    };
    MetricsHttpServer server;
    if (options.textfileDir.empty()) {
        if (!server.Start(options.listen, render, &error)) {
            fprintf(err, "quorbpfctl: %s\n", error.c_str());
            client.disconnect();
            return kExitFailure;
        }
        const size_t colon = options.listen.rfind(':');
        fprintf(err, "quorbpfctl: serving http://%s:%u/metrics\n",
                colon == 0 ? "127.0.0.1" : options.listen.substr(0, colon).c_str(), server.port());
        fflush(err);
    }

    int rc = kExitOk;
    timespec wait = {options.textfileDir.empty() ? 3600 : options.intervalS, 0};
    for (;;) {
        if (!options.textfileDir.empty()) {
            if (!WriteFileAtomically(options.textfileDir, kTextfileName, render(), &error)) {
                fprintf(err, "quorbpfctl: %s\n", error.c_str());
                rc = kExitFailure;
                break;
            }
        }
        if (sigtimedwait(&stop, nullptr, &wait) > 0) break;
    }
    server.Stop();
    client.disconnect();
    return rc;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
