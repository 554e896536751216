#include <gtest/gtest.h>
#include <zmq.h>

#include <orviku/exception.hpp>
#include <wxblt/input_selector.hpp>
#include <wxblt/socket.hpp>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "socket_helpers.hpp"
#include "support/child_process.hpp"
#include "support/raw_peer.hpp"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using wxblt::InputSelector;
using wxblt::Socket;
using wxblt::SocketType;
using wxblttest::arrival_timeout;
using wxblttest::portOf;
using wxblttest::waitForInput;

const std::string loopback_any_port = "tcp://127.0.0.1:0";
const std::string frame = "input";
const std::string first_name = "first";
const std::string second_name = "second";
const std::string failure_text = "the handler failed";
const std::string handler_line = "while handling input";

// zmq_poll may wake up to a clock tick early.
constexpr auto clock_tolerance = 20ms;
// Generous: a loaded machine may be late to wake a poll, never early.
constexpr auto late_margin = 1500ms;

// A socket under test bound to loopback, with a raw dealer connected to it that
// gives it input on request.
struct Input {
    Input() : socket(SocketType::Dealer), feeder(ZMQ_DEALER) {
        socket.bind(loopback_any_port);
        feeder.connect(testsupport::localhostEndpoint(portOf(socket.lastEndpoint())));
    }

    // Sends a frame and waits until the socket has it.
    bool give() {
        feeder.sendFrame(frame, false);
        return waitForInput(socket, arrival_timeout);
    }

    Socket socket;
    testsupport::RawPeer feeder;
};

using Entries = std::vector<std::pair<Socket*, InputSelector::Handler>>;

// The result of selector->run(timeout), run on a thread of its own so that a
// run that ignores its timeout fails the test instead of hanging it; nothing
// when the run did not end within the timeout and a generous margin. `keep`
// holds what the run's sockets belong to, in case the run is left behind.
template <typename Keep>
std::optional<bool> runWithin(Keep keep, std::shared_ptr<InputSelector> selector,
                              std::chrono::milliseconds timeout) {
    return wxblttest::callWithin<bool>(
        timeout + late_margin, [keep, selector, timeout] { return selector->run(timeout); });
}

// An exception type of an application, unknown to the library.
struct HandlerFailure {
    int code;
};

TEST(InputSelectorTest, RunWithoutInputReturnsFalse) {
    auto input = std::make_shared<Input>();
    auto selector = std::make_shared<InputSelector>(Entries{{&input->socket, [](Socket*) {}}});

    const std::optional<bool> ran = runWithin(input, selector, 100ms);

    EXPECT_EQ(ran, false);
}

TEST(InputSelectorTest, RunWithoutInputWaitsForTheTimeout) {
    constexpr auto timeout = 300ms;
    auto input = std::make_shared<Input>();
    auto selector = std::make_shared<InputSelector>(Entries{{&input->socket, [](Socket*) {}}});

    const auto start = Clock::now();
    const std::optional<bool> ran = runWithin(input, selector, timeout);
    const auto elapsed = Clock::now() - start;

    ASSERT_TRUE(ran.has_value()) << "the run did not end";
    EXPECT_GE(elapsed, timeout - clock_tolerance);
    EXPECT_LT(elapsed, timeout + late_margin);
}

TEST(InputSelectorTest, RunWithoutInputCallsNoHandler) {
    auto first = std::make_shared<Input>();
    auto second = std::make_shared<Input>();
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto selector = std::make_shared<InputSelector>(Entries{
        {&first->socket, [calls](Socket*) { ++*calls; }},
        {&second->socket, [calls](Socket*) { ++*calls; }},
    });

    const std::optional<bool> ran = runWithin(std::make_pair(first, second), selector, 100ms);

    ASSERT_TRUE(ran.has_value()) << "the run did not end";
    EXPECT_EQ(calls->load(), 0);
}

TEST(InputSelectorTest, RunWithInputReturnsTrue) {
    Input input;
    InputSelector selector({{&input.socket, [](Socket*) {}}});
    ASSERT_TRUE(input.give());

    EXPECT_TRUE(selector.run(arrival_timeout));
}

TEST(InputSelectorTest, RunWithInputReturnsWithoutWaitingForTheTimeout) {
    Input input;
    InputSelector selector({{&input.socket, [](Socket*) {}}});
    ASSERT_TRUE(input.give());

    const auto start = Clock::now();
    selector.run(10s);
    const auto elapsed = Clock::now() - start;

    EXPECT_LT(elapsed, late_margin);
}

TEST(InputSelectorTest, RunPassesTheSocketWithInputToItsHandler) {
    Input first;
    Input second;
    Socket* passed = nullptr;
    InputSelector selector({
        {&first.socket, [](Socket*) {}},
        {&second.socket, [&](Socket* socket) { passed = socket; }},
    });
    ASSERT_TRUE(second.give());

    selector.run(arrival_timeout);

    EXPECT_EQ(passed, &second.socket);
}

TEST(InputSelectorTest, RunCallsTheHandlerOfEverySocketWithInputOnce) {
    Input first;
    Input second;
    int firstCalls = 0;
    int secondCalls = 0;
    InputSelector selector({
        {&first.socket, [&](Socket*) { ++firstCalls; }},
        {&second.socket, [&](Socket*) { ++secondCalls; }},
    });
    ASSERT_TRUE(first.give());
    ASSERT_TRUE(second.give());

    selector.run(arrival_timeout);

    EXPECT_EQ(firstCalls, 1);
    EXPECT_EQ(secondCalls, 1);
}

TEST(InputSelectorTest, RunCallsHandlersInTheOrderGivenAtConstruction) {
    Input first;
    Input second;
    std::vector<std::string> calls;
    // Listed second-first, with input arriving first-first: the order of the
    // calls must follow the list, not the arrival.
    InputSelector selector({
        {&second.socket, [&](Socket*) { calls.push_back(second_name); }},
        {&first.socket, [&](Socket*) { calls.push_back(first_name); }},
    });
    ASSERT_TRUE(first.give());
    ASSERT_TRUE(second.give());

    selector.run(arrival_timeout);

    EXPECT_EQ(calls, (std::vector<std::string>{second_name, first_name}));
}

TEST(InputSelectorTest, RunDoesNotCallTheHandlerOfASocketWithoutInput) {
    Input first;
    Input second;
    std::vector<std::string> calls;
    InputSelector selector({
        {&first.socket, [&](Socket*) { calls.push_back(first_name); }},
        {&second.socket, [&](Socket*) { calls.push_back(second_name); }},
    });
    ASSERT_TRUE(second.give());

    selector.run(arrival_timeout);

    EXPECT_EQ(calls, std::vector<std::string>{second_name});
}

TEST(InputSelectorTest, HandlerStandardExceptionPassesOutUnchanged) {
    Input input;
    InputSelector selector(
        {{&input.socket, [](Socket*) { throw std::runtime_error(failure_text); }}});
    ASSERT_TRUE(input.give());
    std::string what;

    try {
        selector.run(arrival_timeout);
    } catch (const std::runtime_error& error) {
        what = error.what();
    } catch (...) {
    }

    EXPECT_EQ(what, failure_text);
}

TEST(InputSelectorTest, HandlerExceptionOfAnyTypePassesOutUnchanged) {
    Input input;
    InputSelector selector({{&input.socket, [](Socket*) { throw HandlerFailure{42}; }}});
    ASSERT_TRUE(input.give());
    int code = 0;

    try {
        selector.run(arrival_timeout);
    } catch (const HandlerFailure& failure) {
        code = failure.code;
    } catch (...) {
    }

    EXPECT_EQ(code, 42);
}

TEST(InputSelectorTest, HandlerOrvikuExceptionPassesOutWithItsTypeAndContext) {
    Input input;
    InputSelector selector({{&input.socket, [](Socket*) {
                                 orviku::GeneralException error(failure_text);
                                 error.addContext(handler_line);
                                 throw error;
                             }}});
    ASSERT_TRUE(input.give());
    std::string what;
    std::vector<std::string> context;

    try {
        selector.run(arrival_timeout);
    } catch (const orviku::GeneralException& error) {
        what = error.what();
        context = error.context();
    } catch (...) {
    }

    EXPECT_EQ(what, failure_text);
    EXPECT_EQ(context, std::vector<std::string>{handler_line});
}

TEST(InputSelectorTest, HandlerExceptionStopsTheRunBeforeLaterHandlers) {
    Input first;
    Input second;
    bool secondCalled = false;
    InputSelector selector({
        {&first.socket, [](Socket*) { throw HandlerFailure{1}; }},
        {&second.socket, [&](Socket*) { secondCalled = true; }},
    });
    ASSERT_TRUE(first.give());
    ASSERT_TRUE(second.give());

    try {
        selector.run(arrival_timeout);
    } catch (const HandlerFailure&) {
    }

    EXPECT_FALSE(secondCalled);
}

TEST(InputSelectorTest, RunSeesASocketMovedAfterConstructionThroughItsPointer) {
    Input input;
    Socket target(SocketType::Dealer);
    Socket* passed = nullptr;
    InputSelector selector({{&target, [&](Socket* socket) { passed = socket; }}});
    target = std::move(input.socket);
    input.feeder.sendFrame(frame, false);
    ASSERT_TRUE(waitForInput(target, arrival_timeout));

    const bool ran = selector.run(arrival_timeout);

    EXPECT_TRUE(ran);
    EXPECT_EQ(passed, &target);
}

// A wait without end would leave a loop that waits for input unstoppable: a
// negative timeout looks for input without waiting. The run happens in a
// child process, which is killed if it waits all the same.
TEST(InputSelectorTest, RunWithNegativeTimeoutReturnsAtOnceWithoutInput) {
    if (testsupport::inChild()) {
        Input input;
        bool handled = false;
        InputSelector selector({{&input.socket, [&](Socket*) { handled = true; }}});
        const Clock::time_point start = Clock::now();

        const bool ran = selector.run(std::chrono::milliseconds(-1));

        const bool atOnce = Clock::now() - start < late_margin;
        std::_Exit(!ran && !handled && atOnce ? 0 : 1);
    }

    const testsupport::ChildResult result = testsupport::runCurrentTestInChild(20s);

    EXPECT_FALSE(result.timedOut);
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.exitCode, 0);
}

TEST(InputSelectorTest, RunWithNegativeTimeoutDispatchesInputThatIsThere) {
    Input input;
    bool handled = false;
    auto selector = std::make_shared<InputSelector>(Entries{{&input.socket, [&](Socket* socket) {
                                                                 handled = true;
                                                                 socket->flushMessage();
                                                             }}});
    ASSERT_TRUE(input.give());

    const bool ran = selector->run(std::chrono::milliseconds(-1));

    EXPECT_TRUE(ran);
    EXPECT_TRUE(handled);
}

TEST(InputSelectorTest, RunWithTheMostNegativeTimeoutReturnsAtOnceWithoutInput) {
    Input input;
    auto selector = std::make_shared<InputSelector>(Entries{{&input.socket, [](Socket*) {}}});

    const std::optional<bool> ran = wxblttest::callWithin<bool>(late_margin, [selector] {
        return selector->run(std::chrono::duration<long, std::milli>::min());
    });

    ASSERT_TRUE(ran);
    EXPECT_FALSE(*ran);
}

// A pair of sockets over inproc, whose sends are in the receiving socket's queue
// when they return: a test can then know that every request it sent waits
// before a run starts (over TCP some could still be on the way).
struct QueuedInput {
    explicit QueuedInput(const std::string& name, bool readAhead = true)
        : socket(SocketType::Dealer), feeder(SocketType::Dealer) {
        socket.bind("inproc://" + name);
        socket.setReadAhead(readAhead);
        feeder.connect("inproc://" + name);
    }

    // Queues `count` one-frame requests, numbered from 0.
    void give(int count) {
        for (int i = 0; i < count; ++i) {
            feeder.send(std::to_string(i), false);
        }
    }

    Socket socket;
    Socket feeder;
};

// A handler that reads one request of one frame and notes its text.
InputSelector::Handler readingOne(std::vector<std::string>& seen, const std::string& name = "") {
    return [&seen, name](Socket* socket) {
        char buffer[16];
        const unsigned size = socket->recv(buffer, sizeof buffer);
        seen.push_back(name + std::string(buffer, size));
    };
}

TEST(InputSelectorTest, RunWithABoundDispatchesEveryQueuedRequestInOneRun) {
    QueuedInput input("selector-queued");
    std::vector<std::string> seen;
    InputSelector selector({{&input.socket, readingOne(seen)}}, 64);
    input.give(5);

    const bool ran = selector.run(arrival_timeout);

    EXPECT_TRUE(ran);
    EXPECT_EQ(seen, (std::vector<std::string>{"0", "1", "2", "3", "4"}));
}

TEST(InputSelectorTest, RunWithABoundDispatchesEveryQueuedRequestWithoutReadAhead) {
    QueuedInput input("selector-queued-events", false);
    std::vector<std::string> seen;
    InputSelector selector({{&input.socket, readingOne(seen)}}, 64);
    input.give(5);

    selector.run(arrival_timeout);

    EXPECT_EQ(seen, (std::vector<std::string>{"0", "1", "2", "3", "4"}));
    EXPECT_FALSE(input.socket.hasFrameAhead());
}

TEST(InputSelectorTest, RunCallsAHandlerAtMostTheBoundTimes) {
    QueuedInput input("selector-bound");
    std::vector<std::string> seen;
    InputSelector selector({{&input.socket, readingOne(seen)}}, 3);
    input.give(5);

    selector.run(arrival_timeout);

    EXPECT_EQ(seen, (std::vector<std::string>{"0", "1", "2"}));
}

TEST(InputSelectorTest, TheNextRunGoesOnWhereTheBoundStoppedTheLastOne) {
    QueuedInput input("selector-bound-next");
    std::vector<std::string> seen;
    InputSelector selector({{&input.socket, readingOne(seen)}}, 3);
    input.give(5);
    selector.run(arrival_timeout);
    seen.clear();

    selector.run(arrival_timeout);

    EXPECT_EQ(seen, (std::vector<std::string>{"3", "4"}));
}

TEST(InputSelectorTest, RunWithABoundTakesBusySocketsInTurns) {
    QueuedInput first("selector-turns-first");
    QueuedInput second("selector-turns-second");
    std::vector<std::string> seen;
    InputSelector selector({{&first.socket, readingOne(seen, first_name)},
                            {&second.socket, readingOne(seen, second_name)}},
                           64);
    first.give(3);
    second.give(2);

    selector.run(arrival_timeout);

    EXPECT_EQ(seen, (std::vector<std::string>{first_name + "0", second_name + "0", first_name + "1",
                                              second_name + "1", first_name + "2"}));
}

TEST(InputSelectorTest, WithoutABoundRunCallsAHandlerOnceEvenWithMoreQueued) {
    QueuedInput input("selector-once");
    std::vector<std::string> seen;
    InputSelector selector({{&input.socket, readingOne(seen)}});
    input.give(3);

    selector.run(arrival_timeout);

    EXPECT_EQ(seen, std::vector<std::string>{"0"});
}

// A handler that leaves its input unread makes the run receive that input
// ahead; the next run must not wait for input that is already there.
TEST(InputSelectorTest, AFrameReceivedAheadIsDispatchedByTheNextRunWithoutWaiting) {
    QueuedInput input("selector-ahead");
    int calls = 0;
    InputSelector idle({{&input.socket, [&](Socket*) { ++calls; }}}, 2);
    std::vector<std::string> seen;
    InputSelector reading({{&input.socket, readingOne(seen)}});
    input.give(1);
    idle.run(arrival_timeout);
    ASSERT_TRUE(input.socket.hasFrameAhead());

    const auto start = Clock::now();
    const bool ran = reading.run(10s);
    const auto elapsed = Clock::now() - start;

    EXPECT_TRUE(ran);
    EXPECT_EQ(seen, std::vector<std::string>{"0"});
    EXPECT_LT(elapsed, late_margin);
}

}  // namespace
