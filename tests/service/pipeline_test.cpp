// The event pipeline end to end: real programmes, the service and a library
// client. Synthetic records (pids above pid_max) enter the real ring buffer
// through the injector; a marker record injected after a batch is the
// checkpoint that the monitor has handled the batch.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "diag/quor_bpf_task_manager.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "service/quor_bpf_service.h"
#include "service/quor_bpf_service_settings.h"
#include "tests/support/live_service.h"
#include "tests/support/record_builders.h"
#include "tests/support/record_injector.h"

using namespace Quor::Bpf;
using quortest::Exit;
using quortest::Fork;
using quortest::Rss;

namespace {

constexpr int32_t kFakePidBase = 4000000;  // above any pid_max
constexpr uint64_t kSecond = 1000000000ULL;
constexpr int32_t kMarkerPid = kFakePidBase;
constexpr uint32_t kAnyType = UINT32_MAX;
const std::string kGplPinAway = std::string(RINGBUF_MAP_PATHS[RINGBUF_GPL]) + "_away";

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
    size_t offset = type == QUOR_EVENT_TASK_CREATE ? offsetof(quor_fork_record, pid) : 16;
    if (type >= QUOR_SERVICE_TASK_NEW) offset = 4;
    int32_t pid = -1;
    if (len >= offset + 4) memcpy(&pid, data + offset, 4);
    return pid;
}

// What the client receives, indexed by pid as it arrives.
class Collector {
public:
    void add(uint32_t type, const uint8_t* data, size_t len) {
        std::lock_guard<std::mutex> lock(mutex_);
        byPid_[PidOf(type, data, len)].push_back(
            {type, std::string(reinterpret_cast<const char*>(data), len)});
    }
    std::vector<Event> of(int32_t pid, uint32_t type = kAnyType) {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<Event> out;
        for (const Event& e : byPid_[pid])
            if (type == kAnyType || e.type == type) out.push_back(e);
        return out;
    }
    bool waitFor(int32_t pid, uint32_t type, size_t count) {
        return quortest::WaitFor([&] { return of(pid, type).size() == count; },
                                 std::chrono::seconds(10));
    }

private:
    std::mutex mutex_;
    std::map<int32_t, std::vector<Event>> byPid_;
};

class PipelineEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        // The GPL ring buffer's pin is taken away: its monitor ends at once,
        // each time its producer is restarted (the main one serves the tests).
        const std::string why = quortest::StartLiveService(
            [] { (void)rename(RINGBUF_MAP_PATHS[RINGBUF_GPL], kGplPinAway.c_str()); });
        if (geteuid() != 0) GTEST_SKIP() << why;
        ASSERT_EQ(why, "");
        std::string error;
        ASSERT_TRUE(injector.Open(RINGBUF_MAP_PATHS[RINGBUF_MAIN], &error)) << error;
        client =
            std::make_unique<QuorBpfClient>([this](uint32_t type, const uint8_t* data, size_t len) {
                events.add(type, data, len);
            });
        ASSERT_TRUE(client->connect(5000));
        for (const int32_t type : std::initializer_list<int32_t>{
                 QUOR_EVENT_TASK_CREATE, QUOR_EVENT_TASK_EXIT, QUOR_EVENT_CGROUP_ATTACH,
                 QUOR_SERVICE_TASK_NEW, QUOR_SERVICE_TASK_EXIT, QUOR_SERVICE_THREAD_CHANGE,
                 QUOR_SERVICE_RSS_CHANGE}) {
            ASSERT_TRUE(quortest::Subscribed(*client, type)) << type;
        }
    }
    void TearDown() override {
        if (client) client->disconnect();
        (void)StopBpfService();
    }

    // Injects a marker and waits until the client has it: everything
    // injected before it has been through the handlers by then.
    bool Checkpoint() {
        quor_cgroup_attach_record marker = {};
        marker.header.type = QUOR_EVENT_CGROUP_ATTACH;
        marker.pid = kMarkerPid;
        if (injector.Inject(marker) != 0) return false;
        return events.waitFor(kMarkerPid, QUOR_EVENT_CGROUP_ATTACH, ++markersSent_);
    }

    Collector events;
    quor_test::RecordInjector injector;
    std::unique_ptr<QuorBpfClient> client;

private:
    size_t markersSent_ = 0;
};
PipelineEnvironment* gEnv = nullptr;

template <typename T>
void Inject(const T& record, uint32_t count = 1) {
    ASSERT_EQ(gEnv->injector.Inject(record, count), 0);
}

// The last of `count` reports of `type` for `pid` after a checkpoint (zeros
// when there is none).
template <typename T>
T LastOf(int32_t pid, uint32_t type, size_t count) {
    EXPECT_TRUE(gEnv->Checkpoint());
    const std::vector<Event> reports = gEnv->events.of(pid, type);
    EXPECT_EQ(reports.size(), count) << "reports of type " << type;
    return reports.empty() ? T{} : reports.back().as<T>();
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

TEST(PipelineTest, ChildLifetimeReachesTheClientInOrder) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Memory changes in a process's first 3 seconds are not reported.
        std::this_thread::sleep_for(std::chrono::milliseconds(3300));
        const size_t size = 64 << 20;
        void* block =
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (block != MAP_FAILED) memset(block, 1, size);
        std::this_thread::sleep_for(std::chrono::milliseconds(1700));
        _exit(0);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    ASSERT_TRUE(gEnv->events.waitFor(child, QUOR_SERVICE_TASK_EXIT, 1));

    std::vector<uint32_t> order;
    char selfComm[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, selfComm), 0);
    for (const Event& e : gEnv->events.of(child)) {
        if (e.type == QUOR_SERVICE_TASK_NEW) {
            EXPECT_STREQ(e.as<quor_task_new_event>().comm, selfComm);
        }
        if (e.type == QUOR_EVENT_TASK_EXIT &&
            e.as<quor_exit_record>().kind != QUOR_TASK_KIND_PROCESS)
            continue;  // a thread of the child, if any
        if (order.empty() || order.back() != e.type) order.push_back(e.type);
    }
    EXPECT_EQ(order, (std::vector<uint32_t>{QUOR_EVENT_TASK_CREATE, QUOR_SERVICE_TASK_NEW,
                                            QUOR_SERVICE_RSS_CHANGE, QUOR_EVENT_TASK_EXIT,
                                            QUOR_SERVICE_TASK_EXIT}));
    EXPECT_FALSE(Registered(child));
}

// A process still carrying its parent's generic name ("main") is named from
// procfs when its memory changes, at most every 2 seconds.
TEST(PipelineTest, AGenericNameIsReadFromProcfsWhenMemoryChanges) {
    char selfComm[16] = {};
    int ready[2];
    ASSERT_EQ(prctl(PR_GET_NAME, selfComm), 0);
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(prctl(PR_SET_NAME, "main"), 0);
    const pid_t child = fork();
    if (child == 0) {
        (void)prctl(PR_SET_NAME, "named");
        (void)!write(ready[1], "x", 1);
        pause();
        _exit(0);
    }
    (void)prctl(PR_SET_NAME, selfComm);
    ASSERT_GT(child, 0);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    ASSERT_TRUE(gEnv->events.waitFor(child, QUOR_SERVICE_TASK_NEW, 1));
    EXPECT_STREQ(gEnv->events.of(child, QUOR_EVENT_TASK_CREATE).front().as<quor_fork_record>().comm,
                 "main");
    // The child's own first records may have found it not yet renamed.
    const bool named = quortest::WaitFor(
        [&] {
            Inject(Rss(child, 3 * kSecond, QUOR_RSS_ANON, 4096));
            const QuorTask task = gEnv->Checkpoint() ? TaskOf(child) : QuorTask{};
            return strncmp(task.comm, "named", sizeof(task.comm)) == 0 && task.ppid == getpid();
        },
        std::chrono::seconds(5), 200);
    (void)kill(child, SIGKILL);
    (void)waitpid(child, nullptr, 0);
    EXPECT_TRUE(named);
}

TEST(PipelineTest, ThreadChangesAreReportedAfterThreeSecondsAndElevenThreads) {
    const int32_t pid = kFakePidBase + 1;
    const uint64_t t0 = 1000 * kSecond;
    Inject(Fork(pid, 77, t0, QUOR_TASK_KIND_PROCESS, "worker"));
    // A storm inside the first 3 seconds moves the count but stays quiet.
    for (int i = 1; i <= 15; ++i)
        Inject(Fork(pid, 0, t0 + i * 1000000ULL, QUOR_TASK_KIND_THREAD, "w"));
    Inject(Fork(pid, 0, t0 - 1, QUOR_TASK_KIND_THREAD, "w"));  // older than the process: ignored
    using Change = quor_thread_change_event;
    (void)LastOf<Change>(pid, QUOR_SERVICE_THREAD_CHANGE, 0);
    EXPECT_EQ(TaskOf(pid).threadNum, 16);

    // The first thread event after 3 seconds reports the whole difference.
    Inject(Fork(pid, 0, t0 + 3 * kSecond, QUOR_TASK_KIND_THREAD, "w"));
    Change change = LastOf<Change>(pid, QUOR_SERVICE_THREAD_CHANGE, 1);
    EXPECT_EQ(std::tie(change.old_thread_count, change.thread_count, change.ppid),
              std::make_tuple(1, 17, 77));

    // Ten exits are not worth a report; the eleventh is.
    Inject(Exit(pid, t0 + 4 * kSecond, QUOR_TASK_KIND_THREAD, "w"), 10);
    (void)LastOf<Change>(pid, QUOR_SERVICE_THREAD_CHANGE, 1);
    Inject(Exit(pid, t0 + 4 * kSecond, QUOR_TASK_KIND_THREAD, "w"));
    change = LastOf<Change>(pid, QUOR_SERVICE_THREAD_CHANGE, 2);
    EXPECT_EQ(std::tie(change.old_thread_count, change.thread_count), std::make_tuple(17, 6));

    Inject(Exit(pid, t0 + 5 * kSecond, QUOR_TASK_KIND_PROCESS, "worker"));
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_FALSE(Registered(pid));
}

TEST(PipelineTest, MemoryChangesOfUserProcessesAccumulateUntilTheyPassTheThreshold) {
    const int32_t pid = kFakePidBase + 2;
    const uint64_t t0 = 2000 * kSecond;
    Inject(Fork(pid, 77, t0, QUOR_TASK_KIND_PROCESS, "app"));
    // Early changes are stored but never reported, even large ones.
    Inject(Rss(pid, t0 + kSecond, QUOR_RSS_FILE, 1 << 20));
    using Change = quor_rss_change_event;
    (void)LastOf<Change>(pid, QUOR_SERVICE_RSS_CHANGE, 0);
    const QuorTask early = TaskOf(pid);
    EXPECT_EQ(std::make_tuple(early.rssFileSize, early.mmId), std::make_tuple(1 << 20, 1000u));

    // The pending 1 MiB is reported after 3 s; the baseline moves.
    Inject(Rss(pid, t0 + 4 * kSecond, QUOR_RSS_ANON, 4096));
    Change change = LastOf<Change>(pid, QUOR_SERVICE_RSS_CHANGE, 1);
    EXPECT_EQ(std::tie(change.rss_file, change.rss_anon, change.old_rss_file),
              std::make_tuple(1 << 20, 4096, 0));
    EXPECT_STREQ(change.comm, "app");

    // Changes summing to 16383 stay quiet; one byte more is reported.
    Inject(Rss(pid, t0 + 5 * kSecond, QUOR_RSS_ANON, 4096 + 10000));
    Inject(Rss(pid, t0 + 5 * kSecond, QUOR_RSS_SHMEM, 6383));
    (void)LastOf<Change>(pid, QUOR_SERVICE_RSS_CHANGE, 1);
    Inject(Rss(pid, t0 + 5 * kSecond, QUOR_RSS_SWAP, 1));
    change = LastOf<Change>(pid, QUOR_SERVICE_RSS_CHANGE, 2);
    EXPECT_EQ(std::tie(change.old_rss_anon, change.rss_anon, change.swap),
              std::make_tuple(4096, 14096, 1));

    // Invalid members and sizes change nothing.
    Inject(Rss(pid, t0 + 6 * kSecond, 4, 1 << 30));
    Inject(Rss(pid, t0 + 6 * kSecond, QUOR_RSS_ANON, -5));
    (void)LastOf<Change>(pid, QUOR_SERVICE_RSS_CHANGE, 2);
    EXPECT_EQ(TaskOf(pid).rssAnonSize, 14096);

    // Kernel threads (parent 2), shells and low pids never report memory.
    const std::tuple<int32_t, int32_t, const char*> quiet[] = {
        {250, 77, "lowpid"}, {kFakePidBase + 10, 2, "kworker"}, {kFakePidBase + 11, 77, "sh"}};
    for (const auto& [other, ppid, comm] : quiet) {
        Inject(Fork(other, ppid, t0, QUOR_TASK_KIND_PROCESS, comm));
        Inject(Rss(other, t0 + 4 * kSecond, QUOR_RSS_ANON, 64 << 20));
        (void)LastOf<Change>(other, QUOR_SERVICE_RSS_CHANGE, 0);
        EXPECT_EQ(TaskOf(other).rssAnonSize, 64 << 20) << comm;
    }
}

TEST(PipelineTest, AProcessEndsOnceWhenTheLossSweepCameBeforeItsExitRecord) {
    const int32_t pid = kFakePidBase + 40;  // no such process: the sweep ends it
    Inject(Fork(pid, 77, 10 * kSecond, QUOR_TASK_KIND_PROCESS, "swept"));
    ASSERT_TRUE(gEnv->Checkpoint());
    ASSERT_TRUE(Registered(pid));
    EXPECT_GE(QuorBpfService::GetInstance()->reapLostExits(), 1u);
    EXPECT_FALSE(Registered(pid));
    // Its exit record was only unread, not lost.
    Inject(Exit(pid, 11 * kSecond, QUOR_TASK_KIND_PROCESS, "swept"));
    (void)LastOf<quor_task_exit_event>(pid, QUOR_SERVICE_TASK_EXIT, 1);
    // The pid used again is a new process, which ends for itself.
    Inject(Fork(pid, 77, 12 * kSecond, QUOR_TASK_KIND_PROCESS, "again"));
    Inject(Exit(pid, 13 * kSecond, QUOR_TASK_KIND_PROCESS, "again"));
    (void)LastOf<quor_task_exit_event>(pid, QUOR_SERVICE_TASK_EXIT, 2);
}

TEST(PipelineTest, ARestartedProducerRunsItsMonitorOnly) {
    QuorBpfService* service = QuorBpfService::GetInstance();
    const auto gplMonitors = [](int n) {
        return quortest::WaitFor([n] { return quortest::ThreadsNamed("BpfServicePGpl") == n; },
                                 std::chrono::seconds(10));
    };
    ASSERT_TRUE(gplMonitors(0));
    const size_t fdsBefore = quortest::OpenDescriptors();
    for (int restart = 0; restart < 5; ++restart) {
        service->superviseProducers();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        ASSERT_TRUE(gplMonitors(0)) << "restart " << restart;
    }
    // Nothing attached again: no descriptor of a programme or hook more.
    EXPECT_EQ(quortest::OpenDescriptors(), fdsBefore);
    // The pin back, one more restart: the GPL monitor serves again.
    ASSERT_EQ(rename(kGplPinAway.c_str(), RINGBUF_MAP_PATHS[RINGBUF_GPL]), 0);
    service->superviseProducers();
    EXPECT_TRUE(gplMonitors(1));
    EXPECT_TRUE(quortest::WaitFor(
        [] {
            return quortest::StatusWord(RINGBUF_GPL) ==
                   (QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON);
        },
        std::chrono::seconds(30)));
}

TEST(PipelineTest, RecordsOfUnknownTypesAreSkippedAndPollingGoesOn) {
    QuorBpfService* service = QuorBpfService::GetInstance();
    const uint64_t before = service->unknownRecordCount();
    quor_dmabuf_update_record odd = {};
    odd.pid = kFakePidBase + 30;
    // More in a row than the monitor tolerates failed polls.
    for (const uint32_t type : {8u, 9u, 50001u, 0xffffffffu}) {
        odd.header.type = type;
        Inject(odd, 3);
    }
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(gEnv->Checkpoint());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(service->unknownRecordCount() - before, 12u);
    EXPECT_TRUE(gEnv->events.of(odd.pid).empty());
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    gEnv = new PipelineEnvironment();
    ::testing::AddGlobalTestEnvironment(gEnv);
    return RUN_ALL_TESTS();
}
