// The trace and metrics exports on records of known bytes: what a process's
// life looks like in the trace, how the exporter counts starts and ends when
// kernel and service records both report them, the bounded top list, the
// text format's escaping, listen addresses and the atomic textfile.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "quor/quor_bpf_records.h"
#include "tools/quorbpfctl/exporter_command.h"
#include "tools/quorbpfctl/exporter_metrics.h"
#include "tools/quorbpfctl/metrics_http_server.h"
#include "tools/quorbpfctl/prometheus_text.h"
#include "tools/quorbpfctl/trace_model.h"
#include "tools/quorbpfctl/trace_writer.h"

using namespace Quor::Bpf;
using namespace Quor::Bpf::Ctl;

namespace {

template <typename Record>
void Feed(const Record& record, const std::function<void(uint32_t, const uint8_t*, size_t)>& to) {
    uint32_t type = 0;
    memcpy(&type, &record, sizeof(type));
    to(type, reinterpret_cast<const uint8_t*>(&record), sizeof(record));
}

quor_fork_record Fork(uint64_t ts, int32_t ppid, int32_t pid, const char* comm, uint32_t kind) {
    quor_fork_record r = {};
    r.header.type = QUOR_EVENT_TASK_CREATE;
    r.header.timestamp_ns = ts;
    r.ppid = ppid;
    r.pid = pid;
    r.tid = pid;
    strncpy(r.comm, comm, sizeof(r.comm));
    r.kind = kind;
    return r;
}

quor_exit_record Exit(uint64_t ts, int32_t pid, const char* comm, uint32_t kind) {
    quor_exit_record r = {};
    r.header.type = QUOR_EVENT_TASK_EXIT;
    r.header.timestamp_ns = ts;
    r.pid = pid;
    strncpy(r.comm, comm, sizeof(r.comm));
    r.kind = kind;
    return r;
}

quor_rss_record Rss(uint64_t ts, int32_t pid, int32_t member, int64_t size) {
    quor_rss_record r = {};
    r.header.type = QUOR_EVENT_RSS_STAT;
    r.header.timestamp_ns = ts;
    r.pid = pid;
    r.member = member;
    r.size = size;
    return r;
}

std::string Lines(const std::string& text, const std::string& needle) {
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find('\n', start);
        const std::string line = text.substr(start, end - start);
        if (line.find(needle) != std::string::npos) out += line + "\n";
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return out;
}

TEST(TraceModelTest, AProcessLifeIsOneSliceWithCountersOnItsTrack) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    TraceWriter writer(out);
    TraceModel model(&writer, [](int32_t) { return std::string("fromproc"); });
    TraceProcess shell;
    shell.pid = 100;
    shell.ppid = 1;
    shell.comm = "sh";
    shell.anon = 4096;
    TraceProcess child = shell;  // listed before its parent: still grouped with it
    child.pid = 50;
    child.ppid = 100;
    child.comm = "sleep";
    model.AddRunning({child, shell}, 1000);
    const auto feed = [&](uint32_t type, const uint8_t* data, size_t length) {
        model.OnRecord(type, data, length, 999999999);
    };
    Feed(Fork(2000, 100, 200, "sh", QUOR_TASK_KIND_PROCESS), feed);
    Feed(Fork(2500, 0, 200, "sh", QUOR_TASK_KIND_THREAD), feed);
    // One memory window: only its last value is written, at its own time.
    Feed(Rss(3000, 200, QUOR_RSS_ANON, 1 << 20), feed);
    Feed(Rss(3100, 200, QUOR_RSS_ANON, 3 << 19), feed);
    Feed(Rss(3200, 200, QUOR_RSS_ANON, 7 << 18), feed);
    Feed(Exit(4000, 200, "worker", QUOR_TASK_KIND_PROCESS), feed);
    Feed(Rss(4500, 200, QUOR_RSS_ANON, 2 << 20), feed);  // late: ignored
    Feed(Rss(5000, 300, QUOR_RSS_FILE, 8192), feed);     // unknown: starts its track
    const uint8_t truncated[4] = {QUOR_EVENT_RSS_STAT, 0, 0, 0};
    model.OnRecord(QUOR_EVENT_RSS_STAT, truncated, sizeof(truncated), 6000);
    model.Finish(7000);
    ASSERT_TRUE(writer.Close());
    fclose(out);
    const std::string text(buffer, size);
    free(buffer);

    EXPECT_EQ(text.rfind("{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n", 0), 0u);
    EXPECT_EQ(text.substr(text.size() - 4), "\n]}\n");
    EXPECT_EQ(model.undecodable(), 1u);
    EXPECT_EQ(Lines(text, "\"pid\":200,"),
              "{\"ph\":\"M\",\"ts\":2.000,\"pid\":200,\"name\":\"process_name\","
              "\"args\":{\"name\":\"sh\"}},\n"
              "{\"ph\":\"M\",\"ts\":2.000,\"pid\":200,\"name\":\"process_sort_index\","
              "\"args\":{\"sort_index\":1}},\n"
              "{\"ph\":\"M\",\"ts\":2.000,\"pid\":200,\"name\":\"process_labels\","
              "\"args\":{\"labels\":\"parent: sh 100\"}},\n"
              "{\"ph\":\"B\",\"ts\":2.000,\"pid\":200,\"tid\":200,\"name\":\"sh\","
              "\"args\":{\"ppid\":100}},\n"
              "{\"ph\":\"C\",\"ts\":2.000,\"pid\":200,\"tid\":200,\"name\":\"threads\","
              "\"args\":{\"value\":1}},\n"
              "{\"ph\":\"C\",\"ts\":2.500,\"pid\":200,\"tid\":200,\"name\":\"threads\","
              "\"args\":{\"value\":2}},\n"
              "{\"ph\":\"M\",\"ts\":4.000,\"pid\":200,\"name\":\"process_name\","
              "\"args\":{\"name\":\"worker\"}},\n"
              "{\"ph\":\"C\",\"ts\":3.200,\"pid\":200,\"tid\":200,\"name\":\"memory\","
              "\"args\":{\"anon\":1835008,\"file\":0,\"swap\":0,\"shmem\":0}},\n"
              "{\"ph\":\"C\",\"ts\":4.000,\"pid\":200,\"tid\":200,\"name\":\"threads\","
              "\"args\":{\"value\":0}},\n"
              "{\"ph\":\"E\",\"ts\":4.000,\"pid\":200,\"tid\":200},\n");
    // The seeded child shares its parent's group; both slices close at the end.
    EXPECT_NE(text.find("\"pid\":50,\"name\":\"process_sort_index\","
                        "\"args\":{\"sort_index\":1}"),
              std::string::npos);
    EXPECT_NE(text.find("\"pid\":50,\"name\":\"process_labels\","
                        "\"args\":{\"labels\":\"parent: sh 100\"}"),
              std::string::npos);
    EXPECT_NE(text.find("{\"ph\":\"E\",\"ts\":7.000,\"pid\":100,"), std::string::npos);
    EXPECT_NE(text.find("\"pid\":300,\"name\":\"process_name\","
                        "\"args\":{\"name\":\"fromproc\"}"),
              std::string::npos);
    EXPECT_NE(text.find("{\"ph\":\"E\",\"ts\":7.000,\"pid\":300,"), std::string::npos);
}

TEST(ExporterMetricsTest, CountsEachLifeOnceAndBoundsThePerProcessSeries) {
    // Pids above the kernel's limit: procfs knows none of them.
    constexpr int32_t kBase = 4194400;
    ExporterMetrics metrics([](int32_t) { return std::string("x\"y\n\xff"); });
    TaskDump dump;
    for (int32_t pid = kBase; pid < kBase + 5; ++pid) {
        TaskRow row;
        row.pid = pid;
        row.comm = "early" + std::to_string(pid - kBase);
        row.anonKb = pid - kBase;  // the last is the largest
        row.threads = 3;
        dump.rows.push_back(row);
    }
    metrics.AddRunning(dump);
    metrics.OnConnection(true);
    const auto feed = [&](uint32_t type, const uint8_t* data, size_t length) {
        metrics.OnRecord(type, data, length);
    };
    quor_task_new_event started = {};
    started.id = QUOR_SERVICE_TASK_NEW;
    started.pid = kBase + 20;
    quor_task_exit_event ended = {};
    ended.id = QUOR_SERVICE_TASK_EXIT;
    ended.pid = kBase + 20;
    // The kernel and the service both report the same life.
    Feed(Fork(1, kBase, kBase + 20, "child", QUOR_TASK_KIND_PROCESS), feed);
    Feed(started, feed);
    Feed(Fork(2, 0, kBase + 20, "child", QUOR_TASK_KIND_THREAD), feed);
    Feed(Rss(3, kBase + 20, QUOR_RSS_ANON, 1 << 30), feed);
    Feed(Exit(4, kBase + 20, "child", QUOR_TASK_KIND_PROCESS), feed);
    Feed(ended, feed);
    Feed(started, feed);                                     // late: that life is over
    Feed(Rss(5, kBase + 21, QUOR_RSS_ANON, 1 << 29), feed);  // unknown: known from here on
    const uint8_t junk[3] = {1, 2, 3};
    metrics.OnRecord(QUOR_EVENT_FD_UPDATE, junk, sizeof(junk));
    const quor_rss_record mislabelled = Rss(6, kBase + 21, QUOR_RSS_FILE, 1);
    metrics.OnRecord(QUOR_EVENT_TASK_CREATE, reinterpret_cast<const uint8_t*>(&mislabelled),
                     sizeof(mislabelled));
    metrics.OnConnection(false);
    metrics.OnConnection(true);

    const std::string text = metrics.Render(2);
    for (const char* line : {
             "quorbpf_events_total{type=\"sched_task_create\"} 2\n",
             "quorbpf_events_total{type=\"task_new\"} 2\n",
             "quorbpf_processes_started_total 1\n",
             "quorbpf_processes_ended_total 1\n",
             "quorbpf_processes 6\n",
             "quorbpf_process_resident_memory_bytes{pid=\"4194421\",comm=\"x\\\"y\\n?\",type="
             "\"anon\"} "
             "536870912\n",
             "quorbpf_process_threads{pid=\"4194404\",comm=\"early4\"} 3\n",
             "quorbpf_exporter_dropped_records_total 2\n",
             "quorbpf_exporter_reconnects_total 1\n",
             "# TYPE quorbpf_processes_started_total counter\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
    EXPECT_EQ(Lines(text, "quorbpf_process_threads{").size(),
              Lines(text, "quorbpf_process_threads{pid=\"4194421\"").size() +
                  Lines(text, "quorbpf_process_threads{pid=\"4194404\"").size());
    EXPECT_EQ(Lines(metrics.Render(0), "pid=").size(), 0u);
    metrics.Prune([](int32_t pid) { return pid != kBase; });
    EXPECT_NE(metrics.Render(0).find("quorbpf_processes 5\n"), std::string::npos);
    EXPECT_NE(metrics.Render(0).find("quorbpf_processes_ended_total 1\n"), std::string::npos);
}

TEST(ExporterPlumbingTest, ListenAddressesAndTheAtomicTextfile) {
    sockaddr_storage address;
    std::string error;
    ASSERT_TRUE(ParseListenAddress(":0", &address, &error));
    EXPECT_EQ(reinterpret_cast<sockaddr_in*>(&address)->sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    ASSERT_TRUE(ParseListenAddress("[::1]:9100", &address, &error));
    EXPECT_EQ(address.ss_family, AF_INET6);
    EXPECT_EQ(ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port), 9100);
    for (const char* bad : {"9100", "localhost:9100", "1.2.3.4:65536", "1.2.3.4:", "[::1:80"}) {
        EXPECT_FALSE(ParseListenAddress(bad, &address, &error)) << bad;
    }

    char pattern[] = "/tmp/ctl_export_test.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern;
    ASSERT_TRUE(WriteFileAtomically(dir, kTextfileName, "a 1\n", &error)) << error;
    ASSERT_TRUE(WriteFileAtomically(dir, kTextfileName, "a 2\n", &error)) << error;
    std::stringstream text;
    text << std::ifstream(dir + "/" + kTextfileName).rdbuf();
    EXPECT_EQ(text.str(), "a 2\n");
    EXPECT_EQ(system(("test \"$(ls -A " + dir + ")\" = " + kTextfileName).c_str()), 0)
        << "no temporary file is left";
    EXPECT_FALSE(WriteFileAtomically(dir + "/missing", kTextfileName, "a 1\n", &error));
    EXPECT_NE(error.find("missing"), std::string::npos);
}

}  // namespace
