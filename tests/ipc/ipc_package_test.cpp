// Frames, package queues and dispatch, without sockets.
// Runs in private namespaces: the fault records go to /data.
#include "ipc/ipc_package.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ipc/ipc_package_handler.h"
#include "ipc/ipc_package_manager.h"
#include "tests/support/raw_ipc_client.h"

using quortest::Frame;
using quortest::RawFrame;

namespace {

constexpr const char* kErrorLog = "/data/quorlog/stability/quorbpfframework/error.log";

size_t ErrorRecords(int code) {
    return quortest::CountLines(kErrorLog, "ErrorCode: " + std::to_string(code));
}

struct Buffer {
    explicit Buffer(const std::string& bytes, int64_t size = 4096) : storage(size, '\0') {
        memcpy(&storage[0], bytes.data(), bytes.size());
        state = BufferState{0, static_cast<int64_t>(bytes.size()), size, &storage[0]};
    }
    std::string storage;
    BufferState state;
};

class IpcPackageTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(
            system("rm -rf /data/quorlog && mkdir -p /data/quorlog/stability/quorbpfframework"), 0);
    }
};

TEST_F(IpcPackageTest, CompletenessAndDamage) {
    long header = 0;
    long size = -7;
    Buffer seven(std::string(7, '\0'));
    EXPECT_FALSE(CheckIpcPackageComplete(&seven.state, &header, &size));
    EXPECT_EQ(std::make_pair(header, size), std::make_pair(8L, -7L));  // size: not yet whole

    Buffer empty(RawFrame(0, ""));
    EXPECT_TRUE(CheckIpcPackageComplete(&empty.state, &header, &size));
    EXPECT_EQ(size, 0);

    // A frame exactly as large as the buffer fits; one byte more never can.
    Buffer exact(RawFrame(56, std::string(56, 'x')), 64);
    EXPECT_TRUE(CheckIpcPackageComplete(&exact.state, &header, &size));
    EXPECT_EQ(ErrorRecords(2), 0u);
    for (const int64_t length : {int64_t{57}, int64_t{-1}, INT64_MIN, INT64_MAX - 4}) {
        SCOPED_TRACE(length);
        Buffer damaged(RawFrame(length, std::string(20, 'd')), 64);
        damaged.state.bufferCursor = 0;
        EXPECT_FALSE(CheckIpcPackageComplete(&damaged.state, &header, &size));
        const BufferState& after = damaged.state;  // everything buffered is dropped
        EXPECT_EQ(std::make_pair(after.bufferCursor, after.bufferDataCursor),
                  std::make_pair(0L, 0L));
    }
    EXPECT_EQ(ErrorRecords(2), 4u);
}

TEST_F(IpcPackageTest, HandlerDispatchesWholePackagesOnly) {
    std::vector<std::string> bodies;
    IpcPackageHandler handler({{3,
                                [&](int fd, char* body, long length) {
                                    EXPECT_EQ(fd, 7);
                                    bodies.emplace_back(body, length);
                                    return length == 4 && memcmp(body, "FAIL", 4) == 0 ? -1 : 0;
                                }},
                               {1, nullptr}});

    // Two whole frames and half of a third: the cursor stops at the third.
    const std::string third = Frame(3, "third");
    Buffer buffer(Frame(3, "one") + Frame(1, "ignored") + Frame(99, "unknown") + Frame(3, "") +
                  third.substr(0, 9));
    EXPECT_TRUE(handler.handleAllIpcPackageInBuffer(7, &buffer.state));
    EXPECT_EQ(bodies, (std::vector<std::string>{"one", ""}));
    EXPECT_EQ(buffer.state.bufferDataCursor - buffer.state.bufferCursor, 9);

    // A body length beyond its frame, and a package shorter than its header,
    // are bad: reported without reading past the frame.
    const std::string lying("\3\0\0\0\xe8\3\0\0abcd", 12);  // type 3, body length 1000
    for (const std::string& bad : {RawFrame(12, lying), RawFrame(4, "abcd")}) {
        Buffer frame(bad + Frame(3, "after"));
        EXPECT_FALSE(handler.handleAllIpcPackageInBuffer(7, &frame.state));
        EXPECT_EQ(frame.state.bufferCursor, 0);  // left on the bad frame
    }
    Buffer failing(Frame(3, "FAIL") + Frame(3, "after"));
    EXPECT_FALSE(handler.handleAllIpcPackageInBuffer(7, &failing.state));
    EXPECT_EQ(bodies.back(), "FAIL");
}

TEST_F(IpcPackageTest, QueueOverflowDropsTheOldestHalfOnce) {
    char record[4];
    const auto append = [&record](IpcPackageManager* queue, int from, int to) {
        for (int i = from; i < to; ++i) {
            memcpy(record, &i, 4);
            ASSERT_TRUE(queue->buildAndAppendSecondIpcPackage(3, record, 4));
        }
    };
    std::string storage(32768, '\0');
    const auto oldest = [&storage](IpcPackageManager* queue) {
        BufferState buffer{0, 0, 32768, &storage[0]};
        int first = -1;
        if (queue->fillNextIpcPackageToBuffer(&buffer)) memcpy(&first, &storage[16], 4);
        return first;
    };
    IpcPackageManager queue;
    append(&queue, 0, 10001);
    EXPECT_EQ(ErrorRecords(4), 0u);
    append(&queue, 10001, 10002);  // the 10002nd drops the 5001 oldest
    EXPECT_EQ(queue.getIpcPackageCount(), 5001u);
    EXPECT_EQ(ErrorRecords(4), 1u);
    EXPECT_FALSE(queue.buildAndAppendSecondIpcPackage(4, record, 4));
    EXPECT_EQ(queue.getIpcPackageCount(), 5001u);
    EXPECT_EQ(oldest(&queue), 5001);

    // A shared run counts frame by frame: with 9999 queued, the third frame
    // of a run of three finds 10001 and drops the 5001 oldest.
    IpcPackageManager runs;
    append(&runs, 0, 9999);
    const std::string three = Frame(3, "abcd") + Frame(3, "efgh") + Frame(3, "ijkl");
    uint32_t frames = 0;
    const QuorIpcPackage run =
        IpcPackageManager::BuildSharedFrames(three.data(), three.size(), &frames);
    ASSERT_EQ(frames, 3u);
    EXPECT_EQ(runs.appendSharedFrames(run, frames), 9999u);
    IpcPackageManager::ReleaseSharedIpcPackage(run);
    EXPECT_EQ(runs.getIpcPackageCount(), 5001u);
    EXPECT_EQ(ErrorRecords(4), 2u);
    EXPECT_EQ(oldest(&runs), 5001);
}

TEST_F(IpcPackageTest, FillingNeverCutsAFrame) {
    std::string storage(64, '\0');
    BufferState buffer{0, 0, 64, &storage[0]};
    IpcPackageManager queue;
    const std::string exact(48, 'b');  // package of 56 bytes: a frame of exactly 64
    const std::string small(8, 's');
    const std::string tooBig(49, 'x');  // a 65-byte frame can never be sent
    const auto push = [&queue](std::initializer_list<std::string> bodies) {
        for (std::string body : bodies)
            queue.buildAndAppendSecondIpcPackage(3, &body[0], body.size());
    };
    push({exact, small});
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 1u);
    EXPECT_EQ(storage, Frame(3, exact));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);  // no room: the small one stays first

    // One that can never fit is dropped, and filling goes on behind it: the
    // writer must not see an empty buffer while packages are queued.
    buffer.bufferDataCursor = 0;
    push({tooBig, tooBig, small});
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 2u);
    EXPECT_EQ(storage.substr(0, 48), Frame(3, small) + Frame(3, small));
    EXPECT_EQ(queue.getIpcPackageCount(), 0u);
    EXPECT_EQ(ErrorRecords(8), 1u);

    // A run of ready frames is cut between frames, never inside one, and
    // bytes that are not whole frames are no run.
    const std::string run = Frame(3, small) + Frame(3, small) + Frame(3, small);
    uint32_t frames = 0;
    EXPECT_EQ(IpcPackageManager::BuildSharedFrames(run.data(), run.size() - 1, &frames).packageData,
              nullptr);
    const QuorIpcPackage shared =
        IpcPackageManager::BuildSharedFrames(run.data(), run.size(), &frames);
    ASSERT_EQ(frames, 3u);
    queue.appendSharedFrames(shared, frames);
    IpcPackageManager::ReleaseSharedIpcPackage(shared);
    buffer.bufferDataCursor = 16;  // room for two of the three
    EXPECT_EQ(queue.fillNextIpcPackagesToBuffer(&buffer), 2u);
    EXPECT_EQ(storage.substr(16, 48), run.substr(0, 48));
    EXPECT_EQ(queue.getIpcPackageCount(), 1u);
}

}  // namespace
