#include "tools/quorbpfctl/watch_command.h"

#include <signal.h>
#include <time.h>

#include <algorithm>

#include "quor/quorbpf_client.h"
#include "quor/quorbpf_event_views.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/stop_signals.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr int kReconnectIntervalMs = 1000;

bool EndsProcess(const DecodedEvent& event) {
    if (event.type == QUOR_SERVICE_TASK_EXIT) return true;
    if (event.type != QUOR_EVENT_TASK_EXIT) return false;
    for (const EventField& field : event.fields) {
        if (field.kind == EventField::Kind::kText && field.text == "process") return true;
    }
    return false;
}

}  // namespace

WatchCommand::WatchCommand(const CtlOptions& options, FILE* out, FILE* err)
    : options_(options), out_(out), err_(err) {}

bool WatchCommand::Accept(const DecodedEvent& event, const std::string& comm) const {
    if (!options_.pids.empty()) {
        const bool parentCounts =
            event.type == QUOR_EVENT_TASK_CREATE || event.type == QUOR_SERVICE_TASK_NEW;
        const bool match = std::any_of(options_.pids.begin(), options_.pids.end(), [&](int32_t p) {
            return p == event.pid || (parentCounts && p == event.ppid);
        });
        if (!match) return false;
    }
    if (!options_.comm.empty() && comm.find(options_.comm) == std::string::npos) return false;
    return true;
}

std::string WatchCommand::Format(uint32_t type, const uint8_t* data, size_t length,
                                 const EventContext& context) {
    const DecodedEvent event = DecodeEvent(type, data, length);
    std::string comm;
    if (event.error.empty()) {
        if (event.hasComm) {
            comm = event.comm;
            comms_.Remember(event.pid, comm);
        } else {
            comm = comms_.Lookup(event.pid);
        }
    }
    std::string line;
    // A malformed record is shown unless a filter asks for something specific.
    const bool filtered = !options_.pids.empty() || !options_.comm.empty();
    if (event.error.empty() ? Accept(event, comm) : !filtered) {
        EventContext withNames = context;
        withNames.commOf = [&comm](int32_t) { return comm; };
        line =
            options_.json ? FormatEventJson(event, withNames) : FormatEventText(event, withNames);
    }
    if (event.error.empty() && EndsProcess(event)) comms_.Forget(event.pid);
    return line;
}

void WatchCommand::OnEvent(uint32_t type, const uint8_t* data, size_t length) {
    if (done_.load()) return;
    const std::string line = Format(type, data, length, EventContext::Now());
    if (line.empty()) return;
    if (fprintf(out_, "%s\n", line.c_str()) < 0 || fflush(out_) != 0) {
        // The reader went away (a closed pipe): nothing more to do.
        done_.store(true);
        return;
    }
    const uint64_t printed = printed_.fetch_add(1) + 1;
    if (options_.count != 0 && printed >= options_.count) done_.store(true);
}

int WatchCommand::Run() {
    // Before the client's (and the server's) threads exist.
    const sigset_t stop = BlockStopSignals();

    QuorBpfClient::Options clientOptions;
    if (!options_.socketName.empty()) clientOptions.socketName = options_.socketName;
    clientOptions.reconnectIntervalMs = kReconnectIntervalMs;
    QuorBpfClient client(
        [this](uint32_t type, const uint8_t* data, size_t length) { OnEvent(type, data, length); },
        clientOptions);
    std::atomic<bool> connectedOnce{false};
    std::atomic<bool> stopping{false};
    client.setConnectionCallback([this, &connectedOnce, &stopping](bool connected) {
        if (stopping.load()) return;
        if (!connectedOnce.load()) {
            if (connected) connectedOnce.store(true);
            return;
        }
        if (connected) {
            fprintf(err_, "quorbpfctl: reconnected to the service; subscriptions renewed\n");
        } else {
            fprintf(err_,
                    "quorbpfctl: lost the connection to the service; reconnecting every %d s\n",
                    kReconnectIntervalMs / 1000);
        }
        fflush(err_);
    });

    const std::vector<uint32_t>& types = options_.types.empty() ? AllEventTypes() : options_.types;
    for (const uint32_t type : types) {
        // Remembered before connecting: the first connection subscribes.
        (void)client.subscribe(static_cast<int32_t>(type), [this, type](int32_t status) {
            if (status == QUOR_BPF_STATUS_REFUSED) {
                fprintf(err_, "quorbpfctl: the service refused type %u (%s)\n", type,
                        QuorEventName(type));
                fflush(err_);
            }
        });
    }
    if (!client.connect(options_.timeoutMs)) {
        const std::string socket =
            options_.socketName.empty() ? QUOR_BPF_CLIENT_DEFAULT_SOCKET : options_.socketName;
        fprintf(err_,
                "quorbpfctl: the service is not running: nothing answered on the socket %s "
                "within %d s (start it with `make run` or quorbpfd)\n",
                socket.c_str(), options_.timeoutMs / 1000);
        return kExitNotRunning;
    }

    const timespec tick = {0, 100 * 1000 * 1000};
    while (!done_.load()) {
        const int signo = sigtimedwait(&stop, nullptr, &tick);
        if (signo > 0) break;
    }
    stopping.store(true);
    client.disconnect();
    fflush(out_);
    return kExitOk;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
