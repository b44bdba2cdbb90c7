#include "diag/quor_bpf_event_names.h"

namespace Quor {
namespace Bpf {

const char* EventTypeName(int32_t type) {
    if (type >= 0 && IsKernelEventType(static_cast<uint32_t>(type)))
        return kQuorEventTypes[type].name;
    if (type == QUOR_EVENT_POLL_COUNT) return "PollCount";
    return "UNKNOW";
}

}  // namespace Bpf
}  // namespace Quor
