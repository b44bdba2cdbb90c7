// TerminalMode: puts a terminal into the mode a full-screen view needs and
// gives it back exactly as it was.
//
// Enter() saves the terminal's settings, turns off line buffering and echo
// (keys arrive one at a time, unseen; Ctrl-C still raises SIGINT), switches
// to the alternate screen and hides the cursor. Restore() undoes all of it;
// it is idempotent and also runs from the destructor. The caller handles
// SIGINT/SIGTERM itself (quorbpfctl top waits for them on a signalfd) and
// lets the destructor or Restore() run before the process ends.
//
//   TerminalMode terminal;
//   if (!terminal.Enter(STDIN_FILENO, STDOUT_FILENO, &error)) ...
//   ... draw, read keys ...
//   terminal.Restore();
//
// One owner thread.
#pragma once

#include <termios.h>

#include <string>

namespace Quor {
namespace Bpf {
namespace Ctl {

class TerminalMode {
public:
    TerminalMode() = default;
    ~TerminalMode() { Restore(); }
    TerminalMode(const TerminalMode&) = delete;
    TerminalMode& operator=(const TerminalMode&) = delete;

    bool Enter(int inputFd, int outputFd, std::string* error);
    void Restore();

    // Rows and columns of the output terminal; 24 x 80 when unknown.
    void Size(int* rows, int* columns) const;

private:
    int inputFd_ = -1;
    int outputFd_ = -1;
    bool active_ = false;
    termios saved_ = {};
};

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
