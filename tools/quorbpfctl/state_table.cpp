#include "tools/quorbpfctl/state_table.h"

#include <cerrno>
#include <cstdlib>

#include "tools/quorbpfctl/text_parse.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

// The fields of one CSV line: split at commas, blanks and the line end trimmed,
// the empty field after the trailing ", " dropped.
std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        const size_t comma = line.find(',', start);
        std::string field =
            line.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        const size_t first = field.find_first_not_of(" \r\t");
        const size_t last = field.find_last_not_of(" \r\t");
        field = first == std::string::npos ? "" : field.substr(first, last - first + 1);
        fields.push_back(field);
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    if (!fields.empty() && fields.back().empty()) fields.pop_back();
    return fields;
}

bool ParseHeader(const std::string& line, StateTable* table) {
    const std::vector<std::string> fields = Fields(line);
    // "EventCount", a name per column, head, tail.
    if (fields.size() != 1 + kStateColumns + 2 || fields[0] != "EventCount") return false;
    for (size_t k = 0; k < kStateColumns; ++k) table->names[k] = fields[1 + k];
    return ParseInt64(fields[1 + kStateColumns], &table->head) &&
           ParseInt64(fields[2 + kStateColumns], &table->tail) && table->head >= table->tail;
}

}  // namespace

StateRates StateTable::Rates(size_t seconds) const {
    StateRates rates;
    // The newest row is the second still running.
    const size_t first = rows.size() > 1 ? 1 : 0;
    size_t end = rows.size();
    if (seconds != 0 && first + seconds < end) end = first + seconds;
    for (size_t i = first; i < end; ++i) {
        for (size_t k = 0; k < kStateColumns; ++k) rates.totals[k] += rows[i][k];
    }
    rates.seconds = end - first;
    for (size_t k = 0; k < kStateColumns; ++k) {
        rates.perSecond[k] =
            rates.seconds == 0 ? 0.0 : static_cast<double>(rates.totals[k]) / rates.seconds;
    }
    return rates;
}

bool ParseStateTable(const std::string& text, StateTable* table, std::string* error) {
    const std::vector<std::string> lines = SplitLines(text);
    if (lines.empty() || !ParseHeader(lines[0], table)) {
        *error = "not a statistics file (no header line)";
        return false;
    }
    table->rows.clear();
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::vector<std::string> fields = Fields(lines[i]);
        if (fields.size() != 1 + kStateColumns) {
            *error = "statistics line " + std::to_string(i + 1) + " has " +
                     std::to_string(fields.size()) + " fields";
            return false;
        }
        std::array<uint64_t, kStateColumns> row = {};
        for (size_t k = 0; k < kStateColumns; ++k) {
            int64_t value = 0;
            if (!ParseInt64(fields[1 + k], &value) || value < 0) {
                *error =
                    "statistics line " + std::to_string(i + 1) + " holds '" + fields[1 + k] + "'";
                return false;
            }
            row[k] = static_cast<uint64_t>(value);
        }
        table->rows.push_back(row);
    }
    return true;
}

bool StateTableComplete(const std::string& text) {
    if (text.empty() || text.back() != '\n') return false;
    StateTable table;
    const size_t end = text.find('\n');
    if (!ParseHeader(text.substr(0, end), &table)) return false;
    size_t rows = 0;
    for (size_t i = end + 1; i < text.size(); ++i) rows += text[i] == '\n';
    return static_cast<int64_t>(rows) == table.head - table.tail + 1;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
