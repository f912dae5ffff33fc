// Private to the connector's sources: the log step used at every log site.
//
// A write at priority P to category C happens only when C is set, C's low threshold (if
// set and not -1) is at least P, C's high threshold (if set) is at most P, and
// log_can_write agrees. The arguments are evaluated only after that test has passed.
#pragma once

#include "../log/log.h"

namespace QUOLNET {
namespace tcp_log {

inline bool Wanted(LogCategory* cat, int priority) {
    if (cat == nullptr) {
        return false;
    }
    if (cat->m_low_threshold != nullptr && *cat->m_low_threshold != LOG_PRIORITY_NULL &&
        *cat->m_low_threshold < priority) {
        return false;
    }
    if (cat->m_high_threshold != nullptr && *cat->m_high_threshold > priority) {
        return false;
    }
    return log_can_write(cat, priority, 0, 0) != 0;
}

}  // namespace tcp_log
}  // namespace QUOLNET

#define QN_LOG(cat, prio, ...)                                                                       \
    do {                                                                                             \
        ::QUOLNET::LogCategory* qn_cat_ = (cat);                                                     \
        if (::QUOLNET::tcp_log::Wanted(qn_cat_, (prio))) {                                           \
            ::QUOLNET::LogLocation qn_loc_ = {"src/net/tcp_connector", __LINE__, __func__, nullptr}; \
            ::QUOLNET::LogRecord qn_rec_ = {(prio), nullptr, 0, &qn_loc_, 0, 0, 0, 0, 0};            \
            ::QUOLNET::log_write(qn_cat_, &qn_rec_, __VA_ARGS__);                                    \
        }                                                                                            \
    } while (0)

// Hex dump of at most 128 bytes at INFO.
#define QN_LOG_HEX(cat, data, length)                                                                \
    do {                                                                                             \
        ::QUOLNET::LogCategory* qn_cat_ = (cat);                                                     \
        if (::QUOLNET::tcp_log::Wanted(qn_cat_, ::QUOLNET::LOG_PRIORITY_INFO)) {                     \
            ::QUOLNET::LogLocation qn_loc_ = {"src/net/tcp_connector", __LINE__, __func__, nullptr}; \
            int qn_len_ = (length);                                                                  \
            ::QUOLNET::LogRecord qn_rec_ = {::QUOLNET::LOG_PRIORITY_INFO,                            \
                                            const_cast<char*>(data),                                 \
                                            qn_len_ > 128 ? 128 : qn_len_,                           \
                                            &qn_loc_,                                                \
                                            0,                                                       \
                                            0,                                                       \
                                            0,                                                       \
                                            0,                                                       \
                                            0};                                                      \
            ::QUOLNET::log_write_hex(qn_cat_, &qn_rec_);                                             \
        }                                                                                            \
    } while (0)

#define QN_ERROR ::QUOLNET::LOG_PRIORITY_ERROR
#define QN_WARN ::QUOLNET::LOG_PRIORITY_WARN
#define QN_INFO ::QUOLNET::LOG_PRIORITY_INFO
#define QN_DEBUG ::QUOLNET::LOG_PRIORITY_DEBUG
#define QN_TRACE ::QUOLNET::LOG_PRIORITY_TRACE
