// The logging facility: named categories, numeric priorities, formatted and hex writes.
//
// A write is kept when its priority P lies inside the category's window: the low threshold
// (if set and not -1) must be at least P, and the high threshold (if set) at most P. Smaller
// priorities are more severe. A kept record becomes one line:
//
//   2026-11-21 09:30:01.123456 ERROR [net] src/net/tcp_connector:120 Init: invalid argument, ...
//
// (a hex dump adds its lines below the header line). Records go to the category's sink when
// one is attached, otherwise to the process-wide output: stderr by default, or a file chosen
// with log_set_output_file(). Each record is written with a single write under a process-wide
// lock, so lines from several threads never interleave.
//
// All functions are safe to call from any thread. A null category is accepted everywhere and
// means "do not log".
#pragma once

#include <cstddef>

#include "../common/export.h"

namespace QUOLNET {

enum LogPriority {
    LOG_PRIORITY_NULL = -1,  // threshold not set
    LOG_PRIORITY_FATAL = 0,
    LOG_PRIORITY_ALERT = 100,
    LOG_PRIORITY_CRIT = 200,
    LOG_PRIORITY_ERROR = 300,
    LOG_PRIORITY_WARN = 400,
    LOG_PRIORITY_NOTICE = 500,
    LOG_PRIORITY_INFO = 600,
    LOG_PRIORITY_DEBUG = 700,
    LOG_PRIORITY_TRACE = 800,
    LOG_PRIORITY_NOTSET = 900,
    LOG_PRIORITY_UNKNOWN = 1000,
};

// Name of a priority value ("ERROR", "INFO", ...); "UNKNOWN" for values not listed above.
QUOLNET_EXPORT const char* log_priority_name(int priority);

// Where a write was made.
struct LogLocation {
    const char* file;
    int line;
    const char* function;
    void* data;  // unused, always null
};

// The record handed to the library with every write.
struct LogRecord {
    int priority;
    char* msg;    // hex dumps: the bytes to dump
    int msg_len;  // hex dumps: how many bytes
    LogLocation* loc;
    int binary;    // 0
    unsigned id;   // 0
    unsigned cls;  // 0
    int type;
    int version;
};

// What a sink receives: one kept record, already formatted. `text` is the message (for a
// hex dump, the dump lines joined by '\n'); it is valid only during the call.
struct LogEntry {
    int priority;
    const char* category;
    const char* file;
    int line;
    const char* function;
    const char* text;
    bool is_hex;
};

// A sink is called with the category's lock not held; it may be called from several
// threads at once and must do its own locking.
typedef void (*LogSink)(const LogEntry& entry, void* arg);

// A named category. The two threshold pointers point at the category's own values by
// default, so a category built with (name, low) keeps every priority up to `low`; either
// pointer may be set to null (no bound) or pointed at shared storage. The category must
// outlive every connector and thread that writes to it.
struct LogCategory {
    explicit LogCategory(const char* name, int low_threshold = LOG_PRIORITY_INFO,
                         int high_threshold = LOG_PRIORITY_FATAL);
    LogCategory(const LogCategory&) = delete;
    LogCategory& operator=(const LogCategory&) = delete;

    int* m_high_threshold;  // writes with a priority below *this are dropped
    int* m_low_threshold;   // writes with a priority above *this are dropped (-1: none)

    int m_high_value;
    int m_low_value;
    char m_name[64];
    LogSink m_sink;  // null: the process-wide output
    void* m_sink_arg;
};

// Attaches `sink` (null detaches). Set it before the category is used by other threads.
QUOLNET_EXPORT void log_set_sink(LogCategory* cat, LogSink sink, void* arg);

// Sends records without a sink to the file at `path` (appended), or back to stderr when
// `path` is null. Returns 0, or -1 when the file cannot be opened (output is unchanged).
QUOLNET_EXPORT int log_set_output_file(const char* path);

// Nonzero when a write at `priority` to `cat` would be kept. The two trailing arguments
// are reserved and must be 0.
QUOLNET_EXPORT int log_can_write(LogCategory* cat, int priority, int reserved1, int reserved2);

// printf-style write of one record. Messages longer than 4 KiB are cut.
QUOLNET_EXPORT void log_write(LogCategory* cat, LogRecord* record, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Hex dump of record->msg_len bytes at record->msg: per line the offset, 16 bytes in hex
// and their printable characters ('.' for the others).
QUOLNET_EXPORT void log_write_hex(LogCategory* cat, LogRecord* record);

// Formats a hex dump as log_write_hex does (no trailing newline). Returns the text length
// that the whole dump needs, like snprintf.
QUOLNET_EXPORT int log_format_hex(const void* data, int len, char* out, size_t out_len);

}  // namespace QUOLNET
