// The top view's model fed with records of known bytes and a clock of the
// test's own, and the frame drawn from it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <string>

#include "quor/quor_bpf_records.h"
#include "tools/quorbpfctl/top_model.h"
#include "tools/quorbpfctl/top_screen.h"

using namespace Quor::Bpf;
using namespace Quor::Bpf::Ctl;

namespace {

constexpr int64_t kMiB = 1024 * 1024;
constexpr int64_t kStartMs = 1700000000000;

template <typename Record>
void Feed(TopModel* model, const Record& record, int64_t nowMs) {
    uint32_t type = 0;
    memcpy(&type, &record, sizeof(type));
    model->OnEvent(type, reinterpret_cast<const uint8_t*>(&record), sizeof(record), nowMs);
}

quor_rss_record Rss(int32_t pid, int32_t member, int64_t bytes) {
    quor_rss_record r = {};
    r.header.type = QUOR_EVENT_RSS_STAT;
    r.pid = pid;
    r.member = member;
    r.size = bytes;
    return r;
}

TaskDump Baseline() {
    TaskDump dump;
    TaskRow a;
    a.comm = "editor";
    a.pid = 10;
    a.anonKb = 100 * 1024;
    a.fileKb = 20 * 1024;
    TaskRow b;
    b.comm = "shell";
    b.pid = 11;
    b.anonKb = 2 * 1024;
    TaskRow kernel;  // all sizes zero: a kernel task, not shown
    kernel.comm = "kworker/0:0";
    kernel.pid = 12;
    dump.rows = {a, b, kernel};
    return dump;
}

TEST(TopModelTest, BaselineThenCountersThenExit) {
    TopModel model([](int32_t pid) { return "proc" + std::to_string(pid); });
    model.LoadBaseline(Baseline(), kStartMs);
    TopSnapshot snap = model.Snapshot(kStartMs, 10, 5);
    ASSERT_EQ(snap.processes, 2u);
    EXPECT_EQ(snap.rows[0].comm, "editor");
    EXPECT_EQ(snap.rows[0].rss, 120 * kMiB);
    EXPECT_EQ(snap.rows[0].sinceStart, 0);

    // The shell grows past the editor; one counter at a time.
    Feed(&model, Rss(11, QUOR_RSS_ANON, 150 * kMiB), kStartMs + 1000);
    Feed(&model, Rss(11, QUOR_RSS_SHMEM, 10 * kMiB), kStartMs + 1000);
    Feed(&model, Rss(11, QUOR_RSS_SWAP, 99 * kMiB), kStartMs + 1000);  // not resident
    snap = model.Snapshot(kStartMs + 2000, 10, 5);
    ASSERT_EQ(snap.rows.size(), 2u);
    EXPECT_EQ(snap.rows[0].pid, 11);
    EXPECT_EQ(snap.rows[0].rss, 160 * kMiB);
    EXPECT_EQ(snap.rows[0].swap, 99 * kMiB);
    EXPECT_EQ(snap.rows[0].recentChange, 158 * kMiB);
    EXPECT_EQ(snap.rows[0].sinceStart, 158 * kMiB);
    EXPECT_FALSE(snap.rows[0].isNew);
    // Ten seconds later the change is no longer recent, but still since start.
    snap = model.Snapshot(kStartMs + 12000, 10, 5);
    EXPECT_EQ(snap.rows[0].recentChange, 0);
    EXPECT_EQ(snap.rows[0].sinceStart, 158 * kMiB);

    // A new process named by procfs, then named by the service.
    Feed(&model, Rss(20, QUOR_RSS_ANON, 500 * kMiB), kStartMs + 13000);
    snap = model.Snapshot(kStartMs + 13000, 1, 5);
    ASSERT_EQ(snap.rows.size(), 1u);
    EXPECT_EQ(snap.rows[0].comm, "proc20");
    EXPECT_TRUE(snap.rows[0].isNew);
    EXPECT_EQ(snap.rows[0].recentChange, 500 * kMiB);

    quor_task_exit_event exit = {};
    exit.id = QUOR_SERVICE_TASK_EXIT;
    exit.pid = 20;
    memcpy(exit.comm, "hog", 3);
    Feed(&model, exit, kStartMs + 14000);
    // A late counter of the dead process does not bring it back.
    Feed(&model, Rss(20, QUOR_RSS_ANON, 0), kStartMs + 14100);
    snap = model.Snapshot(kStartMs + 14200, 10, 5);
    EXPECT_EQ(snap.processes, 2u);
    ASSERT_FALSE(snap.recent.empty());
    EXPECT_NE(snap.recent.back().find("exit  20 hog (rss 500.0 MiB)"), std::string::npos)
        << snap.recent.back();
    // A process whose exit was never seen goes once it is gone.
    model.Prune([](int32_t pid) { return pid != 11; });
    snap = model.Snapshot(kStartMs + 15000, 10, 5);
    ASSERT_EQ(snap.processes, 1u);
    EXPECT_EQ(snap.rows[0].pid, 10);
}

TEST(TopModelTest, ServiceEventsNameProcessesAndListLargeChanges) {
    TopModel model(nullptr);
    quor_task_new_event created = {};
    created.id = QUOR_SERVICE_TASK_NEW;
    created.pid = 30;
    created.ppid = 1;
    memcpy(created.comm, "worker", 6);
    Feed(&model, created, kStartMs);
    quor_rss_change_event change = {};
    change.id = QUOR_SERVICE_RSS_CHANGE;
    change.pid = 30;
    memcpy(change.comm, "worker", 6);
    change.rss_anon = 64 * kMiB;
    change.old_rss_anon = 16 * kMiB;
    Feed(&model, change, kStartMs + 500);
    change.old_rss_anon = change.rss_anon;
    change.rss_anon += 16 * 1024;  // small: not listed
    Feed(&model, change, kStartMs + 600);
    quor_exit_record threadExit = {};
    threadExit.header.type = QUOR_EVENT_TASK_EXIT;
    threadExit.pid = 30;
    threadExit.kind = QUOR_TASK_KIND_THREAD;  // a thread ended; the process goes on
    Feed(&model, threadExit, kStartMs + 700);

    const TopSnapshot snap = model.Snapshot(kStartMs + 1000, 5, 5);
    ASSERT_EQ(snap.rows.size(), 1u);
    EXPECT_EQ(snap.rows[0].comm, "worker");
    EXPECT_EQ(snap.rows[0].anon, 64 * kMiB + 16 * 1024);
    ASSERT_EQ(snap.recent.size(), 2u);
    EXPECT_NE(snap.recent[0].find("start 30 worker (parent 1)"), std::string::npos);
    EXPECT_NE(snap.recent[1].find("rss   30 worker +48.0 MiB -> 64.0 MiB"), std::string::npos)
        << snap.recent[1];
    // Malformed bytes change nothing.
    model.OnEvent(QUOR_EVENT_RSS_STAT, reinterpret_cast<const uint8_t*>(&change), 8,
                  kStartMs + 1100);
    EXPECT_EQ(model.Snapshot(kStartMs + 1200, 5, 5).rows[0].anon, 64 * kMiB + 16 * 1024);
}

TEST(TopScreenTest, FitsTheTerminalAndDropsColumnsWhenNarrow) {
    setenv("TZ", "UTC", 1);
    tzset();
    TopModel model(nullptr);
    TaskDump dump = Baseline();
    for (int i = 0; i < 100; ++i) {
        TaskRow row;
        row.comm = "a-very-long-process-name-" + std::to_string(i);
        row.pid = 1000 + i;
        row.anonKb = 1024 * i;
        dump.rows.push_back(row);
    }
    model.LoadBaseline(dump, kStartMs);
    for (const auto& [rows, columns] :
         std::vector<std::pair<int, int>>{{24, 80}, {40, 120}, {10, 60}, {3, 20}}) {
        SCOPED_TRACE(std::to_string(rows) + "x" + std::to_string(columns));
        const TopSnapshot snap = model.Snapshot(kStartMs, RowsForProcesses(rows), 5);
        const std::string screen = RenderTopScreen(snap, "12:00:00", rows, columns);
        // Split into lines, drop the escape sequences, measure.
        size_t lines = 0;
        size_t start = 0;
        while (start <= screen.size()) {
            size_t end = screen.find("\r\n", start);
            if (end == std::string::npos) end = screen.size();
            std::string line = screen.substr(start, end - start);
            std::string plain;
            for (size_t i = 0; i < line.size(); ++i) {
                if (line[i] == '\x1b') {
                    while (i < line.size() && !isalpha(static_cast<unsigned char>(line[i]))) ++i;
                    continue;
                }
                plain += line[i];
            }
            EXPECT_LE(plain.size(), static_cast<size_t>(columns)) << plain;
            ++lines;
            start = end + 2;
        }
        EXPECT_LE(lines, static_cast<size_t>(rows));
        EXPECT_EQ(screen.find("SHMEM") != std::string::npos, columns >= 104);
        if (rows >= 10) {
            EXPECT_NE(screen.find("a-very-long-pro "), std::string::npos);
        }
    }
}

}  // namespace
