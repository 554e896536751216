#include <gtest/gtest.h>
#include <zmq.h>

#include <wxblt/exception.hpp>
#include <wxblt/socket.hpp>

#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "socket_helpers.hpp"
#include "support/raw_peer.hpp"

namespace {

using namespace std::chrono_literals;
using testsupport::Frame;
using testsupport::RawPeer;
using wxblt::Socket;
using wxblt::SocketType;
using wxblttest::arrival_timeout;
using wxblttest::portOf;
using wxblttest::receiveFrame;
using wxblttest::waitForInput;

const std::string dealer_identity = "dealer-under-test";
const std::string loopback_any_port = "tcp://127.0.0.1:0";
const std::string loopback_prefix = "tcp://127.0.0.1:";
const std::string first_frame = "first frame";
const std::string second_frame = "second frame";
const std::string third_frame = "third frame";
const std::string zero_bytes_frame("a\0b\0\0c", 6);
const std::string lost_frame = "sent while nobody listened";
const std::string delivered_frame = "sent once the peer was there";
const std::string topic = "t";
const std::string topic_frame = "temperature";
const std::string other_frame = "humidity";
const std::string probe_prefix = "t-probe-";
const std::string peer_identity = "raw-peer";
const std::string unknown_identity = "nobody-by-this-name";
// Large enough that a few fill the connection's buffers; a queue limit shows
// as the number of frames that fit.
const std::string large_frame(512 * 1024, 'x');
constexpr int eagain = 11;
// A queue limit of one lets through only what the connection's buffers hold,
// a few dozen large frames at most; without it ZeroMQ queues 1000 messages.
constexpr int few_large_frames = 100;
// Where counting stops, so that a missing limit fails quickly.
constexpr int max_large_frames = 200;

static_assert(!std::is_copy_constructible_v<Socket>);
static_assert(!std::is_copy_assignable_v<Socket>);
static_assert(std::is_nothrow_move_constructible_v<Socket>);
static_assert(std::is_nothrow_move_assignable_v<Socket>);
static_assert(static_cast<int>(SocketType::Pair) == ZMQ_PAIR);
static_assert(static_cast<int>(SocketType::Pub) == ZMQ_PUB);
static_assert(static_cast<int>(SocketType::Sub) == ZMQ_SUB);
static_assert(static_cast<int>(SocketType::Req) == ZMQ_REQ);
static_assert(static_cast<int>(SocketType::Rep) == ZMQ_REP);
static_assert(static_cast<int>(SocketType::Dealer) == ZMQ_DEALER);
static_assert(static_cast<int>(SocketType::Router) == ZMQ_ROUTER);

// A dealer under test, with its identity set, connected to a raw router bound
// to loopback: what the dealer sends, the router receives after the identity.
struct OutgoingLink {
    OutgoingLink() : router(ZMQ_ROUTER), port(router.bindLoopback()), dealer(SocketType::Dealer) {
        dealer.setIdentity(dealer_identity);
        dealer.connect(testsupport::localhostEndpoint(port));
    }

    // The frames of the next message after the routing identity.
    std::optional<std::vector<Frame>> receiveAtRouter() {
        auto message = router.receiveMessage(arrival_timeout);
        if (!message || message->empty() || message->front().bytes != dealer_identity) {
            return std::nullopt;
        }
        message->erase(message->begin());
        return message;
    }

    RawPeer router;
    int port;
    Socket dealer;
};

// A dealer under test bound to loopback, with a raw dealer connected to it to
// feed it messages. The raw dealer queues until the connection is up, so what
// it sends arrives without any handshake in the test.
struct IncomingLink {
    IncomingLink() : receiver(SocketType::Dealer), feeder(ZMQ_DEALER) {
        receiver.bind(loopback_any_port);
        feeder.connect(testsupport::localhostEndpoint(portOf(receiver.lastEndpoint())));
    }

    Socket receiver;
    RawPeer feeder;
};

// The errno of a send, 0 when it succeeded.
int sendError(Socket& socket, const std::string& frame) {
    try {
        socket.send(frame, false);
    } catch (const wxblt::Exception& error) {
        return error.errorNumber();
    }
    return 0;
}

// The errno of a send that is expected to fail, 0 when it succeeded, nothing
// when it had not returned within `timeout`. A send that blocks for ever thus
// fails the test instead of hanging it.
std::optional<int> boundedSendError(std::shared_ptr<Socket> socket, const std::string& frame,
                                    std::chrono::milliseconds timeout = arrival_timeout) {
    return wxblttest::callWithin<int>(timeout,
                                      [socket, frame] { return sendError(*socket, frame); });
}

// Publishes numbered probes of the topic until the subscriber has received
// one, then reads up to the last probe sent, so that the subscription is known
// to be in place and nothing of the probes is left in flight.
bool awaitSubscription(RawPeer& publisher, Socket& subscriber,
                       std::chrono::milliseconds timeout = arrival_timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (int probe = 0; std::chrono::steady_clock::now() < deadline; ++probe) {
        const std::string last = probe_prefix + std::to_string(probe);
        publisher.sendFrame(last, false);
        if (waitForInput(subscriber, 20ms)) {
            for (;;) {
                const std::optional<std::string> frame = receiveFrame(subscriber);
                if (!frame) {
                    return false;
                }
                if (*frame == last) {
                    return true;
                }
            }
        }
    }
    return false;
}

TEST(SocketTest, SendCharPointerFramesArriveByteExactWithTheirMoreFlags) {
    OutgoingLink link;

    link.dealer.send(first_frame.data(), static_cast<unsigned>(first_frame.size()), true);
    link.dealer.send(second_frame.data(), static_cast<unsigned>(second_frame.size()), true);
    link.dealer.send(third_frame.data(), static_cast<unsigned>(third_frame.size()), false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{
                                          {first_frame, true},
                                          {second_frame, true},
                                          {third_frame, false},
                                      }));
}

TEST(SocketTest, SendCharPointerSendsExactlySizeBytes) {
    OutgoingLink link;

    link.dealer.send(first_frame.data(), 5, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{first_frame.substr(0, 5), false}}));
}

TEST(SocketTest, SendStringFramesArriveByteExactWithTheirMoreFlags) {
    OutgoingLink link;

    link.dealer.send(first_frame, true);
    link.dealer.send(second_frame, true);
    link.dealer.send(third_frame, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{
                                          {first_frame, true},
                                          {second_frame, true},
                                          {third_frame, false},
                                      }));
}

TEST(SocketTest, SendEmptyFramesArriveAsEmptyFrames) {
    OutgoingLink link;

    link.dealer.send(std::string(), true);
    link.dealer.send(first_frame, true);
    link.dealer.send(nullptr, 0, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{
                                          {std::string(), true},
                                          {first_frame, true},
                                          {std::string(), false},
                                      }));
}

TEST(SocketTest, SendStringKeepsZeroBytesInsideAFrame) {
    OutgoingLink link;

    link.dealer.send(zero_bytes_frame, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{zero_bytes_frame, false}}));
}

TEST(SocketTest, SendCharPointerKeepsZeroBytesInsideAFrame) {
    OutgoingLink link;

    link.dealer.send(zero_bytes_frame.data(), static_cast<unsigned>(zero_bytes_frame.size()),
                     false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{zero_bytes_frame, false}}));
}

TEST(SocketTest, SendCopiesTheBytesBeforeReturning) {
    OutgoingLink link;
    std::string buffer = first_frame;

    link.dealer.send(buffer.data(), static_cast<unsigned>(buffer.size()), false);
    buffer.assign(buffer.size(), '#');

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{first_frame, false}}));
}

TEST(SocketTest, MessagesArriveInTheOrderSent) {
    OutgoingLink link;

    link.dealer.send(first_frame, false);
    link.dealer.send(second_frame, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{first_frame, false}}));
    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{second_frame, false}}));
}

TEST(SocketTest, RouterSeesTheIdentitySetBeforeConnect) {
    OutgoingLink link;

    link.dealer.send(first_frame, false);

    const auto message = link.router.receiveMessage(arrival_timeout);
    ASSERT_TRUE(message.has_value());
    ASSERT_FALSE(message->empty());
    EXPECT_EQ(message->front(), (Frame{dealer_identity, true}));
}

TEST(SocketTest, SendRightAfterConnectToARunningPeerSucceeds) {
    constexpr int attempts = 20;
    int delivered = 0;

    for (int attempt = 0; attempt < attempts; ++attempt) {
        OutgoingLink link;
        const int error = sendError(link.dealer, first_frame);
        EXPECT_EQ(error, 0) << "attempt " << attempt;
        if (error == 0 && link.receiveAtRouter() == std::vector<Frame>{{first_frame, false}}) {
            ++delivered;
        }
    }

    EXPECT_EQ(delivered, attempts);
}

TEST(SocketTest, SendOnADealerWhosePeerIsNotListeningFailsWithEagain) {
    wxblttest::ReservedPort nobody;
    auto dealer = std::make_shared<Socket>(SocketType::Dealer);
    dealer->connect(testsupport::localhostEndpoint(nobody.port()));

    EXPECT_EQ(boundedSendError(dealer, lost_frame), eagain);
}

TEST(SocketTest, SendOnADealerThatNeverConnectedFailsWithEagain) {
    auto dealer = std::make_shared<Socket>(SocketType::Dealer);

    EXPECT_EQ(boundedSendError(dealer, lost_frame), eagain);
}

TEST(SocketTest, SendWithoutAPeerGivesUpWithinTwoSeconds) {
    wxblttest::ReservedPort nobody;
    auto dealer = std::make_shared<Socket>(SocketType::Dealer);
    dealer->connect(testsupport::localhostEndpoint(nobody.port()));

    const std::optional<int> error = boundedSendError(dealer, lost_frame, 2s);

    EXPECT_TRUE(error.has_value());
}

TEST(SocketTest, SendWithoutAPeerIsNotQueuedForAPeerThatComesLater) {
    wxblttest::ReservedPort reserved;
    auto dealer = std::make_shared<Socket>(SocketType::Dealer);
    dealer->setIdentity(dealer_identity);
    dealer->connect(testsupport::localhostEndpoint(reserved.port()));
    ASSERT_EQ(boundedSendError(dealer, lost_frame), eagain);
    reserved.release();
    RawPeer router(ZMQ_ROUTER);
    const std::string endpoint = loopback_prefix + std::to_string(reserved.port());
    ASSERT_EQ(zmq_bind(router.handle(), endpoint.c_str()), 0) << zmq_strerror(zmq_errno());

    // The dealer reconnects on its own; until it has, sends fail.
    const auto deadline = std::chrono::steady_clock::now() + arrival_timeout;
    std::optional<int> error = eagain;
    while (error == eagain && std::chrono::steady_clock::now() < deadline) {
        error = boundedSendError(dealer, delivered_frame);
    }
    ASSERT_EQ(error, 0);

    const auto message = router.receiveMessage(arrival_timeout);
    EXPECT_EQ(message, (std::vector<Frame>{{dealer_identity, true}, {delivered_frame, false}}));
}

TEST(SocketTest, RecvReturnsTheFramesLengthAndBytes) {
    IncomingLink link;
    link.feeder.sendFrame(first_frame, false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    std::vector<char> buffer(64);

    const unsigned length = link.receiver.recv(buffer.data(), static_cast<unsigned>(buffer.size()));

    ASSERT_EQ(length, first_frame.size());
    EXPECT_EQ(std::string(buffer.data(), length), first_frame);
}

TEST(SocketTest, RecvKeepsZeroBytesInsideAFrame) {
    IncomingLink link;
    link.feeder.sendFrame(zero_bytes_frame, false);

    EXPECT_EQ(receiveFrame(link.receiver), zero_bytes_frame);
}

TEST(SocketTest, RecvNeverWritesPastTheGivenSize) {
    constexpr char guard = static_cast<char>(0xA5);
    IncomingLink link;
    link.feeder.sendFrame(std::string(250, 'x'), false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    std::vector<char> buffer(300, guard);

    link.receiver.recv(buffer.data(), 100);

    EXPECT_EQ(std::string(buffer.begin() + 100, buffer.end()), std::string(200, guard));
}

TEST(SocketTest, RecvOfAFrameLargerThanSizeReturnsItsRealLength) {
    IncomingLink link;
    link.feeder.sendFrame(std::string(250, 'x'), false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    std::vector<char> buffer(300);

    const unsigned length = link.receiver.recv(buffer.data(), 100);

    EXPECT_EQ(length, 250u);
}

TEST(SocketTest, RecvOfAFrameLargerThanSizeWritesItsFirstSizeBytes) {
    IncomingLink link;
    std::string frame;
    for (int i = 0; i < 250; ++i) {
        frame += static_cast<char>('a' + i % 26);
    }
    link.feeder.sendFrame(frame, false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    std::vector<char> buffer(300, '#');

    link.receiver.recv(buffer.data(), 100);

    EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 100), frame.substr(0, 100));
}

TEST(SocketTest, RecvOfAnEmptyFrameReturnsZeroAndWritesNothing) {
    constexpr char guard = static_cast<char>(0xA5);
    IncomingLink link;
    link.feeder.sendFrame(std::string(), false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    std::vector<char> buffer(16, guard);

    const unsigned length = link.receiver.recv(buffer.data(), static_cast<unsigned>(buffer.size()));

    EXPECT_EQ(length, 0u);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(16, guard));
}

TEST(SocketTest, RecvWithSizeZeroWritesNothingAndReturnsTheLength) {
    constexpr char guard = static_cast<char>(0xA5);
    IncomingLink link;
    link.feeder.sendFrame(first_frame, false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    std::vector<char> buffer(16, guard);

    const unsigned length = link.receiver.recv(buffer.data(), 0);

    EXPECT_EQ(length, first_frame.size());
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(16, guard));
}

TEST(SocketTest, RecvFrameGivesTheWholeFrameByteExact) {
    std::string frame = std::string(100000, 'y') + zero_bytes_frame;
    IncomingLink link;
    link.feeder.sendFrame(frame, false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    const wxblt::Frame received = link.receiver.recvFrame();

    EXPECT_EQ(std::string(received.data(), received.size()), frame);
}

TEST(SocketTest, RecvFrameOfAnEmptyFrameHasSizeZero) {
    IncomingLink link;
    link.feeder.sendFrame(std::string(), false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    const wxblt::Frame received = link.receiver.recvFrame();

    EXPECT_EQ(received.size(), 0u);
}

TEST(SocketTest, RecvFrameLeavesCheckMoreTrueWhileFramesOfTheMessageRemain) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame});
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    link.receiver.recvFrame();

    EXPECT_TRUE(link.receiver.checkMore());
}

TEST(SocketTest, RecvFrameLeavesCheckMoreFalseAfterTheLastFrame) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame});
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));
    link.receiver.recvFrame();

    link.receiver.recvFrame();

    EXPECT_FALSE(link.receiver.checkMore());
}

TEST(SocketTest, CheckMoreIsTrueWhileFramesOfTheMessageRemain) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame, third_frame});
    std::vector<bool> more;

    ASSERT_EQ(receiveFrame(link.receiver), first_frame);
    more.push_back(link.receiver.checkMore());
    ASSERT_EQ(receiveFrame(link.receiver), second_frame);
    more.push_back(link.receiver.checkMore());

    EXPECT_EQ(more, (std::vector<bool>{true, true}));
}

TEST(SocketTest, CheckMoreIsFalseAfterTheLastFrame) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame});
    link.feeder.sendMessage({third_frame});
    ASSERT_EQ(receiveFrame(link.receiver), first_frame);
    ASSERT_EQ(receiveFrame(link.receiver), second_frame);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    EXPECT_FALSE(link.receiver.checkMore());
}

TEST(SocketTest, CheckMoreIsFalseAfterASingleFrameMessage) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame});

    ASSERT_EQ(receiveFrame(link.receiver), first_frame);

    EXPECT_FALSE(link.receiver.checkMore());
}

TEST(SocketTest, FlushMessageDropsTheRestOfTheCurrentMessage) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame, third_frame});
    link.feeder.sendMessage({delivered_frame, lost_frame});
    ASSERT_EQ(receiveFrame(link.receiver), first_frame);

    link.receiver.flushMessage();

    EXPECT_EQ(receiveFrame(link.receiver), delivered_frame);
}

TEST(SocketTest, FlushMessageLeavesNoMoreFlagBehind) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame, third_frame});
    ASSERT_EQ(receiveFrame(link.receiver), first_frame);

    link.receiver.flushMessage();

    EXPECT_FALSE(link.receiver.checkMore());
}

TEST(SocketTest, FlushMessageAfterTheLastFrameLeavesTheNextMessageAlone) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame});
    link.feeder.sendMessage({second_frame, third_frame});
    ASSERT_EQ(receiveFrame(link.receiver), first_frame);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    link.receiver.flushMessage();

    EXPECT_EQ(receiveFrame(link.receiver), second_frame);
}

TEST(SocketTest, FlushMessageBeforeAnyReceiveLeavesTheNextMessageAlone) {
    IncomingLink link;
    link.feeder.sendMessage({first_frame, second_frame});
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    link.receiver.flushMessage();

    EXPECT_EQ(receiveFrame(link.receiver), first_frame);
}

TEST(SocketTest, HasInputIsFalseWhenNothingArrived) {
    IncomingLink link;

    EXPECT_FALSE(link.receiver.hasInput());
}

TEST(SocketTest, HasInputIsTrueOnceAFrameArrived) {
    IncomingLink link;
    link.feeder.sendFrame(first_frame, false);
    ASSERT_TRUE(waitForInput(link.receiver, arrival_timeout));

    EXPECT_TRUE(link.receiver.hasInput());
}

TEST(SocketTest, BindToPortZeroGivesTheRealPortInLastEndpoint) {
    Socket socket(SocketType::Router);

    socket.bind(loopback_any_port);

    const std::string endpoint = socket.lastEndpoint();
    ASSERT_EQ(endpoint.substr(0, loopback_prefix.size()), loopback_prefix);
    EXPECT_GT(portOf(endpoint), 0);
}

TEST(SocketTest, BoundSocketTalksWithAPeerConnectedThroughLocalhost) {
    Socket bound(SocketType::Dealer);
    bound.bind(loopback_any_port);
    RawPeer peer(ZMQ_DEALER);
    peer.connect(testsupport::localhostEndpoint(portOf(bound.lastEndpoint())));

    peer.sendFrame(first_frame, false);
    const std::optional<std::string> received = receiveFrame(bound);
    bound.send(second_frame, false);

    EXPECT_EQ(received, first_frame);
    EXPECT_EQ(peer.receiveMessage(arrival_timeout), (std::vector<Frame>{{second_frame, false}}));
}

TEST(SocketTest, BindToAPortInUseFailsWithEaddrinuse) {
    Socket first(SocketType::Router);
    first.bind(loopback_any_port);
    Socket second(SocketType::Router);
    int error = 0;

    try {
        second.bind(first.lastEndpoint());
    } catch (const wxblt::Exception& failure) {
        error = failure.errorNumber();
    }

    EXPECT_EQ(error, EADDRINUSE);
}

TEST(SocketTest, RouterSendReachesAConnectedPeerByItsIdentity) {
    Socket router(SocketType::Router);
    router.bind(loopback_any_port);
    RawPeer peer(ZMQ_DEALER);
    peer.setBytesOption(ZMQ_ROUTING_ID, peer_identity);
    peer.connect(testsupport::localhostEndpoint(portOf(router.lastEndpoint())));
    peer.sendFrame(first_frame, false);
    ASSERT_EQ(receiveFrame(router), peer_identity);
    ASSERT_EQ(receiveFrame(router), first_frame);

    router.send(peer_identity, true);
    router.send(second_frame, false);

    EXPECT_EQ(peer.receiveMessage(arrival_timeout), (std::vector<Frame>{{second_frame, false}}));
}

TEST(SocketTest, MandatoryRouterSendToAnUnknownPeerFailsWithEhostunreach) {
    auto router = std::make_shared<Socket>(SocketType::Router);
    router->setRouterMandatory(true);
    router->bind(loopback_any_port);

    const auto error = wxblttest::callWithin<int>(arrival_timeout, [router] {
        try {
            router->send(unknown_identity, true);
            router->send(first_frame, false);
        } catch (const wxblt::Exception& failure) {
            return failure.errorNumber();
        }
        return 0;
    });

    EXPECT_EQ(error, EHOSTUNREACH);
}

TEST(SocketTest, RouterThatIsNotMandatoryDropsASendToAnUnknownPeer) {
    auto router = std::make_shared<Socket>(SocketType::Router);
    router->setRouterMandatory(false);
    router->bind(loopback_any_port);

    const auto error = wxblttest::callWithin<int>(arrival_timeout, [router] {
        try {
            router->send(unknown_identity, true);
            router->send(first_frame, false);
        } catch (const wxblt::Exception& failure) {
            return failure.errorNumber();
        }
        return 0;
    });

    EXPECT_EQ(error, 0);
}

TEST(SocketTest, SendHighWaterMarkOfOneLetsOnlyAFewFramesQueueForAPeerThatDoesNotRead) {
    RawPeer silent(ZMQ_ROUTER);
    silent.setIntOption(ZMQ_RCVHWM, 1);
    const int port = silent.bindLoopback();
    auto dealer = std::make_shared<Socket>(SocketType::Dealer);
    dealer->setSendHighWaterMark(1);
    dealer->connect(testsupport::localhostEndpoint(port));

    const auto sent = wxblttest::callWithin<int>(30s, [dealer] {
        int count = 0;
        while (count < max_large_frames && sendError(*dealer, large_frame) == 0) {
            ++count;
        }
        return count;
    });

    ASSERT_TRUE(sent.has_value());
    EXPECT_GT(*sent, 0);
    EXPECT_LT(*sent, few_large_frames);
}

TEST(SocketTest, ReceiveHighWaterMarkOfOneTakesOnlyAFewFramesFromAPeerThatSends) {
    Socket receiver(SocketType::Dealer);
    receiver.setReceiveHighWaterMark(1);
    receiver.bind(loopback_any_port);
    RawPeer feeder(ZMQ_DEALER);
    feeder.setIntOption(ZMQ_SNDHWM, 1);
    feeder.setIntOption(ZMQ_SNDTIMEO, 200);
    feeder.connect(testsupport::localhostEndpoint(portOf(receiver.lastEndpoint())));
    feeder.sendFrame(first_frame, false);
    ASSERT_EQ(receiveFrame(receiver), first_frame);

    int sent = 0;
    try {
        while (sent < max_large_frames) {
            feeder.sendFrame(large_frame, false);
            ++sent;
        }
    } catch (const std::runtime_error&) {
    }

    EXPECT_LT(sent, few_large_frames);
}

TEST(SocketTest, SubscribeDeliversMessagesWhoseFirstFrameStartsWithTheTopic) {
    RawPeer publisher(ZMQ_PUB);
    Socket subscriber(SocketType::Sub);
    subscriber.connect(testsupport::localhostEndpoint(publisher.bindLoopback()));

    subscriber.subscribe(topic);

    ASSERT_TRUE(awaitSubscription(publisher, subscriber));
    publisher.sendMessage({topic_frame, second_frame});
    EXPECT_EQ(receiveFrame(subscriber), topic_frame);
    EXPECT_EQ(receiveFrame(subscriber), second_frame);
}

TEST(SocketTest, SubscribeLeavesOutMessagesWhoseFirstFrameHasAnotherStart) {
    RawPeer publisher(ZMQ_PUB);
    Socket subscriber(SocketType::Sub);
    subscriber.connect(testsupport::localhostEndpoint(publisher.bindLoopback()));

    subscriber.subscribe(topic);

    ASSERT_TRUE(awaitSubscription(publisher, subscriber));
    publisher.sendMessage({other_frame, second_frame});
    publisher.sendMessage({topic_frame});
    // Messages of one publisher arrive in order: had the other message come
    // through, it would be the first one here.
    EXPECT_EQ(receiveFrame(subscriber), topic_frame);
}

TEST(SocketTest, SubscriberWithoutSubscriptionReceivesNothing) {
    RawPeer publisher(ZMQ_PUB);
    Socket subscriber(SocketType::Sub);
    subscriber.connect(testsupport::localhostEndpoint(publisher.bindLoopback()));

    const bool subscribed = awaitSubscription(publisher, subscriber, 1s);

    EXPECT_FALSE(subscribed);
}

TEST(SocketTest, MoveConstructedSocketKeepsTheConnection) {
    OutgoingLink link;

    Socket moved(std::move(link.dealer));
    moved.send(first_frame, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{first_frame, false}}));
}

TEST(SocketTest, MoveAssignedSocketKeepsTheConnection) {
    OutgoingLink link;
    Socket target(SocketType::Sub);

    target = std::move(link.dealer);
    target.send(first_frame, false);

    EXPECT_EQ(link.receiveAtRouter(), (std::vector<Frame>{{first_frame, false}}));
}

TEST(SocketTest, MoveKeepsTheSocketType) {
    Socket source(SocketType::Router);

    const Socket moved(std::move(source));

    EXPECT_EQ(moved.type(), SocketType::Router);
}

TEST(SocketTest, DestroyingAMovedFromSocketLeavesTheMovedToSocketWorking) {
    RawPeer router(ZMQ_ROUTER);
    const int port = router.bindLoopback();
    std::optional<Socket> source(std::in_place, SocketType::Dealer);
    source->setIdentity(dealer_identity);
    source->connect(testsupport::localhostEndpoint(port));
    Socket moved(std::move(*source));

    source.reset();
    moved.send(first_frame, false);

    EXPECT_EQ(router.receiveMessage(arrival_timeout),
              (std::vector<Frame>{{dealer_identity, true}, {first_frame, false}}));
}

TEST(SocketTest, DestroyingAMovedFromSocketAfterMoveAssignmentLeavesTheTargetWorking) {
    RawPeer router(ZMQ_ROUTER);
    const int port = router.bindLoopback();
    std::optional<Socket> source(std::in_place, SocketType::Dealer);
    source->setIdentity(dealer_identity);
    source->connect(testsupport::localhostEndpoint(port));
    Socket target(SocketType::Dealer);
    target = std::move(*source);

    source.reset();
    target.send(first_frame, false);

    EXPECT_EQ(router.receiveMessage(arrival_timeout),
              (std::vector<Frame>{{dealer_identity, true}, {first_frame, false}}));
}

// Read-ahead: a frame received ahead by inputWaiting() is the next one that the
// reading calls see, and the message around it reads as it would without.
struct ReadAheadPair {
    explicit ReadAheadPair(const std::string& name)
        : reader(SocketType::Dealer), writer(SocketType::Dealer) {
        reader.bind("inproc://" + name);
        reader.setReadAhead(true);
        writer.connect("inproc://" + name);
    }
    Socket reader;
    Socket writer;
};

TEST(SocketTest, InputWaitingWithReadAheadFindsAQueuedFrame) {
    ReadAheadPair pair("read-ahead-finds");
    pair.writer.send(first_frame, false);

    EXPECT_TRUE(pair.reader.inputWaiting());
    EXPECT_TRUE(pair.reader.hasFrameAhead());
}

TEST(SocketTest, InputWaitingWithReadAheadIsFalseWithoutInput) {
    ReadAheadPair pair("read-ahead-none");

    EXPECT_FALSE(pair.reader.inputWaiting());
    EXPECT_FALSE(pair.reader.hasFrameAhead());
}

TEST(SocketTest, RecvReturnsTheFrameReceivedAheadThenTheRestOfItsMessage) {
    ReadAheadPair pair("read-ahead-recv");
    pair.writer.send(first_frame, true);
    pair.writer.send(second_frame, false);
    ASSERT_TRUE(pair.reader.inputWaiting());
    char buffer[64];

    const unsigned firstSize = pair.reader.recv(buffer, sizeof buffer);
    const std::string first(buffer, firstSize);
    const bool moreAfterFirst = pair.reader.checkMore();
    const unsigned secondSize = pair.reader.recv(buffer, sizeof buffer);
    const std::string second(buffer, secondSize);

    EXPECT_EQ(first, first_frame);
    EXPECT_TRUE(moreAfterFirst);
    EXPECT_EQ(second, second_frame);
    EXPECT_FALSE(pair.reader.checkMore());
    EXPECT_FALSE(pair.reader.hasFrameAhead());
}

TEST(SocketTest, RecvFrameReturnsTheFrameReceivedAhead) {
    ReadAheadPair pair("read-ahead-frame");
    pair.writer.send(first_frame, false);
    ASSERT_TRUE(pair.reader.inputWaiting());

    const wxblt::Frame frame = pair.reader.recvFrame();

    EXPECT_EQ(std::string(frame.data(), frame.size()), first_frame);
}

TEST(SocketTest, WhileAFrameWaitsAheadTheMessageReadBeforeItHasNoMore) {
    ReadAheadPair pair("read-ahead-more");
    pair.writer.send(first_frame, false);
    pair.writer.send(second_frame, true);
    pair.writer.send(first_frame, false);
    char buffer[64];
    pair.reader.recv(buffer, sizeof buffer);
    ASSERT_TRUE(pair.reader.inputWaiting());

    EXPECT_FALSE(pair.reader.checkMore());
}

TEST(SocketTest, FlushMessageKeepsTheFrameReceivedAhead) {
    ReadAheadPair pair("read-ahead-flush");
    pair.writer.send(first_frame, false);
    ASSERT_TRUE(pair.reader.inputWaiting());
    char buffer[64];

    pair.reader.flushMessage();
    const unsigned size = pair.reader.recv(buffer, sizeof buffer);

    EXPECT_EQ(std::string(buffer, size), first_frame);
}

TEST(SocketTest, InputWaitingSeesTheUnreadRestOfAMessageWithoutReceivingIt) {
    ReadAheadPair pair("read-ahead-rest");
    pair.writer.send(first_frame, true);
    pair.writer.send(second_frame, false);
    char buffer[64];
    pair.reader.recv(buffer, sizeof buffer);

    EXPECT_TRUE(pair.reader.inputWaiting());
    EXPECT_FALSE(pair.reader.hasFrameAhead());
    EXPECT_TRUE(pair.reader.checkMore());
}

TEST(SocketTest, AMovedSocketKeepsItsFrameReceivedAhead) {
    ReadAheadPair pair("read-ahead-move");
    pair.writer.send(first_frame, false);
    ASSERT_TRUE(pair.reader.inputWaiting());
    char buffer[64];

    Socket moved(std::move(pair.reader));
    const unsigned size = moved.recv(buffer, sizeof buffer);

    EXPECT_EQ(std::string(buffer, size), first_frame);
}

}  // namespace
