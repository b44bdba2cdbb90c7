#include "tools/quorbpfctl/ctl_options.h"

#include <cerrno>
#include <cstdlib>

#include "quor/quorbpf_client.h"
#include "quor/quorbpf_event_views.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

const std::string kCommonHelp =
    std::string(
        "common options:\n"
        "  --daemon-pid PID   the daemon to ask (default: the pid file, else the\n"
        "                     process named quorbpfd)\n"
        "  --pid-file PATH    the daemon's pid file (default /run/quorbpfd.pid)\n"
        "  --dir DIR          where the daemon writes its dumps\n"
        "                     (default /data/quorlog/stability/quorbpfframework)\n"
        "  --socket NAME      the service's abstract socket\n"
        "                     (default ") +
    QUOR_BPF_CLIENT_DEFAULT_SOCKET +
    ")\n"
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

// One argument being parsed: its name, its value from "--name=VALUE" or the
// next argument, and the error to report.
class ArgumentCursor {
public:
    ArgumentCursor(const std::vector<std::string>& args, std::string* error)
        : args_(args), error_(error) {}

    // Moves to the next argument; false at the end.
    bool Next() {
        if (++index_ >= args_.size()) return false;
        name_ = args_[index_];
        value_.clear();
        hasValue_ = false;
        const size_t eq = name_.find('=');
        if (name_.rfind("--", 0) == 0 && eq != std::string::npos) {
            value_ = name_.substr(eq + 1);
            name_ = name_.substr(0, eq);
            hasValue_ = true;
        }
        return true;
    }
    const std::string& name() const { return name_; }
    const std::string& raw() const { return args_[index_]; }
    const std::string& value() const { return value_; }

    // Fetches the option's value from "=VALUE" or the next argument.
    bool TakeValue() {
        if (hasValue_) return true;
        if (index_ + 1 >= args_.size()) return Fail("option " + name_ + " needs a value");
        value_ = args_[++index_];
        return true;
    }
    bool Flag(bool* target) {
        if (hasValue_) return Fail("option " + name_ + " takes no value");
        *target = true;
        return true;
    }
    // The value as a whole number in [min, max]; else `what` and the value.
    bool Number(int64_t min, int64_t max, const std::string& what, int64_t* number) {
        if (!TakeValue()) return false;
        if (ParseInt(value_, min, max, number)) return true;
        return Fail(what + ", got '" + value_ + "'");
    }
    bool Text(std::string* target) {
        if (!TakeValue()) return false;
        *target = value_;
        return true;
    }
    bool Fail(const std::string& message) {
        *error_ = message;
        return false;
    }

private:
    const std::vector<std::string>& args_;
    std::string* error_;
    size_t index_ = 0;
    std::string name_;
    std::string value_;
    bool hasValue_ = false;
};

// What an option parser made of the current argument.
enum class OptionResult { kNotMine, kDone, kFailed };

OptionResult Result(bool ok) {
    return ok ? OptionResult::kDone : OptionResult::kFailed;
}

// Options every command takes.
OptionResult ParseCommonOption(ArgumentCursor* arg, CtlOptions* options) {
    const std::string& name = arg->name();
    int64_t number = 0;
    if (name == "-v" || name == "--verbose") return Result(arg->Flag(&options->verbose));
    if (name == "--pid-file") return Result(arg->Text(&options->pidFile));
    if (name == "--dir") return Result(arg->Text(&options->dumpDir));
    if (name == "--socket") return Result(arg->Text(&options->socketName));
    if (name == "--daemon-pid") {
        if (!arg->Number(1, INT32_MAX, "--daemon-pid needs a process id", &number))
            return OptionResult::kFailed;
        options->daemonPid = static_cast<int32_t>(number);
        return OptionResult::kDone;
    }
    if (name == "--timeout") {
        if (!arg->Number(1, 3600, "--timeout needs seconds from 1 to 3600", &number))
            return OptionResult::kFailed;
        options->timeoutMs = static_cast<int>(number) * 1000;
        return OptionResult::kDone;
    }
    return OptionResult::kNotMine;
}

// An argument that is not an option names event types, comma-separated.
OptionResult ParseTypeArgument(ArgumentCursor* arg, CtlOptions* options, std::string* error) {
    if (arg->name().rfind("-", 0) == 0) return OptionResult::kNotMine;
    for (const std::string& part : SplitCommas(arg->name())) {
        uint32_t type = 0;
        if (!ParseEventType(part, &type, error)) return OptionResult::kFailed;
        options->types.push_back(type);
    }
    return OptionResult::kDone;
}

OptionResult ParseWatchOption(ArgumentCursor* arg, CtlOptions* options, std::string* error) {
    const std::string& name = arg->name();
    int64_t number = 0;
    if (name == "--json") return Result(arg->Flag(&options->json));
    if (name == "--comm") return Result(arg->Text(&options->comm));
    if (name == "--pid") {
        if (!arg->TakeValue()) return OptionResult::kFailed;
        for (const std::string& part : SplitCommas(arg->value())) {
            if (!ParseInt(part, 0, INT32_MAX, &number))
                return Result(arg->Fail("--pid needs process ids, got '" + part + "'"));
            options->pids.push_back(static_cast<int32_t>(number));
        }
        return OptionResult::kDone;
    }
    if (name == "--count") {
        if (!arg->Number(1, INT64_MAX, "--count needs a positive number", &number))
            return OptionResult::kFailed;
        options->count = static_cast<uint64_t>(number);
        return OptionResult::kDone;
    }
    return ParseTypeArgument(arg, options, error);
}

OptionResult ParseRecordOption(ArgumentCursor* arg, CtlOptions* options, std::string* error) {
    const std::string& name = arg->name();
    int64_t number = 0;
    if (name == "-o" || name == "--output") return Result(arg->Text(&options->outputPath));
    if (name == "--duration") {
        if (!arg->Number(1, 86400, "--duration needs seconds from 1 to 86400", &number))
            return OptionResult::kFailed;
        options->durationS = static_cast<int>(number);
        return OptionResult::kDone;
    }
    if (name == "--max-size") {
        if (!arg->Number(1, 1 << 20, "--max-size needs MiB from 1 to 1048576", &number))
            return OptionResult::kFailed;
        options->maxSizeMiB = static_cast<uint64_t>(number);
        return OptionResult::kDone;
    }
    return ParseTypeArgument(arg, options, error);
}

OptionResult ParseExporterOption(ArgumentCursor* arg, CtlOptions* options) {
    const std::string& name = arg->name();
    int64_t number = 0;
    if (name == "--listen") return Result(arg->Text(&options->listen));
    if (name == "--textfile") return Result(arg->Text(&options->textfileDir));
    if (name == "--top") {
        if (!arg->Number(0, 10000, "--top needs a number from 0 to 10000", &number))
            return OptionResult::kFailed;
        options->topN = static_cast<int>(number);
        return OptionResult::kDone;
    }
    if (name == "--interval") {
        if (!arg->Number(1, 3600, "--interval needs seconds from 1 to 3600", &number))
            return OptionResult::kFailed;
        options->intervalS = static_cast<int>(number);
        return OptionResult::kDone;
    }
    return OptionResult::kNotMine;
}

OptionResult ParseTasksOption(ArgumentCursor* arg, CtlOptions* options) {
    if (arg->name() == "--normal") return Result(arg->Flag(&options->normal));
    if (arg->name() == "--no-kernel") return Result(arg->Flag(&options->noKernel));
    return OptionResult::kNotMine;
}

OptionResult ParseStatsOption(ArgumentCursor* arg, CtlOptions* options) {
    if (arg->name() == "--plot") return Result(arg->Text(&options->plotPath));
    if (arg->name() == "--linear") return Result(arg->Flag(&options->linear));
    return OptionResult::kNotMine;
}

OptionResult ParseCommandOption(CtlCommand command, ArgumentCursor* arg, CtlOptions* options,
                                std::string* error) {
    const OptionResult common = ParseCommonOption(arg, options);
    if (common != OptionResult::kNotMine) return common;
    switch (command) {
        case CtlCommand::kWatch:
            return ParseWatchOption(arg, options, error);
        case CtlCommand::kTasks:
            return ParseTasksOption(arg, options);
        case CtlCommand::kStats:
            return ParseStatsOption(arg, options);
        case CtlCommand::kRecord:
            return ParseRecordOption(arg, options, error);
        case CtlCommand::kExporter:
            return ParseExporterOption(arg, options);
        case CtlCommand::kTop:
        case CtlCommand::kNone:
            break;
    }
    return OptionResult::kNotMine;
}

}  // namespace

const std::vector<uint32_t>& AllEventTypes() {
    static const std::vector<uint32_t> kTypes = [] {
        std::vector<uint32_t> types;
        for (const QuorEventTypeInfo& info : kQuorEventTypes) types.push_back(info.type);
        return types;
    }();
    return kTypes;
}

bool ParseEventType(const std::string& text, uint32_t* type, std::string* error) {
    int64_t number = 0;
    if (!text.empty() && text[0] >= '0' && text[0] <= '9') {
        if (ParseInt(text, 0, UINT32_MAX, &number) &&
            IsSubscribableEventType(static_cast<uint32_t>(number))) {
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
    if (!args.empty() && (args[0] == "-h" || args[0] == "--help" || args[0] == "help")) {
        options->help = true;
        if (args.size() > 1) options->command = CommandByName(args[1]);
        return kExitOk;
    }
    if (args.empty()) {
        *error = "a command is needed";
        return kExitUsage;
    }
    options->command = CommandByName(args[0]);
    if (options->command == CtlCommand::kNone) {
        *error = "unknown command '" + args[0] + "'";
        return kExitUsage;
    }
    ArgumentCursor arg(args, error);
    while (arg.Next()) {
        if (arg.name() == "-h" || arg.name() == "--help") {
            options->help = true;
            return kExitOk;
        }
        switch (ParseCommandOption(options->command, &arg, options, error)) {
            case OptionResult::kDone:
                break;
            case OptionResult::kFailed:
                return kExitUsage;
            case OptionResult::kNotMine:
                *error = "unknown option '" + arg.raw() + "' for " + args[0];
                return kExitUsage;
        }
    }
    if (options->command == CtlCommand::kStats && options->linear && options->plotPath.empty()) {
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
