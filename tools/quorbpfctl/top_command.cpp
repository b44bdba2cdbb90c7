#include "tools/quorbpfctl/top_command.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "diag/quor_bpf_time.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "tools/quorbpfctl/comm_cache.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/event_formatter.h"
#include "tools/quorbpfctl/fetch_dump.h"
#include "tools/quorbpfctl/task_dump.h"
#include "tools/quorbpfctl/terminal_mode.h"
#include "tools/quorbpfctl/top_model.h"
#include "tools/quorbpfctl/top_screen.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr int kRefreshMs = 1000;
constexpr int kReconnectIntervalMs = 1000;

int64_t EpochMs() {
    return RealtimeNs() / 1000000;
}

void WriteAll(const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(STDOUT_FILENO, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return;
        done += static_cast<size_t>(wrote);
    }
}

}  // namespace

int RunTopCommand(const CtlOptions& options) {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        fprintf(stderr, "quorbpfctl: top needs a terminal (try `quorbpfctl tasks` in scripts)\n");
        return kExitNotATerminal;
    }
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGWINCH}) sigaddset(&signals, signo);
    // Before the client's thread exists: only the signalfd sees these.
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd < 0) {
        fprintf(stderr, "quorbpfctl: signalfd: %s\n", strerror(errno));
        return kExitFailure;
    }

    // The model is fed from the client's thread; the cache belongs to it.
    CommCache comms;
    TopModel model([&comms](int32_t pid) { return comms.Lookup(pid); });
    QuorBpfClient::Options clientOptions;
    if (!options.socketName.empty()) clientOptions.socketName = options.socketName;
    clientOptions.reconnectIntervalMs = kReconnectIntervalMs;
    QuorBpfClient client([&model](uint32_t type, const uint8_t* data,
                                  size_t length) { model.OnEvent(type, data, length, EpochMs()); },
                         clientOptions);
    client.setConnectionCallback([&model](bool connected) { model.SetConnected(connected); });
    const int32_t kTypes[] = {QUOR_EVENT_RSS_STAT,    QUOR_EVENT_TASK_CREATE,
                              QUOR_EVENT_TASK_EXIT,   QUOR_SERVICE_TASK_NEW,
                              QUOR_SERVICE_TASK_EXIT, QUOR_SERVICE_RSS_CHANGE};
    for (const int32_t type : kTypes) {
        (void)client.subscribe(type);
    }
    if (!client.connect(options.timeoutMs)) {
        fprintf(stderr, "quorbpfctl: the service is not running: nothing answered on its socket\n");
        close(signalFd);
        return kExitNotRunning;
    }

    std::string text;
    int rc = FetchDump(
        options, kSignalTasksNormal, kTaskDumpFile,
        [](const std::string& contents) { return TaskDumpComplete(contents, true); }, &text,
        stderr);
    if (rc != kExitOk) {
        client.disconnect();
        close(signalFd);
        return rc;
    }
    TaskDump dump;
    std::string error;
    if (!ParseTaskDump(text, &dump, &error)) {
        fprintf(stderr, "quorbpfctl: %s\n", error.c_str());
        client.disconnect();
        close(signalFd);
        return kExitFailure;
    }
    model.LoadBaseline(dump, EpochMs());

    TerminalMode terminal;
    if (!terminal.Enter(STDIN_FILENO, STDOUT_FILENO, &error)) {
        fprintf(stderr, "quorbpfctl: %s\n", error.c_str());
        client.disconnect();
        close(signalFd);
        return kExitNotATerminal;
    }
    bool quit = false;
    int64_t nextDraw = 0;
    while (!quit) {
        const int64_t now = EpochMs();
        if (now >= nextDraw) {
            int rows = 0;
            int columns = 0;
            terminal.Size(&rows, &columns);
            model.Prune([](int32_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; });
            TopSnapshot snapshot = model.Snapshot(now, RowsForProcesses(rows), kTopRecentLines);
            // Names change at exec without an event: refresh the rows shown.
            for (TopRow& row : snapshot.rows) {
                const std::string comm = CurrentComm(row.pid);
                if (!comm.empty() && comm != row.comm) {
                    row.comm = comm;
                    model.Rename(row.pid, comm);
                }
            }
            WriteAll(RenderTopScreen(snapshot, FormatLocalTime(now * 1000000, false).substr(0, 8),
                                     rows, columns));
            nextDraw = now + kRefreshMs;
        }
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {signalFd, POLLIN, 0}};
        const int ready =
            poll(fds, 2, static_cast<int>(nextDraw - EpochMs() > 0 ? nextDraw - EpochMs() : 0));
        if (ready < 0 && errno != EINTR) break;
        if (fds[0].revents & (POLLHUP | POLLERR)) break;
        if (fds[0].revents & POLLIN) {
            char keys[64];
            const ssize_t got = read(STDIN_FILENO, keys, sizeof(keys));
            if (got == 0) break;
            for (ssize_t i = 0; i < got; ++i) {
                if (keys[i] == 'q' || keys[i] == 'Q' || keys[i] == 3) quit = true;
            }
        }
        if (fds[1].revents & POLLIN) {
            signalfd_siginfo info = {};
            while (read(signalFd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
                if (info.ssi_signo == SIGWINCH) {
                    nextDraw = 0;
                } else {
                    quit = true;
                }
            }
        }
    }
    terminal.Restore();
    client.disconnect();
    close(signalFd);
    return kExitOk;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
