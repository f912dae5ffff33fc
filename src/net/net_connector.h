// CConnector: the abstract base by which an owner holds every kind of connector alike.
//
// The base keeps the connector's identity (URL, index, owner's list nodes), its status and
// log category, and the process-wide kernel buffer sizes that dialled sockets receive.
// Derived classes implement the connection itself. The virtual operations are declared in
// a fixed order; derived-only operations are pure here.
#pragma once

#include <sys/time.h>

#include "../common/export.h"
#include "../common/relaxed.h"
#include "../log/log.h"
#include "bi_list.h"
#include "net_parser.h"

namespace QUOLNET {

enum {
    CONNECTOR_STATUS_DISCONNECTED = 0,
    CONNECTOR_STATUS_CONNECTING = 1,
    CONNECTOR_STATUS_CONNECTED = 2,
};

class QUOLNET_EXPORT CConnector {
  public:
    // `last_err` is an error-text buffer owned by the caller, kept for derived classes and
    // never written by the base; `cb` (may be null) and `cb_para` are the receive callback.
    CConnector(char* last_err, RecvPkgCallback cb, void* cb_para);
    virtual ~CConnector();
    CConnector(const CConnector&) = delete;
    CConnector& operator=(const CConnector&) = delete;

    // Copies `url` into m_url (zero-filling the rest). Returns 0, or -1 for a null URL or one
    // of 256 bytes or more (m_url is then unchanged).
    virtual int Init(const char* url, IPackParser* parser, int epoll, int socket);
    virtual void Fini();
    virtual void Update() = 0;
    virtual void SetEvent(unsigned int events) = 0;
    virtual unsigned int GetEvent() = 0;
    virtual void SetIdx(int idx) { m_idx = idx; }
    virtual LIST_NODE* GetNode() { return &m_node; }
    virtual LIST_NODE* GetAllocNode() { return &m_alloc_node; }
    virtual int ParseURL() = 0;
    virtual bool IsAccptedConnector() { return m_is_accepted; }
    virtual void SetLogCat(LogCategory* cat) { m_log_cat = cat; }
    virtual int GetSendQCount() = 0;
    virtual int GetRecvQCount() = 0;
    virtual int Connect() = 0;
    virtual void Disconnect(LogCategory* cat) = 0;
    virtual int Send(const char* buf, unsigned int len, LogCategory* cat) = 0;
    virtual bool IsSendBufEnough(unsigned int len) = 0;
    virtual int SendToQ(const char* buf, unsigned int len, LogCategory* cat) = 0;
    virtual int Peek(const char** buf, unsigned int& len, LogCategory* cat) = 0;
    virtual int Drop() = 0;
    virtual int GetSendBuffDataSize() { return 0; }
    virtual int GetRecvBuffDataSize() { return 0; }
    virtual int GetRecvBuffLeftRate() = 0;
    virtual int GetSendBuffLeftRate() = 0;
    virtual void GetIPAndPort(int& ip, int& port) = 0;
    virtual int GetStatus() const { return m_status; }
    // Milliseconds since m_send_buf_full_tv (0 when it is not set). The caller holds the
    // lock under which m_send_buf_full_tv is written.
    virtual int GetConstantSendBufFullMS();
    virtual int GetIdx() const { return m_idx; }
    virtual const char* GetURL() const { return m_url; }
    virtual bool IsIPv6() const { return m_bIPv6; }
    virtual const char* GetLocalURL() = 0;
    virtual int ParseURLV6() = 0;

    // Kernel buffer sizes (bytes) that Connect applies to every dialled socket. Process-wide;
    // set them before connectors dial. Defaults: 256 KiB each.
    static int m_socket_send_buff_size;
    static int m_socket_recv_buff_size;

  protected:
    LIST_NODE m_node;
    LIST_NODE m_alloc_node;
    int m_idx;
    Relaxed<int> m_status;  // read without a lock by sending threads
    char m_url[256];
    char* m_last_err;  // the caller's error-text buffer; never written by the base
    bool m_is_accepted;
    LogCategory* m_log_cat;
    bool m_bIPv6;
    struct timeval m_send_buf_full_tv;  // guarded by the derived class's send mutex
    RecvPkgCallback m_recv_callback;
    void* m_callback_arg;
};

}  // namespace QUOLNET
