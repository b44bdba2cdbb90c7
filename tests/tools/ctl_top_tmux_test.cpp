// `quorbpfctl top` in a real terminal (tmux): a process this test starts
// and fills with memory shows up with its size; q and SIGTERM both end the
// view with the terminal's line mode and echo restored.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>

#include "tests/tools/ctl_test_support.h"

using namespace QuorCtlTest;

namespace {

class TopTmuxTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (Shell("tmux -V").code != 0) GTEST_SKIP() << "tmux is not installed";
        dir_ = TempDir();
        tmux_ = "tmux -f /dev/null -S " + dir_ + "/tmux.sock";
        daemon_ = std::make_unique<Daemon>(dir_);
        if (!daemon_->Start()) GTEST_SKIP() << "the daemon did not start here:\n" << daemon_->Log();
    }
    void TearDown() override {
        if (!tmux_.empty()) (void)Shell(tmux_ + " kill-server");
        if (hog_ > 0) {
            kill(hog_, SIGKILL);
            waitpid(hog_, nullptr, 0);
        }
    }
    // Runs top in a new tmux session; the pane keeps a shell afterwards that
    // prints top's exit code and the terminal's settings.
    void StartTop() {
        const std::string script = std::string(QUORBPFCTL_PATH) + " top --pid-file " +
                                   daemon_->PidFile() +
                                   "; echo TOP-EXIT=$?; stty -a | tr -s ' ;\\n' '\\n\\n\\n' | "
                                   "grep -x -e -icanon -e icanon -e -echo -e echo | tr '\\n' ' '; "
                                   "echo TTY-CHECKED; sleep 120";
        ASSERT_EQ(Shell(tmux_ + " new-session -d -s top -x 120 -y 40 \"" + script + "\"").code, 0);
        ASSERT_TRUE(
            WaitFor([&] { return Screen().find("quorbpfctl top") != std::string::npos; }, 20000))
            << Screen();
    }
    std::string Screen() { return Shell(tmux_ + " capture-pane -p -t top").out; }
    // The pid of top: the pane's shell's child.
    pid_t TopPid() {
        const Output pane = Shell(tmux_ + " display -p -t top '#{pane_pid}'");
        const Output child =
            Shell("pgrep -P " + std::to_string(atoi(pane.out.c_str())) + " -x quorbpfctl");
        return atoi(child.out.c_str());
    }

    std::string dir_;
    std::string tmux_;
    std::unique_ptr<Daemon> daemon_;
    pid_t hog_ = 0;
};

// The row of `pid` on the screen, "" when it is not shown.
std::string RowOf(const std::string& screen, pid_t pid) {
    std::istringstream lines(screen);
    std::string line;
    char prefix[16];
    snprintf(prefix, sizeof(prefix), "%7d ", pid);
    while (std::getline(lines, line)) {
        if (line.rfind(prefix, 0) == 0) return line;
    }
    return "";
}

TEST_F(TopTmuxTest, ShowsAGrowingProcessAndQuitsCleanly) {
    StartTop();
    // Started after the view: it is known from the service's events only.
    constexpr size_t kHogBytes = 256 * 1024 * 1024;
    hog_ = fork();
    if (hog_ == 0) {
        prctl(PR_SET_NAME, "quor_top_hog", 0, 0, 0);
        // Written through a volatile pointer, page by page, so that the
        // compiler cannot drop an allocation nobody reads.
        volatile char* block = static_cast<volatile char*>(malloc(kHogBytes));
        for (size_t i = 0; block != nullptr && i < kHogBytes; i += 4096) block[i] = 1;
        for (;;) pause();
    }
    std::string row;
    ASSERT_TRUE(WaitFor(
        [&] {
            row = RowOf(Screen(), hog_);
            double rssMiB = 0;
            char comm[32] = {};
            return sscanf(row.c_str(), "%*d %31s %lf MiB", comm, &rssMiB) == 2 &&
                   strcmp(comm, "quor_top_hog") == 0 && rssMiB >= 250;
        },
        20000))
        << "row: " << row << "\n"
        << Screen();
    EXPECT_NE(row.find("new"), std::string::npos) << row;
    printf("%s\n", Screen().c_str());  // what a person saw

    ASSERT_EQ(Shell(tmux_ + " send-keys -t top q").code, 0);
    ASSERT_TRUE(WaitFor([&] { return Screen().find("TTY-CHECKED") != std::string::npos; }, 10000));
    const std::string after = Screen();
    EXPECT_NE(after.find("TOP-EXIT=0"), std::string::npos) << after;
    EXPECT_NE(after.find("icanon echo"), std::string::npos) << after;
    EXPECT_EQ(after.find("quorbpfctl top "), std::string::npos) << "the alternate screen is gone";
}

TEST_F(TopTmuxTest, SigtermRestoresTheTerminal) {
    StartTop();
    const pid_t top = TopPid();
    ASSERT_GT(top, 0);
    kill(top, SIGTERM);
    ASSERT_TRUE(WaitFor([&] { return Screen().find("TTY-CHECKED") != std::string::npos; }, 10000))
        << Screen();
    const std::string after = Screen();
    EXPECT_NE(after.find("TOP-EXIT=0"), std::string::npos) << after;
    EXPECT_NE(after.find("icanon echo"), std::string::npos) << after;
}

}  // namespace
