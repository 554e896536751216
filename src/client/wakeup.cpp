#include "wakeup.hpp"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <orvikm/errors.hpp>

namespace orvikm::detail {

namespace {

[[noreturn]] void throwSystemError(const char* what) {
    throw Exception(std::string(what) + ": " + std::strerror(errno));
}

}  // namespace

Wakeup::Wakeup() : _event(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (_event < 0) {
        throwSystemError("Could not create the client's wake-up descriptor (eventfd)");
    }
}

Wakeup::~Wakeup() {
    if (_epoll >= 0) {
        ::close(_epoll);
    }
    ::close(_event);
}

void Wakeup::signal() noexcept {
    // The caller queued its work just before. Both sides exchange the flag:
    // either this exchange comes after the loop's in drain(), and the eventfd
    // is written, or it comes before, and the loop's exchange reads what this
    // one wrote and so sees the work queued before it.
    if (_signalled.exchange(true, std::memory_order_acq_rel)) {
        return;
    }
    const std::uint64_t one = 1;
    // Fails only when the counter would overflow, which one write per drain
    // never reaches.
    [[maybe_unused]] const ssize_t written = ::write(_event, &one, sizeof one);
}

void Wakeup::drain() noexcept {
    // Read first, then clear: a sender that came in between saw the flag
    // still set and did not write, and its work is taken by the caller next.
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = ::read(_event, &count, sizeof count);
    _signalled.exchange(false, std::memory_order_acq_rel);
}

void Wakeup::addToPoll(int descriptor) {
    if (_epoll < 0) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    if (::epoll_ctl(_epoll, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throwSystemError("Could not watch a socket of the client in its event handle (epoll_ctl)");
    }
}

int Wakeup::pollDescriptor(const int* sockets, int count) {
    if (_epoll >= 0) {
        return _epoll;
    }
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0) {
        throwSystemError("Could not create the client's event handle (epoll)");
    }
    _epoll = epoll;
    try {
        addToPoll(_event);
        for (int i = 0; i < count; ++i) {
            addToPoll(sockets[i]);
        }
    } catch (...) {
        ::close(_epoll);
        _epoll = -1;
        throw;
    }
    return _epoll;
}

}  // namespace orvikm::detail
