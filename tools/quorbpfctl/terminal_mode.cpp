#include "tools/quorbpfctl/terminal_mode.h"

#include <errno.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>

namespace Quor {
namespace Bpf {
namespace Ctl {

namespace {

constexpr const char kEnterScreen[] = "\x1b[?1049h\x1b[?25l\x1b[H\x1b[2J";
constexpr const char kLeaveScreen[] = "\x1b[?25h\x1b[?1049l";

void WriteAll(int fd, const char* text, size_t length) {
    while (length > 0) {
        const ssize_t wrote = write(fd, text, length);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return;
        text += wrote;
        length -= static_cast<size_t>(wrote);
    }
}

}  // namespace

bool TerminalMode::Enter(int inputFd, int outputFd, std::string* error) {
    if (active_) return true;
    if (tcgetattr(inputFd, &saved_) != 0) {
        *error = std::string("cannot read the terminal's settings: ") + strerror(errno);
        return false;
    }
    termios raw = saved_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(inputFd, TCSAFLUSH, &raw) != 0) {
        *error = std::string("cannot set the terminal's mode: ") + strerror(errno);
        return false;
    }
    inputFd_ = inputFd;
    outputFd_ = outputFd;
    active_ = true;
    WriteAll(outputFd_, kEnterScreen, sizeof(kEnterScreen) - 1);
    return true;
}

void TerminalMode::Restore() {
    if (!active_) return;
    active_ = false;
    WriteAll(outputFd_, kLeaveScreen, sizeof(kLeaveScreen) - 1);
    (void)tcsetattr(inputFd_, TCSAFLUSH, &saved_);
}

void TerminalMode::Size(int* rows, int* columns) const {
    winsize size = {};
    if (ioctl(outputFd_ >= 0 ? outputFd_ : STDOUT_FILENO, TIOCGWINSZ, &size) == 0 &&
        size.ws_row > 0 && size.ws_col > 0) {
        *rows = size.ws_row;
        *columns = size.ws_col;
        return;
    }
    *rows = 24;
    *columns = 80;
}

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
