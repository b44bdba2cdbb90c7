// The client library's typed views and formatter on arbitrary bytes, for the
// type the bytes claim and for every type (a damaged record may contradict it).
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz/fuzz_support.h"
#include "quor/quorbpf_event_views.h"

using namespace Quor::Bpf;

namespace {
// Every record struct of the type list: valid exactly for a whole record of
// its own type, and then a faithful copy.
template <typename Record>
void CheckView(const uint8_t* data, size_t size, uint32_t claimed) {
    const QuorRecordView<Record> view(data, size);
    const bool whole = size >= sizeof(Record) && claimed == QuorRecordView<Record>::kType;
    Require(view.valid() == whole);
    if (view) Require(memcmp(&*view, data, sizeof(Record)) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint32_t claimed = 0;
    if (size >= sizeof(claimed)) memcpy(&claimed, data, sizeof(claimed));

#define QUOR_CHECK_VIEW(enumerator, id, name, record) CheckView<record>(data, size, claimed);
    QUOR_EVENT_LIST(QUOR_CHECK_VIEW)
#undef QUOR_CHECK_VIEW
    if (QuorCgroupAttachView cgroup{data, size}) {
        Require(QuorFieldString(cgroup->cgroup).size() <= sizeof(cgroup->cgroup));
    }
    // Decoded text fields stay within their record fields.
    const QuorDecodedEvent decoded = QuorDecodeEvent(claimed, data, size);
    Require(decoded.comm.size() <= QUOR_COMM_LEN);

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
