// Who may connect to the running service, and how many at once: the bound
// on connected clients and the peer-credential check at accept. The service
// is started once, without the kernel side (records enter through
// EventManager::AppendEvent); its log (stderr) is kept in a file so that the
// refusals can be checked.
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
#include <memory>
#include <string>
#include <vector>

#include "quor/bpf_service_main.h"
#include "service/event_manager.h"
#include "service/quor_bpf_service.h"
#include "tests/support/live_service.h"
#include "tests/support/raw_ipc_client.h"

using namespace Quor::Bpf;
using namespace quortest;

namespace {

constexpr const char* kSocket = "/mnt/bpfframework/quorbpfdispatcher";
constexpr const char* kLogFile = "/data/client_access_test_stderr.log";
constexpr int32_t kType = QUOR_EVENT_FD_UPDATE;
constexpr uid_t kNobody = 65534;

size_t Subscribers() {
    return EventManager::GetInstance()->GetEventObservers(kType).size();
}

bool LogHas(const std::string& text) {
    return WaitFor([&] { return ReadFile(kLogFile).find(text) != std::string::npos; });
}

// Connects as another user: a forked child takes the given credentials,
// connects, sends a subscription request and reports whether an answer came
// back (accepted) or the service closed the connection without one
// (refused). The child uses system calls only, so it is safe to fork from a
// multi-threaded test. A child with supplementary groups first checks that
// the kernel, as it sees it, reports them (SO_PEERGROUPS): qemu's user-mode
// emulator does not pass the option on, and the service then judges by the
// primary group alone.
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

class ClientAccessTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const int fd = open(kLogFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(dup2(fd, STDERR_FILENO), STDERR_FILENO);
        close(fd);
        ASSERT_EQ(system("mkdir -p /data/quorlog/stability/quorbpfframework"), 0);
        android::base::SetProperty("sys.quor_bpf_ready", "0");
        // The allow-lists are read when the service starts. Malformed entries
        // are ignored (and logged).
        android::base::SetProperty(QUOR_BPF_ALLOW_UIDS_PROPERTY,
                                   "1000, 65534,nobody,-1,65534x,4294967295");
        android::base::SetProperty(QUOR_BPF_ALLOW_GIDS_PROPERTY, "4242,4343");
        ASSERT_EQ(BpfServiceMain(), 1);
        ASSERT_TRUE(WaitFor([] { return RawIpcClient(kSocket).connected(); }));
    }
    void SetUp() override {
        ASSERT_TRUE(WaitFor([] { return Subscribers() == 0; }));
    }
};

}  // namespace

TEST_F(ClientAccessTest, SixtyFifthClientIsRefusedAndTheOthersCarryOn) {
    const size_t kLimit = QuorBpfService::MAX_CLIENT_CONNECTIONS;
    std::vector<std::unique_ptr<RawIpcClient>> clients;
    for (size_t i = 0; i < kLimit; ++i) {
        clients.push_back(std::make_unique<RawIpcClient>(kSocket));
        ASSERT_EQ(clients.back()->ask(i, 51, kType), 0) << "client " << i;
    }
    ASSERT_EQ(Subscribers(), kLimit);

    // One more: the kernel completes the connection, the service closes it
    // without reading or answering, and says so.
    RawIpcClient extra(kSocket);
    ASSERT_TRUE(extra.connected());
    (void)extra.send(Request(999, 51, kType));
    EXPECT_TRUE(extra.waitClosed());
    EXPECT_TRUE(LogHas("Refused client: 64 clients connected"));
    EXPECT_EQ(Subscribers(), kLimit);

    // A place that frees up can be taken again.
    clients.pop_back();
    ASSERT_TRUE(WaitFor([&] { return Subscribers() == kLimit - 1; }));
    RawIpcClient late(kSocket);
    EXPECT_EQ(late.ask(1000, 51, kType), 0);
}

TEST_F(ClientAccessTest, PeersAreJudgedByTheirCredentialsAtAccept) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to connect as other users";
    struct Case {
        const char* what;
        uid_t uid;
        gid_t gid;
        std::vector<gid_t> groups;
        ProbeResult expected;
    };
    const Case cases[] = {
        {"root always", 0, 0, {}, ProbeResult::kAccepted},
        {"an allowed uid", kNobody, kNobody, {}, ProbeResult::kAccepted},
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
    EXPECT_TRUE(WaitFor([] { return Subscribers() == 0; }));
    if (!notJudged.empty())
        GTEST_SKIP() << "SO_PEERGROUPS reports no supplementary groups here (an emulator?); "
                        "not judged: "
                     << notJudged;
}
