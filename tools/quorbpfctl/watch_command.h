// WatchCommand: `quorbpfctl watch`, the service's events as lines of text or
// JSON on stdout.
//
// Subscribes to the chosen types (all by default) through QuorBpfClient,
// filters on the client side by pid and name, formats each event with
// event_formatter.h and writes it at once (line-buffered, so a pipe into jq
// sees events as they come). A lost connection is reported on stderr and
// retried every second; the library renews the subscriptions when it is back.
//
//   WatchCommand watch(options, stdout, stderr);
//   return watch.Run();   // until SIGINT/SIGTERM/SIGHUP, --count, or a closed stdout
//
// Run() blocks the stop signals in the calling thread before the client's
// thread starts, and waits for them itself; call it from the main thread.
// Accept() and Format() are what the callback does per event; they are
// public for tests.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "tools/quorbpfctl/comm_cache.h"
#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/event_formatter.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

class WatchCommand {
public:
    WatchCommand(const CtlOptions& options, FILE* out, FILE* err);

    int Run();

    // Whether `event` passes --pid and --comm; `comm` is its process name.
    bool Accept(const DecodedEvent& event, const std::string& comm) const;
    // The line for one record, or "" when the filters drop it.
    std::string Format(uint32_t type, const uint8_t* data, size_t length,
                       const EventContext& context);

private:
    void OnEvent(uint32_t type, const uint8_t* data, size_t length);

    const CtlOptions& options_;
    FILE* out_;
    FILE* err_;
    CommCache comms_;
    std::atomic<uint64_t> printed_{0};
    std::atomic<bool> done_{false};
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
