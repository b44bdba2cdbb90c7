// quorbpfctl against the real daemon in private namespaces: tasks, stats,
// exit codes, the exporter read back with Debian's Prometheus client, and a
// start amid a process storm. The kernel reports the whole machine, so
// counters are checked as at least the workload.
#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/proc_self.h"
#include "tests/support/vgem_dmabuf.h"

using quortest::ReadFile;
using namespace std::chrono_literals;

namespace {

const std::string kCtl = QUORBPFCTL_PATH;
// Debian's interpreter, which has Debian's Python packages (a python3 first
// on PATH may be another).
const std::string kPython = "/usr/bin/python3";

struct Output {
    int code = -1;
    std::string out;
};

size_t CountLines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
}

int ExitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Runs `command` with sh and collects its stdout; its stderr goes to the test's log.
Output Shell(const std::string& command) {
    Output output;
    FILE* pipe = popen(command.c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe != nullptr && (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
        output.out.append(buffer, n);
    output.code = pipe == nullptr ? -1 : ExitCode(pclose(pipe));
    return output;
}

// Starts `command` through sh, which execs it: the pid is the command's own.
pid_t Spawn(const std::string& command) {
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    return pid;
}

// SIGTERM and wait: the exit status.
int Stop(pid_t pid) {
    int status = 0;
    kill(pid, SIGTERM);
    return waitpid(pid, &status, 0) == pid ? ExitCode(status) : -1;
}

// The tests share one real daemon with a private pid file, started before
// the first of them.
class CtlDaemonTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        (void)Shell("ip link set lo up");  // down in a new network namespace
        char pattern[] = "/tmp/quorbpfctl_it.XXXXXX";
        dir_ = mkdtemp(pattern) == nullptr ? "/tmp" : pattern;
        started_ = StartDaemon();
    }
    static void TearDownTestSuite() { (void)StopDaemon(); }
    void SetUp() override {
        if (!started_) GTEST_SKIP() << "the daemon did not start here:\n" << Log();
    }
    static std::string PidFile() { return dir_ + "/quorbpfd.pid"; }
    static std::string Log() { return ReadFile(dir_ + "/quorbpfd.log"); }
    static std::string Ctl(const std::string& args) {
        return kCtl + " " + args + " --pid-file " + PidFile();
    }
    // True once `watch --count 1` sees an event: the socket and subscriptions
    // work. The probe makes its own events (a short-lived process every
    // 100 ms while watch runs): an idle machine has none to offer.
    static bool StartDaemon() {
        daemon_ = Spawn(std::string(QUORBPFD_PATH) + " --pid-file " + PidFile() +
                        " >/dev/null 2>>" + dir_ + "/quorbpfd.log");
        const std::string watch = "{ " + kCtl +
                                  " watch --count 1 --timeout 2 & w=$!; i=0;"
                                  " while kill -0 $w 2>/dev/null && [ $i -lt 25 ]; do"
                                  " sleep 0.1; i=$((i+1)); done; wait $w; } 2>/dev/null";
        return quortest::WaitFor([&] { return Shell(watch).code == 0; }, 60s);
    }
    static int StopDaemon() {
        const int code = daemon_ > 0 ? Stop(daemon_) : -1;
        daemon_ = 0;
        return code;
    }

    static inline std::string dir_;
    static inline pid_t daemon_ = 0;
    static inline bool started_ = false;
};

TEST_F(CtlDaemonTest, TasksAndStatsPrintTheDaemonsTables) {
    const Output full = Shell(Ctl("tasks"));
    ASSERT_EQ(full.code, 0);
    unsigned count = 0;
    ASSERT_EQ(sscanf(full.out.c_str(), "============ DUMP ALL QUOR TASKS INFO (count: %u", &count),
              1)
        << full.out.substr(0, 200);
    EXPECT_EQ(CountLines(full.out), count + 2u);
    // This test process was there when the daemon scanned /proc.
    char row[64];
    snprintf(row, sizeof(row), "   %-12d%-12d", getpid(), getppid());
    EXPECT_NE(full.out.find(row), std::string::npos);
    const Output normal = Shell(Ctl("tasks --normal --no-kernel"));
    ASSERT_EQ(normal.code, 0);
    EXPECT_LT(CountLines(normal.out), count + 2u) << "kernel threads are left out";
    EXPECT_NE(normal.out.find(row), std::string::npos);

    const Output stats = Shell(Ctl("stats"));
    ASSERT_EQ(stats.code, 0);
    EXPECT_NE(stats.out.find("sched_task_create"), std::string::npos) << stats.out;
}

TEST_F(CtlDaemonTest, ErrorsHaveTheirExitCodes) {
    const std::pair<const char*, int> cases[] = {
        {" tasks --daemon-pid 4194303", 3},
        {" watch --socket /no/such/socket --timeout 1", 3},
        {" top </dev/null", 6},
    };
    for (const auto& [args, code] : cases) EXPECT_EQ(Shell(kCtl + args).code, code) << args;
}

TEST_F(CtlDaemonTest, ExporterCountsAKnownWorkloadOverHttp) {
    const std::string err = dir_ + "/exporter.err";
    const pid_t exporter = Spawn(Ctl("exporter --listen 127.0.0.1:0") + " 2>" + err);
    std::string url;
    ASSERT_TRUE(quortest::WaitFor(
        [&] {
            const std::string text = ReadFile(err);
            const size_t at = text.find("serving ");
            if (at == std::string::npos) return false;
            url = text.substr(at + 8, text.find('\n', at) - at - 8);
            return true;
        },
        20s))
        << ReadFile(err);

    if (Shell(kPython + " -c 'import sys'").code != 0) {
        GTEST_SKIP() << "python3 cannot run here (a guest of another architecture)";
    }
    if (Shell(kPython + " -c 'import prometheus_client'").code != 0) {
        GTEST_SKIP() << "python3-prometheus-client is missing (scripts/install-deps.sh)";
    }
    // Scrapes until connected and a first child is counted (the exporter
    // says it is connected before the service has its subscriptions), forks
    // 20 short children, scrapes until they are counted.
    const Output check = Shell(
        kPython +
        " -c \"import os, sys, time, urllib.request\n"
        "from prometheus_client.parser import text_string_to_metric_families\n"
        "def scrape():\n"
        "    with urllib.request.urlopen(sys.argv[1]) as r:\n"
        "        assert r.headers['Content-Type'].startswith('text/plain; version=0.0.4')\n"
        "        text = r.read().decode('utf-8')\n"
        "    return {(s.name, tuple(sorted(s.labels.items()))): s.value\n"
        "            for f in text_string_to_metric_families(text) for s in f.samples}\n"
        "def wait(ok):\n"
        "    for _ in range(100):\n"
        "        m = scrape()\n"
        "        if ok(m): return m\n"
        "        time.sleep(0.1)\n"
        "    raise AssertionError(m)\n"
        "def child():\n"
        "    pid = os.fork()\n"
        "    if pid == 0: os._exit(0)\n"
        "    os.waitpid(pid, 0)\n"
        "first = wait(lambda m: m[('quorbpf_exporter_connected', ())] == 1)\n"
        "before = wait(lambda m: child() or m[('quorbpf_processes_ended_total', ())] >\n"
        "              first[('quorbpf_processes_ended_total', ())])\n"
        "for _ in range(20): child()\n"
        "names = [('quorbpf_processes_started_total', ()), ('quorbpf_processes_ended_total', ()),\n"
        "         ('quorbpf_events_total', (('type', 'sched_task_create'),))]\n"
        "after = wait(lambda m: all(m[n] - before[n] >= 20 for n in names))\n"
        "assert after[('quorbpf_exporter_dropped_records_total', ())] == 0\n"
        "\" " +
        url);
    EXPECT_EQ(check.code, 0);
    EXPECT_EQ(Stop(exporter), 0) << ReadFile(err);
}

// Last: it restarts the daemon.
// The pids of `pids` that a pinned map still names: as its key's first field,
// or for the buffer map as its value's holder.
std::set<pid_t> MapsNaming(const std::set<pid_t>& pids) {
    std::set<pid_t> named;
    for (const char* map :
         {"QuorBpfDefineset_open_fd_caller_map", "QuorBpfGplDefineset_dmabuf_size_map",
          "QuorBpfGplDefineset_dmabuf_perprocess_size_map", "QuorBpfGplDefineset_process_inode_map",
          "QuorBpfGplDefineset_process_mmap_infos", "QuorBpfGplDefineset_dmabuf_allocate_map"}) {
        const int fd = bpf_obj_get((std::string("/sys/fs/bpf/quor/map_") + map).c_str());
        const bool byValue = strstr(map, "allocate") != nullptr;
        char key[64] = {}, value[256] = {};
        for (void* prev = nullptr; fd >= 0 && bpf_map_get_next_key(fd, prev, key) == 0;
             prev = key) {
            int32_t pid = 0;
            if (!byValue || bpf_map_lookup_elem(fd, key, value) == 0)
                memcpy(&pid, byValue ? value : key, sizeof(pid));
            if (pids.count(pid) != 0) named.insert(pid);
        }
        if (fd >= 0) close(fd);
    }
    return named;
}

// The daemon starts while processes fork threads, hold a dmabuf (where the
// kernel has vgem; each child inherits the descriptor) and exit: its initial
// scan must leave no map entry for any of them once they are gone.
TEST_F(CtlDaemonTest, StartAmidAProcessStormLeavesNoDeadPidInTheMaps) {
    const int vgem = quor_test::OpenVgem();
    const int buffer = vgem >= 0 ? quor_test::ExportVgemBuffer(vgem, 64, 64).fd : -1;
    if (vgem >= 0) close(vgem);
    ASSERT_EQ(StopDaemon(), 0);
    std::atomic<bool> stop{false};
    std::set<pid_t> pids;
    std::thread storm([&] {
        std::vector<pid_t> alive;  // at most eight
        for (unsigned n = 0; !stop.load(); ++n) {
            const pid_t child = fork();
            if (child == 0) {
                std::thread([] {}).join();
                usleep((n % 7) * 3000);
                _exit(0);
            }
            if (child > 0) {
                pids.insert(child);
                alive.push_back(child);
            }
            if (alive.size() >= 8) {
                (void)waitpid(alive.front(), nullptr, 0);
                alive.erase(alive.begin());
            }
        }
        for (const pid_t child : alive) (void)waitpid(child, nullptr, 0);
    });
    const bool started = StartDaemon();
    usleep(500000);
    stop = true;
    storm.join();
    ASSERT_TRUE(started) << Log();
    if (buffer >= 0) close(buffer);
    // Exits are handled in batches, the last one on a later exit: make some.
    std::set<pid_t> named = MapsNaming(pids);
    for (int i = 0; i < 40 && !named.empty(); ++i) {
        usleep(250000);
        (void)Shell("true");
        named = MapsNaming(pids);
    }
    EXPECT_TRUE(named.empty()) << named.size() << " of " << pids.size()
                               << " dead pids are still in the maps, e.g. " << *named.begin();
}

}  // namespace
