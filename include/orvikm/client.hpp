#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <vector>

#include <orvikm/control_requests.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>
#include <orvikm/receiver.hpp>
#include <orvikm/registry.hpp>
#include <orvikm/sender.hpp>
#include <orviku/exception.hpp>
#include <wxblt/input_selector.hpp>
#include <wxblt/socket.hpp>

namespace orvikm {

// The application's connection to the local Orvik Node: a listener (subscriber)
// on which the node publishes messages for the application, and a dispenser
// (dealer) on which the client writes everything it sends and receives the
// node's answers.
//
// The client starts no thread. `send` may be called from any thread: it only
// queues. The thread that calls blockThreadForIO becomes the I/O thread: it
// alone touches the sockets, writes what is queued, and runs every callback
// (message, registry, acknowledgement, error handler). terminate() from any
// thread ends that loop.
//
// A client must stay where it was constructed: it is neither copied nor moved.
class Client {
public:
    // The outgoing messages, most urgent (shortest validity) first. Messages of
    // equal validity leave in no particular order. Every operation holds the
    // queue's lock for its whole duration.
    class MessageQueue {
    public:
        MessageQueue();
        // Takes over other's messages without locking it; other is left empty.
        MessageQueue(MessageQueue&& other);

        // Moves the message in; the caller's object is left moved-from.
        void push(Message& message);
        // Calls operation with the top message, under the queue's lock, and
        // removes the message only when operation returns true. Returns false
        // without calling it when the queue is empty; otherwise returns what
        // operation returned. An operation's exception leaves the message on
        // top. The operation must not use this queue.
        bool performOperation(std::function<bool(const Message&)> operation);
        std::size_t size();

        // The queue's less-than: a is less urgent than b when it stays valid
        // longer.
        static bool determine_priority(const Message& a, const Message& b);

    private:
        using Queue = std::priority_queue<Message, std::deque<Message>,
                                          bool (*)(const Message&, const Message&)>;
        std::mutex mutex;
        Queue queue;
    };

    // The acknowledgement callbacks of sent messages, by message id. Each runs
    // once, on the first acknowledgement of its message, under the table's
    // lock: a callback must not send with a result callback through the same
    // client.
    class MsgResultCallbacks {
    public:
        MsgResultCallbacks();
        // Takes over other's entries without locking it; other is left empty.
        MsgResultCallbacks(MsgResultCallbacks&& other);

        // Stores callback under the message's id, replacing any earlier one.
        // An empty callback stores nothing.
        void registerCallback(Message& message, std::function<void()> callback);
        // Runs and then forgets the callback of the acknowledged message; an
        // unknown id is ignored. A callback that throws stays registered.
        void handleAck(internal_objects::Ack& ack);
        std::size_t size();

    private:
        std::mutex mutex;
        std::map<std::string, std::function<void()>> callbacks;
    };

    // The flag that ends the I/O loop. A copy is always a fresh, unset flag.
    class TerminationData {
    public:
        TerminationData();
        TerminationData(const TerminationData& other);
        // Leaves this object as it is.
        TerminationData& operator=(const TerminationData& other);

        // Sets the flag under its lock; may be called from any thread.
        void terminate();
        // The flag itself; callers hold termLock().
        bool& isTermed();
        std::mutex& termLock();

    private:
        bool _termed;
        std::mutex _term_lock;
    };

    // Creates both sockets with the identities appId + "|lstn" and
    // appId + "|disp", subscribes the listener to every topic given (none
    // means it receives nothing) and connects both to "tcp://localhost:PORT".
    // Sends nothing: a node that is not running is noticed at the first write.
    Client(std::string appId, int listenerPort, int dispenserPort,
           std::vector<std::string> subscriptions);
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    // Releases everything without sending; queued messages are lost. Must not
    // run while another thread is inside blockThreadForIO.
    virtual ~Client();

    const std::string& id() const { return _id; }
    TerminationData& termData() { return _term_data; }
    // Asks the I/O loop to return at the end of its current pass.
    void terminate();

    // Queue a message for the node; onAck (may be empty) runs on the I/O thread
    // when the node acknowledges it. Any thread; no I/O.
    void send(Message message, std::function<void()> onAck);
    // Takes the buffer over (it is released with delete[]).
    void send(char* buffer, unsigned int size, std::string payloadType,
              std::list<std::string> routes, std::chrono::seconds validFor,
              std::function<void()> onAck, Message::AckMode ackMode);
    void send(Payload payload, std::list<std::string> routes, std::chrono::seconds validFor,
              std::function<void()> onAck, Message::AckMode ackMode);
    // Acknowledges a received message at once, bypassing the queue. Belongs on
    // the I/O thread, typically inside the message callback.
    void sendAck(const Message& message);

    // The callback for every message the node sends; runs on the I/O thread
    // with the client's lock held.
    void onMessage(std::function<void(std::unique_ptr<Message>)> callback);
    // Requests the node's registry now and then every `timeout` seconds; every
    // registry that arrives goes to callback. An empty callback stops the
    // requests.
    void obtainRegistry(std::function<void(std::shared_ptr<Registry>)> callback,
                        std::chrono::seconds timeout);

    // Runs the I/O loop on the calling thread until terminate(). Each pass
    // writes every queued message, then the registry request and the inbox
    // check when due, then reads and dispatches until `timeout` passes without
    // input. An error of the orviku family goes to errorHandler and ends the
    // loop; any other exception reaches errorHandler as a GeneralException and
    // is then rethrown. A shut-down socket context ends the loop silently.
    void blockThreadForIO(std::function<void(orviku::Exception&)> errorHandler,
                          std::chrono::milliseconds timeout);
    // Waits up to `timeout` for input once and dispatches it; true when there
    // was input. Writes nothing.
    bool check(std::chrono::milliseconds timeout);

private:
    void send_inbox();
    void send_get_registry();
    // Writes every queued message, then the registry request and the inbox
    // check when they are due. A write that fails leaves its message at the
    // head of the queue; the error carries the id of that message.
    void send_all_msgs();
    bool send_one_msg();
    void receive_on_listener(wxblt::Socket* socket);
    void receive_on_dispenser(wxblt::Socket* socket);
    void handle_request(std::unique_ptr<internal_objects::Request> request);

    std::chrono::system_clock::time_point _last_inbox;
    std::chrono::seconds _inbox_interval;
    std::unique_ptr<std::mutex> _lock;
    MessageQueue _msg_queue;
    MsgResultCallbacks _result_callbacks;
    // Reserved: nothing takes this lock or uses this queue.
    std::unique_ptr<std::mutex> _spare_lock;
    std::queue<Message> _spare_queue;
    std::function<void(std::unique_ptr<Message>)> _on_message;
    std::function<void(std::shared_ptr<Registry>)> _on_registry;
    std::chrono::seconds _registry_interval;
    std::chrono::system_clock::time_point _last_registry_request;
    wxblt::Socket _listener;
    Receiver _listener_receiver;
    wxblt::Socket _dispenser;
    Receiver _dispenser_receiver;
    Sender _sender;
    wxblt::InputSelector _selector;
    std::string _id;
    std::vector<std::string> _subscriptions;
    TerminationData _term_data;
};

}  // namespace orvikm
