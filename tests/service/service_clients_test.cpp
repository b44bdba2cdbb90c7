// The service's lifecycle and its clients: who may connect and how many at
// once, subscriptions, fan-out, hostile and stalled peers. The service becomes
// ready only at the end, so records enter through EventManager::AppendEvent as
// the monitors would hand them over. Its log (stderr) goes to a file, so that
// the refusals can be checked.
#include <android-base/properties.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_time.h"
#include "quor/bpf_service_main.h"
#include "quor/quor_bpf_records.h"
#include "quor/quorbpf_client.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service.h"
#include "tests/support/live_service.h"
#include "tests/support/raw_ipc_client.h"

using namespace Quor::Bpf;
using namespace quortest;
using android::base::SetProperty;

namespace {

constexpr const char* kSocket = "/mnt/bpfframework/quorbpfdispatcher";
constexpr const char* kLogFile = "/data/service_clients_test_stderr.log";
constexpr int32_t kAccessType = QUOR_EVENT_FD_UPDATE;

// A record of `type` and `size` bytes whose bytes after the type carry `seq`.
std::string Record(uint32_t type, uint32_t seq, size_t size = 48) {
    std::string bytes(size, '\0');
    memcpy(&bytes[0], &type, 4);
    for (size_t i = 4; i + 4 <= size; i += 4) memcpy(&bytes[i], &seq, 4);
    return bytes;
}

void Append(const std::string& record) {
    std::string copy = record;
    EventManager::GetInstance()->AppendEvent(&copy[0], copy.size());
}

// A library client that keeps what it receives.
struct LibClient {
    std::mutex mutex;
    std::vector<std::string> records;
    QuorBpfClient client{[this](uint32_t, const uint8_t* data, size_t len) {
        std::lock_guard<std::mutex> lock(mutex);
        records.emplace_back(reinterpret_cast<const char*>(data), len);
    }};

    std::vector<std::string> snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return records;
    }
    size_t size() { return snapshot().size(); }
    int32_t ask(uint32_t command, int32_t type) {
        return Answer([&](auto done) { return client.sendRequest(command, type, done); });
    }
};

size_t Observers(int32_t type) {
    return EventManager::GetInstance()->GetEventObservers(type).size();
}

bool LogHas(const std::string& text) {
    return WaitFor([&] { return ReadFile(kLogFile).find(text) != std::string::npos; });
}

// Connects as another user in a forked child (system calls only: safe after
// a fork in a threaded process) and sends a subscription request: accepted if
// an answer comes back, refused if the service closes the connection. With
// supplementary groups the child first checks that the kernel reports them
// (SO_PEERGROUPS; qemu's user-mode emulator does not pass the option on).
enum class ProbeResult { kAccepted, kRefused, kError, kGroupsUnseen };  // 0 to 3 in test output

ProbeResult ProbeAs(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
    const std::string request = Request(7, 51, 2);
    sockaddr_un addr;
    const socklen_t addrLen = AbstractAddress(kSocket, &addr);
    const pid_t child = fork();
    if (child < 0) return ProbeResult::kError;
    if (child == 0) {
        if (setgroups(groups.size(), groups.data()) != 0 || setgid(gid) != 0 || setuid(uid) != 0)
            _exit(2);
        int sv[2];
        gid_t seen[8] = {};
        socklen_t len = sizeof(seen);
        if (!groups.empty() && (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0 ||
                                getsockopt(sv[0], SOL_SOCKET, SO_PEERGROUPS, seen, &len) != 0 ||
                                len != groups.size() * sizeof(gid_t)))
            _exit(3);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), addrLen) != 0) _exit(2);
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(request.size())) {
            _exit(1);  // already closed
        }
        pollfd p = {fd, POLLIN, 0};
        char reply[64];
        _exit(poll(&p, 1, 5000) != 1 ? 2 : recv(fd, reply, sizeof(reply), 0) > 0 ? 0 : 1);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return ProbeResult::kError;
    return static_cast<ProbeResult>(std::min(WEXITSTATUS(status), 3));
}

// The service singleton lives once per process: the suite starts it (after a
// start the disable property refuses) and stops it at the end, after it
// became ready.
class ServiceClientsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(WaitBpfService(), -1);  // nothing started yet
        ASSERT_EQ(StopBpfService(), -1);
        SetProperty("persist.sys.stability.bpfframework.disable", "1");
        ASSERT_EQ(BpfServiceMain(), 0);
        EXPECT_EQ(ThreadsNamed("BpfServicePoll"), 0);
        SetProperty("persist.sys.stability.bpfframework.disable", "11");  // only "1" disables
        ASSERT_EQ(system("mkdir -p /data/quorlog/stability/quorbpfframework && "
                         "echo previous > /data/quorlog/stability/quorbpfframework/error.log"),
                  0);
        const int log = open(kLogFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_EQ(dup2(log, STDERR_FILENO), STDERR_FILENO);
        close(log);
        SetProperty("sys.quor_bpf_ready", "0");
        // The allow-lists are read at start; malformed entries are ignored.
        SetProperty(QUOR_BPF_ALLOW_UIDS_PROPERTY, "1000, 65534,nobody,-1,65534x,4294967295");
        SetProperty(QUOR_BPF_ALLOW_GIDS_PROPERTY, "4242,4343");
        ASSERT_EQ(BpfServiceMain(), 1);
        EXPECT_EQ(ReadFile("/data/quorlog/stability/quorbpfframework/error.old.log"), "previous\n");
        ASSERT_TRUE(WaitFor([] { return RawIpcClient(kSocket).connected(); }));
    }
    static void TearDownTestSuite() {
        // Never ready so far: the producer kept waiting and prepared nothing.
        EXPECT_EQ(GetBasetime(), 0);
        EXPECT_EQ(ThreadsNamed("BpfServicePGpl"), 0);
        SetProperty("sys.quor_bpf_ready", "1");
        EXPECT_TRUE(WaitFor([] { return GetBasetime() != 0; }));
        EXPECT_EQ(StopBpfService(), 0);
        auto joined = std::async(std::launch::async, [] { return WaitBpfService(); });
        ASSERT_EQ(joined.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(joined.get(), 0);
    }
};

TEST_F(ServiceClientsTest, SixtyFifthClientIsRefusedAndTheOthersCarryOn) {
    const size_t kLimit = QuorBpfService::MAX_CLIENT_CONNECTIONS;
    std::vector<std::unique_ptr<RawIpcClient>> clients;
    for (size_t i = 0; i < kLimit; ++i) {
        clients.push_back(std::make_unique<RawIpcClient>(kSocket));
        ASSERT_EQ(clients.back()->ask(i, 51, kAccessType), 0) << "client " << i;
    }
    ASSERT_EQ(Observers(kAccessType), kLimit);

    // One more: the kernel completes the connection, the service closes it
    // without reading or answering, and says so.
    RawIpcClient extra(kSocket);
    ASSERT_TRUE(extra.connected());
    (void)extra.send(Request(999, 51, kAccessType));
    EXPECT_TRUE(extra.waitClosed());
    EXPECT_TRUE(LogHas("Refused client: 64 clients connected"));
    EXPECT_EQ(Observers(kAccessType), kLimit);

    // A place that frees up can be taken again.
    clients.pop_back();
    ASSERT_TRUE(WaitFor([&] { return Observers(kAccessType) == kLimit - 1; }));
    RawIpcClient late(kSocket);
    EXPECT_EQ(late.ask(1000, 51, kAccessType), 0);
}

TEST_F(ServiceClientsTest, PeersAreJudgedByTheirCredentialsAtAccept) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as other users";
    ASSERT_TRUE(WaitFor([] { return Observers(kAccessType) == 0; }));  // the last test's gone
    struct Case {
        const char* what;
        uid_t uid;
        gid_t gid;
        std::vector<gid_t> groups;
        ProbeResult expected;
    };
    const Case cases[] = {
        {"root always", 0, 0, {}, ProbeResult::kAccepted},
        {"an allowed uid", 65534, 65534, {}, ProbeResult::kAccepted},
        {"a stranger", 65533, 65533, {}, ProbeResult::kRefused},
        {"an allowed primary group", 65532, 4242, {}, ProbeResult::kAccepted},
        {"an allowed supplementary group", 65531, 65531, {17, 4343}, ProbeResult::kAccepted},
        {"groups not allowed", 65530, 65530, {17, 4344}, ProbeResult::kRefused},
        {"a uid is not a gid", 65529, 1000, {}, ProbeResult::kRefused},
    };
    std::string notJudged;
    for (const Case& c : cases) {
        const ProbeResult result = ProbeAs(c.uid, c.gid, c.groups);
        if (result == ProbeResult::kGroupsUnseen)
            notJudged += std::string(notJudged.empty() ? "" : ", ") + c.what;
        else
            EXPECT_EQ(result, c.expected) << c.what << ": " << static_cast<int>(result);
    }
    EXPECT_TRUE(LogHas("uid 65533 gid 65533 is not allowed"));
    EXPECT_TRUE(LogHas("ignored malformed id '65534x'"));
    // The refused never got as far as a subscription.
    EXPECT_TRUE(WaitFor([] { return Observers(kAccessType) == 0; }));
    if (!notJudged.empty())
        GTEST_SKIP() << "SO_PEERGROUPS reports no supplementary groups here (an emulator?); "
                        "not judged: "
                     << notJudged;
}

TEST_F(ServiceClientsTest, OnlyProducedTypesAreSubscribedAndEmptyListsGo) {
    RawIpcClient raw(kSocket);
    ASSERT_TRUE(raw.connected());
    EventManager* events = EventManager::GetInstance();
    ASSERT_TRUE(WaitFor([&] { return events->CountIndexEntries() == 0; }));
    // Response 1, body 24: request id 5, status 0, and zeros, not stale bytes.
    ASSERT_TRUE(raw.send(Request(5, 51, QUOR_SERVICE_THREAD_CHANGE)));
    std::string response;
    ASSERT_TRUE(raw.readExact(40, &response));
    EXPECT_EQ(response,
              RawFrame(32, std::string("\1\0\0\0\x18\0\0\0\5", 9) + std::string(23, '\0')));
    // Twelve body bytes cannot hold the event type: refused, nothing changes.
    ASSERT_TRUE(raw.send(Frame(0, Request(7, 52, 0).substr(16, 12))));
    ASSERT_TRUE(raw.readExact(40, &response));
    EXPECT_EQ(response.substr(16, 8), std::string("\7\0\0\0\xff\xff\xff\xff", 8));
    EXPECT_EQ(Observers(QUOR_SERVICE_THREAD_CHANGE), 1u);
    ASSERT_EQ(raw.ask(6, 52, QUOR_SERVICE_THREAD_CHANGE), 0);
    EXPECT_EQ(raw.ask(8, 77, QUOR_SERVICE_THREAD_CHANGE), -1);  // no such command

    // Types next to the produced ones are refused, and unsubscribing them
    // leaves no empty list behind.
    for (const int32_t type : {INT32_MIN, -1, 9, 50000, 50005, INT32_MAX}) {
        EXPECT_EQ(raw.ask(1, 51, type), -1) << type;
        EXPECT_EQ(raw.ask(2, 52, type), 0) << type;
    }
    EXPECT_EQ(events->CountIndexEntries(), 0u);
    for (const int32_t type : kAllTypes) ASSERT_EQ(raw.ask(1, 51, type), 0) << type;
    EXPECT_EQ(events->CountIndexEntries(), 13u);
    for (const int32_t type : kAllTypes) ASSERT_EQ(raw.ask(2, 52, type), 0) << type;
    EXPECT_EQ(events->CountIndexEntries(), 0u);
    ASSERT_EQ(raw.ask(3, 51, QUOR_SERVICE_RSS_CHANGE), 0);
    raw.close();
    EXPECT_TRUE(WaitFor([&] { return events->CountIndexEntries() == 0; }));
}

TEST_F(ServiceClientsTest, HostileFramesNeverDisturbAnotherClientsStream) {
    constexpr int32_t kType = QUOR_EVENT_CGROUP_ATTACH;
    LibClient got;
    ASSERT_TRUE(got.client.connect(5000));
    ASSERT_EQ(got.ask(QUOR_BPF_COMMAND_SUBSCRIBE, kType), 0);
    ASSERT_EQ(got.ask(QUOR_BPF_COMMAND_SUBSCRIBE, kType), 0);  // twice: still one copy each

    const std::string innerTooLong("\0\0\0\0\xe8\x03\0\0xxxxxxxx", 16);  // body length 1000
    const std::vector<std::string> attacks = {
        RawFrame(-16, std::string(64, 'n')),        // negative length
        RawFrame(INT64_MAX, std::string(64, 'h')),  // can never fit
        RawFrame(int64_t{1} << 40, "huge"),
        RawFrame(4, "tiny"),  // shorter than a package header
        RawFrame(16, innerTooLong),
        RawFrame(100, std::string(50, 't')),  // truncated, then gone
        Request(1, 51, kType) + RawFrame(8, std::string(8, '\xff')) + RawFrame(-1, ""),
        std::string(3000, '\xa5'),
    };
    std::atomic<bool> producing{true};
    std::atomic<int> rounds{0};
    std::thread hostile([&] {
        while (producing.load()) {
            for (const std::string& attack : attacks) {
                RawIpcClient raw(kSocket);
                raw.send(attack);
                // Answered or closed: the service has dealt with the attack.
                raw.send(Request(9, 52, QUOR_EVENT_TASK_INIT));
                std::string body;
                (void)raw.readPackage(1, &body, 200);
            }
            rounds.fetch_add(1);
        }
    });

    uint32_t kRecords = 0;
    while (rounds.load() < 2 || kRecords < 3000) {
        Append(Record(kType, kRecords++, sizeof(quor_cgroup_attach_record)));
        if (kRecords % 20 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const bool all = WaitFor([&] { return got.size() >= kRecords; }, std::chrono::seconds(20));
    producing.store(false);
    hostile.join();
    ASSERT_TRUE(all) << got.size() << " of " << kRecords;
    const std::vector<std::string> records = got.snapshot();
    ASSERT_EQ(records.size(), kRecords);
    for (uint32_t seq = 0; seq < kRecords; ++seq)
        ASSERT_EQ(records[seq], Record(kType, seq, sizeof(quor_cgroup_attach_record))) << seq;
    EXPECT_TRUE(ErrorLogCount(2) > 0);  // the damaged frames were recorded
    // Every hostile subscriber is gone again; the victim is the one left.
    EXPECT_TRUE(WaitFor([&] { return Observers(kType) == 1; }));
    // The victim is still answered, and what it unsubscribes no longer comes.
    ASSERT_EQ(got.ask(QUOR_BPF_COMMAND_UNSUBSCRIBE, kType), 0);
    ASSERT_EQ(got.ask(QUOR_BPF_COMMAND_SUBSCRIBE, QUOR_SERVICE_RSS_CHANGE), 0);
    const std::string last = Record(QUOR_SERVICE_RSS_CHANGE, 1, sizeof(quor_rss_change_event));
    Append(Record(kType, 0, sizeof(quor_cgroup_attach_record)));
    Append(last);  // marks the end of what may arrive
    ASSERT_TRUE(WaitFor([&] { return got.size() == kRecords + 1; }));
    EXPECT_EQ(got.snapshot().back(), last);
}

TEST_F(ServiceClientsTest, ReusedDescriptorStartsCleanAfterEitherClose) {
    constexpr int32_t kOldType = QUOR_EVENT_FD_UPDATE;
    constexpr int32_t kNewType = QUOR_EVENT_DMABUF_UPDATE;
    for (const bool badPackage : {false, true}) {
        SCOPED_TRACE(badPackage ? "closed for a bad package" : "closed by the peer");
        EventManager* events = EventManager::GetInstance();
        const auto before = events->GetEventObservers(kOldType);
        int oldFd = -1;
        {
            RawIpcClient first(kSocket);
            ASSERT_EQ(first.ask(1, 51, kOldType), 0);
            ASSERT_EQ(Observers(kOldType), before.size() + 1);
            oldFd = events->GetEventObservers(kOldType).back();
            if (badPackage) {
                ASSERT_TRUE(first.send(RawFrame(4, "bad!")));
                ASSERT_TRUE(first.waitClosed());
            }
        }
        ASSERT_TRUE(WaitFor([&] { return events->GetEventObservers(kOldType) == before; }));

        RawIpcClient second(kSocket);
        ASSERT_EQ(second.ask(2, 51, kNewType), 0);
        ASSERT_EQ(events->GetEventObservers(kNewType).back(), oldFd) << "descriptor not reused";

        Append(Record(kOldType, 1));
        Append(Record(kNewType, 2));
        std::string body;
        ASSERT_TRUE(second.readPackage(3, &body));
        EXPECT_EQ(body, Record(kNewType, 2));
        ASSERT_EQ(second.ask(3, 52, kNewType), 0);
    }
}

// A reader's batch holds several types: each client gets exactly the records
// of its own types, in order, and a type nobody wants is dropped.
TEST_F(ServiceClientsTest, ABatchOfMixedTypesReachesEachClientInOrder) {
    constexpr int32_t kA = QUOR_EVENT_FD_UPDATE;
    constexpr int32_t kB = QUOR_EVENT_DMABUF_UPDATE;
    constexpr int32_t kC = QUOR_SERVICE_RSS_CHANGE;
    LibClient ab, ac;
    ASSERT_TRUE(ab.client.connect(5000) && ac.client.connect(5000));
    for (const int32_t type : {kA, kB}) ASSERT_EQ(ab.ask(QUOR_BPF_COMMAND_SUBSCRIBE, type), 0);
    for (const int32_t type : {kA, kC}) ASSERT_EQ(ac.ask(QUOR_BPF_COMMAND_SUBSCRIBE, type), 0);
    const std::vector<int32_t> types = {kA, kB, kB, QUOR_EVENT_TASK_INIT, kA, kC, kA};
    std::thread reader([&] {
        EventManager::GetInstance()->BatchThisThread();
        for (int round = 0; round < 300; ++round) {  // several runs, some split where they fill
            for (size_t i = 0; i < types.size(); ++i) Append(Record(types[i], round * 10 + i));
            if (round % 100 == 99) EventManager::GetInstance()->PublishPending();
        }
    });
    reader.join();
    std::vector<std::string> wantAb, wantAc;
    for (int round = 0; round < 300; ++round) {
        for (size_t i = 0; i < types.size(); ++i) {
            const std::string record = Record(types[i], round * 10 + i);
            if (types[i] == kA || types[i] == kB) wantAb.push_back(record);
            if (types[i] == kA || types[i] == kC) wantAc.push_back(record);
        }
    }
    ASSERT_TRUE(WaitFor([&] { return ab.size() >= wantAb.size() && ac.size() >= wantAc.size(); }));
    EXPECT_TRUE(ab.snapshot() == wantAb);
    EXPECT_TRUE(ac.snapshot() == wantAc);
}

// A client that floods requests and never reads its answers: its full
// socket costs the socket thread little, and another client is answered.
TEST_F(ServiceClientsTest, ARequestFloodWithoutReadingCostsLittleAndStallsNoOne) {
    LibClient got;
    ASSERT_TRUE(got.client.connect(5000));
    RawIpcClient flooder(kSocket);
    timeval patience = {0, 100000};
    ASSERT_EQ(setsockopt(flooder.fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience)), 0);
    std::string burst;
    for (uint32_t i = 0; i < 1024; ++i) burst += Request(i, 52, QUOR_EVENT_TASK_INIT);
    std::atomic<bool> flooding{true};
    std::thread flood([&] {
        for (size_t at = 0; flooding.load();) {
            const ssize_t n =
                send(flooder.fd(), burst.data() + at, burst.size() - at, MSG_NOSIGNAL);
            if (n > 0) at = (at + n) % burst.size();
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const long cpuBefore = ThreadCpuMs("BpfServiceTr");
    int answered = 0;
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
         std::chrono::steady_clock::now() < end; ++answered) {
        ASSERT_EQ(got.ask(QUOR_BPF_COMMAND_SUBSCRIBE, QUOR_EVENT_TASK_EXIT), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const long cpuMs = ThreadCpuMs("BpfServiceTr") - cpuBefore;
    flooding.store(false);
    flood.join();
    EXPECT_LT(cpuMs, 200);
    EXPECT_GE(answered, 50);
}

// That the others are not held up meanwhile is the sequence stress test's.
TEST_F(ServiceClientsTest, StalledReaderLosesItsBacklogInWholeFrames) {
    constexpr int32_t kStalledType = QUOR_EVENT_DMABUF_SIZE;
    RawIpcClient stalled(kSocket);
    ASSERT_EQ(stalled.ask(1, 51, kStalledType), 0);  // and never reads again

    // Far more than its socket holds; after one read the socket thread meets
    // a full socket and drops the unsent bytes. 116-byte frames let the last
    // send stop half-way through a frame.
    for (uint32_t seq = 0; seq < 6000; ++seq) Append(Record(kStalledType, seq, 100));
    ASSERT_TRUE(WaitFor([&] { return stalled.drainAvailable(256 * 1024) > 0; }));
    EXPECT_TRUE(WaitFor([] { return ErrorLogCount(1) > 0; }));
    // Its queue keeps growing until the oldest half is dropped.
    for (uint32_t seq = 0; seq < 10100; ++seq) Append(Record(kStalledType, seq));
    EXPECT_TRUE(WaitFor([] { return ErrorLogCount(4) > 0; }));

    // Reading again, it gets whole frames only, up to one sent afterwards.
    Append(Record(kStalledType, 777777));
    for (;;) {
        std::string body;
        ASSERT_TRUE(stalled.readPackage(3, &body)) << "the stream lost its framing";
        ASSERT_TRUE(body.size() == 48 || body.size() == 100) << body.size();
        uint32_t seq = 0;
        memcpy(&seq, &body[4], 4);
        ASSERT_EQ(body, Record(kStalledType, seq, body.size()));
        if (seq == 777777) break;
    }
}

}  // namespace
