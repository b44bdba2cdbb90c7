// Runs inside a private mount namespace with a tmpfs on /data.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_task_manager.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;

namespace {

const char* kDumpFile = QuorTaskManager::QUORTASK_DUMP_TEMPLATE;

// A dump row with its padding squeezed to single blanks.
std::string Words(const std::string& line) {
    std::istringstream in(line);
    std::string out;
    for (std::string word; in >> word;) out += (out.empty() ? "" : " ") + word;
    return out;
}

QuorTask MakeTask(int32_t pid, const char* comm, int64_t anon, int64_t file = 0) {
    QuorTask t;
    t.pid = pid;
    t.ppid = 1;
    t.threadNum = 1;
    memcpy(t.comm, comm, std::min(strlen(comm), sizeof(t.comm)));
    t.rssAnonSize = anon;
    t.rssFileSize = file;
    return t;
}

// The registry is a process-wide singleton: every test removes what it added.
class TaskManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(system("rm -rf /data/quorlog && mkdir -p /data/quorlog/stability"), 0);
        tasks = QuorTaskManager::GetInstance();
        ASSERT_EQ(tasks->GetQuorTaskCount(), 0u);
    }
    void TearDown() override {
        for (int32_t pid : added) (void)tasks->DelQuorTask(pid);
    }
    void Add(const QuorTask& t) {
        added.insert(t.pid);
        tasks->AddQuorTask(t.pid, t);
    }

    QuorTaskManager* tasks = nullptr;
    std::set<int32_t> added;
};

}  // namespace

TEST_F(TaskManagerTest, ReplacedInPlaceAndDeletedWithItsIndexEntries) {
    EXPECT_EQ(tasks->GetQuorTask(42), nullptr);
    EXPECT_EQ(tasks->GetQuorTaskCount(), 0u);  // lookups never insert
    Add(MakeTask(42, "first", 4096));
    Add(MakeTask(43, "other", 0));
    QuorTask* stored = tasks->GetQuorTask(42);
    ASSERT_NE(stored, nullptr);
    QuorTask second = MakeTask(42, "second", 0, 8192);
    EXPECT_EQ(tasks->AddQuorTask(42, second), 0);
    // Replaced whole, in place: the earlier pointer sees the new record.
    EXPECT_EQ(tasks->GetQuorTask(42), stored);
    EXPECT_EQ(memcmp(stored, &second, sizeof(second)), 0);
    EXPECT_FALSE(tasks->UpdateQuorTask(44, [](QuorTask&) { ADD_FAILURE(); }));

    // Deleting a record takes every index entry that points at it along, so
    // none is left dangling; other entries stay.
    EXPECT_EQ(tasks->AddMmidIndex(100, stored), 0);
    EXPECT_EQ(tasks->AddMmidIndex(101, stored), 0);
    EXPECT_EQ(tasks->AddMmidIndex(200, tasks->GetQuorTask(43)), 0);
    EXPECT_EQ(tasks->DelQuorTask(42), 0);
    EXPECT_EQ(tasks->DelQuorTask(42), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(tasks->GetQuorTaskByMmid(100), nullptr);
    EXPECT_EQ(tasks->GetQuorTaskByMmid(101), nullptr);
    EXPECT_EQ(tasks->GetQuorTaskByMmid(200), tasks->GetQuorTask(43));
    EXPECT_EQ(tasks->DelMmidIndex(200), 0);
}

// A batch's holder uses the registry freely; another thread waits for the
// batch to end, and what it reads then is the batch's work.
TEST_F(TaskManagerTest, ABatchKeepsOtherThreadsOutUntilItEnds) {
    std::atomic<bool> counted{false};
    std::thread other;
    {
        QuorTaskManager::BatchHold hold;
        Add(MakeTask(50, "batch", 0));
        other = std::thread([&] {
            EXPECT_EQ(tasks->GetQuorTaskCount(), 2u);
            counted.store(true);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(counted.load());
        Add(MakeTask(51, "batch", 0));
    }
    other.join();
    EXPECT_TRUE(counted.load());
}

TEST_F(TaskManagerTest, DumpsOrderRowsAndSkipKernelTasks) {
    QuorTask a = MakeTask(1234, "abcdefghijklmno", 2048, 10240);
    a.threadNum = 5;
    a.oldThreadNum = 4;
    a.mmId = 77;
    a.rssAnonOldSize = 1024;
    a.rssShmemSize = -1536;  // truncates toward zero: -1 KB
    a.rssSwapSize = 1023;
    a.rssSwapOldSize = 4096;
    a.initTimeStamp = 1700000000;
    Add(a);
    // All 16 bytes used, no terminator: the name ends at the field's end.
    QuorTask b = MakeTask(99, "abcdefghijklmnop", 1024);
    b.ppid = 0;
    b.mmId = 4294967295u;
    b.initTimeStamp = -5;
    Add(b);
    tasks->DumpQuorTaskInfo();
    auto lines = quortest::ReadLines(kDumpFile);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].find("(count: 2, "), std::string::npos);
    EXPECT_EQ(Words(lines[2]),
              "abcdefghijklmno 1234 1 5 4 77 2 KB 1 KB 10 KB 0 KB -1 KB 0 KB 0 KB 4 KB 1700000000");
    EXPECT_EQ(Words(lines[3]),
              "abcdefghijklmnop 99 0 1 0 4294967295 1 KB 0 KB 0 KB 0 KB 0 KB 0 KB 0 KB 0 KB -5");
    EXPECT_EQ(lines[3].find("99"), lines[1].find("pid"));  // columns line up
    tasks->DumpQuorTaskInfoNormal();
    EXPECT_EQ(Words(quortest::ReadLines(kDumpFile)[2]),
              "abcdefghijklmno 1234 1 5 77 2 KB 10 KB -1 KB 0 KB 1700000000");

    for (int32_t pid : {1234, 99}) (void)tasks->DelQuorTask(pid);
    Add(MakeTask(2, "kthreadd", 0));  // all sizes zero: a kernel task
    Add(MakeTask(3, "small", 1024));
    Add(MakeTask(4, "large", 1024, 1 << 30));
    Add(MakeTask(5, "middle", 1 << 20));
    Add(MakeTask(6, "negative", -4096));
    tasks->DumpQuorTaskIgnoreKernelTaskInfoNormal();
    std::vector<std::string> names;
    for (const auto& line : quortest::ReadLines(kDumpFile))
        names.push_back(line.substr(0, line.find(' ')));
    EXPECT_EQ(names, (std::vector<std::string>{"============", "comm", "large", "middle", "small",
                                               "negative"}));
    EXPECT_NE(quortest::ReadLines(kDumpFile)[0].find("(count: 5, "), std::string::npos);
    tasks->DumpQuorTaskInfoNormal();
    EXPECT_EQ(quortest::ReadLines(kDumpFile).size(), 7u);
    tasks->DumpQuorTaskIgnoreKernelTaskInfo();
    EXPECT_EQ(quortest::ReadLines(kDumpFile).size(), 6u);
}
