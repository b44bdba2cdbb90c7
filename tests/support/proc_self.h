// Files and this process's own entries in procfs, as the tests read them.
#pragma once

#include <dirent.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace quortest {

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

// Open descriptors of this process.
inline size_t OpenDescriptors() {
    size_t count = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
    return count - 1;  // the directory stream itself
}

// Threads of this process named `name`.
inline int ThreadsNamed(const std::string& name) {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (const dirent* entry = dir ? readdir(dir) : nullptr) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string text;
        count += std::getline(comm, text) && text == name;
    }
    if (dir) closedir(dir);
    return count;
}

// The "Threads:" line of a process's status file; -1 when it is gone.
inline int KernelThreadCount(int pid) {
    for (const std::string& line : ReadLines("/proc/" + std::to_string(pid) + "/status")) {
        if (line.rfind("Threads:\t", 0) == 0) return atoi(line.c_str() + 9);
    }
    return -1;
}

}  // namespace quortest
