// Faults the service meets in the field, each while a reader receives a
// stream of numbered records that must arrive complete and in order:
// clients killed in the middle of a frame (theirs or the service's), clients
// sending garbage, a thousand dump signals, and a ring buffer driven to
// overflow. Afterwards the service holds no more descriptors or subscribers
// than before.
//
// The service's log (stderr) is kept in a file, so that what it reports can
// be checked.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_dump_signals.h"
#include "quor/quorbpf_client.h"
#include "service/event_manager.h"
#include "tests/support/live_service.h"
#include "tests/support/raw_ipc_client.h"
#include "tests/support/record_injector.h"

using namespace Quor::Bpf;
using namespace quortest;

namespace {

constexpr const char* kSocket = "/mnt/bpfframework/quorbpfdispatcher";
constexpr const char* kLogFile = "/data/fault_test_stderr.log";
constexpr int32_t kStreamType = QUOR_EVENT_DMABUF_UPDATE;
constexpr uint32_t kSeqOffset = offsetof(quor_record_header, timestamp_ns);

std::string gStartError;
quor_test::RecordInjector* gInjector = nullptr;
uint64_t gNextSeq = 0;

// A library client following the numbered stream.
class StreamReader {
public:
    bool start() {
        client_ = std::make_unique<QuorBpfClient>(
            [this](uint32_t type, const uint8_t* data, size_t len) { log_.add(type, data, len); });
        if (!client_->connect(5000)) return false;
        std::promise<int32_t> answer;
        auto future = answer.get_future();
        if (!client_->subscribe(kStreamType, [&answer](int32_t s) { answer.set_value(s); })) {
            return false;
        }
        return future.wait_for(std::chrono::seconds(5)) == std::future_status::ready &&
               future.get() == 0;
    }

    // Injects `count` numbered records and waits until they are all here.
    bool pump(uint32_t count) {
        quor_dmabuf_update_record record = {};
        record.header.type = kStreamType;
        record.pid = 4000000;
        const int refused =
            gInjector->Inject(&record, sizeof(record), count, 0, kSeqOffset, gNextSeq);
        gNextSeq += count;
        // The kernel side lost some: the stream can no longer be complete.
        if (refused != 0) {
            ADD_FAILURE() << "the ring buffer refused " << refused << " numbered records";
            return false;
        }
        return log_.waitFor(gNextSeq - 1, std::chrono::seconds(30));
    }

    // Everything since start() arrived once, in order.
    ::testing::AssertionResult complete() {
        const std::vector<uint64_t> seqs = log_.snapshot();
        if (seqs.empty()) return ::testing::AssertionFailure() << "nothing arrived";
        for (size_t i = 1; i < seqs.size(); ++i) {
            if (seqs[i] != seqs[i - 1] + 1) {
                return ::testing::AssertionFailure()
                       << "after " << seqs[i - 1] << " came " << seqs[i];
            }
        }
        if (seqs.back() + 1 != gNextSeq) {
            return ::testing::AssertionFailure() << "last " << seqs.back() << " of " << gNextSeq;
        }
        return ::testing::AssertionSuccess() << seqs.size() << " records";
    }

    size_t received() { return log_.size(); }

private:
    SequenceLog log_{kStreamType, sizeof(quor_dmabuf_update_record), kSeqOffset};
    std::unique_ptr<QuorBpfClient> client_;
};

// Keeps a reader busy on another thread while a fault is played.
class BackgroundStream {
public:
    explicit BackgroundStream(StreamReader* reader)
        : thread_([this, reader] {
              while (running_.load()) ok_ = reader->pump(500) && ok_;
          }) {}
    // Stops pumping; false when a batch failed to arrive.
    bool stop() {
        running_.store(false);
        thread_.join();
        return ok_;
    }

private:
    std::atomic<bool> running_{true};
    bool ok_ = true;
    std::thread thread_;
};

size_t Subscribers(int32_t type) {
    return EventManager::GetInstance()->GetEventObservers(type).size();
}

// Connects to the service with system calls only (usable in a forked child
// of this multi-threaded process).
int RawConnect() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    const size_t len = strlen(kSocket);
    memcpy(addr.sun_path + 1, kSocket, len);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr),
                static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + len)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

class FaultTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!gStartError.empty()) GTEST_SKIP() << gStartError;
        fdsBefore_ = OpenDescriptors();
        reader_ = std::make_unique<StreamReader>();
        ASSERT_TRUE(reader_->start());
        ASSERT_TRUE(reader_->pump(100));
    }
    void TearDown() override {
        if (!reader_) return;
        EXPECT_TRUE(reader_->complete());
        reader_.reset();
        // Nothing is left of the fault or the reader.
        EXPECT_TRUE(
            PollUntil([] { return Subscribers(kStreamType) == 0; }, std::chrono::seconds(10)))
            << Subscribers(kStreamType) << " subscribers";
        EXPECT_TRUE(PollUntil([] { return Subscribers(QUOR_EVENT_TASK_INIT) == 0; },
                              std::chrono::seconds(10)));
        EXPECT_TRUE(
            PollUntil([&] { return OpenDescriptors() <= fdsBefore_; }, std::chrono::seconds(10)))
            << OpenDescriptors() << " descriptors, " << fdsBefore_ << " before";
    }

    std::unique_ptr<StreamReader> reader_;
    size_t fdsBefore_ = 0;
};

}  // namespace

TEST_F(FaultTest, ClientsKilledMidFrameLeaveNothingBehind) {
    BackgroundStream stream(reader_.get());
    const std::string request = Request(1, 51, kStreamType) + Request(2, 51, QUOR_EVENT_TASK_INIT);
    int killed = 0;
    for (int i = 0; i < 200; ++i) {
        int ready[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const int fd = RawConnect();
            if (fd < 0) _exit(1);
            // Even children subscribe whole and then stop reading while the
            // service writes to them; odd ones stop inside their own frame.
            const size_t cut = i % 2 == 0 ? request.size() : 1 + (i * 7) % (request.size() - 1);
            if (send(fd, request.data(), cut, MSG_NOSIGNAL) != static_cast<ssize_t>(cut)) _exit(1);
            (void)write(ready[1], "x", 1);
            for (;;) pause();
        }
        close(ready[1]);
        char x;
        EXPECT_EQ(read(ready[0], &x, 1), 1);
        close(ready[0]);
        if (i % 2 == 0) {
            // Let the stream reach it mid-frame before it dies.
            PollUntil([] { return Subscribers(kStreamType) > 1; }, std::chrono::seconds(2), 1);
        }
        kill(child, SIGKILL);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        killed += WIFSIGNALED(status);
    }
    EXPECT_TRUE(stream.stop());
    EXPECT_EQ(killed, 200);
    printf("clients killed mid-frame: %d; reader received %zu records meanwhile\n", killed,
           reader_->received());
}

TEST_F(FaultTest, GarbageFromManyClientsNeverReachesAnotherClient) {
    BackgroundStream stream(reader_.get());
    std::mt19937 random(20240611);
    size_t bytesSent = 0;
    for (int i = 0; i < 300; ++i) {
        RawIpcClient raw(kSocket);
        ASSERT_TRUE(raw.connected());
        std::string garbage(1 + random() % 40000, '\0');
        for (char& c : garbage) c = static_cast<char>(random());
        // A third start well-formed and subscribe before the garbage.
        if (i % 3 == 0) garbage = Request(i, 51, kStreamType) + garbage;
        (void)raw.send(garbage);
        bytesSent += garbage.size();
        (void)raw.drainAvailable(1 << 20);
    }
    EXPECT_TRUE(stream.stop());
    printf("garbage clients: 300, %zu bytes; reader received %zu records meanwhile\n", bytesSent,
           reader_->received());
}

TEST_F(FaultTest, AThousandDumpSignalsDuringLoad) {
    DumpSignalProgress before[5];
    for (int s = 0; s < 5; ++s)
        ASSERT_TRUE(GetDumpSignalProgress(DUMP_SIGNAL_FIRST + s, &before[s]));
    BackgroundStream stream(reader_.get());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(kill(getpid(), DUMP_SIGNAL_FIRST + i % 5), 0);
        if (i % 50 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(stream.stop());
    // Every signal number is answered by a dump after its last arrival.
    EXPECT_TRUE(PollUntil(
        [] {
            for (int s = DUMP_SIGNAL_FIRST; s <= DUMP_SIGNAL_LAST; ++s) {
                DumpSignalProgress p;
                if (!GetDumpSignalProgress(s, &p) || p.dumped != p.received) return false;
            }
            return true;
        },
        std::chrono::seconds(60), 50));
    uint64_t arrived = 0;
    for (int s = 0; s < 5; ++s) {
        DumpSignalProgress p;
        ASSERT_TRUE(GetDumpSignalProgress(DUMP_SIGNAL_FIRST + s, &p));
        arrived += p.received - before[s].received;
    }
    EXPECT_EQ(arrived, 1000u);
    EXPECT_FALSE(ReadFile(std::string(BPF_SERVICE_LOG_DIR) + "DUMPTASK_INFO").empty());
    EXPECT_FALSE(ReadFile(std::string(BPF_SERVICE_LOG_DIR) + "bpfservice_state.csv").empty());
    printf("dump signals: %llu delivered during load; reader received %zu records meanwhile\n",
           static_cast<unsigned long long>(arrived), reader_->received());
}

TEST_F(FaultTest, RingBufferOverflowIsReportedAndCleared) {
    // Records for nobody, far more than the ring buffer holds, while real
    // programmes (forks) try to write: they find it full and flag it.
    quor_fd_update_record filler = {};
    filler.header.type = QUOR_EVENT_FD_UPDATE;
    filler.pid = 4000002;
    uint64_t refused = 0;
    const bool flagged = PollUntil(
        [&] {
            std::thread forker([] {
                for (int i = 0; i < 20; ++i) {
                    const pid_t child = fork();
                    if (child == 0) _exit(0);
                    if (child > 0) (void)waitpid(child, nullptr, 0);
                }
            });
            // Paced like the real programmes' records: a filling ring buffer
            // wakes the reader, so it is full only while the reader drains.
            const int r = gInjector->Inject(&filler, sizeof(filler), 60000, QUOR_INJECT_PACED);
            refused += r > 0 ? static_cast<uint64_t>(r) : 0;
            forker.join();
            return (StatusWord(RINGBUF_MAIN) & QUOR_STATUS_OVERFLOW) != 0;
        },
        std::chrono::seconds(30), 0);
    ASSERT_TRUE(flagged) << "the ring buffer never overflowed (" << refused << " refused)";
    EXPECT_GT(refused, 0u);
    // The monitor looks at the flag at least every 30 seconds while records
    // flow; it reports and clears it. Records for nobody keep it polling (the
    // numbered stream waits: a full ring buffer would refuse some of it).
    const bool cleared = PollUntil(
        [&] {
            (void)gInjector->Inject(filler);
            return (StatusWord(RINGBUF_MAIN) & QUOR_STATUS_OVERFLOW) == 0;
        },
        std::chrono::seconds(45), 200);
    EXPECT_TRUE(cleared);
    const std::string log = ReadFile(kLogFile);
    EXPECT_NE(log.find("[QuorBpfService][checkBpfRingBuffStatus] bpf ringbuff full!"),
              std::string::npos);
    EXPECT_EQ(StatusWord(RINGBUF_MAIN), QUOR_STATUS_CORE_ON | QUOR_STATUS_NORMAL_ON);
    // The stream goes on as before.
    EXPECT_TRUE(reader_->pump(1000));
    printf("ring buffer overflow: %llu injected records refused, flag reported and cleared\n",
           static_cast<unsigned long long>(refused));
}

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // The service logs to stderr; keep it where the tests can read it, and
    // show it at the end.
    const int savedStderr = dup(STDERR_FILENO);
    const int logFd = open(kLogFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (logFd >= 0) {
        (void)dup2(logFd, STDERR_FILENO);
        close(logFd);
    }
    gStartError = StartLiveService();
    quor_test::RecordInjector injector;
    if (gStartError.empty()) {
        std::string error;
        if (!injector.Open(RINGBUF_MAP_PATHS[RINGBUF_MAIN], &error,
                           RINGBUF_STATUS_PATHS[RINGBUF_MAIN])) {
            gStartError = error;
        }
    }
    gInjector = &injector;
    const int result = RUN_ALL_TESTS();
    (void)StopBpfService();
    if (savedStderr >= 0) (void)dup2(savedStderr, STDERR_FILENO);
    if (result != 0) fprintf(stderr, "---- service log ----\n%s\n", ReadFile(kLogFile).c_str());
    EndProcess(result);
}
