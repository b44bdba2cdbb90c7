// Runs inside a private mount namespace with a tmpfs on /data.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "diag/quor_bpf_error_log.h"
#include "tests/support/proc_self.h"

using namespace Quor::Bpf;

namespace {

class ErrorLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(system("rm -rf /data/quorlog && mkdir -p /data/quorlog/stability"), 0);
    }
};

}  // namespace

TEST_F(ErrorLogTest, RecordsGoNewestFirstWithProcessThreadAndCommandLine) {
    InitBpfServiceErrorLog();
    RecordBpfServiceErrorInfo(1, "older");
    std::thread([] {
        prctl(PR_SET_NAME, "BpfServiceTr", 0, 0, 0);
        RecordBpfServiceErrorInfo(2, "Ipc package damage");
    }).join();

    const std::string text = quortest::ReadFile(BPF_SERVICE_ERROR_LOG);
    const std::regex format(
        "----------\nTime: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\nPid: (\\d+)\nTid: (\\d+)\n"
        "Cmdline: ([^\n]*)\nComm: BpfServiceTr\nErrorCode: 2\nError: Ipc package damage\n\n"
        "----------\n(?:.*\n){5}ErrorCode: 1\nError: older\n\n");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(text, m, format)) << text;
    EXPECT_EQ(std::stoi(m[1]), getpid());
    EXPECT_NE(std::stoi(m[2]), getpid());  // written from the other thread
    // NUL separators become blanks, no trailing blank.
    EXPECT_NE(m[3].str().find("error_log_test"), std::string::npos);
    EXPECT_NE(m[3].str().back(), ' ');
}

TEST_F(ErrorLogTest, BoundedTo4999OldLines) {
    InitBpfServiceErrorLog();
    std::string old;
    for (int i = 0; i < 5000; ++i) old += "line " + std::to_string(i) + "\n";
    std::ofstream(BPF_SERVICE_ERROR_LOG) << old;
    RecordBpfServiceErrorInfo(6, "B&A Ipc Package queue full 10000");
    const std::vector<std::string> lines = quortest::ReadLines(BPF_SERVICE_ERROR_LOG);
    ASSERT_EQ(lines.size(), 9u + 4999u);
    EXPECT_EQ(lines[6], "ErrorCode: 6");
    EXPECT_EQ(lines[9], "line 0");
    EXPECT_EQ(lines.back(), "line 4998");  // the oldest line is dropped
}

TEST_F(ErrorLogTest, ConcurrentWritersLoseNothingAndLeaveOneWholeFile) {
    InitBpfServiceErrorLog();
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([] {
            for (int i = 0; i < 25; ++i) RecordBpfServiceErrorInfo(3, "concurrent");
        });
    }
    for (std::thread& w : writers) w.join();
    // Every record whole: eight lines and a blank one.
    EXPECT_EQ(quortest::ReadLines(BPF_SERVICE_ERROR_LOG).size(), 9u * 100);
    EXPECT_EQ(quortest::CountLines(BPF_SERVICE_ERROR_LOG, "Error: concurrent"), 100u);
    EXPECT_NE(access((std::string(BPF_SERVICE_ERROR_LOG) + ".tmp").c_str(), F_OK), 0);
}
