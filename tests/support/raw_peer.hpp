#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

// One frame as it travelled: its bytes and its more flag.
struct Frame {
    std::string bytes;
    bool more;

    bool operator==(const Frame& other) const { return bytes == other.bytes && more == other.more; }
};

// "tcp://localhost:PORT", the form in which clients connect.
std::string localhostEndpoint(int port);

// A peer socket on libzmq's own API, with a context of its own: tests check
// the library's sockets against it, so it must not share their code.
class RawPeer {
public:
    explicit RawPeer(int zmqSocketType);
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;
    ~RawPeer();

    // Binds to a free loopback port and returns it.
    int bindLoopback();
    void connect(const std::string& endpoint);
    void setIntOption(int option, int value);
    void setBytesOption(int option, const std::string& value);

    void sendFrame(const std::string& bytes, bool more);
    // Sends the frames as one message: the more flag on all but the last.
    void sendMessage(const std::vector<std::string>& frames);

    // Waits at most `timeout` for input.
    bool waitForInput(std::chrono::milliseconds timeout);
    // The next whole message, or nothing when none came within `timeout`.
    std::optional<std::vector<Frame>> receiveMessage(std::chrono::milliseconds timeout);

    void* handle() const { return _handle; }

private:
    void* _handle;
};

}  // namespace testsupport
