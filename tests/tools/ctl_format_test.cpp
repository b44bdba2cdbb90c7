// quorbpfctl's event lines (text and JSON) from records of known bytes, and
// its command line: type names, numbers and the mistakes refused.
#include <gtest/gtest.h>
#include <time.h>

#include <cstring>
#include <string>
#include <tuple>

#include "quor/quor_bpf_records.h"
#include "tests/support/record_builders.h"
#include "tools/quorbpfctl/ctl_exit_codes.h"
#include "tools/quorbpfctl/ctl_options.h"
#include "tools/quorbpfctl/event_formatter.h"
#include "tools/quorbpfctl/json_line.h"
#include "tools/quorbpfctl/watch_command.h"

using namespace Quor::Bpf;
using namespace Quor::Bpf::Ctl;
using quortest::Exit;
using quortest::Fork;
using quortest::Rss;

namespace {

// 2026-01-02 03:04:05.678 UTC, and the monotonic clock at that moment.
constexpr int64_t kWallNs = 1767323045678000000;
constexpr int64_t kMonoNs = 500000000000;

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        context_.realtimeNs = kWallNs;
        context_.monotonicNs = kMonoNs;
    }
    template <typename Record>
    DecodedEvent Decode(const Record& record, size_t length = sizeof(Record)) {
        uint32_t type = 0;
        memcpy(&type, &record, sizeof(type));
        return DecodeEvent(type, &record, length);
    }
    EventContext context_;
};

TEST_F(FormatTest, KernelRecordsShowLocalTimeSizesAndEveryField) {
    // One second before arrival; a full comm has no NUL.
    quor_fork_record fork = Fork(200, 1, kMonoNs - 1000000000, QUOR_TASK_KIND_THREAD, "");
    fork.tid = 201;
    memcpy(fork.comm, "0123456789abcdef", 16);
    EXPECT_EQ(FormatEventText(Decode(fork), context_),
              "03:04:04.678 sched_task_create             200 0123456789abcdef "
              "ppid=1 tid=201 kind=thread");
    EXPECT_EQ(
        FormatEventJson(Decode(fork), context_),
        "{\"time\":\"2026-01-02T03:04:04.678+0000\",\"type\":2,\"name\":\"sched_task_create\","
        "\"ts_ns\":499000000000,\"pid\":200,\"comm\":\"0123456789abcdef\",\"ppid\":1,"
        "\"tid\":201,\"kind\":\"thread\"}");
    const quor_rss_record rss = Rss(7, kMonoNs, QUOR_RSS_ANON, 5 * 1024 * 1024 + 512 * 1024);
    // JSON keeps the record's own fields only, sizes in bytes.
    EXPECT_NE(FormatEventJson(Decode(rss), context_).find("\"member\":\"anon\",\"size\":5767168}"),
              std::string::npos);
}

TEST_F(FormatTest, ServiceEventsShowChangesAndKeepOldValuesInJson) {
    quor_rss_change_event rss = {};
    rss.id = QUOR_SERVICE_RSS_CHANGE;
    rss.pid = 42;
    rss.ppid = 1;
    memcpy(rss.comm, "big", 3);
    rss.rss_anon = 300LL * 1024 * 1024;
    rss.old_rss_anon = 100LL * 1024 * 1024;
    rss.rss_file = rss.old_rss_file = 8192;
    rss.old_rss_shmem = 4096;  // shmem went to zero: still shown
    EXPECT_EQ(FormatEventText(Decode(rss), context_),
              "03:04:05.678 rss_change                     42 big              ppid=1 uid=0 "
              "rss=300.0 MiB (+200.0 MiB) anon=300.0 MiB (+200.0 MiB) file=8 KiB "
              "shmem=0 KiB (-4 KiB)");
    const std::string json = FormatEventJson(Decode(rss), context_);
    EXPECT_NE(json.find("\"old_rss_anon\":104857600"), std::string::npos) << json;
    // A new process's third id is, for a forked one, its own task id.
    quor_task_new_event created = {};
    created.id = QUOR_SERVICE_TASK_NEW;
    created.pid = created.uid = 43;
    created.ppid = 42;
    EXPECT_NE(FormatEventText(Decode(created), context_).find(" ppid=42 tid=43"),
              std::string::npos);
}

TEST_F(FormatTest, HostileNamesStayOnOneLineAndValidJson) {
    // Quote, backslash, newline, escape, DEL, a lone 0xff and valid UTF-8 (é).
    const quor_exit_record exit =
        Exit(5, 0, QUOR_TASK_KIND_PROCESS, "a\"b\\c\n\x1b\x7f\xff\xc3\xa9");
    const std::string text = FormatEventText(Decode(exit), context_);
    EXPECT_NE(text.find("a\"b\\\\c\\x0a\\x1b\\x7f\\xff\\xc3\\xa9"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
    const std::string json = FormatEventJson(Decode(exit), context_);
    EXPECT_NE(json.find("\"comm\":\"a\\\"b\\\\c\\n\\u001b\\u007f\\u00ff\xc3\xa9\""),
              std::string::npos)
        << json;
    // Sequences that look like UTF-8 but are not: overlong, surrogate, cut.
    EXPECT_EQ(JsonQuote("\xc0\xaf|\xed\xa0\x80|\xe2\x82|\xf0\x9f\x98\x80"),
              "\"\\u00c0\\u00af|\\u00ed\\u00a0\\u0080|\\u00e2\\u0082|\xf0\x9f\x98\x80\"");
}

TEST(WatchFilterTest, PidMatchesParentsOfForksAndCommMatchesSubstrings) {
    CtlOptions options;
    options.pids = {100};
    options.comm = "ash";
    WatchCommand watch(options, stdout, stderr);
    const auto shown = [&watch](const auto& record, size_t length) {
        return !watch
                    .Format(record.header.type, reinterpret_cast<const uint8_t*>(&record), length,
                            EventContext())
                    .empty();
    };
    EXPECT_TRUE(shown(Fork(101, 100, 0, QUOR_TASK_KIND_PROCESS, "bash"), sizeof(quor_fork_record)));
    EXPECT_FALSE(shown(Fork(101, 100, 0, QUOR_TASK_KIND_PROCESS, "zsh"), sizeof(quor_fork_record)));
    // Not 100, and an exit does not match on its parent.
    // ... nor a malformed record when the user asked for one process.
    const quor_exit_record exit = Exit(101, 0, QUOR_TASK_KIND_PROCESS, "bash");
    EXPECT_FALSE(shown(exit, sizeof(exit)));
    EXPECT_FALSE(shown(exit, 4));
}

TEST(CtlOptionsTest, TypesByNameNumberAndCommaListAndMistakesRefused) {
    CtlOptions options;
    std::string error;
    ASSERT_EQ(ParseCtlArguments({"watch", "task_new", "2,sched_task_exit", "--json", "--pid=7,8",
                                 "--comm", "sh", "--count", "3", "--timeout=2"},
                                &options, &error),
              kExitOk)
        << error;
    EXPECT_TRUE(options.command == CtlCommand::kWatch && options.json);
    EXPECT_EQ(options.types, (std::vector<uint32_t>{50001, 2, 3}));
    EXPECT_EQ(options.pids, (std::vector<int32_t>{7, 8}));
    EXPECT_EQ(std::tie(options.comm, options.count, options.timeoutMs),
              std::make_tuple("sh", 3u, 2000));

    // Unknown types past either end of the lists or beyond int, bad or missing
    // numbers, another command's option, no command.
    const std::vector<std::vector<std::string>> mistakes = {
        {"watch", std::to_string(kQuorKernelEventCount)},
        {"watch", "50005"},
        {"watch", "99999999999"},
        {"watch", "--count", "0"},
        {"watch", "--timeout"},
        {"tasks", "--json"},
        {}};
    for (const auto& args : mistakes) {
        CtlOptions fresh;
        EXPECT_EQ(ParseCtlArguments(args, &fresh, &error), kExitUsage)
            << ::testing::PrintToString(args);
    }
}

}  // namespace
