// Metrics: snapshots of a loop (or of a group's loops) as JSON and as the Prometheus text
// exposition format.
#include "net/owner/metrics.h"

#include <algorithm>
#include <cstdio>

namespace QUOLNET {

namespace {

// ---- JSON ----

void AppendKey(std::string* out, const char* key) {
    out->push_back('"');
    out->append(key);  // every key and name here is [a-z_0-9]: nothing to escape
    out->append("\":");
}

void AppendNumber(std::string* out, uint64_t v) {
    char num[24];
    int len = snprintf(num, sizeof(num), "%llu", static_cast<unsigned long long>(v));
    out->append(num, static_cast<size_t>(std::max(0, len)));
}

void AppendField(std::string* out, const char* key, uint64_t v, bool first = false) {
    if (!first) {
        out->push_back(',');
    }
    AppendKey(out, key);
    AppendNumber(out, v);
}

// {"<name(i)>": values[i], ...} for i in [0, n).
template <typename Name>
void AppendNamed(std::string* out, const char* key, const uint64_t* values, int n, Name name) {
    out->push_back(',');
    AppendKey(out, key);
    out->push_back('{');
    for (int i = 0; i < n; ++i) {
        AppendField(out, name(i), values[i], i == 0);
    }
    out->push_back('}');
}

// One loop's object; with `loop` >= 0 its first key is "loop".
void AppendJsonObject(std::string* out, const MgrMetrics& m, int loop) {
    out->push_back('{');
    if (loop >= 0) {
        AppendField(out, "loop", static_cast<uint64_t>(loop), true);
        out->push_back(',');
    }
    AppendField(out, "connections", m.connections, true);
    AppendField(out, "max_connections", m.max_connections);
    AppendField(out, "accepts", m.accepts);
    AppendNamed(out, "closes", m.closes, kCloseReasonCount,
                [](int i) { return CloseReasonName(static_cast<CloseReason>(i)); });
    AppendNamed(out, "limit_closes", m.limit_closes, kCloseLimitCount,
                [](int i) { return CloseLimitName(static_cast<CloseLimit>(i)); });
    out->append(",\"pool\":{");
    AppendField(out, "blocks_in_use", m.pool_in_use, true);
    AppendField(out, "blocks_free", m.pool_free);
    AppendField(out, "blocks_max", m.pool_max);
    AppendField(out, "blocks_peak", m.pool_peak);
    AppendField(out, "exhausted", m.pool_exhausted);
    out->append("},\"traffic\":{");
    AppendField(out, "bytes_sent", m.bytes_sent, true);
    AppendField(out, "bytes_received", m.bytes_received);
    AppendField(out, "packets_sent", m.packets_sent);
    AppendField(out, "packets_received", m.packets_received);
    out->append("},\"accept_pauses\":{");
    AppendField(out, "fd_limit", m.accept_pauses_fd, true);
    AppendField(out, "connection_limit", m.accept_pauses_limit);
    out->push_back('}');
    AppendNamed(out, "accept_refused", m.accept_refused, kAcceptRefusalCount,
                [](int i) { return AcceptRefusalName(static_cast<AcceptRefusal>(i)); });
    out->append(",\"send_refused\":{");
    AppendField(out, "too_large", m.send_too_large, true);
    out->append("}}");
}

// The loops' figures added up; a pool that several loops share counts once.
MgrMetrics Sum(const std::vector<MgrMetrics>& loops) {
    MgrMetrics t;
    std::vector<const void*> pools;
    for (const MgrMetrics& m : loops) {
        t.connections += m.connections;
        t.max_connections += m.max_connections;
        t.accepts += m.accepts;
        for (int i = 0; i < kCloseReasonCount; ++i) {
            t.closes[i] += m.closes[i];
        }
        for (int i = 0; i < kCloseLimitCount; ++i) {
            t.limit_closes[i] += m.limit_closes[i];
        }
        if (m.pool_id == nullptr || std::find(pools.begin(), pools.end(), m.pool_id) == pools.end()) {
            pools.push_back(m.pool_id);
            t.pool_in_use += m.pool_in_use;
            t.pool_free += m.pool_free;
            t.pool_max += m.pool_max;
            t.pool_peak += m.pool_peak;
        }
        t.pool_exhausted += m.pool_exhausted;
        t.bytes_sent += m.bytes_sent;
        t.bytes_received += m.bytes_received;
        t.packets_sent += m.packets_sent;
        t.packets_received += m.packets_received;
        t.accept_pauses_fd += m.accept_pauses_fd;
        t.accept_pauses_limit += m.accept_pauses_limit;
        for (int i = 0; i < kAcceptRefusalCount; ++i) {
            t.accept_refused[i] += m.accept_refused[i];
        }
        t.send_too_large += m.send_too_large;
    }
    return t;
}

// ---- Prometheus text ----

// One sample of a family: its label's value (null: the family has no label) and value.
struct Sample {
    const char* label_value;
    uint64_t value;
};
using Collect = void (*)(const MgrMetrics&, std::vector<Sample>*);

struct Family {
    const char* name;
    const char* type;   // "counter" or "gauge"
    const char* help;   // no backslash or newline
    const char* label;  // the label's name, or null
    Collect collect;
};

#define QN_ONE(field) [](const MgrMetrics& m, std::vector<Sample>* s) { s->push_back({nullptr, m.field}); }

const Family kFamilies[] = {
    {"quolnet_connections", "gauge", "Connections held now, dials in progress or waiting included.", nullptr,
     QN_ONE(connections)},
    {"quolnet_max_connections", "gauge", "The connection limit in force.", nullptr, QN_ONE(max_connections)},
    {"quolnet_accepts_total", "counter", "Descriptors accepted by the listeners.", nullptr, QN_ONE(accepts)},
    {"quolnet_closes_total", "counter", "Connections ended, by reason.", "reason",
     [](const MgrMetrics& m, std::vector<Sample>* s) {
         for (int i = 0; i < kCloseReasonCount; ++i) {
             s->push_back({CloseReasonName(static_cast<CloseReason>(i)), m.closes[i]});
         }
     }},
    {"quolnet_limit_closes_total", "counter", "Connections ended for a limit, by limit.", "limit",
     [](const MgrMetrics& m, std::vector<Sample>* s) {
         for (int i = 0; i < kCloseLimitCount; ++i) {
             s->push_back({CloseLimitName(static_cast<CloseLimit>(i)), m.limit_closes[i]});
         }
     }},
    {"quolnet_pool_blocks_in_use", "gauge", "Pool blocks handed out now.", nullptr, QN_ONE(pool_in_use)},
    {"quolnet_pool_blocks_free", "gauge", "Pool blocks that may still be handed out.", nullptr,
     QN_ONE(pool_free)},
    {"quolnet_pool_blocks_max", "gauge", "Blocks the pool may hand out at most.", nullptr, QN_ONE(pool_max)},
    {"quolnet_pool_blocks_peak", "gauge", "Most pool blocks handed out at once.", nullptr, QN_ONE(pool_peak)},
    {"quolnet_pool_exhausted_total", "counter", "Times the pool ran out of blocks.", nullptr,
     QN_ONE(pool_exhausted)},
    {"quolnet_sent_bytes_total", "counter", "Bytes written to the connections' sockets.", nullptr,
     QN_ONE(bytes_sent)},
    {"quolnet_received_bytes_total", "counter", "Bytes read from the connections' sockets.", nullptr,
     QN_ONE(bytes_received)},
    {"quolnet_sent_packets_total", "counter", "Packets the connections took for sending.", nullptr,
     QN_ONE(packets_sent)},
    {"quolnet_received_packets_total", "counter", "Complete packets received.", nullptr,
     QN_ONE(packets_received)},
    {"quolnet_accept_pauses_total", "counter",
     "Listener pauses: at the descriptor limit, or at the connection limit with none idle enough to close.",
     "reason",
     [](const MgrMetrics& m, std::vector<Sample>* s) {
         s->push_back({"fd_limit", m.accept_pauses_fd});
         s->push_back({"connection_limit", m.accept_pauses_limit});
     }},
    {"quolnet_accept_refused_total", "counter", "Connections closed at accept, by reason.", "reason",
     [](const MgrMetrics& m, std::vector<Sample>* s) {
         for (int i = 0; i < kAcceptRefusalCount; ++i) {
             s->push_back({AcceptRefusalName(static_cast<AcceptRefusal>(i)), m.accept_refused[i]});
         }
     }},
    {"quolnet_send_refused_total", "counter", "Sends refused, by reason.", "reason",
     [](const MgrMetrics& m, std::vector<Sample>* s) {
         s->push_back({"too_large", m.send_too_large});
     }},
};

#undef QN_ONE

// A label value with backslash, double quote and newline escaped.
void AppendLabelValue(std::string* out, const char* v) {
    for (; *v != '\0'; ++v) {
        if (*v == '\\' || *v == '"') {
            out->push_back('\\');
            out->push_back(*v);
        } else if (*v == '\n') {
            out->append("\\n");
        } else {
            out->push_back(*v);
        }
    }
}

void AppendHeader(std::string* out, const char* name, const char* type, const char* help) {
    out->append("# HELP ").append(name).push_back(' ');
    out->append(help).push_back('\n');
    out->append("# TYPE ").append(name).push_back(' ');
    out->append(type).push_back('\n');
}

// name{loop="<loop>",<label>="<value>"} value  (a label pair only where there is one)
void AppendSample(std::string* out, const char* name, int loop, const char* label, const Sample& s) {
    out->append(name);
    bool labelled = loop >= 0 || (label != nullptr && s.label_value != nullptr);
    if (labelled) {
        out->push_back('{');
        if (loop >= 0) {
            char num[16];
            snprintf(num, sizeof(num), "%d", loop);
            out->append("loop=\"").append(num).push_back('"');
        }
        if (label != nullptr && s.label_value != nullptr) {
            if (loop >= 0) {
                out->push_back(',');
            }
            out->append(label).append("=\"");
            AppendLabelValue(out, s.label_value);
            out->push_back('"');
        }
        out->push_back('}');
    }
    out->push_back(' ');
    AppendNumber(out, s.value);
    out->push_back('\n');
}

// Every family; `loops` holds one snapshot (no loop label) or a group's (loop="i").
std::string FormatPrometheus(const MgrMetrics* loops, size_t n, bool group) {
    std::string out;
    std::vector<Sample> samples;
    for (const Family& f : kFamilies) {
        AppendHeader(&out, f.name, f.type, f.help);
        for (size_t i = 0; i < n; ++i) {
            samples.clear();
            f.collect(loops[i], &samples);
            for (const Sample& s : samples) {
                AppendSample(&out, f.name, group ? static_cast<int>(i) : -1, f.label, s);
            }
        }
    }
    return out;
}

}  // namespace

std::string FormatMetrics(const MgrMetrics& m, MetricsFormat format) {
    if (format == MetricsFormat::kPrometheus) {
        return FormatPrometheus(&m, 1, false);
    }
    std::string out;
    out.reserve(1024);
    AppendJsonObject(&out, m, -1);
    return out;
}

std::string FormatGroupMetrics(const std::vector<MgrMetrics>& loops, uint64_t moves, uint64_t move_failures,
                               MetricsFormat format) {
    if (format == MetricsFormat::kPrometheus) {
        std::string out = FormatPrometheus(loops.data(), loops.size(), true);
        const Sample loop_count = {nullptr, static_cast<uint64_t>(loops.size())};
        AppendHeader(&out, "quolnet_loops", "gauge", "Event loops of the group.");
        AppendSample(&out, "quolnet_loops", -1, nullptr, loop_count);
        AppendHeader(&out, "quolnet_moves_total", "counter", "Connections moved between loops.");
        AppendSample(&out, "quolnet_moves_total", -1, nullptr, Sample{nullptr, moves});
        AppendHeader(&out, "quolnet_move_failures_total", "counter",
                     "Moves refused: the connection was dialling, draining, closing or gone.");
        AppendSample(&out, "quolnet_move_failures_total", -1, nullptr, Sample{nullptr, move_failures});
        return out;
    }
    std::string out;
    out.reserve(1024 * (loops.size() + 1));
    out.append("{\"loops\":[");
    for (size_t i = 0; i < loops.size(); ++i) {
        if (i > 0) {
            out.push_back(',');
        }
        AppendJsonObject(&out, loops[i], static_cast<int>(i));
    }
    out.append("],\"total\":");
    AppendJsonObject(&out, Sum(loops), -1);
    AppendField(&out, "moves", moves);
    AppendField(&out, "move_failures", move_failures);
    out.push_back('}');
    return out;
}

}  // namespace QUOLNET
