#include "support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <sstream>

namespace qntest {

std::string Fmt(const char* fmt, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    return buf;
}

LogCapture::LogCapture(int low_threshold, const char* name) : m_cat(name, low_threshold) {
    QUOLNET::log_set_sink(&m_cat, &LogCapture::Sink, this);
}

void LogCapture::Sink(const QUOLNET::LogEntry& e, void* arg) {
    LogCapture* self = static_cast<LogCapture*>(arg);
    CapturedLog c{e.priority, e.file ? e.file : "", e.line, e.function ? e.function : "", e.text, e.is_hex};
    std::lock_guard<std::mutex> g(self->m_lock);
    self->m_entries.push_back(std::move(c));
}

std::vector<CapturedLog> LogCapture::Entries() const {
    std::lock_guard<std::mutex> g(m_lock);
    return m_entries;
}

std::vector<std::string> LogCapture::Texts(int priority) const {
    std::lock_guard<std::mutex> g(m_lock);
    std::vector<std::string> out;
    for (const auto& e : m_entries) {
        if (priority == -2 || e.priority == priority) {
            out.push_back(e.text);
        }
    }
    return out;
}

bool LogCapture::Has(int priority, const std::string& text) const {
    std::lock_guard<std::mutex> g(m_lock);
    for (const auto& e : m_entries) {
        if (e.priority == priority && e.text == text) {
            return true;
        }
    }
    return false;
}

bool LogCapture::HasPrefix(int priority, const std::string& prefix) const {
    return CountPrefix(priority, prefix) > 0;
}

int LogCapture::CountPrefix(int priority, const std::string& prefix) const {
    std::lock_guard<std::mutex> g(m_lock);
    int n = 0;
    for (const auto& e : m_entries) {
        if (e.priority == priority && e.text.compare(0, prefix.size(), prefix) == 0) {
            ++n;
        }
    }
    return n;
}

size_t LogCapture::Size() const {
    std::lock_guard<std::mutex> g(m_lock);
    return m_entries.size();
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> g(m_lock);
    m_entries.clear();
}

std::string LogCapture::Dump() const {
    std::lock_guard<std::mutex> g(m_lock);
    std::ostringstream os;
    for (const auto& e : m_entries) {
        os << QUOLNET::log_priority_name(e.priority) << " " << e.function << ": " << e.text << "\n";
    }
    return os.str();
}

}  // namespace qntest
