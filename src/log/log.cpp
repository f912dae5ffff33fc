#include "log/log.h"

#include <pthread.h>
#include <sys/time.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace QUOLNET {

namespace {

// Guards g_output and every write to it.
pthread_mutex_t g_output_mutex = PTHREAD_MUTEX_INITIALIZER;
FILE* g_output = nullptr;  // null: stderr

const size_t kMaxMessage = 4096;

void EmitLine(const LogEntry& e) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm_buf;
    localtime_r(&tv.tv_sec, &tm_buf);
    char stamp[40];
    strftime(stamp, sizeof(stamp), "%Y-%m-%d %H:%M:%S", &tm_buf);

    std::string line;
    line.reserve(256 + strlen(e.text));
    char head[512];
    snprintf(head, sizeof(head), "%s.%06ld %s [%s] %s:%d %s: ", stamp, static_cast<long>(tv.tv_usec),
             log_priority_name(e.priority), e.category, e.file ? e.file : "?", e.line,
             e.function ? e.function : "?");
    line += head;
    if (e.is_hex) {
        line += "hex dump\n";
    }
    line += e.text;
    line += '\n';

    pthread_mutex_lock(&g_output_mutex);
    FILE* out = g_output ? g_output : stderr;
    fwrite(line.data(), 1, line.size(), out);
    fflush(out);
    pthread_mutex_unlock(&g_output_mutex);
}

void Dispatch(LogCategory* cat, const LogRecord* record, const char* text, bool is_hex) {
    LogEntry e;
    e.priority = record->priority;
    e.category = cat->m_name;
    e.file = record->loc ? record->loc->file : nullptr;
    e.line = record->loc ? record->loc->line : 0;
    e.function = record->loc ? record->loc->function : nullptr;
    e.text = text;
    e.is_hex = is_hex;
    if (cat->m_sink != nullptr) {
        cat->m_sink(e, cat->m_sink_arg);
    } else {
        EmitLine(e);
    }
}

}  // namespace

const char* log_priority_name(int priority) {
    switch (priority) {
        case LOG_PRIORITY_FATAL:
            return "FATAL";
        case LOG_PRIORITY_ALERT:
            return "ALERT";
        case LOG_PRIORITY_CRIT:
            return "CRIT";
        case LOG_PRIORITY_ERROR:
            return "ERROR";
        case LOG_PRIORITY_WARN:
            return "WARN";
        case LOG_PRIORITY_NOTICE:
            return "NOTICE";
        case LOG_PRIORITY_INFO:
            return "INFO";
        case LOG_PRIORITY_DEBUG:
            return "DEBUG";
        case LOG_PRIORITY_TRACE:
            return "TRACE";
        case LOG_PRIORITY_NOTSET:
            return "NOTSET";
        default:
            return "UNKNOWN";
    }
}

LogCategory::LogCategory(const char* name, int low_threshold, int high_threshold)
    : m_high_threshold(&m_high_value),
      m_low_threshold(&m_low_value),
      m_high_value(high_threshold),
      m_low_value(low_threshold),
      m_sink(nullptr),
      m_sink_arg(nullptr) {
    snprintf(m_name, sizeof(m_name), "%s", name ? name : "");
}

void log_set_sink(LogCategory* cat, LogSink sink, void* arg) {
    if (cat == nullptr) {
        return;
    }
    cat->m_sink = sink;
    cat->m_sink_arg = arg;
}

int log_set_output_file(const char* path) {
    FILE* f = nullptr;
    if (path != nullptr) {
        f = fopen(path, "a");
        if (f == nullptr) {
            return -1;
        }
    }
    pthread_mutex_lock(&g_output_mutex);
    FILE* old = g_output;
    g_output = f;
    pthread_mutex_unlock(&g_output_mutex);
    if (old != nullptr) {
        fclose(old);
    }
    return 0;
}

int log_can_write(LogCategory* cat, int priority, int /*reserved1*/, int /*reserved2*/) {
    if (cat == nullptr) {
        return 0;
    }
    if (cat->m_low_threshold != nullptr && *cat->m_low_threshold != LOG_PRIORITY_NULL &&
        *cat->m_low_threshold < priority) {
        return 0;
    }
    if (cat->m_high_threshold != nullptr && *cat->m_high_threshold > priority) {
        return 0;
    }
    return 1;
}

void log_write(LogCategory* cat, LogRecord* record, const char* format, ...) {
    if (cat == nullptr || record == nullptr || format == nullptr) {
        return;
    }
    char text[kMaxMessage];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    Dispatch(cat, record, text, false);
}

int log_format_hex(const void* data, int len, char* out, size_t out_len) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    size_t used = 0;  // what the whole dump needs
    if (out_len > 0) {
        out[0] = '\0';
    }
    for (int off = 0; p != nullptr && off < len; off += 16) {
        char line[96];
        int n = snprintf(line, sizeof(line), "%s%08x  ", off == 0 ? "" : "\n", off);
        for (int i = 0; i < 16; ++i) {
            if (off + i < len) {
                n += snprintf(line + n, sizeof(line) - n, "%02x ", p[off + i]);
            } else {
                n += snprintf(line + n, sizeof(line) - n, "   ");
            }
            if (i == 7) {
                n += snprintf(line + n, sizeof(line) - n, " ");
            }
        }
        n += snprintf(line + n, sizeof(line) - n, " |");
        for (int i = 0; i < 16 && off + i < len; ++i) {
            unsigned char c = p[off + i];
            line[n++] = (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '.';
        }
        line[n++] = '|';
        line[n] = '\0';
        if (used + n < out_len) {
            memcpy(out + used, line, n + 1);
        } else if (out_len > 0 && used < out_len) {
            size_t room = out_len - used - 1;
            memcpy(out + used, line, room);
            out[out_len - 1] = '\0';
        }
        used += n;
    }
    return static_cast<int>(used);
}

void log_write_hex(LogCategory* cat, LogRecord* record) {
    if (cat == nullptr || record == nullptr) {
        return;
    }
    int len = record->msg_len > 0 ? record->msg_len : 0;
    std::string text(static_cast<size_t>((len + 15) / 16) * 80 + 1, '\0');
    int need = log_format_hex(record->msg, len, &text[0], text.size());
    text.resize(static_cast<size_t>(need) < text.size() ? need : text.size() - 1);
    Dispatch(cat, record, text.c_str(), true);
}

}  // namespace QUOLNET
