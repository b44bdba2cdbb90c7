// Procfs readers against the real /proc (this test process) and against
// crafted file text.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "bpf/quor_bpf_proc_info.h"
#include "diag/quor_bpf_time.h"
#include "fake_proc.h"
#include "service/quor_bpf_service.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;

namespace {

// Field 20 (num_threads) of /proc/self/stat, read without the code under test.
std::string OwnStatThreadsField() {
    std::string line;
    std::getline(std::ifstream("/proc/self/stat"), line);
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    std::string field;
    for (int i = 3; i <= 20 && rest >> field; ++i) {
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

TEST(FdinfoTest, FirstKeyedLineOrZero) {
    FakeProc dir;
    dir.File("dmabuf", "pos:\t0\nflags:\t02000002\nsize:\t4096\nino:\t123456789012\nsize:\t1\n");
    dir.File("noino", "pos:\t0\nsize:\t 77 bytes\n");
    dir.File("garbage", std::string("size:\tlots\nino:\t99999999999999999999999\0", 40));
    const std::tuple<const char*, int64_t, uint64_t> cases[] = {
        {"dmabuf", 4096, 123456789012u}, {"noino", 77, 0}, {"garbage", 0, ULLONG_MAX}};
    for (const auto& [name, size, inode] : cases) {
        EXPECT_EQ(QuorBpfService::GetFdSize(dir.root() + "/" + name), size) << name;
        EXPECT_EQ(QuorBpfService::GetFdInode(dir.root() + "/" + name), inode) << name;
    }
    EXPECT_EQ(QuorBpfService::GetFdSize(dir.root() + "/missing"), 0);
}

TEST(ProcessInfoTest, ReadsThisProcessFromRealProcAndLeavesAVanishedOneAlone) {
    const int64_t before = GetSystemBootNanosencondsTime();
    quor_task_init_record record;
    ASSERT_TRUE(ReadTaskInitRecord(std::to_string(getpid()), &record));
    EXPECT_EQ(record.header.type, 0u);
    EXPECT_GE(record.header.timestamp_ns, static_cast<uint64_t>(before));
    EXPECT_EQ(std::make_tuple(record.pid, record.ppid, record.uid),
              std::make_tuple(getpid(), getppid(), static_cast<int32_t>(getuid())));
    EXPECT_EQ(std::string(record.comm) + "\n", quortest::ReadFile("/proc/self/comm"));
    EXPECT_GT(record.rss_anon, 0);
    EXPECT_EQ(record.rss_anon % 1024, 0);
    // Started at most a few minutes ago, on the base's clock.
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    EXPECT_LE(record.start_time_s, GetBasetime() + now.tv_sec);
    EXPECT_GE(record.start_time_s, GetBasetime() + now.tv_sec - 600);

    UpdateProcessExdata info = {};
    ASSERT_EQ(QuorBpfService::GetInstance()->getProcessInfo(getpid(), &info), 0);
    EXPECT_EQ(std::make_tuple(info.pid, info.ppid), std::make_tuple(getpid(), getppid()));
    EXPECT_STREQ(info.comm, record.comm);

    // A process that is gone: the output stays as it was.
    const pid_t gone = fork();
    if (gone == 0) _exit(0);
    ASSERT_EQ(waitpid(gone, nullptr, 0), gone);
    memset(&info, 0x5a, sizeof(info));
    EXPECT_EQ(QuorBpfService::GetInstance()->getProcessInfo(gone, &info), -1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&info), sizeof(info)),
              std::string(sizeof(info), 0x5a));
    quor_task_init_record goneRecord;
    EXPECT_FALSE(ReadTaskInitRecord(std::to_string(gone), &goneRecord));

    // Last, as it may end the test: qemu-user answers a process's reads of
    // its own stat file with a synthetic copy whose thread count is 0.
    if (OwnStatThreadsField() == "0")
        GTEST_SKIP() << "this process's stat file is an emulator's synthetic copy";
    EXPECT_EQ(record.thread_count, quortest::KernelThreadCount(getpid()));
}

TEST(ProcessInfoTest, CraftedStatusAndStatText) {
    FakeProc proc;
    const auto read = [&proc](const char* pid, quor_task_init_record* record) {
        return ReadTaskInitRecordFiles(proc.root() + "/" + pid + "/status",
                                       proc.root() + "/" + pid + "/stat", atoi(pid), record);
    };
    quor_task_init_record r;
    // Full record; no VmSwap line (a kernel thread's status has none).
    proc.File("11/status",
              "Name:\tabcdefghijklmno\nState:\tS (sleeping)\nTgid:\t11\nPid:\t11\nPPid:\t7\n"
              "TracerPid:\t0\nUid:\t0\t0\t0\t0\nVmRSS:\t 99 kB\nRssAnon:\t    1234 kB\n"
              "RssFile:\t  10 kB\nRssShmem:\t 2 kB\nThreads:\t3\n");
    proc.File("11/stat", StatLine(52, {{1, "(abcdefghijklmno)"}, {19, "3"}, {21, "50000"}}));
    ASSERT_TRUE(read("11", &r));
    EXPECT_EQ(std::make_tuple(r.pid, r.ppid, r.uid, r.thread_count), std::make_tuple(11, 7, 0, 3));
    EXPECT_EQ(std::string(r.comm, 16), std::string("abcdefghijklmno\0", 16));
    EXPECT_EQ(std::make_tuple(r.rss_anon, r.rss_file, r.rss_shmem, r.swap),
              std::make_tuple(1234 * 1024, 10 * 1024, 2 * 1024, 0));
    EXPECT_EQ(r.start_time_s, GetBasetime() + 50000 / sysconf(_SC_CLK_TCK));

    // The status opens, the stat does not: the process is left out.
    proc.File("12/status", "Name:\tgone\n");
    EXPECT_FALSE(read("12", &r));

    // Long name, values that are no numbers or too big, a name with blanks.
    proc.File("14/status",
              "Name:\tabcdefghijklmnopqrst\nPPid:\tnot-a-number\nUid:\t4294967294\t1\t1\t1\n"
              "RssShmem:\t99999999999999999999999 kB\nVmSwap:\t\t 8 kB\nRssFile:\tkB\n");
    proc.File("14/stat", StatLine(54, {{1, "(my"}, {2, "proc"}, {3, "name)"}, {21, "20"}}));
    ASSERT_TRUE(read("14", &r));
    EXPECT_EQ(std::string(r.comm, 16), std::string("abcdefghijklmno\0", 16));
    // 0xfffffffe keeps its bit pattern; blanks in the name do not shift the stat fields.
    EXPECT_EQ(std::make_tuple(r.ppid, r.uid, r.rss_shmem, r.swap, r.rss_file, r.thread_count),
              std::make_tuple(0, -2, LLONG_MAX, 8 * 1024, 0, 20));

    // Parentheses, blanks and a newline in the name: fields count from the last ')'.
    proc.File("16/status", "Name:\ttmux: server\n");
    proc.File("16/stat",
              "16 (tmux: (x)\n) y)) S 1 16 16 0 -1 4194560 0 0 0 0 0 0 0 0 20 0 "
              "7 0 300 123 4 18446744073709551615\n");
    ASSERT_TRUE(read("16", &r));
    EXPECT_EQ(std::make_tuple(r.thread_count, r.start_time_s),
              std::make_tuple(7, GetBasetime() + 300 / sysconf(_SC_CLK_TCK)));

    // NUL bytes in the name; a line far longer than any procfs line, after
    // which reading goes on; an empty stat file.
    proc.File("15/status", std::string("Name:\tab\0cd\nGroups:\t", 20) + std::string(100000, '1') +
                               "\nPPid:\t42\n");
    proc.File("15/stat", "");
    ASSERT_TRUE(read("15", &r));
    EXPECT_EQ(std::string(r.comm, 6), std::string("ab\0cd\0", 6));
    EXPECT_EQ(std::make_tuple(r.ppid, r.thread_count), std::make_tuple(42, 0));
}
