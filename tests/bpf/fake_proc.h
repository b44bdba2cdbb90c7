// A process tree laid out like /proc in a temporary directory, and a way to
// run code with it mounted over /proc: in a forked child with a mount
// namespace of its own, so the test process keeps the real /proc and the
// child starts from its state (the service singleton included).
#pragma once

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
    // The all-digit entries in readdir order, the order the service's walks visit them.
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

// Runs `body` in a forked child, with `procRoot` (when not empty) bind-mounted
// over /proc in the child's own mount namespace.
ChildRun RunInChild(const std::string& procRoot, const std::function<std::string()>& body);
