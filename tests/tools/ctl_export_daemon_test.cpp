// record and exporter against the real daemon in private namespaces: the
// trace of a child that allocates memory and starts threads, read back as
// JSON; the exporter scraped over HTTP and parsed with Prometheus's own
// Python client, its counters and series checked against a known workload.
// The kernel reports the whole machine, so counters are checked as at least
// the workload, and per-process series by pid.
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/tools/ctl_test_support.h"

using namespace QuorCtlTest;

namespace {

const std::string kCtl = QUORBPFCTL_PATH;
// Debian's interpreter, which has Debian's Python packages (a python3 first
// on PATH may be another).
const std::string kPython = "/usr/bin/python3";

class CtlExportTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // A private network namespace starts with loopback down.
        (void)Shell("ip link set lo up");
        daemon_ = std::make_unique<Daemon>(dir_);
        started_ = daemon_->Start();
    }
    static void TearDownTestSuite() { daemon_.reset(); }
    void SetUp() override {
        if (!started_) GTEST_SKIP() << "the daemon did not start here:\n" << daemon_->Log();
    }
    static std::string Ctl(const std::string& args) {
        return kCtl + " " + args + " --pid-file " + daemon_->PidFile();
    }

    static inline const std::string dir_ = TempDir();
    static inline std::unique_ptr<Daemon> daemon_;
    static inline bool started_ = false;
};

// A child that renames itself `name` (no record says so before its exit),
// holds 64 MiB of touched memory and 4 more threads until it reads a byte
// from `release`, then exits.
pid_t BusyChild(const char* name, int release) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    prctl(PR_SET_NAME, name, 0, 0, 0);
    // In steps, so that the memory rises over several samples.
    const size_t size = 64u << 20;
    char* memory = static_cast<char*>(malloc(size));
    for (size_t step = 0; step < 4; ++step) {
        memset(memory + step * (size / 4), 1, size / 4);
        usleep(100 * 1000);
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([release] {
            char byte;
            (void)read(release, &byte, 1);
        });
    }
    for (std::thread& t : threads) t.join();
    _exit(memory[size - 1] == 1 ? 0 : 1);
}

TEST_F(CtlExportTest, RecordTracesAChildsLifeThreadsAndMemory) {
    // The trace is checked with Python's parser; the arm64 guests share the
    // host's amd64 interpreter, which cannot run there.
    if (Shell(kPython + " -c pass").code != 0) GTEST_SKIP() << "python3 cannot run here";
    const std::string trace = dir_ + "/trace.json";
    const pid_t record =
        Spawn(Ctl("record -o " + trace + " --duration 120") + " 2>" + trace + ".err");
    // Seeded and recording once progress shows.
    ASSERT_TRUE(WaitFor(
        [&] { return ReadFile(trace + ".err").find("record: ") != std::string::npos; }, 20000))
        << ReadFile(trace + ".err");
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    const pid_t child = BusyChild("qrecord", pipeFds[0]);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    ASSERT_EQ(write(pipeFds[1], "xxxx", 4), 4);
    ASSERT_EQ(Reap(child), 0);
    close(pipeFds[0]);
    close(pipeFds[1]);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    kill(record, SIGINT);
    ASSERT_EQ(Reap(record), 0) << ReadFile(trace + ".err");

    const Output check = Shell(
        kPython +
        " -c \"import sys, json\n"
        "doc = json.load(open(sys.argv[1]))\n"
        "events = doc['traceEvents']\n"
        "child, me = int(sys.argv[2]), int(sys.argv[3])\n"
        "mine = [e for e in events if e['pid'] == child]\n"
        "ph = [e['ph'] for e in mine]\n"
        "assert ph.count('B') == 1 and ph.count('E') == 1, ph\n"
        "begin = next(e for e in mine if e['ph'] == 'B')\n"
        "end = next(e for e in mine if e['ph'] == 'E')\n"
        "assert 'origin' not in begin['args'] and begin['ts'] < end['ts'], (begin, end)\n"
        "names = [e for e in mine if e.get('name') == 'process_name']\n"
        "renamed = [e['ts'] for e in names if e['args']['name'] == 'qrecord']\n"
        "assert renamed and renamed[0] < begin['ts'] + 1.5e6, (begin, names)\n"
        "threads = [e['args']['value'] for e in mine if e.get('name') == 'threads']\n"
        "assert max(threads) == 5 and threads[-1] == 0, threads\n"
        "anon = [e['args']['anon'] for e in mine if e.get('name') == 'memory']\n"
        "assert max(anon) >= 64 << 20 and len(set(a for a in anon if a > 16 << 20)) >= 3, anon\n"
        "inside = [e for e in mine if e['ph'] in 'Ci' and not begin['ts'] <= e['ts'] <= "
        "end['ts']]\n"
        "assert not inside, inside\n"
        "seeded = [e for e in events if e['pid'] == me and e['ph'] == 'B']\n"
        "assert seeded and seeded[0]['args']['origin'] == 'running at start', seeded\n"
        "\" " +
        trace + " " + std::to_string(child) + " " + std::to_string(getpid()));
    EXPECT_EQ(check.code, 0) << check.err;
    EXPECT_NE(ReadFile(trace + ".err").find("trace written to " + trace), std::string::npos);
}

TEST_F(CtlExportTest, ExporterCountsAKnownWorkloadOverHttp) {
    const std::string err = dir_ + "/exporter.err";
    const pid_t exporter = Spawn(Ctl("exporter --listen 127.0.0.1:0 --top 1000") + " 2>" + err);
    std::string url;
    ASSERT_TRUE(WaitFor(
        [&] {
            const std::string text = ReadFile(err);
            const size_t at = text.find("serving ");
            if (at == std::string::npos) return false;
            url = text.substr(at + 8, text.find('\n', at) - at - 8);
            return true;
        },
        20000))
        << ReadFile(err);

    if (Shell(kPython + " -c 'import prometheus_client'").code != 0) {
        GTEST_SKIP() << "python3-prometheus-client is missing (scripts/install-deps.sh)";
    }
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    const pid_t busy = BusyChild("qexport", pipeFds[0]);
    // Scrapes until the busy child shows with its memory and 5 threads (the
    // top list is long: other work on the machine may hold more memory),
    // forks 20 short children, and scrapes until they are counted.
    const Output check = Shell(
        kPython +
        " -c \"import os, sys, time, urllib.request\n"
        "from prometheus_client.parser import text_string_to_metric_families\n"
        "url, busy = sys.argv[1], sys.argv[2]\n"
        "def scrape():\n"
        "    with urllib.request.urlopen(url) as r:\n"
        "        assert r.headers['Content-Type'].startswith('text/plain; version=0.0.4')\n"
        "        text = r.read().decode('utf-8')\n"
        "    return {(s.name, tuple(sorted(s.labels.items()))): s.value\n"
        "            for f in text_string_to_metric_families(text) for s in f.samples}\n"
        "def wait(ok):\n"
        "    for _ in range(100):\n"
        "        m = scrape()\n"
        "        if ok(m): return m\n"
        "        time.sleep(0.1)\n"
        "    raise AssertionError({k: v for k, v in m.items() if not k[1] or busy in str(k)})\n"
        "key = lambda n, **l: (n, tuple(sorted(l.items())))\n"
        "anon = key('quorbpf_process_resident_memory_bytes', pid=busy, comm='qexport', "
        "type='anon')\n"
        "threads = key('quorbpf_process_threads', pid=busy, comm='qexport')\n"
        "m = wait(lambda m: m.get(anon, 0) >= 64 << 20 and m.get(threads) == 5)\n"
        "assert m[('quorbpf_exporter_connected', ())] == 1\n"
        "before = m\n"
        "for _ in range(20):\n"
        "    pid = os.fork()\n"
        "    if pid == 0: os._exit(0)\n"
        "    os.waitpid(pid, 0)\n"
        "names = ['quorbpf_processes_started_total', 'quorbpf_processes_ended_total']\n"
        "fork = key('quorbpf_events_total', type='sched_task_create')\n"
        "after = wait(lambda m: all(m[(n, ())] - before[(n, ())] >= 20 for n in names) and\n"
        "             m[fork] - before[fork] >= 20)\n"
        "assert after[('quorbpf_exporter_dropped_records_total', ())] == 0\n"
        "\" " +
        url + " " + std::to_string(busy));
    ASSERT_EQ(write(pipeFds[1], "xxxx", 4), 4);
    EXPECT_EQ(Reap(busy), 0);
    close(pipeFds[0]);
    close(pipeFds[1]);
    EXPECT_EQ(check.code, 0) << check.err;
    EXPECT_EQ(Shell(kPython +
                    " -c \"import urllib.request, sys\n"
                    "try: urllib.request.urlopen(sys.argv[1] + 'x')\n"
                    "except urllib.error.HTTPError as e: sys.exit(0 if e.code == 404 else 1)\n"
                    "sys.exit(1)\" " +
                    url)
                  .code,
              0);
    kill(exporter, SIGTERM);
    EXPECT_EQ(Reap(exporter), 0) << ReadFile(err);
}

}  // namespace
