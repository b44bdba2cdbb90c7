// The top view's model fed with records of known bytes and a clock of the
// test's own.
#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "quor/quor_bpf_records.h"
#include "tests/support/record_builders.h"
#include "tools/quorbpfctl/top_model.h"

using namespace Quor::Bpf;
using namespace Quor::Bpf::Ctl;

namespace {

constexpr int64_t kMiB = 1024 * 1024;
constexpr int64_t kStartMs = 1700000000000;

template <typename Record>
void Feed(TopModel* model, const Record& record, int64_t nowMs) {
    quortest::Feed(record, [&](uint32_t type, const uint8_t* data, size_t length) {
        model->OnEvent(type, data, length, nowMs);
    });
}

quor_rss_record Rss(int32_t pid, int32_t member, int64_t bytes) {
    return quortest::Rss(pid, 0, member, bytes);
}

TaskRow Task(const std::string& comm, int32_t pid, int64_t anonKb, int64_t fileKb = 0) {
    TaskRow row;
    row.comm = comm;
    row.pid = pid;
    row.anonKb = anonKb;
    row.fileKb = fileKb;
    return row;
}

// A kernel task has all sizes zero and is not shown.
TaskDump Baseline() {
    TaskDump dump;
    dump.rows = {Task("editor", 10, 100 * 1024, 20 * 1024), Task("shell", 11, 2 * 1024),
                 Task("kworker/0:0", 12, 0)};
    return dump;
}

TEST(TopModelTest, BaselineThenCountersThenExit) {
    TopModel model([](int32_t pid) { return "proc" + std::to_string(pid); });
    model.LoadBaseline(Baseline(), kStartMs);
    TopSnapshot snap = model.Snapshot(kStartMs, 10, 5);
    ASSERT_EQ(snap.processes, 2u);
    EXPECT_EQ(std::tie(snap.rows[0].comm, snap.rows[0].rss), std::make_tuple("editor", 120 * kMiB));

    // The shell grows past the editor; one counter at a time.
    Feed(&model, Rss(11, QUOR_RSS_ANON, 150 * kMiB), kStartMs + 1000);
    Feed(&model, Rss(11, QUOR_RSS_SHMEM, 10 * kMiB), kStartMs + 1000);
    Feed(&model, Rss(11, QUOR_RSS_SWAP, 99 * kMiB), kStartMs + 1000);  // not resident
    snap = model.Snapshot(kStartMs + 2000, 10, 5);
    ASSERT_EQ(snap.rows.size(), 2u);
    EXPECT_EQ(std::tie(snap.rows[0].pid, snap.rows[0].rss, snap.rows[0].swap),
              std::make_tuple(11, 160 * kMiB, 99 * kMiB));
    // A new process named by procfs.
    Feed(&model, Rss(20, QUOR_RSS_ANON, 500 * kMiB), kStartMs + 13000);
    snap = model.Snapshot(kStartMs + 13000, 1, 5);
    ASSERT_EQ(snap.rows.size(), 1u);
    EXPECT_EQ(std::tie(snap.rows[0].comm, snap.rows[0].rss), std::make_tuple("proc20", 500 * kMiB));

    const quor_task_exit_event exit = {QUOR_SERVICE_TASK_EXIT, 20, "hog"};
    Feed(&model, exit, kStartMs + 14000);
    // A late counter of the dead process does not bring it back.
    Feed(&model, Rss(20, QUOR_RSS_ANON, 0), kStartMs + 14100);
    snap = model.Snapshot(kStartMs + 14200, 10, 5);
    EXPECT_EQ(snap.processes, 2u);
    // A process whose exit was never seen goes once it is gone.
    model.Prune([](int32_t pid) { return pid != 11; });
    snap = model.Snapshot(kStartMs + 15000, 10, 5);
    ASSERT_EQ(snap.processes, 1u);
    EXPECT_EQ(snap.rows[0].pid, 10);
}

}  // namespace
