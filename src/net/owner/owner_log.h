// The owner's logging macro: one record to `cat` when that category keeps the priority.
// Private to the owner's sources (not installed).
#pragma once

#include "../../log/log.h"

namespace QUOLNET {
namespace owner_log {

// The part of a source path from its last "src/" on ("src/net/owner/conn_service.cpp"),
// whatever the build's path to the tree; the whole path when it has none.
constexpr const char* SourcePath(const char* file) {
    const char* found = file;
    for (const char* p = file; *p != '\0'; ++p) {
        if (p[0] == 's' && p[1] == 'r' && p[2] == 'c' && p[3] == '/') {
            found = p;
        }
    }
    return found;
}

}  // namespace owner_log
}  // namespace QUOLNET

// clang-format off
#define QN_OWNER_LOG(cat, prio, ...)                                                      \
    do {                                                                                  \
        LogCategory* qn_cat_ = (cat);                                                     \
        if (qn_cat_ != nullptr && log_can_write(qn_cat_, (prio), 0, 0) != 0) {            \
            LogLocation qn_loc_ = {::QUOLNET::owner_log::SourcePath(__FILE__), __LINE__,  \
                                   __func__, nullptr};                                    \
            LogRecord qn_rec_ = {(prio), nullptr, 0, &qn_loc_, 0, 0, 0, 0, 0};            \
            log_write(qn_cat_, &qn_rec_, __VA_ARGS__);                                    \
        }                                                                                 \
    } while (0)
// clang-format on
