// The owner's logging macro: one record to `cat` when that category keeps the priority.
// Private to the owner's sources (not installed).
#pragma once

#include "log/log.h"

// clang-format off
#define QN_OWNER_LOG(cat, prio, ...)                                                      \
    do {                                                                                  \
        LogCategory* qn_cat_ = (cat);                                                     \
        if (qn_cat_ != nullptr && log_can_write(qn_cat_, (prio), 0, 0) != 0) {            \
            LogLocation qn_loc_ = {"src/net/owner", __LINE__, __func__, nullptr};         \
            LogRecord qn_rec_ = {(prio), nullptr, 0, &qn_loc_, 0, 0, 0, 0, 0};            \
            log_write(qn_cat_, &qn_rec_, __VA_ARGS__);                                    \
        }                                                                                 \
    } while (0)
// clang-format on
