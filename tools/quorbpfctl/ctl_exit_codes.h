// Exit codes of quorbpfctl, shared by every command so that scripts can tell
// "the service is not there" from "you may not ask it" from "you typed it
// wrong". The help text lists them; keep the two in step.
#pragma once

namespace Quor {
namespace Bpf {
namespace Ctl {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;       // anything not covered below
constexpr int kExitUsage = 2;         // bad arguments, unknown event type
constexpr int kExitNotRunning = 3;    // no daemon found / socket not answering
constexpr int kExitPermission = 4;    // not allowed to signal the daemon or read its files
constexpr int kExitTimeout = 5;       // the daemon did not write the file in time
constexpr int kExitNotATerminal = 6;  // top needs a terminal

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
