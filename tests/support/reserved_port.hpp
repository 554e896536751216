#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace testsupport {

// A loopback port that nothing listens on: a plain TCP socket is bound to it
// but never listens, so connections to it are refused and no other socket, of
// this process or another, can take it until release() or the object's end.
class ReservedPort {
public:
    ReservedPort() : _fd(::socket(AF_INET, SOCK_STREAM, 0)) {
        if (_fd < 0) {
            throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        socklen_t size = sizeof address;
        if (::bind(_fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            const int error = errno;
            ::close(_fd);
            throw std::runtime_error(std::string("cannot reserve a loopback port: ") +
                                     std::strerror(error));
        }
        _port = ntohs(address.sin_port);
    }
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;
    ~ReservedPort() { release(); }

    int port() const noexcept { return _port; }

    // Frees the port for a peer that is to bind to it.
    void release() noexcept {
        if (_fd >= 0) {
            ::close(_fd);
            _fd = -1;
        }
    }

private:
    int _fd;
    int _port = 0;
};

}  // namespace testsupport
