// A process tree laid out like /proc in a temporary directory, and a way to
// run code with it mounted over /proc: the code runs in a forked child with a
// mount namespace of its own, so the test process keeps the real /proc and
// the child starts from the test process's state (the service singleton
// included) without changing it.
#pragma once

#include <cstring>
#include <functional>
#include <string>
#include <vector>

class FakeProc {
public:
    FakeProc();
    ~FakeProc();
    FakeProc(const FakeProc&) = delete;
    FakeProc& operator=(const FakeProc&) = delete;

    const std::string& root() const { return root_; }
    // Paths are relative to the root; missing parent directories are made.
    void File(const std::string& rel, const std::string& text);
    void Link(const std::string& rel, const std::string& target);
    void Dir(const std::string& rel);
    // The all-digit entries of the root in the order readdir returns them,
    // which is the order the service's walks visit them.
    std::vector<std::string> PidOrder() const;

private:
    std::string root_;
};

struct ChildRun {
    int exitCode = -1;  // -1 when the child died of a signal
    std::string out;    // what the body returned
    std::string log;    // what the child wrote to stderr (the service's log)
};

// Exit code of a child that could not mount the tree over /proc.
constexpr int kChildCannotMount = 77;

// Runs `body` in a forked child. With a non-empty `procRoot` that tree is
// bind-mounted over /proc first, in the child's own mount namespace.
ChildRun RunInChild(const std::string& procRoot, const std::function<std::string()>& body);

template <typename T>
std::string AsBytes(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}

// The `index`-th T of `bytes`; zero-filled when `bytes` is too short.
template <typename T>
T FromBytes(const std::string& bytes, size_t index = 0) {
    T value;
    memset(&value, 0, sizeof(value));
    if (bytes.size() >= (index + 1) * sizeof(T)) {
        memcpy(&value, bytes.data() + index * sizeof(T), sizeof(T));
    }
    return value;
}
