// The client library against a small server of the same protocol that can be
// stopped and started again, in a private network namespace.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "quor/quorbpf_client.h"
#include "tests/support/package_server.h"

using namespace Quor::Bpf;
using quortest::WaitFor;

namespace {

constexpr const char* kSocket = "quor-client-test";
constexpr uint32_t kSilentCommand = 99;  // the server never answers it

// Subscriptions by request; answers 0 for subscribe and unsubscribe, -1 for
// other commands, nothing for kSilentCommand.
class SubscriptionServer {
public:
    void push(uint32_t type, std::string record) {
        memcpy(&record[0], &type, 4);
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& [fd, types] : types_) {
            if (types.count(type) != 0) server_.send(fd, 3, &record[0], record.size());
        }
    }
    size_t subscribers(uint32_t type) {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t count = 0;
        for (auto& client : types_) count += client.second.count(type);
        return count;
    }

private:
    int onRequest(int fd, char* body, long length) {
        if (length < 16) return -1;
        QuorRespIpcPackage resp = {};
        resp.reqId = IpcReadU32(body);
        const uint32_t command = IpcReadU32(body + 4);
        const uint32_t type = IpcReadU32(body + 12);
        if (command == kSilentCommand) return 0;
        resp.status = command == 51 || command == 52 ? 0 : -1;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (command == 51) types_[fd].insert(type);
            if (command == 52) types_[fd].erase(type);
        }
        server_.respond(fd, &resp);
        return 0;
    }

    std::mutex mutex_;
    std::map<int, std::set<uint32_t>> types_;
    quortest::PackageServer server_{
        kSocket,
        {{0, [this](int fd, char* body, long length) { return onRequest(fd, body, length); }}},
        [this](int fd) {
            std::lock_guard<std::mutex> lock(mutex_);
            types_.erase(fd);
        }};
};

struct Events {
    std::mutex mutex;
    std::vector<std::pair<uint32_t, size_t>> received;  // type and length
    QuorBpfClient::EventCallback callback() {
        return [this](uint32_t type, const uint8_t*, size_t length) {
            std::lock_guard<std::mutex> lock(mutex);
            received.emplace_back(type, length);
        };
    }
};

QuorBpfClient::Options TestOptions() {
    QuorBpfClient::Options options;
    options.socketName = kSocket;
    options.reconnectIntervalMs = 20;
    return options;
}

// Status of a request, or INT32_MIN when it was not sent.
int32_t Status(QuorBpfClient* client, uint32_t command, int32_t type) {
    auto answer = std::make_shared<std::promise<int32_t>>();
    auto future = answer->get_future();
    if (!client->sendRequest(command, type,
                             [answer](int32_t status) { answer->set_value(status); })) {
        return INT32_MIN;
    }
    return future.wait_for(std::chrono::seconds(5)) == std::future_status::ready ? future.get()
                                                                                 : INT32_MAX;
}

TEST(ClientConnectionTest, FirstConnectionHonoursItsTimeout) {
    Events events;
    QuorBpfClient client(events.callback(), TestOptions());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(client.connect(0));  // one attempt: "service not running"
    EXPECT_FALSE(client.connect(150));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(3));
    EXPECT_FALSE(client.isConnected());
    EXPECT_FALSE(client.subscribe(2));  // remembered for later

    // A connect() without limit ends when another thread disconnects.
    auto waiting = std::async(std::launch::async, [&] { return client.connect(-1); });
    ASSERT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    // (Again if the thread had not begun to wait yet.)
    EXPECT_TRUE(WaitFor([&] {
        client.disconnect();
        return waiting.wait_for(std::chrono::milliseconds(20)) == std::future_status::ready;
    }));
    EXPECT_FALSE(waiting.get());

    std::unique_ptr<SubscriptionServer> server;
    std::thread starter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        server = std::make_unique<SubscriptionServer>();
    });
    const bool connected = client.connect(5000);  // the service starts meanwhile
    starter.join();
    ASSERT_TRUE(connected);
    EXPECT_TRUE(client.isConnected());
    // The type asked for while disconnected was subscribed on connection.
    EXPECT_TRUE(WaitFor([&] { return server->subscribers(2) == 1; }));
}

TEST(ClientConnectionTest, ResubscribesAfterTheServerRestarts) {
    auto server = std::make_unique<SubscriptionServer>();
    Events events;
    std::atomic<int> ups{0};
    std::atomic<int> downs{0};
    QuorBpfClient client(events.callback(), TestOptions());
    client.setConnectionCallback([&](bool up) { (up ? ups : downs).fetch_add(1); });
    ASSERT_TRUE(client.connect(2000));
    ASSERT_EQ(Status(&client, QUOR_BPF_COMMAND_SUBSCRIBE, 2), 0);
    // Through subscribe() the types are remembered for later connections.
    std::promise<int32_t> answered;
    ASSERT_TRUE(client.subscribe(5, [&](int32_t status) { answered.set_value(status); }));
    EXPECT_EQ(answered.get_future().get(), 0);

    // A request the server never answers is answered "disconnected" when the
    // connection goes.
    std::promise<int32_t> orphan;
    ASSERT_TRUE(client.sendRequest(kSilentCommand, 0, [&](int32_t s) { orphan.set_value(s); }));
    server.reset();
    EXPECT_EQ(orphan.get_future().get(), QUOR_BPF_STATUS_DISCONNECTED);
    ASSERT_TRUE(WaitFor([&] { return downs.load() == 1; }));
    EXPECT_FALSE(client.isConnected());

    server = std::make_unique<SubscriptionServer>();
    ASSERT_TRUE(WaitFor([&] { return ups.load() == 2 && server->subscribers(5) == 1; }));
    EXPECT_EQ(server->subscribers(2), 0u);  // only subscribe() is remembered
    server->push(5, std::string(40, 'r'));
    ASSERT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> lock(events.mutex);
        return events.received == std::vector<std::pair<uint32_t, size_t>>{{5u, 40u}};
    }));
}

TEST(ClientConnectionTest, AServerUnderAnotherUidIsRefusedUnlessNamed) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to bind the name as another user";
    constexpr uid_t kNobody = 65534;
    // A squatter: binds the name as nobody and greets every connection with
    // an event frame of its own making.
    const std::string greeting = quortest::Frame(3, std::string("\x02\0\0\0forged", 10));
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    const pid_t squatter = fork();
    ASSERT_NE(squatter, -1);
    if (squatter == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(1);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un addr;
        if (bind(fd, reinterpret_cast<sockaddr*>(&addr),
                 quortest::AbstractAddress(kSocket, &addr)) != 0 ||
            listen(fd, 8) != 0 || write(ready[1], "r", 1) != 1) {
            _exit(1);
        }
        for (;;) {
            const int client = accept(fd, nullptr, nullptr);
            if (client >= 0) (void)send(client, greeting.data(), greeting.size(), MSG_NOSIGNAL);
        }
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1) << "the squatter could not bind";
    close(ready[0]);

    Events events;
    QuorBpfClient wary(events.callback(), TestOptions());
    EXPECT_FALSE(wary.connect(300));
    EXPECT_NE(wary.lastError().find("uid 65534"), std::string::npos) << wary.lastError();
    EXPECT_NE(wary.lastError().find("untrusted"), std::string::npos) << wary.lastError();
    EXPECT_TRUE(events.received.empty());  // nothing of the squatter's was read

    QuorBpfClient::Options named = TestOptions();
    named.trustedServerUid = kNobody;
    QuorBpfClient trusting(events.callback(), named);
    EXPECT_TRUE(trusting.connect(2000));
    EXPECT_EQ(trusting.lastError(), "");
    EXPECT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> lock(events.mutex);
        return events.received.size() == 1;  // the named server's frame, and only that
    }));
    trusting.disconnect();
    kill(squatter, SIGKILL);
    waitpid(squatter, nullptr, 0);
}

}  // namespace
