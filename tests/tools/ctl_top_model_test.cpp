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

// Resident sizes: baseline and counters, swap apart; a process the baseline
// lacks named by procfs; gone for good once it ends.
TEST(TopModelTest, ResidentSizesFromCountersAndExitsForGood) {
    TopModel model([](int32_t pid) { return "proc" + std::to_string(pid); });
    TaskDump dump;
    dump.rows.resize(1);
    dump.rows[0].comm = "editor";
    dump.rows[0].pid = 10;
    dump.rows[0].anonKb = 100 * 1024;
    dump.rows[0].fileKb = 20 * 1024;
    model.LoadBaseline(dump, kStartMs);
    Feed(&model, quortest::Rss(11, 0, QUOR_RSS_ANON, 150 * kMiB), kStartMs + 1000);
    Feed(&model, quortest::Rss(11, 0, QUOR_RSS_SHMEM, 10 * kMiB), kStartMs + 1000);
    Feed(&model, quortest::Rss(11, 0, QUOR_RSS_SWAP, 99 * kMiB), kStartMs + 1000);
    TopSnapshot snap = model.Snapshot(kStartMs + 2000, 10, 5);
    ASSERT_EQ(snap.rows.size(), 2u);
    EXPECT_EQ(std::tie(snap.rows[0].comm, snap.rows[0].rss, snap.rows[0].swap),
              std::make_tuple("proc11", 160 * kMiB, 99 * kMiB));
    EXPECT_EQ(std::tie(snap.rows[1].comm, snap.rows[1].rss), std::make_tuple("editor", 120 * kMiB));

    // A late counter of the dead process does not bring it back.
    const quor_task_exit_event exit = {QUOR_SERVICE_TASK_EXIT, 11, "shell"};
    Feed(&model, exit, kStartMs + 3000);
    Feed(&model, quortest::Rss(11, 0, QUOR_RSS_ANON, 1), kStartMs + 3100);
    EXPECT_EQ(model.Snapshot(kStartMs + 3200, 10, 5).processes, 1u);
    // A process whose exit was never seen goes once it is gone.
    model.Prune([](int32_t) { return false; });
    EXPECT_EQ(model.Snapshot(kStartMs + 4000, 10, 5).processes, 0u);
}

}  // namespace
