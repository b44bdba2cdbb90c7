// Seeding and pruning of the dmabuf and open-descriptor maps, pinned in the
// private bpffs; with no dmabuf exporter here, /proc is a crafted tree.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "fake_proc.h"
#include "quor/quor_bpf_records.h"
#include "service/quor_bpf_service.h"

using namespace Quor::Bpf;

namespace {

constexpr const char* kDir = "/sys/fs/bpf/quor";

enum MapId { kOpenFd, kAllocate, kSize, kPerprocess, kInode, kMmap, kMapCount };
const struct {
    const char* pin;
    uint32_t keySize, valueSize;
} kMaps[kMapCount] = {
    {"/sys/fs/bpf/quor/map_QuorBpfDefineset_open_fd_caller_map", 4, 48},
    {"/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_allocate_map", 8, 16},
    {"/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_size_map", 4, 16},
    {"/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_perprocess_size_map", 4, 16},
    {"/sys/fs/bpf/quor/map_QuorBpfGplDefineset_process_inode_map", 16, 8},
    {"/sys/fs/bpf/quor/map_QuorBpfGplDefineset_process_mmap_infos", 16, 8},
};

int RunMember(const std::string& procRoot, int (QuorBpfService::*fn)(), ChildRun* run) {
    *run = RunInChild(procRoot,
                      [fn] { return std::to_string((QuorBpfService::GetInstance()->*fn)()); });
    return run->exitCode == 0 ? std::stoi(run->out) : -1000 - run->exitCode;
}

class DmabufMapsTest : public testing::Test {
protected:
    void SetUp() override {
        struct statfs fs;
        if (statfs("/sys/fs/bpf", &fs) != 0 || fs.f_type != BPF_FS_MAGIC) {
            GTEST_SKIP() << "no private bpffs on /sys/fs/bpf (run through run_isolated.sh)";
        }
        (void)mkdir(kDir, 0700);
        for (int i = 0; i < kMapCount; ++i) {
            fds_[i] = bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, kMaps[i].keySize,
                                     kMaps[i].valueSize, 8192, nullptr);
            if (fds_[i] < 0 && (errno == EPERM || errno == ENOSYS)) {
                GTEST_SKIP() << "cannot create BPF maps: " << strerror(errno);
            }
            ASSERT_GE(fds_[i], 0) << strerror(errno);
            ASSERT_EQ(bpf_obj_pin(fds_[i], kMaps[i].pin), 0) << strerror(errno);
        }
    }
    void TearDown() override {
        if (!bitsPin_.empty()) (void)unlink(bitsPin_.c_str());
        for (int i = 0; i < kMapCount; ++i) {
            (void)unlink(kMaps[i].pin);
            if (fds_[i] >= 0) close(fds_[i]);
        }
    }

    size_t Count(MapId id) const {
        unsigned char key[16], next[16];
        size_t n = 0;
        for (int rc = bpf_map_get_next_key(fds_[id], nullptr, key); rc == 0;
             rc = bpf_map_get_next_key(fds_[id], key, next), memcpy(key, next, sizeof(key))) {
            ++n;
        }
        return n;
    }
    // The value under `key`, zero-filled when there is none.
    template <typename V, typename K>
    V Value(MapId id, const K& key) const {
        V value{};
        (void)bpf_map_lookup_elem(fds_[id], &key, &value);
        return value;
    }

    // Pins an empty pid bitmap at `pin`, as the programme sets define it.
    void PinPidBits(const char* pin) {
        bits_.reset(bpf_map_create(BPF_MAP_TYPE_ARRAY, nullptr, 4, 8, QUOR_PID_BITS / 64, nullptr));
        ASSERT_GE(bits_.get(), 0) << strerror(errno);
        ASSERT_EQ(bpf_obj_pin(bits_.get(), pin), 0) << strerror(errno);
        bitsPin_ = pin;
    }
    // The pids below 64 * `words` whose bit is set.
    std::vector<int32_t> MarkedPids(uint32_t words) const {
        std::vector<int32_t> pids;
        for (uint32_t index = 0; index < words; ++index) {
            uint64_t word = 0;
            (void)bpf_map_lookup_elem(bits_.get(), &index, &word);
            for (int bit = 0; bit < 64; ++bit) {
                if (word & (uint64_t{1} << bit)) pids.push_back(index * 64 + bit);
            }
        }
        return pids;
    }

    int fds_[kMapCount] = {-1, -1, -1, -1, -1, -1};
    android::base::unique_fd bits_;
    std::string bitsPin_;
};

// pid 100 holds two buffers (one through two descriptors) and maps both;
// pid 200 holds one of them and has no maps file; pid 300 holds none.
void BuildDmabufTree(FakeProc* proc) {
    const auto fd = [proc](const std::string& pid, int n, const std::string& target,
                           const std::string& fdinfo) {
        proc->Link(pid + "/fd/" + std::to_string(n), target);
        proc->File(pid + "/fdinfo/" + std::to_string(n), fdinfo);
    };
    fd("100", 3, "/dmabuf:gpu", "pos:\t0\nflags:\t02\nsize:\t4096\nino:\t5001\nexp_name:\tsys\n");
    fd("100", 4, "/dmabuf:gpu", "size:\t4096\nino:\t5001\n");
    fd("100", 5, "/dmabuf:", "size:\t8192\nino:\t5002\n");
    fd("100", 6, "/dmabuf:empty", "size:\t0\nino:\t5003\n");
    fd("100", 7, "/dev/null", "size:\t999\nino:\t7\n");
    fd("100", 8, "/dmabuf:", "size:\t64\n");
    proc->File("100/maps",
               "7f0000-7f1000 rw-s 00000000 00:0f 5001                       /dmabuf:gpu\n"
               "7f3000-7f4000 r-xp 00000000 08:01 1234  /usr/lib/libc.so\n"
               "7f5000-7f6000 rw-s 00000000 00:0f 5002 /dmabuf:\n"
               "7f7000-7f8000 rw-s 00000000 00:0f 5004 /data/dmabuf:x\n");
    fd("100", 10, "/data/dmabuf:x", "size:\t512\nino:\t5004\n");  // not a buffer's path
    fd("200", 9, "/dmabuf:", "size:\t8192\nino:\t5002\n");
    // A process that ended while it was scanned: nothing of it stays.
    fd("250", 3, "/dmabuf:", "size:\t2048\nino:\t5005\n");
    proc->File("250/status", "Name:\tgone\nState:\tZ (zombie)\n");
    proc->File("250/maps", "1000-2000 rw-s 00000000 00:0f 5005 /dmabuf:\n");
    for (const char* live : {"100", "200", "300"}) {
        proc->File(std::string(live) + "/status", "Name:\tlive\nState:\tS (sleeping)\n");
    }
    fd("300", 0, "/dev/null", "size:\t1\nino:\t1\n");
    proc->File("300/maps", "1000-2000 rw-s 00000000 00:0f 7000 /dmabuf:\n");
    proc->File("400/status", "Name:\tnofds\n");
    fd("self", 3, "/dmabuf:", "size:\t1\nino:\t6000\n");
}

}  // namespace

TEST_F(DmabufMapsTest, SeedsBuffersHoldersAndMappingsFromProc) {
    PinPidBits("/sys/fs/bpf/quor/map_QuorBpfGplDefineset_dmabuf_pid_bits");
    FakeProc proc;
    BuildDmabufTree(&proc);
    ChildRun run;
    const int rc = RunMember(proc.root(), &QuorBpfService::initDmabufBpfProg, &run);
    if (run.exitCode == kChildCannotMount) GTEST_SKIP() << "cannot mount a tree over /proc";
    ASSERT_EQ(rc, 0) << run.log;

    EXPECT_EQ(Count(kAllocate), 2u);
    const auto buffer = [this](uint64_t inode) { return Value<dmabuf_info>(kAllocate, inode); };
    EXPECT_EQ(std::make_tuple(buffer(5001).pid, buffer(5001).size), std::make_tuple(100, 4096u));
    // A buffer held by two processes belongs to one of them.
    EXPECT_TRUE(buffer(5002).pid == 100 || buffer(5002).pid == 200) << buffer(5002).pid;
    EXPECT_EQ(buffer(5002).size, 8192u);
    for (const MapId id : {kSize, kPerprocess}) {
        EXPECT_EQ(Count(id), 2u);
        // The shared descriptor counted once.
        EXPECT_EQ(Value<dmabuf_stat>(id, int32_t{100}).total_size, 4096u + 8192u);
        EXPECT_EQ(Value<dmabuf_stat>(id, int32_t{200}).total_size, 8192u);
    }
    // Holders are marked for the kernel's exit programme; 300 holds nothing.
    const std::vector<int32_t> marked = MarkedPids(8);
    for (const int32_t pid : {100, 200})
        EXPECT_EQ(std::count(marked.begin(), marked.end(), pid), 1);
    EXPECT_EQ(std::count(marked.begin(), marked.end(), 300), 0);
    EXPECT_EQ(Count(kInode), 3u);
    const auto holds = [this](int32_t pid, uint64_t inode) {
        return Value<uint64_t>(kInode, quor_process_inode_key{pid, 0, inode});
    };
    EXPECT_EQ(std::make_tuple(holds(100, 5001), holds(100, 5002), holds(200, 5002)),
              std::make_tuple(2u, 1u, 1u));
    const auto mapped = [this](uint64_t start) {
        return Value<uint64_t>(kMmap, quor_process_mmap_key{100, 0, start});
    };
    EXPECT_EQ(std::make_tuple(Count(kMmap), mapped(0x7f0000), mapped(0x7f5000)),
              std::make_tuple(size_t{2}, 5001u, 5002u));
    // Nothing of the ended process.
    EXPECT_EQ(buffer(5005).size + Value<dmabuf_stat>(kSize, int32_t{250}).total_size, 0u);
}

// A map whose keys are wider than the service's would be written past by the
// kernel: refused, and nothing is seeded.
TEST_F(DmabufMapsTest, ForeignMapSeedsNothing) {
    FakeProc proc;
    BuildDmabufTree(&proc);
    ASSERT_EQ(unlink(kMaps[kMmap].pin), 0);
    ChildRun run;
    const int wide = bpf_map_create(BPF_MAP_TYPE_HASH, nullptr, 24, 8, 16, nullptr);
    ASSERT_GE(wide, 0);
    ASSERT_EQ(bpf_obj_pin(wide, kMaps[kMmap].pin), 0);
    close(wide);
    EXPECT_EQ(RunMember("", &QuorBpfService::initBpfMap, &run), -1);
    EXPECT_EQ(RunMember(proc.root(), &QuorBpfService::initDmabufBpfProg, &run), -1);
    EXPECT_EQ(Count(kAllocate) + Count(kSize) + Count(kInode), 0u);
}

TEST_F(DmabufMapsTest, CleanUpRemovesOnlyThatProcess) {
    for (uint64_t i = 1; i <= 200; ++i) {
        const quor_process_inode_key inode{i % 2 ? 100 : 200, 0, i};
        const quor_process_mmap_key mapping{i % 4 ? 300 : 100, 0, i << 12};
        ASSERT_EQ(bpf_map_update_elem(fds_[kInode], &inode, &i, BPF_ANY), 0);
        ASSERT_EQ(bpf_map_update_elem(fds_[kMmap], &mapping, &i, BPF_ANY), 0);
    }
    for (const int32_t pid : {100, 200}) {
        const dmabuf_stat stat{static_cast<uint64_t>(pid), 0};
        const dmabuf_info info{pid, 0, 4096};
        const uint64_t inode = 9000 + pid;
        quor_open_fd_value fds = {};
        fds.pid = pid;
        for (const MapId id : {kSize, kPerprocess}) {
            ASSERT_EQ(bpf_map_update_elem(fds_[id], &pid, &stat, BPF_ANY), 0);
        }
        ASSERT_EQ(bpf_map_update_elem(fds_[kOpenFd], &pid, &fds, BPF_ANY), 0);
        ASSERT_EQ(bpf_map_update_elem(fds_[kAllocate], &inode, &info, BPF_ANY), 0);
    }
    const auto cleanUp = [](int pid) {
        return [pid] {
            QuorBpfService* service = QuorBpfService::GetInstance();
            const int before = service->cleanUpDmabufMap(pid);
            const int init = service->initBpfMap();
            return std::to_string(before) + " " + std::to_string(init) + " " +
                   std::to_string(service->cleanUpDmabufMap(pid));
        };
    };
    // Before initBpfMap there is nothing to clean: 0, no change.
    ChildRun run = RunInChild("", cleanUp(100));
    EXPECT_EQ(run.out, "0 0 0") << run.log;
    EXPECT_EQ(std::make_pair(Count(kInode), Count(kMmap)),
              std::make_pair(size_t{100}, size_t{150}));
    // Every value is non-zero: zero means no entry.
    EXPECT_EQ(Value<uint64_t>(kInode, quor_process_inode_key{200, 0, 2}), 2u);
    EXPECT_EQ(Value<uint64_t>(kInode, quor_process_inode_key{100, 0, 1}), 0u);
    EXPECT_EQ(Value<uint64_t>(kMmap, quor_process_mmap_key{100, 0, 4 << 12}), 0u);
    // Its totals, its descriptor count and the buffer it held went too.
    for (const MapId id : {kSize, kPerprocess, kOpenFd, kAllocate}) EXPECT_EQ(Count(id), 1u) << id;
    EXPECT_EQ(Value<dmabuf_stat>(kSize, int32_t{200}).total_size, 200u);
    EXPECT_EQ(Value<dmabuf_info>(kAllocate, uint64_t{9200}).pid, 200);

    // A storm's batch of ended pids, most without entries, is cleaned by
    // walking the maps instead of a delete per pid: the same result.
    run = RunInChild("", [] {
        std::vector<int32_t> pids = {200};
        for (int32_t pid = 1000; pid < 1100; ++pid) pids.push_back(pid);
        QuorBpfService* service = QuorBpfService::GetInstance();
        const int init = service->initBpfMap();
        return std::to_string(init) + " " + std::to_string(service->cleanUpDmabufMaps(pids));
    });
    EXPECT_EQ(run.out, "0 0") << run.log;
    for (const MapId id : {kSize, kPerprocess, kOpenFd, kAllocate, kInode}) {
        EXPECT_EQ(Count(id), 0u) << id;
    }
    EXPECT_EQ(Count(kMmap), 150u);  // pid 300's
}

TEST_F(DmabufMapsTest, OpenDescriptorCountsOfRealProcesses) {
    PinPidBits("/sys/fs/bpf/quor/map_QuorBpfDefineset_open_fd_pid_bits");
    QuorBpfService* service = QuorBpfService::GetInstance();
    const int32_t self = getpid();
    ASSERT_EQ(service->initFdBpfProg(), 0);
    // Seeded pids are marked for the kernel's exit programme, which looks up
    // only marked pids.
    const std::vector<int32_t> marked = MarkedPids(QUOR_PID_BITS / 64);
    EXPECT_EQ(std::count(marked.begin(), marked.end(), self), self < QUOR_PID_BITS ? 1 : 0);
    EXPECT_EQ(marked.size(), Count(kOpenFd));
    const auto before = Value<quor_open_fd_value>(kOpenFd, self);
    std::vector<int> extra;
    for (int i = 0; i < 25; ++i) extra.push_back(eventfd(0, EFD_CLOEXEC));
    ASSERT_EQ(service->initFdBpfProg(), 0);
    for (const int fd : extra) close(fd);
    const auto after = Value<quor_open_fd_value>(kOpenFd, self);
    EXPECT_GT(before.open_fds, 0u);
    EXPECT_EQ(std::make_tuple(after.open_fds, after.open_fds_again, after.pid, after.comm[15]),
              std::make_tuple(before.open_fds + 25, before.open_fds + 25, self, '\0'));
    EXPECT_GT(Count(kOpenFd), 1u);  // every process, not only this one
}
