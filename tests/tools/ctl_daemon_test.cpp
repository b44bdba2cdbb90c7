// quorbpfctl against the real daemon in private namespaces: tasks, stats,
// `watch --json` read back by python, exit codes, watch across a restart.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "tests/tools/ctl_test_support.h"

using namespace QuorCtlTest;

namespace {

const std::string kCtl = QUORBPFCTL_PATH;

size_t CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

class CtlDaemonTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        daemon_ = std::make_unique<Daemon>(dir_);
        started_ = daemon_->Start();
    }
    static void TearDownTestSuite() { daemon_.reset(); }
    void SetUp() override {
        if (!started_) GTEST_SKIP() << "the daemon did not start here:\n" << daemon_->Log();
    }
    static std::string Ctl(const std::string& args) {
        return kCtl + " " + args + " --pid-file " + daemon_->PidFile();
    }

    static inline const std::string dir_ = TempDir();
    static inline std::unique_ptr<Daemon> daemon_;
    static inline bool started_ = false;
};

TEST_F(CtlDaemonTest, TasksPrintsTheWholeTableWithThisProcess) {
    const Output full = Shell(Ctl("tasks"));
    ASSERT_EQ(full.code, 0) << full.err;
    unsigned count = 0;
    ASSERT_EQ(sscanf(full.out.c_str(), "============ DUMP ALL QUOR TASKS INFO (count: %u", &count),
              1)
        << full.out.substr(0, 200);
    EXPECT_EQ(CountLines(full.out), count + 2u);
    EXPECT_NE(full.out.find("oldThreadNum"), std::string::npos);
    // This test process was there when the daemon scanned /proc.
    char row[64];
    snprintf(row, sizeof(row), "   %-12d%-12d", getpid(), getppid());
    EXPECT_NE(full.out.find(row), std::string::npos);

    const Output normal = Shell(Ctl("tasks --normal --no-kernel"));
    ASSERT_EQ(normal.code, 0) << normal.err;
    EXPECT_EQ(normal.out.find("oldThreadNum"), std::string::npos);
    EXPECT_LT(CountLines(normal.out), count + 2u) << "kernel threads are left out";
    EXPECT_NE(normal.out.find(row), std::string::npos);
}

TEST_F(CtlDaemonTest, StatsSummarisesAndPlots) {
    const std::string svg = dir_ + "/rates.svg";
    const Output stats = Shell(Ctl("stats --plot " + svg));
    ASSERT_EQ(stats.code, 0) << stats.err;
    for (const char* text : {"event statistics:", "sched_task_create", "ring-buffer polls"}) {
        EXPECT_NE(stats.out.find(text), std::string::npos) << stats.out;
    }
    EXPECT_NE(stats.out.find("chart written to " + svg), std::string::npos);
    // The daemon seeded its registry: at least quor_task_init has data (the
    // chart itself is checked with an XML parser in ctl_files_test).
    EXPECT_NE(ReadFile(svg).find("<polyline"), std::string::npos);
}

TEST_F(CtlDaemonTest, WatchJsonIsValidForHostileNames) {
    const std::string out = dir_ + "/watch.jsonl";
    // The name is set after the fork, so only exit records carry it.
    const pid_t watch = Spawn(Ctl("watch sched_task_create sched_task_exit task_new task_exit "
                                  "--json --count 4 --timeout 10 --comm qtest") +
                              " >" + out + " 2>" + out + ".err");
    ASSERT_TRUE(WaitFor(
        [&] {
            const pid_t child = fork();
            if (child == 0) {
                prctl(PR_SET_NAME, "qtest\"\\\x01\xff", 0, 0, 0);
                _exit(0);
            }
            waitpid(child, nullptr, 0);
            return CountLines(ReadFile(out)) >= 4;
        },
        20000))
        << ReadFile(out) << ReadFile(out + ".err");
    EXPECT_EQ(Reap(watch), 0) << "--count ends watch with success";
    if (Shell("python3 -c pass").code != 0) GTEST_SKIP() << "python3 is missing";
    const Output check = Shell(
        "python3 -c \"import sys, json\n"
        "events = [json.loads(line) for line in open(sys.argv[1])]\n"
        "assert len(events) == 4, len(events)\n"
        "for e in events:\n"
        "    assert e['name'] in ('sched_task_exit', 'task_exit'), e\n"
        "    assert e['comm'] == 'qtest\\\"\\\\\\\\\\\\x01\\\\xff', repr(e['comm'])\n"
        "    assert isinstance(e['time'], str) and e['pid'] > 0, e\n"
        "\" " +
        out);
    EXPECT_EQ(check.code, 0) << check.err << ReadFile(out);
}

TEST_F(CtlDaemonTest, ErrorsHaveTheirExitCodes) {
    const std::pair<const char*, int> cases[] = {
        {" watch no_such_type", 2},
        {" tasks --daemon-pid abc", 2},
        {" tasks --daemon-pid 4194303", 3},
        {" top </dev/null", 6},
    };
    for (const auto& [args, code] : cases) EXPECT_EQ(Shell(kCtl + args).code, code) << args;
    const Output noSocket = Shell(kCtl + " watch --socket /no/such/socket --timeout 1");
    EXPECT_EQ(noSocket.code, 3);
    EXPECT_NE(noSocket.err.find("the service is not running"), std::string::npos) << noSocket.err;
    // A process that never answers: the dump times out.
    const pid_t silent = fork();
    if (silent == 0) {
        signal(51, [](int) {});
        for (;;) pause();
    }
    const Output timeout = Shell(kCtl + " tasks --timeout 1 --dir " + dir_ + " --daemon-pid " +
                                 std::to_string(silent));
    EXPECT_EQ(timeout.code, 5) << timeout.err;
    kill(silent, SIGKILL);
    waitpid(silent, nullptr, 0);
}

// Last: restarts the daemon.
TEST_F(CtlDaemonTest, WatchFollowsTheServiceAcrossARestart) {
    const std::string out = dir_ + "/restart.txt";
    const pid_t watch =
        Spawn(kCtl + " watch sched_task_create --timeout 10 >" + out + " 2>" + out + ".err");
    const auto newEvents = [&](size_t after) {
        // Each poll forks a shell: an event to report.
        return WaitFor([&] { return Shell("true").code == 0 && ReadFile(out).size() > after; },
                       15000);
    };
    const auto errSays = [&](const char* text, int ms) {
        return WaitFor([&] { return ReadFile(out + ".err").find(text) != std::string::npos; }, ms);
    };
    ASSERT_TRUE(newEvents(0)) << "no event before the restart";
    ASSERT_EQ(daemon_->Stop(), 0);
    ASSERT_TRUE(errSays("lost the connection", 10000)) << ReadFile(out + ".err");
    ASSERT_TRUE(daemon_->Start()) << daemon_->Log();
    ASSERT_TRUE(errSays("reconnected", 15000)) << ReadFile(out + ".err");
    EXPECT_TRUE(newEvents(ReadFile(out).size())) << "the subscription was renewed";
    kill(watch, SIGINT);
    EXPECT_EQ(Reap(watch), 0) << "Ctrl-C ends watch with success";
}

}  // namespace
