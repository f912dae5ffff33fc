// Metrics: a manager's counters and gauges in two machine-readable forms, JSON and the
// Prometheus text exposition format (version 0.0.4), for one loop (CConnectorMgr) or for
// every loop of a group (CConnectorGroup).
//
// A MgrMetrics is one loop's figures at one moment, taken by CConnectorMgr::SnapshotMetrics
// on its loop thread; FormatMetrics and FormatGroupMetrics turn snapshots into text and may
// run on any thread. Counters never go down for the life of a manager: the bytes and
// packets of a connection that ended (or moved to another loop) are kept in running totals
// when it leaves, and added to the sum over the connections open now.
//
// JSON, one object (every key is always present; every value is an unsigned integer):
//   {
//     "connections": N,               connections held now (dials in progress or waiting too)
//     "max_connections": N,           the connection limit in force
//     "accepts": N,                   descriptors accepted by the listeners
//     "closes": {"<reason>": N, ...}, connections ended, by every CloseReasonName
//     "limit_closes": {"<limit>": N, ...},  ends for a limit, by every CloseLimitName
//                                     ("none": a limit close that named none, not expected)
//     "pool": {"blocks_in_use": N, "blocks_free": N, "blocks_max": N, "blocks_peak": N,
//              "exhausted": N},       the block pool now; times it ran out of blocks
//     "traffic": {"bytes_sent": N, "bytes_received": N, "packets_sent": N,
//                 "packets_received": N},
//     "accept_pauses": {"fd_limit": N, "connection_limit": N},
//                                     listener pauses at the descriptor limit, and at
//                                     max_connections with none idle enough to close
//     "accept_refused": {"<refusal>": N, ...},  closed at accept, by every AcceptRefusalName
//     "send_refused": {"too_large": N}      Sends refused and counted, by reason
//   }
// A group's JSON: {"loops": [<the object above, with "loop": i first>, ...],
//                  "total": <the object above, summed over the loops>,
//                  "moves": N, "move_failures": N}
// In "total" a pool shared by several loops counts once (its peak too), and blocks_peak of
// separate pools is the sum of their peaks (each reached at its own moment).
//
// Prometheus text: every family has its # HELP and # TYPE lines before its samples.
//   quolnet_connections                          gauge
//   quolnet_max_connections                      gauge
//   quolnet_accepts_total                        counter
//   quolnet_closes_total{reason="<reason>"}      counter, one sample per CloseReason
//   quolnet_limit_closes_total{limit="<limit>"}  counter, one sample per CloseLimit
//   quolnet_pool_blocks_in_use, _free, _max, _peak   gauges
//   quolnet_pool_exhausted_total                 counter
//   quolnet_sent_bytes_total, quolnet_received_bytes_total          counters
//   quolnet_sent_packets_total, quolnet_received_packets_total      counters
//   quolnet_accept_pauses_total{reason="fd_limit"|"connection_limit"}  counter
//   quolnet_accept_refused_total{reason="<refusal>"}  counter, one sample per AcceptRefusal
//   quolnet_send_refused_total{reason="too_large"}                  counter
// A group's text has each family once, with one sample per loop labelled loop="<i>" (first
// label), then the group's own families, without a loop label: quolnet_loops (gauge),
// quolnet_moves_total and quolnet_move_failures_total (counters). With a pool shared by
// the loops every loop reports the same pool (sum the pool gauges only with pool_per_loop).
//
// Traffic: bytes are those written to and read from the sockets; packets_received counts
// complete packets framed; packets_sent counts the packets the connections took for
// sending (the connector's count of offers, which includes a queued offer refused for want
// of room).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../../common/export.h"
#include "../connector_handler.h"
#include "mgr_stats.h"

namespace QUOLNET {

enum class MetricsFormat : int {
    kJson = 0,        // one JSON object (see above), no trailing newline
    kPrometheus = 1,  // the Prometheus text exposition format, every line ending in '\n'
};

// One loop's figures at one moment (see above for the meaning of each).
struct MgrMetrics {
    uint64_t connections = 0;
    uint64_t max_connections = 0;
    uint64_t accepts = 0;
    uint64_t closes[kCloseReasonCount] = {};
    uint64_t limit_closes[kCloseLimitCount] = {};
    uint64_t pool_in_use = 0;
    uint64_t pool_free = 0;
    uint64_t pool_max = 0;
    uint64_t pool_peak = 0;
    uint64_t pool_exhausted = 0;
    const void* pool_id = nullptr;  // which pool (loops of a group may share one); not printed
    uint64_t bytes_sent = 0;
    uint64_t bytes_received = 0;
    uint64_t packets_sent = 0;
    uint64_t packets_received = 0;
    uint64_t accept_pauses_fd = 0;
    uint64_t accept_pauses_limit = 0;
    uint64_t accept_refused[kAcceptRefusalCount] = {};
    uint64_t send_too_large = 0;
};

// One loop's metrics as text. Any thread (the snapshot is a plain value).
QUOLNET_EXPORT std::string FormatMetrics(const MgrMetrics& m, MetricsFormat format);
// A group's metrics as text: `loops[i]` is loop i's snapshot; `moves` and `move_failures`
// are the group's move counts. Any thread.
QUOLNET_EXPORT std::string FormatGroupMetrics(const std::vector<MgrMetrics>& loops, uint64_t moves,
                                              uint64_t move_failures, MetricsFormat format);

}  // namespace QUOLNET
