#include "outgoing.hpp"

#include <cerrno>
#include <new>
#include <utility>

#include <wxblt/exception.hpp>

namespace orvikdev {

namespace {

// Travels with the counted frame through libzmq, which hands it back to
// releaseTicket from whichever thread drops the last copy.
struct Ticket {
    std::shared_ptr<QueueAccount> account;
    std::size_t cost;
    std::shared_ptr<const void> owner;
};

// The same as sending the frame, retried when a signal interrupts it.
int sendFrame(void* socket, zmq_msg_t* frame, int flags) {
    int sent;
    do {
        sent = zmq_msg_send(frame, socket, flags);
    } while (sent < 0 && zmq_errno() == EINTR);
    return sent;
}

int sendFrame(void* socket, std::string_view bytes, int flags) {
    int sent;
    do {
        sent = zmq_send(socket, bytes.data(), bytes.size(), flags);
    } while (sent < 0 && zmq_errno() == EINTR);
    return sent;
}

extern "C" void releaseTicket(void*, void* hint) {
    Ticket* const ticket = static_cast<Ticket*>(hint);
    ticket->account->release(ticket->cost);
    delete ticket;
}

}  // namespace

CountedFrame::CountedFrame(std::shared_ptr<QueueAccount> account, std::size_t cost,
                           std::shared_ptr<const void> owner, const char* data, std::size_t size) {
    static const char kNoBytes = 0;
    auto ticket = std::make_unique<Ticket>(Ticket{std::move(account), cost, std::move(owner)});
    // Counted before libzmq can release it, from a thread of its own.
    ticket->account->charge(cost);
    if (zmq_msg_init_data(&_message,
                          data != nullptr ? const_cast<char*>(data) : const_cast<char*>(&kNoBytes),
                          size, releaseTicket, ticket.get()) != 0) {
        ticket->account->release(cost);
        throw std::bad_alloc();
    }
    ticket.release();
}

CountedFrame::~CountedFrame() {
    zmq_msg_close(&_message);
}

SendOutcome sendWithoutWaiting(void* socket, const std::vector<std::string_view>& head,
                               CountedFrame& last) {
    const int more = ZMQ_DONTWAIT | ZMQ_SNDMORE;
    for (std::size_t i = 0; i < head.size(); ++i) {
        if (sendFrame(socket, head[i], more) >= 0) {
            continue;
        }
        const int error = zmq_errno();
        // A request is refused whole at its first frame: a queue limit counts
        // whole requests, so it never falls due in the middle of one.
        if (i == 0 && error == EAGAIN) {
            return SendOutcome::Full;
        }
        if (i == 0 && error == EHOSTUNREACH) {
            return SendOutcome::Unreachable;
        }
        throw wxblt::Exception(error);
    }
    zmq_msg_t copy;
    zmq_msg_init(&copy);
    if (zmq_msg_copy(&copy, last.message()) != 0 || sendFrame(socket, &copy, ZMQ_DONTWAIT) < 0) {
        const int error = zmq_errno();
        zmq_msg_close(&copy);
        throw wxblt::Exception(error);
    }
    return SendOutcome::Sent;
}

std::size_t queuedCost(const std::vector<std::string_view>& head, std::size_t lastSize) {
    std::size_t cost = (head.size() + 1) * kFrameCost + lastSize;
    for (const std::string_view frame : head) {
        cost += frame.size();
    }
    return cost;
}

}  // namespace orvikdev
