#include "fake_proc.h"

#include <dirent.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace {

void MakeParents(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        (void)mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

std::string ReadFromStart(int fd) {
    std::string bytes;
    char buf[4096];
    for (ssize_t n; (n = pread(fd, buf, sizeof(buf), bytes.size())) > 0;) bytes.append(buf, n);
    return bytes;
}

}  // namespace

FakeProc::FakeProc() {
    char dir[] = "/tmp/quor_fakeproc.XXXXXX";
    if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = dir;
}

FakeProc::~FakeProc() {
    (void)system(("rm -rf '" + root_ + "'").c_str());
}

void FakeProc::File(const std::string& rel, const std::string& text) {
    MakeParents(root_ + "/" + rel);
    std::ofstream out(root_ + "/" + rel, std::ios::binary | std::ios::trunc);
    if (!(out << text)) throw std::runtime_error("cannot write " + rel);
}

void FakeProc::Link(const std::string& rel, const std::string& target) {
    MakeParents(root_ + "/" + rel);
    if (symlink(target.c_str(), (root_ + "/" + rel).c_str()) != 0) {
        throw std::runtime_error("symlink " + rel);
    }
}

void FakeProc::Dir(const std::string& rel) {
    MakeParents(root_ + "/" + rel + "/");
}

std::vector<std::string> FakeProc::PidOrder() const {
    std::vector<std::string> pids;
    DIR* dir = opendir(root_.c_str());
    while (const dirent* entry = dir == nullptr ? nullptr : readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.find_first_not_of("0123456789") == std::string::npos) pids.push_back(name);
    }
    if (dir != nullptr) closedir(dir);
    return pids;
}

ChildRun RunInChild(const std::string& procRoot, const std::function<std::string()>& body) {
    ChildRun run;
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
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        run.exitCode = WEXITSTATUS(status);
    }
    run.out = ReadFromStart(outFd);
    run.log = ReadFromStart(logFd);
    (void)close(outFd);
    (void)close(logFd);
    return run;
}
