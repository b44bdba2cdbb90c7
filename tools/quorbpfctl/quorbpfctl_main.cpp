// quorbpfctl: the command-line client of the quorbpf service. See
// `quorbpfctl --help` and ctl_options.cpp for the commands.
#include <android/log.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/exporter_command.h"
#include "tools/quorbpfctl/record_command.h"
#include "tools/quorbpfctl/stats_command.h"
#include "tools/quorbpfctl/tasks_command.h"
#include "tools/quorbpfctl/top_command.h"
#include "tools/quorbpfctl/watch_command.h"

using namespace Quor::Bpf::Ctl;

int main(int argc, char** argv) {
    CtlOptions options;
    std::string error;
    const int rc =
        ParseCtlArguments(std::vector<std::string>(argv + 1, argv + argc), &options, &error);
    if (rc != kExitOk) {
        fprintf(stderr, "quorbpfctl: %s\n", error.c_str());
        fprintf(stderr, "run `quorbpfctl %s--help` for usage\n",
                options.command == CtlCommand::kWatch   ? "watch "
                : options.command == CtlCommand::kTasks ? "tasks "
                : options.command == CtlCommand::kStats ? "stats "
                : options.command == CtlCommand::kTop   ? "top "
                                                        : "");
        return rc;
    }
    if (options.help) {
        fputs(UsageText(options.command).c_str(), stdout);
        return kExitOk;
    }
    // The client library logs every connection attempt; a person at the
    // command line gets quorbpfctl's own messages instead.
    if (!options.verbose) __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    // Lines as they come, also into a pipe (watch | jq).
    setvbuf(stdout, nullptr, _IOLBF, 0);
    switch (options.command) {
        case CtlCommand::kWatch:
            return WatchCommand(options, stdout, stderr).Run();
        case CtlCommand::kTasks:
            return RunTasksCommand(options, stdout, stderr);
        case CtlCommand::kStats:
            return RunStatsCommand(options, stdout, stderr);
        case CtlCommand::kTop:
            return RunTopCommand(options);
        case CtlCommand::kRecord:
            return RunRecordCommand(options, stderr);
        case CtlCommand::kExporter:
            return RunExporterCommand(options, stderr);
        case CtlCommand::kNone:
            break;
    }
    fputs(UsageText(CtlCommand::kNone).c_str(), stderr);
    return kExitUsage;
}
