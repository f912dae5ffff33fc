// demo: an echo server and a verifying echo client in one process over loopback, each with
// its own CConnectorMgr on its own thread. Mixed packet sizes from 1 byte to 1 MiB for a few
// seconds, then a summary and both statistics tables. No set-up needed: with --tls both sides
// speak TLS, with a certificate made in memory at start-up.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <thread>

#include "echo_common.h"
#include "echo_tls.h"
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
#include "tls_selfsigned.h"
#endif

namespace {

void Usage(FILE* out) {
    fprintf(out,
            "usage: demo [--duration SECONDS] [--conns N] [--listen URL] [--tls]\n"
            "  --duration SECONDS  how long the client sends (default 3)\n"
            "  --conns N           client connections (default 8)\n"
            "  --listen URL        server address (default tcp://127.0.0.1:0, a free port)\n"
            "  --tls               over TLS: a CA and a server certificate for localhost and\n"
            "                      127.0.0.1 are made in memory at start-up, the client trusts the CA\n"
            "Runs an echo server and client over loopback, verifies every echoed byte and prints\n"
            "a summary and the statistics tables. Exit status 0 when every echo matched.\n");
}

}  // namespace

int main(int argc, char** argv) {
    long long duration = 3;
    long long conns = 8;
    const char* listen_url = "tcp://127.0.0.1:0";
    bool use_tls = false;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            Usage(stdout);
            return 0;
        } else if (strcmp(a, "--duration") == 0 && v != nullptr && echo::ParseCount(v, 3600, &duration) &&
                   duration > 0) {
            ++i;
        } else if (strcmp(a, "--conns") == 0 && v != nullptr && echo::ParseCount(v, 1000, &conns) &&
                   conns > 0) {
            ++i;
        } else if (strcmp(a, "--tls") == 0) {
            use_tls = true;
        } else if (strcmp(a, "--listen") == 0 && v != nullptr) {
            listen_url = v;
            ++i;
        } else {
            fprintf(stderr, "demo: bad argument '%s'\n", a);
            Usage(stderr);
            return 2;
        }
    }
    echo::RequireURL("demo", listen_url);
    echo::TlsFlags server_tls, client_tls;
    QUOLNET::SocketOptions listen_socket;
    std::shared_ptr<QUOLNET::IStreamIoFactory> client_stream;
    if (use_tls) {
        std::string error;
#if defined(QUOLNET_HAVE_TLS) && QUOLNET_HAVE_TLS
        echo::SelfSignedTls certs;
        if (!echo::MakeSelfSignedTls(&certs, &error)) {
            fprintf(stderr, "demo: %s\n", error.c_str());
            return 1;
        }
        server_tls.cert_pem = certs.server_cert;
        server_tls.key_pem = certs.server_key;
        client_tls.ca_pem = certs.ca_cert;
#endif
        listen_socket.stream = echo::MakeTlsServer(server_tls, &error);
        if (listen_socket.stream != nullptr) {
            client_stream = echo::MakeTlsClient(client_tls, &error);
        }
        if (client_stream == nullptr) {
            fprintf(stderr, "demo: TLS: %s\n", error.c_str());
            return 2;
        }
    }

    echo::EchoServerHandler server_handler;
    QUOLNET::CConnectorMgr server(&server_handler);
    if (server.Init() != 0) {
        fprintf(stderr, "demo: cannot set up the server loop\n");
        return 1;
    }
    if (server.Listen(listen_url, listen_socket) < 0) {
        fprintf(stderr, "demo: cannot listen on %s: %s\n", listen_url, strerror(errno));
        return 1;
    }
    std::string url = server.GetListenURL(0);

    echo::ClientConfig cfg;
    cfg.url = url;
    cfg.conns = static_cast<int>(conns);
    cfg.packets = 0;
    cfg.duration_sec = static_cast<double>(duration);
    cfg.sizes = {1, 17, 100, 512, 1400, 4096, 16384, 65532, 65533, 100000, 300000, 1048576};
    cfg.depth = 4;
    cfg.progress = isatty(STDOUT_FILENO) != 0;
    cfg.stream = client_stream;
    cfg.describe_as = use_tls ? "demo" : nullptr;
    echo::EchoClient client(cfg);
    QUOLNET::CConnectorMgr client_mgr(&client);
    if (client_mgr.Init() != 0) {
        fprintf(stderr, "demo: cannot set up the client loop\n");
        return 1;
    }
    echo::StopOnSignals(&client_mgr, &server);

    printf("demo: echo server on %s%s, %d client connections, %lld s, packet sizes 1 B .. 1 MiB\n",
           url.c_str(), use_tls ? " (TLS, certificate made at start-up)" : "", cfg.conns, duration);
    fflush(stdout);
    std::thread server_thread([&server]() { server.Run(); });
    client.Start(&client_mgr);
    client_mgr.Run();

    echo::ClientSummary s = client.Summary();
    echo::EchoClient::PrintSummary(s, stdout);
    printf("\nclient statistics\n");
    client_mgr.PrintStats(stdout);
    server.Stop();
    server_thread.join();
    printf("\nserver statistics\n");
    server.PrintStats(stdout);
    bool ok = client.Finished() && s.errors == 0 && s.packets > 0;
    return ok ? 0 : 1;
}
