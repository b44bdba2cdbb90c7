// Helpers for the tests that run quorbpfctl and quorbpfd as programs: run a
// shell command and collect its output and exit code, start the daemon with
// a private pid file and wait for its socket, poll a condition.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace QuorCtlTest {

struct Output {
    int code = -1;
    std::string out;
    std::string err;
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline std::string TempDir() {
    char pattern[] = "/tmp/quorbpfctl_it.XXXXXX";
    const char* dir = mkdtemp(pattern);
    return dir == nullptr ? "/tmp" : dir;
}

// Runs `command` with sh; stdout and stderr are collected separately.
inline Output Shell(const std::string& command) {
    static int serial = 0;
    const std::string base =
        "/tmp/quorbpfctl_run." + std::to_string(getpid()) + "." + std::to_string(serial++);
    const std::string full = command + " >" + base + ".out 2>" + base + ".err";
    Output output;
    const int status = system(full.c_str());
    output.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    output.out = ReadFile(base + ".out");
    output.err = ReadFile(base + ".err");
    (void)remove((base + ".out").c_str());
    (void)remove((base + ".err").c_str());
    return output;
}

// Starts `command` with sh in the background; its pid (sh execs the last
// command, so the pid is the command's own).
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
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline bool WaitFor(const std::function<bool()>& condition, int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return condition();
}

// The real daemon, in the test's private namespaces, with its own pid file.
class Daemon {
public:
    explicit Daemon(std::string dir) : dir_(std::move(dir)) {}
    ~Daemon() { Stop(); }

    std::string PidFile() const { return dir_ + "/quorbpfd.pid"; }
    pid_t Pid() const { return pid_; }

    // True once the service answers on its socket.
    bool Start() {
        pid_ = fork();
        if (pid_ == 0) {
            const std::string log = dir_ + "/quorbpfd.log";
            freopen(log.c_str(), "a", stderr);
            freopen("/dev/null", "w", stdout);
            execl(QUORBPFD_PATH, "quorbpfd", "--pid-file", PidFile().c_str(), nullptr);
            _exit(127);
        }
        // `watch --count 1` ends after one event of any type, which proves
        // the socket and the subscriptions work.
        return WaitFor(
            [&] {
                return Shell(std::string(QUORBPFCTL_PATH) + " watch --count 1 --timeout 1").code ==
                       0;
            },
            60000);
    }

    // SIGTERM and wait; the exit status.
    int Stop() {
        if (pid_ <= 0) return -1;
        kill(pid_, SIGTERM);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string Log() const { return ReadFile(dir_ + "/quorbpfd.log"); }

private:
    std::string dir_;
    pid_t pid_ = 0;
};

}  // namespace QuorCtlTest
