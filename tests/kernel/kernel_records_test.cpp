// The programme sets' records, read from their ring buffers while a child
// forks a thread, touches memory and exits, opens descriptors, and while a
// real dmabuf is seeded and released; attached by the service's walk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <functional>
#include <thread>

#include "bpf/quor_bpf_prog_attach.h"
#include "service/quor_bpf_service.h"
#include "tests/kernel/kernel_test_env.h"
#include "tests/support/vgem_dmabuf.h"

using namespace Quor::Bpf;
using namespace quor_test;
using namespace std::chrono_literals;

namespace {

const std::string kDir = "/sys/fs/bpf/quor/";
constexpr const char* kChildComm = "quor_rec_child";
constexpr size_t kTouchBytes = 4 << 20;
constexpr uint64_t kAllOn = QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON;

std::string g_skip;

uint64_t MonotonicNs() {  // the programmes' clock
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A child that names itself and runs `body`; returns its pid once reaped.
pid_t RunChild(const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_NAME, kChildComm, 0, 0, 0);
        body();
        _exit(0);
    }
    (void)waitpid(pid, nullptr, 0);
    return pid;
}

// Starts and joins a thread and touches memory.
void Busy() {
    std::thread([] {}).join();
    void* mem =
        mmap(nullptr, kTouchBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mem != MAP_FAILED) memset(mem, 1, kTouchBytes);
}

// The pid a record is about: right after the header, but for a fork record,
// which has the parent first.
int32_t RecordPid(const std::string& r) {
    const size_t at = As<quor_record_header>(r).type == QUOR_EVENT_TASK_CREATE
                          ? offsetof(quor_fork_record, pid)
                          : sizeof(quor_record_header);
    int32_t pid = -1;
    if (r.size() >= at + sizeof(pid)) memcpy(&pid, r.data() + at, sizeof(pid));
    return pid;
}

std::string CommOf(const char (&comm)[QUOR_COMM_LEN]) {
    return std::string(comm, strnlen(comm, QUOR_COMM_LEN));
}

class KernelRecordsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        g_skip = LoadProgrammeSets();
        if (!g_skip.empty()) return;
        // Kprobe rows fail on kernels without kprobes; tracepoints must attach.
        (void)AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_EVENT_MAP);
        (void)AttachAllQuorBpfProgram(kDir, QuorBpfService::PROG_GPL_EVENT_MAP);
    }
    void SetUp() override {
        if (!g_skip.empty()) GTEST_SKIP() << g_skip;
        status_ = bpf_obj_get((kDir + "map_QuorBpfDefineset_ringbuf_status").c_str());
        gplStatus_ = bpf_obj_get((kDir + "map_QuorBpfGplDefineset_ringbuf_status").c_str());
        ASSERT_GE(status_, 0);
        ASSERT_GE(gplStatus_, 0);
    }
    void TearDown() override {
        for (const int fd : {status_, gplStatus_}) {
            if (fd < 0) continue;
            StatusSet(fd, QUOR_STATUS_KEY_FLAGS, 0);
            close(fd);
        }
    }

    // Runs a child with the main set's status word at `flags` and returns the
    // records about it, waiting for its process exit when `expectExit`.
    std::vector<std::string> ChildRecords(uint64_t flags, bool expectExit) {
        RingReader reader(kDir + "map_QuorBpfDefineset_ringbuf_map");
        EXPECT_TRUE(reader.ok());
        EXPECT_TRUE(StatusSet(status_, QUOR_STATUS_KEY_FLAGS, flags));
        // Records are only taken in Drain and PollUntil, after the pid is known.
        child_ = RunChild(Busy);
        reader.keep = [this](const std::string& r) { return RecordPid(r) == child_; };
        const auto processExit = [](const std::string& r) {
            const auto exit = As<quor_exit_record>(r);
            return exit.header.type == QUOR_EVENT_TASK_EXIT && exit.kind == QUOR_TASK_KIND_PROCESS;
        };
        (void)reader.PollUntil(
            [&] {
                return !expectExit ||
                       std::any_of(reader.records.begin(), reader.records.end(), processExit);
            },
            5000ms);
        StatusSet(status_, QUOR_STATUS_KEY_FLAGS, 0);
        reader.Drain();
        return reader.records;
    }

    int status_ = -1;
    int gplStatus_ = -1;
    pid_t child_ = 0;
};

TEST_F(KernelRecordsTest, ChildRecordsHaveTheirFieldsAndTheStatusBitsGateThem) {
    // The core bit gates every record, the normal bit the memory ones.
    for (const uint64_t flags : {uint64_t{0}, uint64_t{QUOR_STATUS_NORMAL_ON}})
        EXPECT_EQ(ChildRecords(flags, /*expectExit=*/false).size(), 0u) << "flags " << flags;
    const auto core = ChildRecords(QUOR_STATUS_CORE_ON, /*expectExit=*/true);
    EXPECT_EQ(core.size(), 4u);  // process and thread, fork and exit
    for (const auto& r : core)
        EXPECT_NE(As<quor_record_header>(r).type, static_cast<uint32_t>(QUOR_EVENT_RSS_STAT));

    const uint64_t before = MonotonicNs();
    const auto records = ChildRecords(kAllOn, /*expectExit=*/true);
    const uint64_t after = MonotonicNs();
    int forks[2] = {}, exits[2] = {};  // by kind: process, thread
    int64_t maxAnon = 0;
    char selfComm[QUOR_COMM_LEN] = {};
    prctl(PR_GET_NAME, selfComm, 0, 0, 0);
    for (const auto& r : records) {
        const auto header = As<quor_record_header>(r);
        EXPECT_GE(header.timestamp_ns, before);
        EXPECT_LE(header.timestamp_ns, after);
        if (header.type == QUOR_EVENT_TASK_CREATE) {
            ASSERT_EQ(r.size(), sizeof(quor_fork_record));
            const auto fork = As<quor_fork_record>(r);
            const bool process = fork.kind == QUOR_TASK_KIND_PROCESS;
            ++forks[!process];
            EXPECT_EQ(fork.tid == child_, process);
            EXPECT_EQ(fork.ppid, process ? getpid() : fork.ppid);
            EXPECT_EQ(CommOf(fork.comm), process ? selfComm : kChildComm);
        } else if (header.type == QUOR_EVENT_TASK_EXIT) {
            ASSERT_EQ(r.size(), sizeof(quor_exit_record));
            const auto exit = As<quor_exit_record>(r);
            ++exits[exit.kind != QUOR_TASK_KIND_PROCESS];
            EXPECT_TRUE(exit.kind != QUOR_TASK_KIND_PROCESS || CommOf(exit.comm) == kChildComm);
        } else {
            ASSERT_EQ(header.type, static_cast<uint32_t>(QUOR_EVENT_RSS_STAT));
            ASSERT_EQ(r.size(), sizeof(quor_rss_record));
            const auto rss = As<quor_rss_record>(r);
            EXPECT_TRUE(rss.member >= 0 && rss.member <= 3) << rss.member;
            if (rss.member == QUOR_RSS_ANON) maxAnon = std::max<int64_t>(maxAnon, rss.size);
        }
    }
    EXPECT_EQ(std::make_tuple(forks[0], forks[1], exits[0], exits[1]), std::make_tuple(1, 1, 1, 1));
    EXPECT_GE(maxAnon, static_cast<int64_t>(kTouchBytes));
}

TEST_F(KernelRecordsTest, GplSetWritesNoExitRecordsButReportsCgroupMoves) {
    RingReader reader(kDir + "map_QuorBpfGplDefineset_ringbuf_map");
    ASSERT_TRUE(reader.ok());
    ASSERT_TRUE(StatusSet(gplStatus_, QUOR_STATUS_KEY_FLAGS, kAllOn));
    // A cgroup of our own in the first hierarchy that lets us make one.
    std::string cgroup;
    for (const char* root : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified", "/sys/fs/cgroup/pids"}) {
        const std::string dir = std::string(root) + "/quor_rec_test_" + std::to_string(getpid());
        if (PathExists(std::string(root) + "/cgroup.procs") && mkdir(dir.c_str(), 0755) == 0) {
            cgroup = dir;
            break;
        }
    }
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    if (!cgroup.empty()) std::ofstream(cgroup + "/cgroup.procs") << child << std::endl;
    kill(child, SIGKILL);
    (void)waitpid(child, nullptr, 0);
    if (!cgroup.empty()) (void)rmdir(cgroup.c_str());
    const auto sawMove = [&] {
        return cgroup.empty() ||
               std::any_of(reader.records.begin(), reader.records.end(), [&](const auto& r) {
                   const auto move = As<quor_cgroup_attach_record>(r);
                   return move.header.type == QUOR_EVENT_CGROUP_ATTACH && move.pid == child &&
                          std::string(move.cgroup).find("quor_rec_test_") != std::string::npos;
               });
    };
    EXPECT_TRUE(reader.PollUntil(sawMove, 3000ms));
    reader.Drain();
    for (const auto& r : reader.records) {
        EXPECT_NE(As<quor_record_header>(r).type, static_cast<uint32_t>(QUOR_EVENT_TASK_EXIT));
    }
    if (cgroup.empty()) GTEST_SKIP() << "no writable cgroup hierarchy: cgroup moves not exercised";
}

// A ring buffer that nobody reads fills up; the next record sets the overflow
// bit and copies the ring buffer's figures into the status word.
TEST_F(KernelRecordsTest, FullRingBufferSetsTheOverflowBit) {
    const std::string dir = "/sys/fs/bpf/quor_small/";
    QuorBpfLoader::Options options;
    options.pinDir = dir;
    options.ringbufBytes = 16384;
    QuorBpfLoadReport report;
    ASSERT_EQ(QuorBpfLoader::Load(options, &report), 0);
    ASSERT_GE(AttachTracepointProgram(dir, "QuorBpfDefineset", "sched_sched_process_fork", "sched",
                                      "sched_process_fork"),
              0);
    const int status = bpf_obj_get((dir + "map_QuorBpfDefineset_ringbuf_status").c_str());
    ASSERT_GE(status, 0);
    ASSERT_TRUE(StatusSet(status, QUOR_STATUS_KEY_FLAGS, kAllOn));
    // 16 KiB hold about 300 fork records.
    for (int i = 0; i < 2000 && !(StatusGet(status, QUOR_STATUS_KEY_FLAGS) & QUOR_STATUS_OVERFLOW);
         ++i) {
        (void)RunChild([] {});
    }
    const uint64_t flags = StatusGet(status, QUOR_STATUS_KEY_FLAGS);
    StatusSet(status, QUOR_STATUS_KEY_FLAGS, 0);
    EXPECT_EQ(flags & (kAllOn | QUOR_STATUS_OVERFLOW), kAllOn | QUOR_STATUS_OVERFLOW);
    EXPECT_EQ(StatusGet(status, QUOR_STATUS_KEY_RING_SIZE), 16384u);
    EXPECT_EQ(StatusGet(status, QUOR_STATUS_KEY_CONS_POS), 0u);
    for (const uint32_t key : {QUOR_STATUS_KEY_AVAIL_DATA, QUOR_STATUS_KEY_PROD_POS})
        EXPECT_GT(StatusGet(status, key), 16384u - 256) << key;
    close(status);
}

// Why a kprobe test cannot run here, or "".
std::string KprobeMissing(const char* function) {
    if (!KernelHasKprobes()) return "the kernel lacks kprobes";
    if (!KernelHasFunction(function)) return std::string("the kernel lacks ") + function;
    return "";
}

// A child opening descriptors up to 130 is reported when its highest
// descriptor enters a new block of 64, with its pid and name, and not before.
TEST_F(KernelRecordsTest, FdInstallReportsEachNewBlockOfDescriptors) {
    const std::string missing = KprobeMissing("fd_install");
    if (!missing.empty()) GTEST_SKIP() << missing;
    RingReader reader(kDir + "map_QuorBpfDefineset_ringbuf_map");
    ASSERT_TRUE(reader.ok());
    ASSERT_TRUE(StatusSet(status_, QUOR_STATUS_KEY_FLAGS, kAllOn));
    child_ = RunChild([] {
        for (int fd = 0; fd >= 0 && fd < 130;) fd = open("/dev/null", O_RDONLY);
    });
    reader.keep = [this](const std::string& r) {
        return RecordPid(r) == child_ && As<quor_record_header>(r).type == QUOR_EVENT_FD_UPDATE;
    };
    (void)reader.PollUntil([&] { return reader.records.size() >= 2; }, 5000ms);
    (void)reader.PollUntil([] { return false; }, 200ms);  // and nothing more
    StatusSet(status_, QUOR_STATUS_KEY_FLAGS, 0);
    std::vector<int> fds;
    for (const auto& r : reader.records) {
        ASSERT_EQ(r.size(), sizeof(quor_fd_update_record));
        const auto update = As<quor_fd_update_record>(r);
        fds.push_back(update.fd);
        EXPECT_EQ(CommOf(update.comm), kChildComm);
        EXPECT_GE(update.open_fds, 1u);
    }
    EXPECT_EQ(fds, (std::vector<int>{64, 128}));
}

// A dmabuf exported before seeding is seeded with its inode, size and holder;
// closing it gives one release record and the holder's new total.
TEST_F(KernelRecordsTest, RealDmabufIsSeededAndItsReleaseReported) {
    const std::string missing = KprobeMissing("dma_buf_file_release");
    if (!missing.empty()) GTEST_SKIP() << missing;
    const int vgem = OpenVgem();
    if (vgem < 0) GTEST_SKIP() << "no vgem device (the kernel lacks the vgem module)";
    const VgemDmabuf buffer = ExportVgemBuffer(vgem, 256, 64);
    close(vgem);
    ASSERT_GE(buffer.fd, 0) << strerror(errno);
    ASSERT_GT(buffer.size, 0u);

    ASSERT_EQ(QuorBpfService::GetInstance()->initDmabufBpfProg(), 0);
    const int allocate =
        bpf_obj_get((kDir + "map_QuorBpfGplDefineset_dmabuf_allocate_map").c_str());
    const int sizes = bpf_obj_get((kDir + "map_QuorBpfGplDefineset_dmabuf_size_map").c_str());
    ASSERT_GE(allocate, 0);
    ASSERT_GE(sizes, 0);
    dmabuf_info info = {};
    ASSERT_EQ(bpf_map_lookup_elem(allocate, &buffer.inode, &info), 0) << "inode " << buffer.inode;
    EXPECT_EQ(info.pid, getpid());
    EXPECT_EQ(info.size, buffer.size);
    const int32_t self = getpid();
    dmabuf_stat seeded = {};
    ASSERT_EQ(bpf_map_lookup_elem(sizes, &self, &seeded), 0);
    EXPECT_GE(seeded.total_size, buffer.size);

    RingReader reader(kDir + "map_QuorBpfGplDefineset_ringbuf_map");
    ASSERT_TRUE(reader.ok());
    reader.keep = [self](const std::string& r) { return RecordPid(r) == self; };
    ASSERT_TRUE(StatusSet(gplStatus_, QUOR_STATUS_KEY_FLAGS, kAllOn));
    close(buffer.fd);
    (void)reader.PollUntil([&] { return reader.records.size() >= 2; }, 5000ms);
    (void)reader.PollUntil([] { return false; }, 200ms);
    StatusSet(gplStatus_, QUOR_STATUS_KEY_FLAGS, 0);
    ASSERT_EQ(reader.records.size(), 2u);
    const auto release = As<quor_dmabuf_update_record>(reader.records[0]);
    EXPECT_EQ(std::make_tuple(release.header.type, release.action, release.inode, release.size),
              std::make_tuple(uint32_t{QUOR_EVENT_DMABUF_UPDATE}, uint32_t{QUOR_DMABUF_RELEASE},
                              buffer.inode, buffer.size));
    const auto total = As<quor_dmabuf_size_record>(reader.records[1]);
    EXPECT_EQ(std::make_tuple(total.header.type, total.total_size),
              std::make_tuple(uint32_t{QUOR_EVENT_DMABUF_SIZE}, seeded.total_size - buffer.size));
    EXPECT_NE(bpf_map_lookup_elem(allocate, &buffer.inode, &info), 0) << "the buffer is forgotten";
    close(allocate);
    close(sizes);
}

}  // namespace
