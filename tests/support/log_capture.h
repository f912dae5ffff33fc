// LogCapture: a log category whose records are kept in memory, so tests can assert the exact
// messages a component wrote.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "log/log.h"

namespace qntest {

struct CapturedLog {
    int priority;
    std::string file;
    int line;
    std::string function;
    std::string text;
    bool is_hex;
};

// printf-style formatting of an expected message (at most 1023 characters).
std::string Fmt(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

class LogCapture {
  public:
    // A category named `name` keeping every priority up to `low_threshold`.
    explicit LogCapture(int low_threshold = QUOLNET::LOG_PRIORITY_TRACE, const char* name = "test");
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QUOLNET::LogCategory* cat() { return &m_cat; }

    std::vector<CapturedLog> Entries() const;
    // Texts of the records at exactly `priority` (all records for -2).
    std::vector<std::string> Texts(int priority = -2) const;
    // Whether some record at `priority` has exactly `text`.
    bool Has(int priority, const std::string& text) const;
    // Whether some record at `priority` starts with `prefix`.
    bool HasPrefix(int priority, const std::string& prefix) const;
    // Number of records at `priority` whose text starts with `prefix`.
    int CountPrefix(int priority, const std::string& prefix) const;
    size_t Size() const;
    void Clear();
    // All records, one per line, for failure messages.
    std::string Dump() const;

  private:
    static void Sink(const QUOLNET::LogEntry& e, void* arg);

    QUOLNET::LogCategory m_cat;
    mutable std::mutex m_lock;
    std::vector<CapturedLog> m_entries;  // guarded by m_lock
};

}  // namespace qntest
