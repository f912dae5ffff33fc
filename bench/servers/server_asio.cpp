// bench_server_asio: the echo server written the way Asio's documentation shows it
// (standalone, header-only Asio): an acceptor with async_accept, one session object per
// connection kept alive by shared_ptr, async_read_some into the session's buffer and one
// async_write of every complete packet before the next read. One io_context run by one
// thread (concurrency hint 1); SIGINT/SIGTERM stop it through a signal_set.
#include <asio.hpp>

#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "common/bench_net.h"

using namespace QUOLNET_BENCH;
using asio::ip::tcp;

namespace {

uint64_t g_packets = 0;
uint64_t g_bytes = 0;

class CSession : public std::enable_shared_from_this<CSession> {
  public:
    CSession(tcp::socket socket, bool sink) : m_socket(std::move(socket)), m_sink(sink), m_buf(64 * 1024) {}
    CSession(const CSession&) = delete;
    CSession& operator=(const CSession&) = delete;

    void Start() {
        m_socket.set_option(tcp::no_delay(true));
        DoRead();
    }

  private:
    void DoRead() {
        if (m_len == m_buf.size())
            m_buf.resize(m_buf.size() * 2);
        auto self(shared_from_this());
        m_socket.async_read_some(asio::buffer(m_buf.data() + m_len, m_buf.size() - m_len),
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
        asio::async_write(m_socket, asio::buffer(m_buf.data(), pos),
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

    tcp::socket m_socket;
    bool m_sink;
    std::vector<char> m_buf;
    size_t m_len = 0;
};

class CServer {
  public:
    CServer(asio::io_context& io, const ServerOptions& opt)
        : m_acceptor(io,
                     tcp::endpoint(asio::ip::make_address(opt.host), static_cast<unsigned short>(opt.port))),
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
                std::make_shared<CSession>(std::move(socket), m_sink)->Start();
            DoAccept();
        });
    }

    tcp::acceptor m_acceptor;
    bool m_sink;
};

}  // namespace

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_asio");
    RaiseFdLimit();
    asio::io_context io(1);
    asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&io](std::error_code, int) { io.stop(); });
    CServer server(io, opt);
    io.run();
    PrintServed(g_packets, g_bytes);
    return 0;
}
