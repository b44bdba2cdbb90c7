#include "tools/quorbpfctl/daemon_finder.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "tools/quorbpfctl/ctl_exit_codes.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

bool ReadFirstLine(const std::string& path, std::string* line) {
    std::ifstream in(path);
    if (!in) return false;
    std::getline(in, *line);
    return true;
}

int32_t ParsePid(const std::string& text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    int64_t value = 0;
    size_t digits = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && digits < 10; ++i, ++digits) {
        value = value * 10 + (text[i] - '0');
    }
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\r')) ++i;
    if (digits == 0 || i != text.size() || value <= 0 || value > INT32_MAX) return 0;
    return static_cast<int32_t>(value);
}

}  // namespace

DaemonFinder::DaemonFinder(std::string procRoot, std::string name)
    : procRoot_(std::move(procRoot)), name_(std::move(name)) {}

std::string DaemonFinder::CommOf(int32_t pid) const {
    std::string comm;
    if (!ReadFirstLine(procRoot_ + "/" + std::to_string(pid) + "/comm", &comm)) return "";
    return comm;
}

std::vector<int32_t> DaemonFinder::FindByName() const {
    std::vector<int32_t> pids;
    DIR* dir = opendir(procRoot_.c_str());
    if (dir == nullptr) return pids;
    while (const dirent* entry = readdir(dir)) {
        const int32_t pid = ParsePid(entry->d_name);
        if (pid != 0 && CommOf(pid) == name_) pids.push_back(pid);
    }
    closedir(dir);
    std::sort(pids.begin(), pids.end());
    return pids;
}

DaemonLookup DaemonFinder::Find(int32_t explicitPid, const std::string& pidFile) const {
    DaemonLookup found;
    if (explicitPid > 0) {
        if (CommOf(explicitPid).empty()) {
            found.exitCode = kExitNotRunning;
            found.error = "no process " + std::to_string(explicitPid);
            return found;
        }
        found.pid = explicitPid;
        found.source = "--daemon-pid";
        return found;
    }
    std::string line;
    if (!pidFile.empty() && ReadFirstLine(pidFile, &line)) {
        const int32_t pid = ParsePid(line);
        if (pid != 0 && CommOf(pid) == name_) {
            found.pid = pid;
            found.source = pidFile;
            return found;
        }
    }
    const std::vector<int32_t> pids = FindByName();
    if (pids.size() == 1) {
        found.pid = pids[0];
        found.source = "process list";
        return found;
    }
    if (pids.empty()) {
        found.exitCode = kExitNotRunning;
        found.error = "the daemon is not running (no live pid in " + pidFile +
                      ", no process named " + name_ + ")";
        return found;
    }
    found.exitCode = kExitFailure;
    found.error = "several processes named " + name_ + ":";
    for (const int32_t pid : pids) found.error += " " + std::to_string(pid);
    found.error += "; choose one with --daemon-pid";
    return found;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
