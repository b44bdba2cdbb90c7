// quorbpfd: the host process of libquorbpfservice on a Linux machine.
//
// On a device the platform sets properties, creates the log directory and
// loads the kernel programmes before it starts the service. Here this daemon
// plays that part: it takes properties from the command line, sets
// "ro.kernel.version" from uname, creates the log directory, loads and pins
// both programme sets under /sys/fs/bpf/quor/ (unless --no-load) and then
// sets "sys.quor_bpf_ready" to "1", starts the service and blocks until
// SIGINT, SIGTERM or SIGQUIT, which stop it (exit code 0). With --unpin-on-exit it
// removes the pins it made when it stops. While the service runs, its pid is
// in /run/quorbpfd.pid (--pid-file), so that quorbpfctl can send it the dump
// signals; the file is removed on a clean stop. --allow-uid and --allow-gid
// name further users and groups whose processes may connect; they reach the
// service as the properties "persist.sys.quorbpf.allow_uids" / "allow_gids".
#include <android-base/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bpf/quor_bpf_compat.h"
#include "diag/quor_bpf_log.h"
#include "quor/bpf_service_main.h"
#include "service/quor_bpf_service_settings.h"
#include "tools/loader/quor_bpf_loader.h"

namespace {

constexpr const char* kTag = "quorbpfd";
constexpr const char* kLogDir = "/data/quorlog/stability/quorbpfframework/";
constexpr const char* kDefaultPidFile = "/run/quorbpfd.pid";

void Usage(FILE* out) {
    fprintf(out,
            "usage: quorbpfd [--no-load] [--unpin-on-exit] [--pid-file PATH]\n"
            "                [--property KEY=VALUE]... [--allow-uid UID]... [--allow-gid GID]...\n"
            "\n"
            "Loads and pins the BPF programme sets under /sys/fs/bpf/quor/, then starts\n"
            "the kernel-event service in the foreground. SIGINT, SIGTERM or SIGQUIT stop it.\n"
            "\n"
            "  --no-load             do not load the programmes (the platform does) and\n"
            "                        leave \"sys.quor_bpf_ready\" to the platform too\n"
            "  --unpin-on-exit       remove the pins made at start when stopping\n"
            "  --pid-file PATH       where to write the daemon's pid while it runs\n"
            "                        (default /run/quorbpfd.pid; \"\" for none)\n"
            "  --property KEY=VALUE  set a system property before the service starts\n"
            "                        (repeatable); \"ro.kernel.version\" defaults to the\n"
            "                        running kernel's major.minor\n"
            "  --allow-uid UID       let processes of this user (id or name) connect;\n"
            "                        uid 0 and the daemon's own uid always may (repeatable)\n"
            "  --allow-gid GID       let processes in this group (id or name, primary or\n"
            "                        supplementary) connect (repeatable)\n"
            "  -h, --help            show this text\n"
            "\n"
            "examples:\n"
            "  quorbpfd --unpin-on-exit\n"
            "  quorbpfd --no-load --property sys.quor_bpf_ready=1\n"
            "  quorbpfd --allow-uid 2000 --allow-gid 3009\n"
            "  quorbpfd --property persist.sys.stability.bpfframework.disable=1\n");
}

std::string KernelMajorMinor() {
    utsname name = {};
    if (uname(&name) != 0) return "0.0";
    int major = 0;
    int minor = 0;
    if (sscanf(name.release, "%d.%d", &major, &minor) != 2) return "0.0";
    return std::to_string(major) + "." + std::to_string(minor);
}

// mkdir -p: each missing level is created with mode 0775.
bool MakeDirs(const std::string& path) {
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/') continue;
        const std::string prefix = path.substr(0, pos);
        if (mkdir(prefix.c_str(), 0775) != 0 && errno != EEXIST) return false;
    }
    return true;
}

// A user or group given as a number or a name, as its decimal id; empty when
// there is no such user or group.
std::string ResolveId(const std::string& text, bool isGroup) {
    if (!text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
        text.size() <= 10 && strtoul(text.c_str(), nullptr, 10) <= 4294967294UL) {
        return text;
    }
    if (isGroup) {
        const struct group* entry = getgrnam(text.c_str());
        return entry != nullptr ? std::to_string(entry->gr_gid) : std::string();
    }
    const struct passwd* entry = getpwnam(text.c_str());
    return entry != nullptr ? std::to_string(entry->pw_uid) : std::string();
}

// Adds `id` to the comma-separated list held by properties[key].
void AppendToList(std::map<std::string, std::string>* properties, const std::string& key,
                  const std::string& id) {
    std::string& list = (*properties)[key];
    list += list.empty() ? id : "," + id;
}

void LogReport(const Quor::Bpf::QuorBpfLoadReport& report) {
    for (const auto& line : report.Lines()) QLOGI(kTag, "[quorbpfd] %s", line.c_str());
}

// Loads and pins both programme sets; true when at least one object's
// programmes are pinned, so that the service has something to attach.
bool LoadProgrammes() {
    Quor::Bpf::QuorBpfLoadReport report;
    const int failures =
        Quor::Bpf::QuorBpfLoader::Load(Quor::Bpf::QuorBpfLoader::Options(), &report);
    LogReport(report);
    if (failures != 0) {
        QLOGE(kTag, "[quorbpfd] loading the BPF programmes: %d failure(s), see above", failures);
    }
    for (const auto& name : report.pinned) {
        if (name.rfind("prog_", 0) == 0) {
            QLOGI(kTag,
                  "[quorbpfd] BPF programmes pinned under /sys/fs/bpf/quor/: %zu new, %zu "
                  "maps reused",
                  report.pinned.size(), report.reused.size());
            return true;
        }
    }
    QLOGE(kTag, "[quorbpfd] no BPF programme pinned; not setting %s",
          Quor::Bpf::QUOR_BPF_READY_PROPERTY);
    return false;
}

void UnpinProgrammes() {
    Quor::Bpf::QuorBpfLoadReport report;
    const int failures = Quor::Bpf::QuorBpfLoader::Unload("/sys/fs/bpf/quor/", &report);
    QLOGI(kTag, "[quorbpfd] removed %zu pins, %d failure(s)", report.removed.size(), failures);
    for (const auto& failure : report.failures) QLOGE(kTag, "[quorbpfd] %s", failure.c_str());
}

// Written to a temporary name and renamed, so a reader never sees half a pid.
bool WritePidFile(const std::string& path) {
    const std::string temporary = path + ".tmp";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const std::string text = std::to_string(getpid()) + "\n";
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (close(fd) != 0 || !written || rename(temporary.c_str(), path.c_str()) != 0) {
        (void)unlink(temporary.c_str());
        return false;
    }
    return true;
}

// Only our own pid file: a second daemon may have replaced it since.
void RemovePidFile(const std::string& path) {
    FILE* in = fopen(path.c_str(), "re");
    if (in == nullptr) return;
    long pid = 0;
    const bool ours = fscanf(in, "%ld", &pid) == 1 && pid == static_cast<long>(getpid());
    fclose(in);
    if (ours) (void)unlink(path.c_str());
}

struct DaemonOptions {
    std::map<std::string, std::string> properties;
    bool load = true;
    bool unpinOnExit = false;
    std::string pidFile = kDefaultPidFile;
};

// "--name VALUE" or "--name=VALUE" at argv[*i]; moves *i past the value.
bool TakeValue(int argc, char** argv, int* i, const char* name, std::string* value) {
    const std::string arg = argv[*i];
    const std::string prefix = std::string(name) + "=";
    if (arg == name && *i + 1 < argc) {
        *value = argv[++*i];
        return true;
    }
    if (arg.rfind(prefix, 0) == 0) {
        *value = arg.substr(prefix.size());
        return true;
    }
    return false;
}

// -1 to go on, else the exit code (help shown, or a bad argument reported).
int ParseDaemonArguments(int argc, char** argv, DaemonOptions* options) {
    std::vector<std::pair<std::string, std::string>> allowed;  // (property, id)
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        std::string value;
        if (arg == "-h" || arg == "--help") {
            Usage(stdout);
            return 0;
        } else if (arg == "--no-load") {
            options->load = false;
        } else if (arg == "--unpin-on-exit") {
            options->unpinOnExit = true;
        } else if (TakeValue(argc, argv, &i, "--pid-file", &value)) {
            options->pidFile = value;
        } else if ((arg == "--allow-uid" || arg == "--allow-gid") && i + 1 < argc) {
            const bool group = arg == "--allow-gid";
            const std::string id = ResolveId(argv[++i], group);
            if (id.empty()) {
                fprintf(stderr, "quorbpfd: %s: no such %s '%s'\n", arg.c_str(),
                        group ? "group" : "user", argv[i]);
                return 2;
            }
            allowed.emplace_back(group ? Quor::Bpf::QUOR_BPF_ALLOW_GIDS_PROPERTY
                                       : Quor::Bpf::QUOR_BPF_ALLOW_UIDS_PROPERTY,
                                 id);
        } else if (TakeValue(argc, argv, &i, "--property", &value)) {
            const size_t eq = value.find('=');
            if (eq == std::string::npos || eq == 0) {
                fprintf(stderr, "quorbpfd: --property needs KEY=VALUE, got '%s'\n", value.c_str());
                return 2;
            }
            options->properties[value.substr(0, eq)] = value.substr(eq + 1);
        } else {
            fprintf(stderr, "quorbpfd: unknown argument '%s'\n\n", arg.c_str());
            Usage(stderr);
            return 2;
        }
    }
    // The flags add to what --property may have listed.
    for (const auto& [key, id] : allowed) AppendToList(&options->properties, key, id);
    return -1;
}

// What the platform does on a device: properties, programmes, log directory.
void PrepareHost(DaemonOptions* options) {
    auto& properties = options->properties;
    if (properties.count(Quor::Bpf::QUOR_KERNEL_VERSION_PROPERTY) == 0) {
        properties[Quor::Bpf::QUOR_KERNEL_VERSION_PROPERTY] = KernelMajorMinor();
    }
    const bool loaded = options->load && LoadProgrammes();
    if (loaded && properties.count(Quor::Bpf::QUOR_BPF_READY_PROPERTY) == 0) {
        properties[Quor::Bpf::QUOR_BPF_READY_PROPERTY] = "1";
    }
    for (const auto& [key, value] : properties) android::base::SetProperty(key, value);

    if (!MakeDirs(kLogDir)) {
        QLOGW(kTag, "[quorbpfd] cannot create %s: %s", kLogDir, strerror(errno));
    }
}

// Starts the service and blocks until SIGINT or SIGTERM; never returns once
// the service ran.
int RunService(const DaemonOptions& options) {
    // Block the stop signals before the service creates its threads, so that
    // only sigwait() below sees them; the dump signals stay deliverable.
    // SIGQUIT (Ctrl-\) stops the daemon like the other two: its default, a
    // core dump, would leave pins and the pid file behind, and a core of
    // this process is better asked for with SIGABRT.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGQUIT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (Quor::Bpf::BpfServiceMain() == 0) return 0;

    std::thread supervisor([] { Quor::Bpf::WaitBpfService(); });
    supervisor.detach();
    const std::string& pidFile = options.pidFile;
    if (!pidFile.empty() && !WritePidFile(pidFile)) {
        QLOGW(kTag, "[quorbpfd] cannot write the pid file %s: %s", pidFile.c_str(),
              strerror(errno));
    }

    int signo = 0;
    while (sigwait(&stopSignals, &signo) != 0) {
    }
    QLOGI(kTag, "[quorbpfd] %s received, stopping", strsignal(signo));
    Quor::Bpf::StopBpfService();
    if (options.unpinOnExit && options.load) UnpinProgrammes();
    if (!pidFile.empty()) RemovePidFile(pidFile);
    // The monitors block in their ring-buffer poll until the next record;
    // end the process now instead of waiting for it.
    fflush(nullptr);
    _exit(0);
}

}  // namespace

int main(int argc, char** argv) {
    // Signals 50 to 54 ask for dumps; until the service installs its handlers
    // their default action would end the daemon, so ignore them meanwhile.
    for (int signo = 50; signo <= 54; ++signo) (void)signal(signo, SIG_IGN);

    DaemonOptions options;
    const int exitCode = ParseDaemonArguments(argc, argv, &options);
    if (exitCode >= 0) return exitCode;
    PrepareHost(&options);
    return RunService(options);
}
