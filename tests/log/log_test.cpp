// The logging facility: thresholds, the log step of the connector's sources, the record
// format on a file output, the hex dump format and whole lines under concurrent writers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "log/log.h"
#include "net/tcp_connector_log.h"
#include "support/log_capture.h"

using namespace QUOLNET;

namespace {

int g_evaluated = 0;
int Counted(int v) {
    ++g_evaluated;
    return v;
}

// A temporary file that the process-wide output is pointed at; restored to stderr after.
class FileOutput {
  public:
    FileOutput() {
        char tmpl[] = "/tmp/quolnet_log_XXXXXX";
        int fd = mkstemp(tmpl);
        if (fd >= 0) {
            close(fd);
        }
        m_path = tmpl;
    }
    ~FileOutput() {
        log_set_output_file(nullptr);
        unlink(m_path.c_str());
    }
    const std::string& path() const { return m_path; }
    std::vector<std::string> Lines() const {
        std::ifstream in(m_path);
        std::vector<std::string> out;
        std::string line;
        while (std::getline(in, line)) {
            out.push_back(line);
        }
        return out;
    }

  private:
    std::string m_path;
};

TEST(LogPriority, ValuesAndNames) {
    EXPECT_EQ(0, LOG_PRIORITY_FATAL);
    EXPECT_EQ(100, LOG_PRIORITY_ALERT);
    EXPECT_EQ(200, LOG_PRIORITY_CRIT);
    EXPECT_EQ(300, LOG_PRIORITY_ERROR);
    EXPECT_EQ(400, LOG_PRIORITY_WARN);
    EXPECT_EQ(500, LOG_PRIORITY_NOTICE);
    EXPECT_EQ(600, LOG_PRIORITY_INFO);
    EXPECT_EQ(700, LOG_PRIORITY_DEBUG);
    EXPECT_EQ(800, LOG_PRIORITY_TRACE);
    EXPECT_EQ(900, LOG_PRIORITY_NOTSET);
    EXPECT_EQ(1000, LOG_PRIORITY_UNKNOWN);
    EXPECT_EQ(-1, LOG_PRIORITY_NULL);
    EXPECT_STREQ("ERROR", log_priority_name(LOG_PRIORITY_ERROR));
    EXPECT_STREQ("WARN", log_priority_name(LOG_PRIORITY_WARN));
    EXPECT_STREQ("INFO", log_priority_name(LOG_PRIORITY_INFO));
    EXPECT_STREQ("DEBUG", log_priority_name(LOG_PRIORITY_DEBUG));
    EXPECT_STREQ("TRACE", log_priority_name(LOG_PRIORITY_TRACE));
    EXPECT_STREQ("UNKNOWN", log_priority_name(12345));
}

TEST(LogCanWrite, NullCategoryNeverWrites) {
    EXPECT_EQ(0, log_can_write(nullptr, LOG_PRIORITY_FATAL, 0, 0));
    LogRecord rec = {LOG_PRIORITY_ERROR, nullptr, 0, nullptr, 0, 0, 0, 0, 0};
    log_write(nullptr, &rec, "x");  // must not crash
    log_write_hex(nullptr, &rec);
}

TEST(LogCanWrite, LowThreshold300KeepsErrorDropsInfo) {
    qntest::LogCapture cap(LOG_PRIORITY_ERROR);
    EXPECT_NE(0, log_can_write(cap.cat(), LOG_PRIORITY_ERROR, 0, 0));
    EXPECT_NE(0, log_can_write(cap.cat(), LOG_PRIORITY_FATAL, 0, 0));
    EXPECT_EQ(0, log_can_write(cap.cat(), LOG_PRIORITY_WARN, 0, 0));
    EXPECT_EQ(0, log_can_write(cap.cat(), LOG_PRIORITY_INFO, 0, 0));

    QN_LOG(cap.cat(), QN_ERROR, "kept %d", 1);
    QN_LOG(cap.cat(), QN_INFO, "dropped %d", 2);
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_ERROR, "kept 1")) << cap.Dump();
    EXPECT_EQ(1u, cap.Size()) << cap.Dump();
}

TEST(LogCanWrite, LowThresholdMinusOneKeepsAll) {
    qntest::LogCapture cap(LOG_PRIORITY_NULL);
    EXPECT_NE(0, log_can_write(cap.cat(), LOG_PRIORITY_TRACE, 0, 0));
    QN_LOG(cap.cat(), QN_ERROR, "error");
    QN_LOG(cap.cat(), QN_INFO, "info");
    QN_LOG(cap.cat(), QN_TRACE, "trace");
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_ERROR, "error"));
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_INFO, "info"));
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_TRACE, "trace"));
    EXPECT_EQ(3u, cap.Size());
}

TEST(LogCanWrite, NullThresholdPointersMeanNoBound) {
    qntest::LogCapture cap(LOG_PRIORITY_FATAL);
    cap.cat()->m_low_threshold = nullptr;
    cap.cat()->m_high_threshold = nullptr;
    QN_LOG(cap.cat(), QN_TRACE, "trace");
    QN_LOG(cap.cat(), QN_ERROR, "error");
    EXPECT_EQ(2u, cap.Size()) << cap.Dump();
}

TEST(LogCanWrite, HighThresholdDropsMoreSevere) {
    qntest::LogCapture cap(LOG_PRIORITY_TRACE);
    *cap.cat()->m_high_threshold = LOG_PRIORITY_WARN;
    EXPECT_EQ(0, log_can_write(cap.cat(), LOG_PRIORITY_ERROR, 0, 0));
    EXPECT_NE(0, log_can_write(cap.cat(), LOG_PRIORITY_WARN, 0, 0));
    QN_LOG(cap.cat(), QN_ERROR, "error");
    QN_LOG(cap.cat(), QN_WARN, "warn");
    QN_LOG(cap.cat(), QN_INFO, "info");
    EXPECT_FALSE(cap.Has(LOG_PRIORITY_ERROR, "error"));
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_WARN, "warn"));
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_INFO, "info"));
    EXPECT_EQ(2u, cap.Size()) << cap.Dump();
}

TEST(LogMacro, NullCategoryDoesNotEvaluateArguments) {
    g_evaluated = 0;
    QN_LOG(static_cast<LogCategory*>(nullptr), QN_ERROR, "x=%d", Counted(1));
    EXPECT_EQ(0, g_evaluated);
}

TEST(LogMacro, DroppedMessageDoesNotEvaluateArguments) {
    qntest::LogCapture cap(LOG_PRIORITY_ERROR);
    g_evaluated = 0;
    QN_LOG(cap.cat(), QN_INFO, "x=%d", Counted(1));
    EXPECT_EQ(0, g_evaluated);
    EXPECT_EQ(0u, cap.Size());
    *cap.cat()->m_high_threshold = LOG_PRIORITY_WARN;
    QN_LOG(cap.cat(), QN_ERROR, "x=%d", Counted(2));
    EXPECT_EQ(0, g_evaluated);
    EXPECT_EQ(0u, cap.Size());
    // A kept message evaluates its arguments once.
    *cap.cat()->m_high_threshold = LOG_PRIORITY_FATAL;
    QN_LOG(cap.cat(), QN_ERROR, "x=%d", Counted(3));
    EXPECT_EQ(1, g_evaluated);
    EXPECT_TRUE(cap.Has(LOG_PRIORITY_ERROR, "x=3"));
}

TEST(LogMacro, LocationIsConnectorFileLineAndFunction) {
    qntest::LogCapture cap;
    int line = __LINE__ + 1;
    QN_LOG(cap.cat(), QN_WARN, "where");
    auto entries = cap.Entries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ("src/net/tcp_connector", entries[0].file);
    EXPECT_EQ(line, entries[0].line);
    EXPECT_EQ("TestBody", entries[0].function);
    EXPECT_EQ(LOG_PRIORITY_WARN, entries[0].priority);
    EXPECT_FALSE(entries[0].is_hex);
}

TEST(LogMacro, HexDumpClipsTo128BytesAtInfo) {
    qntest::LogCapture cap;
    char data[300];
    for (int i = 0; i < 300; ++i) {
        data[i] = static_cast<char>('A' + i % 26);
    }
    QN_LOG_HEX(cap.cat(), data, 300);
    auto entries = cap.Entries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_TRUE(entries[0].is_hex);
    EXPECT_EQ(LOG_PRIORITY_INFO, entries[0].priority);
    // 128 bytes: 8 lines of 16.
    std::string text = entries[0].text;
    int lines = 1;
    for (char c : text) {
        lines += c == '\n' ? 1 : 0;
    }
    EXPECT_EQ(8, lines) << text;
    EXPECT_NE(std::string::npos, text.find("\n00000070  ")) << text;
    EXPECT_EQ(std::string::npos, text.find("00000080")) << text;

    // Below INFO nothing is dumped.
    qntest::LogCapture quiet(LOG_PRIORITY_WARN);
    QN_LOG_HEX(quiet.cat(), data, 10);
    EXPECT_EQ(0u, quiet.Size());
}

TEST(LogHex, FormatOffsetHexAndPrintable) {
    const unsigned char data[20] = {'H', 'e', 'l', 'l', 'o', 0x00, 0x01, 0x7f, 0x80, 0xff,
                                    ' ', '~', '0', '1', '2', '3',  'a',  'b',  '\n', 'z'};
    char out[512];
    int n = log_format_hex(data, sizeof(data), out, sizeof(out));
    std::string expect =
        "00000000  48 65 6c 6c 6f 00 01 7f  80 ff 20 7e 30 31 32 33  |Hello..... ~0123|\n"
        "00000010  61 62 0a 7a                                       |ab.z|";
    EXPECT_EQ(expect, std::string(out));
    EXPECT_EQ(static_cast<int>(expect.size()), n);

    // Truncated output still reports the full length and stays terminated.
    char small[16];
    EXPECT_EQ(n, log_format_hex(data, sizeof(data), small, sizeof(small)));
    EXPECT_EQ(expect.substr(0, 15), std::string(small));

    EXPECT_EQ(0, log_format_hex(data, 0, out, sizeof(out)));
    EXPECT_STREQ("", out);
}

TEST(LogHex, WriteHexHandsTheDumpToTheSink) {
    qntest::LogCapture cap;
    char bytes[3] = {'a', 'b', 'c'};
    LogLocation loc = {"f.cpp", 7, "fn", nullptr};
    LogRecord rec = {LOG_PRIORITY_INFO, bytes, 3, &loc, 0, 0, 0, 0, 0};
    log_write_hex(cap.cat(), &rec);
    auto entries = cap.Entries();
    ASSERT_EQ(1u, entries.size());
    EXPECT_TRUE(entries[0].is_hex);
    EXPECT_EQ("00000000  61 62 63                                          |abc|", entries[0].text);
    EXPECT_EQ("f.cpp", entries[0].file);
    EXPECT_EQ(7, entries[0].line);
    EXPECT_EQ("fn", entries[0].function);
}

TEST(LogWrite, LongMessageIsCut) {
    qntest::LogCapture cap;
    std::string big(10000, 'x');
    LogRecord rec = {LOG_PRIORITY_ERROR, nullptr, 0, nullptr, 0, 0, 0, 0, 0};
    log_write(cap.cat(), &rec, "%s", big.c_str());
    auto texts = cap.Texts();
    ASSERT_EQ(1u, texts.size());
    EXPECT_EQ(4095u, texts[0].size());
}

TEST(LogFile, RecordFormat) {
    FileOutput file;
    ASSERT_EQ(0, log_set_output_file(file.path().c_str()));
    LogCategory cat("net", LOG_PRIORITY_TRACE);
    int line = __LINE__ + 1;
    QN_LOG(&cat, QN_ERROR, "invalid argument, n=%d", 42);
    char bytes[2] = {'h', 'i'};
    QN_LOG_HEX(&cat, bytes, 2);
    log_set_output_file(nullptr);

    auto lines = file.Lines();
    ASSERT_EQ(3u, lines.size());
    std::regex rec(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6} ERROR \[net\] src/net/tcp_connector:(\d+) )"
                   R"(TestBody: invalid argument, n=42$)");
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, rec)) << lines[0];
    EXPECT_EQ(std::to_string(line), m[1].str());
    std::regex hex_head(
        R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6} INFO \[net\] src/net/tcp_connector:\d+ )"
        R"(TestBody: hex dump$)");
    EXPECT_TRUE(std::regex_match(lines[1], hex_head)) << lines[1];
    EXPECT_EQ("00000000  68 69                                             |hi|", lines[2]);
}

TEST(LogFile, UnopenablePathKeepsOutput) {
    EXPECT_EQ(-1, log_set_output_file("/nonexistent-dir/quolnet/log.txt"));
    EXPECT_EQ(0, log_set_output_file(nullptr));
}

TEST(LogFile, LinesFromSeveralThreadsNeverInterleave) {
    FileOutput file;
    ASSERT_EQ(0, log_set_output_file(file.path().c_str()));
    LogCategory cat("mt", LOG_PRIORITY_TRACE);
    const int kThreads = 8;
    const int kLines = 500;
    const std::string payload(200, 'p');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&cat, &payload, t] {
            for (int i = 0; i < kLines; ++i) {
                QN_LOG(&cat, QN_INFO, "thread=%d line=%d %s end", t, i, payload.c_str());
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    log_set_output_file(nullptr);

    auto lines = file.Lines();
    ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
    std::regex one(
        R"(^\S+ \S+ INFO \[mt\] src/net/tcp_connector:\d+ operator\(\): thread=(\d) line=(\d+) p{200} end$)");
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kLines, 0));
    for (const auto& l : lines) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, one)) << l;
        ++seen[std::stoi(m[1].str())][std::stoi(m[2].str())];
    }
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            ASSERT_EQ(1, seen[t][i]) << "thread " << t << " line " << i;
        }
    }
}

TEST(LogSink, DetachReturnsToProcessOutput) {
    qntest::LogCapture cap;
    FileOutput file;
    ASSERT_EQ(0, log_set_output_file(file.path().c_str()));
    log_set_sink(cap.cat(), nullptr, nullptr);
    QN_LOG(cap.cat(), QN_ERROR, "to file");
    log_set_output_file(nullptr);
    EXPECT_EQ(0u, cap.Size());
    auto lines = file.Lines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("to file"));
    log_set_sink(nullptr, nullptr, nullptr);  // ignored
}

}  // namespace
