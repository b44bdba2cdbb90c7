// Running quorbpfctl and quorbpfd as programs: shell commands with their
// output and exit code, the daemon with a private pid file, polling a
// condition, and a suite that shares one daemon.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>

#include "tests/support/proc_self.h"

namespace QuorCtlTest {

using quortest::ReadFile;

struct Output {
    int code = -1;
    std::string out;
    std::string err;
};

inline std::string TempDir() {
    char pattern[] = "/tmp/quorbpfctl_it.XXXXXX";
    return mkdtemp(pattern) == nullptr ? "/tmp" : pattern;
}

inline int ExitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs `command` with sh; stdout and stderr are collected separately.
inline Output Shell(const std::string& command) {
    static int serial = 0;
    const std::string base =
        "/tmp/quorbpfctl_run." + std::to_string(getpid()) + "." + std::to_string(serial++);
    Output output;
    output.code = ExitCode(system((command + " >" + base + ".out 2>" + base + ".err").c_str()));
    output.out = ReadFile(base + ".out");
    output.err = ReadFile(base + ".err");
    (void)remove((base + ".out").c_str());
    (void)remove((base + ".err").c_str());
    return output;
}

// Starts `command` in the background; sh execs it, so the pid is the command's own.
inline pid_t Spawn(const std::string& command) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

inline int Reap(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid ? ExitCode(status) : -1;
}

inline bool WaitFor(const std::function<bool()>& condition, int timeoutMs) {
    return quortest::WaitFor(condition, std::chrono::milliseconds(timeoutMs), 50);
}

// The real daemon, in the test's private namespaces, with its own pid file.
class Daemon {
public:
    explicit Daemon(std::string dir) : dir_(std::move(dir)) {}
    ~Daemon() { Stop(); }
    std::string PidFile() const { return dir_ + "/quorbpfd.pid"; }
    std::string Log() const { return ReadFile(dir_ + "/quorbpfd.log"); }

    // True once `watch --count 1` sees an event: the socket and subscriptions
    // work. The probe makes its own events (a short-lived process every
    // 100 ms while watch runs): an idle machine has none to offer.
    bool Start() {
        pid_ = fork();
        if (pid_ == 0) {
            (void)freopen((dir_ + "/quorbpfd.log").c_str(), "a", stderr);
            (void)freopen("/dev/null", "w", stdout);
            execl(QUORBPFD_PATH, "quorbpfd", "--pid-file", PidFile().c_str(), nullptr);
            _exit(127);
        }
        const std::string watch = "{ " + std::string(QUORBPFCTL_PATH) +
                                  " watch --count 1 --timeout 2 & w=$!; i=0;"
                                  " while kill -0 $w 2>/dev/null && [ $i -lt 25 ]; do"
                                  " sleep 0.1; i=$((i+1)); done; wait $w; }";
        return WaitFor([&] { return Shell(watch).code == 0; }, 60000);
    }

    // SIGTERM and wait; the exit status.
    int Stop() {
        if (pid_ <= 0) return -1;
        kill(pid_, SIGTERM);
        const int code = Reap(pid_);
        pid_ = 0;
        return code;
    }

private:
    std::string dir_;
    pid_t pid_ = 0;
};

// The tests of a suite share one daemon, started before the first of them.
class DaemonSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        (void)Shell("ip link set lo up");  // down in a new network namespace
        daemon_ = std::make_unique<Daemon>(dir_);
        started_ = daemon_->Start();
    }
    static void TearDownTestSuite() { daemon_.reset(); }
    void SetUp() override {
        if (!started_) GTEST_SKIP() << "the daemon did not start here:\n" << daemon_->Log();
    }
    static std::string Ctl(const std::string& args) {
        return std::string(QUORBPFCTL_PATH) + " " + args + " --pid-file " + daemon_->PidFile();
    }

    static inline const std::string dir_ = TempDir();
    static inline std::unique_ptr<Daemon> daemon_;
    static inline bool started_ = false;
};

}  // namespace QuorCtlTest
