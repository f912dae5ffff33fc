// The echo (and --sink) session and acceptor of the Asio servers, written the way Asio's
// documentation shows it: one session object per connection kept alive by shared_ptr,
// async_read_some into the session's buffer and one async_write of every complete packet
// before the next read. `Stream` is tcp::socket (server_asio.cpp) or an
// asio::ssl::stream<tcp::socket> (server_asio_tls.cpp), whose handshake comes first.
#pragma once

#include <asio.hpp>

#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "common/bench_net.h"

namespace asio_echo {

using asio::ip::tcp;

// Packets and bytes served, for PrintServed at exit (one thread runs the io_context).
inline uint64_t g_packets = 0;
inline uint64_t g_bytes = 0;

// What comes before the first read on a `Stream`: nothing for a plain socket (`done` is
// called at once); server_asio_tls.cpp specialises it with the TLS handshake.
template <typename Stream>
struct HandshakeOf {
    template <typename Done>
    static void Start(Stream&, Done done) {
        done(std::error_code());
    }
};

template <typename Stream>
class CSession : public std::enable_shared_from_this<CSession<Stream>> {
  public:
    CSession(Stream stream, bool sink) : m_stream(std::move(stream)), m_sink(sink), m_buf(64 * 1024) {}
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    void Start() {
        m_stream.lowest_layer().set_option(tcp::no_delay(true));
        auto self(this->shared_from_this());
        HandshakeOf<Stream>::Start(m_stream, [this, self](std::error_code ec) {
            if (!ec)
                DoRead();
        });
    }

  private:
    void DoRead() {
        if (m_len == m_buf.size())
            m_buf.resize(m_buf.size() * 2);
        auto self(this->shared_from_this());
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
        while (m_len - pos >= QUOLNET_BENCH::kHeaderLen) {
            uint32_t len = QUOLNET_BENCH::ReadBe32(m_buf.data() + pos);
            if (len < QUOLNET_BENCH::kHeaderLen || len > QUOLNET_BENCH::kMaxPacketLen)
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
        auto self(this->shared_from_this());
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

    Stream m_stream;
    bool m_sink;
    std::vector<char> m_buf;
    size_t m_len = 0;
};

// Accepts on opt.host:opt.port; `make(socket)` turns each accepted socket into the session's
// stream.
template <typename Stream, typename Make>
class CServer {
  public:
    CServer(asio::io_context& io, const QUOLNET_BENCH::ServerOptions& opt, Make make)
        : m_acceptor(io,
                     tcp::endpoint(asio::ip::make_address(opt.host), static_cast<unsigned short>(opt.port))),
          m_make(std::move(make)),
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
                std::make_shared<CSession<Stream>>(m_make(std::move(socket)), m_sink)->Start();
            DoAccept();
        });
    }

    tcp::acceptor m_acceptor;
    Make m_make;
    bool m_sink;
};

// Runs the io_context on this thread until SIGINT or SIGTERM, then prints what was served.
inline void RunUntilSignalled(asio::io_context& io) {
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](std::error_code, int) { io.stop(); });
    io.run();
    QUOLNET_BENCH::PrintServed(g_packets, g_bytes);
}

}  // namespace asio_echo
