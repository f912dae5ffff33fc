// CTlsStream: a connection's TLS session over OpenSSL, with a socket BIO of its own.
#include "tls/tls_stream.h"

#include <errno.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>

#include "tls/tls_records.h"

namespace QUOLNET {

CTlsContext::Shared::~Shared() {
    for (auto& kv : sessions) {
        SSL_SESSION_free(kv.second);
    }
}

namespace {

// The socket BIO: the descriptor lives in the BIO's data pointer. Would-block and EINTR set
// the retry flags, as OpenSSL's own socket BIO does; end of stream sets BIO_FLAGS_IN_EOF so
// that OpenSSL tells a cut stream (no close_notify) from a clean end.
int SockWrite(BIO* b, const char* buf, int len) {
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(b)));
    BIO_clear_retry_flags(b);
    ssize_t n = send(fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        BIO_set_retry_write(b);
    }
    return static_cast<int>(n);
}

int SockRead(BIO* b, char* buf, int len) {
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(BIO_get_data(b)));
    BIO_clear_retry_flags(b);
    ssize_t n = recv(fd, buf, static_cast<size_t>(len), 0);
    if (n == 0) {
        BIO_set_flags(b, BIO_FLAGS_IN_EOF);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        BIO_set_retry_read(b);
    }
    return static_cast<int>(n);
}

long SockCtrl(BIO* b, int cmd, long num, void* ptr) {
    (void)num;
    (void)ptr;
    switch (cmd) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:
            return BIO_test_flags(b, BIO_FLAGS_IN_EOF) != 0 ? 1 : 0;
        default:
            return 0;
    }
}

int SockCreate(BIO* b) {
    BIO_set_init(b, 1);
    return 1;
}

BIO_METHOD* SocketMethod() {
    static BIO_METHOD* method = []() {
        BIO_METHOD* m =
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR, "quolnet socket");
        if (m != nullptr) {
            BIO_meth_set_write(m, SockWrite);
            BIO_meth_set_read(m, SockRead);
            BIO_meth_set_ctrl(m, SockCtrl);
            BIO_meth_set_create(m, SockCreate);
        }
        return m;
    }();
    return method;
}

// OpenSSL's error queue of this thread as one line (emptied), "" when it is empty.
std::string TakeErrors() {
    std::string text;
    unsigned long e;
    char buf[256];
    while ((e = ERR_get_error()) != 0) {
        ERR_error_string_n(e, buf, sizeof(buf));
        if (!text.empty()) {
            text += "; ";
        }
        text += buf;
    }
    return text;
}

// The value of one hex digit, or -1.
int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

}  // namespace

// What a server session learns during its handshake for the switch to compact records.
// Records and messages are counted from OpenSSL's message callback: "after our Finished"
// are the records sealed under our application traffic secret (only session tickets before
// the switch), "after the peer's Finished" those opened under the peer's.
struct CTlsStream::Switch {
    Switch() = default;
    Switch(const Switch&) = delete;
    Switch& operator=(const Switch&) = delete;
    ~Switch() {
        OPENSSL_cleanse(client_secret, sizeof(client_secret));
        OPENSSL_cleanse(server_secret, sizeof(server_secret));
    }
    uint8_t client_secret[48];  // CLIENT_TRAFFIC_SECRET_0: the peer's, for reading
    uint8_t server_secret[48];  // SERVER_TRAFFIC_SECRET_0: ours, for writing
    size_t client_len = 0;
    size_t server_len = 0;
    bool our_finished = false;
    bool peer_finished = false;
    uint64_t sent_records = 0;  // records sent after our Finished
    uint64_t sent_tickets = 0;  // NewSessionTicket messages among them
    uint64_t read_records = 0;  // records read after the peer's Finished
    bool other = false;         // any other message after a Finished: no switch
};

CTlsStream::CTlsStream(SSL* ssl, bool server, std::shared_ptr<CTlsContext::Shared> shared,
                       std::string cache_key, bool compact)
    : m_ssl(ssl), m_server(server), m_shared(std::move(shared)), m_cache_key(std::move(cache_key)) {
    SSL_set_app_data(m_ssl, this);
    if (server && compact) {
        m_switch.reset(new Switch());
        // No reading ahead during the handshake: the records that follow the client's
        // Finished stay in the socket for the compact layer.
        SSL_set_read_ahead(m_ssl, 0);
        SSL_set_msg_callback(m_ssl, OnMessage);
        SSL_set_msg_callback_arg(m_ssl, this);
    }
}

CTlsStream::~CTlsStream() {
    SSL_free(m_ssl);  // the BIO goes with it; the descriptor stays the connector's
}

void CTlsStream::KeepKeyLogLine(const SSL* ssl, const char* line) {
    CTlsStream* stream = static_cast<CTlsStream*>(SSL_get_app_data(ssl));
    if (stream == nullptr || stream->m_switch == nullptr || line == nullptr) {
        return;
    }
    Switch& sw = *stream->m_switch;
    // "<LABEL> <client random in hex> <secret in hex>"; only the two traffic secrets count.
    static const char kClient[] = "CLIENT_TRAFFIC_SECRET_0 ";
    static const char kServer[] = "SERVER_TRAFFIC_SECRET_0 ";
    uint8_t* out = nullptr;
    size_t* out_len = nullptr;
    if (strncmp(line, kClient, sizeof(kClient) - 1) == 0) {
        out = sw.client_secret;
        out_len = &sw.client_len;
    } else if (strncmp(line, kServer, sizeof(kServer) - 1) == 0) {
        out = sw.server_secret;
        out_len = &sw.server_len;
    } else {
        return;
    }
    const char* p = strchr(line + sizeof(kClient) - 1, ' ');
    if (p == nullptr) {
        return;
    }
    ++p;
    size_t n = 0;
    while (p[0] != '\0' && p[0] != ' ' && p[0] != '\n') {
        int hi = HexDigit(p[0]);
        int lo = p[1] != '\0' ? HexDigit(p[1]) : -1;
        if (hi < 0 || lo < 0 || n == sizeof(sw.client_secret)) {
            *out_len = 0;  // not understood: no switch
            OPENSSL_cleanse(out, sizeof(sw.client_secret));
            return;
        }
        out[n++] = static_cast<uint8_t>(hi << 4 | lo);
        p += 2;
    }
    *out_len = n;
}

void CTlsStream::OnMessage(int write_p, int version, int content_type, const void* buf, size_t len, SSL* ssl,
                           void* arg) {
    (void)version;
    (void)ssl;
    CTlsStream* stream = static_cast<CTlsStream*>(arg);
    if (stream == nullptr || stream->m_switch == nullptr) {
        return;
    }
    Switch& sw = *stream->m_switch;
    if (content_type == SSL3_RT_HEADER) {
        if (write_p != 0 && sw.our_finished) {
            ++sw.sent_records;
        } else if (write_p == 0 && sw.peer_finished) {
            ++sw.read_records;
        }
        return;
    }
    if (content_type == SSL3_RT_INNER_CONTENT_TYPE) {
        return;
    }
    bool after = write_p != 0 ? sw.our_finished : sw.peer_finished;
    if (content_type == SSL3_RT_HANDSHAKE && len >= 1) {
        int type = static_cast<const uint8_t*>(buf)[0];
        if (!after) {
            if (type == SSL3_MT_FINISHED) {
                (write_p != 0 ? sw.our_finished : sw.peer_finished) = true;
            }
            return;
        }
        if (write_p != 0 && type == SSL3_MT_NEWSESSION_TICKET) {
            ++sw.sent_tickets;
            return;
        }
    }
    if (after) {
        sw.other = true;  // a key update, an alert, anything else: keep OpenSSL
    }
}

void CTlsStream::SwitchToRecords() {
    std::unique_ptr<Switch> sw = std::move(m_switch);
    if (sw == nullptr) {
        return;
    }
    SSL_set_msg_callback(m_ssl, nullptr);
    const SSL_CIPHER* cipher = SSL_get_current_cipher(m_ssl);
    uint16_t suite = cipher != nullptr ? SSL_CIPHER_get_protocol_id(cipher) : 0;
    size_t secret_len = CTlsRecords::SecretLength(suite);
    std::unique_ptr<CTlsRecords> records;
    if (SSL_version(m_ssl) == TLS1_3_VERSION && secret_len != 0 && sw->client_len == secret_len &&
        sw->server_len == secret_len && sw->our_finished && sw->peer_finished && !sw->other &&
        sw->read_records == 0 && sw->sent_records == sw->sent_tickets && SSL_has_pending(m_ssl) == 0 &&
        SSL_want(m_ssl) == SSL_NOTHING && m_fd >= 0) {
        std::string error;
        records = CTlsRecords::Create(m_fd, suite, sw->client_secret, 0, sw->server_secret, sw->sent_records,
                                      &error);
    }
    if (records == nullptr) {
        SSL_set_read_ahead(m_ssl, 1);  // OpenSSL keeps the connection: as any other session
        return;
    }
    m_cipher_name = SSL_CIPHER_get_name(cipher);
    m_resumed = SSL_session_reused(m_ssl) != 0;
    const unsigned char* alpn = nullptr;
    unsigned int alpn_len = 0;
    SSL_get0_alpn_selected(m_ssl, &alpn, &alpn_len);
    if (alpn != nullptr) {
        m_alpn.assign(reinterpret_cast<const char*>(alpn), alpn_len);
    }
    X509* cert = SSL_get0_peer_certificate(m_ssl);
    if (cert != nullptr) {
        char buf[512];
        X509_NAME_oneline(X509_get_subject_name(cert), buf, sizeof(buf));
        m_peer_subject = buf;
    }
    SSL_free(m_ssl);
    m_ssl = nullptr;
    m_records = std::move(records);
}

int CTlsStream::TakeRecordsResult(int r) {
    if (r == kFailed || r == kTruncated) {
        m_errno = m_records->LastErrno();
        m_error = m_records->LastError();
    }
    return r;
}

int CTlsStream::Attach(int fd) {
    std::lock_guard<std::mutex> lock(m_mutex);
    BIO* bio = SocketMethod() != nullptr ? BIO_new(SocketMethod()) : nullptr;
    if (bio == nullptr) {
        m_error = "cannot make the socket BIO: " + TakeErrors();
        return kFailed;
    }
    BIO_set_data(bio, reinterpret_cast<void*>(static_cast<intptr_t>(fd)));
    SSL_set_bio(m_ssl, bio, bio);
    m_fd = fd;
    if (m_server) {
        SSL_set_accept_state(m_ssl);
    } else {
        SSL_set_connect_state(m_ssl);
    }
    return 0;
}

int CTlsStream::Fail(int ret, bool reading) {
    int err = SSL_get_error(m_ssl, ret);
    int saved_errno = errno;
    switch (err) {
        case SSL_ERROR_WANT_READ:
            return kWantRead;
        case SSL_ERROR_WANT_WRITE:
            return kWantWrite;
        case SSL_ERROR_ZERO_RETURN:
            return kEnd;
        default:
            break;
    }
    unsigned long first = ERR_peek_error();
    std::string text = TakeErrors();
    if (reading && ERR_GET_LIB(first) == ERR_LIB_SSL &&
        ERR_GET_REASON(first) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        m_errno = 0;
        m_error = "the peer closed the connection without a close_notify";
        return kTruncated;
    }
    if (err == SSL_ERROR_SYSCALL) {
        m_errno = saved_errno != 0 ? saved_errno : EPROTO;
        m_error = text.empty() ? std::string(strerror(m_errno)) : text;
        if (reading && saved_errno == 0 && text.empty()) {
            m_errno = 0;
            m_error = "the peer closed the connection without a close_notify";
            return kTruncated;
        }
        return kFailed;
    }
    m_errno = 0;
    m_error = text.empty() ? "TLS error " + std::to_string(err) : text;
    long verify = SSL_get_verify_result(m_ssl);
    if (verify != X509_V_OK) {
        m_error += std::string(" (certificate: ") + X509_verify_cert_error_string(verify) + ")";
    }
    return kFailed;
}

int CTlsStream::Handshake() {
    std::lock_guard<std::mutex> lock(m_mutex);
    ERR_clear_error();
    if (m_ssl == nullptr) {
        return 0;  // done, on compact records
    }
    int ret = SSL_do_handshake(m_ssl);
    if (ret == 1) {
        if (SSL_session_reused(m_ssl)) {
            m_shared->resumed.fetch_add(1, std::memory_order_relaxed);
        }
        SwitchToRecords();
        return 0;
    }
    int r = Fail(ret, false);
    if (r == kEnd || r == kTruncated) {
        m_error = "the peer ended the connection during the handshake";
        return kFailed;
    }
    return r;
}

int CTlsStream::Read(void* buf, int len) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_records != nullptr) {
        return TakeRecordsResult(m_records->Read(buf, len));
    }
    if (m_read_end != 0) {
        return m_read_end;
    }
    ERR_clear_error();
    size_t got = 0;
    int ret = SSL_read_ex(m_ssl, buf, static_cast<size_t>(len), &got);
    if (ret == 1) {
        return static_cast<int>(got);
    }
    int r = Fail(ret, true);
    if (r == kEnd || r == kTruncated || r == kFailed) {
        m_read_end = r;
    }
    return r;
}

bool CTlsStream::HasBufferedInput() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_records != nullptr) {
        return m_records->HasBufferedInput();
    }
    return SSL_has_pending(m_ssl) == 1;
}

int CTlsStream::Write(const void* buf, int len) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_records != nullptr) {
        return TakeRecordsResult(m_records->Write(buf, len));
    }
    ERR_clear_error();
    size_t put = 0;
    int ret = SSL_write_ex(m_ssl, buf, static_cast<size_t>(len), &put);
    if (ret == 1) {
        return static_cast<int>(put);
    }
    int r = Fail(ret, false);
    return r == kEnd || r == kTruncated ? kFailed : r;
}

int CTlsStream::ShutdownWrite() {
    std::lock_guard<std::mutex> lock(m_mutex);
    int result = 0;
    if (!m_shut && m_records != nullptr) {
        m_shut = true;
        // The socket is idle (see SSL_shutdown below): the close_notify goes at once.
        result = TakeRecordsResult(m_records->SendCloseNotify());
    } else if (!m_shut) {
        m_shut = true;
        ERR_clear_error();
        // Sends the close_notify (the socket is idle: nothing is queued or being sent, so
        // it goes at once); the peer's comes later, or never, and is not waited for.
        int ret = SSL_shutdown(m_ssl);
        if (ret < 0) {
            int err = SSL_get_error(m_ssl, ret);
            if (err != SSL_ERROR_WANT_READ && err != SSL_ERROR_WANT_WRITE) {
                m_errno = errno;
                m_error = "close_notify not sent: " + TakeErrors();
                result = kFailed;
            }
            ERR_clear_error();
        }
    }
    if (m_fd >= 0 && ::shutdown(m_fd, SHUT_WR) != 0 && result == 0) {
        m_errno = errno;
        m_error = strerror(errno);
        result = kFailed;
    }
    return result;
}

bool CTlsStream::UpdateKeys() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_records != nullptr) {
        m_records->RequestKeyUpdate();
        return true;
    }
    ERR_clear_error();
    bool ok = SSL_key_update(m_ssl, SSL_KEY_UPDATE_REQUESTED) == 1;
    ERR_clear_error();
    return ok;
}

bool CTlsStream::IsCompact() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records != nullptr;
}

size_t CTlsStream::CompactHeldBytes() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_records != nullptr ? m_records->HeldBytes() : 0;
}

std::string CTlsStream::Describe() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ssl == nullptr) {
        std::string c = std::string("TLSv1.3 ") + m_cipher_name;
        return m_resumed ? c + " resumed" : c;
    }
    std::string d = SSL_get_version(m_ssl);
    const SSL_CIPHER* cipher = SSL_get_current_cipher(m_ssl);
    if (cipher != nullptr) {
        d += " ";
        d += SSL_CIPHER_get_name(cipher);
    }
    if (SSL_session_reused(m_ssl)) {
        d += " resumed";
    }
    return d;
}

std::string CTlsStream::Alpn() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ssl == nullptr) {
        return m_alpn;
    }
    const unsigned char* p = nullptr;
    unsigned int n = 0;
    SSL_get0_alpn_selected(m_ssl, &p, &n);
    return p != nullptr ? std::string(reinterpret_cast<const char*>(p), n) : std::string();
}

std::string CTlsStream::PeerSubject() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_ssl == nullptr) {
        return m_peer_subject;
    }
    X509* cert = SSL_get0_peer_certificate(m_ssl);
    if (cert == nullptr) {
        return std::string();
    }
    char buf[512];
    X509_NAME_oneline(X509_get_subject_name(cert), buf, sizeof(buf));
    return buf;
}

}  // namespace QUOLNET
