// Runs inside a private mount namespace with a tmpfs on /data.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_event_names.h"
#include "diag/quor_bpf_state.h"
#include "diag/quor_bpf_time.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;

namespace {

const char* kStateFile = QuorBpfDataState::QUORTASK_DUMP_TEMPLATE;
const std::string kHeaderNames =
    "EventCount, quor_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
    "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, PollCount, ";

std::atomic<int64_t> fakeNow{5000};
int64_t FakeClock() {
    return fakeNow.load();
}

// Lines of the state file without their "\r\n" (asserts every line has one).
std::vector<std::string> ReadRows() {
    const std::string text = quortest::ReadFile(kStateFile);
    std::vector<std::string> rows;
    size_t start = 0;
    for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
        rows.push_back(text.substr(start, end - start));
    }
    EXPECT_EQ(start, text.size()) << "unterminated last line";
    return rows;
}

std::vector<long long> Numbers(const std::string& row) {
    std::vector<long long> out;
    std::istringstream in(row);
    for (std::string field; std::getline(in, field, ',');) {
        if (field.find_first_not_of(' ') != std::string::npos) out.push_back(std::stoll(field));
    }
    return out;
}

class StateTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(system("rm -rf /data/quorlog && mkdir -p /data/quorlog/stability"), 0);
        fakeNow = 5000;
        state = std::make_unique<QuorBpfDataState>(FakeClock);
    }
    std::unique_ptr<QuorBpfDataState> state;
};

}  // namespace

// The service's instance may be created by a dump signal before the time base
// is read; setting the base afterwards must not move the slots.
TEST_F(StateTest, DumpSignalBeforeTheTimeBaseKeepsTheWindowSmall) {
    ASSERT_EQ(GetBasetime(), 0);
    QuorBpfDataState::GetInstance()->RecordEvent(1, 1);
    ASSERT_TRUE(InitBasetime());
    // The base is the boot time; the clocks read from the monotonic time on.
    const std::string stat = quortest::ReadFile("/proc/stat");
    ASSERT_EQ(GetBasetime(), std::stoll(stat.substr(stat.find("\nbtime ") + 7)));
    const std::chrono::nanoseconds sinceBoot = std::chrono::steady_clock::now().time_since_epoch();
    EXPECT_NEAR(GetSystemBootNanosencondsTime(), sinceBoot.count(), 1e9);
    EXPECT_NEAR(GetSystemSecondsTime() - GetBasetime(), sinceBoot.count() / 1e9, 1);
    QuorBpfDataState::GetInstance()->RecordEvent(1, 1);
    QuorBpfDataState::GetInstance()->DumpState();
    const auto rows = ReadRows();
    ASSERT_GE(rows.size(), 2u);
    const auto header = Numbers(rows[0].substr(kHeaderNames.size()));
    ASSERT_EQ(header.size(), 2u);
    EXPECT_LE(header[0], 2) << "head";
    EXPECT_EQ(header[1], 0) << "tail";
    long long kmem = 0;
    for (size_t r = 1; r < rows.size(); ++r) kmem += Numbers(rows[r])[2];
    EXPECT_EQ(kmem, 2);
}

TEST_F(StateTest, CountsPerTypePollsApartAndBadTypesIgnored) {
    // Polls (8) are not part of the event sum; 9 and negatives are outside the table.
    const int events[][2] = {{0, 1}, {0, 41}, {3, 2}, {7, 1}, {8, 5}, {9, 1}, {-1, 1}, {-8, 100}};
    for (const auto& e : events) state->RecordEvent(e[0], e[1]);
    state->DumpState();
    const auto rows = ReadRows();
    ASSERT_EQ(rows.size(), 2u);  // a fresh state has one second
    EXPECT_EQ(rows[0], kHeaderNames + "0, 0 ");
    EXPECT_EQ(rows[1], "45, 42, 0, 0, 2, 0, 0, 0, 1, 5, ");
    // Nor are their names read from outside the name table.
    for (int type : {9, -1, 1 << 30}) EXPECT_STREQ(EventTypeName(type), "UNKNOW") << type;
}

TEST_F(StateTest, WindowKeeps1800SecondsAndReusedSlotsStartEmpty) {
    // Second i gets i events of type 4, for 2000 seconds: slots wrap, and a
    // reused slot must not carry the count of the second it held before.
    for (int i = 0; i < 2000; ++i) {
        if (i > 0) fakeNow += 1;
        state->RecordEvent(4, i);
    }
    state->DumpState();
    auto rows = ReadRows();
    ASSERT_EQ(rows.size(), 1u + 1800u);
    EXPECT_EQ(rows[0], kHeaderNames + "1999, 200 ");
    for (size_t r = 1; r < rows.size(); ++r)
        ASSERT_EQ(Numbers(rows[r])[5], 2000 - static_cast<long long>(r)) << r;

    // A jump far beyond the window (the time base is set after start-up)
    // clears the window once instead of once per skipped second.
    fakeNow += 1700000000;
    state->RecordEvent(5, 1);
    state->DumpState();
    rows = ReadRows();
    ASSERT_EQ(rows.size(), 1u + 1800u);
    EXPECT_EQ(rows[0], kHeaderNames + "1700001999, 1700000200 ");
    EXPECT_EQ(Numbers(rows[1]), (std::vector<long long>{1, 0, 0, 0, 0, 0, 1, 0, 0, 0}));
    for (size_t r = 2; r < rows.size(); ++r) ASSERT_EQ(Numbers(rows[r])[0], 0) << r;
}

TEST_F(StateTest, ConcurrentRecordersLoseNothingWhileDumping) {
    constexpr int kPerThread = 200000;
    std::atomic<bool> done{false};
    std::thread dumper([&] {
        while (!done.load()) state->DumpState();
    });
    auto recorder = [&](int32_t type) {
        for (int i = 0; i < kPerThread; ++i) state->RecordEvent(type, 1);
    };
    std::thread a(recorder, 1), b(recorder, 8);
    std::thread c([&] {  // slots advance under contention
        for (int i = 0; i < 100; ++i, ++fakeNow) state->RecordEvent(2, 1);
    });
    a.join();
    b.join();
    c.join();
    done = true;
    dumper.join();

    state->DumpState();
    const auto rows = ReadRows();
    std::vector<long long> sums(10, 0);
    for (size_t r = 1; r < rows.size(); ++r)
        for (size_t i = 0; i < 10; ++i) sums[i] += Numbers(rows[r])[i];
    EXPECT_EQ(sums, (std::vector<long long>{kPerThread + 100, 0, kPerThread, 100, 0, 0, 0, 0, 0,
                                            kPerThread}));
}
