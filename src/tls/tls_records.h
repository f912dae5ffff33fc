// CTlsRecords: the record layer of an established TLS 1.3 connection, without OpenSSL's SSL
// object. A server's CTlsStream hands its connection over to one once the handshake is done
// (see tls_stream.h), then frees the SSL object: an idle connection keeps only the traffic
// secrets, the two AEAD contexts and the sequence numbers.
//
// Records are protected as TLS 1.3 does (outer type application_data, version 0x0303, the
// inner plaintext = content || content type || no padding, nonce = iv XOR the 64-bit
// sequence number, the 5-byte header as additional data) with AES-128-GCM, AES-256-GCM or
// ChaCha20-Poly1305. Post-handshake, a peer may send application data, alerts and KeyUpdate
// messages; any other handshake message, a record that does not open, one that is too long
// or of another type fails the connection (a fatal alert goes back when the socket takes it).
//
// Memory: ciphertext and plaintext are held per connection only while some is pending (a
// record that came in part, plaintext the caller had no room for, ciphertext the socket did
// not take); everything else goes through buffers of the calling thread.
//
// Not thread-safe: the owner (CTlsStream) serialises every call with its mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

typedef struct evp_cipher_ctx_st EVP_CIPHER_CTX;

namespace QUOLNET {

class CTlsRecords {
  public:
    // The TLS 1.3 cipher suites it protects records with, by their IANA numbers.
    static constexpr uint16_t kAes128GcmSha256 = 0x1301;
    static constexpr uint16_t kAes256GcmSha384 = 0x1302;
    static constexpr uint16_t kChacha20Poly1305Sha256 = 0x1303;
    // The length of the suite's traffic secrets (its hash's), or 0 for another suite.
    static size_t SecretLength(uint16_t suite);

    // A record layer on `fd` (not owned) for `suite`, reading with the peer's traffic secret
    // `recv_secret` from record number `recv_seq` on and writing with `send_secret` from
    // `send_seq` on; both secrets are SecretLength(suite) bytes and are copied. Null, with
    // `error`, when OpenSSL cannot set the keys up.
    static std::unique_ptr<CTlsRecords> Create(int fd, uint16_t suite, const uint8_t* recv_secret,
                                               uint64_t recv_seq, const uint8_t* send_secret,
                                               uint64_t send_seq, std::string* error);
    ~CTlsRecords();
    CTlsRecords(const CTlsRecords&) = delete;
    CTlsRecords& operator=(const CTlsRecords&) = delete;

    // IStreamIo::Read, HasBufferedInput and Write, with their results.
    int Read(void* buf, int len);
    bool HasBufferedInput() const;
    int Write(const void* buf, int len);
    // Sends a close_notify alert (after ciphertext still held, if the socket takes it);
    // nothing is written after it. 0, or kFailed. The socket itself is left as it is.
    int SendCloseNotify();
    // Asks for new keys both ways: a KeyUpdate that requests the peer's goes out first with
    // the next Write, and the sending keys change after it.
    void RequestKeyUpdate();

    // The last failure: errno (0 for a protocol failure) and text.
    int LastErrno() const { return m_errno; }
    const std::string& LastError() const { return m_error; }
    // Heap bytes held for pending input and output right now (0 when idle).
    size_t HeldBytes() const;

    // Bytes held only while some are pending: [begin, end) of a block of `cap` bytes.
    struct Held {
        std::unique_ptr<uint8_t[]> data;
        uint32_t cap = 0;
        uint32_t begin = 0;
        uint32_t end = 0;
        size_t size() const { return end - begin; }
        bool empty() const { return begin == end; }
        uint8_t* head() { return data.get() + begin; }
        const uint8_t* head() const { return data.get() + begin; }
        // Takes a copy of `n` bytes into a block of at least `reserve` bytes.
        void Assign(const uint8_t* p, size_t n, size_t reserve);
        // Makes room for `total` bytes from begin on (moving what is held to the front).
        void Reserve(size_t total);
        // Drops `n` bytes from the front; the block goes back once nothing is left.
        void Consume(size_t n);
        void Release();
    };

    // One direction's protection: its AEAD context keyed from `secret`, the iv, the number
    // of the next record.
    struct Direction {
        EVP_CIPHER_CTX* ctx = nullptr;
        uint8_t secret[48];
        uint8_t iv[12];
        uint64_t seq = 0;
    };

  private:
    CTlsRecords(int fd, uint16_t suite);

    // Keys `d` from d.secret (the context is made on first use); false on failure.
    bool Key(Direction* d, bool encrypt);
    // The next secret of `d` (a key update), and its keys; false on failure.
    bool Update(Direction* d, bool encrypt);
    // Seals one record of content `type` around `n` bytes at `in` into `out` (room for
    // n + 22 bytes); the record's length, or 0 when OpenSSL failed.
    size_t Seal(uint8_t type, const uint8_t* in, size_t n, uint8_t* out);
    // The length of the complete record at `p` (5 + its body), 0 when `n` bytes hold only
    // part of one, or -1 when its header is bad (the connection has failed then).
    long RecordLength(const uint8_t* p, size_t n);
    // Opens the complete record at `p` (`n` bytes, decrypted in place or straight into the
    // caller's buffer when its plaintext fits) and acts on it: application bytes go to
    // `out` (`*got` grows, `*room` shrinks) and what does not fit into m_plain; a key update
    // is taken. 0, or kEnd / kFailed.
    int Open(uint8_t* p, size_t n, uint8_t* out, size_t* room, size_t* got);
    // Takes post-handshake handshake bytes (only KeyUpdate is allowed); 0 or kFailed.
    int OnHandshake(const uint8_t* p, size_t n, bool record_ends);
    // Reads from the socket: the count, 0 at the end of stream, -1 with errno.
    long Recv(uint8_t* p, size_t n);
    // Sends `n` bytes until all are taken or the socket is full: the count sent, -1 with
    // errno on a failure.
    long SendSome(const uint8_t* p, size_t n);
    // Ends reading with a protocol failure: records `text`, sends the fatal alert
    // `alert` when nothing else is under way, and stops writing. kFailed.
    int Fatal(uint8_t alert, const std::string& text);
    // A socket failure (errno `err`) of a read or a write: kFailed.
    int SocketFailed(int err, const char* what);
    // The result of a read that ended (`r`: kEnd, kTruncated, kFailed) with `got` bytes in
    // hand: the bytes now and `r` on the next call, or `r` now.
    int EndRead(int r, size_t got);
    // The result of a read from the socket that brought nothing (`n`: 0 or -1 with errno):
    // kWantRead, or the end of reading (kTruncated, kFailed).
    int ReadStopped(long n);

    const int m_fd;
    const uint16_t m_suite;
    Direction m_recv;
    Direction m_send;
    Held m_in;                  // ciphertext read but not opened yet (a record in part, or records left)
    Held m_plain;               // opened application bytes the caller had no room for
    Held m_out;                 // the unsent rest of one sealed record
    uint32_t m_out_plain = 0;   // application bytes that record carries (0: a control record)
    uint32_t m_unreported = 0;  // application bytes sent but not yet reported as taken
    uint8_t m_hs[5];            // a KeyUpdate message arriving in parts
    uint8_t m_hs_len = 0;
    enum : uint8_t { kNoUpdate, kUpdateNotRequested, kUpdateRequested };
    uint8_t m_key_update = kNoUpdate;  // a KeyUpdate due before the next application bytes
    bool m_write_closed = false;       // a close_notify or a fatal alert went out, or writing failed
    int m_read_end = 0;                // the final Read result once reading ended
    bool m_read_end_told = false;      // ... and whether a Read returned it
    int m_errno = 0;
    std::string m_error;
};

}  // namespace QUOLNET
