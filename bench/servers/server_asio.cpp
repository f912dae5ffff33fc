// bench_server_asio: the echo server written the way Asio's documentation shows it
// (standalone, header-only Asio): an acceptor with async_accept, one session object per
// connection kept alive by shared_ptr, async_read_some into the session's buffer and one
// async_write of every complete packet before the next read. One io_context run by one
// thread (concurrency hint 1); SIGINT/SIGTERM stop it through a signal_set.
#include "asio_echo.h"

using namespace QUOLNET_BENCH;
using asio::ip::tcp;

int main(int argc, char** argv) {
    ServerOptions opt = ParseServerOptions(argc, argv, "bench_server_asio");
    RaiseFdLimit();
    asio::io_context io(1);
    auto plain = [](tcp::socket socket) { return socket; };
    asio_echo::CServer<tcp::socket, decltype(plain)> server(io, opt, plain);
    asio_echo::RunUntilSignalled(io);
    return 0;
}
