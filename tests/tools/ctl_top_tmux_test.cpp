// `quorbpfctl top` in tmux: a process filled with memory shows up; q and
// SIGTERM both end the view with line mode and echo restored.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include "tests/tools/ctl_test_support.h"

using namespace QuorCtlTest;

namespace {

class TopTmuxTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (Shell("tmux -V").code != 0) GTEST_SKIP() << "tmux is not installed";
        const std::string dir = TempDir();
        tmux_ = "tmux -f /dev/null -S " + dir + "/tmux.sock";
        daemon_ = std::make_unique<Daemon>(dir);
        if (!daemon_->Start()) GTEST_SKIP() << "the daemon did not start here:\n" << daemon_->Log();
        // After top the pane's shell prints top's exit code and the terminal's settings.
        const std::string script = std::string(QUORBPFCTL_PATH) + " top --pid-file " +
                                   daemon_->PidFile() +
                                   "; echo TOP-EXIT=$?; stty -a | tr -s ' ;\\n' '\\n\\n\\n' | "
                                   "grep -x -e -icanon -e icanon -e -echo -e echo | tr '\\n' ' '; "
                                   "echo TTY-CHECKED; sleep 120";
        ASSERT_EQ(Shell(tmux_ + " new-session -d -s top -x 120 -y 40 \"" + script + "\"").code, 0);
        ASSERT_TRUE(ScreenShows("quorbpfctl top", 20000)) << Screen();
    }
    void TearDown() override {
        if (!tmux_.empty()) (void)Shell(tmux_ + " kill-server");
        if (hog_ > 0) {
            kill(hog_, SIGKILL);
            waitpid(hog_, nullptr, 0);
        }
    }
    std::string Screen() { return Shell(tmux_ + " capture-pane -p -t top").out; }
    bool ScreenShows(const char* text, int ms) {
        return WaitFor([&] { return Screen().find(text) != std::string::npos; }, ms);
    }
    // Once top has ended: it exited with 0 and left the terminal as it found it.
    void ExpectCleanExit() {
        ASSERT_TRUE(ScreenShows("TTY-CHECKED", 10000)) << Screen();
        const std::string after = Screen();
        EXPECT_NE(after.find("TOP-EXIT=0"), std::string::npos) << after;
        EXPECT_NE(after.find("icanon echo"), std::string::npos) << after;
        EXPECT_EQ(after.find("quorbpfctl top "), std::string::npos)
            << "the alternate screen is gone";
    }

    std::string tmux_;
    std::unique_ptr<Daemon> daemon_;
    pid_t hog_ = 0;
};

// The row of `pid` on the screen, "" when it is not shown.
std::string RowOf(const std::string& screen, pid_t pid) {
    std::istringstream lines(screen);
    char prefix[16];
    snprintf(prefix, sizeof(prefix), "%7d ", pid);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(prefix, 0) == 0) return line;
    }
    return "";
}

TEST_F(TopTmuxTest, ShowsAGrowingProcessAndQuitsCleanly) {
    // Started after the view: it is known from the service's events only.
    constexpr size_t kHogBytes = 256 * 1024 * 1024;
    hog_ = fork();
    if (hog_ == 0) {
        prctl(PR_SET_NAME, "quor_top_hog", 0, 0, 0);
        // Written through a volatile pointer so that the allocation stays.
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
    ExpectCleanExit();
}

TEST_F(TopTmuxTest, SigtermRestoresTheTerminal) {
    // top is the child of the pane's shell.
    const Output pane = Shell(tmux_ + " display -p -t top '#{pane_pid}'");
    const pid_t top =
        atoi(Shell("pgrep -P " + pane.out.substr(0, pane.out.find('\n')) + " -x quorbpfctl")
                 .out.c_str());
    ASSERT_GT(top, 0);
    kill(top, SIGTERM);
    ExpectCleanExit();
}

}  // namespace
