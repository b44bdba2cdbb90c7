// Runs inside a private mount namespace with a tmpfs on /data. Signal
// dispositions are process-wide, so this file has a process of its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "diag/quor_bpf_dump_signals.h"
#include "diag/quor_bpf_state.h"
#include "diag/quor_bpf_task_manager.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;

namespace {

const char* kTaskFile = QuorTaskManager::QUORTASK_DUMP_TEMPLATE;

// True once at least `atLeast` arrivals of `signo` were seen, each answered.
bool CaughtUp(int signo, uint64_t atLeast) {
    DumpSignalProgress p;
    return GetDumpSignalProgress(signo, &p) && p.received >= atLeast && p.dumped == p.received;
}

bool WaitCaughtUp(int signo, uint64_t atLeast) {
    return quortest::WaitFor([&] { return CaughtUp(signo, atLeast); }, std::chrono::seconds(20));
}

uint64_t Received(int signo) {
    DumpSignalProgress p;
    EXPECT_TRUE(GetDumpSignalProgress(signo, &p));
    return p.received;
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
    }
};

}  // namespace

// Installed once, with handlers that restart other threads' blocking calls
// (a dump must not make them fail with EINTR); each task signal writes its
// variant (quorbpfctl's tests read the statistics that signal 50 writes).
TEST_F(DumpSignalsTest, InstalledOnceAndEachSignalWritesItsVariant) {
    // The thread names itself once running: wait for it.
    EXPECT_TRUE(quortest::WaitFor([] { return quortest::ThreadsNamed("BpfServiceDump") == 1; }));
    InstallDumpSignalHandlers();
    EXPECT_EQ(quortest::ThreadsNamed("BpfServiceDump"), 1);
    for (int signo = 50; signo <= 54; ++signo) {
        struct sigaction action = {};
        ASSERT_EQ(sigaction(signo, nullptr, &action), 0);
        EXPECT_NE(action.sa_flags & SA_RESTART, 0) << signo;
    }
    // 51/53 dump everything, 52/54 skip kernel tasks; 53/54 the short form.
    for (const int signo : {51, 52, 53, 54}) {
        (void)remove(kTaskFile);
        const uint64_t before = Received(signo);
        ASSERT_EQ(raise(signo), 0);
        ASSERT_TRUE(WaitCaughtUp(signo, before + 1)) << signo;
        const auto lines = quortest::ReadLines(kTaskFile);
        ASSERT_EQ(lines.size(), signo % 2 ? 4u : 3u) << signo;
        EXPECT_EQ(lines[1].find("oldThreadNum") != std::string::npos, signo < 53) << signo;
        EXPECT_EQ(lines[2].rfind("surfaceflinger", 0), 0u) << signo;
    }
}

// The handlers must not need the registry lock (raising while it is held
// would then deadlock); signals that arrive during a dump, or a burst of a
// thousand while a producer records, are each answered after it.
TEST_F(DumpSignalsTest, SignalsDuringADumpOrABurstAreAnsweredAfterIt) {
    const uint64_t before51 = Received(51), before52 = Received(52);
    {
        std::lock_guard<std::mutex> lock(QuorTaskManager::quorTaskManagerLock);
        for (int signo : {51, 52, 51}) ASSERT_EQ(raise(signo), 0);
        EXPECT_FALSE(CaughtUp(51, before51 + 2));
    }
    EXPECT_TRUE(WaitCaughtUp(51, before51 + 2) && WaitCaughtUp(52, before52 + 1));

    std::atomic<bool> done{false};
    std::atomic<uint64_t> recorded{0};
    std::thread producer([&] {
        // What a ring-buffer thread does between signals.
        auto* tasks = QuorTaskManager::GetInstance();
        for (int32_t i = 0; !done.load(); ++i, ++recorded) {
            QuorBpfDataState::GetInstance()->RecordEvent(i % 9, 1);
            const int32_t pid = 5000 + i % 100;
            tasks->AddQuorTask(pid, Task(pid, "burst", i));
            tasks->UpdateQuorTask(pid, [](QuorTask& t) { t.threadNum++; });
            if (i % 3 == 0) (void)tasks->DelQuorTask(pid);
        }
    });
    uint64_t expected[5];
    for (int k = 0; k < 5; ++k) expected[k] = Received(50 + k);
    std::mt19937 random(1234);
    for (int i = 0; i < 1000; ++i) {
        const int k = i < 5 ? i : static_cast<int>(random() % 5);
        ASSERT_EQ(raise(50 + k), 0);
        expected[k]++;
    }
    for (int k = 0; k < 5; ++k) EXPECT_TRUE(WaitCaughtUp(50 + k, expected[k])) << 50 + k;
    // Still responsive: the producer keeps going.
    const uint64_t progress = recorded.load();
    EXPECT_TRUE(quortest::WaitFor([&] { return recorded.load() > progress + 1000; }));
    done = true;
    producer.join();
    for (int32_t pid = 5000; pid < 5100; ++pid)
        (void)QuorTaskManager::GetInstance()->DelQuorTask(pid);
}
