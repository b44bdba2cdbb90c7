// Command line of quorbpfctl: which command, its options, and the help texts.
//
//   CtlOptions options;
//   std::string error;
//   if (ParseCtlArguments({argv + 1, argv + argc}, &options, &error) != kExitOk) ...
//   if (options.help) { fputs(UsageText(options.command).c_str(), stdout); ... }
//
// Options take their value as "--name VALUE" or "--name=VALUE". Event types
// are numbers (0 to 7, 50001 to 50004) or names ("sched_task_create",
// "task_new", ...), also comma-separated. Pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {
namespace Ctl {

constexpr const char* kDefaultPidFile = "/run/quorbpfd.pid";
constexpr const char* kDefaultDumpDir = "/data/quorlog/stability/quorbpfframework";
constexpr const char* kDaemonName = "quorbpfd";

enum class CtlCommand { kNone, kWatch, kTasks, kStats, kTop, kRecord, kExporter };

struct CtlOptions {
    CtlCommand command = CtlCommand::kNone;
    bool help = false;

    // Where the service is.
    std::string socketName;  // empty: the library's default
    int32_t daemonPid = 0;   // 0: pid file, then a search of /proc
    std::string pidFile = kDefaultPidFile;
    std::string dumpDir = kDefaultDumpDir;
    int timeoutMs = 5000;
    bool verbose = false;  // let the client library log to stderr

    // watch
    std::vector<uint32_t> types;  // empty: all
    bool json = false;
    std::vector<int32_t> pids;
    std::string comm;
    uint64_t count = 0;  // stop after this many events; 0: never

    // tasks
    bool normal = false;
    bool noKernel = false;

    // stats
    std::string plotPath;
    bool linear = false;

    // record (and `types` above)
    int durationS = 0;  // 0: until Ctrl-C
    std::string outputPath;
    uint64_t maxSizeMiB = 256;  // the recording stops there

    // exporter
    std::string listen = "127.0.0.1:9469";
    int topN = 20;
    std::string textfileDir;  // set: write files instead of serving
    int intervalS = 15;       // between textfile writes
};

// kExitOk, or kExitUsage with `error` set.
int ParseCtlArguments(const std::vector<std::string>& args, CtlOptions* options,
                      std::string* error);

// One event type from a number or a name; false with `error` set otherwise.
bool ParseEventType(const std::string& text, uint32_t* type, std::string* error);

// Every type a client can subscribe to, in id order.
const std::vector<uint32_t>& AllEventTypes();

// Help for one command, or the overview for kNone.
std::string UsageText(CtlCommand command);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
