// The loader against the real kernel in the private bpffs: pin names, map
// reuse and replacement, unloading, mounting bpffs when it is absent.
#include <bpf/bpf.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>

#include "tests/kernel/kernel_test_env.h"

using Quor::Bpf::QuorBpfLoader;
using Quor::Bpf::QuorBpfLoadReport;
using quor_test::StatusGet;
using quor_test::StatusSet;

namespace {

const std::string kDir = "/sys/fs/bpf/quor/";
const std::string kFdMap = "map_QuorBpfDefineset_open_fd_caller_map";

// The names the service opens, written out here rather than taken from the loader.
std::set<std::string> ExpectedPins() {
    std::set<std::string> pins;
    const auto add = [&pins](const std::string& prefix, std::initializer_list<const char*> names) {
        for (const char* name : names) pins.insert(prefix + name);
    };
    add("map_QuorBpfDefineset_", {"ringbuf_map", "ringbuf_status", "open_fd_caller_map",
                                  "open_fd_pid_bits", "rss_state_map", "switch_check_map"});
    add("prog_QuorBpfDefineset_",
        {"tracepoint_sched_sched_switch", "tracepoint_sched_sched_process_exit",
         "tracepoint_sched_sched_process_fork", "tracepoint_kmem_rss_stat",
         "kprobe_enter_fd_install"});
    add("map_QuorBpfGplDefineset_", {"ringbuf_map", "ringbuf_status", "dmabuf_allocate_map",
                                     "dmabuf_size_map", "dmabuf_perprocess_size_map",
                                     "process_inode_map", "process_mmap_infos", "dmabuf_pid_bits"});
    add("prog_QuorBpfGplDefineset_",
        {"tracepoint_sched_sched_process_exit", "tracepoint_cgroup_cgroup_attach_task",
         "kprobe_dma_buf_file_release", "kprobe_dma_buf_stats_setup"});
    return pins;
}

std::set<std::string> Listing(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d)) {
            if (e->d_name[0] != '.') names.insert(e->d_name);
        }
        closedir(d);
    }
    return names;
}

class LoaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to load BPF programmes";
        if (access("/sys/kernel/btf/vmlinux", F_OK) != 0) GTEST_SKIP() << "the kernel has no BTF";
        TearDown();
    }
    void TearDown() override { (void)QuorBpfLoader::Unload(kDir, &report_); }
    int Load() { return QuorBpfLoader::Load(QuorBpfLoader::Options(), &(report_ = {})); }
    // Pins a fresh map named `name` into the directory.
    static void PinMap(bpf_map_type type, uint32_t valueSize, const std::string& name) {
        ASSERT_TRUE(mkdir(kDir.c_str(), 0755) == 0 || errno == EEXIST);
        const int fd = bpf_map_create(type, "test", 4, valueSize, 16, nullptr);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(bpf_obj_pin(fd, (kDir + name).c_str()), 0);
        close(fd);
    }

    QuorBpfLoadReport report_;
};

TEST_F(LoaderTest, PinsExactlyTheNamesTheServiceOpensAndUnloadsOnlyThose) {
    ASSERT_EQ(Load(), 0);
    const std::set<std::string> expected = ExpectedPins();
    EXPECT_EQ(Listing(kDir), expected);
    EXPECT_EQ(std::set<std::string>(report_.pinned.begin(), report_.pinned.end()), expected);
    EXPECT_TRUE(report_.failures.empty());

    // Unloading removes them and the emptied directory, but leaves a foreign
    // pin and its directory.
    QuorBpfLoadReport unload;
    EXPECT_EQ(QuorBpfLoader::Unload(kDir, &unload), 0);
    EXPECT_EQ(unload.removed.size(), expected.size());
    EXPECT_NE(access(kDir.c_str(), F_OK), 0);
    ASSERT_EQ(Load(), 0);
    PinMap(BPF_MAP_TYPE_ARRAY, 8, "map_Other_thing");
    EXPECT_EQ(QuorBpfLoader::Unload(kDir, &report_), 0);
    EXPECT_EQ(Listing(kDir), std::set<std::string>{"map_Other_thing"});
    EXPECT_EQ(unlink((kDir + "map_Other_thing").c_str()), 0);
}

TEST_F(LoaderTest, ReloadKeepsPinnedMapsAndTheirContentsButReplacesMisshapenOnes) {
    ASSERT_EQ(Load(), 0);
    int fd = bpf_obj_get((kDir + kFdMap).c_str());
    ASSERT_GE(fd, 0);
    const int32_t key = 4242;
    quor_open_fd_value value = {};
    value.open_fds = 7;
    ASSERT_EQ(bpf_map_update_elem(fd, &key, &value, BPF_ANY), 0);
    close(fd);
    // A service run left the programmes switched on.
    const int statusFd = bpf_obj_get((kDir + "map_QuorBpfDefineset_ringbuf_status").c_str());
    ASSERT_TRUE(StatusSet(statusFd, QUOR_STATUS_KEY_FLAGS, QUOR_STATUS_CORE_ON));
    ASSERT_EQ(Load(), 0);
    // ... which do not run again before the next service has seeded.
    EXPECT_EQ(StatusGet(statusFd, QUOR_STATUS_KEY_FLAGS), 0u);
    close(statusFd);
    // Every map is reused; only the programmes are pinned again.
    const std::set<std::string> pins = ExpectedPins();
    const size_t maps = std::count_if(pins.begin(), pins.end(),
                                      [](const std::string& pin) { return pin[0] == 'm'; });
    EXPECT_EQ(report_.reused.size(), maps);
    EXPECT_EQ(report_.pinned.size(), pins.size() - maps);
    fd = bpf_obj_get((kDir + kFdMap).c_str());
    ASSERT_GE(fd, 0);
    value = {};
    EXPECT_EQ(bpf_map_lookup_elem(fd, &key, &value), 0);
    EXPECT_EQ(value.open_fds, 7u);
    close(fd);

    // A pinned map of another shape is replaced.
    ASSERT_EQ(unlink((kDir + kFdMap).c_str()), 0);
    PinMap(BPF_MAP_TYPE_HASH, 8, kFdMap);
    ASSERT_EQ(Load(), 0);
    EXPECT_EQ(std::count(report_.removed.begin(), report_.removed.end(), kFdMap), 1);
    fd = bpf_obj_get((kDir + kFdMap).c_str());
    ASSERT_GE(fd, 0);
    bpf_map_info info = {};
    __u32 len = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd, &info, &len), 0);
    EXPECT_EQ(info.value_size, sizeof(quor_open_fd_value));
    close(fd);
}

TEST_F(LoaderTest, MountsBpffsWhenAbsent) {
    // Local to the test's mount namespace; the private bpffs may cover the
    // host's own (a systemd host mounts one): unmount until none is left.
    struct statfs fs = {};
    for (int i = 0; statfs("/sys/fs/bpf", &fs) == 0 &&
                    static_cast<long>(fs.f_type) == static_cast<long>(BPF_FS_MAGIC);
         ++i) {
        if (i == 8 || umount2("/sys/fs/bpf", MNT_DETACH) != 0)
            GTEST_SKIP() << "cannot unmount every bpffs on /sys/fs/bpf";
    }
    ASSERT_EQ(statfs("/sys/fs/bpf", &fs), 0);
    ASSERT_EQ(Load(), 0);
    ASSERT_EQ(statfs("/sys/fs/bpf", &fs), 0);
    EXPECT_EQ(static_cast<long>(fs.f_type), static_cast<long>(BPF_FS_MAGIC));
    EXPECT_EQ(Listing(kDir), ExpectedPins());
}

}  // namespace
