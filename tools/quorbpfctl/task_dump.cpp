#include "tools/quorbpfctl/task_dump.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "tools/quorbpfctl/text_parse.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr size_t kCommWidth = 16;
// Tokens after the name: 5 numbers, 8 sizes with "KB", 1 time (full);
// 4 numbers, 4 sizes with "KB", 1 time (normal).
constexpr size_t kFullTokens = 5 + 8 * 2 + 1;
constexpr size_t kNormalTokens = 4 + 4 * 2 + 1;

bool ParseHeader(const std::string& line, uint32_t* count, int64_t* time) {
    unsigned int parsedCount = 0;
    long long parsedTime = 0;
    if (sscanf(line.c_str(), "============ DUMP ALL QUOR TASKS INFO (count: %u, time: %lld)",
               &parsedCount, &parsedTime) != 2) {
        return false;
    }
    *count = parsedCount;
    *time = parsedTime;
    return true;
}

struct Token {
    size_t start;
    std::string text;
};

std::vector<Token> Tokens(const std::string& line) {
    std::vector<Token> tokens;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && line[i] == ' ') ++i;
        const size_t start = i;
        while (i < line.size() && line[i] != ' ') ++i;
        if (i > start) tokens.push_back({start, line.substr(start, i - start)});
    }
    return tokens;
}

bool ParseRow(const std::string& line, bool full, TaskRow* row) {
    const std::vector<Token> tokens = Tokens(line);
    const size_t need = full ? kFullTokens : kNormalTokens;
    if (tokens.size() <= need) return false;
    const size_t first = tokens.size() - need;
    std::vector<int64_t> numbers;
    for (size_t k = first; k < tokens.size(); ++k) {
        if (tokens[k].text == "KB") continue;
        int64_t value = 0;
        if (!ParseInt64(tokens[k].text, &value)) return false;
        numbers.push_back(value);
    }
    if (numbers.size() != (full ? 14u : 9u)) return false;
    // The name: everything before the numbers, less the padding to 16 and
    // the three blanks that open the row.
    std::string comm = line.substr(0, tokens[first].start);
    if (comm.size() >= 3) comm.resize(comm.size() - 3);
    if (comm.size() <= kCommWidth) {
        while (!comm.empty() && comm.back() == ' ') comm.pop_back();
    }
    row->comm = comm;
    size_t n = 0;
    row->pid = static_cast<int32_t>(numbers[n++]);
    row->ppid = static_cast<int32_t>(numbers[n++]);
    row->threads = static_cast<int32_t>(numbers[n++]);
    if (full) row->oldThreads = static_cast<int32_t>(numbers[n++]);
    row->uid = static_cast<uint32_t>(numbers[n++]);
    row->anonKb = numbers[n++];
    if (full) row->oldAnonKb = numbers[n++];
    row->fileKb = numbers[n++];
    if (full) row->oldFileKb = numbers[n++];
    row->shmemKb = numbers[n++];
    if (full) row->oldShmemKb = numbers[n++];
    row->swapKb = numbers[n++];
    if (full) row->oldSwapKb = numbers[n++];
    row->initTimestamp = numbers[n++];
    return true;
}

}  // namespace

bool ParseTaskDump(const std::string& text, TaskDump* dump, std::string* error) {
    const std::vector<std::string> lines = SplitLines(text);
    if (lines.size() < 2 || !ParseHeader(lines[0], &dump->count, &dump->time)) {
        *error = "not a task dump (no header line)";
        return false;
    }
    dump->full = lines[1].find("oldThreadNum") != std::string::npos;
    dump->rows.clear();
    for (size_t i = 2; i < lines.size(); ++i) {
        TaskRow row;
        if (!ParseRow(lines[i], dump->full, &row)) {
            *error = "task dump line " + std::to_string(i + 1) + " is not a row";
            return false;
        }
        dump->rows.push_back(row);
    }
    return true;
}

bool TaskDumpComplete(const std::string& text, bool allRows) {
    if (text.empty() || text.back() != '\n') return false;
    size_t lines = 0;
    for (const char c : text) lines += c == '\n';
    uint32_t count = 0;
    int64_t time = 0;
    if (lines < 2 || !ParseHeader(text.substr(0, text.find('\n')), &count, &time)) return false;
    return !allRows || lines == static_cast<size_t>(count) + 2;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
