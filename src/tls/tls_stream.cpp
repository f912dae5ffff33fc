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

}  // namespace

CTlsStream::CTlsStream(SSL* ssl, bool server, std::shared_ptr<CTlsContext::Shared> shared,
                       std::string cache_key)
    : m_ssl(ssl), m_server(server), m_shared(std::move(shared)), m_cache_key(std::move(cache_key)) {
    SSL_set_app_data(m_ssl, this);
}

CTlsStream::~CTlsStream() {
    SSL_free(m_ssl);  // the BIO goes with it; the descriptor stays the connector's
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
    int ret = SSL_do_handshake(m_ssl);
    if (ret == 1) {
        if (SSL_session_reused(m_ssl)) {
            m_shared->resumed.fetch_add(1, std::memory_order_relaxed);
        }
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
    return SSL_has_pending(m_ssl) == 1;
}

int CTlsStream::Write(const void* buf, int len) {
    std::lock_guard<std::mutex> lock(m_mutex);
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
    if (!m_shut) {
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
    ERR_clear_error();
    bool ok = SSL_key_update(m_ssl, SSL_KEY_UPDATE_REQUESTED) == 1;
    ERR_clear_error();
    return ok;
}

std::string CTlsStream::Describe() const {
    std::lock_guard<std::mutex> lock(m_mutex);
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
    const unsigned char* p = nullptr;
    unsigned int n = 0;
    SSL_get0_alpn_selected(m_ssl, &p, &n);
    return p != nullptr ? std::string(reinterpret_cast<const char*>(p), n) : std::string();
}

std::string CTlsStream::PeerSubject() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    X509* cert = SSL_get0_peer_certificate(m_ssl);
    if (cert == nullptr) {
        return std::string();
    }
    char buf[512];
    X509_NAME_oneline(X509_get_subject_name(cert), buf, sizeof(buf));
    return buf;
}

}  // namespace QUOLNET
