#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

#include <wxblt/socket.hpp>

namespace wxblt {

/// Waits for input on a fixed set of sockets and hands each socket that has
/// some to its handler. The sockets are pointed at, not owned; they must
/// outlive the selector.
class InputSelector {
public:
    /// Called with the socket that has input.
    using Handler = std::function<void(Socket*)>;

    /// Watches the sockets of `entries`, each with its handler, in that order.
    /// One run calls each handler at most `maxCallsPerSocket` times (0 counts
    /// as 1); with more than one, a socket that still has input after its
    /// handler returned is handed to it again (see run()).
    explicit InputSelector(std::vector<std::pair<Socket*, Handler>> entries,
                           std::size_t maxCallsPerSocket = 1);
    ~InputSelector();

    /// Watches a file descriptor beside the sockets (an eventfd that another
    /// thread writes to wake the poll, say): when it is readable, run() calls
    /// `handler` once, after the sockets' handlers. The handler must read what
    /// made the descriptor readable, or every later run finds it so again. The
    /// descriptor is not owned; it must stay open while it is watched.
    void watchDescriptor(int descriptor, std::function<void()> handler);
    /// Watches one more socket, after those given at construction, as they
    /// are watched.
    void watchSocket(Socket* socket, Handler handler);

    /// Waits at most `timeout` for input on any socket; a negative timeout
    /// counts as zero (it looks for input without waiting), so that a loop of
    /// runs stays stoppable whatever it is given. Then calls the handler of
    /// every socket that has input, in the order given at construction. With
    /// a bound above one it goes on in rounds, in the same order: a socket
    /// that still has input after its handler returned is handed to it again,
    /// until it has none or its handler has run `maxCallsPerSocket` times in
    /// this run, so that one busy socket does not keep the others waiting.
    /// Each call is meant to read one request; a handler that leaves its input
    /// unread is called again for it. A watched descriptor that is readable
    /// has its handler called once. Returns true when it called a handler,
    /// false when the time passed without input. A handler's exception passes
    /// out unchanged and ends the run. Throws ZmqTermination once the context
    /// is shut down.
    ///
    /// Whether more input waits is asked with Socket::inputWaiting(): free
    /// while frames are waiting on a socket with read-ahead set, a system call
    /// or two otherwise. A frame that a socket received ahead counts as input:
    /// the run then does not wait.
    bool run(std::chrono::duration<long, std::milli> timeout);

private:
    std::vector<std::pair<Socket*, Handler>> _entries;
    std::vector<std::pair<int, std::function<void()>>> _descriptors;
    std::size_t _max_calls_per_socket;
};

}  // namespace wxblt
