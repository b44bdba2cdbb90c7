#include "tools/quorbpfctl/stats_command.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <ctime>

#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/fetch_dump.h"
#include "tools/quorbpfctl/rate_plot.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr size_t kRecentSeconds = 60;

std::string Rate(double perSecond) {
    char text[32];
    snprintf(text, sizeof(text), perSecond >= 100 ? "%.0f" : "%.1f", perSecond);
    return text;
}

// 0 or the errno of the failure.
int WriteFile(const std::string& path, const std::string& contents) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return errno;
    size_t done = 0;
    while (done < contents.size()) {
        const ssize_t wrote = write(fd, contents.data() + done, contents.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) {
            const int err = errno;
            close(fd);
            return err;
        }
        done += static_cast<size_t>(wrote);
    }
    return close(fd) == 0 ? 0 : errno;
}

}  // namespace

std::string FormatStatsSummary(const StateTable& table) {
    const StateRates recent = table.Rates(kRecentSeconds);
    const StateRates all = table.Rates(0);
    std::string out;
    char line[256];
    snprintf(line, sizeof(line),
             "event statistics: %zu whole seconds kept (running index %" PRId64 " to %" PRId64
             ")\n\n",
             all.seconds, table.tail, table.head);
    out += line;
    snprintf(line, sizeof(line), "%-27s %14s %14s %12s\n", "type", "events/s", "events/s",
             "events");
    out += line;
    snprintf(line, sizeof(line), "%-27s %14s %14s %12s\n", "",
             ("last " + std::to_string(recent.seconds) + " s").c_str(), "whole window",
             "in window");
    out += line;
    double recentSum = 0;
    double allSum = 0;
    uint64_t totalSum = 0;
    for (size_t k = 0; k < kStateTypes; ++k) {
        snprintf(line, sizeof(line), "%-27s %14s %14s %12" PRIu64 "\n", table.names[k].c_str(),
                 Rate(recent.perSecond[k]).c_str(), Rate(all.perSecond[k]).c_str(), all.totals[k]);
        out += line;
        recentSum += recent.perSecond[k];
        allSum += all.perSecond[k];
        totalSum += all.totals[k];
    }
    snprintf(line, sizeof(line), "%-27s %14s %14s %12" PRIu64 "\n", "all events",
             Rate(recentSum).c_str(), Rate(allSum).c_str(), totalSum);
    out += line;
    snprintf(line, sizeof(line), "%-27s %14s %14s %12" PRIu64 "\n", "ring-buffer polls",
             Rate(recent.perSecond[kStateTypes]).c_str(), Rate(all.perSecond[kStateTypes]).c_str(),
             all.totals[kStateTypes]);
    out += line;
    return out;
}

int RunStatsCommand(const CtlOptions& options, FILE* out, FILE* err) {
    std::string text;
    int rc = FetchDump(options, kSignalState, kStateFile, StateTableComplete, &text, err);
    if (rc != kExitOk) return rc;
    StateTable table;
    std::string error;
    if (!ParseStateTable(text, &table, &error)) {
        fprintf(err, "quorbpfctl: %s/%s: %s\n", options.dumpDir.c_str(), kStateFile, error.c_str());
        return kExitFailure;
    }
    fputs(FormatStatsSummary(table).c_str(), out);
    if (!options.plotPath.empty()) {
        const time_t now = time(nullptr);
        tm local = {};
        localtime_r(&now, &local);
        char when[64];
        strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &local);
        const std::string title = "quorbpf events per second, " +
                                  std::to_string(table.Rates(0).seconds) + " s up to " + when;
        const int werr =
            WriteFile(options.plotPath, RenderRatePlotSvg(table, !options.linear, title));
        if (werr != 0) {
            fprintf(err, "quorbpfctl: cannot write %s: %s\n", options.plotPath.c_str(),
                    strerror(werr));
            return werr == EACCES || werr == EPERM ? kExitPermission : kExitFailure;
        }
        fprintf(out, "\nchart written to %s\n", options.plotPath.c_str());
    }
    return fflush(out) == 0 ? kExitOk : kExitFailure;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
