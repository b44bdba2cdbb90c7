// A /proc-like tree in a temporary directory, and running code in a forked
// child with it mounted over /proc in a mount namespace of its own.
#pragma once

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>

class FakeProc {
public:
    FakeProc() {
        char dir[] = "/tmp/quor_fakeproc.XXXXXX";
        if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
        root_ = dir;
    }
    ~FakeProc() { (void)system(("rm -rf '" + root_ + "'").c_str()); }
    const std::string& root() const { return root_; }
    // Paths are relative to the root; missing parent directories are made.
    void File(const std::string& rel, const std::string& text) {
        std::ofstream out(Parents(rel), std::ios::binary | std::ios::trunc);
        if (!(out << text)) throw std::runtime_error("cannot write " + rel);
    }
    void Link(const std::string& rel, const std::string& target) {
        if (symlink(target.c_str(), Parents(rel).c_str()) != 0) {
            throw std::runtime_error("symlink " + rel);
        }
    }

private:
    std::string Parents(const std::string& rel) const {
        const std::string path = root_ + "/" + rel;
        for (size_t slash = path.find('/', 1); slash != std::string::npos;
             slash = path.find('/', slash + 1)) {
            (void)mkdir(path.substr(0, slash).c_str(), 0755);
        }
        return path;
    }

    std::string root_;
};

struct ChildRun {
    int exitCode = -1;  // -1 when the child died of a signal
    std::string out;    // what the body returned
    std::string log;    // what the child wrote to stderr (the service's log)
};

// Exit code of a child that could not mount the tree over /proc.
constexpr int kChildCannotMount = 77;

// Runs `body` in a forked child, with `procRoot` (when not empty) bind-mounted
// over /proc in the child's own mount namespace.
inline ChildRun RunInChild(const std::string& procRoot, const std::function<std::string()>& body) {
    const int outFd = memfd_create("quor_child_out", MFD_CLOEXEC);
    const int logFd = memfd_create("quor_child_log", MFD_CLOEXEC);
    const pid_t child = outFd < 0 || logFd < 0 ? -1 : fork();
    if (child == 0) {
        (void)dup2(logFd, STDERR_FILENO);
        if (!procRoot.empty() &&
            (unshare(CLONE_NEWNS) != 0 ||
             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             mount(procRoot.c_str(), "/proc", nullptr, MS_BIND, nullptr) != 0)) {
            _exit(kChildCannotMount);
        }
        const std::string out = body();
        _exit(write(outFd, out.data(), out.size()) == static_cast<ssize_t>(out.size()) ? 0 : 1);
    }
    ChildRun run;
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        run.exitCode = WEXITSTATUS(status);
    }
    for (auto [fd, text] : {std::make_pair(outFd, &run.out), std::make_pair(logFd, &run.log)}) {
        char buf[4096];
        for (ssize_t n; (n = pread(fd, buf, sizeof(buf), text->size())) > 0;) text->append(buf, n);
        (void)close(fd);
    }
    return run;
}
