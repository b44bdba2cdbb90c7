// RenderTopScreen: one frame of `quorbpfctl top` as terminal text.
//
// A title line (clock, process count, event rate, connection), a column
// header, the largest processes by resident memory, the latest activity and
// a key line, fitted to `rows` x `columns`: the shmem and swap columns appear
// only when there is room, names are cut to fit, and no line is longer than
// the width (a wrapped line would scroll the screen). The text homes the
// cursor first and clears what it does not overwrite, so it can be written
// as is, once a second.
//
// RowsForProcesses() says how many process rows fit, to size the snapshot.
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <string>

#include "tools/quorbpfctl/top_model.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

constexpr size_t kTopRecentLines = 5;

size_t RowsForProcesses(int rows);
std::string RenderTopScreen(const TopSnapshot& snapshot, const std::string& clock, int rows,
                            int columns);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
