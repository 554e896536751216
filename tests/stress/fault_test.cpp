#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <orvikm/client.hpp>
#include <orvikm/message.hpp>
#include <orvikm/payload.hpp>

#include "ack_book.hpp"
#include "app_loop.hpp"
#include "devnode_process.hpp"
#include "stress_scale.hpp"
#include "support/test_node.hpp"

// Faults: the node absent when the client starts, the node killed with
// SIGKILL mid-stream and restarted on the same ports, malformed requests
// among valid ones on both sockets.
namespace stresstest {
namespace {

using devnodetest::DevNodeProcess;
using orvikm::Client;
using orvikm::Message;

using Clock = std::chrono::steady_clock;

const std::string kRoute = "fault";
const std::string kPayloadType = "text/plain";
constexpr auto kValidity = 60s;
constexpr auto kStartLimit = 10s;
constexpr auto kEventLimit = 30s;
constexpr auto kLinger = 300ms;
// Queueing a message takes microseconds; waiting out a write to an absent node
// would take the socket's send timeout of 500 ms.

// What the error handler gets for a queued message while no node is there.
const std::string kUnavailableWhat = "Resource temporarily unavailable";
const std::string kFramesContext = "While trying to send frames of payload request";
const std::string kUnavailableContext = "Orvik Node is not available";
const std::string kQueuedContextStart = "While trying to send queued message id=";
const std::string kAllQueuedContext = "While trying to send all queued messages";

long msBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

orvikm::Payload payloadOf(const std::string& text) {
    orvikm::Payload payload(static_cast<unsigned>(text.size()), kPayloadType);
    std::memcpy(payload.getBuffer(), text.data(), text.size());
    return payload;
}

// Queues a message along kRoute whose acknowledgement goes to acks under
// `index`; returns its id.
std::string queueNumbered(Client& client, AckBook& acks, std::size_t index) {
    Message message(payloadOf("message " + std::to_string(index)),
                    Message::Config(client.id(), {kRoute}, kValidity, Message::AckMode::ByNode));
    std::string id = message.msgId();
    client.send(std::move(message), acks.callbackFor(index));
    return id;
}

// How often each message id appears in a node's log lines
// "MSG ID from ... acknowledged and published" (the node logs them with
// --verbose).
std::map<std::string, int> messagesLogged(const DevNodeProcess& node) {
    std::map<std::string, int> logged;
    const std::string start = "MSG ";
    const std::string end = " from ";
    for (const std::string& line : node.outputLines()) {
        const auto at = line.find(start);
        if (at == std::string::npos ||
            line.find("acknowledged and published") == std::string::npos) {
            continue;
        }
        const auto idStart = at + start.size();
        const auto idEnd = line.find(end, idStart);
        if (idEnd != std::string::npos) {
            ++logged[line.substr(idStart, idEnd - idStart)];
        }
    }
    return logged;
}

int countOf(const std::map<std::string, int>& counts, const std::string& key) {
    const auto entry = counts.find(key);
    return entry == counts.end() ? 0 : entry->second;
}

// A loopback port that nothing listens on and nothing else can take: a TCP
// socket bound to it that never listens, so that connections are refused,
// until release().
class HeldPort {
public:
    HeldPort() : _fd(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (_fd < 0 || ::bind(_fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            ::getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            const int error = errno;
            release();
            throw std::runtime_error(std::string("cannot hold a loopback port: ") +
                                     std::strerror(error));
        }
        _port = ntohs(address.sin_port);
    }
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;
    ~HeldPort() { release(); }

    int port() const { return _port; }
    void release() {
        if (_fd >= 0) {
            ::close(_fd);
            _fd = -1;
        }
    }

private:
    int _fd;
    int _port = 0;
};

// The chain of a queued message that could not be written for want of a node.
std::vector<std::string> unavailableChain(const std::string& id) {
    return {kFramesContext, kUnavailableContext, kQueuedContextStart + id, kAllQueuedContext};
}

bool isUnavailableReport(const ReportedError& error) {
    return error.nodeUnavailable() && error.what == kUnavailableWhat && error.context.size() == 4 &&
           error.context[0] == kFramesContext && error.context[1] == kUnavailableContext &&
           error.context[2].rfind(kQueuedContextStart, 0) == 0 &&
           error.context[3] == kAllQueuedContext;
}

TEST(FaultTest, NodeAbsentAtStartGetsEveryQueuedMessageOnceItStarts) {
    const int count = scale().queuedWhileAbsent;
    HeldPort listenerPort;
    HeldPort dispenserPort;
    Client sender("absent-sender", listenerPort.port(), dispenserPort.port(), {});
    AckBook acks(static_cast<std::size_t>(count));
    std::vector<std::string> ids;
    for (int i = 0; i < count; ++i) {
        ids.push_back(queueNumbered(sender, acks, static_cast<std::size_t>(i)));
    }

    AppLoop loop(sender);
    ASSERT_TRUE(loop.waitForErrors(static_cast<std::size_t>(scale().absentReports), kEventLimit));
    const std::vector<ReportedError> whileAbsent = loop.errors();
    const long acknowledgedWhileAbsent = acks.total();
    listenerPort.release();
    dispenserPort.release();
    DevNodeProcess node({"--listener-port", std::to_string(listenerPort.port()), "--dispenser-port",
                         std::to_string(dispenserPort.port()), "--verbose"});
    ASSERT_TRUE(node.waitUntilReady(kStartLimit)) << node.standardError();
    const auto nodeReady = Clock::now();
    const bool allAcknowledged = acks.waitForTotal(count, kEventLimit);
    const auto acknowledgedAt = Clock::now();
    std::this_thread::sleep_for(kLinger);
    ASSERT_TRUE(loop.stop());

    // Each report names the queued message whose write failed.
    const std::set<std::string> queuedIds(ids.begin(), ids.end());
    for (const ReportedError& error : whileAbsent) {
        const std::string named = error.context.size() > 2
                                      ? error.context[2].substr(std::min(
                                            error.context[2].size(), kQueuedContextStart.size()))
                                      : std::string();
        EXPECT_EQ(queuedIds.count(named), 1u) << error.describe();
        EXPECT_EQ(error.type, "wxblt::Exception");
        EXPECT_EQ(error.errorNumber, EAGAIN);
        EXPECT_EQ(error.what, kUnavailableWhat);
        EXPECT_EQ(error.context, unavailableChain(named));
    }
    EXPECT_EQ(acknowledgedWhileAbsent, 0);
    EXPECT_TRUE(allAcknowledged) << acks.total() << " of " << count;
    const auto [missing, duplicated] = acks.missingAndDuplicated();
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(duplicated, 0);
    const std::map<std::string, int> logged = messagesLogged(node);
    long notLoggedOnce = 0;
    for (const std::string& id : ids) {
        notLoggedOnce += countOf(logged, id) == 1 ? 0 : 1;
    }
    EXPECT_EQ(notLoggedOnce, 0);
    const std::vector<ReportedError> all = loop.errors();
    for (const ReportedError& error : all) {
        EXPECT_TRUE(isUnavailableReport(error)) << error.describe();
    }
    EXPECT_TRUE(loop.escaped().empty());

    std::ostringstream text;
    text << count << " messages queued with no node: " << whileAbsent.size()
         << " \"not available\" reports before it started (" << all.size()
         << " in all, each with the exact chain), " << acknowledgedWhileAbsent
         << " acknowledged meanwhile; all acknowledged " << msBetween(nodeReady, acknowledgedAt)
         << " ms after the node was ready; acknowledgements missing " << missing << ", duplicated "
         << duplicated << "; not received exactly once by the node " << notLoggedOnce;
    figure("fault", text.str());
}

// When a message of the stream was queued.
enum class Phase : int {
    BeforeTheClientNoticed = 0,  // includes the kill itself: may be lost in flight
    WhileDown = 1,               // after the client reported the node unavailable
    AfterRestart = 2,
};

// Queues batches of messages at a steady pace on a thread of its own, each
// labelled with the phase it was queued in.
class Stream {
public:
    static constexpr std::size_t kCapacity = 500000;
    static constexpr auto kBatchInterval = 10ms;

    Stream(Client& client, AckBook& acks, int batch)
        : _client(client), _acks(acks), _batch(batch), _thread([this] { run(); }) {}
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { stop(); }

    void enter(Phase phase) { _phase.store(static_cast<int>(phase)); }
    void stop() {
        _stopping.store(true);
        if (_thread.joinable()) {
            _thread.join();
        }
    }

    // Ids and phases, by index; call once stopped.
    const std::vector<std::string>& ids() const { return _ids; }
    const std::vector<Phase>& phases() const { return _phases; }
    // The longest a call of Client::send took in each phase.
    Clock::duration longestSend(Phase phase) const {
        return _longest_send[static_cast<int>(phase)];
    }

private:
    void run() {
        while (!_stopping.load() && _ids.size() + static_cast<std::size_t>(_batch) <= kCapacity) {
            for (int i = 0; i < _batch; ++i) {
                const Phase phase = static_cast<Phase>(_phase.load());
                const auto start = Clock::now();
                _ids.push_back(queueNumbered(_client, _acks, _ids.size()));
                Clock::duration& longest = _longest_send[static_cast<int>(phase)];
                longest = std::max(longest, Clock::now() - start);
                _phases.push_back(phase);
            }
            std::this_thread::sleep_for(kBatchInterval);
        }
    }

    Client& _client;
    AckBook& _acks;
    int _batch;
    std::atomic<int> _phase{0};
    std::atomic<bool> _stopping{false};
    std::vector<std::string> _ids;
    std::vector<Phase> _phases;
    Clock::duration _longest_send[3] = {};
    std::thread _thread;
};

TEST(FaultTest, NodeKilledMidStreamAndRestartedGetsEverythingQueuedWhileItWasDown) {
    auto first = std::make_unique<DevNodeProcess>(
        std::vector<std::string>{"--listener-port", "0", "--dispenser-port", "0", "--verbose"});
    ASSERT_TRUE(first->waitUntilReady(kStartLimit)) << first->standardError();
    const int listenerPort = first->listenerPort();
    const int dispenserPort = first->dispenserPort();
    Client sender("restart-sender", listenerPort, dispenserPort, {});
    AckBook acks(Stream::kCapacity);
    AppLoop loop(sender);
    Stream stream(sender, acks, scale().streamBatch);

    std::this_thread::sleep_for(scale().streamBeforeKill);
    ASSERT_GT(acks.total(), 0);
    first->sendSignal(SIGKILL);
    ASSERT_TRUE(first->waitForExit(kStartLimit).has_value());
    const auto killedAt = Clock::now();
    const long acknowledgedAtKill = acks.total();
    // From the first "not available" report on, the client knows that the
    // node is gone: nothing queued from then on may be lost.
    const auto noticed = [&] {
        for (const ReportedError& error : loop.errors()) {
            if (error.when > killedAt && error.nodeUnavailable()) {
                return true;
            }
        }
        return false;
    };
    const auto noticeDeadline = Clock::now() + kEventLimit;
    while (!noticed() && Clock::now() < noticeDeadline) {
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(noticed());
    const auto noticedAt = Clock::now();
    stream.enter(Phase::WhileDown);
    std::this_thread::sleep_for(scale().downTime);
    DevNodeProcess second({"--listener-port", std::to_string(listenerPort), "--dispenser-port",
                           std::to_string(dispenserPort), "--verbose"});
    ASSERT_TRUE(second.waitUntilReady(kStartLimit)) << second.standardError();
    const auto restartedAt = Clock::now();
    stream.enter(Phase::AfterRestart);
    std::this_thread::sleep_for(scale().streamAfterRestart);
    stream.stop();

    std::vector<std::size_t> mustArrive;
    for (std::size_t i = 0; i < stream.phases().size(); ++i) {
        if (stream.phases()[i] != Phase::BeforeTheClientNoticed) {
            mustArrive.push_back(i);
        }
    }
    const bool allArrived = acks.waitForAll(mustArrive, kEventLimit);
    const auto arrivedAt = Clock::now();
    std::this_thread::sleep_for(kLinger);
    ASSERT_TRUE(loop.stop());

    const std::map<std::string, int> loggedFirst = messagesLogged(*first);
    const std::map<std::string, int> loggedSecond = messagesLogged(second);
    long queued[3] = {0, 0, 0};
    long lostAtKill = 0;
    long acknowledgedTwice = 0;
    long loggedTwice = 0;
    long mustArriveNotOnce = 0;
    for (std::size_t i = 0; i < stream.ids().size(); ++i) {
        const Phase phase = stream.phases()[i];
        const std::string& id = stream.ids()[i];
        ++queued[static_cast<int>(phase)];
        const int acknowledged = acks.count(i);
        const int logged = countOf(loggedFirst, id) + countOf(loggedSecond, id);
        acknowledgedTwice += acknowledged > 1 ? 1 : 0;
        loggedTwice += logged > 1 ? 1 : 0;
        if (phase == Phase::BeforeTheClientNoticed) {
            lostAtKill += acknowledged == 0 ? 1 : 0;
        } else if (acknowledged != 1 || countOf(loggedSecond, id) != 1) {
            ++mustArriveNotOnce;
        }
    }
    long reportsWhileDown = 0;
    long otherReports = 0;
    for (const ReportedError& error : loop.errors()) {
        if (isUnavailableReport(error)) {
            reportsWhileDown += error.when > killedAt ? 1 : 0;
        } else {
            ++otherReports;
            ADD_FAILURE() << "reported: " << error.describe();
        }
    }

    EXPECT_TRUE(allArrived);
    EXPECT_EQ(mustArriveNotOnce, 0);
    EXPECT_EQ(acknowledgedTwice, 0);
    EXPECT_EQ(loggedTwice, 0);
    EXPECT_GT(queued[static_cast<int>(Phase::WhileDown)], 0);
    EXPECT_EQ(otherReports, 0);
    EXPECT_TRUE(loop.escaped().empty());
    const auto longestMs = [&](Phase phase) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(stream.longestSend(phase))
            .count();
    };
    std::ostringstream text;
    text << "stream of " << stream.ids().size() << " messages (" << scale().streamBatch
         << " every 10 ms), node SIGKILLed after " << acknowledgedAtKill
         << " acknowledgements: queued before the client noticed " << queued[0]
         << ", of them written before the kill and never acknowledged " << lostAtKill
         << "; queued while down " << queued[1] << ", after the restart " << queued[2]
         << ", of these not acknowledged and received exactly once " << mustArriveNotOnce
         << "; acknowledged twice " << acknowledgedTwice << ", received twice " << loggedTwice
         << "; \"not available\" reports " << reportsWhileDown << ", other errors " << otherReports
         << "; kill noticed after " << msBetween(killedAt, noticedAt)
         << " ms, everything delivered " << msBetween(restartedAt, arrivedAt)
         << " ms after the restart; longest send() before/while down/after "
         << longestMs(Phase::BeforeTheClientNoticed) << "/" << longestMs(Phase::WhileDown) << "/"
         << longestMs(Phase::AfterRestart) << " ms";
    figure("fault", text.str());
}

// A malformed request and the error it must reach the error handler as.
struct Malformed {
    std::string name;
    std::vector<std::string> frames;  // on the listener, the topic frame first
    std::string type;
    std::string what;
    std::vector<std::string> context;
    // what() of the standard exception that leaves blockThreadForIO after the
    // handler got the unknown-error report; empty when none does.
    std::string escapes = {};
};

const std::string kTopic = "malformed-topic";
const std::string kDelimiter = testsupport::delimiter();
const std::string kListenerContext = "While trying to read request on Client listener";
const std::string kDispenserContext = "While trying to read request on Client dispenser";
const std::string kHeadersContext = "While trying to receive headers";
const std::string kProtocolHeadersContext = "While trying to receive protocol headers of request";
const std::string kPayloadContext = "While trying to receive payload";
const std::string kMessageHeadersContext = "While trying to decode protocol headers for Message";
const std::string kDecodeContext = "While trying to decode a received request";
const std::string kProtocolError = "ProtocolError";
// A header number that does not parse is a standard exception, not one of the
// library's: the handler gets this report without context, and the exception
// itself then leaves blockThreadForIO.
const std::string kGeneralException = "GeneralException";
const std::string kUnknownError = "An unknown error occured. We do not know how to handle it";
const std::string kNoSeparator = "no-separator";
const std::string kNoSeparatorWhat =
    "Headers formatted incorrectly in request. No \"|\" found in \"no-separator\"";
const std::string kLongHeader = "msg_id|" + std::string(150, 'x');

std::map<std::string, std::string> messageHeaders(const std::string& size,
                                                  const std::string& validFor,
                                                  const std::string& ackMode) {
    return {{"ack_mode", ackMode},  {"app_id", "malformed-node"},
            {"id", "malformed-id"}, {"origin", ","},
            {"p_size", size},       {"p_type", "text"},
            {"valid_for", validFor}};
}

std::vector<std::string> onTopic(std::vector<std::string> frames) {
    frames.insert(frames.begin(), kTopic);
    return frames;
}

// The malformed requests written to the client's dispenser, in turn.
std::vector<Malformed> dispenserRequests() {
    return {
        {"HeaderWithoutSeparator",
         {kDelimiter, "ACK", kNoSeparator, kDelimiter, kDelimiter},
         kProtocolError,
         kNoSeparatorWhat,
         {kHeadersContext, kProtocolHeadersContext, kDecodeContext + " (ACK)", kDispenserContext}},
        {"UnknownCommand",
         {kDelimiter, "FETCH", kDelimiter, kDelimiter},
         kProtocolError,
         "Unrecognised command name: FETCH",
         {kDecodeContext + " (FETCH)", kDispenserContext}},
        {"PayloadShorterThanDeclared",
         testsupport::messageFrames({}, messageHeaders("10", "30", "1"), "abc"),
         kProtocolError,
         "Payload frame holds 3 bytes but \"p_size\" declares 10",
         {kPayloadContext, kDecodeContext + " (MSG)", kDispenserContext}},
        {"PayloadSizeNoNumber",
         testsupport::messageFrames({}, messageHeaders("abc", "30", "1"), "abc"),
         kGeneralException,
         kUnknownError,
         {},
         "stoull"},
        {"HeaderFrameTooLong",
         {kDelimiter, "ACK", kLongHeader, kDelimiter, kDelimiter},
         kProtocolError,
         "Frame too long in section Headers: 157 bytes, at most 100 are allowed outside the "
         "payload",
         {kHeadersContext, kProtocolHeadersContext, kDecodeContext + " (ACK)", kDispenserContext}},
        {"ValidityOutOfRange",
         testsupport::messageFrames({}, messageHeaders("3", "99999999999999999999", "1"), "abc"),
         kGeneralException,
         kUnknownError,
         {},
         "stoll"},
        {"RequestCutShortAfterTheCommand",
         {kDelimiter, "GREG"},
         kProtocolError,
         "Expected more frames. Next section: Headers",
         {kHeadersContext, kProtocolHeadersContext, kDecodeContext + " (GREG)", kDispenserContext}},
    };
}

// The malformed requests published to the client's listener, in turn.
std::vector<Malformed> listenerRequests() {
    return {
        {"TopicOnly",
         {kTopic},
         kProtocolError,
         "Expected more frames. Next section: Routes or delimiter",
         {kListenerContext}},
        {"RegistryOnListener",
         onTopic(testsupport::registryFrames("{}")),
         kProtocolError,
         "Don't expect other types of requests on listener other than Message. Received a "
         "request with wire name: REG",
         {kListenerContext}},
        {"HeaderWithoutSeparator",
         onTopic({kDelimiter, "MSG", kNoSeparator, kDelimiter, "abc"}),
         kProtocolError,
         kNoSeparatorWhat,
         {kHeadersContext, kProtocolHeadersContext, kDecodeContext + " (MSG)", kListenerContext}},
        {"PayloadSizeNoNumber",
         onTopic(testsupport::messageFrames({kTopic}, messageHeaders("abc", "30", "1"), "abc")),
         kGeneralException,
         kUnknownError,
         {},
         "stoull"},
        {"AckModeNoNumber",
         onTopic(testsupport::messageFrames({kTopic}, messageHeaders("3", "30", "x"), "abc")),
         kProtocolError,
         "Ack mode is incorrect for Message. Logic error: stoi",
         {kMessageHeadersContext, kDecodeContext + " (MSG)", kListenerContext}},
        {"ValidityNoNumber",
         onTopic(testsupport::messageFrames({kTopic}, messageHeaders("3", "soon", "1"), "abc")),
         kGeneralException,
         kUnknownError,
         {},
         "stoll"},
    };
}

bool onDispenser(const ReportedError& error) {
    return !error.context.empty() && error.context.back() == kDispenserContext;
}

// The differences between what the handler got and what it should have got.
std::vector<std::string> mismatches(const std::vector<ReportedError>& got,
                                    const std::vector<Malformed>& expected) {
    std::vector<std::string> differences;
    for (std::size_t i = 0; i < std::max(got.size(), expected.size()); ++i) {
        if (i >= got.size()) {
            differences.push_back("missing report of " + expected[i].name);
        } else if (i >= expected.size()) {
            differences.push_back("surplus report: " + got[i].describe());
        } else if (got[i].type != expected[i].type || got[i].what != expected[i].what ||
                   got[i].context != expected[i].context) {
            differences.push_back(expected[i].name + " reported as " + got[i].describe());
        }
    }
    return differences;
}

TEST(FaultTest, MalformedRequestsAmongValidOnesAreEachReportedAndLoseNothingValid) {
    const int rounds = scale().malformedRounds;
    const int every = scale().malformedEvery;
    constexpr auto kReentryPause = 1ms;
    constexpr int kPaceEvery = 50;
    testsupport::TestNode node;
    Client client("malformed-app", node.listenerPort(), node.dispenserPort(), {kTopic});
    ASSERT_TRUE(node.waitForSubscription(kTopic));
    std::mutex deliveredMutex;
    std::map<std::string, int> delivered;
    client.onMessage([&](std::unique_ptr<Message> message) {
        std::lock_guard<std::mutex> guard(deliveredMutex);
        ++delivered[message->msgId()];
    });
    AckBook acks(static_cast<std::size_t>(rounds));
    for (int i = 0; i < rounds; ++i) {
        queueNumbered(client, acks, static_cast<std::size_t>(i));
    }
    AppLoop loop(client, AppLoop::kPassTimeout, kReentryPause);
    std::vector<testsupport::WrittenRequest> written;
    for (int i = 0; i < rounds; ++i) {
        auto request = node.receiveCommand("MSG", kEventLimit);
        ASSERT_TRUE(request.has_value()) << i << " of " << rounds << " written";
        written.push_back(std::move(*request));
    }

    const std::vector<Malformed> dispenserKinds = dispenserRequests();
    const std::vector<Malformed> listenerKinds = listenerRequests();
    std::vector<Malformed> dispenserSent;
    std::vector<Malformed> listenerSent;
    for (int i = 0; i < rounds; ++i) {
        node.sendTo(written[static_cast<std::size_t>(i)].identity,
                    testsupport::ackFrames(written[static_cast<std::size_t>(i)].headers["id"]));
        node.publish(
            onTopic(testsupport::messageFrames("valid-" + std::to_string(i), "valid", {kTopic})));
        if (i % every == every - 1) {
            const std::size_t turn = dispenserSent.size();
            dispenserSent.push_back(dispenserKinds[turn % dispenserKinds.size()]);
            listenerSent.push_back(listenerKinds[turn % listenerKinds.size()]);
            node.sendTo(written[static_cast<std::size_t>(i)].identity, dispenserSent.back().frames);
            node.publish(listenerSent.back().frames);
        }
        if (i % kPaceEvery == kPaceEvery - 1) {
            std::this_thread::sleep_for(1ms);
        }
    }
    const std::size_t malformed = dispenserSent.size() + listenerSent.size();
    const bool allReported = loop.waitForErrors(malformed, kEventLimit);
    const bool allAcknowledged = acks.waitForTotal(rounds, kEventLimit);
    const auto deliveredAll = [&] {
        std::lock_guard<std::mutex> guard(deliveredMutex);
        return delivered.size() >= static_cast<std::size_t>(rounds);
    };
    const auto deadline = Clock::now() + kEventLimit;
    while (!deliveredAll() && Clock::now() < deadline) {
        std::this_thread::sleep_for(10ms);
    }
    std::this_thread::sleep_for(kLinger);
    ASSERT_TRUE(loop.stop());

    // Unknown-error reports carry no context that names their socket, so they
    // are checked apart: as many as were provoked, each followed by its
    // standard exception leaving blockThreadForIO.
    std::vector<ReportedError> dispenserReports;
    std::vector<ReportedError> listenerReports;
    std::size_t unknownReports = 0;
    for (const ReportedError& error : loop.errors()) {
        if (error.type == kGeneralException) {
            ++unknownReports;
            EXPECT_EQ(error.what, kUnknownError);
            EXPECT_TRUE(error.context.empty()) << error.describe();
        } else {
            (onDispenser(error) ? dispenserReports : listenerReports).push_back(error);
        }
    }
    const auto withContext = [](const std::vector<Malformed>& sent) {
        std::vector<Malformed> kept;
        for (const Malformed& request : sent) {
            if (request.escapes.empty()) {
                kept.push_back(request);
            }
        }
        return kept;
    };
    std::multiset<std::string> expectedEscapes;
    for (const auto* sent : {&dispenserSent, &listenerSent}) {
        for (const Malformed& request : *sent) {
            if (!request.escapes.empty()) {
                expectedEscapes.insert(request.escapes);
            }
        }
    }
    const std::vector<std::string> escapedList = loop.escaped();
    const std::multiset<std::string> escaped(escapedList.begin(), escapedList.end());
    EXPECT_TRUE(allReported) << loop.errorCount() << " of " << malformed << " reported";
    for (const std::string& difference : mismatches(dispenserReports, withContext(dispenserSent))) {
        ADD_FAILURE() << "dispenser: " << difference;
    }
    for (const std::string& difference : mismatches(listenerReports, withContext(listenerSent))) {
        ADD_FAILURE() << "listener: " << difference;
    }
    EXPECT_EQ(unknownReports, expectedEscapes.size());
    EXPECT_EQ(escaped, expectedEscapes);
    EXPECT_TRUE(allAcknowledged) << acks.total() << " of " << rounds << " acknowledged";
    const auto [missingAcks, duplicatedAcks] = acks.missingAndDuplicated();
    EXPECT_EQ(missingAcks, 0);
    EXPECT_EQ(duplicatedAcks, 0);
    long missing = 0;
    long duplicated = 0;
    {
        std::lock_guard<std::mutex> guard(deliveredMutex);
        for (int i = 0; i < rounds; ++i) {
            const int count = countOf(delivered, "valid-" + std::to_string(i));
            missing += count == 0 ? 1 : 0;
            duplicated += count > 1 ? 1 : 0;
        }
    }
    EXPECT_EQ(missing, 0);
    EXPECT_EQ(duplicated, 0);

    std::ostringstream text;
    text << rounds << " valid acknowledgements on the dispenser and " << rounds
         << " valid messages on the listener, among them " << dispenserSent.size() << " + "
         << listenerSent.size() << " malformed requests of " << dispenserKinds.size() << " + "
         << listenerKinds.size() << " kinds: reported " << dispenserReports.size() << " + "
         << listenerReports.size() << ", loop entered " << loop.entries()
         << " times, escaped exceptions " << loop.escaped().size() << "; acknowledgements missing "
         << missingAcks << ", duplicated " << duplicatedAcks << "; messages missing " << missing
         << ", duplicated " << duplicated;
    figure("fault", text.str());
}

}  // namespace
}  // namespace stresstest
