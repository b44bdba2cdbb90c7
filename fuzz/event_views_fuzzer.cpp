// The client library's typed views and formatter on arbitrary bytes, for the
// type the bytes claim and for every type (a damaged record may contradict it).
#include <cstdint>
#include <cstring>
#include <string>

#include "quor/quorbpf_event_views.h"

using namespace Quor::Bpf;

namespace {

void Require(bool condition) {
    if (!condition) __builtin_trap();
}

template <typename View>
void CheckView(const uint8_t* data, size_t size, uint32_t claimed) {
    const View view(data, size);
    const bool whole = size >= sizeof(*view) && claimed == View::kType;
    Require(view.valid() == whole);
    if (view) {
        Require(memcmp(&*view, data, sizeof(*view)) == 0);
        Require(QuorFieldString(view->comm).size() < sizeof(view->comm) + 1);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t claimed = 0;
    if (size >= sizeof(claimed)) memcpy(&claimed, data, sizeof(claimed));

    CheckView<QuorTaskInitView>(data, size, claimed);
    CheckView<QuorForkView>(data, size, claimed);
    CheckView<QuorExitView>(data, size, claimed);
    CheckView<QuorCgroupAttachView>(data, size, claimed);
    CheckView<QuorFdUpdateView>(data, size, claimed);
    CheckView<QuorTaskNewView>(data, size, claimed);
    CheckView<QuorTaskExitView>(data, size, claimed);
    CheckView<QuorRssChangeView>(data, size, claimed);
    if (QuorCgroupAttachView cgroup{data, size}) {
        Require(QuorFieldString(cgroup->cgroup).size() <= sizeof(cgroup->cgroup));
    }
    (void)QuorRssView(data, size);
    (void)QuorDmabufSizeView(data, size);
    (void)QuorDmabufUpdateView(data, size);
    (void)QuorThreadChangeView(data, size);

    const std::string own = QuorFormatEvent(claimed, data, size);
    Require(!own.empty());
    for (const QuorEventTypeInfo& info : kQuorEventTypes) {
        const uint32_t type = info.type;
        const std::string text = QuorFormatEvent(type, data, size);
        Require(text.compare(0, strlen(QuorEventName(type)), QuorEventName(type)) == 0);
        Require(QuorRecordSize(type) != 0);
    }
    // The null record is answered, not read.
    Require(!QuorFormatEvent(claimed, nullptr, size).empty());
    return 0;
}
