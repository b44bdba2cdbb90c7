// The programme sets' records, read straight from their ring buffers while a
// child process forks a thread, touches memory and exits. Runs isolated: the
// objects are loaded into the test's private bpffs and attached with the
// service's own table walk.
#include <android-base/properties.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <time.h>

#include <cstdio>
#include <fstream>

#include "bpf/quor_bpf_prog_attach.h"
#include "service/quor_bpf_service.h"
#include "tests/kernel/kernel_test_env.h"
#include "tools/loader/quor_bpf_loader.h"

using Quor::Bpf::QuorBpfLoader;
using Quor::Bpf::QuorBpfLoadReport;
using Quor::Bpf::QuorBpfService;
using namespace quor_test;
using namespace std::chrono_literals;

namespace {

constexpr const char* kDir = "/sys/fs/bpf/quor/";
constexpr const char* kChildComm = "quor_rec_child";
constexpr size_t kTouchBytes = 4 << 20;

std::string g_skip;

uint64_t MonotonicNs() {
    timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + ts.tv_nsec;
}

void* Idle(void*) {
    return nullptr;
}

// A child that names itself, starts and joins a thread, touches memory and
// exits; returns its pid once it has been reaped.
pid_t RunChild(bool withThread = true, size_t touch = kTouchBytes) {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, kChildComm, 0, 0, 0);
        if (withThread) {
            pthread_t thread;
            if (pthread_create(&thread, nullptr, Idle, nullptr) == 0) pthread_join(thread, nullptr);
        }
        if (touch != 0) {
            void* mem =
                mmap(nullptr, touch, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (mem != MAP_FAILED) memset(mem, 1, touch);
        }
        _exit(0);
    }
    int status = 0;
    (void)waitpid(pid, &status, 0);
    return pid;
}

std::string KernelMajorMinor() {
    utsname name = {};
    int major = 0;
    int minor = 0;
    if (uname(&name) != 0 || sscanf(name.release, "%d.%d", &major, &minor) != 2) return "0.0";
    return std::to_string(major) + "." + std::to_string(minor);
}

std::string CommOf(const char (&comm)[QUOR_COMM_LEN]) {
    return std::string(comm, strnlen(comm, QUOR_COMM_LEN));
}

class KernelRecordsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (geteuid() != 0) {
            g_skip = "needs root to load BPF programmes";
            return;
        }
        if (!PathExists("/sys/kernel/btf/vmlinux")) {
            g_skip = "the kernel has no BTF";
            return;
        }
        QuorBpfLoadReport report;
        if (QuorBpfLoader::Load(QuorBpfLoader::Options(), &report) != 0) {
            for (const auto& line : report.Lines()) fprintf(stderr, "%s\n", line.c_str());
            g_skip = "the programme sets did not load";
            return;
        }
        android::base::SetProperty("ro.kernel.version", KernelMajorMinor());
        // Kprobe rows fail on kernels without kprobes; tracepoints must attach.
        (void)Quor::Bpf::AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP);
        (void)Quor::Bpf::AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_GPL_EVENT_MAP);
    }

    void SetUp() override {
        if (!g_skip.empty()) GTEST_SKIP() << g_skip;
        status_ = bpf_obj_get((std::string(kDir) + "map_QuorBpfDefineset_ringbuf_status").c_str());
        gplStatus_ =
            bpf_obj_get((std::string(kDir) + "map_QuorBpfGplDefineset_ringbuf_status").c_str());
        ASSERT_GE(status_, 0);
        ASSERT_GE(gplStatus_, 0);
    }

    void TearDown() override {
        if (status_ >= 0) {
            StatusSet(status_, QUOR_STATUS_KEY_FLAGS, 0);
            close(status_);
        }
        if (gplStatus_ >= 0) {
            StatusSet(gplStatus_, QUOR_STATUS_KEY_FLAGS, 0);
            close(gplStatus_);
        }
    }

    // Runs a child with the main set's status word at `flags` and returns the
    // records about it, waiting for its process exit when `expectExit`.
    std::vector<std::string> ChildRecords(uint64_t flags, bool expectExit, pid_t* childOut) {
        RingReader reader(std::string(kDir) + "map_QuorBpfDefineset_ringbuf_map");
        EXPECT_TRUE(reader.ok());
        reader.Drain();
        pid_t child = -1;
        reader.Keep(
            [&child](uint32_t, const std::string& bytes) { return RecordPid(bytes) == child; });
        // Only records of pids forked after this point can match.
        child = 0;
        EXPECT_TRUE(StatusSet(status_, QUOR_STATUS_KEY_FLAGS, flags));
        const pid_t pid = RunChild();
        child = pid;
        *childOut = pid;
        if (expectExit) {
            reader.PollUntil(
                [&] {
                    for (const auto& r : reader.records()) {
                        if (r.size() >= sizeof(quor_exit_record) &&
                            As<quor_exit_record>(r).header.type == QUOR_EVENT_TASK_EXIT &&
                            As<quor_exit_record>(r).kind == QUOR_TASK_KIND_PROCESS) {
                            return true;
                        }
                    }
                    return false;
                },
                5000ms);
        } else {
            // The child has been reaped: its records, if any, are written.
            reader.Drain();
        }
        StatusSet(status_, QUOR_STATUS_KEY_FLAGS, 0);
        reader.Drain();
        return reader.records();
    }

    int status_ = -1;
    int gplStatus_ = -1;
};

TEST_F(KernelRecordsTest, ChildForkThreadMemoryAndExitAreRecorded) {
    const uint64_t before = MonotonicNs();
    pid_t child = 0;
    const auto records =
        ChildRecords(QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON, /*expectExit=*/true, &child);
    const uint64_t after = MonotonicNs();

    int processForks = 0, threadForks = 0, threadExits = 0, processExits = 0;
    int64_t maxAnon = 0;
    int rssAfterExit = 0;
    char selfComm[QUOR_COMM_LEN] = {};
    prctl(PR_GET_NAME, selfComm, 0, 0, 0);
    for (const auto& r : records) {
        const auto header = As<quor_record_header>(r);
        EXPECT_GE(header.timestamp_ns, before);
        EXPECT_LE(header.timestamp_ns, after);
        switch (header.type) {
            case QUOR_EVENT_TASK_CREATE: {
                ASSERT_EQ(r.size(), sizeof(quor_fork_record));
                const auto fork = As<quor_fork_record>(r);
                if (fork.kind == QUOR_TASK_KIND_PROCESS) {
                    ++processForks;
                    EXPECT_EQ(fork.tid, child);
                    EXPECT_EQ(fork.ppid, getpid());
                    EXPECT_EQ(CommOf(fork.comm), std::string(selfComm));
                } else {
                    ++threadForks;
                    EXPECT_EQ(fork.kind, static_cast<uint32_t>(QUOR_TASK_KIND_THREAD));
                    EXPECT_NE(fork.tid, child);
                    EXPECT_EQ(CommOf(fork.comm), kChildComm);
                }
                break;
            }
            case QUOR_EVENT_TASK_EXIT: {
                ASSERT_EQ(r.size(), sizeof(quor_exit_record));
                const auto exit = As<quor_exit_record>(r);
                if (exit.kind == QUOR_TASK_KIND_PROCESS) {
                    ++processExits;
                    EXPECT_EQ(CommOf(exit.comm), kChildComm);
                } else {
                    ++threadExits;
                }
                break;
            }
            case QUOR_EVENT_RSS_STAT: {
                ASSERT_EQ(r.size(), sizeof(quor_rss_record));
                const auto rss = As<quor_rss_record>(r);
                EXPECT_GE(rss.member, 0);
                EXPECT_LE(rss.member, 3);
                if (rss.member == QUOR_RSS_ANON) maxAnon = std::max<int64_t>(maxAnon, rss.size);
                if (processExits > 0) ++rssAfterExit;
                break;
            }
            default:
                ADD_FAILURE() << "unexpected record type " << header.type;
        }
    }
    EXPECT_EQ(processForks, 1);
    EXPECT_EQ(threadForks, 1);
    EXPECT_EQ(threadExits, 1);
    EXPECT_EQ(processExits, 1);
    EXPECT_GE(maxAnon, static_cast<int64_t>(kTouchBytes));
    // The teardown of the dead address space is not reported page by page.
    // A few records may still follow the exit: when another task holds the
    // last reference to the address space (a /proc reader, say), the
    // teardown runs in that task and is not the owner's own.
    EXPECT_LT(rssAfterExit, static_cast<int>(kTouchBytes / 4096 / 16));
}

TEST_F(KernelRecordsTest, NothingIsWrittenWithoutTheCoreBit) {
    for (uint64_t flags : {uint64_t{0}, uint64_t{QUOR_STATUS_NORMAL_ON}}) {
        pid_t child = 0;
        const auto records = ChildRecords(flags, /*expectExit=*/false, &child);
        EXPECT_TRUE(records.empty()) << "flags " << flags << ": " << records.size() << " records";
    }
}

TEST_F(KernelRecordsTest, OnlyCoreRecordsFlowUntilTheNormalBitIsSet) {
    pid_t child = 0;
    const auto records = ChildRecords(QUOR_STATUS_CORE_ON, /*expectExit=*/true, &child);
    int core = 0;
    for (const auto& r : records) {
        const uint32_t type = As<quor_record_header>(r).type;
        EXPECT_TRUE(type == QUOR_EVENT_TASK_CREATE || type == QUOR_EVENT_TASK_EXIT) << type;
        ++core;
    }
    EXPECT_EQ(core, 4);  // process and thread, fork and exit
}

TEST_F(KernelRecordsTest, ContextSwitchesRefreshTheRingBufferFiguresWhileRecordsWait) {
    StatusSet(status_, QUOR_STATUS_KEY_REFRESHED_NS, 0);
    StatusSet(status_, QUOR_STATUS_KEY_RING_SIZE, 0);
    ASSERT_TRUE(StatusSet(status_, QUOR_STATUS_KEY_FLAGS, QUOR_STATUS_CORE_ON));
    // Records nobody reads: a child's fork and exit.
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (StatusGet(status_, QUOR_STATUS_KEY_REFRESHED_NS) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
        usleep(1000);  // a context switch of our own
    }
    EXPECT_NE(StatusGet(status_, QUOR_STATUS_KEY_REFRESHED_NS), 0u);
    EXPECT_EQ(StatusGet(status_, QUOR_STATUS_KEY_RING_SIZE), 1u << 20);
}

TEST_F(KernelRecordsTest, GplSetWritesNoExitRecordsButReportsCgroupMoves) {
    RingReader reader(std::string(kDir) + "map_QuorBpfGplDefineset_ringbuf_map");
    ASSERT_TRUE(reader.ok());
    reader.Drain();
    ASSERT_TRUE(
        StatusSet(gplStatus_, QUOR_STATUS_KEY_FLAGS, QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON));

    // A cgroup of our own in the first hierarchy that lets us make one.
    std::string cgroup;
    for (const char* root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified", "/sys/fs/cgroup/pids"}) {
        const std::string candidate =
            std::string(root) + "/quor_rec_test_" + std::to_string(getpid());
        if (PathExists(std::string(root) + "/cgroup.procs") &&
            mkdir(candidate.c_str(), 0755) == 0) {
            cgroup = candidate;
            break;
        }
    }
    const bool haveCgroup = !cgroup.empty();
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    const pid_t child = fork();
    if (child == 0) {
        char byte;
        (void)read(pipeFds[0], &byte, 1);
        _exit(0);
    }
    if (haveCgroup) {
        std::ofstream(cgroup + "/cgroup.procs") << child << std::endl;
    }
    (void)write(pipeFds[1], "x", 1);
    (void)waitpid(child, nullptr, 0);
    close(pipeFds[0]);
    close(pipeFds[1]);
    if (haveCgroup) (void)rmdir(cgroup.c_str());

    bool sawMove = false;
    reader.PollUntil(
        [&] {
            for (const auto& r : reader.records()) {
                if (As<quor_record_header>(r).type != QUOR_EVENT_CGROUP_ATTACH) continue;
                const auto move = As<quor_cgroup_attach_record>(r);
                if (move.pid == child &&
                    std::string(move.cgroup).find("quor_rec_test_") != std::string::npos) {
                    sawMove = true;
                }
            }
            return sawMove || !haveCgroup;
        },
        3000ms);
    reader.Drain();
    for (const auto& r : reader.records()) {
        EXPECT_NE(As<quor_record_header>(r).type, static_cast<uint32_t>(QUOR_EVENT_TASK_EXIT));
    }
    if (haveCgroup) {
        EXPECT_TRUE(sawMove);
    } else {
        GTEST_SKIP() << "no writable cgroup hierarchy: cgroup moves not exercised";
    }
}

// A ring buffer that nobody reads fills up; the next record sets bit 1 and
// copies the ring buffer's figures into keys 1 to 4.
TEST_F(KernelRecordsTest, FullRingBufferSetsTheOverflowBit) {
    const std::string dir = "/sys/fs/bpf/quor_small/";
    QuorBpfLoader::Options options;
    options.pinDir = dir;
    options.ringbufBytes = 16384;
    QuorBpfLoadReport report;
    ASSERT_EQ(QuorBpfLoader::Load(options, &report), 0);
    ASSERT_EQ(
        Quor::Bpf::AttachTracepointProgram(dir, "QuorBpfDefineset", "sched_sched_process_fork",
                                           "sched", "sched_process_fork") >= 0,
        true);
    const int status = bpf_obj_get((dir + "map_QuorBpfDefineset_ringbuf_status").c_str());
    ASSERT_GE(status, 0);
    ASSERT_TRUE(
        StatusSet(status, QUOR_STATUS_KEY_FLAGS, QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON));
    // 16 KiB hold about 300 fork records; a machine busy elsewhere helps.
    for (int i = 0; i < 2000 && !(StatusGet(status, QUOR_STATUS_KEY_FLAGS) & QUOR_STATUS_OVERFLOW);
         ++i) {
        (void)RunChild(/*withThread=*/false, /*touch=*/0);
    }
    const uint64_t flags = StatusGet(status, QUOR_STATUS_KEY_FLAGS);
    StatusSet(status, QUOR_STATUS_KEY_FLAGS, 0);
    EXPECT_TRUE(flags & QUOR_STATUS_OVERFLOW);
    EXPECT_EQ(flags & (QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON),
              uint64_t{QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON});
    EXPECT_EQ(StatusGet(status, QUOR_STATUS_KEY_RING_SIZE), 16384u);
    EXPECT_GT(StatusGet(status, QUOR_STATUS_KEY_AVAIL_DATA), 16384u - 256);
    EXPECT_EQ(StatusGet(status, QUOR_STATUS_KEY_CONS_POS), 0u);
    EXPECT_GT(StatusGet(status, QUOR_STATUS_KEY_PROD_POS), 16384u - 256);
    close(status);
}

}  // namespace
