// Typed views of the records a QuorBpfClient receives.
//
// A record arrives as (type, bytes, length). A view checks that the bytes hold
// a whole record of its struct and that the record's own type field says so,
// then keeps an aligned copy; it never reads past `length`. An invalid view
// (too short, other type) holds zeros.
//
//   void onEvent(uint32_t type, const uint8_t* data, size_t len) {
//       if (Quor::Bpf::QuorForkView fork{data, len}) {
//           printf("%d forked %d (%s)\n", fork->ppid, fork->pid,
//                  Quor::Bpf::QuorCommString(fork->comm).c_str());
//       }
//       puts(Quor::Bpf::QuorFormatEvent(type, data, len).c_str());
//   }
//
// Layouts and ids are those of quor/quor_bpf_records.h. Views are plain
// values, usable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"

namespace Quor {
namespace Bpf {

// The id each record struct carries in its first 32-bit field.
template <typename Record>
struct QuorRecordTraits;

#define QUOR_BPF_RECORD_TRAITS(enumerator, id, name, record) \
    template <>                                              \
    struct QuorRecordTraits<record> {                        \
        static constexpr uint32_t kType = (id);              \
    };
QUOR_EVENT_LIST(QUOR_BPF_RECORD_TRAITS)
#undef QUOR_BPF_RECORD_TRAITS

template <typename Record>
class QuorRecordView {
public:
    static constexpr uint32_t kType = QuorRecordTraits<Record>::kType;

    QuorRecordView(const void* data, size_t length) {
        uint32_t type = 0;
        valid_ = data != nullptr && length >= sizeof(Record);
        if (valid_) {
            memcpy(&type, data, sizeof(type));
            valid_ = type == kType;
        }
        if (valid_) {
            memcpy(&record_, data, sizeof(Record));
        } else {
            memset(&record_, 0, sizeof(Record));
        }
    }

    bool valid() const { return valid_; }
    explicit operator bool() const { return valid_; }
    const Record& operator*() const { return record_; }
    const Record* operator->() const { return &record_; }

private:
    Record record_;
    bool valid_;
};

using QuorTaskInitView = QuorRecordView<quor_task_init_record>;
using QuorRssView = QuorRecordView<quor_rss_record>;
using QuorForkView = QuorRecordView<quor_fork_record>;
using QuorExitView = QuorRecordView<quor_exit_record>;
using QuorDmabufSizeView = QuorRecordView<quor_dmabuf_size_record>;
using QuorCgroupAttachView = QuorRecordView<quor_cgroup_attach_record>;
using QuorFdUpdateView = QuorRecordView<quor_fd_update_record>;
using QuorDmabufUpdateView = QuorRecordView<quor_dmabuf_update_record>;
using QuorTaskNewView = QuorRecordView<quor_task_new_event>;
using QuorTaskExitView = QuorRecordView<quor_task_exit_event>;
using QuorThreadChangeView = QuorRecordView<quor_thread_change_event>;
using QuorRssChangeView = QuorRecordView<quor_rss_change_event>;

// A fixed-size text field (comm, cgroup path) up to its first NUL.
template <size_t N>
inline std::string QuorFieldString(const char (&field)[N]) {
    return std::string(field, strnlen(field, N));
}
inline std::string QuorCommString(const char (&comm)[QUOR_COMM_LEN]) {
    return QuorFieldString(comm);
}

// One field of a decoded record.
struct QuorEventField {
    enum class Kind { kInt, kUint, kSize, kText };  // kSize: bytes, signed
    const char* name = nullptr;   // the record's member name; nullptr: for text only
    const char* label = nullptr;  // short label in a line of text; nullptr: not shown there
    Kind kind = Kind::kInt;
    int64_t number = 0;           // kInt, kSize
    uint64_t unsignedNumber = 0;  // kUint
    std::string text;             // kText
};

// A received record taken apart: what every record has (name, time, pid,
// comm) and its other fields in record order. Enums are shown by name
// ("thread", "anon", "release"; "unknown(9)" for a value without one).
struct QuorDecodedEvent {
    uint32_t type = 0;
    const char* name = nullptr;  // nullptr for an unknown type
    std::string error;           // non-empty: not a whole record of `type`
    size_t length = 0;
    bool hasTimestamp = false;  // kernel records; service records carry no time
    uint64_t timestampNs = 0;
    int32_t pid = 0;
    int32_t ppid = -1;  // -1 when the record has no parent field
    bool hasComm = false;
    std::string comm;
    std::vector<QuorEventField> fields;  // every field but type, time, pid and comm
};

// Checks the length and the record's own type field before reading anything:
// a short or foreign record yields `error` ("unknown type", "truncated",
// "type mismatch: record says 3") and no fields.
QUOR_BPF_CLIENT_EXPORT QuorDecodedEvent QuorDecodeEvent(uint32_t type, const void* data,
                                                        size_t length);

// "sched_task_create", "task_new", ...; nullptr for a type without a record.
QUOR_BPF_CLIENT_EXPORT const char* QuorEventName(uint32_t type);
// The type whose name is `name`, or -1.
QUOR_BPF_CLIENT_EXPORT int64_t QuorEventTypeByName(const std::string& name);
// Size of a whole record of `type`; 0 for a type without a record.
QUOR_BPF_CLIENT_EXPORT size_t QuorRecordSize(uint32_t type);
// One line of text: the name and every field under its member name
// ("sched_task_create ts=... pid=... comm=... ppid=..."), or what is wrong
// with the bytes ("sched_task_create truncated (47 bytes)").
QUOR_BPF_CLIENT_EXPORT std::string QuorFormatEvent(uint32_t type, const void* data, size_t length);

}  // namespace Bpf
}  // namespace Quor
