// The socket endpoint over real Unix sockets, in a private network namespace.
#include "ipc/unix_ipc_manager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/support/package_server.h"

using namespace quortest;

namespace {

constexpr const char* kSocket = "quor-ipc-test";
// This process's log (stderr) goes to a file: two tests count its lines.
constexpr const char* kLogFile = "/data/unix_ipc_manager_test.log";
const int gLog =
    dup2(open(kLogFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), STDERR_FILENO);

// Answers every type-2 package with a type-3 package holding the same body.
class EchoServer : public PackageServer {
public:
    EchoServer()
        : PackageServer(kSocket, {{2, [this](int fd, char* body, long length) {
                                       send(fd, 3, body, length);
                                       return 0;
                                   }}}) {}
};

std::string ReadEcho(RawIpcClient* client) {
    std::string body;
    return client->readPackage(3, &body) ? body : "<none>";
}

TEST(UnixIpcManagerTest, FramesSplitAcrossReceivesOrSharingOne) {
    EchoServer server;
    ASSERT_TRUE(server.listening);
    RawIpcClient client(kSocket);
    ASSERT_TRUE(client.connected());

    // One byte per receive; a frame is answered once its last byte is in.
    const std::string frames = Frame(2, "first") + Frame(2, "") + Frame(2, "third one");
    for (size_t i = 0; i < frames.size(); ++i) {
        const int before = server.receives.load();
        ASSERT_TRUE(client.send(frames.substr(i, 1)));
        ASSERT_TRUE(WaitFor([&] { return server.receives.load() > before; })) << i;
    }
    EXPECT_EQ(ReadEcho(&client), "first");
    EXPECT_EQ(ReadEcho(&client), "");
    EXPECT_EQ(ReadEcho(&client), "third one");

    // Many frames in one send, the last one cut in two sends.
    std::string burst;
    for (int i = 0; i < 200; ++i) burst += Frame(2, "frame " + std::to_string(i));
    const std::string tail = Frame(2, "tail");
    ASSERT_TRUE(client.send(burst + tail.substr(0, 10)));
    for (int i = 0; i < 200; ++i) ASSERT_EQ(ReadEcho(&client), "frame " + std::to_string(i));
    ASSERT_TRUE(WaitFor([&] { return server.pendingBytes.load() == 10; }));
    ASSERT_TRUE(client.send(tail.substr(10)));
    EXPECT_EQ(ReadEcho(&client), "tail");
}

TEST(UnixIpcManagerTest, RunningOutOfDescriptorsNeitherSpinsNorFloodsTheLog) {
    EchoServer server;
    ASSERT_TRUE(server.listening);
    sockaddr_un addr;
    const socklen_t addrLen = AbstractAddress(kSocket, &addr);
    // Out of descriptors, accept fails while connections wait: the loop
    // neither spins nor floods the log, and serves them once it can.
    constexpr int kWaiting = 3;
    int clients[kWaiting];
    for (int& fd : clients) fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const long cpuBefore = ThreadCpuMs("TestServer");
    ASSERT_GE(cpuBefore, 0);
    rlimit saved = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit low = saved;
    low.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> fillers;
    for (int fd; (fd = dup(STDIN_FILENO)) != -1;) fillers.push_back(fd);
    for (int fd : clients)
        ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&addr), addrLen), 0);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (int fd : fillers) close(fd);  // reading procfs takes descriptors too
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    const long cpuMs = ThreadCpuMs("TestServer") - cpuBefore;
    const size_t failures = CountLines(kLogFile, "Accept client failed");
    EXPECT_LT(cpuMs, 200);
    EXPECT_TRUE(failures >= 1 && failures <= 6) << failures;
    for (int fd : clients) {
        const std::string frame = Frame(2, "late");
        ASSERT_EQ(send(fd, frame.data(), frame.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(frame.size()));
        char reply[8 + 8 + 4];  // the echo's frame
        timeval wait = {5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
        EXPECT_EQ(recv(fd, reply, sizeof(reply), MSG_WAITALL), 20) << "never served";
        close(fd);
    }
}

TEST(UnixIpcManagerTest, ServerOutlastsASquatter) {
    // Someone holds the name when the server starts, and lets go a second
    // later: the server listens then, having logged only a few failures.
    const int squatter = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr;
    ASSERT_EQ(bind(squatter, reinterpret_cast<sockaddr*>(&addr), AbstractAddress(kSocket, &addr)),
              0);
    ASSERT_EQ(listen(squatter, 4), 0);
    std::thread leaver([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        close(squatter);
    });
    EchoServer server;
    leaver.join();
    ASSERT_TRUE(server.listening);
    EXPECT_LE(CountLines(kLogFile, "Create server Socket failed"), 4u);
    RawIpcClient first(kSocket);
    ASSERT_TRUE(first.send(Frame(2, "hello")));
    EXPECT_EQ(ReadEcho(&first), "hello");
}

}  // namespace
