// The listener's pollset, and a socket's way out of it.
//
// An accepted socket has a pool of its own. Closing takes it out of the pollset, closes it and puts the pool
// aside until the poll round ends: an event of this round that names the socket can still be told apart
// (vxSocketClosed) and is skipped.
//
//     accept -> addSocketInEpoll -> ... -> cleanAndRemoveSocket -> (end of the round) vxEndPollRound
//
// Limits    kPollsetSize entries, the listening socket included.
// Errors    addSocketInEpoll() answers false when there is no room; the caller closes the socket.
// Threads   The listener alone.
#pragma once

#include <apr_network_io.h>

#include "commonlibc/context/vx_application.h"

namespace vx {

// Client data of an accepted socket that has not said who it is (compared by address).
extern epollPtr_t vxUnidentified;

// Makes the pollset in the listener's pool. The APR status.
int vxMakePollset();
bool addSocketInEpoll(apr_socket_t* socket, epollPtr_t* address);
void vxRemoveFromPoll(apr_socket_t* socket);
// Closes what the slot holds and zeroes it; an empty slot is passed over.
void cleanAndRemoveSocket(apr_socket_t*& slot, bool removeFromPoll);
// The same for a handle that other threads may shut down. No thread sends on it any more.
void cleanAndRemoveSocket(VXSharedSocket& slot, bool removeFromPoll);
bool vxSocketClosed(apr_socket_t* socket);
// Destroys the pools of the sockets that were closed in this round.
void vxEndPollRound();

// True when a connection, a socket of the pollset or a WebSocket, has been closed; this is how one that was
// closed while its lines were handled is told apart.
bool vxConnectionClosed(apr_socket_t* socket, const VXAgentWs* wsi);

// Address of a connection's peer for trace lines, looked up when it is first asked for.
class VXPeer {
public:
    explicit VXPeer(apr_socket_t* socket, const VXAgentWs* wsi = nullptr) : socket_(socket), wsi_(wsi) {}
    const char* ip() const;
    int port() const;

private:
    void look() const;

    apr_socket_t* socket_;
    const VXAgentWs* wsi_;
    mutable char ip_[64] = "";
    mutable int port_ = -1;
};

}  // namespace vx
