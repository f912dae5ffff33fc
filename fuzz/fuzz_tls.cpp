// fuzz_tls: the receive path of a TLS connection. A CTcpConnector with a server TLS session
// (quolnet::tls) reads from one end of a loopback TCP pair; the input decides what the other
// end sends:
//   byte 0 bit 0 clear: raw bytes in place of a ClientHello (garbage handshakes): the
//           connector must end the connection or keep waiting, never crash, leak or connect;
//   byte 0 bit 0 set: a real client completes the handshake, then sends the rest of the
//           input as application data, in TLS records of the sizes the input gives; the
//           connector decrypts and frames it with the length-prefix parser: the packets
//           delivered are the stream's packets in order (a prefix of them). With bit 1 set,
//           the last piece goes out raw instead of encrypted: a corrupt record, which must
//           end the connection.
//   then pieces: a byte L and L bytes (L >= 0xf0: (L - 0xef) * 4 KiB of the next byte).
// After Fini every pool block is back.
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "net/length_parser.h"
#include "net/net_buffer_mgr.h"
#include "net/tcp_connector.h"
#include "test_certs.h"
#include "tls/tls_context.h"

using namespace QUOLNET;
using qnfuzz::Check;

namespace {

const int kCombineLen = (256 << 10) + 64;
const unsigned int kMaxPacketLen = 200u << 10;
const size_t kMaxStreamBytes = 256u << 10;

struct Contexts {
    std::shared_ptr<CTlsContext> server;
    std::shared_ptr<CTlsContext> client;
    Contexts() {
        qntest::Pem ca = qntest::MakeCa("fuzz CA");
        qntest::Pem leaf = qntest::MakeLeaf(ca, "localhost", {"127.0.0.1"});
        TlsOptions s;
        s.cert_pem = leaf.cert;
        s.key_pem = leaf.key;
        s.session_tickets = false;
        std::string error;
        server = CTlsContext::CreateServer(s, &error);
        TlsOptions c;
        c.verify_peer = false;
        c.session_tickets = false;
        client = CTlsContext::CreateClient(c, &error);
        Check(server != nullptr && client != nullptr, "TLS contexts");
    }
};

Contexts& Tls() {
    static Contexts contexts;
    return contexts;
}

struct Run {
    std::vector<std::string> reference;
    size_t delivered = 0;
    bool skipped = false;
};

void Drain(CTcpConnector& conn, Run* run) {
    for (;;) {
        const char* buf = nullptr;
        unsigned int len = 0;
        int r = conn.Peek(&buf, len, nullptr);
        if (r == 0 && buf == nullptr) {
            return;
        }
        if (r == 0 && !run->skipped) {
            Check(run->delivered < run->reference.size(), "no packet beyond the stream's");
            const std::string& want = run->reference[run->delivered];
            Check(want.size() == len && std::memcmp(want.data(), buf, len) == 0,
                  "packets intact and in order");
        } else if (r != 0) {
            run->skipped = true;
        }
        ++run->delivered;
        Check(conn.Drop() == 0, "Drop after a Peek that found a packet");
    }
}

void Tick(CTcpConnector& conn, Run* run) {
    if (conn.GetStatus() == 0) {
        return;
    }
    struct pollfd p = {conn.GetSocket(), POLLIN | POLLOUT, 0};
    if (poll(&p, 1, 0) == 1) {
        conn.SetEvent(static_cast<unsigned int>(p.revents & (POLLIN | POLLOUT | POLLERR | POLLHUP)));
    }
    conn.Update();
    Drain(conn, run);
}

// Drives the client's handshake and the connector's until both are done (or one failed).
bool Handshake(IStreamIo& client, CTcpConnector& conn, Run* run) {
    bool client_done = false;
    for (int round = 0; round < 200; ++round) {
        if (!client_done) {
            int r = client.Handshake();
            if (r == 0) {
                client_done = true;
            } else if (r == IStreamIo::kFailed) {
                return false;
            }
        }
        Tick(conn, run);
        if (client_done && conn.GetStatus() == CONNECTOR_STATUS_CONNECTED) {
            return true;
        }
        if (conn.GetStatus() == 0) {
            return false;
        }
        struct pollfd p = {conn.GetSocket(), POLLIN, 0};
        poll(&p, 1, 1);
    }
    return false;
}

// Encrypts `bytes` through the client session, ticking the connector while the socket is full.
void WriteAll(IStreamIo& client, CTcpConnector& conn, Run* run, const std::string& bytes) {
    size_t off = 0;
    int stalls = 0;
    while (off < bytes.size() && conn.GetStatus() != 0 && stalls < 16) {
        int n = client.Write(bytes.data() + off, static_cast<int>(bytes.size() - off));
        if (n > 0) {
            off += static_cast<size_t>(n);
            stalls = 0;
        } else if (n == IStreamIo::kFailed) {
            return;
        } else {
            ++stalls;
        }
        Tick(conn, run);
    }
}

void RunOnce(const uint8_t* data, size_t size) {
    qnfuzz::Reader in(data, size);
    uint8_t options = in.Byte();
    bool handshake = (options & 1) != 0;
    bool corrupt_last = (options & 2) != 0;
    std::vector<std::string> pieces;
    std::string stream;
    while (!in.empty() && stream.size() < kMaxStreamBytes) {
        uint8_t l = in.Byte();
        std::string piece =
            l < 0xf0 ? in.Bytes(l) : std::string((l - 0xefu) * 4096u, static_cast<char>(in.Byte()));
        stream += piece;
        pieces.push_back(std::move(piece));
    }
    Run run;
    if (handshake) {
        std::string encrypted = stream;
        if (corrupt_last && !pieces.empty()) {
            encrypted.resize(stream.size() - pieces.back().size());
        }
        run.reference = qnfuzz::ReferencePackets(encrypted, kMaxPacketLen);
    }

    CLengthPrefixParser length(kMaxPacketLen);
    CNetBufferMgr pool(8, -1, 128 << 10);
    std::vector<char> combine(kCombineLen);
    std::vector<char> cb_combine(kCombineLen);
    char last_err[256] = {0};
    int epoll = epoll_create1(EPOLL_CLOEXEC);
    int client_fd = -1;
    int server_fd = -1;
    Check(epoll >= 0 && qnfuzz::TcpPair(&client_fd, &server_fd), "loopback pair");
    fcntl(client_fd, F_SETFL, fcntl(client_fd, F_GETFL) | O_NONBLOCK);  // the client session never blocks
    fcntl(server_fd, F_SETFL, fcntl(server_fd, F_GETFL) | O_NONBLOCK);
    {
        std::unique_ptr<CTcpConnector> conn(new CTcpConnector(combine.data(), kCombineLen, cb_combine.data(),
                                                              kCombineLen, last_err, &pool, 4, 8, nullptr,
                                                              &run));
        conn->SetStreamIo(Tls().server->Create(true, std::string()));
        Check(conn->Init("tcp://127.0.0.1:9", &length, epoll, server_fd) == 0,
              "Init with an accepted socket");
        Check(conn->IsHandshaking(), "a TLS connection starts with its handshake");
        if (!handshake) {
            for (const std::string& piece : pieces) {
                if (conn->GetStatus() == 0) {
                    break;
                }
                send(client_fd, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
                Tick(*conn, &run);
            }
            for (int round = 0; round < 4; ++round) {
                Tick(*conn, &run);
            }
            Check(conn->GetStatus() != CONNECTOR_STATUS_CONNECTED, "garbage never completes a handshake");
        } else {
            std::unique_ptr<IStreamIo> client = Tls().client->Create(false, "localhost");
            Check(client != nullptr && client->Attach(client_fd) == 0, "client session");
            if (Handshake(*client, *conn, &run)) {
                for (size_t i = 0; i < pieces.size() && conn->GetStatus() != 0; ++i) {
                    if (corrupt_last && i + 1 == pieces.size()) {
                        send(client_fd, pieces[i].data(), pieces[i].size(), MSG_DONTWAIT | MSG_NOSIGNAL);
                    } else {
                        WriteAll(*client, *conn, &run, pieces[i]);
                    }
                }
                if (!corrupt_last) {
                    client->ShutdownWrite();  // close_notify: a clean end after the data
                }
                for (int round = 0; round < 16 && conn->GetStatus() != 0; ++round) {
                    Tick(*conn, &run);
                    struct pollfd p = {conn->GetSocket(), POLLIN, 0};
                    poll(&p, 1, 1);
                }
                if (!run.skipped) {
                    Check(run.delivered <= run.reference.size(), "no more packets than were encrypted");
                }
            }
        }
        close(client_fd);
        conn->Fini();
        Check(pool.GetUsedCount() == 0, "every pool block is back after Fini");
    }
    close(epoll);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RunOnce(data, size);
    return 0;
}
