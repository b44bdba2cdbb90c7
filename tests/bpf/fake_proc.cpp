#include "fake_proc.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <stdexcept>

namespace {

void MakeParents(const std::string& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        (void)mkdir(path.substr(0, slash).c_str(), 0755);
    }
}

bool WriteAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string ReadFromStart(int fd) {
    std::string bytes;
    char buf[4096];
    ssize_t n;
    off_t offset = 0;
    while ((n = pread(fd, buf, sizeof(buf), offset)) > 0) {
        bytes.append(buf, static_cast<size_t>(n));
        offset += n;
    }
    return bytes;
}

}  // namespace

FakeProc::FakeProc() {
    char dir[] = "/tmp/quor_fakeproc.XXXXXX";
    if (mkdtemp(dir) == nullptr) throw std::runtime_error("mkdtemp failed");
    root_ = dir;
}

FakeProc::~FakeProc() {
    (void)nftw(
        root_.c_str(),
        [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 16,
        FTW_DEPTH | FTW_PHYS);
}

void FakeProc::File(const std::string& rel, const std::string& text) {
    const std::string path = root_ + "/" + rel;
    MakeParents(path);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 || !WriteAll(fd, text)) throw std::runtime_error("cannot write " + path);
    close(fd);
}

void FakeProc::Link(const std::string& rel, const std::string& target) {
    const std::string path = root_ + "/" + rel;
    MakeParents(path);
    if (symlink(target.c_str(), path.c_str()) != 0) throw std::runtime_error("symlink " + path);
}

void FakeProc::Dir(const std::string& rel) {
    const std::string path = root_ + "/" + rel + "/";
    MakeParents(path);
}

std::vector<std::string> FakeProc::PidOrder() const {
    std::vector<std::string> pids;
    DIR* dir = opendir(root_.c_str());
    if (dir == nullptr) return pids;
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        bool digits = !name.empty();
        for (const char c : name) digits = digits && isdigit(static_cast<unsigned char>(c));
        if (digits) pids.push_back(name);
    }
    closedir(dir);
    return pids;
}

ChildRun RunInChild(const std::string& procRoot, const std::function<std::string()>& body) {
    ChildRun run;
    const int outFd = memfd_create("quor_child_out", MFD_CLOEXEC);
    const int logFd = memfd_create("quor_child_log", MFD_CLOEXEC);
    if (outFd < 0 || logFd < 0) return run;
    const pid_t child = fork();
    if (child == 0) {
        (void)dup2(logFd, STDERR_FILENO);
        if (!procRoot.empty() &&
            (unshare(CLONE_NEWNS) != 0 ||
             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
             mount(procRoot.c_str(), "/proc", nullptr, MS_BIND, nullptr) != 0)) {
            _exit(kChildCannotMount);
        }
        _exit(WriteAll(outFd, body()) ? 0 : 1);
    }
    int status = 0;
    if (child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status)) {
        run.exitCode = WEXITSTATUS(status);
    }
    run.out = ReadFromStart(outFd);
    run.log = ReadFromStart(logFd);
    close(outFd);
    close(logFd);
    return run;
}
