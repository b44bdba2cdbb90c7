#include "tools/quorbpfctl/top_screen.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "tools/quorbpfctl/event_formatter.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr int kWideColumns = 104;  // room for the shmem and swap columns

std::string Fit(std::string text, int columns) {
    if (columns < 0) columns = 0;
    if (text.size() > static_cast<size_t>(columns)) text.resize(static_cast<size_t>(columns));
    return text;
}

// Recent lines and the blank line above them, when the screen is tall enough.
size_t RecentLinesFor(int rows) {
    if (rows >= 20) return kTopRecentLines;
    if (rows >= 14) return 2;
    return 0;
}

}  // namespace

size_t RowsForProcesses(int rows) {
    const size_t recent = RecentLinesFor(rows);
    // title, header, (blank + recent), key line
    const int fixed = 3 + (recent > 0 ? static_cast<int>(recent) + 1 : 0);
    return rows > fixed ? static_cast<size_t>(rows - fixed) : 0;
}

std::string RenderTopScreen(const TopSnapshot& snapshot, const std::string& clock, int rows,
                            int columns) {
    const bool wide = columns >= kWideColumns;
    std::vector<std::string> lines;
    char text[512];
    snprintf(text, sizeof(text), "quorbpfctl top  %s  %zu processes  %.0f events/s  %s",
             clock.c_str(), snapshot.processes, snapshot.eventsPerSecond,
             snapshot.connected ? "connected" : "NOT CONNECTED: reconnecting");
    lines.push_back(text);
    if (wide) {
        snprintf(text, sizeof(text), "%7s %-15s %10s %10s %10s %10s %10s %11s %11s", "PID", "COMM",
                 "RSS", "ANON", "FILE", "SHMEM", "SWAP", "LAST 10s", "SINCE START");
    } else {
        snprintf(text, sizeof(text), "%7s %-15s %10s %10s %10s %11s %11s", "PID", "COMM", "RSS",
                 "ANON", "FILE", "LAST 10s", "SINCE START");
    }
    lines.push_back(text);
    const size_t processRows = RowsForProcesses(rows);
    for (size_t i = 0; i < processRows; ++i) {
        if (i >= snapshot.rows.size()) {
            lines.push_back("");
            continue;
        }
        const TopRow& row = snapshot.rows[i];
        std::string comm = PrintableText(row.comm);
        if (comm.size() > 15) comm.resize(15);
        const std::string recent = row.recentChange == 0 ? "" : FormatSizeChange(row.recentChange);
        const std::string since =
            row.isNew ? "new" : (row.sinceStart == 0 ? "" : FormatSizeChange(row.sinceStart));
        if (wide) {
            snprintf(text, sizeof(text), "%7d %-15s %10s %10s %10s %10s %10s %11s %11s", row.pid,
                     comm.c_str(), FormatSize(row.rss).c_str(), FormatSize(row.anon).c_str(),
                     FormatSize(row.file).c_str(), FormatSize(row.shmem).c_str(),
                     FormatSize(row.swap).c_str(), recent.c_str(), since.c_str());
        } else {
            snprintf(text, sizeof(text), "%7d %-15s %10s %10s %10s %11s %11s", row.pid,
                     comm.c_str(), FormatSize(row.rss).c_str(), FormatSize(row.anon).c_str(),
                     FormatSize(row.file).c_str(), recent.c_str(), since.c_str());
        }
        lines.push_back(text);
    }
    const size_t recentLines = RecentLinesFor(rows);
    if (recentLines > 0) {
        lines.push_back("recent activity:");
        for (size_t i = 0; i < recentLines; ++i) {
            const size_t skip = recentLines - std::min(recentLines, snapshot.recent.size());
            lines.push_back(i < skip ? "" : "  " + snapshot.recent[i - skip]);
        }
    }
    lines.push_back("q: quit   sizes: resident memory (anon + file + shmem)");

    std::string screen = "\x1b[H";
    for (size_t i = 0; i < lines.size() && i < static_cast<size_t>(rows); ++i) {
        std::string line = Fit(lines[i], columns);
        if (i == 0 || i == 1) line = (i == 0 ? "\x1b[7m" : "\x1b[1m") + line + "\x1b[0m";
        screen += line + "\x1b[K";
        if (i + 1 < lines.size() && i + 1 < static_cast<size_t>(rows)) screen += "\r\n";
    }
    screen += "\x1b[J";
    return screen;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
