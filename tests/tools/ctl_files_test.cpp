// The daemon's files as quorbpfctl reads them, finding the daemon, and
// asking a process without a handler for a dump.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <tuple>

#include "tests/support/proc_self.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/daemon_finder.h"
#include "tools/quorbpfctl/dump_request.h"
#include "tools/quorbpfctl/state_table.h"
#include "tools/quorbpfctl/task_dump.h"

using namespace Quor::Bpf::Ctl;

namespace {

std::string TempDir() {
    char pattern[] = "/tmp/quorbpfctl_test.XXXXXX";
    return mkdtemp(pattern) == nullptr ? "/tmp" : pattern;
}

void WriteText(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

const char* const kHeader =
    "============ DUMP ALL QUOR TASKS INFO (count: 3, time: 1700000123) ============\n";
const char* const kNormalColumns =
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         "
    "rssFileSize         rssShmemSize        rssSwapSize         initTimeStamp       \n";

// A row written with the daemon's own format for the variant the top screen
// and the exporter read (tasks prints the daemon's text as it is).
std::string Row(const char* comm, int pid, long anonKb) {
    char row[512];
    snprintf(row, sizeof(row), "   %-12d%-12d%-12d%-12u%10ld KB%17ld KB%17ld KB%17ld KB%20ld\n",
             pid, 1, 3, 1000u, anonKb, 8L, 0L, 0L, 1700000000L);
    std::string name = comm;
    name.resize(std::max<size_t>(16, name.size()), ' ');
    return name + row;
}

TEST(TaskDumpTest, ParsesAwkwardNamesAndRejectsTheRest) {
    const std::string text = std::string(kHeader) + kNormalColumns + Row("web content", 10, 900) +
                             Row("0123456789abcdef", 11, -5) + Row("x", 12, 0);
    TaskDump dump;
    std::string error;
    ASSERT_TRUE(ParseTaskDump(text, &dump, &error)) << error;
    EXPECT_EQ(std::make_tuple(dump.full, dump.count, dump.time),
              std::make_tuple(false, 3u, int64_t{1700000123}));
    ASSERT_EQ(dump.rows.size(), 3u);
    const TaskRow& row = dump.rows[0];
    EXPECT_EQ(std::make_tuple(row.comm, row.anonKb, row.fileKb, row.uid, row.initTimestamp),
              std::make_tuple(std::string("web content"), int64_t{900}, int64_t{8}, 1000u,
                              int64_t{1700000000}));
    EXPECT_EQ(std::tie(dump.rows[1].comm, dump.rows[1].anonKb, dump.rows[2].comm),
              std::make_tuple("0123456789abcdef", -5, "x"));
    // Text that is no dump, or a row that is no row, is refused.
    EXPECT_FALSE(ParseTaskDump("hello\nworld\n", &dump, &error));
    EXPECT_FALSE(ParseTaskDump(std::string(kHeader) + kNormalColumns + "a 1 2 3\n", &dump, &error));
}

// Statistics with the daemon's formats: newest second first.
std::string StateFile(int64_t head, int64_t tail, const std::vector<std::vector<int>>& rows) {
    std::string text =
        "EventCount, quor_task_init, kmem_rss_info, sched_task_create, sched_task_exit, "
        "dmabuf_size_info, cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, PollCount, " +
        std::to_string(head) + ", " + std::to_string(tail) + " \r\n";
    for (const auto& row : rows) {
        int sum = 0;
        for (size_t k = 0; k < 8 && k < row.size(); ++k) sum += row[k];
        text += std::to_string(sum) + ", ";
        for (const int value : row) text += std::to_string(value) + ", ";
        text += "\r\n";
    }
    return text;
}

TEST(StateTableTest, RatesLeaveOutTheRunningSecond) {
    std::vector<std::vector<int>> rows;
    rows.push_back({0, 999, 0, 0, 0, 0, 0, 0, 1});  // the second in progress
    for (int i = 0; i < 70; ++i) rows.push_back({0, i < 60 ? 10 : 40, 1, 0, 0, 0, 0, 0, 2});
    const std::string text = StateFile(1070, 1000, rows);
    ASSERT_TRUE(StateTableComplete(text));
    EXPECT_FALSE(StateTableComplete(text.substr(0, text.size() - 3)));
    EXPECT_FALSE(StateTableComplete(StateFile(1071, 1000, rows)));
    StateTable table;
    std::string error;
    ASSERT_TRUE(ParseStateTable(text, &table, &error)) << error;
    EXPECT_EQ(std::tie(table.names[1], table.names[8]),
              std::make_tuple("kmem_rss_info", "PollCount"));
    EXPECT_EQ(table.Rates(60).seconds, 60u);
    EXPECT_DOUBLE_EQ(table.Rates(60).perSecond[1], 10.0);
    const StateRates all = table.Rates(0);
    EXPECT_EQ(std::tie(all.seconds, all.totals[2]), std::make_tuple(70u, 70u));
    EXPECT_DOUBLE_EQ(all.perSecond[1], (60 * 10 + 10 * 40) / 70.0);
    EXPECT_DOUBLE_EQ(all.perSecond[8], 2.0);
    // Right after the daemon starts there is one row: it is all there is.
    ASSERT_TRUE(ParseStateTable(StateFile(0, 0, {{1, 2, 3, 4, 5, 6, 7, 8, 9}}), &table, &error));
    EXPECT_EQ(table.Rates(60).seconds, 1u);
    EXPECT_DOUBLE_EQ(table.Rates(60).perSecond[7], 8.0);
    EXPECT_FALSE(ParseStateTable("EventCount, a, b\r\n", &table, &error));
    EXPECT_FALSE(
        ParseStateTable(StateFile(1, 0, {{1, 2, 3, 4, 5, 6, 7, 8, 9}, {1, 2}}), &table, &error));
}

TEST(DaemonFinderTest, PidFileFirstWhileItNamesTheDaemonThenTheProcessList) {
    const std::string proc = TempDir();
    const auto fakeProcess = [&](int pid, const char* comm) {
        mkdir((proc + "/" + std::to_string(pid)).c_str(), 0755);
        WriteText(proc + "/" + std::to_string(pid) + "/comm", std::string(comm) + "\n");
    };
    fakeProcess(10, "bash");
    fakeProcess(20, "quorbpfd");
    mkdir((proc + "/self").c_str(), 0755);
    const std::string pidFile = proc + "/quorbpfd.pid";
    const DaemonFinder finder(proc);
    // A stale file naming a recycled pid, or a malformed one, is not believed.
    for (const auto& [text, source] : {std::pair<const char*, std::string>{"20\n", pidFile},
                                       {"10\n", "process list"},
                                       {"20 junk\n", "process list"}}) {
        WriteText(pidFile, text);
        const DaemonLookup found = finder.Find(0, pidFile);
        EXPECT_EQ(found.pid, 20) << text;
        EXPECT_EQ(found.source, source) << text;
    }
    // An explicit pid wins as long as it exists.
    EXPECT_EQ(finder.Find(10, pidFile).pid, 10);
    EXPECT_EQ(finder.Find(99, pidFile).exitCode, kExitNotRunning);
    // Two daemons: no guessing.
    fakeProcess(30, "quorbpfd");
    const DaemonLookup found = finder.Find(0, "/nonexistent");
    EXPECT_EQ(found.pid, 0);
    EXPECT_EQ(found.exitCode, kExitFailure);
    EXPECT_EQ(DaemonFinder(proc, "nothing").Find(0, "/nonexistent").exitCode, kExitNotRunning);
}

// A process without a handler for the signal is never signalled (the default
// action would end it): the request times out. The daemon's own answer is
// read in ctl_daemon_test's tasks case.
TEST(DumpRequestTest, SignalsOnlyAProcessWithAHandler) {
    const std::string path = TempDir() + "/DUMPTASK_INFO";
    const int signo = SIGRTMIN + 20;
    const pid_t idle = fork();
    if (idle == 0) {
        for (;;) pause();
    }
    std::string contents, error;
    const auto request = [&] {
        return DumpRequest(idle, signo, path, 1000)
            .Run([](const std::string& text) { return TaskDumpComplete(text, true); }, &contents,
                 &error);
    };
    // qemu-user catches every signal itself to forward it to the guest.
    const std::string status = quortest::ReadFile("/proc/" + std::to_string(idle) + "/status");
    const size_t sigCgt = status.find("SigCgt:");
    const bool emulated = (std::stoull(status.substr(sigCgt + 7), nullptr, 16) >> signo) & 1;
    if (!emulated) {
        EXPECT_EQ(request(), kExitTimeout) << error;
        EXPECT_EQ(waitpid(idle, nullptr, WNOHANG), 0) << "the child was killed by the signal";
    }
    kill(idle, SIGKILL);
    waitpid(idle, nullptr, 0);
    EXPECT_EQ(request(), kExitNotRunning) << "a process that is gone";
    if (emulated) GTEST_SKIP() << "the kernel reports a handler the child never installed";
}

}  // namespace
