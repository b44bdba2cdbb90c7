// The event pipeline end to end: the real programme sets loaded into the
// test's private bpffs, the service started through BpfServiceMain(), and a
// library client receiving what the monitors and handlers produce. Records
// with exact bytes enter the real main ring buffer through the injector
// programme; real processes started by the tests produce real records.
//
// Synthetic records use pids above the kernel's pid_max, so they never meet a
// real process. A marker record (type 5 with a unique cgroup text) injected
// after a batch is the checkpoint that the monitor has handled the batch.
#include <android-base/properties.h>
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_task_manager.h"
#include "quor/bpf_service_main.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "service/quor_bpf_event_tables.h"
#include "service/quor_bpf_service.h"
#include "tests/support/record_injector.h"
#include "tools/loader/quor_bpf_loader.h"

using namespace Quor::Bpf;

namespace {

using Clock = std::chrono::steady_clock;
constexpr int32_t kFakePidBase = 4000000;  // above any pid_max
constexpr uint64_t kSecond = 1000000000ULL;
constexpr int32_t kMarkerPid = kFakePidBase;

struct Event {
    uint32_t type;
    std::string bytes;

    template <typename T>
    T as() const {
        T value = {};
        memcpy(&value, bytes.data(), std::min(sizeof(T), bytes.size()));
        return value;
    }
};

// Service events carry the pid at offset 4, kernel records at 16 or 20.
int32_t PidOf(uint32_t type, const uint8_t* data, size_t len) {
    size_t offset = 16;
    if (type == QUOR_EVENT_TASK_CREATE) offset = offsetof(quor_fork_record, pid);
    if (type >= QUOR_SERVICE_TASK_NEW) offset = 4;
    int32_t pid = -1;
    if (len >= offset + 4) memcpy(&pid, data + offset, 4);
    return pid;
}

// What the client receives, indexed by pid as it arrives so that waiting
// costs little however busy the machine is.
class Collector {
public:
    void add(uint32_t type, const uint8_t* data, size_t len) {
        std::lock_guard<std::mutex> lock(mutex_);
        byPid_[PidOf(type, data, len)].push_back(
            {type, std::string(reinterpret_cast<const char*>(data), len)});
        cv_.notify_all();
    }

    // Waits until `done` holds; it runs under the collector's lock and may
    // use countLocked() only.
    bool waitFor(const std::function<bool()>& done,
                 std::chrono::seconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cv_.wait_for(lock, limit, done);
    }

    size_t countLocked(int32_t pid, uint32_t type) const {
        const auto it = byPid_.find(pid);
        if (it == byPid_.end()) return 0;
        return std::count_if(it->second.begin(), it->second.end(),
                             [&](const Event& e) { return e.type == type; });
    }

    std::vector<Event> of(int32_t pid) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = byPid_.find(pid);
        return it == byPid_.end() ? std::vector<Event>() : it->second;
    }

    size_t count(int32_t pid, uint32_t type) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(pid, type);
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    std::map<int32_t, std::vector<Event>> byPid_;
};

class PipelineEnvironment;
PipelineEnvironment* gEnv = nullptr;

class PipelineEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root to load BPF programmes";
        QuorBpfLoadReport report;
        const int failures = QuorBpfLoader::Load(QuorBpfLoader::Options(), &report);
        ASSERT_EQ(failures, 0) << ::testing::PrintToString(report.Lines());
        utsname name = {};
        ASSERT_EQ(uname(&name), 0);
        int major = 0, minor = 0;
        ASSERT_EQ(sscanf(name.release, "%d.%d", &major, &minor), 2);
        android::base::SetProperty("ro.kernel.version",
                                   std::to_string(major) + "." + std::to_string(minor));
        android::base::SetProperty("sys.quor_bpf_ready", "1");
        ASSERT_EQ(BpfServiceMain(), 1);

        // The main monitor enables the normal programmes after its scan.
        statusFd_ = bpf_obj_get(RINGBUF_STATUS_PATHS[RINGBUF_MAIN]);
        ASSERT_GE(statusFd_, 0);
        const auto deadline = Clock::now() + std::chrono::seconds(20);
        while (StatusWord() != (QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON)) {
            ASSERT_LT(Clock::now(), deadline) << "monitor never enabled the programmes";
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }

        std::string error;
        ASSERT_TRUE(injector.Open(RINGBUF_MAP_PATHS[RINGBUF_MAIN], &error)) << error;

        client =
            std::make_unique<QuorBpfClient>([this](uint32_t type, const uint8_t* data, size_t len) {
                events.add(type, data, len);
            });
        ASSERT_TRUE(client->connect(5000));
        std::mutex mutex;
        std::condition_variable cv;
        int answered = 0;
        const int32_t types[] = {QUOR_EVENT_TASK_CREATE,
                                 QUOR_EVENT_TASK_EXIT,
                                 QUOR_EVENT_CGROUP_ATTACH,
                                 QUOR_EVENT_DMABUF_UPDATE,
                                 9,
                                 QUOR_SERVICE_TASK_NEW,
                                 QUOR_SERVICE_TASK_EXIT,
                                 QUOR_SERVICE_THREAD_CHANGE,
                                 QUOR_SERVICE_RSS_CHANGE};
        for (int32_t type : types) {
            ASSERT_TRUE(client->subscribe(type, [&](int32_t status) {
                EXPECT_EQ(status, QUOR_BPF_STATUS_OK);
                std::lock_guard<std::mutex> lock(mutex);
                ++answered;
                cv.notify_all();
            }));
        }
        std::unique_lock<std::mutex> lock(mutex);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(5),
                                [&] { return answered == static_cast<int>(std::size(types)); }));
    }

    void TearDown() override {
        if (client) client->disconnect();
        if (statusFd_ >= 0) close(statusFd_);
        (void)StopBpfService();
    }

    uint64_t StatusWord() const {
        uint32_t key = QUOR_STATUS_KEY_FLAGS;
        uint64_t value = 0;
        (void)bpf_map_lookup_elem(statusFd_, &key, &value);
        return value;
    }

    int statusFd() const { return statusFd_; }

    // Injects a marker and waits until the client has it: everything
    // injected before it has been through the handlers by then.
    bool Checkpoint() {
        quor_cgroup_attach_record marker = {};
        marker.header.type = QUOR_EVENT_CGROUP_ATTACH;
        marker.pid = kMarkerPid;
        if (injector.Inject(marker) != 0) return false;
        ++markersSent_;
        return events.waitFor([&] {
            return events.countLocked(kMarkerPid, QUOR_EVENT_CGROUP_ATTACH) == markersSent_;
        });
    }

    Collector events;
    quor_test::RecordInjector injector;
    std::unique_ptr<QuorBpfClient> client;

private:
    int statusFd_ = -1;
    size_t markersSent_ = 0;
};

quor_fork_record Fork(int32_t pid, int32_t ppid, uint64_t t, uint32_t kind, const char* comm) {
    quor_fork_record r = {};
    r.header.type = QUOR_EVENT_TASK_CREATE;
    r.header.timestamp_ns = t;
    r.pid = pid;
    r.ppid = ppid;
    r.tid = pid;
    r.kind = kind;
    strncpy(r.comm, comm, sizeof(r.comm) - 1);
    return r;
}

quor_exit_record Exit(int32_t pid, uint64_t t, uint32_t kind, const char* comm) {
    quor_exit_record r = {};
    r.header.type = QUOR_EVENT_TASK_EXIT;
    r.header.timestamp_ns = t;
    r.pid = pid;
    r.kind = kind;
    strncpy(r.comm, comm, sizeof(r.comm) - 1);
    return r;
}

quor_rss_record Rss(int32_t pid, uint64_t t, int32_t member, int64_t size) {
    quor_rss_record r = {};
    r.header.type = QUOR_EVENT_RSS_STAT;
    r.header.timestamp_ns = t;
    r.pid = pid;
    r.member = member;
    r.size = size;
    return r;
}

size_t CountOf(const std::vector<Event>& events, uint32_t type) {
    return std::count_if(events.begin(), events.end(),
                         [&](const Event& e) { return e.type == type; });
}

QuorTask TaskOf(int32_t pid) {
    QuorTask task = {};
    EXPECT_TRUE(QuorTaskManager::GetInstance()->GetQuorTaskCopy(pid, &task)) << pid;
    return task;
}

bool Registered(int32_t pid) {
    QuorTask task;
    return QuorTaskManager::GetInstance()->GetQuorTaskCopy(pid, &task);
}

}  // namespace

TEST(PipelineTest, StartupScanRegistersRunningProcesses) {
    // The scan ran before the monitor enabled the normal programmes.
    const QuorTask self = TaskOf(getpid());
    EXPECT_EQ(self.ppid, getppid());
    EXPECT_GE(self.threadNum, 1);
    EXPECT_GT(self.rssAnonSize + self.rssFileSize, 0);
    EXPECT_TRUE(Registered(1));
}

TEST(PipelineTest, ChildLifetimeReachesTheClientInOrder) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Memory changes inside the first 3 seconds of a process are not
        // reported, so allocate after that.
        std::this_thread::sleep_for(std::chrono::milliseconds(3300));
        const size_t size = 64 << 20;
        void* block =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block != MAP_FAILED) memset(block, 1, size);
        std::this_thread::sleep_for(std::chrono::milliseconds(1700));
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);

    ASSERT_TRUE(gEnv->events.waitFor([&] {
        return gEnv->events.countLocked(child, QUOR_SERVICE_TASK_EXIT) == 1;
    })) << "no exit event for the child";

    // fork record, 50001, at least one 50004, exit record, 50002 - in order.
    std::vector<uint32_t> order;
    for (const Event& e : gEnv->events.of(child)) {
        if (e.type == QUOR_EVENT_TASK_CREATE) {
            EXPECT_EQ(e.as<quor_fork_record>().kind, QUOR_TASK_KIND_PROCESS);
            EXPECT_EQ(e.as<quor_fork_record>().ppid, getpid());
        }
        if (e.type == QUOR_EVENT_TASK_EXIT &&
            e.as<quor_exit_record>().kind != QUOR_TASK_KIND_PROCESS) {
            continue;  // a thread of the child, if any
        }
        if (order.empty() || order.back() != e.type) order.push_back(e.type);
    }
    const std::vector<uint32_t> expected = {QUOR_EVENT_TASK_CREATE, QUOR_SERVICE_TASK_NEW,
                                            QUOR_SERVICE_RSS_CHANGE, QUOR_EVENT_TASK_EXIT,
                                            QUOR_SERVICE_TASK_EXIT};
    EXPECT_EQ(order, expected);

    const auto childEvents = gEnv->events.of(child);
    const auto created = std::find_if(childEvents.begin(), childEvents.end(), [](const Event& e) {
        return e.type == QUOR_SERVICE_TASK_NEW;
    });
    ASSERT_NE(created, childEvents.end());
    char selfComm[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, selfComm), 0);
    EXPECT_STREQ(created->as<quor_task_new_event>().comm, selfComm);
    EXPECT_FALSE(Registered(child));
}

TEST(PipelineTest, EveryForkOfAStormReachesTheClient) {
    constexpr int kChildren = 1000;
    std::set<int32_t> pids;
    for (int i = 0; i < kChildren; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) _exit(0);
        pids.insert(child);
    }
    for (int i = 0; i < kChildren; ++i) (void)wait(nullptr);

    const bool all = gEnv->events.waitFor(
        [&] {
            return std::all_of(pids.begin(), pids.end(), [&](int32_t pid) {
                return gEnv->events.countLocked(pid, QUOR_SERVICE_TASK_EXIT) > 0;
            });
        },
        std::chrono::seconds(30));
    EXPECT_TRUE(all);
    size_t forked = 0;
    for (int32_t pid : pids) forked += gEnv->events.count(pid, QUOR_EVENT_TASK_CREATE) > 0;
    EXPECT_EQ(forked, pids.size());
    // Nothing was lost, so the kernel never had to flag an overflow.
    EXPECT_EQ(gEnv->StatusWord() & QUOR_STATUS_OVERFLOW, 0u);
}

TEST(PipelineTest, ThreadChangesAreReportedAfterThreeSecondsAndElevenThreads) {
    const int32_t pid = kFakePidBase + 1;
    const uint64_t t0 = 1000 * kSecond;
    auto& inject = gEnv->injector;
    ASSERT_EQ(inject.Inject(Fork(pid, 77, t0, QUOR_TASK_KIND_PROCESS, "worker")), 0);
    // A storm inside the first 3 seconds moves the count but stays quiet.
    for (int i = 1; i <= 15; ++i) {
        ASSERT_EQ(inject.Inject(Fork(pid, 0, t0 + i * 1000000ULL, QUOR_TASK_KIND_THREAD, "w")), 0);
    }
    // A thread record older than the process is ignored.
    ASSERT_EQ(inject.Inject(Fork(pid, 0, t0 - 1, QUOR_TASK_KIND_THREAD, "w")), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_EQ(TaskOf(pid).threadNum, 16);
    EXPECT_EQ(CountOf(gEnv->events.of(pid), QUOR_SERVICE_THREAD_CHANGE), 0u);

    // The first thread event after 3 seconds reports the whole difference.
    ASSERT_EQ(inject.Inject(Fork(pid, 0, t0 + 3 * kSecond, QUOR_TASK_KIND_THREAD, "w")), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    auto reports = gEnv->events.of(pid);
    ASSERT_EQ(CountOf(reports, QUOR_SERVICE_THREAD_CHANGE), 1u);
    auto change = reports.back().as<quor_thread_change_event>();
    EXPECT_EQ(change.old_thread_count, 1);
    EXPECT_EQ(change.thread_count, 17);
    EXPECT_EQ(change.ppid, 77);

    // Ten exits are not worth a report; the eleventh is.
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(inject.Inject(Exit(pid, t0 + 4 * kSecond, QUOR_TASK_KIND_THREAD, "w")), 0);
    }
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_EQ(CountOf(gEnv->events.of(pid), QUOR_SERVICE_THREAD_CHANGE), 1u);
    ASSERT_EQ(inject.Inject(Exit(pid, t0 + 4 * kSecond, QUOR_TASK_KIND_THREAD, "w")), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    reports = gEnv->events.of(pid);
    ASSERT_EQ(CountOf(reports, QUOR_SERVICE_THREAD_CHANGE), 2u);
    change = reports.back().as<quor_thread_change_event>();
    EXPECT_EQ(change.old_thread_count, 17);
    EXPECT_EQ(change.thread_count, 6);

    ASSERT_EQ(inject.Inject(Exit(pid, t0 + 5 * kSecond, QUOR_TASK_KIND_PROCESS, "worker")), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_FALSE(Registered(pid));
}

TEST(PipelineTest, MemoryChangesAccumulateUntilTheyPassTheThreshold) {
    const int32_t pid = kFakePidBase + 2;
    const uint64_t t0 = 2000 * kSecond;
    auto& inject = gEnv->injector;
    ASSERT_EQ(inject.Inject(Fork(pid, 77, t0, QUOR_TASK_KIND_PROCESS, "app")), 0);
    // Early changes are stored but never reported, even large ones.
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + kSecond, QUOR_RSS_FILE, 1 << 20)), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_EQ(TaskOf(pid).rssFileSize, 1 << 20);
    EXPECT_EQ(TaskOf(pid).mmId, 1000u);
    EXPECT_EQ(CountOf(gEnv->events.of(pid), QUOR_SERVICE_RSS_CHANGE), 0u);

    // 1 MiB file-backed is still pending against the zero baseline: one
    // report after 3 s, and the baseline moves to the current values.
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 4 * kSecond, QUOR_RSS_ANON, 4096)), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    auto reports = gEnv->events.of(pid);
    ASSERT_EQ(CountOf(reports, QUOR_SERVICE_RSS_CHANGE), 1u);
    auto change = reports.back().as<quor_rss_change_event>();
    EXPECT_EQ(change.rss_file, 1 << 20);
    EXPECT_EQ(change.rss_anon, 4096);
    EXPECT_EQ(change.old_rss_file, 0);
    EXPECT_STREQ(change.comm, "app");

    // Changes summing to 16383 stay quiet; one byte more is reported.
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 5 * kSecond, QUOR_RSS_ANON, 4096 + 10000)), 0);
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 5 * kSecond, QUOR_RSS_SHMEM, 6383)), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_EQ(CountOf(gEnv->events.of(pid), QUOR_SERVICE_RSS_CHANGE), 1u);
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 5 * kSecond, QUOR_RSS_SWAP, 1)), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    reports = gEnv->events.of(pid);
    ASSERT_EQ(CountOf(reports, QUOR_SERVICE_RSS_CHANGE), 2u);
    change = reports.back().as<quor_rss_change_event>();
    EXPECT_EQ(change.old_rss_anon, 4096);
    EXPECT_EQ(change.rss_anon, 14096);
    EXPECT_EQ(change.swap, 1);

    // Invalid members and sizes change nothing.
    const QuorTask before = TaskOf(pid);
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 6 * kSecond, 4, 1 << 30)), 0);
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 6 * kSecond, -1, 1 << 30)), 0);
    ASSERT_EQ(inject.Inject(Rss(pid, t0 + 6 * kSecond, QUOR_RSS_ANON, -5)), 0);
    ASSERT_TRUE(gEnv->Checkpoint());
    const QuorTask after = TaskOf(pid);
    EXPECT_EQ(after.rssAnonSize, before.rssAnonSize);
    EXPECT_EQ(after.rssSwapSize, before.rssSwapSize);
    EXPECT_EQ(CountOf(gEnv->events.of(pid), QUOR_SERVICE_RSS_CHANGE), 2u);
}

TEST(PipelineTest, KernelThreadsShellsAndLowPidsNeverReportMemory) {
    struct Case {
        int32_t pid;
        int32_t ppid;
        const char* comm;
    };
    const Case cases[] = {{250, 77, "lowpid"},
                          {kFakePidBase + 10, 2, "kworker"},
                          {kFakePidBase + 11, 77, "sh"},
                          {kFakePidBase + 12, 77, "shell-helper"},
                          {kFakePidBase + 13, 77, "dumpsys"}};
    const uint64_t t0 = 3000 * kSecond;
    for (const Case& c : cases) {
        ASSERT_EQ(gEnv->injector.Inject(Fork(c.pid, c.ppid, t0, QUOR_TASK_KIND_PROCESS, c.comm)),
                  0);
        ASSERT_EQ(gEnv->injector.Inject(Rss(c.pid, t0 + 4 * kSecond, QUOR_RSS_ANON, 64 << 20)), 0);
    }
    ASSERT_TRUE(gEnv->Checkpoint());
    for (const Case& c : cases) {
        EXPECT_EQ(TaskOf(c.pid).rssAnonSize, 64 << 20) << c.comm;
        EXPECT_EQ(CountOf(gEnv->events.of(c.pid), QUOR_SERVICE_RSS_CHANGE), 0u) << c.comm;
        ASSERT_EQ(
            gEnv->injector.Inject(Exit(c.pid, t0 + 5 * kSecond, QUOR_TASK_KIND_PROCESS, c.comm)),
            0);
    }
    ASSERT_TRUE(gEnv->Checkpoint());
}

TEST(PipelineTest, ForwardingDependsOnlyOnTheType) {
    const int32_t pid = kFakePidBase + 20;
    // An exit of a process never registered is still reported.
    ASSERT_EQ(gEnv->injector.Inject(Exit(pid, 5, QUOR_TASK_KIND_PROCESS, "ghost")), 0);
    // Unknown kinds are forwarded raw and change nothing.
    ASSERT_EQ(gEnv->injector.Inject(Fork(pid + 1, 1, 5, 7, "odd")), 0);
    ASSERT_EQ(gEnv->injector.Inject(Exit(pid + 1, 5, 0, "odd")), 0);
    // Types 4 to 7 are forwarded untouched; 8 and above are dropped.
    quor_dmabuf_update_record dmabuf = {};
    dmabuf.header.type = QUOR_EVENT_DMABUF_UPDATE;
    dmabuf.pid = pid;
    dmabuf.inode = 1234;
    ASSERT_EQ(gEnv->injector.Inject(dmabuf), 0);
    quor_dmabuf_update_record invalid = dmabuf;
    invalid.header.type = 9;
    ASSERT_EQ(gEnv->injector.Inject(invalid), 0);
    ASSERT_TRUE(gEnv->Checkpoint());

    const auto events = gEnv->events.of(pid);
    ASSERT_EQ(CountOf(events, QUOR_SERVICE_TASK_EXIT), 1u);
    const auto exit = std::find_if(events.begin(), events.end(),
                                   [](const Event& e) { return e.type == QUOR_SERVICE_TASK_EXIT; });
    EXPECT_STREQ(exit->as<quor_task_exit_event>().comm, "ghost");
    ASSERT_EQ(CountOf(events, QUOR_EVENT_DMABUF_UPDATE), 1u);
    EXPECT_EQ(CountOf(events, 9), 0u);
    const auto odd = gEnv->events.of(pid + 1);
    EXPECT_EQ(CountOf(odd, QUOR_EVENT_TASK_CREATE), 1u);
    EXPECT_EQ(CountOf(odd, QUOR_SERVICE_TASK_NEW), 0u);
    EXPECT_FALSE(Registered(pid + 1));
}

TEST(PipelineTest, OverflowIsReportedOnceAndCleared) {
    QuorBpfService* service = QuorBpfService::GetInstance();
    const uint32_t key = QUOR_STATUS_KEY_FLAGS;
    const uint64_t word = gEnv->StatusWord() | QUOR_STATUS_OVERFLOW;
    ASSERT_EQ(bpf_map_update_elem(gEnv->statusFd(), &key, &word, BPF_ANY), 0);

    EXPECT_EQ(service->checkBpfRingBuffStatus(RINGBUF_MAIN, true), 0);
    EXPECT_EQ(gEnv->StatusWord(), QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON);
    // Nothing left to report; and inside 30 seconds the check is skipped.
    EXPECT_EQ(service->checkBpfRingBuffStatus(RINGBUF_MAIN, true), 1);
    EXPECT_EQ(service->checkBpfRingBuffStatus(RINGBUF_MAIN, false), 1);
    EXPECT_EQ(service->checkBpfRingBuffStatus(2, true), 0);
    EXPECT_FALSE(service->enableCoreBpf(2, true));
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    gEnv = new PipelineEnvironment();
    ::testing::AddGlobalTestEnvironment(gEnv);
    return RUN_ALL_TESTS();
}
