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
    Ticket(std::shared_ptr<QueueAccount> account, std::size_t cost,
           std::shared_ptr<const void> owner)
        : account(std::move(account)), cost(cost), owner(std::move(owner)) {
        zmq_msg_init(&received);
    }
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket() { zmq_msg_close(&received); }

    std::shared_ptr<QueueAccount> account;
    std::size_t cost;
    std::shared_ptr<const void> owner;
    // A received frame whose bytes the counted frame passes on; empty when
    // the bytes belong to `owner`. Frames are refcounted with atomics, so
    // closing it on libzmq's thread is safe.
    zmq_msg_t received;
};

// The same as sending the frame, retried when a signal interrupts it.
int sendFrame(void* socket, zmq_msg_t* frame, int flags) {
    int sent;
    do {
        sent = zmq_msg_send(frame, socket, flags);
    } while (sent < 0 && zmq_errno() == EINTR);
    return sent;
}

// Sends a copy of `frame`, which stays the caller's.
int sendCopy(void* socket, zmq_msg_t* frame, int flags) {
    zmq_msg_t copy;
    zmq_msg_init(&copy);
    if (zmq_msg_copy(&copy, frame) != 0) {
        return -1;
    }
    const int sent = sendFrame(socket, &copy, flags);
    if (sent < 0) {
        const int error = zmq_errno();
        zmq_msg_close(&copy);
        errno = error;
    }
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

// Hands the bytes at `data` to libzmq with the ticket that counts them.
void initCounted(zmq_msg_t* message, std::unique_ptr<Ticket> ticket, const char* data,
                 std::size_t size) {
    static const char kNoBytes = 0;
    // Counted before libzmq can release it, from a thread of its own.
    ticket->account->charge(ticket->cost);
    if (zmq_msg_init_data(message,
                          data != nullptr ? const_cast<char*>(data) : const_cast<char*>(&kNoBytes),
                          size, releaseTicket, ticket.get()) != 0) {
        ticket->account->release(ticket->cost);
        throw std::bad_alloc();
    }
    ticket.release();
}

}  // namespace

CountedFrame::CountedFrame(std::shared_ptr<QueueAccount> account, std::size_t cost,
                           std::shared_ptr<const void> owner, const char* data, std::size_t size) {
    initCounted(&_message, std::make_unique<Ticket>(std::move(account), cost, std::move(owner)),
                data, size);
}

CountedFrame::CountedFrame(std::shared_ptr<QueueAccount> account, std::size_t cost,
                           zmq_msg_t* received) {
    auto ticket = std::make_unique<Ticket>(std::move(account), cost, nullptr);
    zmq_msg_move(&ticket->received, received);
    // A small frame keeps its bytes inside its zmq_msg_t, which now lives in
    // the ticket until libzmq lets go of the counted frame.
    const char* const data = static_cast<const char*>(zmq_msg_data(&ticket->received));
    const std::size_t size = zmq_msg_size(&ticket->received);
    initCounted(&_message, std::move(ticket), data, size);
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
    if (sendCopy(socket, last.message(), ZMQ_DONTWAIT) < 0) {
        throw wxblt::Exception(zmq_errno());
    }
    return SendOutcome::Sent;
}

SendOutcome sendWithoutWaiting(void* socket, std::string_view first,
                               const std::vector<zmq_msg_t*>& rest, Frames how,
                               CountedFrame& last) {
    const int more = ZMQ_DONTWAIT | ZMQ_SNDMORE;
    if (sendFrame(socket, first, more) < 0) {
        const int error = zmq_errno();
        // As above: refused whole at its first frame, or not at all.
        if (error == EAGAIN) {
            return SendOutcome::Full;
        }
        if (error == EHOSTUNREACH) {
            return SendOutcome::Unreachable;
        }
        throw wxblt::Exception(error);
    }
    for (zmq_msg_t* const frame : rest) {
        const int sent =
            how == Frames::Copied ? sendCopy(socket, frame, more) : sendFrame(socket, frame, more);
        if (sent < 0) {
            throw wxblt::Exception(zmq_errno());
        }
    }
    if (sendCopy(socket, last.message(), ZMQ_DONTWAIT) < 0) {
        throw wxblt::Exception(zmq_errno());
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
