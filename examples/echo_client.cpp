// echo_client: opens N connections to an echo server, sends packets of the given sizes,
// verifies every echo byte for byte and prints a summary and the statistics table.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "echo_common.h"
#include "echo_tls.h"

namespace {

void Usage(FILE* out) {
    fprintf(
        out,
        "usage: echo_client [--url URL] [--conns N] [--packets N] [--sizes A,B,...] [--depth N]\n"
        "                   [--duration SECONDS] [--no-progress] [--tls [--tls-ca FILE] [--tls-name NAME]\n"
        "                   [--tls-insecure] [--tls-alpn LIST] [--tls-cert FILE --tls-key FILE]]\n"
        "  --url URL           server to dial (default tcp://127.0.0.1:7000)\n"
        "  --conns N           connections (default 4)\n"
        "  --packets N         packets per connection (default 1000; 0 with --duration: unlimited)\n"
        "  --sizes A,B,...     payload sizes in bytes, used in turn (default 1,100,1000,65536,200000);\n"
        "                      sizes above 65536 span several blocks, up to 4194300 (a 4 MiB packet,\n"
        "                      the longest a manager takes by default, echo_server's too)\n"
        "  --depth N           packets in flight per connection (default 4)\n"
        "  --duration SECONDS  stop sending after this long (default: no limit)\n"
        "  --no-progress       no progress line even on a terminal\n"
        "TLS (the server runs echo_server --tls-cert FILE --tls-key FILE; any --tls-* flag implies --tls):\n"
        "  --tls               speak TLS; prints what the first connection negotiated\n"
        "  --tls-ca FILE       CA certificates (PEM) to verify the server with (default: the system's)\n"
        "  --tls-name NAME     the name to check the server's certificate against and send as SNI\n"
        "                      (default: the URL's host; an IP address is checked as one)\n"
        "  --tls-insecure      FOR TESTING ONLY: do not verify the server's certificate or name\n"
        "  --tls-alpn LIST     application protocols to offer, comma-separated (e.g. echo)\n"
        "  --tls-cert FILE     a client certificate (PEM) for servers that ask for one, with\n"
        "  --tls-key FILE      its private key (PEM)\n"
        "Exit status: 0 when every echo matched, 1 on errors, 2 on bad arguments.\n");
}

// The port of a tcp:// URL that echo::RequireURL accepted. Port 0 is a listener's request
// for a free port: there is nothing to dial there.
int URLPort(const char* url) {
    struct sockaddr_storage addr;
    socklen_t len = 0;
    std::string why;
    if (QUOLNET::CTcpListener::ParseURL(url, &addr, &len, &why) != 0) {
        return -1;
    }
    const in_port_t port = addr.ss_family == AF_INET6
                               ? reinterpret_cast<const sockaddr_in6*>(&addr)->sin6_port
                               : reinterpret_cast<const sockaddr_in*>(&addr)->sin_port;
    return ntohs(port);
}

// The field of `tls` that the TLS flag `flag` takes a value for; null for any other flag.
std::string* TlsValue(echo::TlsFlags* tls, const char* flag) {
    const struct {
        const char* name;
        std::string* field;
    } values[] = {{"--tls-ca", &tls->ca},
                  {"--tls-name", &tls->name},
                  {"--tls-alpn", &tls->alpn},
                  {"--tls-cert", &tls->cert},
                  {"--tls-key", &tls->key}};
    for (const auto& f : values) {
        if (strcmp(flag, f.name) == 0) {
            return f.field;
        }
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    echo::ClientConfig cfg;
    cfg.url = "tcp://127.0.0.1:7000";
    // The client's manager runs with the default options, so no longer packet comes back.
    cfg.max_packet = QUOLNET::ConnectorMgrOptions::kDefaultMaxPacketLen;
    bool progress = true;
    echo::TlsFlags tls;
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        long long n = 0;
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            Usage(stdout);
            return 0;
        } else if (strcmp(a, "--url") == 0 && v != nullptr) {
            cfg.url = v;
            ++i;
        } else if (strcmp(a, "--conns") == 0 && v != nullptr && echo::ParseCount(v, 10000, &n) && n > 0) {
            cfg.conns = static_cast<int>(n);
            ++i;
        } else if (strcmp(a, "--packets") == 0 && v != nullptr && echo::ParseCount(v, 1LL << 40, &n)) {
            cfg.packets = n;
            ++i;
        } else if (strcmp(a, "--sizes") == 0 && v != nullptr &&
                   echo::ParseSizes(v, cfg.max_packet - 4, &cfg.sizes)) {
            ++i;
        } else if (strcmp(a, "--depth") == 0 && v != nullptr && echo::ParseCount(v, 1000, &n) && n > 0) {
            cfg.depth = static_cast<int>(n);
            ++i;
        } else if (strcmp(a, "--duration") == 0 && v != nullptr && echo::ParseCount(v, 86400, &n) && n > 0) {
            cfg.duration_sec = static_cast<double>(n);
            ++i;
        } else if (strcmp(a, "--no-progress") == 0) {
            progress = false;
        } else if (strcmp(a, "--tls") == 0) {
            tls.enabled = true;
        } else if (strcmp(a, "--tls-insecure") == 0) {
            tls.enabled = tls.insecure = true;
        } else if (TlsValue(&tls, a) != nullptr && v != nullptr && *v != '\0') {
            *TlsValue(&tls, a) = v;
            tls.enabled = true;
            ++i;
        } else {
            fprintf(stderr, "echo_client: bad argument '%s'\n", a);
            Usage(stderr);
            return 2;
        }
    }
    if (cfg.packets == 0 && cfg.duration_sec <= 0) {
        fprintf(stderr, "echo_client: --packets 0 needs --duration\n");
        return 2;
    }
    echo::RequireURL("echo_client", cfg.url.c_str());
    if (URLPort(cfg.url.c_str()) == 0) {
        fprintf(stderr, "echo_client: invalid URL '%s': port 0 cannot be dialled (give the server's port)\n",
                cfg.url.c_str());
        return 2;
    }
    cfg.progress = progress && isatty(STDOUT_FILENO);
    if (tls.enabled) {
        if (tls.cert.empty() != tls.key.empty()) {
            fprintf(stderr, "echo_client: --tls-cert and --tls-key go together\n");
            return 2;
        }
        std::string error;
        cfg.stream = echo::MakeTlsClient(tls, &error);
        if (cfg.stream == nullptr) {
            fprintf(stderr, "echo_client: TLS: %s\n", error.c_str());
            return 2;
        }
        cfg.describe_as = "echo_client";
    }

    echo::EchoClient client(cfg);
    QUOLNET::CConnectorMgr mgr(&client);
    if (mgr.Init() != 0) {
        fprintf(stderr, "echo_client: cannot set up the event loop\n");
        return 1;
    }
    echo::StopOnSignals(&mgr);
    if (!client.Start(&mgr)) {
        fprintf(stderr, "echo_client: cannot dial %s\n", cfg.url.c_str());
        return 1;
    }
    mgr.Run();
    echo::ClientSummary s = client.Summary();
    echo::EchoClient::PrintSummary(s, stdout);
    mgr.PrintStats(stdout);
    bool ok = client.Finished() && s.errors == 0 && s.packets > 0;
    return ok ? 0 : 1;
}
