// bench_server_asio_tls: server_asio.cpp's echo (and --sink) over TLS, written the way Asio's
// documentation shows it: asio::ssl::stream over the TCP socket, async_handshake on accept,
// then the session of asio_echo.h. One io_context run by one thread.
//
// TLS: the same OpenSSL as every other side, TLS 1.3 only with the one cipher suite
// kTlsCipherSuite, the certificate and key of --tls-cert/--tls-key (or a self-signed pair made
// in memory with --tls), and resumption as quolnet's server context offers it: one stateless
// session ticket per handshake, no server-side session cache.
#include <openssl/ssl.h>

#include <asio.hpp>
#include <asio/ssl.hpp>

#include <cstdio>
#include <string>

#include "asio_echo.h"
#include "common/bench_tls.h"

using namespace QUOLNET_BENCH;
using asio::ip::tcp;

namespace {

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

typedef asio::ssl::stream<tcp::socket> TlsStream;

// The server's TLS handshake comes before the session's first read.
template <>
struct asio_echo::HandshakeOf<TlsStream> {
    template <typename Done>
    static void Start(TlsStream& stream, Done done) {
        stream.async_handshake(asio::ssl::stream_base::server, done);
    }
};

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_asio_tls", true);
    RaiseFdLimit();
    asio::ssl::context ctx(asio::ssl::context::tls_server);
    if (!ConfigureTls(ctx, opt))
        return 1;
    asio::io_context io(1);
    auto tls = [&ctx](tcp::socket socket) { return TlsStream(std::move(socket), ctx); };
    asio_echo::CServer<TlsStream, decltype(tls)> server(io, opt, tls);
    asio_echo::RunUntilSignalled(io);
    return 0;
}
