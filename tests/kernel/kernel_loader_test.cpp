// The loader against the real kernel, in the test's private bpffs: the pin
// names, reuse of pinned maps across loads, replacement of a map whose shape
// changed, unloading, and mounting bpffs when it is absent.
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

#include "quor/quor_bpf_records.h"
#include "tools/loader/quor_bpf_loader.h"

using Quor::Bpf::QuorBpfLoader;
using Quor::Bpf::QuorBpfLoadReport;

namespace {

constexpr const char* kDir = "/sys/fs/bpf/quor/";

const std::set<std::string> kExpectedPins = {
    "map_QuorBpfDefineset_ringbuf_map",
    "map_QuorBpfDefineset_ringbuf_status",
    "map_QuorBpfDefineset_open_fd_caller_map",
    "map_QuorBpfDefineset_rss_state_map",
    "prog_QuorBpfDefineset_tracepoint_sched_sched_switch",
    "prog_QuorBpfDefineset_tracepoint_sched_sched_process_exit",
    "prog_QuorBpfDefineset_tracepoint_sched_sched_process_fork",
    "prog_QuorBpfDefineset_tracepoint_kmem_rss_stat",
    "prog_QuorBpfDefineset_kprobe_enter_fd_install",
    "map_QuorBpfGplDefineset_ringbuf_map",
    "map_QuorBpfGplDefineset_ringbuf_status",
    "map_QuorBpfGplDefineset_dmabuf_allocate_map",
    "map_QuorBpfGplDefineset_dmabuf_size_map",
    "map_QuorBpfGplDefineset_dmabuf_perprocess_size_map",
    "map_QuorBpfGplDefineset_process_inode_map",
    "map_QuorBpfGplDefineset_process_mmap_infos",
    "prog_QuorBpfGplDefineset_tracepoint_sched_sched_process_exit",
    "prog_QuorBpfGplDefineset_tracepoint_cgroup_cgroup_attach_task",
    "prog_QuorBpfGplDefineset_kprobe_dma_buf_file_release",
    "prog_QuorBpfGplDefineset_kprobe_dma_buf_stats_setup",
};

std::set<std::string> Listing(const std::string& dir) {
    std::set<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return names;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') names.insert(e->d_name);
    }
    closedir(d);
    return names;
}

class LoaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to load BPF programmes";
        if (access("/sys/kernel/btf/vmlinux", F_OK) != 0) GTEST_SKIP() << "the kernel has no BTF";
        QuorBpfLoadReport report;
        (void)QuorBpfLoader::Unload(kDir, &report);
    }
    void TearDown() override {
        QuorBpfLoadReport report;
        (void)QuorBpfLoader::Unload(kDir, &report);
    }
};

TEST_F(LoaderTest, PinsExactlyTheNamesTheServiceOpens) {
    QuorBpfLoadReport report;
    ASSERT_EQ(QuorBpfLoader::Load(QuorBpfLoader::Options(), &report), 0);
    EXPECT_EQ(Listing(kDir), kExpectedPins);
    EXPECT_EQ(std::set<std::string>(report.pinned.begin(), report.pinned.end()), kExpectedPins);
    EXPECT_TRUE(report.failures.empty());
    const auto names = QuorBpfLoader::PinNames();
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), kExpectedPins);

    QuorBpfLoadReport unload;
    EXPECT_EQ(QuorBpfLoader::Unload(kDir, &unload), 0);
    EXPECT_EQ(unload.removed.size(), kExpectedPins.size());
    EXPECT_NE(access(kDir, F_OK), 0) << "the emptied directory is removed";
}

TEST_F(LoaderTest, ReloadKeepsPinnedMapsAndTheirContents) {
    QuorBpfLoadReport first;
    ASSERT_EQ(QuorBpfLoader::Load(QuorBpfLoader::Options(), &first), 0);
    const std::string mapPath = std::string(kDir) + "map_QuorBpfDefineset_open_fd_caller_map";
    int fd = bpf_obj_get(mapPath.c_str());
    ASSERT_GE(fd, 0);
    const int32_t key = 4242;
    quor_open_fd_value value = {};
    value.pid = key;
    value.open_fds = 7;
    ASSERT_EQ(bpf_map_update_elem(fd, &key, &value, BPF_ANY), 0);
    close(fd);

    QuorBpfLoadReport second;
    ASSERT_EQ(QuorBpfLoader::Load(QuorBpfLoader::Options(), &second), 0);
    // Every map is reused; only the programmes are pinned again.
    const size_t maps =
        std::count_if(kExpectedPins.begin(), kExpectedPins.end(),
                      [](const std::string& pin) { return pin.rfind("map_", 0) == 0; });
    EXPECT_EQ(second.reused.size(), maps);
    EXPECT_EQ(second.pinned.size(), kExpectedPins.size() - maps);
    fd = bpf_obj_get(mapPath.c_str());
    ASSERT_GE(fd, 0);
    quor_open_fd_value read = {};
    EXPECT_EQ(bpf_map_lookup_elem(fd, &key, &read), 0);
    EXPECT_EQ(read.open_fds, 7u);
    close(fd);
}

TEST_F(LoaderTest, PinnedMapOfAnotherShapeIsReplaced) {
    ASSERT_EQ(mkdir(kDir, 0755) == 0 || errno == EEXIST, true);
    const int stale = bpf_map_create(BPF_MAP_TYPE_HASH, "stale", 4, 8, 16, nullptr);
    ASSERT_GE(stale, 0);
    const std::string path = std::string(kDir) + "map_QuorBpfDefineset_open_fd_caller_map";
    ASSERT_EQ(bpf_obj_pin(stale, path.c_str()), 0);
    close(stale);

    QuorBpfLoadReport report;
    ASSERT_EQ(QuorBpfLoader::Load(QuorBpfLoader::Options(), &report), 0);
    EXPECT_NE(std::find(report.removed.begin(), report.removed.end(),
                        "map_QuorBpfDefineset_open_fd_caller_map"),
              report.removed.end());
    const int fd = bpf_obj_get(path.c_str());
    ASSERT_GE(fd, 0);
    bpf_map_info info = {};
    __u32 len = sizeof(info);
    ASSERT_EQ(bpf_obj_get_info_by_fd(fd, &info, &len), 0);
    EXPECT_EQ(info.value_size, sizeof(quor_open_fd_value));
    close(fd);
}

TEST_F(LoaderTest, UnloadLeavesForeignPinsAndTheirDirectory) {
    QuorBpfLoadReport report;
    ASSERT_EQ(QuorBpfLoader::Load(QuorBpfLoader::Options(), &report), 0);
    const int other = bpf_map_create(BPF_MAP_TYPE_ARRAY, "other", 4, 8, 1, nullptr);
    ASSERT_GE(other, 0);
    const std::string foreign = std::string(kDir) + "map_Other_thing";
    ASSERT_EQ(bpf_obj_pin(other, foreign.c_str()), 0);
    close(other);

    QuorBpfLoadReport unload;
    EXPECT_EQ(QuorBpfLoader::Unload(kDir, &unload), 0);
    EXPECT_EQ(Listing(kDir), std::set<std::string>{"map_Other_thing"});
    EXPECT_EQ(unlink(foreign.c_str()), 0);
}

TEST_F(LoaderTest, MountsBpffsWhenAbsent) {
    // The test runs in a private mount namespace: unmounting is local to it.
    if (umount2("/sys/fs/bpf", MNT_DETACH) != 0) GTEST_SKIP() << "cannot unmount the private bpffs";
    struct statfs fs = {};
    ASSERT_EQ(statfs("/sys/fs/bpf", &fs), 0);
    ASSERT_NE(static_cast<long>(fs.f_type), static_cast<long>(BPF_FS_MAGIC));

    QuorBpfLoadReport report;
    ASSERT_EQ(QuorBpfLoader::Load(QuorBpfLoader::Options(), &report), 0);
    ASSERT_EQ(statfs("/sys/fs/bpf", &fs), 0);
    EXPECT_EQ(static_cast<long>(fs.f_type), static_cast<long>(BPF_FS_MAGIC));
    EXPECT_NE(std::find(report.notes.begin(), report.notes.end(), "mounted bpffs on /sys/fs/bpf"),
              report.notes.end());
    EXPECT_EQ(Listing(kDir), kExpectedPins);
}

}  // namespace
