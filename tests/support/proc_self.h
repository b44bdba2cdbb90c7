// Files and this process's own entries in procfs, as the tests read them.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace quortest {

// Polls `condition` every `pollMs` until it holds or `limit` passes.
inline bool WaitFor(const std::function<bool()>& condition,
                    std::chrono::milliseconds limit = std::chrono::milliseconds(5000),
                    int pollMs = 5) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
    }
    return true;
}

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

inline std::vector<std::string> ReadLines(const std::string& path) {
    std::istringstream in(ReadFile(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline size_t OpenDescriptors() {
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
    return count - 1;  // the directory stream itself
}

// The /proc/self/task directories of this process's threads named `name`.
inline std::vector<std::string> ThreadDirs(const std::string& name) {
    std::vector<std::string> dirs;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* task = tasks != nullptr ? readdir(tasks) : nullptr) {
        const std::string dir = std::string("/proc/self/task/") + task->d_name;
        if (task->d_name[0] != '.' && ReadFile(dir + "/comm") == name + "\n") dirs.push_back(dir);
    }
    if (tasks != nullptr) closedir(tasks);
    return dirs;
}

inline int ThreadsNamed(const std::string& name) {
    return static_cast<int>(ThreadDirs(name).size());
}

// The "Threads:" line of a process's status file; -1 when it is gone.
inline int KernelThreadCount(int pid) {
    for (const std::string& line : ReadLines("/proc/" + std::to_string(pid) + "/status")) {
        if (line.rfind("Threads:\t", 0) == 0) return atoi(line.c_str() + 9);
    }
    return -1;
}

inline size_t CountLines(const std::string& path, const std::string& needle) {
    size_t count = 0;
    for (const std::string& line : ReadLines(path)) count += line.find(needle) != std::string::npos;
    return count;
}

// CPU time (user + system, ms) used so far by this process's thread named
// `name`; -1 when there is none.
inline long ThreadCpuMs(const std::string& name) {
    const std::vector<std::string> dirs = ThreadDirs(name);
    // Fields 14 and 15 (utime, stime) follow the ")" that ends the name.
    const std::string stat = dirs.empty() ? "" : ReadFile(dirs[0] + "/stat");
    const size_t end = stat.rfind(')');
    unsigned long utime = 0, stime = 0;
    if (end == std::string::npos ||
        sscanf(stat.c_str() + end + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
               &utime, &stime) != 2) {
        return -1;
    }
    return static_cast<long>((utime + stime) * 1000 / sysconf(_SC_CLK_TCK));
}

}  // namespace quortest
