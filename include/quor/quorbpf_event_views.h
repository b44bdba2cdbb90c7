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

#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"

namespace Quor {
namespace Bpf {

// The id each record struct carries in its first 32-bit field.
template <typename Record>
struct QuorRecordTraits;

#define QUOR_BPF_RECORD_TRAITS(record, id)      \
    template <>                                 \
    struct QuorRecordTraits<record> {           \
        static constexpr uint32_t kType = (id); \
    }
QUOR_BPF_RECORD_TRAITS(quor_task_init_record, QUOR_EVENT_TASK_INIT);
QUOR_BPF_RECORD_TRAITS(quor_rss_record, QUOR_EVENT_RSS_STAT);
QUOR_BPF_RECORD_TRAITS(quor_fork_record, QUOR_EVENT_TASK_CREATE);
QUOR_BPF_RECORD_TRAITS(quor_exit_record, QUOR_EVENT_TASK_EXIT);
QUOR_BPF_RECORD_TRAITS(quor_dmabuf_size_record, QUOR_EVENT_DMABUF_SIZE);
QUOR_BPF_RECORD_TRAITS(quor_cgroup_attach_record, QUOR_EVENT_CGROUP_ATTACH);
QUOR_BPF_RECORD_TRAITS(quor_fd_update_record, QUOR_EVENT_FD_UPDATE);
QUOR_BPF_RECORD_TRAITS(quor_dmabuf_update_record, QUOR_EVENT_DMABUF_UPDATE);
QUOR_BPF_RECORD_TRAITS(quor_task_new_event, QUOR_SERVICE_TASK_NEW);
QUOR_BPF_RECORD_TRAITS(quor_task_exit_event, QUOR_SERVICE_TASK_EXIT);
QUOR_BPF_RECORD_TRAITS(quor_thread_change_event, QUOR_SERVICE_THREAD_CHANGE);
QUOR_BPF_RECORD_TRAITS(quor_rss_change_event, QUOR_SERVICE_RSS_CHANGE);
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

// "sched_task_create", "task_new", ...; nullptr for a type without a record.
QUOR_BPF_CLIENT_EXPORT const char* QuorEventName(uint32_t type);
// The type whose name is `name`, or -1.
QUOR_BPF_CLIENT_EXPORT int64_t QuorEventTypeByName(const std::string& name);
// Size of a whole record of `type`; 0 for a type without a record.
QUOR_BPF_CLIENT_EXPORT size_t QuorRecordSize(uint32_t type);
// One line of text: the name and every field ("sched_task_create ts=... pid=..."),
// or what is wrong with the bytes (truncated, type mismatch, unknown type).
QUOR_BPF_CLIENT_EXPORT std::string QuorFormatEvent(uint32_t type, const void* data, size_t length);

}  // namespace Bpf
}  // namespace Quor
