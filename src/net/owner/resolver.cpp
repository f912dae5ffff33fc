// CResolver: getaddrinfo on a worker thread.
#include "net/owner/resolver.h"

#include <netdb.h>
#include <string.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <system_error>

namespace QUOLNET {

struct CResolver::State {
    struct Request {
        std::string host;
        uint16_t port;
        Done done;
    };
    std::mutex mutex;  // guards everything below
    std::condition_variable wake;
    std::deque<Request> queue;
    bool stopped = false;
    bool started = false;  // the worker thread was started
    bool busy = false;     // the worker is inside a lookup
};

CResolver::CResolver() : m_state(std::make_shared<State>()) {}

CResolver::~CResolver() {
    Stop();
}

bool CResolver::Resolve(const std::string& host, uint16_t port, Done done) {
    std::lock_guard<std::mutex> lock(m_state->mutex);
    if (m_state->stopped) {
        return false;
    }
    if (!m_state->started) {
        try {
            m_thread = std::thread(&CResolver::Work, m_state);
        } catch (const std::system_error&) {
            return false;
        }
        m_state->started = true;
    }
    m_state->queue.push_back(State::Request{host, port, std::move(done)});
    m_state->wake.notify_one();
    return true;
}

void CResolver::Stop() {
    bool busy = false;
    {
        std::lock_guard<std::mutex> lock(m_state->mutex);
        if (m_state->stopped) {
            return;
        }
        m_state->stopped = true;
        m_state->queue.clear();
        busy = m_state->busy;
    }
    m_state->wake.notify_all();
    if (m_thread.joinable()) {
        if (busy) {
            m_thread.detach();  // it sees `stopped` after its lookup and ends; the state is shared
        } else {
            m_thread.join();
        }
    }
}

void CResolver::Lookup(const std::string& host, uint16_t port, ResolveResult* out) {
    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV;
    char service[8];
    snprintf(service, sizeof(service), "%u", static_cast<unsigned int>(port));
    struct addrinfo* list = nullptr;
    int ret = getaddrinfo(host.c_str(), service, &hints, &list);
    out->addrs.clear();
    if (ret != 0) {
        int err = errno;
        out->error = ret;
        out->message = gai_strerror(ret);
        if (ret == EAI_SYSTEM) {
            char text[128];
            out->message += ": ";
            out->message += strerror_r(err, text, sizeof(text));
        }
        return;
    }
    for (const struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
        if ((ai->ai_family != AF_INET && ai->ai_family != AF_INET6) || ai->ai_addr == nullptr ||
            ai->ai_addrlen > sizeof(struct sockaddr_storage)) {
            continue;
        }
        ResolvedAddr a;
        memset(&a, 0, sizeof(a));
        memcpy(&a.addr, ai->ai_addr, ai->ai_addrlen);
        a.len = ai->ai_addrlen;
        out->addrs.push_back(a);
    }
    freeaddrinfo(list);
    out->error = 0;
    if (out->addrs.empty()) {
        out->error = EAI_NONAME;
        out->message = "no IPv4 or IPv6 address";
    }
}

void CResolver::Work(std::shared_ptr<State> s) {
    std::unique_lock<std::mutex> lock(s->mutex);
    for (;;) {
        s->wake.wait(lock, [&s]() { return s->stopped || !s->queue.empty(); });
        if (s->stopped) {
            return;
        }
        State::Request req = std::move(s->queue.front());
        s->queue.pop_front();
        s->busy = true;
        lock.unlock();
        auto result = std::make_shared<ResolveResult>();
        Lookup(req.host, req.port, result.get());
        lock.lock();
        s->busy = false;
        if (s->stopped) {
            return;
        }
        req.done(result);
    }
}

}  // namespace QUOLNET
