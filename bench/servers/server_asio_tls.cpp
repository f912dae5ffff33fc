// bench_server_asio_tls: server_asio.cpp's echo (and --sink) over TLS, written the way Asio's
// documentation shows it: asio::ssl::stream over the TCP socket, async_handshake on accept,
// then async_read_some into the session's buffer and one async_write of every complete packet
// before the next read. One io_context run by one thread.
//
// TLS: the same OpenSSL as every other side, TLS 1.3 only with the one cipher suite
// kTlsCipherSuite, the certificate and key of --tls-cert/--tls-key (or a self-signed pair made
// in memory with --tls), and resumption as quolnet's server context offers it: one stateless
// session ticket per handshake, no server-side session cache.
#include <openssl/ssl.h>

#include <asio.hpp>
#include <asio/ssl.hpp>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common/bench_net.h"
#include "common/bench_tls.h"

using namespace QUOLNET_BENCH;
using asio::ip::tcp;

namespace {

uint64_t g_packets = 0;
uint64_t g_bytes = 0;

class CSession : public std::enable_shared_from_this<CSession> {
  public:
    CSession(tcp::socket socket, asio::ssl::context& ctx, bool sink)
        : m_stream(std::move(socket), ctx), m_sink(sink), m_buf(64 * 1024) {}
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    void Start() {
        m_stream.lowest_layer().set_option(tcp::no_delay(true));
        auto self(shared_from_this());
        m_stream.async_handshake(asio::ssl::stream_base::server, [this, self](std::error_code ec) {
            if (!ec)
                DoRead();
        });
    }

  private:
    void DoRead() {
        if (m_len == m_buf.size())
            m_buf.resize(m_buf.size() * 2);
        auto self(shared_from_this());
        m_stream.async_read_some(asio::buffer(m_buf.data() + m_len, m_buf.size() - m_len),
                                 [this, self](std::error_code ec, std::size_t n) {
                                     if (ec)
                                         return;
                                     m_len += n;
                                     OnData();
                                 });
    }

    void OnData() {
        size_t pos = 0;
        while (m_len - pos >= kHeaderLen) {
            uint32_t len = ReadBe32(m_buf.data() + pos);
            if (len < kHeaderLen || len > kMaxPacketLen)
                return;  // drop the session
            if (m_len - pos < len) {
                if (len > m_buf.size())
                    m_buf.resize(len);
                break;
            }
            pos += len;
            ++g_packets;
            g_bytes += len;
        }
        if (pos == 0 || m_sink) {
            Consume(pos);
            DoRead();
            return;
        }
        auto self(shared_from_this());
        asio::async_write(m_stream, asio::buffer(m_buf.data(), pos),
                          [this, self, pos](std::error_code ec, std::size_t) {
                              if (ec)
                                  return;
                              Consume(pos);
                              DoRead();
                          });
    }

    void Consume(size_t n) {
        if (n == 0)
            return;
        std::memmove(m_buf.data(), m_buf.data() + n, m_len - n);
        m_len -= n;
    }

    asio::ssl::stream<tcp::socket> m_stream;
    bool m_sink;
    std::vector<char> m_buf;
    size_t m_len = 0;
};

class CServer {
  public:
    CServer(asio::io_context& io, asio::ssl::context& ctx, const ServerOptions& opt)
        : m_acceptor(io,
                     tcp::endpoint(asio::ip::make_address(opt.host), static_cast<unsigned short>(opt.port))),
          m_ctx(ctx),
          m_sink(opt.sink) {
        m_acceptor.listen(4096);
        DoAccept();
    }
    CServer(const CServer&) = delete;
    CServer& operator=(const CServer&) = delete;

  private:
    void DoAccept() {
        m_acceptor.async_accept([this](std::error_code ec, tcp::socket socket) {
            if (!ec)
                std::make_shared<CSession>(std::move(socket), m_ctx, m_sink)->Start();
            DoAccept();
        });
    }

    tcp::acceptor m_acceptor;
    asio::ssl::context& m_ctx;
    bool m_sink;
};

// Configures `ctx` as described at the top; false, with a message on stderr, on failure.
bool ConfigureTls(asio::ssl::context& ctx, const ServerOptions& opt) {
    std::string cert, key, error;
    if (!LoadServerCredentials(opt.tls_cert, opt.tls_key, &cert, &key, &error)) {
        std::fprintf(stderr, "bench_server_asio_tls: %s\n", error.c_str());
        return false;
    }
    SSL_CTX* raw = ctx.native_handle();
    std::error_code ec;
    ctx.use_certificate_chain(asio::buffer(cert), ec);
    if (!ec)
        ctx.use_private_key(asio::buffer(key), asio::ssl::context::pem, ec);
    if (ec) {
        std::fprintf(stderr, "bench_server_asio_tls: certificate: %s\n", ec.message().c_str());
        return false;
    }
    if (SSL_CTX_set_min_proto_version(raw, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_max_proto_version(raw, TLS1_3_VERSION) != 1 ||
        SSL_CTX_set_ciphersuites(raw, kTlsCipherSuite) != 1) {
        std::fprintf(stderr, "bench_server_asio_tls: %s\n", OpenSslErrors().c_str());
        return false;
    }
    SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(raw, 1);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_asio_tls", true);
    RaiseFdLimit();
    asio::ssl::context ctx(asio::ssl::context::tls_server);
    if (!ConfigureTls(ctx, opt))
        return 1;
    asio::io_context io(1);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](std::error_code, int) { io.stop(); });
    CServer server(io, ctx, opt);
    io.run();
    PrintServed(g_packets, g_bytes);
    return 0;
}
