#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
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

/// The client's internals, not for applications.
namespace detail {
/// The watched messages of the delivery-failure report (defined in the library).
class WatchTable;
/// A message id as the watch table looks it up (defined in the library).
struct WatchId;
/// Written messages whose write the watch table has still to note (defined in
/// the library).
class WrittenIds;
/// Sent messages the watch table has still to take in (defined in the library).
class SentWatches;
/// The client's way to be woken by send() and terminate() (defined in the
/// library).
class Wakeup;
/// The room the outgoing queue has under its bounds (defined in the library).
class QueueRoom;
/// The connection events of the client's sockets (defined in the library).
class ConnectionMonitor;
}  // namespace detail

/// The application's connection to the local Orvik Node: a listener (subscriber)
/// on which the node publishes messages for the application, and a dispenser
/// (dealer) on which the client writes everything it sends and receives the
/// node's answers.
///
/// The client starts no thread. `send` may be called from any thread: it only
/// queues. The thread that calls blockThreadForIO becomes the I/O thread: it
/// alone touches the sockets, writes what is queued, and runs every callback
/// (message, registry, acknowledgement, error handler). terminate() from any
/// thread ends that loop. Only one I/O loop runs at a time: blockThreadForIO or
/// check entered while one runs, from another thread or from inside a
/// callback, is refused.
///
/// An application id names one running instance. The node tells the
/// connections of its clients apart by identity (appId + "|disp"), so of two
/// running clients with one id only one is heard. The other goes deaf without
/// an error: its writes do not fail, what it writes is neither acknowledged nor
/// delivered, and its acknowledgement callbacks never run (stats() counts them
/// in awaitingAck; onUnacknowledged reports them). A node that keeps the first
/// connection ignores the newcomer; orvik-devnode hands the identity over to
/// the newer connection, so there the earlier client goes deaf.
///
/// A client must stay where it was constructed: it is neither copied nor moved.
class Client {
public:
    /// The outgoing messages, most urgent (shortest validity) first. Messages of
    /// equal validity leave in no particular order. Every operation holds the
    /// queue's lock for its whole duration.
    class MessageQueue {
    public:
        /// An empty queue.
        MessageQueue();
        /// Takes over other's messages without locking it; other is left empty.
        MessageQueue(MessageQueue&& other);

        /// Moves the message in; the caller's object is left moved-from.
        void push(Message& message);
        /// Calls operation with the top message, under the queue's lock, and
        /// removes the message only when operation returns true. Returns false
        /// without calling it when the queue is empty; otherwise returns what
        /// operation returned. An operation's exception leaves the message on
        /// top. The operation must not use this queue.
        bool performOperation(std::function<bool(const Message&)> operation);
        /// How many messages are queued. Takes no lock (the count is kept
        /// beside the queue), so it never waits for a write in progress.
        std::size_t size() const;
        /// The payload bytes of the queued messages, kept as size() is.
        std::size_t payloadBytes() const;
        /// Removes, under the queue's lock, every message for which `drop`
        /// returns true, keeping the order of the rest; returns how many went.
        /// `drop` must not use this queue.
        std::size_t removeIf(const std::function<bool(const Message&)>& drop);

        /// The queue's less-than: a is less urgent than b when it stays valid
        /// longer.
        static bool determine_priority(const Message& a, const Message& b);

    private:
        using Queue = std::priority_queue<Message, std::deque<Message>,
                                          bool (*)(const Message&, const Message&)>;
        std::mutex mutex;
        Queue queue;
        std::atomic<std::size_t> count{0};
        std::atomic<std::size_t> bytes{0};
    };

    /// The acknowledgement callbacks of sent messages, by message id. Each runs
    /// once, on the first acknowledgement of its message, under the table's
    /// lock: a callback must not send with a result callback through the same
    /// client.
    class MsgResultCallbacks {
    public:
        /// An empty table.
        MsgResultCallbacks();
        /// Takes over other's entries without locking it; other is left empty.
        MsgResultCallbacks(MsgResultCallbacks&& other);

        /// Stores callback under the message's id, replacing any earlier one.
        /// An empty callback stores nothing.
        void registerCallback(Message& message, std::function<void()> callback);
        /// Runs and then forgets the callback of the acknowledged message; an
        /// unknown id is ignored. A callback that throws stays registered.
        void handleAck(internal_objects::Ack& ack);
        /// As handleAck; true when a callback ran (and returned).
        bool runCallback(internal_objects::Ack& ack);
        /// Forgets the callback of a message without calling it; true when
        /// there was one.
        bool forget(const std::string& messageId);
        /// How many callbacks wait for their acknowledgement. Takes no lock, so
        /// an acknowledgement callback may ask.
        std::size_t size() const;

    private:
        std::mutex mutex;
        std::map<std::string, std::function<void()>> callbacks;
        std::atomic<std::size_t> count{0};
    };

    /// The flag that ends the I/O loop. A copy is always a fresh, unset flag.
    class TerminationData {
    public:
        /// An unset flag.
        TerminationData();
        /// An unset flag too: other's state is not copied.
        TerminationData(const TerminationData& other);
        /// Leaves this object as it is.
        TerminationData& operator=(const TerminationData& other);

        /// Sets the flag under its lock; may be called from any thread.
        void terminate();
        /// The flag itself; callers hold termLock().
        bool& isTermed();
        /// The lock that guards isTermed().
        std::mutex& termLock();

    private:
        bool _termed;
        std::mutex _term_lock;
    };

    /// The longest application id: its header line "app_id|<id>" must fit the
    /// node's 100-byte frames.
    static constexpr std::size_t _max_app_id_size = 93;

    /// Settings beyond the constructor's four arguments. The defaults are the
    /// client's behaviour without options. A duration too large to add to a
    /// clock's time (milliseconds::max(), say) means no bound.
    struct Options {
        /// With a value, a pass's reading step ends after at most this long,
        /// so that queued messages are written under steady inbound traffic.
        /// 0: a pass reads until the sockets are quiet.
        std::chrono::milliseconds maxReadTime{0};
        /// Publications the listener queues while the application does not
        /// read (ZeroMQ's receive high-water mark); what the node then drops is
        /// the node's business. 0: unbounded. The dispenser is never bounded:
        /// what arrives there answers what the client wrote itself, and a
        /// bound would turn a burst of the client's own into lost
        /// acknowledgements.
        int receiveLimit{0};
        /// How long one write may wait for the node before it fails with error
        /// 11 ("not available"). A flush waits at most until its deadline.
        /// 0: a write never waits, so one that finds the connection down fails
        /// at once; a flush then tries such a write again until its deadline
        /// (a flush right after construction waits for the connection to be
        /// set up), blockThreadForIO reports it at once.
        std::chrono::milliseconds sendTimeout{500};
        /// With a value, a pass writes at most this many queued messages, then
        /// reads, and the next pass goes on with the queue: acknowledgements
        /// flow during a burst. 0: a pass writes everything queued.
        std::size_t maxWriteBatch{0};
        /// With true, the loop's reading step ends as soon as a message is
        /// queued (from any thread) or terminate() is called, so that the
        /// message is written at once and the loop returns at once. A burst
        /// costs its senders one system call, not one per message. false (the
        /// default): a message queued during a reading step waits until the
        /// sockets have been quiet for the loop's timeout.
        bool wakeOnSend{false};
        /// With a value, send() refuses a message that would make more than
        /// this many messages queued. 0: unbounded.
        std::size_t maxQueued{0};
        /// The same bound on the queued messages' payload bytes; a message
        /// larger than it alone is always refused. 0: unbounded.
        std::size_t maxQueuedBytes{0};
        /// How long send() called from a thread other than the I/O thread waits
        /// for room before it refuses. 0: refuse at once. On the I/O thread it
        /// never waits (that would wait for ever). The wait ends as soon as the
        /// loop has written enough, or when terminate() is called (the message
        /// is then refused).
        std::chrono::milliseconds queueFullWait{0};
    };

    /// Creates both sockets with the identities appId + "|lstn" and
    /// appId + "|disp", subscribes the listener to every topic given (none
    /// means it receives nothing) and connects both to "tcp://localhost:PORT".
    /// Sends nothing: a node that is not running is noticed at the first write.
    /// Throws orvikm::Exception, naming the value, for an application id longer
    /// than 93 bytes or a port outside 1..65535 (with the context of the
    /// socket whose set-up it stopped).
    Client(std::string appId, int listenerPort, int dispenserPort,
           std::vector<std::string> subscriptions);
    /// As above, with options (see Options).
    Client(std::string appId, int listenerPort, int dispenserPort,
           std::vector<std::string> subscriptions, Options options);
    /// Not copyable: a client stays where it was constructed.
    Client(const Client&) = delete;
    /// Not copyable: a client stays where it was constructed.
    Client& operator=(const Client&) = delete;
    /// Releases everything without sending; queued messages are lost. Must not
    /// run while another thread is inside blockThreadForIO.
    virtual ~Client();

    /// The application id given at construction.
    const std::string& id() const { return _id; }
    /// The termination flag that terminate() sets when its lock is free.
    TerminationData& termData() { return _term_data; }
    /// Asks the I/O loop to return at the end of its current pass. Any thread,
    /// and async-signal-safe: it never waits for a lock, so a signal handler
    /// may call it even when the signal interrupted the holder of the
    /// termination lock. It sets termData()'s flag when that lock is free, and
    /// a flag of its own that the loop reads at the same points in any case.
    void terminate();

    /// Queue a message for the node; onAck (may be empty) runs on the I/O thread
    /// when the node acknowledges it. Any thread; no I/O.
    ///
    /// What the node would refuse is refused here, before anything is
    /// registered or queued, with an orvikm::Exception naming the value and
    /// the limit: a route longer than 100 bytes, a route of one zero byte (it
    /// reads as the route delimiter), a header line ("app_id|<id>",
    /// "p_type|<type>", ...) longer than 100 bytes. With Options::maxQueued
    /// or maxQueuedBytes set, a message that would pass a bound is refused the
    /// same way (after Options::queueFullWait) with an orvikm::Exception whose
    /// message begins "The outgoing queue is full" and names the bound.
    void send(Message message, std::function<void()> onAck);
    /// Builds the message from the arguments and queues it as
    /// send(Message, std::function<void()>) does, with the same thread rules
    /// and refusals. Takes the buffer over (it is released with delete[], also
    /// when the message is refused).
    void send(char* buffer, unsigned int size, std::string payloadType,
              std::list<std::string> routes, std::chrono::seconds validFor,
              std::function<void()> onAck, Message::AckMode ackMode);
    /// Builds the message from the arguments and queues it as
    /// send(Message, std::function<void()>) does, with the same thread rules
    /// and refusals.
    void send(Payload payload, std::list<std::string> routes, std::chrono::seconds validFor,
              std::function<void()> onAck, Message::AckMode ackMode);
    /// Acknowledges a received message at once, bypassing the queue. Belongs on
    /// the I/O thread, typically inside the message callback. A failed write
    /// throws its error of the orviku family to the caller, with the context
    /// "While trying to acknowledge message with id: <id>" (a wxblt::Exception
    /// with error 11 when the node is not available).
    void sendAck(const Message& message);

    /// The callback for every message the node sends; runs on the I/O thread
    /// with the client's lock held. Call it before the loop runs or on the I/O
    /// thread; called from inside the message callback (to replace or clear
    /// it), the running callback finishes safely and the new one takes over
    /// from the next message.
    void onMessage(std::function<void(std::unique_ptr<Message>)> callback);
    /// Requests the node's registry now and then every `timeout` seconds; every
    /// registry that arrives goes to callback. An empty callback stops the
    /// requests. A timeout too large to add to a time (seconds::max()) means
    /// the first request only. Same thread rules as onMessage; it may be
    /// called from inside the registry callback.
    void obtainRegistry(std::function<void(std::shared_ptr<Registry>)> callback,
                        std::chrono::seconds timeout);

    /// Runs the I/O loop on the calling thread until terminate(). Each pass
    /// writes every queued message, then the registry request and the inbox
    /// check when due, then reads and dispatches until `timeout` passes without
    /// input. An error of the orviku family goes to errorHandler and ends the
    /// loop; any other exception reaches errorHandler as a GeneralException and
    /// is then rethrown. A shut-down socket context ends the loop silently.
    ///
    /// Be ready for those rethrown standard exceptions: a publication whose
    /// numbers do not parse ("p_size" of "abc", a "valid_for" beyond 64 bits)
    /// arrives as std::invalid_argument or std::out_of_range, with the bad
    /// message already dropped; a callback's own exceptions come the same way.
    /// The client stays usable: catch them around the call and call it again.
    ///
    /// Only the low 32 bits of `timeout` reach the selector, and a negative
    /// count there means no wait: keep it between 0 and 2^31-1 ms (about 24
    /// days). A pass reads for as long as input keeps coming: with traffic
    /// arriving more often than `timeout`, queued messages wait and
    /// terminate() is seen only once the input pauses.
    ///
    /// While a loop runs, a second call (from another thread, or from inside a
    /// callback on the I/O thread) is refused at once: it throws, to its own
    /// caller and not to its error handler, an orvikm::Exception whose message
    /// begins "The I/O loop is already running"; the running loop goes on.
    void blockThreadForIO(std::function<void(orviku::Exception&)> errorHandler,
                          std::chrono::milliseconds timeout);
    /// Waits up to `timeout` for input once and dispatches it; true when there
    /// was input. Writes nothing. The timeout is treated as in
    /// blockThreadForIO. Refused, like a second loop, while a loop runs.
    bool check(std::chrono::milliseconds timeout);

    // Extensions: flush, counters, the delivery-failure report, your own
    // event loop. None of them changes what the calls above do while it is
    // unused.

    /// What the client holds and has done so far. Counters only grow.
    struct Stats {
        std::size_t queued;            ///< messages waiting to be written
        std::size_t awaitingAck;       ///< acknowledgement callbacks registered and not yet run
        std::uint64_t written;         ///< messages written to the node
        std::uint64_t acknowledged;    ///< acknowledgements that ran a callback
        std::uint64_t received;        ///< messages handed to the message callback
        std::uint64_t errors;          ///< errors handed to an error handler
        std::uint64_t unacknowledged;  ///< messages reported through onUnacknowledged
        std::size_t queuedBytes;       ///< payload bytes of the queued messages
        std::uint64_t refused;         ///< sends refused because the queue was full
    };
    /// Any thread, callbacks included; reads atomics only, so it never waits
    /// for I/O or for a lock a callback may hold. The fields are read one by
    /// one: while the loop runs they may be a message apart.
    Stats stats() const;

    /// What a flush left behind when it returned.
    struct FlushResult {
        /// Every message was written and every one with an acknowledgement
        /// callback was acknowledged: nothing is queued, nothing awaits its
        /// acknowledgement, and no message was reported unacknowledged.
        bool complete;
        std::size_t queued;       ///< messages still waiting to be written
        std::size_t awaitingAck;  ///< acknowledgement callbacks still waiting
        std::size_t
            unacknowledged;  ///< messages reported through onUnacknowledged during the flush
    };
    /// Runs the I/O loop on the calling thread until nothing is queued and no
    /// acknowledgement callback is pending, or `deadline` has passed, or an
    /// error occurs (handed to errorHandler as in blockThreadForIO; flush then
    /// returns, and an exception outside the orviku family is rethrown), or
    /// terminate() is called. For an application that lends a thread only at
    /// the end ("everything I sent arrived before I exit") as much as for one
    /// that never calls blockThreadForIO. A deadline too large for the clock
    /// means until complete; a write waits for the node at most until the
    /// deadline, so flush returns within it (plus a few milliseconds).
    /// Refused, like a second loop, while a loop runs.
    FlushResult flush(std::chrono::milliseconds deadline,
                      std::function<void(orviku::Exception&)> errorHandler = nullptr);

    // Your own event loop: instead of lending a thread to blockThreadForIO,
    // an application that runs an event loop (asio, libuv, epoll, poll)
    // watches eventHandle() and calls processEvents() when it is readable,
    // and again after the wait processEvents() returned. <orvikm/asio.hpp>
    // does this for asio.

    /// A file descriptor for an application that runs its own event loop: it
    /// is readable while the client has work that processEvents() does (input
    /// waiting on either socket, a message queued, an early end of the last
    /// pass). Level-triggered: it stays readable until processEvents() has
    /// done that work. Owned by the client (closed with it); the application
    /// only polls it. Made at the first call, which is best made before the
    /// loop runs or on the thread that calls processEvents(); later calls
    /// return the same descriptor. From that call on, send() from any thread
    /// makes it readable. Throws orvikm::Exception when the system refuses a
    /// descriptor.
    int eventHandle();
    /// One pass that never waits for input: writes what is queued (at most
    /// Options::maxWriteBatch), the registry request and the inbox check when
    /// due, reads and dispatches what has already arrived (for at most
    /// Options::maxReadTime), and runs the delivery-failure report's checks.
    /// The thread that calls it is the I/O thread for the pass: every callback
    /// runs on it. A write to a node that is not connected waits up to
    /// Options::sendTimeout, as in blockThreadForIO (0: never). Errors as in
    /// blockThreadForIO: an error of the orviku family goes to errorHandler,
    /// any other is rethrown after it; the client stays usable. Returns how
    /// long the application may wait, at most, before calling it again when
    /// eventHandle() stays quiet (the next inbox check, registry request or
    /// expiry check). Does not look at terminate(). Refused like a second
    /// loop while blockThreadForIO, check or flush runs, and they are refused
    /// while it runs; call it from one thread at a time.
    std::chrono::milliseconds processEvents(std::function<void(orviku::Exception&)> errorHandler);

    /// Whether the client is connected to the node: both sockets, or not.
    enum class ConnectionState { Connected, Disconnected };
    /// Called on the I/O thread whenever the client's connection to the node
    /// changes: Connected once both sockets are connected, Disconnected as soon
    /// as either is not (the node stopped, was killed, was restarted). Nothing
    /// is reported while the node was never there; a callback set while the
    /// client is already connected hears Connected on the next pass of the
    /// loop. The events come from ZeroMQ's socket monitor, which starts with
    /// the first callback set: a socket that connected before that is taken
    /// as connected when the dispenser is. Same thread rules as onMessage;
    /// nothing changes while it is unset.
    void onConnectionChange(std::function<void(ConnectionState)> callback);

    /// Once set, a message sent with an acknowledgement callback whose
    /// acknowledgement has not come within its validity period after it was
    /// written has its callback forgotten and is reported once, by id; a
    /// message whose validity runs out while it is still queued is taken out
    /// of the queue and reported the same way. Reports run on the I/O thread,
    /// checked about every 100 ms while a loop or flush runs. Only messages
    /// sent while a report callback is set are watched. Unset (the default, or
    /// an empty callback), nothing expires. Same thread rules as onMessage.
    /// A report callback that throws ends the loop as a message callback
    /// would; the messages that expired with its message are reported, each
    /// once, when a loop or flush runs next.
    void onUnacknowledged(std::function<void(const std::string& msgId)> callback);

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
    // One run of the selector, as check() without its guard.
    bool poll_once(std::chrono::milliseconds timeout);
    // As poll_once; with wakeOnSend, a sender wakes the wait, and with a
    // message already queued it only reads what has arrived (true, with the
    // wake mark set).
    bool poll_for_input(std::chrono::milliseconds timeout);
    // Reads until the sockets are quiet for `timeout`, or for at most
    // Options::maxReadTime when that is set.
    void read_until_quiet(std::chrono::milliseconds timeout);
    // Registers, watches and queues a message that may be queued.
    void enqueue(Message& message, std::function<void()> onAck);
    // Takes room in the queue for a message of `bytes`, or refuses it.
    void take_room(std::size_t bytes);
    // Calls the connection callback when the state changed since it last
    // heard of it.
    void report_connection();
    // Whether a reading step is to end now: wakeOnSend's descriptor was
    // readable. Clears the mark.
    bool take_wake();
    // The wait processEvents() returns: until the next periodic work is due.
    std::chrono::milliseconds next_due() const;
    // Reads what has arrived without waiting, for at most maxReadTime; true
    // when it stopped with work left (that bound, or a message queued).
    bool read_available();
    // Whether the loop is to stop; called with the termination lock held.
    bool stop_requested();
    // Clears both termination flags at the start of a loop.
    void forget_termination();
    // Hands an error to the application's handler as the loop does; rethrows
    // what is not of the orviku family. Call it inside a catch block.
    void report_loop_error(const std::function<void(orviku::Exception&)>& errorHandler);
    // The delivery-failure report's bookkeeping. Only watch_queued is called
    // by sending threads; the rest run on the I/O thread.
    void watch_queued(const detail::WatchId& msgId, const Message& message, bool hasCallback);
    // Moves the messages sent since the last call into _watched.
    void watch_sent();
    void note_acknowledged(const detail::WatchId& msgId);
    // Notes the writes kept in _written_ids.
    void note_written();
    // Reports what has expired, at most every 100 ms, and whatever an earlier
    // report callback that threw left unreported.
    void expire_due();
    // Takes the messages whose validity ran out at `now` out of the queue and
    // the callback table, and adds them to _pending_reports.
    void take_expired(std::chrono::steady_clock::time_point now);

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

    // Set while blockThreadForIO or check runs: a second entry is refused.
    std::atomic<bool> _io_running{false};
    // Set by terminate() without a lock, so that a signal handler can stop
    // the loop.
    std::atomic<bool> _stop_signalled{false};
    static_assert(std::atomic<bool>::is_always_lock_free);
    // Set by onMessage and obtainRegistry; a callback that replaced itself
    // is not put back after its call.
    bool _on_message_replaced{false};
    bool _on_registry_replaced{false};

    Options _options;
    std::atomic<std::uint64_t> _written{0};
    std::atomic<std::uint64_t> _acknowledged{0};
    std::atomic<std::uint64_t> _received{0};
    std::atomic<std::uint64_t> _errors{0};
    std::atomic<std::uint64_t> _unacknowledged{0};

    // The delivery-failure report: while a report callback is set, every
    // message sent is watched from send() until it is acknowledged, written
    // without a callback, or reported.
    std::function<void(const std::string&)> _on_unacknowledged;
    bool _on_unacknowledged_replaced{false};
    std::atomic<bool> _watching{false};
    // Guards _sent_watches, the one part of the report that sending threads
    // touch.
    std::mutex _watch_lock;
    std::unique_ptr<detail::SentWatches> _sent_watches;
    // Used by the I/O thread alone: the group it is moving into _watched,
    // and the table.
    std::unique_ptr<detail::SentWatches> _moving_watches;
    std::unique_ptr<detail::WatchTable> _watched;
    // Written by the I/O thread and noted in _watched a group at a time.
    std::unique_ptr<detail::WrittenIds> _written_ids;
    std::chrono::steady_clock::time_point _next_expiry_check;
    // Expired messages not reported yet: a report callback threw before their
    // turn.
    std::deque<std::string> _pending_reports;

    // Made with wakeOnSend or at the first eventHandle(); from then on send()
    // and terminate() signal it (_wake_enabled is set once it is ready, and
    // read by them before they touch it).
    std::unique_ptr<detail::Wakeup> _wakeup;
    std::atomic<bool> _wake_enabled{false};
    // Set by the selector when the wake-up descriptor was read.
    bool _woken{false};

    // Null while the queue is unbounded.
    std::unique_ptr<detail::QueueRoom> _room;
    std::atomic<std::uint64_t> _refused{0};
    // Counts terminate() calls: a sender waiting for room stops waiting when
    // it changes.
    std::atomic<std::uint64_t> _terminations{0};
    // The thread inside a loop, check, flush or processEvents, if any: a send
    // from it never waits for room.
    std::atomic<std::thread::id> _io_thread{};

    std::function<void(ConnectionState)> _on_connection_change;
    bool _on_connection_change_replaced{false};
    // Made when the first connection callback is set.
    std::unique_ptr<detail::ConnectionMonitor> _monitor;
};

}  // namespace orvikm
