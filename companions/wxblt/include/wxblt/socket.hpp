#pragma once

#include <chrono>
#include <string>

#include <wxblt/frame.hpp>

namespace wxblt {

/// ZeroMQ's socket types, with ZeroMQ's values.
enum class SocketType : int {
    Pair = 0,    ///< ZMQ_PAIR
    Pub = 1,     ///< ZMQ_PUB
    Sub = 2,     ///< ZMQ_SUB
    Req = 3,     ///< ZMQ_REQ
    Rep = 4,     ///< ZMQ_REP
    Dealer = 5,  ///< ZMQ_DEALER
    Router = 6   ///< ZMQ_ROUTER
};

/// One ZeroMQ socket of the process-wide context. Every failure throws
/// wxblt::Exception (ZmqTermination once the context is shut down).
///
/// Sending never waits for long and never queues for a peer that is not there:
/// a frame that cannot be handed to a connected peer within 500 ms fails with
/// EAGAIN (11). The first 500 ms after connect() are thus enough for a
/// connection to a running peer to be set up before it is reported missing.
/// Frames still unsent when a socket is closed are kept for at most one second
/// and never hold up the process's exit.
class Socket {
public:
    /// A new socket of the given type in the process-wide context.
    explicit Socket(SocketType type);
    ///@{
    /// Takes over the other socket; `other` is left without one. Assignment
    /// closes the socket it replaces.
    Socket(Socket&& other) noexcept;
    Socket& operator=(Socket&& other) noexcept;
    ///@}
    /// Not copyable: a socket has one owner.
    Socket(const Socket&) = delete;
    /// Not copyable: a socket has one owner.
    Socket& operator=(const Socket&) = delete;
    /// Closes the socket.
    ~Socket();

    /// The type given at construction.
    SocketType type() const noexcept { return _type; }

    /// Routing identity presented to the peer; set it before connect().
    void setIdentity(const std::string& identity);
    /// Adds a subscription prefix (subscriber sockets only).
    void subscribe(std::string topic);
    /// Connects to an endpoint such as "tcp://localhost:5555".
    void connect(std::string endpoint);
    /// Reports this socket's connection events (ZeroMQ's ZMQ_EVENT_* bits in
    /// `events`) to a pair socket that connects to `endpoint` ("inproc://..."),
    /// each as a two-frame message: the event number (16 bits) and value (32
    /// bits) in the host's byte order, then the peer's address.
    void monitor(const std::string& endpoint, int events);
    /// Stops the reports that monitor() started. Call it before the pair
    /// socket that reads them is closed: with no reader, ZeroMQ's next report
    /// would wait for one for ever.
    void stopMonitor() noexcept;
    /// True when a message could be sent without waiting; for a dealer with
    /// immediate sending (as this layer sets it), whether a connection is up.
    bool canSend() const;
    /// Binds to an endpoint such as "tcp://127.0.0.1:0" (port 0: a free one).
    void bind(const std::string& endpoint);
    /// The endpoint actually bound last, with the port the system chose for a
    /// bind to port 0, for example "tcp://127.0.0.1:41234".
    std::string lastEndpoint() const;

    ///@{
    /// Queues one frame of the current outgoing message; more=false ends the
    /// message. The bytes are copied before the call returns.
    void send(const char* data, unsigned size, bool more);
    void send(const std::string& frame, bool more);
    ///@}

    /// Receives the next frame into buffer, blocking until one is there. Writes
    /// at most size bytes and returns the frame's real length, which is larger
    /// than size when the frame did not fit.
    unsigned recv(char* buffer, unsigned size);
    /// Receives the next frame whole, blocking until one is there, so that its
    /// length can be checked before it is copied anywhere.
    Frame recvFrame();
    /// True when the message being read has another frame after the last one
    /// received.
    bool checkMore() const;
    /// Drops the rest of the message being read, so that the next recv() reads
    /// the first frame of the next message.
    void flushMessage();

    ///@{
    /// Queue limits in messages (0: none). ZeroMQ's default is 1000 each way;
    /// beyond it a sending socket waits (and then fails with EAGAIN), a ROUTER
    /// or PUB drops. Set them before bind() or connect().
    void setSendHighWaterMark(int messages);
    void setReceiveHighWaterMark(int messages);
    ///@}
    /// How long a send may wait for queue space or a peer before it fails with
    /// EAGAIN (500 ms unless set); a negative value waits as long as it takes,
    /// 0 never waits.
    void setSendTimeout(std::chrono::milliseconds timeout);
    /// ROUTER only: a send to an unknown peer fails with EHOSTUNREACH instead
    /// of being dropped silently.
    void setRouterMandatory(bool mandatory);

    /// True when a frame can be received without blocking.
    bool hasInput() const;

    /// Lets this socket receive the first frame of the next message ahead,
    /// without waiting, when inputWaiting() is asked; recv(), recvFrame(),
    /// checkMore() and flushMessage() then find it there. For a socket read
    /// only through those calls, never through handle(), which does not see a
    /// frame received ahead. Off unless set.
    void setReadAhead(bool enabled) noexcept;
    /// True when a frame can be received without blocking. With read-ahead
    /// set, and the message being read complete, it receives the next frame
    /// ahead: no system call while frames are waiting. Without, it asks the
    /// socket's events, which costs a system call or two each time.
    bool inputWaiting();
    /// True while a frame received ahead waits to be read; a poll of handle()
    /// does not see it.
    bool hasFrameAhead() const noexcept { return _has_ahead; }

    /// The underlying ZeroMQ socket, for polling.
    void* handle() const noexcept { return _handle; }
    /// ZeroMQ's file descriptor of the socket (ZMQ_FD), for an event loop of
    /// another library. Edge-triggered: it becomes readable when the socket's
    /// state may have changed, and stays quiet after that until hasInput() or
    /// a poll of handle() has been asked; so read until hasInput() says no
    /// more before waiting on it again. Owned by the socket.
    int descriptor() const;

private:
    void close() noexcept;

    void* _handle;
    SocketType _type;
    bool _read_ahead = false;
    bool _has_ahead = false;
    Frame _ahead;
};

}  // namespace wxblt
