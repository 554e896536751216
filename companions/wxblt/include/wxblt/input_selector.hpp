#pragma once

#include <chrono>
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
    explicit InputSelector(std::vector<std::pair<Socket*, Handler>> entries);
    ~InputSelector();

    /// Waits at most `timeout` for input on any socket; a negative timeout
    /// counts as zero (it looks for input without waiting), so that a loop of
    /// runs stays stoppable whatever it is given. Then calls the handler of
    /// every socket that has input, in the order given at construction, and
    /// returns true; returns false when the time passed without input. A
    /// handler's exception passes out unchanged. Throws ZmqTermination once the
    /// context is shut down.
    bool run(std::chrono::duration<long, std::milli> timeout);

private:
    std::vector<std::pair<Socket*, Handler>> _entries;
};

}  // namespace wxblt
