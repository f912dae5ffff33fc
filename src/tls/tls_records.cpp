// CTlsRecords: TLS 1.3 record protection over a socket, after OpenSSL's handshake.
#include "tls/tls_records.h"

#include <errno.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "../net/stream_io.h"

namespace QUOLNET {

namespace {

const size_t kHeader = 5;
const size_t kTag = 16;
const size_t kMaxPlain = 16384;                // content bytes of one record
const size_t kMaxBody = kMaxPlain + 256;       // the longest body a peer may send
const size_t kMaxRecord = kHeader + kMaxBody;  // ... with its header
const size_t kSealOverhead = kHeader + 1 + kTag;
// Records sealed per Write: one send(2) carries up to this many (the ones the socket does
// not take are not kept: their sequence numbers are used again).
const size_t kWriteRecords = 4;

const uint8_t kTypeAlert = 21;
const uint8_t kTypeHandshake = 22;
const uint8_t kTypeData = 23;
const uint8_t kKeyUpdate = 24;  // handshake message type

// Alert descriptions sent on failures.
const uint8_t kAlertCloseNotify = 0;
const uint8_t kAlertUnexpectedMessage = 10;
const uint8_t kAlertBadRecordMac = 20;
const uint8_t kAlertRecordOverflow = 22;
const uint8_t kAlertIllegalParameter = 47;
const uint8_t kAlertDecodeError = 50;
const uint8_t kAlertUserCanceled = 90;

// This thread's buffers: a read lands in one (records are opened in place), a write is
// sealed into the other. They live as long as the thread; a connection never keeps them.
uint8_t* ReadScratch() {
    thread_local std::unique_ptr<uint8_t[]> buf(new uint8_t[4 * kMaxRecord]);
    return buf.get();
}
const size_t kReadScratch = 4 * kMaxRecord;

uint8_t* WriteScratch() {
    thread_local std::unique_ptr<uint8_t[]> buf(
        new uint8_t[kSealOverhead + 5 + kWriteRecords * (kMaxPlain + kSealOverhead)]);
    return buf.get();
}

// The algorithms, fetched once for the process (never freed: they live as long as it).
const EVP_CIPHER* CipherOf(uint16_t suite) {
    static EVP_CIPHER* aes128 = EVP_CIPHER_fetch(nullptr, "AES-128-GCM", nullptr);
    static EVP_CIPHER* aes256 = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    static EVP_CIPHER* chacha = EVP_CIPHER_fetch(nullptr, "ChaCha20-Poly1305", nullptr);
    switch (suite) {
        case CTlsRecords::kAes128GcmSha256:
            return aes128;
        case CTlsRecords::kAes256GcmSha384:
            return aes256;
        case CTlsRecords::kChacha20Poly1305Sha256:
            return chacha;
        default:
            return nullptr;
    }
}

const EVP_MD* DigestOf(uint16_t suite) {
    static EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    static EVP_MD* sha384 = EVP_MD_fetch(nullptr, "SHA384", nullptr);
    return suite == CTlsRecords::kAes256GcmSha384 ? sha384 : sha256;
}

size_t KeyLength(uint16_t suite) {
    return suite == CTlsRecords::kAes128GcmSha256 ? 16 : 32;
}

// HKDF-Expand-Label(secret, label, "", out_len) of TLS 1.3 with the suite's hash, for an
// out_len of at most the hash's length (keys, ivs, the next secret): then HKDF-Expand is one
// HMAC, T(1) = HMAC(secret, info | 0x01), computed here over the digest fetched once, because
// the KDF and MAC interfaces look the digest up by name on every call (a tenth of a resumed
// handshake's time).
bool ExpandLabel(uint16_t suite, const uint8_t* secret, size_t secret_len, const char* label, uint8_t* out,
                 size_t out_len) {
    const EVP_MD* md = DigestOf(suite);
    if (md == nullptr) {
        return false;
    }
    const size_t hash_len = static_cast<size_t>(EVP_MD_get_size(md));
    const size_t block = static_cast<size_t>(EVP_MD_get_block_size(md));
    uint8_t pad[128];
    size_t label_len = strlen(label);
    if (out_len > hash_len || secret_len > block || block > sizeof(pad) || label_len > 249) {
        return false;
    }
    // struct { uint16 length; opaque label<7..255> = "tls13 " + label; opaque context<0..255>; }
    // then HKDF-Expand's counter byte.
    uint8_t info[2 + 1 + 255 + 1 + 1];
    size_t n = 0;
    info[n++] = static_cast<uint8_t>(out_len >> 8);
    info[n++] = static_cast<uint8_t>(out_len);
    info[n++] = static_cast<uint8_t>(6 + label_len);
    memcpy(info + n, "tls13 ", 6);
    n += 6;
    memcpy(info + n, label, label_len);
    n += label_len;
    info[n++] = 0;  // no context
    info[n++] = 1;  // T(1)
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    if (ctx == nullptr) {
        return false;
    }
    uint8_t inner[EVP_MAX_MD_SIZE];
    uint8_t outer[EVP_MAX_MD_SIZE];
    auto keyed = [&](uint8_t x) {
        memset(pad, x, block);
        for (size_t i = 0; i < secret_len; ++i) {
            pad[i] = static_cast<uint8_t>(secret[i] ^ x);
        }
    };
    keyed(0x36);
    bool ok = EVP_DigestInit_ex(ctx, md, nullptr) == 1 && EVP_DigestUpdate(ctx, pad, block) == 1 &&
              EVP_DigestUpdate(ctx, info, n) == 1 && EVP_DigestFinal_ex(ctx, inner, nullptr) == 1;
    keyed(0x5c);
    ok = ok && EVP_DigestInit_ex(ctx, md, nullptr) == 1 && EVP_DigestUpdate(ctx, pad, block) == 1 &&
         EVP_DigestUpdate(ctx, inner, hash_len) == 1 && EVP_DigestFinal_ex(ctx, outer, nullptr) == 1;
    EVP_MD_CTX_free(ctx);
    if (ok) {
        memcpy(out, outer, out_len);
    }
    OPENSSL_cleanse(pad, sizeof(pad));
    OPENSSL_cleanse(inner, sizeof(inner));
    OPENSSL_cleanse(outer, sizeof(outer));
    return ok;
}

// The per-record nonce: the iv with the sequence number (big-endian) XORed into its end.
void Nonce(const CTlsRecords::Direction& d, uint8_t nonce[12]) {
    memcpy(nonce, d.iv, 12);
    for (int i = 0; i < 8; ++i) {
        nonce[11 - i] ^= static_cast<uint8_t>(d.seq >> (8 * i));
    }
}

std::string AlertText(uint8_t desc) {
    return std::string("the peer sent the alert ") + SSL_alert_desc_string_long(desc);
}

}  // namespace

void CTlsRecords::Held::Assign(const uint8_t* p, size_t n, size_t reserve) {
    size_t cap_needed = std::max(n, reserve);
    if (cap_needed == 0) {
        Release();
        return;
    }
    if (cap < cap_needed || begin != 0) {
        std::unique_ptr<uint8_t[]> block(new uint8_t[cap_needed]);
        memcpy(block.get(), p, n);
        data = std::move(block);
        cap = static_cast<uint32_t>(cap_needed);
    } else {
        memmove(data.get(), p, n);
    }
    begin = 0;
    end = static_cast<uint32_t>(n);
}

void CTlsRecords::Held::Reserve(size_t total) {
    if (begin == 0 && cap >= total) {
        return;
    }
    size_t n = size();
    std::unique_ptr<uint8_t[]> block(new uint8_t[std::max(total, n)]);
    if (n > 0) {
        memcpy(block.get(), head(), n);
    }
    data = std::move(block);
    cap = static_cast<uint32_t>(std::max(total, n));
    begin = 0;
    end = static_cast<uint32_t>(n);
}

void CTlsRecords::Held::Consume(size_t n) {
    begin += static_cast<uint32_t>(n);
    if (begin >= end) {
        Release();
    }
}

void CTlsRecords::Held::Release() {
    if (data != nullptr) {
        OPENSSL_cleanse(data.get(), cap);  // plaintext, or ciphertext: gone either way
    }
    data.reset();
    cap = begin = end = 0;
}

size_t CTlsRecords::SecretLength(uint16_t suite) {
    switch (suite) {
        case kAes128GcmSha256:
        case kChacha20Poly1305Sha256:
            return 32;
        case kAes256GcmSha384:
            return 48;
        default:
            return 0;
    }
}

CTlsRecords::CTlsRecords(int fd, uint16_t suite) : m_fd(fd), m_suite(suite) {}

std::unique_ptr<CTlsRecords> CTlsRecords::Create(int fd, uint16_t suite, const uint8_t* recv_secret,
                                                 uint64_t recv_seq, const uint8_t* send_secret,
                                                 uint64_t send_seq, std::string* error) {
    size_t len = SecretLength(suite);
    if (len == 0 || CipherOf(suite) == nullptr) {
        *error = "cipher suite not available for the record layer";
        return nullptr;
    }
    std::unique_ptr<CTlsRecords> r(new CTlsRecords(fd, suite));
    memcpy(r->m_recv.secret, recv_secret, len);
    memcpy(r->m_send.secret, send_secret, len);
    if (!r->Key(&r->m_recv, false) || !r->Key(&r->m_send, true)) {
        *error = "cannot set the record keys up";
        return nullptr;
    }
    r->m_recv.seq = recv_seq;
    r->m_send.seq = send_seq;
    return r;
}

CTlsRecords::~CTlsRecords() {
    EVP_CIPHER_CTX_free(m_recv.ctx);  // cleansed by OpenSSL
    EVP_CIPHER_CTX_free(m_send.ctx);
    OPENSSL_cleanse(&m_recv, sizeof(m_recv));
    OPENSSL_cleanse(&m_send, sizeof(m_send));
}

bool CTlsRecords::Key(Direction* d, bool encrypt) {
    size_t secret_len = SecretLength(m_suite);
    uint8_t key[32];
    size_t key_len = KeyLength(m_suite);
    bool ok = ExpandLabel(m_suite, d->secret, secret_len, "key", key, key_len) &&
              ExpandLabel(m_suite, d->secret, secret_len, "iv", d->iv, sizeof(d->iv));
    if (ok && d->ctx == nullptr) {
        d->ctx = EVP_CIPHER_CTX_new();
        ok = d->ctx != nullptr &&
             EVP_CipherInit_ex(d->ctx, CipherOf(m_suite), nullptr, nullptr, nullptr, encrypt ? 1 : 0) == 1;
    }
    // The key stays in the context; each record sets only its nonce.
    ok = ok && EVP_CipherInit_ex(d->ctx, nullptr, nullptr, key, nullptr, encrypt ? 1 : 0) == 1;
    OPENSSL_cleanse(key, sizeof(key));
    d->seq = 0;
    return ok;
}

bool CTlsRecords::Update(Direction* d, bool encrypt) {
    size_t secret_len = SecretLength(m_suite);
    uint8_t next[48];
    bool ok = ExpandLabel(m_suite, d->secret, secret_len, "traffic upd", next, secret_len);
    if (ok) {
        memcpy(d->secret, next, secret_len);
    }
    OPENSSL_cleanse(next, sizeof(next));
    return ok && Key(d, encrypt);
}

size_t CTlsRecords::Seal(uint8_t type, const uint8_t* in, size_t n, uint8_t* out) {
    size_t body = n + 1 + kTag;
    out[0] = kTypeData;
    out[1] = 3;
    out[2] = 3;
    out[3] = static_cast<uint8_t>(body >> 8);
    out[4] = static_cast<uint8_t>(body);
    uint8_t nonce[12];
    Nonce(m_send, nonce);
    EVP_CIPHER_CTX* ctx = m_send.ctx;
    int len = 0;
    int tail = 0;
    bool ok =
        EVP_EncryptInit_ex(ctx, nullptr, nullptr, nullptr, nonce) == 1 &&
        EVP_EncryptUpdate(ctx, nullptr, &len, out, static_cast<int>(kHeader)) == 1 &&
        (n == 0 || EVP_EncryptUpdate(ctx, out + kHeader, &len, in, static_cast<int>(n)) == 1) &&
        EVP_EncryptUpdate(ctx, out + kHeader + n, &tail, &type, 1) == 1 &&
        EVP_EncryptFinal_ex(ctx, out + kHeader + n + 1, &len) == 1 &&
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_GET_TAG, static_cast<int>(kTag), out + kHeader + n + 1) == 1;
    if (!ok) {
        return 0;
    }
    ++m_send.seq;
    return kHeader + body;
}

long CTlsRecords::RecordLength(const uint8_t* p, size_t n) {
    if (n < kHeader) {
        return 0;
    }
    if (p[0] != kTypeData) {
        Fatal(kAlertUnexpectedMessage, "unexpected record type " + std::to_string(p[0]));
        return -1;
    }
    if (p[1] != 3 || p[2] != 3) {
        Fatal(kAlertDecodeError, "wrong version number");
        return -1;
    }
    size_t body = (static_cast<size_t>(p[3]) << 8) | p[4];
    if (body > kMaxBody) {
        Fatal(kAlertRecordOverflow, "encrypted length too long");
        return -1;
    }
    if (body < kTag + 1) {
        Fatal(kAlertBadRecordMac, "decryption failed or bad record mac");
        return -1;
    }
    return n >= kHeader + body ? static_cast<long>(kHeader + body) : 0;
}

int CTlsRecords::Open(uint8_t* p, size_t n, uint8_t* out, size_t* room, size_t* got) {
    size_t inner = n - kHeader - kTag;
    // Straight into the caller's buffer when the whole plaintext fits, else in place.
    uint8_t* dst = inner <= *room ? out + *got : p + kHeader;
    uint8_t nonce[12];
    Nonce(m_recv, nonce);
    EVP_CIPHER_CTX* ctx = m_recv.ctx;
    int len = 0;
    int fin = 0;
    bool ok =
        EVP_DecryptInit_ex(ctx, nullptr, nullptr, nullptr, nonce) == 1 &&
        EVP_DecryptUpdate(ctx, nullptr, &len, p, static_cast<int>(kHeader)) == 1 &&
        EVP_DecryptUpdate(ctx, dst, &len, p + kHeader, static_cast<int>(inner)) == 1 &&
        EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_AEAD_SET_TAG, static_cast<int>(kTag), p + kHeader + inner) == 1 &&
        EVP_DecryptFinal_ex(ctx, dst + len, &fin) == 1;
    if (!ok) {
        return Fatal(kAlertBadRecordMac, "decryption failed or bad record mac");
    }
    ++m_recv.seq;
    size_t end = inner;
    while (end > 0 && dst[end - 1] == 0) {
        --end;  // the padding
    }
    if (end == 0) {
        return Fatal(kAlertUnexpectedMessage, "a record without a content type");
    }
    uint8_t type = dst[end - 1];
    size_t content = end - 1;
    if (content > kMaxPlain) {
        return Fatal(kAlertRecordOverflow, "record overflow");
    }
    if (m_hs_len != 0 && type != kTypeHandshake) {
        return Fatal(kAlertUnexpectedMessage, "a handshake message interrupted by another record");
    }
    if (type == kTypeData) {
        if (dst == out + *got) {
            *got += content;
            *room -= content;
            return 0;
        }
        size_t take = std::min(*room, content);
        memcpy(out + *got, dst, take);
        *got += take;
        *room -= take;
        m_plain.Assign(dst + take, content - take, 0);
        return 0;
    }
    if (type == kTypeAlert) {
        if (content != 2) {
            return Fatal(kAlertDecodeError, "a malformed alert");
        }
        if (dst[1] == kAlertCloseNotify) {
            return IStreamIo::kEnd;
        }
        if (dst[1] == kAlertUserCanceled) {
            return 0;  // a warning; the close_notify that should follow ends the stream
        }
        m_errno = 0;
        m_error = AlertText(dst[1]);
        m_write_closed = true;  // a fatal alert: nothing more is sent
        return IStreamIo::kFailed;
    }
    if (type == kTypeHandshake) {
        return OnHandshake(dst, content, true);
    }
    return Fatal(kAlertUnexpectedMessage, "unexpected content type " + std::to_string(type));
}

int CTlsRecords::OnHandshake(const uint8_t* p, size_t n, bool record_ends) {
    if (n == 0) {
        return Fatal(kAlertUnexpectedMessage, "an empty handshake record");
    }
    size_t i = 0;
    while (i < n) {
        size_t take = std::min(sizeof(m_hs) - m_hs_len, n - i);
        memcpy(m_hs + m_hs_len, p + i, take);
        m_hs_len = static_cast<uint8_t>(m_hs_len + take);
        i += take;
        if (m_hs[0] != kKeyUpdate) {
            return Fatal(kAlertUnexpectedMessage,
                         "unexpected post-handshake message " + std::to_string(m_hs[0]));
        }
        if (m_hs_len >= 4 && (m_hs[1] != 0 || m_hs[2] != 0 || m_hs[3] != 1)) {
            return Fatal(kAlertDecodeError, "a malformed KeyUpdate");
        }
        if (m_hs_len < sizeof(m_hs)) {
            continue;
        }
        uint8_t request = m_hs[4];
        m_hs_len = 0;
        if (request > 1) {
            return Fatal(kAlertIllegalParameter, "a KeyUpdate with a bad request");
        }
        if (i != n || !record_ends) {
            // The keys change after this message: it must end its record.
            return Fatal(kAlertUnexpectedMessage, "a KeyUpdate not at the end of its record");
        }
        if (!Update(&m_recv, false)) {
            return Fatal(kAlertUnexpectedMessage, "cannot update the receiving keys");
        }
        if (request == 1 && m_key_update == kNoUpdate) {
            m_key_update = kUpdateNotRequested;  // ours goes out before the next bytes
        }
    }
    return 0;
}

long CTlsRecords::Recv(uint8_t* p, size_t n) {
    for (;;) {
        ssize_t got = recv(m_fd, p, n, 0);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        return static_cast<long>(got);
    }
}

long CTlsRecords::SendSome(const uint8_t* p, size_t n) {
    size_t sent = 0;
    while (sent < n) {
        ssize_t r = send(m_fd, p + sent, n - sent, MSG_NOSIGNAL);
        if (r > 0) {
            sent += static_cast<size_t>(r);
        } else if (r < 0 && errno == EINTR) {
            continue;
        } else if (r < 0 && errno == EAGAIN) {
            break;
        } else {
            return -1;
        }
    }
    return static_cast<long>(sent);
}

int CTlsRecords::Fatal(uint8_t alert, const std::string& text) {
    m_errno = 0;
    m_error = text;
    if (!m_write_closed && m_out.empty()) {
        uint8_t body[2] = {2, alert};
        uint8_t record[kSealOverhead + 2];
        size_t n = Seal(kTypeAlert, body, sizeof(body), record);
        if (n > 0) {
            SendSome(record, n);  // best effort: the connection ends either way
        }
    }
    m_write_closed = true;
    return IStreamIo::kFailed;
}

int CTlsRecords::SocketFailed(int err, const char* what) {
    m_errno = err != 0 ? err : EIO;
    m_error = std::string(what) + ": " + strerror(m_errno);
    return IStreamIo::kFailed;
}

int CTlsRecords::EndRead(int r, size_t got) {
    m_read_end = r;
    if (got > 0) {
        return static_cast<int>(got);
    }
    m_read_end_told = true;
    return r;
}

int CTlsRecords::Read(void* buf, int len) {
    uint8_t* out = static_cast<uint8_t*>(buf);
    size_t room = len > 0 ? static_cast<size_t>(len) : 0;
    size_t got = 0;
    if (!m_plain.empty()) {
        size_t take = std::min(room, m_plain.size());
        memcpy(out, m_plain.head(), take);
        m_plain.Consume(take);
        got += take;
        room -= take;
        if (room == 0 || !m_plain.empty()) {
            return static_cast<int>(got);
        }
    }
    if (m_read_end != 0) {
        return EndRead(m_read_end, got);
    }
    if (room == 0) {
        m_error = "a read into an empty buffer";
        return IStreamIo::kFailed;
    }
    for (;;) {
        // Records held from an earlier read come first.
        while (room > 0 && !m_in.empty()) {
            long rec = RecordLength(m_in.head(), m_in.size());
            if (rec < 0) {
                return EndRead(IStreamIo::kFailed, got);
            }
            if (rec == 0) {
                break;
            }
            int r = Open(m_in.head(), static_cast<size_t>(rec), out, &room, &got);
            m_in.Consume(static_cast<size_t>(rec));
            if (r != 0) {
                return EndRead(r, got);
            }
        }
        if (got > 0 || !m_plain.empty()) {
            return static_cast<int>(got);  // the socket is read on the next call
        }
        if (!m_in.empty()) {
            // A record in part: the rest of it goes straight into its own buffer (no more,
            // so a record trickling in is not copied over and over).
            size_t have = m_in.size();
            size_t total = have < kHeader
                               ? kHeader
                               : kHeader + ((static_cast<size_t>(m_in.head()[3]) << 8) | m_in.head()[4]);
            m_in.Reserve(total);
            long n = Recv(m_in.head() + have, total - have);
            if (n <= 0) {
                return ReadStopped(n);
            }
            m_in.end += static_cast<uint32_t>(n);
            continue;
        } else {
            // Nothing held: a read into this thread's buffer, records opened in place; what
            // is left (a record in part, or records beyond the caller's room) is kept.
            uint8_t* s = ReadScratch();
            size_t want = std::min(kReadScratch, room + kMaxRecord);
            long n = Recv(s, want);
            if (n <= 0) {
                return ReadStopped(n);
            }
            {
                size_t pos = 0;
                while (room > 0) {
                    long rec = RecordLength(s + pos, static_cast<size_t>(n) - pos);
                    if (rec < 0) {
                        return EndRead(IStreamIo::kFailed, got);
                    }
                    if (rec == 0) {
                        break;
                    }
                    int r = Open(s + pos, static_cast<size_t>(rec), out, &room, &got);
                    pos += static_cast<size_t>(rec);
                    if (r != 0) {
                        return EndRead(r, got);
                    }
                }
                size_t left = static_cast<size_t>(n) - pos;
                if (left > 0) {
                    size_t reserve = left >= kHeader
                                         ? kHeader + ((static_cast<size_t>(s[pos + 3]) << 8) | s[pos + 4])
                                         : kHeader;
                    m_in.Assign(s + pos, left, reserve);
                }
            }
        }
    }
}

int CTlsRecords::ReadStopped(long n) {
    if (n < 0 && errno == EAGAIN) {
        return IStreamIo::kWantRead;
    }
    if (n == 0) {
        // As OpenSSL does, the peer hears of it with a decode_error alert (it may still read).
        Fatal(kAlertDecodeError, "the peer closed the connection without a close_notify");
        return EndRead(IStreamIo::kTruncated, 0);
    }
    return EndRead(SocketFailed(errno, "recv failed"), 0);
}

bool CTlsRecords::HasBufferedInput() const {
    if (!m_plain.empty() || (m_read_end != 0 && !m_read_end_told)) {
        return true;
    }
    if (m_in.size() < kHeader) {
        return false;
    }
    const uint8_t* p = m_in.head();
    size_t body = (static_cast<size_t>(p[3]) << 8) | p[4];
    // A complete record, or a header that will fail: either way a Read has work without the socket.
    return m_in.size() >= kHeader + body || p[0] != kTypeData || body > kMaxBody;
}

int CTlsRecords::Write(const void* buf, int len) {
    if (m_write_closed) {
        if (m_error.empty()) {
            m_error = "writing after the end of the TLS stream";
        }
        return IStreamIo::kFailed;
    }
    if (len <= 0) {
        return 0;
    }
    if (!m_out.empty()) {
        long sent = SendSome(m_out.head(), m_out.size());
        if (sent < 0) {
            m_write_closed = true;
            return SocketFailed(errno, "send failed");
        }
        m_out.Consume(static_cast<size_t>(sent));
        if (!m_out.empty()) {
            return IStreamIo::kWantWrite;
        }
        m_unreported += m_out_plain;
        m_out_plain = 0;
    }
    if (m_unreported > 0) {
        // The caller repeats the bytes that record carried: they count as taken now.
        uint32_t n = std::min(m_unreported, static_cast<uint32_t>(len));
        m_unreported -= n;
        return static_cast<int>(n);
    }
    const uint8_t* in = static_cast<const uint8_t*>(buf);
    uint8_t* s = WriteScratch();
    struct Sealed {
        size_t end;    // where the record ends in the scratch
        size_t plain;  // application bytes it carries
    };
    Sealed sealed[kWriteRecords + 1];
    size_t count = 0;
    size_t pos = 0;
    size_t controls = 0;
    if (m_key_update != kNoUpdate) {
        uint8_t msg[5] = {kKeyUpdate, 0, 0, 1,
                          static_cast<uint8_t>(m_key_update == kUpdateRequested ? 1 : 0)};
        size_t n = Seal(kTypeHandshake, msg, sizeof(msg), s);
        if (n == 0 || !Update(&m_send, true)) {
            m_write_closed = true;
            m_error = "cannot update the sending keys";
            return IStreamIo::kFailed;
        }
        m_key_update = kNoUpdate;
        pos = n;
        sealed[count++] = Sealed{pos, 0};
        controls = 1;
    }
    size_t take = std::min(static_cast<size_t>(len), kWriteRecords * kMaxPlain);
    for (size_t off = 0; off < take;) {
        size_t chunk = std::min(kMaxPlain, take - off);
        size_t n = Seal(kTypeData, in + off, chunk, s + pos);
        if (n == 0) {
            m_write_closed = true;
            m_error = "cannot seal a record";
            return IStreamIo::kFailed;
        }
        pos += n;
        off += chunk;
        sealed[count++] = Sealed{pos, chunk};
    }
    long sent = SendSome(s, pos);
    if (sent < 0) {
        m_write_closed = true;
        return SocketFailed(errno, "send failed");
    }
    if (static_cast<size_t>(sent) == pos) {
        return static_cast<int>(take);
    }
    // The socket took part: records wholly sent count, the one cut keeps its rest, and the
    // records after it never left (their sequence numbers are used again).
    size_t done = 0;
    size_t start = 0;
    size_t i = 0;
    for (; i < count && sealed[i].end <= static_cast<size_t>(sent); ++i) {
        done += sealed[i].plain;
        start = sealed[i].end;
    }
    if (static_cast<size_t>(sent) > start || i < controls) {
        // A control record is never taken back (the keys changed after it).
        m_out.Assign(s + sent, sealed[i].end - static_cast<size_t>(sent), 0);
        m_out_plain = static_cast<uint32_t>(sealed[i].plain);
        ++i;
    }
    m_send.seq -= count - i;
    if (done > 0) {
        return static_cast<int>(done);
    }
    return IStreamIo::kWantWrite;
}

int CTlsRecords::SendCloseNotify() {
    if (m_write_closed) {
        return 0;
    }
    m_write_closed = true;
    if (!m_out.empty()) {
        long sent = SendSome(m_out.head(), m_out.size());
        if (sent < 0) {
            return SocketFailed(errno, "close_notify not sent");
        }
        m_out.Consume(static_cast<size_t>(sent));
        if (!m_out.empty()) {
            m_out.Release();
            return 0;  // the socket is full: no close_notify (the peer sees the stream cut)
        }
    }
    uint8_t body[2] = {1, kAlertCloseNotify};
    uint8_t record[kSealOverhead + 2];
    size_t n = Seal(kTypeAlert, body, sizeof(body), record);
    if (n == 0) {
        m_error = "close_notify not sealed";
        return IStreamIo::kFailed;
    }
    if (SendSome(record, n) < 0) {
        return SocketFailed(errno, "close_notify not sent");
    }
    return 0;
}

void CTlsRecords::RequestKeyUpdate() {
    m_key_update = kUpdateRequested;
}

size_t CTlsRecords::HeldBytes() const {
    return m_in.cap + m_plain.cap + m_out.cap;
}

}  // namespace QUOLNET
