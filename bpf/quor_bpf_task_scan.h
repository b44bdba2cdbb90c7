// The processes that ran before the kernel programmes were attached, read
// from procfs as task-init records.
#pragma once

#include <functional>

#include "quor/quor_bpf_records.h"

namespace Quor {
namespace Bpf {

// Hands one task-init record per running process to `submit` (the record
// handler of the ring buffers), counts them in the statistics and returns
// how many there were.
int ScanRunningTasks(const std::function<void(quor_task_init_record*)>& submit);

}  // namespace Bpf
}  // namespace Quor
