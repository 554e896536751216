#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <iomanip>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>

#include <wxblt/socket.hpp>

#include "support/raw_peer.hpp"
#include "support/reserved_port.hpp"
#include "support/socket_input.hpp"

// Small helpers shared by the socket-layer tests. They reach the sockets under
// test only through their public handle, with libzmq's own poll, so that a
// broken socket layer cannot hide its own faults.
namespace wxblttest {

using namespace std::chrono_literals;

// Long enough for anything on loopback, short enough that a broken build
// fails quickly instead of hanging.
constexpr std::chrono::milliseconds arrival_timeout = 5s;

using testsupport::waitForInput;

// The next frame, or nothing when none arrived in time.
inline std::optional<std::string> receiveFrame(
    wxblt::Socket& socket, std::chrono::milliseconds timeout = arrival_timeout) {
    return testsupport::receiveFrame(socket, timeout);
}

// Runs `call` on a thread of its own and waits at most `timeout` for its
// result: a call that blocks for ever fails the test instead of hanging it.
// Whatever the call uses must be owned by it (through shared pointers), since a
// call left behind outlives the test. An exception of the call is rethrown.
template <typename Result>
std::optional<Result> callWithin(std::chrono::milliseconds timeout, std::function<Result()> call) {
    auto done = std::make_shared<std::promise<Result>>();
    std::future<Result> result = done->get_future();
    std::thread([done, call = std::move(call)] {
        try {
            done->set_value(call());
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    }).detach();
    if (result.wait_for(timeout) != std::future_status::ready) {
        return std::nullopt;
    }
    return result.get();
}

// The kernel's id of the calling thread, for waitUntilAsleep().
inline pid_t currentThreadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

// Waits at most `timeout` until thread `tid` of this process is asleep in the
// kernel, as a thread blocked in a poll or a receive is. No event tells that a
// thread has reached its blocking call, so this looks at its state.
inline bool waitUntilAsleep(pid_t tid, std::chrono::milliseconds timeout) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream stat(path);
        std::string line;
        std::getline(stat, line);
        // The state follows the command name, which is in parentheses.
        const std::size_t close = line.rfind(')');
        if (close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S') {
            return true;
        }
        std::this_thread::sleep_for(1ms);
    }
    return false;
}

// The port of an endpoint such as "tcp://127.0.0.1:41234".
inline int portOf(const std::string& endpoint) {
    return std::stoi(endpoint.substr(endpoint.rfind(':') + 1));
}

using testsupport::ReservedPort;

}  // namespace wxblttest

namespace testsupport {

// Lets a failed comparison show the frames it was about.
inline void PrintTo(const Frame& frame, std::ostream* out) {
    *out << "{" << std::quoted(frame.bytes) << (frame.more ? ", more}" : ", last}");
}

}  // namespace testsupport
