// The manager's logging macro: one record to the manager's category (m_options.log_cat),
// when that category keeps the priority. Private to the manager's sources.
#pragma once

#include "log/log.h"

// clang-format off
#define QN_MGR_LOG(prio, ...)                                                             \
    do {                                                                                  \
        LogCategory* qn_cat_ = m_options.log_cat;                                         \
        if (qn_cat_ != nullptr && log_can_write(qn_cat_, (prio), 0, 0) != 0) {            \
            LogLocation qn_loc_ = {"src/net/connector_mgr", __LINE__, __func__, nullptr}; \
            LogRecord qn_rec_ = {(prio), nullptr, 0, &qn_loc_, 0, 0, 0, 0, 0};            \
            log_write(qn_cat_, &qn_rec_, __VA_ARGS__);                                    \
        }                                                                                 \
    } while (0)
// clang-format on
