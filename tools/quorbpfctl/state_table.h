// StateTable: the daemon's event statistics file (bpfservice_state.csv) read
// back, and the rates a person wants from it.
//
// The file has a header naming the kernel event types and "PollCount" and
// giving the running indices of the newest and oldest second kept (head,
// tail), then one row per second, newest first: the sum of the event counts,
// one count per kernel type, the poll count. The newest row is the second in
// progress, so rates leave it out whenever an older second exists.
//
//   StateTable table;
//   if (ParseStateTable(text, &table, &error)) {
//       StateRates minute = table.Rates(60), all = table.Rates(0);
//   }
//
// Plain values and pure functions; any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

// One column per kernel event type, then the poll count.
constexpr size_t kStateTypes = kQuorKernelEventCount;
constexpr size_t kStateColumns = kQuorStatSlots;

struct StateRates {
    size_t seconds = 0;                                // seconds the rates cover
    std::array<double, kStateColumns> perSecond = {};  // per type, then polls
    std::array<uint64_t, kStateColumns> totals = {};
};

struct StateTable {
    std::array<std::string, kStateColumns> names;
    int64_t head = 0;
    int64_t tail = 0;
    // rows[i]: the counts of the second i seconds before the newest.
    std::vector<std::array<uint64_t, kStateColumns>> rows;

    // Rates over the newest `seconds` whole seconds (0: all of them).
    StateRates Rates(size_t seconds) const;
};

bool ParseStateTable(const std::string& text, StateTable* table, std::string* error);

// Whether `text` is a whole statistics file: a header and head - tail + 1
// ended rows.
bool StateTableComplete(const std::string& text);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
