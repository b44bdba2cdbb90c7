#include "tools/quorbpfctl/ctl_options.h"

#include <cerrno>
#include <cstdlib>

#include "quor/quorbpf_event_views.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

const char* const kCommonHelp =
    "common options:\n"
    "  --daemon-pid PID   the daemon to ask (default: the pid file, else the\n"
    "                     process named quorbpfd)\n"
    "  --pid-file PATH    the daemon's pid file (default /run/quorbpfd.pid)\n"
    "  --dir DIR          where the daemon writes its dumps\n"
    "                     (default /data/quorlog/stability/quorbpfframework)\n"
    "  --socket NAME      the service's abstract socket\n"
    "                     (default /mnt/bpfframework/quorbpfdispatcher)\n"
    "  --timeout SECONDS  how long to wait for the service or a dump (default 5)\n"
    "  -v, --verbose      show the client library's own log on stderr\n"
    "  -h, --help         this text\n";

const char* const kExitHelp =
    "exit codes:\n"
    "  0  done (watch, top, record, exporter: stopped by Ctrl-C, q, --count or\n"
    "     --duration)\n"
    "  1  other failure\n"
    "  2  bad arguments or unknown event type\n"
    "  3  service not running (no daemon, socket not answering)\n"
    "  4  permission denied (signalling the daemon, reading its files)\n"
    "  5  the daemon did not write the requested file in time\n"
    "  6  top needs a terminal\n";

std::string TypeList() {
    std::string out;
    for (const uint32_t type : AllEventTypes()) {
        out += "  " + std::to_string(type) + (type < 10 ? "      " : "  ") + QuorEventName(type) +
               "\n";
    }
    return out;
}

bool ParseInt(const std::string& text, int64_t min, int64_t max, int64_t* value) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    const long long parsed = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || parsed < min || parsed > max) return false;
    *value = parsed;
    return true;
}

std::vector<std::string> SplitCommas(const std::string& text) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t comma = text.find(',', start);
        const size_t end = comma == std::string::npos ? text.size() : comma;
        if (end > start) parts.push_back(text.substr(start, end - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return parts;
}

CtlCommand CommandByName(const std::string& name) {
    if (name == "watch") return CtlCommand::kWatch;
    if (name == "tasks") return CtlCommand::kTasks;
    if (name == "stats") return CtlCommand::kStats;
    if (name == "top") return CtlCommand::kTop;
    if (name == "record") return CtlCommand::kRecord;
    if (name == "exporter") return CtlCommand::kExporter;
    return CtlCommand::kNone;
}

}  // namespace

const std::vector<uint32_t>& AllEventTypes() {
    static const std::vector<uint32_t> kTypes = {
        QUOR_EVENT_TASK_INIT,   QUOR_EVENT_RSS_STAT,        QUOR_EVENT_TASK_CREATE,
        QUOR_EVENT_TASK_EXIT,   QUOR_EVENT_DMABUF_SIZE,     QUOR_EVENT_CGROUP_ATTACH,
        QUOR_EVENT_FD_UPDATE,   QUOR_EVENT_DMABUF_UPDATE,   QUOR_SERVICE_TASK_NEW,
        QUOR_SERVICE_TASK_EXIT, QUOR_SERVICE_THREAD_CHANGE, QUOR_SERVICE_RSS_CHANGE,
    };
    return kTypes;
}

bool ParseEventType(const std::string& text, uint32_t* type, std::string* error) {
    int64_t number = 0;
    if (!text.empty() && text[0] >= '0' && text[0] <= '9') {
        if (ParseInt(text, 0, UINT32_MAX, &number) &&
            QuorEventName(static_cast<uint32_t>(number)) != nullptr) {
            *type = static_cast<uint32_t>(number);
            return true;
        }
    } else {
        number = QuorEventTypeByName(text);
        if (number >= 0) {
            *type = static_cast<uint32_t>(number);
            return true;
        }
    }
    *error = "unknown event type '" + text + "'; known types:\n" + TypeList();
    return false;
}

int ParseCtlArguments(const std::vector<std::string>& args, CtlOptions* options,
                      std::string* error) {
    size_t i = 0;
    if (i < args.size() && (args[i] == "-h" || args[i] == "--help" || args[i] == "help")) {
        options->help = true;
        if (i + 1 < args.size()) options->command = CommandByName(args[i + 1]);
        return kExitOk;
    }
    if (i == args.size()) {
        *error = "a command is needed";
        return kExitUsage;
    }
    options->command = CommandByName(args[i]);
    if (options->command == CtlCommand::kNone) {
        *error = "unknown command '" + args[i] + "'";
        return kExitUsage;
    }
    const CtlCommand command = options->command;
    for (++i; i < args.size(); ++i) {
        std::string name = args[i];
        std::string value;
        bool hasValue = false;
        const size_t eq = name.find('=');
        if (name.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = name.substr(eq + 1);
            name = name.substr(0, eq);
            hasValue = true;
        }
        // Fetches the option's value from "=VALUE" or the next argument.
        const auto takeValue = [&]() {
            if (hasValue) return true;
            if (i + 1 >= args.size()) {
                *error = "option " + name + " needs a value";
                return false;
            }
            value = args[++i];
            return true;
        };
        const auto flag = [&](bool* target) {
            if (hasValue) {
                *error = "option " + name + " takes no value";
                return false;
            }
            *target = true;
            return true;
        };
        int64_t number = 0;
        if (name == "-h" || name == "--help") {
            options->help = true;
            return kExitOk;
        } else if (name == "-v" || name == "--verbose") {
            if (!flag(&options->verbose)) return kExitUsage;
        } else if (name == "--daemon-pid") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 1, INT32_MAX, &number)) {
                *error = "--daemon-pid needs a process id, got '" + value + "'";
                return kExitUsage;
            }
            options->daemonPid = static_cast<int32_t>(number);
        } else if (name == "--pid-file") {
            if (!takeValue()) return kExitUsage;
            options->pidFile = value;
        } else if (name == "--dir") {
            if (!takeValue()) return kExitUsage;
            options->dumpDir = value;
        } else if (name == "--socket") {
            if (!takeValue()) return kExitUsage;
            options->socketName = value;
        } else if (name == "--timeout") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 1, 3600, &number)) {
                *error = "--timeout needs seconds from 1 to 3600, got '" + value + "'";
                return kExitUsage;
            }
            options->timeoutMs = static_cast<int>(number) * 1000;
        } else if (command == CtlCommand::kWatch && name == "--json") {
            if (!flag(&options->json)) return kExitUsage;
        } else if (command == CtlCommand::kWatch && name == "--pid") {
            if (!takeValue()) return kExitUsage;
            for (const std::string& part : SplitCommas(value)) {
                if (!ParseInt(part, 0, INT32_MAX, &number)) {
                    *error = "--pid needs process ids, got '" + part + "'";
                    return kExitUsage;
                }
                options->pids.push_back(static_cast<int32_t>(number));
            }
        } else if (command == CtlCommand::kWatch && name == "--comm") {
            if (!takeValue()) return kExitUsage;
            options->comm = value;
        } else if (command == CtlCommand::kWatch && name == "--count") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 1, INT64_MAX, &number)) {
                *error = "--count needs a positive number, got '" + value + "'";
                return kExitUsage;
            }
            options->count = static_cast<uint64_t>(number);
        } else if (command == CtlCommand::kTasks && name == "--normal") {
            if (!flag(&options->normal)) return kExitUsage;
        } else if (command == CtlCommand::kTasks && name == "--no-kernel") {
            if (!flag(&options->noKernel)) return kExitUsage;
        } else if (command == CtlCommand::kStats && name == "--plot") {
            if (!takeValue()) return kExitUsage;
            options->plotPath = value;
        } else if (command == CtlCommand::kStats && name == "--linear") {
            if (!flag(&options->linear)) return kExitUsage;
        } else if (command == CtlCommand::kRecord && name == "--duration") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 1, 86400, &number)) {
                *error = "--duration needs seconds from 1 to 86400, got '" + value + "'";
                return kExitUsage;
            }
            options->durationS = static_cast<int>(number);
        } else if (command == CtlCommand::kRecord && name == "--max-size") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 1, 1 << 20, &number)) {
                *error = "--max-size needs MiB from 1 to 1048576, got '" + value + "'";
                return kExitUsage;
            }
            options->maxSizeMiB = static_cast<uint64_t>(number);
        } else if (command == CtlCommand::kRecord && (name == "-o" || name == "--output")) {
            if (!takeValue()) return kExitUsage;
            options->outputPath = value;
        } else if (command == CtlCommand::kRecord && name.rfind("-", 0) != 0) {
            for (const std::string& part : SplitCommas(name)) {
                uint32_t type = 0;
                if (!ParseEventType(part, &type, error)) return kExitUsage;
                options->types.push_back(type);
            }
        } else if (command == CtlCommand::kExporter && name == "--listen") {
            if (!takeValue()) return kExitUsage;
            options->listen = value;
        } else if (command == CtlCommand::kExporter && name == "--top") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 0, 10000, &number)) {
                *error = "--top needs a number from 0 to 10000, got '" + value + "'";
                return kExitUsage;
            }
            options->topN = static_cast<int>(number);
        } else if (command == CtlCommand::kExporter && name == "--textfile") {
            if (!takeValue()) return kExitUsage;
            options->textfileDir = value;
        } else if (command == CtlCommand::kExporter && name == "--interval") {
            if (!takeValue()) return kExitUsage;
            if (!ParseInt(value, 1, 3600, &number)) {
                *error = "--interval needs seconds from 1 to 3600, got '" + value + "'";
                return kExitUsage;
            }
            options->intervalS = static_cast<int>(number);
        } else if (command == CtlCommand::kWatch && name.rfind("-", 0) != 0) {
            for (const std::string& part : SplitCommas(name)) {
                uint32_t type = 0;
                if (!ParseEventType(part, &type, error)) return kExitUsage;
                options->types.push_back(type);
            }
        } else {
            *error = "unknown option '" + args[i] + "' for " + args[0];
            return kExitUsage;
        }
    }
    if (command == CtlCommand::kStats && options->linear && options->plotPath.empty()) {
        *error = "--linear applies to --plot";
        return kExitUsage;
    }
    return kExitOk;
}

std::string UsageText(CtlCommand command) {
    std::string text;
    switch (command) {
        case CtlCommand::kNone:
            text =
                "usage: quorbpfctl COMMAND [OPTIONS]\n"
                "\n"
                "Talks to the quorbpf kernel-event service (the quorbpfd daemon).\n"
                "\n"
                "commands:\n"
                "  watch [TYPE...]   print events as they happen (text or JSON lines)\n"
                "  tasks             the daemon's task table, largest memory first\n"
                "  stats             events per second per type; --plot draws an SVG\n"
                "  top               live view of the largest processes by resident memory\n"
                "  record [TYPE...]  write the events as a trace for Perfetto's UI or\n"
                "                    chrome://tracing\n"
                "  exporter          serve process and event metrics to Prometheus\n"
                "\n"
                "quorbpfctl COMMAND --help shows a command's options and examples.\n\n";
            break;
        case CtlCommand::kWatch:
            text =
                "usage: quorbpfctl watch [TYPE...] [--json] [--pid PID[,PID...]] [--comm TEXT]\n"
                "                        [--count N]\n"
                "\n"
                "Subscribes to the given event types (all when none is given) and prints\n"
                "one line per event: local time, type, pid, process name and the record's\n"
                "fields, sizes in KiB or MiB. Follows the service across restarts (says so\n"
                "on stderr). Ctrl-C stops it.\n"
                "\n"
                "  TYPE               a number or a name, also comma-separated:\n" +
                TypeList() +
                "  --json             one JSON object per line with every field (sizes in\n"
                "                     bytes), for jq and scripts\n"
                "  --pid PID          only events of these processes (a fork or task_new\n"
                "                     also matches its parent); repeatable\n"
                "  --comm TEXT        only events whose process name contains TEXT\n"
                "  --count N          stop after N events\n"
                "\n"
                "examples:\n"
                "  quorbpfctl watch\n"
                "  quorbpfctl watch sched_task_create sched_task_exit --comm bash\n"
                "  quorbpfctl watch rss_change --json | jq 'select(.rss_anon > 1e8)'\n"
                "  quorbpfctl watch 2,3 --pid $$\n\n";
            break;
        case CtlCommand::kTasks:
            text =
                "usage: quorbpfctl tasks [--normal] [--no-kernel]\n"
                "\n"
                "Asks the daemon for a dump of its task table (signals 51 to 54), waits\n"
                "until the file is written and prints it: one row per process, largest\n"
                "memory user first, sizes in KB.\n"
                "\n"
                "  --normal           the short set of columns (no previous values)\n"
                "  --no-kernel        leave out tasks without memory (kernel threads)\n"
                "\n"
                "examples:\n"
                "  quorbpfctl tasks --normal --no-kernel | head -20\n"
                "  quorbpfctl tasks --daemon-pid 1234\n\n";
            break;
        case CtlCommand::kStats:
            text =
                "usage: quorbpfctl stats [--plot FILE.svg [--linear]]\n"
                "\n"
                "Asks the daemon for its event statistics (signal 50), waits until the\n"
                "file is written and prints events per second per type over the last\n"
                "minute and over the whole window it keeps (up to 30 minutes).\n"
                "\n"
                "  --plot FILE.svg    also draw events per second per type over the window\n"
                "                     as an SVG chart (logarithmic axis)\n"
                "  --linear           a linear axis for the chart\n"
                "\n"
                "examples:\n"
                "  quorbpfctl stats\n"
                "  quorbpfctl stats --plot /tmp/quorbpf-rates.svg\n\n";
            break;
        case CtlCommand::kTop:
            text =
                "usage: quorbpfctl top\n"
                "\n"
                "A live view of the processes with the largest resident memory (anon +\n"
                "file + shmem), refreshed once a second. A task dump gives the starting\n"
                "figures; the service's events keep them current. Columns: RSS and its\n"
                "parts, the change over the last 10 seconds and since the view started.\n"
                "The bottom lines show the latest process starts, exits and big changes.\n"
                "q or Ctrl-C quits.\n"
                "\n"
                "examples:\n"
                "  quorbpfctl top\n"
                "  quorbpfctl top --daemon-pid 1234\n\n";
            break;
        case CtlCommand::kRecord:
            text =
                "usage: quorbpfctl record [TYPE...] [--duration S] [-o FILE] [--max-size MIB]\n"
                "\n"
                "Records the given event types (all when none is given) into a trace in\n"
                "the JSON trace-event format, which Perfetto's UI (ui.perfetto.dev) and\n"
                "chrome://tracing open. One track per process, named from its comm and\n"
                "listed beside its parent, with a slice from its start to its exit and\n"
                "counters for threads, memory (anon, file, swap, shmem) and dmabuf bytes;\n"
                "cgroup moves, descriptor-count crossings and dmabuf buffers are instant\n"
                "events. The processes already running come from the daemon's task table.\n"
                "Progress goes to stderr; Ctrl-C or the end of --duration closes the file.\n"
                "\n"
                "  TYPE               as for watch: a number or a name, comma-separated\n"
                "  --duration S       stop after S seconds (default: at Ctrl-C)\n"
                "  -o, --output FILE  the trace file (default quorbpf-trace.json)\n"
                "  --max-size MIB     stop when the file reaches this size (default 256,\n"
                "                     which browsers still open; a minute of a fork storm\n"
                "                     at 3600 forks/s is about 120)\n"
                "\n"
                "examples:\n"
                "  quorbpfctl record --duration 60 -o /tmp/boot.json\n"
                "  quorbpfctl record sched_task_create,sched_task_exit,kmem_rss_info\n\n";
            break;
        case CtlCommand::kExporter:
            text =
                "usage: quorbpfctl exporter [--listen ADDR:PORT] [--top N]\n"
                "                           [--textfile DIR [--interval S]]\n"
                "\n"
                "Serves /metrics over HTTP in the Prometheus text format: events by type,\n"
                "processes started and ended, live processes, threads and memory of the\n"
                "N largest processes, dmabuf totals, and the exporter's own dropped\n"
                "records and reconnects. Runs until Ctrl-C.\n"
                "\n"
                "  --listen ADDR:PORT where to serve (default 127.0.0.1:9469, loopback\n"
                "                     only); [::1]:PORT for IPv6, 0.0.0.0:PORT for all\n"
                "  --top N            label only the N largest processes by resident\n"
                "                     memory (default 20), so that series stay bounded\n"
                "  --textfile DIR     instead of serving, write DIR/quorbpf.prom every\n"
                "                     --interval seconds (default 15), atomically, for\n"
                "                     node_exporter's textfile collector\n"
                "\n"
                "examples:\n"
                "  quorbpfctl exporter\n"
                "  curl -s http://127.0.0.1:9469/metrics | grep quorbpf_events_total\n"
                "  quorbpfctl exporter --textfile /var/lib/node_exporter/textfile\n\n";
            break;
    }
    return text + kCommonHelp + "\n" + kExitHelp;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
