// The real quorbpfd as a child, restarted while its pins stay.
#include <bpf/bpf.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "quor/quorbpf_client.h"
#include "service/quor_bpf_service_settings.h"
#include "tests/support/live_service.h"
#include "tests/support/record_injector.h"
#include "tools/loader/quor_bpf_loader.h"

extern char** environ;

using namespace Quor::Bpf;
using namespace quortest;

namespace {

constexpr const char* kLogFile = "/data/quorbpfd_stderr.log";
constexpr int32_t kMarkerType = QUOR_EVENT_CGROUP_ATTACH;

// One quorbpfd run, its stderr in kLogFile (appended across runs).
class Daemon {
public:
    explicit Daemon(std::vector<std::string> args = {}) {
        std::vector<char*> argv = {const_cast<char*>(QUORBPFD_PATH)};
        for (std::string& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, kLogFile,
                                         O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (posix_spawn(&pid_, QUORBPFD_PATH, &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Daemon() {
        if (pid_ > 0) (void)stop();
    }
    bool running() const { return pid_ > 0; }
    // SIGTERM (or `signo`); the exit status (-1 when it did not exit normally).
    int stop(int signo = SIGTERM) {
        if (pid_ <= 0) return -1;
        kill(pid_, signo);
        int status = 0;
        const pid_t pid = pid_;
        pid_ = -1;
        if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
        return WEXITSTATUS(status);
    }

private:
    pid_t pid_ = -1;
};

// Counts markers injected into a ring buffer as one library client gets them.
class MarkerClient {
public:
    MarkerClient() {
        QuorBpfClient::Options options;
        options.reconnectIntervalMs = 100;
        client_ = std::make_unique<QuorBpfClient>(
            [this](uint32_t type, const uint8_t*, size_t) {
                if (static_cast<int32_t>(type) == kMarkerType) markers_.fetch_add(1);
            },
            options);
        client_->setConnectionCallback([this](bool connected) {
            if (connected) connections_.fetch_add(1);
        });
    }
    bool connect() {
        return client_->connect(30000) &&
               Subscribed(*client_, kMarkerType, std::chrono::seconds(10));
    }
    // Injects markers at `ringPin` until one arrives (a re-subscription may
    // still be on its way).
    bool markerArrives(const char* ringPin) {
        quor_test::RecordInjector injector;
        std::string error;
        if (!injector.Open(ringPin, &error)) {
            ADD_FAILURE() << error;
            return false;
        }
        quor_cgroup_attach_record marker = {};
        marker.header.type = kMarkerType;
        marker.pid = 4000003;
        const uint64_t before = markers_.load();
        return WaitFor(
            [&] {
                (void)injector.Inject(marker);
                return WaitFor([&] { return markers_.load() > before; },
                               std::chrono::milliseconds(200), 5);
            },
            std::chrono::seconds(30), 0);
    }
    int connections() const { return connections_.load(); }

private:
    std::atomic<uint64_t> markers_{0};
    std::atomic<int> connections_{0};
    std::unique_ptr<QuorBpfClient> client_;
};

uint32_t MapId(const char* pin) {
    const int fd = bpf_obj_get(pin);
    if (fd < 0) return 0;
    bpf_map_info info = {};
    uint32_t len = sizeof(info);
    const uint32_t id = bpf_obj_get_info_by_fd(fd, &info, &len) == 0 ? info.id : 0;
    close(fd);
    return id;
}

bool LogHas(const std::string& text) {
    return ReadFile(kLogFile).find(text) != std::string::npos;
}

class DaemonFaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to load BPF programmes";
        (void)unlink(kLogFile);
        QuorBpfLoadReport report;
        (void)QuorBpfLoader::Unload("/sys/fs/bpf/quor/", &report);
    }
    void TearDown() override {
        if (HasFailure())
            fprintf(stderr, "---- quorbpfd log ----\n%s\n", ReadFile(kLogFile).c_str());
    }
};

}  // namespace

// Three daemons over the same pins: the first stops on a quit request
// (SIGQUIT) as on SIGTERM (exit code 0, no core, pid file gone); the second
// reuses its maps and serves the same client again; the third starts with the
// main status map's pin missing, and only the main monitor fails (a missing
// GPL ring buffer is pipeline_test's set-up).
TEST_F(DaemonFaultTest, RestartsOverKeptPinsServeAgainAndAMissingPinFailsOnlyItsMonitor) {
    constexpr const char* kPidFile = "/data/quorbpfd_test.pid";
    MarkerClient client;
    auto daemon = std::make_unique<Daemon>(std::vector<std::string>{"--pid-file", kPidFile});
    ASSERT_TRUE(daemon->running());
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(client.markerArrives(RINGBUF_MAP_PATHS[RINGBUF_MAIN]));
    const uint32_t ringId = MapId(RINGBUF_MAP_PATHS[RINGBUF_MAIN]);
    const uint32_t statusId = MapId(RINGBUF_STATUS_PATHS[RINGBUF_MAIN]);
    ASSERT_NE(ringId, 0u);
    ASSERT_FALSE(ReadFile(kPidFile).empty());
    ASSERT_EQ(daemon->stop(SIGQUIT), 0);
    EXPECT_TRUE(ReadFile(kPidFile).empty());

    daemon = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon->running());
    EXPECT_TRUE(WaitFor([&] { return client.connections() == 2; }, std::chrono::seconds(30)));
    EXPECT_TRUE(client.markerArrives(RINGBUF_MAP_PATHS[RINGBUF_MAIN]));
    EXPECT_EQ(MapId(RINGBUF_MAP_PATHS[RINGBUF_MAIN]), ringId);
    EXPECT_EQ(MapId(RINGBUF_STATUS_PATHS[RINGBUF_MAIN]), statusId);
    ASSERT_EQ(daemon->stop(), 0);

    ASSERT_EQ(unlink(RINGBUF_STATUS_PATHS[RINGBUF_MAIN]), 0);
    daemon = std::make_unique<Daemon>(
        std::vector<std::string>{"--no-load", "--property", "sys.quor_bpf_ready=1"});
    ASSERT_TRUE(daemon->running());
    EXPECT_TRUE(
        WaitFor([] { return LogHas("[eventMonitor] QUORBPF: get ringbuf status map failed"); },
                std::chrono::seconds(30)));
    EXPECT_TRUE(client.markerArrives(RINGBUF_MAP_PATHS[RINGBUF_GPL]));
    EXPECT_EQ(daemon->stop(), 0);
}
