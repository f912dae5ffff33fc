// Helpers for tests that need real sockets over loopback and a real epoll instance.
#pragma once

#include <chrono>
#include <string>
#include <thread>

namespace qntest {

// Number of open descriptors of this process (entries of /proc/self/fd).
int CountOpenFds();
// Whether fd is an open descriptor of this process.
bool FdOpen(int fd);

// A listening TCP socket on 127.0.0.1 (or ::1 when ipv6) with an ephemeral port. Closes on
// destruction.
class Listener {
  public:
    explicit Listener(bool ipv6 = false, int backlog = 128);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int fd() const { return m_fd; }
    int port() const { return m_port; }
    // "tcp://127.0.0.1:<port>" or "tcp://[::1]:<port>".
    std::string url() const;
    // Blocking accept with a 10-second limit; returns the descriptor (non-blocking unless
    // blocking is true) or -1.
    int Accept(bool blocking = false);
    // Stops listening now.
    void Close();

  private:
    bool m_ipv6;
    int m_fd;
    int m_port;
};

// A loopback port on which nothing listens (bound then closed).
int UnusedPort(bool ipv6 = false);

// Dials the listener with a blocking socket; returns the connected descriptor or -1.
int DialBlocking(const Listener& l);

// A connected pair over loopback TCP: `client` dialled, `server` accepted; both non-blocking
// unless requested otherwise. Returns false on failure.
bool TcpPair(int* client, int* server, bool ipv6 = false, bool nonblocking = true);

// Sets SO_SNDBUF / SO_RCVBUF small for would-block tests.
void SetSmallBuffers(int fd, int sndbuf, int rcvbuf);

// Writes all of buf to a blocking or non-blocking descriptor (polling); true on success.
bool WriteAll(int fd, const void* buf, size_t len, int timeout_ms = 10000);
// Reads exactly len bytes (polling); true on success.
bool ReadExactly(int fd, void* buf, size_t len, int timeout_ms = 10000);
// Reads until end of stream, an error, or `timeout_ms` without a byte; returns what came.
// `*end`: 0 for a normal end of stream, else the errno (ETIMEDOUT when nothing came in time).
std::string ReadToEnd(int fd, int* end, int timeout_ms = 15000);

// Waits on epoll up to timeout_ms for one event; returns number of events (0 on timeout).
int WaitEpoll(int epfd, unsigned int* events, void** data, int timeout_ms);

// The event mask registered for fd in epfd, read back from /proc/self/fdinfo; -1 when fd is
// not registered.
long RegisteredEvents(int epfd, int fd);

// Waits until `done()` holds, yielding to the threads that do the work, for at most 20 s.
// Returns whether it holds: for states that other threads (loops, senders) bring about.
template <typename Done>
bool Eventually(Done done) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

}  // namespace qntest
