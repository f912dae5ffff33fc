// IPackParser and RecvPkgCallback: what the application tells a connector about its packets.
#pragma once

#include "../common/export.h"

namespace QUOLNET {

// Finds packet boundaries in a byte stream. Implementations must be safe to call from the
// thread that updates the connector; the connector never owns or deletes its parser.
class QUOLNET_EXPORT IPackParser {
  public:
    virtual ~IPackParser() {}

    // Given the first `len` received bytes of a packet, returns the packet's total length in
    // bytes (header included) when the bytes suffice to know it, 0 when more bytes are
    // needed, and a negative value when the bytes cannot start a valid packet.
    virtual int ParsePackLength(const char* buf, unsigned int len) = 0;
};

// Receives one whole packet: the connector's URL, the packet's first byte, its length and
// the argument given at construction. `data` is valid only during the call. Return nonzero
// when the packet has been consumed (the connector frees it), 0 to have it queued for Peek.
// Runs on the thread that updates the connector, with no connector lock held.
typedef int (*RecvPkgCallback)(const char* url, const char* data, int len, void* arg);

}  // namespace QUOLNET
