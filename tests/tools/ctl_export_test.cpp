// The trace and metrics exports on records of known bytes: a process's life
// in the trace, starts and ends reported by both kernel and service counted
// once, the bounded per-process series and the text format's escaping.
#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>
#include <string>

#include "quor/quor_bpf_records.h"
#include "tests/support/record_builders.h"
#include "tools/quorbpfctl/exporter_metrics.h"
#include "tools/quorbpfctl/trace_model.h"
#include "tools/quorbpfctl/trace_writer.h"

using namespace Quor::Bpf;
using namespace Quor::Bpf::Ctl;
using namespace quortest;

namespace {

// The lines of `text` that contain `needle`.
std::string Lines(const std::string& text, const std::string& needle) {
    std::istringstream in(text);
    std::string out;
    for (std::string line; std::getline(in, line);)
        if (line.find(needle) != std::string::npos) out += line + "\n";
    return out;
}

TEST(TraceModelTest, AProcessLifeIsOneSliceWithCountersOnItsTrack) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    TraceWriter writer(out);
    TraceModel model(&writer, [](int32_t) { return std::string("fromproc"); });
    model.AddRunning({{100, 1, "sh", 1, 4096}}, 1000);
    const auto feed = [&](uint32_t type, const uint8_t* data, size_t length) {
        model.OnRecord(type, data, length, 999999999);
    };
    Feed(Fork(200, 100, 2000, QUOR_TASK_KIND_PROCESS, "sh"), feed);
    Feed(Fork(200, 0, 2500, QUOR_TASK_KIND_THREAD, "sh"), feed);
    // One memory window: only its last value is written, at its own time.
    Feed(Rss(200, 3000, QUOR_RSS_ANON, 1 << 20), feed);
    Feed(Rss(200, 3100, QUOR_RSS_ANON, 3 << 19), feed);
    Feed(Rss(200, 3200, QUOR_RSS_ANON, 7 << 18), feed);
    Feed(Exit(200, 4000, QUOR_TASK_KIND_PROCESS, "worker"), feed);
    Feed(Rss(200, 4500, QUOR_RSS_ANON, 2 << 20), feed);  // late: ignored
    Feed(Rss(300, 5000, QUOR_RSS_FILE, 8192), feed);     // unknown: starts its track
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
    // The slice, the threads counter, the exit's name; the window's last memory value only.
    const std::string life = Lines(text, "\"pid\":200,");
    EXPECT_EQ(Lines(life, "\"name\":\"memory\""),
              "{\"ph\":\"C\",\"ts\":3.200,\"pid\":200,\"tid\":200,\"name\":\"memory\","
              "\"args\":{\"anon\":1835008,\"file\":0,\"swap\":0,\"shmem\":0}},\n");
    for (const char* line : {"{\"ph\":\"B\",\"ts\":2.000,\"pid\":200,\"tid\":200,\"name\":\"sh\","
                             "\"args\":{\"ppid\":100}}",
                             "{\"ph\":\"C\",\"ts\":2.500,\"pid\":200,\"tid\":200,\"name\":"
                             "\"threads\",\"args\":{\"value\":2}}",
                             "{\"ph\":\"M\",\"ts\":4.000,\"pid\":200,\"name\":\"process_name\","
                             "\"args\":{\"name\":\"worker\"}}",
                             "{\"ph\":\"E\",\"ts\":4.000,\"pid\":200,\"tid\":200}"})
        EXPECT_NE(life.find(line), std::string::npos) << line;
    // A process known from procfs only is named from there; open slices close at the end.
    for (const char* line :
         {"\"pid\":300,\"name\":\"process_name\",\"args\":{\"name\":\"fromproc\"}",
          "{\"ph\":\"E\",\"ts\":7.000,\"pid\":100,", "{\"ph\":\"E\",\"ts\":7.000,\"pid\":300,"})
        EXPECT_NE(text.find(line), std::string::npos) << line;
}

TEST(ExporterMetricsTest, CountsEachLifeOnceAndBoundsThePerProcessSeries) {
    // Pids above the kernel's limit: procfs knows none of them.
    constexpr int32_t kBase = 4194400;
    ExporterMetrics metrics([](int32_t) { return std::string("x\"y\n\xff"); });
    TaskDump dump;
    for (int32_t i = 0; i < 5; ++i) {
        TaskRow row;
        row.pid = kBase + i;
        row.comm = "early" + std::to_string(i);
        row.anonKb = i;  // the last is the largest
        row.threads = 3;
        dump.rows.push_back(row);
    }
    metrics.AddRunning(dump);
    metrics.OnConnection(true);
    const auto feed = [&](uint32_t type, const uint8_t* data, size_t length) {
        metrics.OnRecord(type, data, length);
    };
    const quor_task_new_event started = {QUOR_SERVICE_TASK_NEW, kBase + 20, 0, 0, ""};
    const quor_task_exit_event ended = {QUOR_SERVICE_TASK_EXIT, kBase + 20, ""};
    // The kernel and the service both report the same life.
    Feed(Fork(kBase + 20, kBase, 1, QUOR_TASK_KIND_PROCESS, "child"), feed);
    Feed(started, feed);
    Feed(Fork(kBase + 20, 0, 2, QUOR_TASK_KIND_THREAD, "child"), feed);
    Feed(Rss(kBase + 20, 3, QUOR_RSS_ANON, 1 << 30), feed);
    Feed(Exit(kBase + 20, 4, QUOR_TASK_KIND_PROCESS, "child"), feed);
    Feed(ended, feed);
    Feed(started, feed);                                     // late: that life is over
    Feed(Rss(kBase + 21, 5, QUOR_RSS_ANON, 1 << 29), feed);  // unknown: known from here on
    const uint8_t junk[3] = {1, 2, 3};
    metrics.OnRecord(QUOR_EVENT_FD_UPDATE, junk, sizeof(junk));
    const quor_rss_record mislabelled = Rss(kBase + 21, 6, QUOR_RSS_FILE, 1);
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
             "quorbpf_process_resident_memory_bytes{pid=\"4194421\",comm=\"x\\\"y\\n?\","
             "type=\"anon\"} 536870912\n",
             "quorbpf_exporter_dropped_records_total 2\n",
             "quorbpf_exporter_reconnects_total 1\n",
         }) {
        EXPECT_NE(text.find(line), std::string::npos) << line << text;
    }
    // The two largest processes only.
    EXPECT_EQ(Lines(text, "quorbpf_process_threads{"),
              Lines(text, "quorbpf_process_threads{pid=\"4194421\"") +
                  "quorbpf_process_threads{pid=\"4194404\",comm=\"early4\"} 3\n");
    EXPECT_EQ(Lines(metrics.Render(0), "pid="), "");
    metrics.Prune([](int32_t pid) { return pid != kBase; });
    EXPECT_NE(metrics.Render(0).find("quorbpf_processes 5\n"), std::string::npos);
    EXPECT_NE(metrics.Render(0).find("quorbpf_processes_ended_total 1\n"), std::string::npos);
}

}  // namespace
