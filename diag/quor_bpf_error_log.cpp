#include "diag/quor_bpf_error_log.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <list>
#include <mutex>

#include "diag/quor_bpf_log.h"
#include "diag/quor_bpf_strings.h"

namespace Quor {
namespace Bpf {

namespace {

constexpr int kMaxOldLines = 4999;

// One writer at a time: each record rewrites the whole file from what it read,
// so two interleaved rewrites would lose a record or mix their lines.
std::mutex gErrorLogMutex;

std::string LocalTimeText() {
    char text[64] = {};
    const time_t now = time(nullptr);
    struct tm local = {};
    if (localtime_r(&now, &local) != nullptr) {
        strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    }
    return text;
}

std::string CommandLine() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    if (!in.is_open()) return std::string();
    std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (char& c : cmdline) {
        if (c == '\0') c = ' ';
    }
    if (!cmdline.empty() && cmdline.back() == ' ') cmdline.pop_back();
    return cmdline;
}

std::string ThreadName() {
    char name[17] = {};
    if (prctl(PR_GET_NAME, name, 0, 0, 0) != 0) return std::string();
    return name;
}

}  // namespace

int InitBpfServiceErrorLog() {
    (void)mkdir(BPF_SERVICE_LOG_DIR, 0775);
    return rename(BPF_SERVICE_ERROR_LOG, BPF_SERVICE_ERROR_OLD_LOG);
}

void RecordBpfServiceErrorInfo(int32_t code, const std::string& message) {
    std::list<std::string> lines;
    lines.push_back(StringPrintf(
        "----------\nTime: %s\nPid: %d\nTid: %d\nCmdline: %s\nComm: %s\nErrorCode: %d\nError: %s\n",
        LocalTimeText().c_str(), getpid(), gettid(), CommandLine().c_str(), ThreadName().c_str(),
        code, message.c_str()));

    std::lock_guard<std::mutex> lock(gErrorLogMutex);
    std::ifstream old(BPF_SERVICE_ERROR_LOG);
    if (!old.is_open()) {
        QLOGE(QUOR_TAG_UTILS, "failed to read %s, error: %s", BPF_SERVICE_ERROR_LOG,
              strerror(errno));
    } else {
        std::string line;
        for (int count = 0; count < kMaxOldLines && std::getline(old, line); ++count) {
            lines.push_back(line);
        }
        old.close();
    }

    // The new content goes to a file beside the log and replaces it in one
    // rename: a crash mid-write leaves the old log whole, never a torn one.
    const std::string temp = std::string(BPF_SERVICE_ERROR_LOG) + ".tmp";
    const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        QLOGE(QUOR_TAG_UTILS, "failed to write %s, error: %s", BPF_SERVICE_ERROR_LOG,
              strerror(errno));
        return;
    }
    std::string content;
    for (const std::string& element : lines) {
        content += element;
        content += '\n';
    }
    bool written = true;
    for (size_t done = 0; done < content.size();) {
        const ssize_t n = write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            written = false;
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (written && fsync(fd) != 0) written = false;
    const int saved = errno;
    (void)close(fd);
    if (!written || rename(temp.c_str(), BPF_SERVICE_ERROR_LOG) != 0) {
        QLOGE(QUOR_TAG_UTILS, "failed to write %s, error: %s", BPF_SERVICE_ERROR_LOG,
              strerror(written ? errno : saved));
        (void)unlink(temp.c_str());
    }
}

bool RecordBpfServiceErrorInfoLimited(RateLimiter* limiter, int32_t code,
                                      const std::string& message) {
    uint64_t heldBack = 0;
    if (!limiter->allow(&heldBack)) return false;
    if (heldBack == 0) {
        RecordBpfServiceErrorInfo(code, message);
    } else {
        RecordBpfServiceErrorInfo(
            code, message + StringPrintf(" (%llu more not recorded)",
                                         static_cast<unsigned long long>(heldBack)));
    }
    return true;
}

}  // namespace Bpf
}  // namespace Quor
