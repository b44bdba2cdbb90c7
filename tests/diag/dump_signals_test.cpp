// Runs inside a private mount namespace with a tmpfs on /data. Signal
// dispositions are process-wide, so this file has a process of its own.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_dump_signals.h"
#include "diag/quor_bpf_state.h"
#include "diag/quor_bpf_task_manager.h"

using namespace Quor::Bpf;

namespace {

const char* kTaskFile = QuorTaskManager::QUORTASK_DUMP_TEMPLATE;
const char* kStateFile = QuorBpfDataState::QUORTASK_DUMP_TEMPLATE;

bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

// True once every arrival of `signo` so far has been answered by a dump and
// at least `atLeast` arrivals were seen.
bool CaughtUp(int signo, uint64_t atLeast) {
    DumpSignalProgress p;
    return GetDumpSignalProgress(signo, &p) && p.received >= atLeast && p.dumped == p.received;
}

uint64_t Received(int signo) {
    DumpSignalProgress p;
    EXPECT_TRUE(GetDumpSignalProgress(signo, &p));
    return p.received;
}

std::vector<std::string> ReadLines(const char* path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

int CountThreadsNamed(const std::string& name) {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return -1;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string text;
        if (std::getline(comm, text) && text == name) count++;
    }
    closedir(dir);
    return count;
}

QuorTask Task(int32_t pid, const char* comm, int64_t anon) {
    QuorTask t;
    t.pid = pid;
    snprintf(t.comm, sizeof(t.comm), "%s", comm);
    t.rssAnonSize = anon;
    return t;
}

class DumpSignalsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // Both monitors call it, possibly at the same time.
        std::thread other(InstallDumpSignalHandlers);
        InstallDumpSignalHandlers();
        other.join();
        QuorTaskManager::GetInstance()->AddQuorTask(2, Task(2, "kthreadd", 0));
        QuorTaskManager::GetInstance()->AddQuorTask(700, Task(700, "surfaceflinger", 1 << 20));
    }
    void SetUp() override {
        ASSERT_EQ(system("mkdir -p /data/quorlog/stability/quorbpfframework"), 0);
        (void)remove(kTaskFile);
        (void)remove(kStateFile);
    }
};

}  // namespace

TEST_F(DumpSignalsTest, InstalledOnceWithRestartingHandlers) {
    EXPECT_EQ(CountThreadsNamed("BpfServiceDump"), 1);
    InstallDumpSignalHandlers();
    EXPECT_EQ(CountThreadsNamed("BpfServiceDump"), 1);
    // Other threads' blocking calls must not fail with EINTR because of a dump.
    for (int signo = 50; signo <= 54; ++signo) {
        struct sigaction action = {};
        ASSERT_EQ(sigaction(signo, nullptr, &action), 0);
        EXPECT_NE(action.sa_flags & SA_RESTART, 0) << signo;
    }
}

TEST_F(DumpSignalsTest, EachSignalWritesItsVariant) {
    struct Case {
        int signo;
        const char* columnsStart;
        size_t rows;  // kthreadd is a kernel task (all sizes zero)
    };
    const Case cases[] = {
        {51, "comm               pid         ppid        threadNum   oldThreadNum", 2},
        {52, "comm               pid         ppid        threadNum   oldThreadNum", 1},
        {53, "comm               pid         ppid        threadNum   mmId", 2},
        {54, "comm               pid         ppid        threadNum   mmId", 1},
    };
    for (const Case& c : cases) {
        (void)remove(kTaskFile);
        const uint64_t before = Received(c.signo);
        ASSERT_EQ(raise(c.signo), 0);
        ASSERT_TRUE(WaitFor([&] { return CaughtUp(c.signo, before + 1); })) << c.signo;
        const auto lines = ReadLines(kTaskFile);
        ASSERT_EQ(lines.size(), 2 + c.rows) << c.signo;
        EXPECT_NE(lines[0].find("(count: 2, "), std::string::npos) << c.signo;
        EXPECT_EQ(lines[1].rfind(c.columnsStart, 0), 0u) << c.signo;
        EXPECT_EQ(lines[2].rfind("surfaceflinger", 0), 0u) << c.signo;
    }

    (void)remove(kTaskFile);
    const uint64_t before = Received(50);
    QuorBpfDataState::GetInstance()->RecordEvent(2, 3);
    ASSERT_EQ(raise(50), 0);
    ASSERT_TRUE(WaitFor([&] { return CaughtUp(50, before + 1); }));
    const auto lines = ReadLines(kStateFile);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("EventCount, quor_task_init, ", 0), 0u);
    EXPECT_NE(access(kTaskFile, F_OK), 0);  // the statistics have a file of their own
}

TEST_F(DumpSignalsTest, SignalsDuringADumpAreAnsweredAfterIt) {
    // Holding the registry lock stalls any task dump; the handlers must not
    // need that lock (raising here would deadlock if they did), and signals
    // that arrive meanwhile must still be answered once it is released.
    const uint64_t before51 = Received(51);
    const uint64_t before52 = Received(52);
    {
        std::lock_guard<std::mutex> lock(QuorTaskManager::quorTaskManagerLock);
        ASSERT_EQ(raise(51), 0);
        ASSERT_EQ(raise(52), 0);
        ASSERT_EQ(raise(51), 0);
        EXPECT_FALSE(CaughtUp(51, before51 + 2));
    }
    EXPECT_TRUE(WaitFor([&] { return CaughtUp(51, before51 + 2) && CaughtUp(52, before52 + 1); }));
}

TEST_F(DumpSignalsTest, BurstWhileRecordingIsNeverLostAndStaysResponsive) {
    std::atomic<bool> done{false};
    std::atomic<uint64_t> recorded{0};
    std::thread producer([&] {
        // What a ring-buffer thread does between signals.
        auto* tasks = QuorTaskManager::GetInstance();
        for (int32_t i = 0; !done.load(); ++i) {
            QuorBpfDataState::GetInstance()->RecordEvent(i % 9, 1);
            const int32_t pid = 5000 + i % 100;
            tasks->AddQuorTask(pid, Task(pid, "burst", i));
            tasks->UpdateQuorTask(pid, [](QuorTask& t) { t.threadNum++; });
            if (i % 3 == 0) (void)tasks->DelQuorTask(pid);
            recorded++;
        }
    });

    uint64_t sent[5] = {};
    uint64_t before[5];
    for (int k = 0; k < 5; ++k) before[k] = Received(50 + k);
    std::mt19937 random(1234);
    for (int i = 0; i < 1000; ++i) {
        const int k = i < 5 ? i : static_cast<int>(random() % 5);
        ASSERT_EQ(raise(50 + k), 0);
        sent[k]++;
    }
    for (int k = 0; k < 5; ++k) {
        EXPECT_TRUE(WaitFor([&] { return CaughtUp(50 + k, before[k] + sent[k]); })) << 50 + k;
    }

    // Still responsive: the producer keeps going and a new signal is answered.
    const uint64_t progress = recorded.load();
    EXPECT_TRUE(WaitFor([&] { return recorded.load() > progress + 1000; }));
    const uint64_t before51 = Received(51);
    ASSERT_EQ(raise(51), 0);
    EXPECT_TRUE(WaitFor([&] { return CaughtUp(51, before51 + 1); }));
    done = true;
    producer.join();
    for (int32_t pid = 5000; pid < 5100; ++pid)
        (void)QuorTaskManager::GetInstance()->DelQuorTask(pid);
}
