// Procfs readers against the real /proc (this test process) and against
// crafted file text mounted over /proc in a child.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bpf/quor_bpf_proc_info.h"
#include "diag/quor_bpf_time.h"
#include "fake_proc.h"
#include "service/quor_bpf_service.h"

using namespace Quor::Bpf;

namespace {

size_t CountEntries(const std::string& dirPath) {
    size_t n = 0;
    DIR* dir = opendir(dirPath.c_str());
    if (dir == nullptr) return 0;
    while (const dirent* e = readdir(dir)) n += e->d_name[0] != '.';
    closedir(dir);
    return n;
}

// Field 20 (num_threads) of /proc/self/stat, read without the code under test.
std::string OwnStatThreadsField() {
    std::string line;
    std::getline(std::ifstream("/proc/self/stat"), line);
    const size_t commEnd = line.rfind(')');
    if (commEnd == std::string::npos) return "";
    std::istringstream rest(line.substr(commEnd + 1));
    std::string field;
    for (int i = 3; i <= 20; ++i) {
        if (!(rest >> field)) return "";
    }
    return field;
}

// A stat line of `count` blank-separated pieces, piece i being "1000+i"
// unless `set` says otherwise.
std::string StatLine(size_t count, const std::vector<std::pair<size_t, std::string>>& set) {
    std::vector<std::string> pieces(count);
    for (size_t i = 0; i < count; ++i) pieces[i] = std::to_string(1000 + i);
    for (const auto& [i, text] : set) pieces[i] = text;
    std::string line;
    for (const auto& p : pieces) line += p + " ";
    return line + "\n";
}

}  // namespace

TEST(FdinfoTest, FirstKeyedLineOrZeroAndNoDescriptorLeft) {
    FakeProc dir;
    dir.File("dmabuf", "pos:\t0\nflags:\t02000002\nsize:\t4096\nino:\t123456789012\nsize:\t1\n");
    dir.File("noino", "pos:\t0\nsize:\t 77 bytes\n");
    dir.File("garbage", std::string("size:\tlots\nino:\t99999999999999999999999\0", 40));
    const size_t fdsBefore = CountEntries("/proc/self/fd");
    EXPECT_EQ(QuorBpfService::GetFdSize(dir.root() + "/dmabuf"), 4096);
    EXPECT_EQ(QuorBpfService::GetFdInode(dir.root() + "/dmabuf"), 123456789012u);
    EXPECT_EQ(QuorBpfService::GetFdSize(dir.root() + "/noino"), 77);
    EXPECT_EQ(QuorBpfService::GetFdInode(dir.root() + "/noino"), 0u);
    EXPECT_EQ(QuorBpfService::GetFdSize(dir.root() + "/garbage"), 0);
    EXPECT_EQ(QuorBpfService::GetFdInode(dir.root() + "/garbage"), ULLONG_MAX);
    EXPECT_EQ(QuorBpfService::GetFdSize(dir.root() + "/missing"), 0);
    EXPECT_EQ(CountEntries("/proc/self/fd"), fdsBefore);
}

TEST(ProcessInfoTest, ReadsThisProcessFromRealProc) {
    const int64_t before = GetSystemBootNanosencondsTime();
    quor_task_init_record record;
    ASSERT_TRUE(ReadTaskInitRecord(std::to_string(getpid()), &record));
    EXPECT_EQ(record.header.type, 0u);
    EXPECT_GE(record.header.timestamp_ns, static_cast<uint64_t>(before));
    EXPECT_EQ(record.pid, getpid());
    EXPECT_EQ(record.ppid, getppid());
    EXPECT_EQ(record.uid, static_cast<int32_t>(getuid()));
    std::string comm;
    std::getline(std::ifstream("/proc/self/comm"), comm);
    EXPECT_EQ(std::string(record.comm), comm.substr(0, 15));
    EXPECT_GT(record.rss_anon, 0);
    EXPECT_EQ(record.rss_anon % 1024, 0);
    // Started at most a few minutes ago, on the base's clock.
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    EXPECT_LE(record.start_time_s, GetBasetime() + now.tv_sec);
    EXPECT_GE(record.start_time_s, GetBasetime() + now.tv_sec - 600);

    UpdateProcessExdata info = {};
    ASSERT_EQ(QuorBpfService::GetInstance()->getProcessInfo(getpid(), &info), 0);
    EXPECT_EQ(info.pid, getpid());
    EXPECT_EQ(info.ppid, getppid());
    EXPECT_STREQ(info.comm, record.comm);

    std::set<std::string> pids;
    ASSERT_EQ(ForEachProcPid([&pids](const std::string& name) { pids.insert(name); }), 0);
    EXPECT_EQ(pids.count(std::to_string(getpid())), 1u);
    EXPECT_EQ(pids.count("1"), 1u);
    EXPECT_EQ(pids.count("self"), 0u);

    // Last, as it may end the test: qemu-user answers a process's reads of
    // its own stat file with a synthetic copy whose thread count is 0, which
    // the kernel never reports for a live process.
    if (OwnStatThreadsField() == "0")
        GTEST_SKIP()
            << "this process's stat file is an emulator's synthetic copy (no thread count)";
    EXPECT_EQ(record.thread_count, static_cast<int32_t>(CountEntries("/proc/self/task")));
}

TEST(ProcessInfoTest, VanishedProcessLeavesOutputUntouched) {
    const pid_t gone = fork();
    if (gone == 0) _exit(0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    UpdateProcessExdata info;
    memset(&info, 0x5a, sizeof(info));
    EXPECT_EQ(QuorBpfService::GetInstance()->getProcessInfo(gone, &info), -1);
    for (size_t i = 0; i < sizeof(info); ++i) {
        ASSERT_EQ(reinterpret_cast<const unsigned char*>(&info)[i], 0x5a);
    }
    quor_task_init_record record;
    EXPECT_FALSE(ReadTaskInitRecord(std::to_string(gone), &record));
}

TEST(ProcessInfoTest, CraftedStatusAndStatText) {
    FakeProc proc;
    // Full record; no VmSwap line (a kernel thread's status has none).
    proc.File("11/status",
              "Name:\tabcdefghijklmno\nState:\tS (sleeping)\nTgid:\t11\nPid:\t11\nPPid:\t7\n"
              "TracerPid:\t0\nUid:\t0\t0\t0\t0\nVmRSS:\t 99 kB\nRssAnon:\t    1234 kB\n"
              "RssFile:\t  10 kB\nRssShmem:\t 2 kB\nThreads:\t3\n");
    proc.File("11/stat", StatLine(52, {{1, "(abcdefghijklmno)"}, {19, "3"}, {21, "50000"}}));
    // The status opens, the stat does not: the process is left out.
    proc.File("12/status", "Name:\tgone\n");
    // 21 pieces: no thread count, no start time, still reported.
    proc.File("13/status", "Name:\tshort\n");
    proc.File("13/stat", StatLine(21, {{19, "8"}}));
    // Long name, values that are no numbers or too big, a name with blanks.
    proc.File("14/status",
              "Name:\tabcdefghijklmnopqrst\nPPid:\tnot-a-number\nUid:\t4294967294\t1\t1\t1\n"
              "RssShmem:\t99999999999999999999999 kB\nVmSwap:\t\t 8 kB\nRssFile:\tkB\n");
    proc.File("14/stat", StatLine(54, {{1, "(my"}, {2, "proc"}, {3, "name)"}, {19, "20"}}));
    // NUL bytes in the name; a line far longer than any procfs line, after
    // which reading goes on; an empty stat file.
    proc.File("15/status", std::string("Name:\tab\0cd\nGroups:\t", 20) + std::string(100000, '1') +
                               "\nPPid:\t42\n");
    proc.File("15/stat", "");
    proc.Dir("self");
    proc.File("self/status", "Name:\tself\n");

    const std::vector<std::string> names = {"11", "12", "13", "14", "15"};
    const ChildRun run = RunInChild(proc.root(), [&names] {
        std::string out;
        for (const auto& name : names) {
            quor_task_init_record record;
            const bool ok = ReadTaskInitRecord(name, &record);
            out += AsBytes(ok) + AsBytes(record);
        }
        UpdateProcessExdata info = {};
        const int rc = QuorBpfService::GetInstance()->getProcessInfo(14, &info);
        out += AsBytes(rc) + AsBytes(info);
        std::vector<std::string> visited;
        (void)ForEachProcPid([&visited](const std::string& n) { visited.push_back(n); });
        out += AsBytes(visited.size());
        return out;
    });
    if (run.exitCode == kChildCannotMount) GTEST_SKIP() << "cannot mount a tree over /proc";
    ASSERT_EQ(run.exitCode, 0) << run.log;

    struct Entry {
        bool ok;
        quor_task_init_record record;
    } __attribute__((packed));
    const auto full = FromBytes<Entry>(run.out, 0);
    ASSERT_TRUE(full.ok);
    EXPECT_EQ(full.record.pid, 11);
    EXPECT_EQ(full.record.ppid, 7);
    EXPECT_EQ(full.record.uid, 0);
    EXPECT_EQ(full.record.thread_count, 3);
    EXPECT_EQ(std::string(full.record.comm, 16), std::string("abcdefghijklmno\0", 16));
    EXPECT_EQ(full.record.rss_anon, 1234 * 1024);
    EXPECT_EQ(full.record.rss_file, 10 * 1024);
    EXPECT_EQ(full.record.rss_shmem, 2 * 1024);
    EXPECT_EQ(full.record.swap, 0);
    EXPECT_EQ(full.record.start_time_s, GetBasetime() + 50000 / sysconf(_SC_CLK_TCK));

    EXPECT_FALSE(FromBytes<Entry>(run.out, 1).ok);

    const auto shortStat = FromBytes<Entry>(run.out, 2);
    ASSERT_TRUE(shortStat.ok);
    EXPECT_STREQ(shortStat.record.comm, "short");
    EXPECT_EQ(shortStat.record.thread_count, 0);
    EXPECT_EQ(shortStat.record.start_time_s, 0);

    const auto odd = FromBytes<Entry>(run.out, 3);
    ASSERT_TRUE(odd.ok);
    EXPECT_EQ(std::string(odd.record.comm, 16), std::string("abcdefghijklmno\0", 16));
    EXPECT_EQ(odd.record.ppid, 0);
    EXPECT_EQ(odd.record.uid, -2);  // 0xfffffffe keeps its bit pattern
    EXPECT_EQ(odd.record.rss_shmem, LLONG_MAX);
    EXPECT_EQ(odd.record.swap, 8 * 1024);
    EXPECT_EQ(odd.record.rss_file, 0);
    EXPECT_EQ(odd.record.thread_count, 20);  // blanks in the name shift the pieces

    const auto nul = FromBytes<Entry>(run.out, 4);
    ASSERT_TRUE(nul.ok);
    EXPECT_EQ(std::string(nul.record.comm, 6), std::string("ab\0cd\0", 6));
    EXPECT_EQ(nul.record.ppid, 42);
    EXPECT_EQ(nul.record.thread_count, 0);

    const std::string tail = run.out.substr(5 * sizeof(Entry));
    EXPECT_EQ(FromBytes<int>(tail), 0);
    const auto info = FromBytes<UpdateProcessExdata>(tail.substr(sizeof(int)));
    EXPECT_EQ(info.pid, 14);
    EXPECT_EQ(info.ppid, 0);
    EXPECT_EQ(std::string(info.comm, 16), std::string("abcdefghijklmno\0", 16));
    EXPECT_EQ(FromBytes<size_t>(tail.substr(sizeof(int) + sizeof(info))), names.size());
}
