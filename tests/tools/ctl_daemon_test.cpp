// quorbpfctl against the real daemon in private namespaces: tasks, stats,
// exit codes, a start amid a process storm.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/vgem_dmabuf.h"
#include "tests/tools/ctl_test_support.h"

using namespace QuorCtlTest;

namespace {

const std::string kCtl = QUORBPFCTL_PATH;

size_t CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

class CtlDaemonTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        daemon_ = std::make_unique<Daemon>(dir_);
        started_ = daemon_->Start();
    }
    static void TearDownTestSuite() { daemon_.reset(); }
    void SetUp() override {
        if (!started_) GTEST_SKIP() << "the daemon did not start here:\n" << daemon_->Log();
    }
    static std::string Ctl(const std::string& args) {
        return kCtl + " " + args + " --pid-file " + daemon_->PidFile();
    }

    static inline const std::string dir_ = TempDir();
    static inline std::unique_ptr<Daemon> daemon_;
    static inline bool started_ = false;
};

TEST_F(CtlDaemonTest, TasksPrintsTheWholeTableWithThisProcess) {
    const Output full = Shell(Ctl("tasks"));
    ASSERT_EQ(full.code, 0) << full.err;
    unsigned count = 0;
    ASSERT_EQ(sscanf(full.out.c_str(), "============ DUMP ALL QUOR TASKS INFO (count: %u", &count),
              1)
        << full.out.substr(0, 200);
    EXPECT_EQ(CountLines(full.out), count + 2u);
    EXPECT_NE(full.out.find("oldThreadNum"), std::string::npos);
    // This test process was there when the daemon scanned /proc.
    char row[64];
    snprintf(row, sizeof(row), "   %-12d%-12d", getpid(), getppid());
    EXPECT_NE(full.out.find(row), std::string::npos);

    const Output normal = Shell(Ctl("tasks --normal --no-kernel"));
    ASSERT_EQ(normal.code, 0) << normal.err;
    EXPECT_EQ(normal.out.find("oldThreadNum"), std::string::npos);
    EXPECT_LT(CountLines(normal.out), count + 2u) << "kernel threads are left out";
    EXPECT_NE(normal.out.find(row), std::string::npos);
}

TEST_F(CtlDaemonTest, StatsSummarisesAndPlots) {
    const std::string svg = dir_ + "/rates.svg";
    const Output stats = Shell(Ctl("stats --plot " + svg));
    ASSERT_EQ(stats.code, 0) << stats.err;
    for (const char* text : {"event statistics:", "sched_task_create", "ring-buffer polls"}) {
        EXPECT_NE(stats.out.find(text), std::string::npos) << stats.out;
    }
    EXPECT_NE(stats.out.find("chart written to " + svg), std::string::npos);
    // The daemon seeded its registry: at least quor_task_init has data (the
    // chart itself is checked with an XML parser in ctl_files_test).
    EXPECT_NE(ReadFile(svg).find("<polyline"), std::string::npos);
}

TEST_F(CtlDaemonTest, ErrorsHaveTheirExitCodes) {
    const std::pair<const char*, int> cases[] = {
        {" watch no_such_type", 2},
        {" tasks --daemon-pid abc", 2},
        {" tasks --daemon-pid 4194303", 3},
        {" top </dev/null", 6},
    };
    for (const auto& [args, code] : cases) EXPECT_EQ(Shell(kCtl + args).code, code) << args;
    const Output noSocket = Shell(kCtl + " watch --socket /no/such/socket --timeout 1");
    EXPECT_EQ(noSocket.code, 3);
    EXPECT_NE(noSocket.err.find("the service is not running"), std::string::npos) << noSocket.err;
    // A process that never answers: the dump times out.
    const pid_t silent = fork();
    if (silent == 0) {
        signal(51, [](int) {});
        for (;;) pause();
    }
    const Output timeout = Shell(kCtl + " tasks --timeout 1 --dir " + dir_ + " --daemon-pid " +
                                 std::to_string(silent));
    EXPECT_EQ(timeout.code, 5) << timeout.err;
    kill(silent, SIGKILL);
    waitpid(silent, nullptr, 0);
}

// The pids of `pids` that a pinned map still names: as its key's first field,
// or for the buffer map as its value's holder.
std::set<pid_t> MapsNaming(const std::set<pid_t>& pids) {
    std::set<pid_t> named;
    const std::string dir = "/sys/fs/bpf/quor/map_";
    for (const char* map :
         {"QuorBpfDefineset_open_fd_caller_map", "QuorBpfGplDefineset_dmabuf_size_map",
          "QuorBpfGplDefineset_dmabuf_perprocess_size_map", "QuorBpfGplDefineset_process_inode_map",
          "QuorBpfGplDefineset_process_mmap_infos", "QuorBpfGplDefineset_dmabuf_allocate_map"}) {
        const int fd = bpf_obj_get((dir + map).c_str());
        if (fd < 0) continue;
        const bool byValue = strstr(map, "allocate") != nullptr;
        char key[64] = {}, next[64] = {}, value[256] = {};
        void* prev = nullptr;
        while (bpf_map_get_next_key(fd, prev, next) == 0) {
            memcpy(key, next, sizeof(key));
            prev = key;
            int32_t pid = 0;
            if (byValue) {
                if (bpf_map_lookup_elem(fd, key, value) != 0) continue;
                memcpy(&pid, value, sizeof(pid));
            } else {
                memcpy(&pid, key, sizeof(pid));
            }
            if (pids.count(pid) != 0) named.insert(pid);
        }
        close(fd);
    }
    return named;
}

// The daemon starts while processes fork threads, hold a dmabuf (where the
// kernel has vgem) and exit: its initial scan must leave no map entry for
// any of them once they are gone.
TEST_F(CtlDaemonTest, StartAmidAProcessStormLeavesNoDeadPidInTheMaps) {
    const int vgem = quor_test::OpenVgem();
    const quor_test::VgemDmabuf buffer =
        vgem >= 0 ? quor_test::ExportVgemBuffer(vgem, 64, 64) : quor_test::VgemDmabuf{};
    if (vgem >= 0) close(vgem);
    ASSERT_EQ(daemon_->Stop(), 0);

    std::atomic<bool> stop{false};
    std::set<pid_t> pids;
    std::thread storm([&] {
        std::vector<pid_t> alive;
        for (unsigned n = 0; !stop.load(); ++n) {
            const pid_t child = fork();
            if (child == 0) {
                // The dmabuf descriptor is inherited: each child holds it.
                std::thread([] {}).join();
                usleep((n % 7) * 3000);
                _exit(0);
            }
            if (child > 0) {
                pids.insert(child);
                alive.push_back(child);
            }
            if (alive.size() >= 8) {
                (void)waitpid(alive.front(), nullptr, 0);
                alive.erase(alive.begin());
            }
        }
        for (const pid_t child : alive) (void)waitpid(child, nullptr, 0);
    });
    const bool started = daemon_->Start();
    usleep(500000);
    stop = true;
    storm.join();
    ASSERT_TRUE(started) << daemon_->Log();
    if (buffer.fd >= 0) close(buffer.fd);

    // Exits are handled in batches, the last one on a later exit: make some.
    std::set<pid_t> named = MapsNaming(pids);
    for (int i = 0; i < 40 && !named.empty(); ++i) {
        usleep(250000);
        (void)Shell("true");
        named = MapsNaming(pids);
    }
    EXPECT_TRUE(named.empty()) << named.size() << " of " << pids.size()
                               << " dead pids are still in the maps, e.g. " << *named.begin();
    if (buffer.fd < 0) std::cout << "(no vgem device: the storm held no dmabuf)\n";
}

}  // namespace
