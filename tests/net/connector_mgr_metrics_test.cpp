// Metrics of CConnectorMgr and CConnectorGroup over loopback: after real echoed traffic the
// JSON and the Prometheus text both parse (each with a small reader of its own here, strict
// about the grammar), carry every close reason and limit by name, and agree with the
// getters and with the traffic sent; counters stay put once connections end or move; a
// group labels every sample with its loop, and its totals add up.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <future>
#include <initializer_list>
#include <map>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "net/connector_group.h"
#include "net/connector_mgr.h"
#include "support/mgr_helpers.h"
#include "support/net_helpers.h"

namespace {

using qntest::Packet;
using QUOLNET::AcceptRefusal;
using QUOLNET::AcceptRefusalName;
using QUOLNET::CConnectorGroup;
using QUOLNET::CConnectorMgr;
using QUOLNET::CloseInfo;
using QUOLNET::CloseLimit;
using QUOLNET::CloseLimitName;
using QUOLNET::CloseReason;
using QUOLNET::CloseReasonName;
using QUOLNET::ConnectorGroupOptions;
using QUOLNET::ConnectorMgrOptions;
using QUOLNET::ConnId;
using QUOLNET::MetricsFormat;

// ---- a JSON reader: the grammar of RFC 8259, duplicate keys refused ----

struct JValue {
    enum Kind { kNull, kBool, kNumber, kString, kArray, kObject };
    Kind kind = kNull;
    bool boolean = false;
    double number = 0;
    bool is_uint = false;  // a non-negative integer, exact in `uint`
    uint64_t uint = 0;
    std::string str;
    std::vector<JValue> arr;
    std::vector<std::pair<std::string, JValue>> obj;  // in document order

    const JValue* Get(const std::string& key) const {
        for (const auto& kv : obj) {
            if (kv.first == key) {
                return &kv.second;
            }
        }
        return nullptr;
    }
};

class JsonReader {
  public:
    // Parses all of `text` into `out`; false (with `error` set) on any departure from the
    // grammar or on trailing bytes.
    bool Parse(const std::string& text, JValue* out) {
        m_text = &text;
        m_pos = 0;
        error.clear();
        *out = JValue();
        if (!Value(out, 0)) {
            return false;
        }
        SkipSpace();
        return m_pos == text.size() || Fail("trailing bytes");
    }
    std::string error;

  private:
    bool Fail(const char* what) {
        error = std::string(what) + " at offset " + std::to_string(m_pos);
        return false;
    }
    char Peek() const { return m_pos < m_text->size() ? (*m_text)[m_pos] : '\0'; }
    void SkipSpace() {
        while (m_pos < m_text->size() && strchr(" \t\r\n", (*m_text)[m_pos]) != nullptr) {
            ++m_pos;
        }
    }
    bool Literal(const char* word) {
        size_t n = strlen(word);
        if (m_text->compare(m_pos, n, word) != 0) {
            return Fail("bad literal");
        }
        m_pos += n;
        return true;
    }
    bool Value(JValue* v, int depth) {
        if (depth > 64) {
            return Fail("too deep");
        }
        SkipSpace();
        char c = Peek();
        if (c == '{') {
            return Object(v, depth);
        }
        if (c == '[') {
            return Array(v, depth);
        }
        if (c == '"') {
            v->kind = JValue::kString;
            return String(&v->str);
        }
        if (c == 't' || c == 'f') {
            v->kind = JValue::kBool;
            v->boolean = c == 't';
            return Literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') {
            v->kind = JValue::kNull;
            return Literal("null");
        }
        return Number(v);
    }
    bool Object(JValue* v, int depth) {
        v->kind = JValue::kObject;
        ++m_pos;  // '{'
        SkipSpace();
        if (Peek() == '}') {
            ++m_pos;
            return true;
        }
        for (;;) {
            SkipSpace();
            std::string key;
            if (Peek() != '"' || !String(&key)) {
                return Fail("expected a key");
            }
            if (v->Get(key) != nullptr) {
                return Fail(("duplicate key " + key).c_str());
            }
            SkipSpace();
            if (Peek() != ':') {
                return Fail("expected ':'");
            }
            ++m_pos;
            JValue member;
            if (!Value(&member, depth + 1)) {
                return false;
            }
            v->obj.emplace_back(key, std::move(member));
            SkipSpace();
            if (Peek() == ',') {
                ++m_pos;
                continue;
            }
            if (Peek() == '}') {
                ++m_pos;
                return true;
            }
            return Fail("expected ',' or '}'");
        }
    }
    bool Array(JValue* v, int depth) {
        v->kind = JValue::kArray;
        ++m_pos;  // '['
        SkipSpace();
        if (Peek() == ']') {
            ++m_pos;
            return true;
        }
        for (;;) {
            JValue item;
            if (!Value(&item, depth + 1)) {
                return false;
            }
            v->arr.push_back(std::move(item));
            SkipSpace();
            if (Peek() == ',') {
                ++m_pos;
                continue;
            }
            if (Peek() == ']') {
                ++m_pos;
                return true;
            }
            return Fail("expected ',' or ']'");
        }
    }
    bool String(std::string* out) {
        ++m_pos;  // '"'
        while (m_pos < m_text->size()) {
            unsigned char c = static_cast<unsigned char>((*m_text)[m_pos++]);
            if (c == '"') {
                return true;
            }
            if (c < 0x20) {
                return Fail("control character in a string");
            }
            if (c != '\\') {
                out->push_back(static_cast<char>(c));
                continue;
            }
            char e = Peek();
            ++m_pos;
            if (e == 'u') {
                for (int i = 0; i < 4; ++i, ++m_pos) {
                    if (!isxdigit(static_cast<unsigned char>(Peek()))) {
                        return Fail("bad \\u escape");
                    }
                }
                out->push_back('?');
            } else if (strchr("\"\\/bfnrt", e) != nullptr && e != '\0') {
                out->push_back(e);
            } else {
                return Fail("bad escape");
            }
        }
        return Fail("unterminated string");
    }
    bool Number(JValue* v) {
        static const std::regex kNumber("-?(0|[1-9][0-9]*)(\\.[0-9]+)?([eE][+-]?[0-9]+)?");
        size_t end = m_pos;
        while (end < m_text->size() && strchr("+-.eE0123456789", (*m_text)[end]) != nullptr) {
            ++end;
        }
        std::string token = m_text->substr(m_pos, end - m_pos);
        if (token.empty() || !std::regex_match(token, kNumber)) {
            return Fail("bad number");
        }
        v->kind = JValue::kNumber;
        v->number = strtod(token.c_str(), nullptr);
        v->is_uint = token.find_first_of("-.eE") == std::string::npos;
        if (v->is_uint) {
            v->uint = strtoull(token.c_str(), nullptr, 10);
        }
        m_pos = end;
        return true;
    }

    const std::string* m_text = nullptr;
    size_t m_pos = 0;
};

// The unsigned integer at `path` under `v`; fails the test (and returns 0) when it is
// missing or not one.
uint64_t U(const JValue& v, std::initializer_list<const char*> path) {
    const JValue* at = &v;
    std::string where;
    for (const char* key : path) {
        where += std::string("/") + key;
        at = at->kind == JValue::kObject ? at->Get(key) : nullptr;
        if (at == nullptr) {
            ADD_FAILURE() << "no " << where;
            return 0;
        }
    }
    EXPECT_TRUE(at->kind == JValue::kNumber && at->is_uint) << where << " is not an unsigned integer";
    return at->uint;
}

// Every key of the metrics object's schema (net/owner/metrics.h) is there, each value an
// unsigned integer, and nothing else is.
void CheckSchema(const JValue& m) {
    ASSERT_EQ(m.kind, JValue::kObject);
    std::map<std::string, std::vector<std::string>> groups = {
        {"pool", {"blocks_in_use", "blocks_free", "blocks_max", "blocks_peak", "exhausted"}},
        {"traffic", {"bytes_sent", "bytes_received", "packets_sent", "packets_received"}},
        {"accept_pauses", {"fd_limit", "connection_limit"}},
        {"send_refused", {"too_large"}},
    };
    for (int i = 0; i < QUOLNET::kCloseReasonCount; ++i) {
        groups["closes"].push_back(CloseReasonName(static_cast<CloseReason>(i)));
    }
    for (int i = 0; i < QUOLNET::kCloseLimitCount; ++i) {
        groups["limit_closes"].push_back(CloseLimitName(static_cast<CloseLimit>(i)));
    }
    for (int i = 0; i < QUOLNET::kAcceptRefusalCount; ++i) {
        groups["accept_refused"].push_back(AcceptRefusalName(static_cast<AcceptRefusal>(i)));
    }
    std::set<std::string> want = {"connections", "max_connections", "accepts"};
    for (const auto& g : groups) {
        want.insert(g.first);
        const JValue* sub = m.Get(g.first);
        ASSERT_NE(sub, nullptr) << g.first;
        ASSERT_EQ(sub->kind, JValue::kObject) << g.first;
        EXPECT_EQ(sub->obj.size(), g.second.size()) << g.first;
        for (const std::string& key : g.second) {
            U(*sub, {key.c_str()});
        }
    }
    for (const char* key : {"connections", "max_connections", "accepts"}) {
        U(m, {key});
    }
    for (const auto& kv : m.obj) {
        EXPECT_TRUE(want.count(kv.first) == 1 || kv.first == "loop") << "unexpected key " << kv.first;
    }
}

JValue ParseJson(const std::string& text) {
    JsonReader reader;
    JValue v;
    EXPECT_TRUE(reader.Parse(text, &v)) << reader.error << "\n" << text;
    return v;
}

// ---- a reader of the Prometheus text exposition format ----

struct PromFamily {
    std::string type;
    std::string help;
    std::map<std::string, double> samples;  // canonical labels ("a=x,b=y", sorted) -> value
};

// Splits `body` (what is between the braces) into label pairs; false when it breaks the
// grammar: name="value" pairs separated by commas, values with \\, \" and \n escapes only.
bool ParseLabels(const std::string& body, std::map<std::string, std::string>* labels) {
    static const std::regex kLabelName("[a-zA-Z_][a-zA-Z0-9_]*");
    size_t pos = 0;
    while (pos < body.size()) {
        size_t eq = body.find('=', pos);
        if (eq == std::string::npos || !std::regex_match(body.substr(pos, eq - pos), kLabelName) ||
            eq + 1 >= body.size() || body[eq + 1] != '"') {
            return false;
        }
        std::string name = body.substr(pos, eq - pos);
        std::string value;
        size_t i = eq + 2;
        for (; i < body.size() && body[i] != '"'; ++i) {
            if (body[i] == '\n') {
                return false;
            }
            if (body[i] == '\\') {
                if (i + 1 >= body.size() || strchr("\\\"n", body[i + 1]) == nullptr) {
                    return false;
                }
                ++i;
                value.push_back(body[i] == 'n' ? '\n' : body[i]);
            } else {
                value.push_back(body[i]);
            }
        }
        if (i >= body.size() || !labels->emplace(name, value).second) {
            return false;  // unterminated value, or a label named twice
        }
        pos = i + 1;
        if (pos < body.size()) {
            if (body[pos] != ',') {
                return false;
            }
            ++pos;
        }
    }
    return true;
}

// Parses the whole text; every breach of the rules is added to `errors`: each line ends with
// a newline; comments are "# HELP name text" then "# TYPE name counter|gauge", once per
// family and before its samples; a sample line is name{labels} value with a valid name
// (the current family's), valid labels and a number; counters end in _total; a sample is
// never repeated.
std::map<std::string, PromFamily> ParsePrometheus(const std::string& text, std::vector<std::string>* errors) {
    static const std::regex kName("[a-zA-Z_:][a-zA-Z0-9_:]*");
    static const std::regex kSample("([a-zA-Z_:][a-zA-Z0-9_:]*)(\\{(.*)\\})? ([^ ]+)");
    std::map<std::string, PromFamily> families;
    std::string current;
    bool typed = false;
    if (text.empty() || text.back() != '\n') {
        errors->push_back("the text does not end with a newline");
    }
    size_t pos = 0;
    int line_no = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        pos = nl == std::string::npos ? text.size() : nl + 1;
        ++line_no;
        std::string where = "line " + std::to_string(line_no) + " '" + line + "': ";
        if (line.compare(0, 7, "# HELP ") == 0) {
            size_t sp = line.find(' ', 7);
            std::string name = line.substr(7, sp == std::string::npos ? std::string::npos : sp - 7);
            if (!std::regex_match(name, kName) || sp == std::string::npos || families.count(name) != 0) {
                errors->push_back(where + "bad or repeated HELP");
                continue;
            }
            families[name].help = line.substr(sp + 1);
            current = name;
            typed = false;
            continue;
        }
        if (line.compare(0, 7, "# TYPE ") == 0) {
            size_t sp = line.find(' ', 7);
            std::string name = line.substr(7, sp == std::string::npos ? std::string::npos : sp - 7);
            std::string type = sp == std::string::npos ? "" : line.substr(sp + 1);
            if (name != current || typed || (type != "counter" && type != "gauge")) {
                errors->push_back(where + "TYPE not right after its HELP, or not counter/gauge");
                continue;
            }
            if (type == "counter" && (name.size() < 6 || name.compare(name.size() - 6, 6, "_total") != 0)) {
                errors->push_back(where + "a counter whose name does not end in _total");
            }
            families[name].type = type;
            typed = true;
            continue;
        }
        if (!line.empty() && line[0] == '#') {
            errors->push_back(where + "unexpected comment");
            continue;
        }
        std::smatch m;
        std::map<std::string, std::string> labels;
        if (!std::regex_match(line, m, kSample) || !ParseLabels(m[3].str(), &labels)) {
            errors->push_back(where + "not a valid sample line");
            continue;
        }
        if (m[1].str() != current || !typed) {
            errors->push_back(where + "a sample outside its family (or before HELP and TYPE)");
            continue;
        }
        std::string value_text = m[4].str();
        char* end = nullptr;
        double value = strtod(value_text.c_str(), &end);
        if (end == value_text.c_str() || *end != '\0') {
            errors->push_back(where + "not a number");
            continue;
        }
        std::string key;
        for (const auto& kv : labels) {
            key += (key.empty() ? "" : ",") + kv.first + "=" + kv.second;
        }
        if (!families[current].samples.emplace(key, value).second) {
            errors->push_back(where + "a repeated sample");
        }
    }
    for (const auto& f : families) {
        if (f.second.type.empty()) {
            errors->push_back(f.first + " has no TYPE");
        }
        if (f.first.compare(0, 8, "quolnet_") != 0) {
            errors->push_back(f.first + " is not a quolnet_ name");
        }
    }
    return families;
}

std::map<std::string, PromFamily> ParsePrometheusOk(const std::string& text) {
    std::vector<std::string> errors;
    std::map<std::string, PromFamily> families = ParsePrometheus(text, &errors);
    for (const std::string& e : errors) {
        ADD_FAILURE() << e;
    }
    if (!errors.empty()) {
        ADD_FAILURE() << text;
    }
    return families;
}

// The sample of family `name` with labels `labels` ("a=x,b=y", sorted by name); fails the
// test and returns -1 when there is none.
double Sample(const std::map<std::string, PromFamily>& f, const std::string& name,
              const std::string& labels = "") {
    auto it = f.find(name);
    if (it == f.end()) {
        ADD_FAILURE() << "no family " << name;
        return -1;
    }
    auto s = it->second.samples.find(labels);
    if (s == it->second.samples.end()) {
        ADD_FAILURE() << "no sample " << name << "{" << labels << "}";
        return -1;
    }
    return s->second;
}

// The families every snapshot has, with their types.
const std::map<std::string, std::string>& LoopFamilies() {
    static const std::map<std::string, std::string> kFamilies = {
        {"quolnet_connections", "gauge"},           {"quolnet_max_connections", "gauge"},
        {"quolnet_accepts_total", "counter"},       {"quolnet_closes_total", "counter"},
        {"quolnet_limit_closes_total", "counter"},  {"quolnet_pool_blocks_in_use", "gauge"},
        {"quolnet_pool_blocks_free", "gauge"},      {"quolnet_pool_blocks_max", "gauge"},
        {"quolnet_pool_blocks_peak", "gauge"},      {"quolnet_pool_exhausted_total", "counter"},
        {"quolnet_sent_bytes_total", "counter"},    {"quolnet_received_bytes_total", "counter"},
        {"quolnet_sent_packets_total", "counter"},  {"quolnet_received_packets_total", "counter"},
        {"quolnet_accept_pauses_total", "counter"}, {"quolnet_accept_refused_total", "counter"},
        {"quolnet_send_refused_total", "counter"},
    };
    return kFamilies;
}

// ---- loopback harness ----

// Echoes every packet and records connections and closes, for a test thread to wait on.
class MetricsEcho : public QUOLNET::IConnectorHandler {
  public:
    void OnConnected(CConnectorMgr*, ConnId id, const char*, bool) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ids.push_back(id);
        m_cv.notify_all();
    }
    bool OnPacket(CConnectorMgr* mgr, ConnId id, const char* data, unsigned int len, bool more) override {
        int ret = more ? mgr->SendCorked(id, data, len) : mgr->Send(id, data, len);
        return ret != CConnectorMgr::kSendNoRoom;
    }
    void OnClosed(CConnectorMgr*, ConnId, const CloseInfo&) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_closed;
        m_cv.notify_all();
    }
    bool WaitConnected(size_t n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(15), [&]() { return m_ids.size() >= n; });
    }
    bool WaitClosed(size_t n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(15), [&]() { return m_closed >= n; });
    }
    std::vector<ConnId> Ids() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_ids;
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<ConnId> m_ids;
    size_t m_closed = 0;
};

// `n` packets of `size` bytes (header included), each with its own fill.
std::string Packets(int n, unsigned int size, int seed) {
    std::string out;
    for (int i = 0; i < n; ++i) {
        out += Packet(std::string(size - 4, static_cast<char>('a' + (seed + i) % 26)));
    }
    return out;
}

// Sends `data` on `fd` and reads its echo back whole.
void EchoRoundTrip(int fd, const std::string& data) {
    ASSERT_TRUE(qntest::WriteAll(fd, data.data(), data.size()));
    std::string got(data.size(), '\0');
    ASSERT_TRUE(qntest::ReadExactly(fd, &got[0], got.size()));
    ASSERT_EQ(got, data);
}

// The manager's metrics, taken on its running loop and waited for here.
std::string Request(CConnectorMgr& mgr, MetricsFormat format) {
    auto promise = std::make_shared<std::promise<std::string>>();
    std::future<std::string> text = promise->get_future();
    mgr.RequestMetrics(format, [promise](const std::string& t) { promise->set_value(t); });
    EXPECT_EQ(text.wait_for(std::chrono::seconds(15)), std::future_status::ready);
    return text.get();
}

// Every JSON figure against the manager's own getters. The loop is not running.
void CheckAgainstGetters(CConnectorMgr& mgr, const JValue& m) {
    for (int i = 0; i < QUOLNET::kCloseReasonCount; ++i) {
        CloseReason r = static_cast<CloseReason>(i);
        EXPECT_EQ(U(m, {"closes", CloseReasonName(r)}), mgr.GetCloseCount(r)) << CloseReasonName(r);
    }
    for (int i = 0; i < QUOLNET::kCloseLimitCount; ++i) {
        CloseLimit l = static_cast<CloseLimit>(i);
        EXPECT_EQ(U(m, {"limit_closes", CloseLimitName(l)}), mgr.GetLimitCloseCount(l)) << CloseLimitName(l);
    }
    EXPECT_EQ(U(m, {"accepts"}), mgr.GetAcceptCount());
    EXPECT_EQ(U(m, {"connections"}), mgr.GetConnectionCount());
    EXPECT_EQ(U(m, {"max_connections"}), mgr.GetMaxConnections());
    EXPECT_EQ(U(m, {"accept_refused", "per_source"}), mgr.GetRefusedCount(AcceptRefusal::kPerSource));
    EXPECT_EQ(U(m, {"accept_pauses", "fd_limit"}), static_cast<uint64_t>(mgr.GetAcceptPauseCount()));
    EXPECT_EQ(U(m, {"accept_pauses", "connection_limit"}), mgr.GetLimitPauseCount());
    EXPECT_EQ(U(m, {"send_refused", "too_large"}), mgr.GetTooLargeCount());
    EXPECT_EQ(U(m, {"pool", "exhausted"}), mgr.GetPoolExhaustedCount());
    EXPECT_EQ(U(m, {"pool", "blocks_in_use"}), mgr.GetPool()->GetUsedCount());
    EXPECT_EQ(U(m, {"pool", "blocks_max"}), mgr.GetPool()->GetMaxBlockNum());
    EXPECT_EQ(U(m, {"pool", "blocks_free"}), mgr.GetPool()->GetMaxBlockNum() - mgr.GetPool()->GetUsedCount());
    EXPECT_EQ(U(m, {"pool", "blocks_peak"}), mgr.GetPool()->GetPeakUsedCount());
}

// The Prometheus samples of one loop (`loop_label`: "" or "loop=i") against its JSON.
void CheckPrometheusMatchesJson(const std::map<std::string, PromFamily>& f, const JValue& m,
                                const std::string& loop_label) {
    // The canonical labels: sorted by name.
    auto with = [&loop_label](const std::string& label) {
        if (loop_label.empty() || label.empty()) {
            return loop_label + label;
        }
        return label < loop_label ? label + "," + loop_label : loop_label + "," + label;
    };
    for (int i = 0; i < QUOLNET::kCloseReasonCount; ++i) {
        const char* r = CloseReasonName(static_cast<CloseReason>(i));
        EXPECT_EQ(Sample(f, "quolnet_closes_total", with(std::string("reason=") + r)), U(m, {"closes", r}));
    }
    for (int i = 0; i < QUOLNET::kCloseLimitCount; ++i) {
        const char* l = CloseLimitName(static_cast<CloseLimit>(i));
        EXPECT_EQ(Sample(f, "quolnet_limit_closes_total", with(std::string("limit=") + l)),
                  U(m, {"limit_closes", l}));
    }
    EXPECT_EQ(Sample(f, "quolnet_connections", with("")), U(m, {"connections"}));
    EXPECT_EQ(Sample(f, "quolnet_max_connections", with("")), U(m, {"max_connections"}));
    EXPECT_EQ(Sample(f, "quolnet_accepts_total", with("")), U(m, {"accepts"}));
    EXPECT_EQ(Sample(f, "quolnet_pool_blocks_in_use", with("")), U(m, {"pool", "blocks_in_use"}));
    EXPECT_EQ(Sample(f, "quolnet_pool_blocks_free", with("")), U(m, {"pool", "blocks_free"}));
    EXPECT_EQ(Sample(f, "quolnet_pool_blocks_max", with("")), U(m, {"pool", "blocks_max"}));
    EXPECT_EQ(Sample(f, "quolnet_pool_blocks_peak", with("")), U(m, {"pool", "blocks_peak"}));
    EXPECT_EQ(Sample(f, "quolnet_pool_exhausted_total", with("")), U(m, {"pool", "exhausted"}));
    EXPECT_EQ(Sample(f, "quolnet_sent_bytes_total", with("")), U(m, {"traffic", "bytes_sent"}));
    EXPECT_EQ(Sample(f, "quolnet_received_bytes_total", with("")), U(m, {"traffic", "bytes_received"}));
    EXPECT_EQ(Sample(f, "quolnet_sent_packets_total", with("")), U(m, {"traffic", "packets_sent"}));
    EXPECT_EQ(Sample(f, "quolnet_received_packets_total", with("")), U(m, {"traffic", "packets_received"}));
    EXPECT_EQ(Sample(f, "quolnet_accept_pauses_total", with("reason=fd_limit")),
              U(m, {"accept_pauses", "fd_limit"}));
    EXPECT_EQ(Sample(f, "quolnet_accept_pauses_total", with("reason=connection_limit")),
              U(m, {"accept_pauses", "connection_limit"}));
    EXPECT_EQ(Sample(f, "quolnet_accept_refused_total", with("reason=per_source")),
              U(m, {"accept_refused", "per_source"}));
    EXPECT_EQ(Sample(f, "quolnet_send_refused_total", with("reason=too_large")),
              U(m, {"send_refused", "too_large"}));
}

void CheckFamilyTypes(const std::map<std::string, PromFamily>& f) {
    for (const auto& want : LoopFamilies()) {
        auto it = f.find(want.first);
        ASSERT_NE(it, f.end()) << want.first;
        EXPECT_EQ(it->second.type, want.second) << want.first;
        EXPECT_FALSE(it->second.help.empty()) << want.first;
    }
}

// The traffic figures of a metrics object.
struct Traffic {
    uint64_t bytes_sent, bytes_received, packets_sent, packets_received;
};
Traffic TrafficOf(const JValue& m) {
    return Traffic{U(m, {"traffic", "bytes_sent"}), U(m, {"traffic", "bytes_received"}),
                   U(m, {"traffic", "packets_sent"}), U(m, {"traffic", "packets_received"})};
}
void ExpectTraffic(const JValue& m, uint64_t bytes, uint64_t packets) {
    Traffic t = TrafficOf(m);
    EXPECT_EQ(t.bytes_sent, bytes);
    EXPECT_EQ(t.bytes_received, bytes);
    EXPECT_EQ(t.packets_sent, packets);
    EXPECT_EQ(t.packets_received, packets);
}

// ---- one manager ----

TEST(ConnectorMgrMetricsTest, EchoedTrafficInBothFormatsMatchesTheGettersAndNeverGoesDown) {
    MetricsEcho handler;
    ConnectorMgrOptions o;
    o.max_connections_per_source = 3;  // the fourth dial from 127.0.0.1 is refused at accept
    o.max_send_blocks = 2;             // a Send over two blocks is too large
    CConnectorMgr mgr(&handler, o);
    ASSERT_EQ(mgr.Init(), 0);
    ASSERT_GT(mgr.Listen("tcp://127.0.0.1:0"), 0);
    std::thread loop([&mgr]() { mgr.Run(); });

    const int kConns = 3;
    const int kPackets = 20;
    const unsigned int kSize = 300;
    std::vector<int> fds;
    for (int i = 0; i < kConns; ++i) {
        int fd = qntest::DialListener(mgr);
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
    }
    ASSERT_TRUE(handler.WaitConnected(kConns));
    for (int i = 0; i < kConns; ++i) {
        EchoRoundTrip(fds[static_cast<size_t>(i)], Packets(kPackets, kSize, i));
    }
    // Refused at accept for its source; the manager closes it at once.
    int refused = qntest::DialListener(mgr);
    ASSERT_GE(refused, 0);
    char byte;
    EXPECT_EQ(read(refused, &byte, 1), 0);
    close(refused);
    // Too large for the send queue: refused and counted, nothing sent.
    ConnId first = handler.Ids()[0];
    std::string huge(3u << 16, 'x');
    EXPECT_EQ(mgr.Send(first, huge.data(), static_cast<unsigned int>(huge.size())),
              CConnectorMgr::kSendTooLarge);
    // One client ends its stream: a close by the peer, whose traffic stays counted.
    close(fds[0]);
    ASSERT_TRUE(handler.WaitClosed(1));

    const uint64_t bytes = static_cast<uint64_t>(kConns) * kPackets * kSize;
    const uint64_t packets = static_cast<uint64_t>(kConns) * kPackets;
    std::string json = Request(mgr, MetricsFormat::kJson);
    std::string prom = Request(mgr, MetricsFormat::kPrometheus);
    JValue m = ParseJson(json);
    CheckSchema(m);
    EXPECT_EQ(m.Get("loop"), nullptr);
    EXPECT_EQ(U(m, {"connections"}), 2u);
    EXPECT_EQ(U(m, {"accepts"}), 4u);
    EXPECT_EQ(U(m, {"closes", "peer_closed"}), 1u);
    EXPECT_EQ(U(m, {"accept_refused", "per_source"}), 1u);
    EXPECT_EQ(U(m, {"send_refused", "too_large"}), 1u);
    EXPECT_EQ(U(m, {"pool", "blocks_max"}), mgr.GetPool()->GetMaxBlockNum());
    ExpectTraffic(m, bytes, packets);
    std::map<std::string, PromFamily> f = ParsePrometheusOk(prom);
    CheckFamilyTypes(f);
    EXPECT_EQ(f.size(), LoopFamilies().size());
    EXPECT_EQ(Sample(f, "quolnet_accepts_total"), 4);
    EXPECT_EQ(Sample(f, "quolnet_closes_total", "reason=peer_closed"), 1);
    EXPECT_EQ(Sample(f, "quolnet_received_bytes_total"), static_cast<double>(bytes));
    EXPECT_EQ(Sample(f, "quolnet_sent_packets_total"), static_cast<double>(packets));
    EXPECT_EQ(f["quolnet_closes_total"].samples.size(), static_cast<size_t>(QUOLNET::kCloseReasonCount));
    EXPECT_EQ(f["quolnet_limit_closes_total"].samples.size(), static_cast<size_t>(QUOLNET::kCloseLimitCount));

    // Every connection ends: the traffic stays where it was.
    for (int i = 1; i < kConns; ++i) {
        close(fds[static_cast<size_t>(i)]);
    }
    ASSERT_TRUE(handler.WaitClosed(kConns));
    mgr.Stop();
    loop.join();
    // The loop is not running: FormatMetrics reads in place, and both formats agree with the
    // getters and with each other.
    JValue after = ParseJson(mgr.FormatMetrics(MetricsFormat::kJson));
    CheckSchema(after);
    CheckAgainstGetters(mgr, after);
    EXPECT_EQ(U(after, {"connections"}), 0u);
    EXPECT_EQ(U(after, {"closes", "peer_closed"}), static_cast<uint64_t>(kConns));
    ExpectTraffic(after, bytes, packets);
    std::map<std::string, PromFamily> fa = ParsePrometheusOk(mgr.FormatMetrics(MetricsFormat::kPrometheus));
    CheckFamilyTypes(fa);
    CheckPrometheusMatchesJson(fa, after, "");
}

// A dialled connection that reconnects: each session's traffic is counted once, when it
// ends, and the next session starts from there (the connector's counters start again at
// zero with every Connect).
TEST(ConnectorMgrMetricsTest, AReconnectingDialCountsEverySessionOnce) {
    MetricsEcho handler;
    CConnectorMgr mgr(&handler);
    ASSERT_EQ(mgr.Init(), 0);
    qntest::Listener peer;
    QUOLNET::DialOptions dial;
    dial.reconnect = true;
    dial.backoff_initial_ms = 10;
    ASSERT_NE(mgr.Dial(peer.url().c_str(), dial), 0u);
    auto traffic = [&mgr]() { return TrafficOf(ParseJson(mgr.FormatMetrics(MetricsFormat::kJson))); };
    uint64_t last_bytes = 0;
    for (int session = 1; session <= 2; ++session) {
        int fd = peer.Accept(true);
        ASSERT_GE(fd, 0);
        const int kPackets = session + 2;
        std::string data = Packets(kPackets, 100, session);
        ASSERT_TRUE(qntest::WriteAll(fd, data.data(), data.size()));
        // The loop runs here, between the looks at the metrics.
        uint64_t want = last_bytes + data.size();
        ASSERT_TRUE(qntest::Pump(mgr, [&]() {
            Traffic t = traffic();
            EXPECT_GE(t.bytes_received, last_bytes);
            return t.bytes_sent == want;
        }));
        std::string got(data.size(), '\0');
        ASSERT_TRUE(qntest::ReadExactly(fd, &got[0], got.size()));
        EXPECT_EQ(got, data);
        close(fd);  // the session ends; the manager redials
        ASSERT_TRUE(qntest::Pump(mgr, [&]() {
            return mgr.GetCloseCount(CloseReason::kPeerClosed) == static_cast<uint64_t>(session);
        }));
        for (int i = 0; i < 5; ++i) {
            mgr.RunOnce(5);  // waiting to redial, then dialling: nothing counted twice
            Traffic t = traffic();
            EXPECT_EQ(t.bytes_sent, want);
            EXPECT_EQ(t.bytes_received, want);
        }
        last_bytes = want;
    }
    Traffic t = traffic();
    EXPECT_EQ(t.packets_sent, 7u);  // 3 + 4
    EXPECT_EQ(t.packets_received, 7u);
    EXPECT_EQ(t.bytes_sent, 700u);
}

// ---- a group ----

ConnectorGroupOptions TwoLoops() {
    ConnectorGroupOptions o;
    o.threads = 2;
    o.reuse_port = false;  // loop 0 accepts and hands the connections out in turn
    o.loop.pool_blocks = 256;
    return o;
}

// The loop objects of a group's JSON, checked for their index and schema.
std::vector<const JValue*> Loops(const JValue& g, size_t n) {
    std::vector<const JValue*> loops;
    const JValue* arr = g.Get("loops");
    EXPECT_TRUE(arr != nullptr && arr->kind == JValue::kArray && arr->arr.size() == n);
    if (arr == nullptr) {
        return loops;
    }
    for (size_t i = 0; i < arr->arr.size(); ++i) {
        CheckSchema(arr->arr[i]);
        EXPECT_EQ(U(arr->arr[i], {"loop"}), i);
        EXPECT_EQ(arr->arr[i].obj.front().first, "loop");
        loops.push_back(&arr->arr[i]);
    }
    return loops;
}

TEST(ConnectorGroupMetricsTest, TwoLoopsLabelEverySampleAndAddUpAcrossAMove) {
    MetricsEcho handler;
    CConnectorGroup group(&handler, TwoLoops());
    ASSERT_EQ(group.Init(), 0);
    ASSERT_GT(group.Listen("tcp://127.0.0.1:0"), 0);
    ASSERT_EQ(group.Start(), 0);
    const int kConns = 4;
    const int kPackets = 10;
    const unsigned int kSize = 200;
    std::vector<int> fds;
    for (int i = 0; i < kConns; ++i) {
        int fd = qntest::DialURL(group.GetListenURL());
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
    }
    ASSERT_TRUE(handler.WaitConnected(kConns));
    for (int i = 0; i < kConns; ++i) {
        EchoRoundTrip(fds[static_cast<size_t>(i)], Packets(kPackets, kSize, i));
    }
    uint64_t bytes = static_cast<uint64_t>(kConns) * kPackets * kSize;
    uint64_t packets = static_cast<uint64_t>(kConns) * kPackets;

    std::map<std::string, PromFamily> f = ParsePrometheusOk(group.FormatMetrics(MetricsFormat::kPrometheus));
    CheckFamilyTypes(f);
    // Each loop family once with a sample per loop, then the group's own counters.
    for (const auto& fam : LoopFamilies()) {
        for (const auto& s : f[fam.first].samples) {
            std::string labels = "," + s.first + ",";
            EXPECT_TRUE(labels.find(",loop=0,") != std::string::npos ||
                        labels.find(",loop=1,") != std::string::npos)
                << fam.first << "{" << s.first << "}";
        }
        EXPECT_EQ(f[fam.first].samples.size() % 2, 0u) << fam.first;
    }
    EXPECT_EQ(f["quolnet_moves_total"].type, "counter");
    EXPECT_EQ(Sample(f, "quolnet_moves_total"), 0);
    EXPECT_EQ(Sample(f, "quolnet_move_failures_total"), 0);
    EXPECT_EQ(Sample(f, "quolnet_loops"), 2);
    EXPECT_EQ(f.size(), LoopFamilies().size() + 3);
    EXPECT_EQ(Sample(f, "quolnet_connections", "loop=0"), 2);  // handed out in turn
    EXPECT_EQ(Sample(f, "quolnet_connections", "loop=1"), 2);
    EXPECT_EQ(Sample(f, "quolnet_accepts_total", "loop=0") + Sample(f, "quolnet_accepts_total", "loop=1"),
              static_cast<double>(group.GetAcceptCount()));
    EXPECT_EQ(Sample(f, "quolnet_received_bytes_total", "loop=0") +
                  Sample(f, "quolnet_received_bytes_total", "loop=1"),
              static_cast<double>(bytes));
    EXPECT_EQ(
        Sample(f, "quolnet_sent_packets_total", "loop=0") + Sample(f, "quolnet_sent_packets_total", "loop=1"),
        static_cast<double>(packets));

    JValue g = ParseJson(group.FormatMetrics(MetricsFormat::kJson));
    std::vector<const JValue*> loops = Loops(g, 2);
    ASSERT_EQ(loops.size(), 2u);
    const JValue* total = g.Get("total");
    ASSERT_NE(total, nullptr);
    CheckSchema(*total);
    EXPECT_EQ(total->Get("loop"), nullptr);
    EXPECT_EQ(U(g, {"moves"}), 0u);
    EXPECT_EQ(U(g, {"move_failures"}), 0u);
    EXPECT_EQ(U(*total, {"accepts"}), group.GetAcceptCount());
    EXPECT_EQ(U(*total, {"connections"}), static_cast<uint64_t>(kConns));
    EXPECT_EQ(U(*total, {"pool", "blocks_max"}),
              U(*loops[0], {"pool", "blocks_max"}) + U(*loops[1], {"pool", "blocks_max"}));  // a pool each
    ExpectTraffic(*total, bytes, packets);
    Traffic before[2] = {TrafficOf(*loops[0]), TrafficOf(*loops[1])};

    // A connection of loop 0 moves to loop 1 and carries more traffic there: neither loop's
    // counters go down, and the sums hold.
    ConnId moving = 0;
    std::vector<ConnId> ids = handler.Ids();
    for (size_t i = 0; i < ids.size() && moving == 0; ++i) {
        if (group.LoopOf(ids[i]) == 0) {
            moving = ids[i];
        }
    }
    ASSERT_NE(moving, 0u);
    ASSERT_EQ(group.Move(moving, 1), 0);
    ASSERT_TRUE(qntest::Eventually([&]() { return group.GetMoveCount() == 1 && group.LoopOf(moving) == 1; }));
    for (int fd : fds) {
        EchoRoundTrip(fd, Packets(5, kSize, 40));  // every client: the moved one among them
    }
    bytes += static_cast<uint64_t>(kConns) * 5 * kSize;
    packets += static_cast<uint64_t>(kConns) * 5;
    JValue moved = ParseJson(group.FormatMetrics(MetricsFormat::kJson));
    loops = Loops(moved, 2);
    ASSERT_EQ(loops.size(), 2u);
    EXPECT_EQ(U(moved, {"moves"}), 1u);
    for (int i = 0; i < 2; ++i) {
        Traffic t = TrafficOf(*loops[static_cast<size_t>(i)]);
        EXPECT_GE(t.bytes_sent, before[i].bytes_sent) << "loop " << i;
        EXPECT_GE(t.bytes_received, before[i].bytes_received) << "loop " << i;
        EXPECT_GE(t.packets_sent, before[i].packets_sent) << "loop " << i;
        EXPECT_GE(t.packets_received, before[i].packets_received) << "loop " << i;
    }
    EXPECT_EQ(U(*loops[0], {"connections"}), 1u);
    EXPECT_EQ(U(*loops[1], {"connections"}), 3u);
    ExpectTraffic(*moved.Get("total"), bytes, packets);
    std::map<std::string, PromFamily> fm = ParsePrometheusOk(group.FormatMetrics(MetricsFormat::kPrometheus));
    EXPECT_EQ(Sample(fm, "quolnet_moves_total"), 1);

    // On a loop thread the waiting form declines; the asking form works there.
    std::promise<std::string> on_loop;
    group.Post(0, [&group, &on_loop]() { on_loop.set_value(group.FormatMetrics(MetricsFormat::kJson)); });
    EXPECT_EQ(on_loop.get_future().get(), "");
    auto asked = std::make_shared<std::promise<std::string>>();
    std::future<std::string> asked_text = asked->get_future();
    group.Post(1, [&group, asked]() {
        group.RequestMetrics(MetricsFormat::kPrometheus,
                             [asked](const std::string& t) { asked->set_value(t); });
    });
    ASSERT_EQ(asked_text.wait_for(std::chrono::seconds(15)), std::future_status::ready);
    std::map<std::string, PromFamily> fr = ParsePrometheusOk(asked_text.get());
    EXPECT_EQ(Sample(fr, "quolnet_connections", "loop=1"), 3);

    // Every connection ends and the group stops: read in place, the figures stay.
    for (int fd : fds) {
        close(fd);
    }
    ASSERT_TRUE(handler.WaitClosed(kConns));
    group.Stop();
    JValue end = ParseJson(group.FormatMetrics(MetricsFormat::kJson));
    loops = Loops(end, 2);
    ASSERT_EQ(loops.size(), 2u);
    EXPECT_EQ(U(*end.Get("total"), {"connections"}), 0u);
    EXPECT_EQ(U(*end.Get("total"), {"closes", "peer_closed"}), group.GetCloseCount(CloseReason::kPeerClosed));
    EXPECT_EQ(U(*end.Get("total"), {"closes", "peer_closed"}), static_cast<uint64_t>(kConns));
    ExpectTraffic(*end.Get("total"), bytes, packets);
    for (int i = 0; i < 2; ++i) {
        CConnectorMgr* mgr = group.GetLoop(i);
        CheckAgainstGetters(*mgr, *loops[static_cast<size_t>(i)]);
    }
    std::map<std::string, PromFamily> fe = ParsePrometheusOk(group.FormatMetrics(MetricsFormat::kPrometheus));
    CheckPrometheusMatchesJson(fe, *loops[0], "loop=0");
    CheckPrometheusMatchesJson(fe, *loops[1], "loop=1");
}

TEST(ConnectorGroupMetricsTest, APoolSharedByTheLoopsCountsOnceInTheTotal) {
    MetricsEcho handler;
    ConnectorGroupOptions o = TwoLoops();
    o.pool_per_loop = false;
    CConnectorGroup group(&handler, o);
    ASSERT_EQ(group.Init(), 0);
    // Not started: read in place.
    JValue g = ParseJson(group.FormatMetrics(MetricsFormat::kJson));
    std::vector<const JValue*> loops = Loops(g, 2);
    ASSERT_EQ(loops.size(), 2u);
    EXPECT_EQ(U(*loops[0], {"pool", "blocks_max"}), 256u);
    EXPECT_EQ(U(*loops[1], {"pool", "blocks_max"}), 256u);
    EXPECT_EQ(U(*g.Get("total"), {"pool", "blocks_max"}), 256u);
    std::string text;
    group.RequestMetrics(MetricsFormat::kPrometheus, [&text](const std::string& t) { text = t; });
    EXPECT_FALSE(text.empty());  // called at once: the loops are not running
    ParsePrometheusOk(text);
}

// The readers themselves refuse what they should.
TEST(ConnectorMgrMetricsTest, TheTestsReadersRefuseBrokenText) {
    JsonReader reader;
    JValue v;
    EXPECT_FALSE(reader.Parse("{\"a\":1,}", &v));
    EXPECT_FALSE(reader.Parse("{\"a\":1,\"a\":2}", &v));
    EXPECT_FALSE(reader.Parse("{\"a\":01}", &v));
    EXPECT_FALSE(reader.Parse("{\"a\":1}}", &v));
    EXPECT_TRUE(reader.Parse("{\"a\":[1,2.5,\"x\\n\"],\"b\":{}}", &v)) << reader.error;
    for (const char* bad : {
             "quolnet_x 1\n",                                                // no HELP/TYPE
             "# HELP quolnet_x h\n# TYPE quolnet_x counter\nquolnet_x 1\n",  // counter without _total
             "# HELP quolnet_x h\n# TYPE quolnet_x gauge\nquolnet_x{a=\"b} 1\n",
             "# HELP quolnet_x h\n# TYPE quolnet_x gauge\nquolnet_x{a=\"\\q\"} 1\n",
             "# HELP quolnet_x h\n# TYPE quolnet_x gauge\nquolnet_x one\n",
             "# HELP quolnet_x h\n# TYPE quolnet_x gauge\nquolnet_x 1",  // no final newline
             "# HELP quolnet_x h\n# TYPE quolnet_x histogram\nquolnet_x 1\n",
         }) {
        std::vector<std::string> errors;
        ParsePrometheus(bad, &errors);
        EXPECT_FALSE(errors.empty()) << bad;
    }
    std::vector<std::string> errors;
    ParsePrometheus("# HELP quolnet_x h\n# TYPE quolnet_x gauge\nquolnet_x{a=\"q\\\"\\\\\\n\",b=\"\"} 1\n",
                    &errors);
    EXPECT_TRUE(errors.empty());
}

}  // namespace
