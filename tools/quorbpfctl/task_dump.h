// TaskDump: the daemon's task table file (DUMPTASK_INFO) read back.
//
// The file is a header line with the registry's process count, a column
// header and one row per process. Rows start with the process name padded to
// 16 characters and continue with blank-separated numbers, the sizes each
// followed by "KB". A row is parsed from its right end (a fixed number of
// tokens per variant), so a name holding blanks stays whole. Two variants:
// full (current and previous values) and normal (current values only).
//
//   TaskDump dump;
//   std::string error;
//   if (ParseTaskDump(text, &dump, &error)) for (const TaskRow& row : dump.rows) ...
//
// Plain values and pure functions; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Quor {
namespace Bpf {
namespace Ctl {

struct TaskRow {
    std::string comm;
    int32_t pid = 0;
    int32_t ppid = 0;
    int32_t threads = 0;
    int32_t oldThreads = 0;  // full variant only
    uint32_t uid = 0;        // the "mmId" column
    int64_t anonKb = 0, fileKb = 0, shmemKb = 0, swapKb = 0;
    int64_t oldAnonKb = 0, oldFileKb = 0, oldShmemKb = 0, oldSwapKb = 0;  // full variant only
    int64_t initTimestamp = 0;
};

struct TaskDump {
    uint32_t count = 0;  // the registry's size, kernel tasks included
    int64_t time = 0;    // epoch seconds of the dump
    bool full = false;
    std::vector<TaskRow> rows;
};

bool ParseTaskDump(const std::string& text, TaskDump* dump, std::string* error);

// Whether `text` is a whole dump: header and column lines, every line ended,
// and, with `allRows`, as many rows as the header counts (the variants that
// leave kernel tasks out write fewer rows than the count).
bool TaskDumpComplete(const std::string& text, bool allRows);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
