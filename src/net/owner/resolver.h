// CResolver: host-name lookups (getaddrinfo) on a worker thread of their own, so that the
// loop thread never blocks on a resolver.
//
// Threads: Resolve and Stop may be called from any thread (a manager calls them from its
// loop thread). The worker thread is started by the first Resolve; it runs each lookup in
// turn and hands the result to the request's `done`, on the worker thread, with the
// resolver's lock held, so `done` may not call the resolver (a manager's posts the result
// to its loop). After Stop returns no `done` is called any more. A lookup in progress
// cannot be interrupted: Stop leaves a busy worker to finish it on its own (detached; its
// result is dropped), so a slow lookup never holds up the owner's destruction.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace QUOLNET {

// One address of a lookup's result, as getaddrinfo gave it.
struct ResolvedAddr {
    struct sockaddr_storage addr;
    socklen_t len;
};

// The result of one lookup: the addresses in getaddrinfo's order (IPv6 and IPv4 mixed as it
// sorts them), or `error` (getaddrinfo's EAI_... code, nonzero) and `message` (its
// gai_strerror text, with strerror's for EAI_SYSTEM).
struct ResolveResult {
    int error = 0;
    std::string message;
    std::vector<ResolvedAddr> addrs;
};

class CResolver {
  public:
    typedef std::function<void(const std::shared_ptr<const ResolveResult>&)> Done;

    CResolver();
    // Stop.
    ~CResolver();
    CResolver(const CResolver&) = delete;
    CResolver& operator=(const CResolver&) = delete;

    // Queues a lookup of `host` for TCP port `port` (any address family). `done` is called
    // once with the result on the worker thread, unless Stop comes first. Returns false
    // (and never calls `done`) when stopped or when the worker thread cannot be started.
    // Any thread.
    bool Resolve(const std::string& host, uint16_t port, Done done);
    // Drops the lookups not yet started and ends the worker thread: joined when idle, left to
    // finish a lookup in progress otherwise. No `done` is called after it returns. Any
    // thread but the worker; a second call does nothing.
    void Stop();

    // The lookup itself, on the calling thread (blocking). Stream sockets, any family,
    // numeric service.
    static void Lookup(const std::string& host, uint16_t port, ResolveResult* out);

  private:
    struct State;
    static void Work(std::shared_ptr<State> state);

    std::shared_ptr<State> m_state;  // shared with the worker, which may outlive the resolver
    std::thread m_thread;            // started by the first Resolve (under the state's mutex)
};

}  // namespace QUOLNET
