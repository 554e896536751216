// orvik send against orvik-devnode, a library subscriber checking what
// arrived, and a raw router that never acknowledges.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "orvik_fixture.hpp"
#include "support/raw_peer.hpp"
#include "support/reserved_port.hpp"
#include "support/resident_memory.hpp"

namespace orviktest {
namespace {

using devnodetest::ReceivedMessage;
using devnodetest::Recorder;

const std::string kSentOne = "sent 1, acknowledged 1";
const std::string kSentNone = "sent 0, acknowledged 0";
const std::string kRoute = "news";
const std::string kNotAvailable = "Orvik Node is not available";
const std::string kBinary("\xff\x00\x01payload\n\x80", 12);
const std::string kReadingInput = "orvik send: reading the payload from standard input";
const std::string kReadingInterrupted = "interrupted while reading standard input (nothing sent)";
// How soon Ctrl-C ends any wait of orvik send.
constexpr auto kStopLimit = 1s;
const std::regex kSummary("sent (\\d+), acknowledged (\\d+)");

// A library client subscribed to kRoute whose messages go to inbox(), and
// through which the subscription is known to have reached the node.
class OrvikSendTest : public OrvikTest {
protected:
    void SetUp() override {
        OrvikTest::SetUp();
        _subscriber = std::make_unique<orvikm::Client>(
            "orvik-test-subscriber", node().listenerPort(), node().dispenserPort(),
            std::vector<std::string>{kRoute});
        devnodetest::recordMessages(*_subscriber, _inbox);
        _prober =
            std::make_unique<orvikm::Client>("orvik-test-prober", node().listenerPort(),
                                             node().dispenserPort(), std::vector<std::string>{});
        _subscriberLoop = std::make_unique<devnodetest::ClientLoop>(*_subscriber);
        _proberLoop = std::make_unique<devnodetest::ClientLoop>(*_prober);
        ASSERT_TRUE(devnodetest::probeUntilDelivered(*_prober, _inbox, kRoute, kEventLimit));
    }

    void TearDown() override {
        _proberLoop.reset();
        _subscriberLoop.reset();
    }

    // The first message with this id that reached the subscriber.
    std::optional<ReceivedMessage> arrived(const std::string& id) {
        std::optional<ReceivedMessage> found;
        _inbox.waitUntil(
            [&](const std::vector<ReceivedMessage>& messages) {
                for (const ReceivedMessage& message : messages) {
                    if (message.id == id) {
                        found = message;
                        return true;
                    }
                }
                return false;
            },
            kEventLimit);
        return found;
    }

private:
    Recorder<ReceivedMessage> _inbox;
    std::unique_ptr<orvikm::Client> _subscriber;
    std::unique_ptr<orvikm::Client> _prober;
    std::unique_ptr<devnodetest::ClientLoop> _subscriberLoop;
    std::unique_ptr<devnodetest::ClientLoop> _proberLoop;
};

TEST_F(OrvikSendTest, SendWaitsForTheAcknowledgementAndEndsWithTheSummaryLine) {
    const Finished sent = runOrvik(withPorts({"send", "-v", "-r", kRoute, "hello"}));

    ASSERT_TRUE(sent.status.exited);
    EXPECT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_EQ(lastLine(sent), kSentOne);
    const std::vector<std::string> ids = queuedIds(sent.error);
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_NE(sent.error.find("orvik send: acknowledged " + ids[0]), std::string::npos);
}

TEST_F(OrvikSendTest, DataArrivesWithTheGivenTypeValidityAckModeAndRoutes) {
    const Finished sent = runOrvik(
        withPorts({"send", "-v", "-r", kRoute, "-r", "other", "-t", "text/x-note", "--valid-for",
                   "42", "--ack", "receivers", "--app-id", "note-sender", "hello"}));

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    const std::vector<std::string> ids = queuedIds(sent.error);
    ASSERT_EQ(ids.size(), 1u);
    const std::optional<ReceivedMessage> message = arrived(ids[0]);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->payload, "hello");
    EXPECT_EQ(message->type, "text/x-note");
    EXPECT_EQ(message->validFor, std::chrono::seconds(42));
    EXPECT_EQ(message->ackMode, orvikm::Message::AckMode::ByReceivers);
    EXPECT_EQ(message->appId, "note-sender");
    EXPECT_EQ(message->routes, (std::list<std::string>{kRoute, "other"}));
}

TEST_F(OrvikSendTest, DefaultsAreTextPlainSixtySecondsAndAcknowledgementByTheNode) {
    const Finished sent = runOrvik(withPorts({"send", "-v", "-r", kRoute, "plain"}));

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    const std::optional<ReceivedMessage> message = arrived(queuedIds(sent.error).at(0));
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->type, "text/plain");
    EXPECT_EQ(message->validFor, std::chrono::seconds(60));
    EXPECT_EQ(message->ackMode, orvikm::Message::AckMode::ByNode);
}

TEST_F(OrvikSendTest, PayloadFromStandardInputArrivesByteForByte) {
    const Finished sent = runOrvik(withPorts({"send", "-v", "-r", kRoute, "-"}), {}, kBinary);

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_EQ(lastLine(sent), kSentOne);
    const std::optional<ReceivedMessage> message = arrived(queuedIds(sent.error).at(0));
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->payload, kBinary);
}

TEST_F(OrvikSendTest, PayloadFromAFileArrivesByteForByte) {
    const std::string path = ::testing::TempDir() + "orvik_send_payload.bin";
    std::ofstream(path, std::ios::binary) << kBinary;

    const Finished sent = runOrvik(withPorts({"send", "-v", "-r", kRoute, "-f", path}));
    std::remove(path.c_str());

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    const std::optional<ReceivedMessage> message = arrived(queuedIds(sent.error).at(0));
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->payload, kBinary);
}

TEST_F(OrvikSendTest, CountSendsThatManyMessagesEachWithItsOwnId) {
    const Finished sent = runOrvik(withPorts({"send", "-v", "-n", "5", "-r", kRoute, "again"}));

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_EQ(lastLine(sent), "sent 5, acknowledged 5");
    const std::vector<std::string> ids = queuedIds(sent.error);
    ASSERT_EQ(ids.size(), 5u);
    for (const std::string& id : ids) {
        EXPECT_EQ(logLinesContaining("MSG " + id), 1u) << id;
    }
}

TEST_F(OrvikSendTest, AckNoneEndsOnceTheMessagesAreWritten) {
    const Finished sent =
        runOrvik(withPorts({"send", "--ack", "none", "-n", "2", "-r", kRoute, "fire"}));

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_EQ(lastLine(sent), "sent 2, acknowledged 0");
}

TEST_F(OrvikSendTest, AClosedStandardOutputCostsOnlyTheSummaryLine) {
    OrvikCommand command(withPorts({"send", "-v", "-r", kRoute, "unseen summary"}), {},
                         outputReadFor(0));
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik send did not end";
    ASSERT_TRUE(status->exited) << "ended by signal " << status->signal;
    EXPECT_EQ(status->code, 0) << command.standardError();
    const std::vector<std::string> ids = queuedIds(command.standardError());
    ASSERT_EQ(ids.size(), 1u);
    EXPECT_TRUE(arrived(ids[0]).has_value());
}

TEST_F(OrvikSendTest, PortsComeFromTheEnvironment) {
    const Finished sent = runOrvik(
        {"send", "-r", kRoute, "from-env"},
        {"ORVIK_LISTENER_PORT=" + listenerPort(), "ORVIK_DISPENSER_PORT=" + dispenserPort()});

    EXPECT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_EQ(lastLine(sent), kSentOne);
}

TEST_F(OrvikSendTest, CommandLinePortsTakePrecedenceOverTheEnvironment) {
    const testsupport::ReservedPort nobody;
    const std::string elsewhere = std::to_string(nobody.port());

    const Finished sent =
        runOrvik({"send", "-r", kRoute, "-l", listenerPort(), "-d", dispenserPort(), "override"},
                 {"ORVIK_LISTENER_PORT=" + elsewhere, "ORVIK_DISPENSER_PORT=" + elsewhere});

    EXPECT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_EQ(lastLine(sent), kSentOne);
}

TEST_F(OrvikSendTest, AppIdIsTheOneTheNodeSees) {
    const Finished sent = runOrvik(withPorts({"--app-id", "cli-test-app", "send", "x"}));

    ASSERT_EQ(sent.status.code, 0) << sent.error;
    EXPECT_GE(logLinesContaining("from cli-test-app|disp"), 1u);
}

TEST_F(OrvikSendTest, DefaultAppIdIsOrvikAndTheProcessId) {
    OrvikCommand command(withPorts({"send", "x"}));
    ASSERT_TRUE(command.waitForExit(kRunLimit).has_value());

    EXPECT_GE(logLinesContaining("from orvik-" + std::to_string(command.pid()) + "|disp"), 1u);
}

TEST(OrvikSendAloneTest, AbsentNodeFailsWithinTheDeadlineInTheLibrarysWords) {
    const testsupport::ReservedPort listener;
    const testsupport::ReservedPort dispenser;
    const auto start = std::chrono::steady_clock::now();

    const Finished sent = runOrvik({"send", "-l", std::to_string(listener.port()), "-d",
                                    std::to_string(dispenser.port()), "--timeout", "2", "x"});

    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    ASSERT_TRUE(sent.status.exited);
    EXPECT_EQ(sent.status.code, 1);
    EXPECT_EQ(lastLine(sent), kSentNone);
    EXPECT_EQ(std::count(sent.error.begin(), sent.error.end(), '\n'), 1) << sent.error;
    EXPECT_EQ(sent.error.rfind("orvik send: ", 0), 0u) << sent.error;
    EXPECT_NE(sent.error.find(kNotAvailable), std::string::npos) << sent.error;
}

// A router on the dispenser port that takes every message and never answers.
class SilentNode {
public:
    SilentNode() : _router(ZMQ_ROUTER), _port(_router.bindLoopback()) {}
    std::vector<std::string> ports() const {
        return {"-l", std::to_string(_listener.port()), "-d", std::to_string(_port)};
    }
    // Waits for a "MSG" request.
    bool receivedMessage(std::chrono::milliseconds timeout) {
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (std::chrono::steady_clock::now() < end) {
            const auto frames = _router.receiveMessage(100ms);
            if (frames && frames->size() > 2 && (*frames)[2].bytes == "MSG") {
                return true;
            }
        }
        return false;
    }

private:
    const testsupport::ReservedPort _listener;
    testsupport::RawPeer _router;
    int _port;
};

std::vector<std::string> concat(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(OrvikTest, CtrlCWhileStandardInputIsStillOpenEndsWithTheSummaryAndSendsNothing) {
    OrvikCommand command(withPorts({"send", "-v", "--timeout", "0", "-r", kRoute, "-"}), {},
                         inputLeftOpen("half a payl"));
    ASSERT_TRUE(command.waitForErrorText(kReadingInput, kEventLimit)) << command.standardError();

    command.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = command.waitForExit(kEventLimit);

    ASSERT_TRUE(status.has_value()) << "orvik send did not end after Ctrl-C";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_EQ(command.outputLines(), std::vector<std::string>{kSentNone});
    EXPECT_NE(command.standardError().find("orvik send: " + kReadingInterrupted + "\n"),
              std::string::npos)
        << command.standardError();
    EXPECT_EQ(logLinesContaining("acknowledged and published"), 0u);
}

TEST(OrvikSendAloneTest, MissingAcknowledgementFailsAtTheDeadlineSayingWhatIsLeft) {
    SilentNode silent;
    const auto start = std::chrono::steady_clock::now();

    const Finished sent = runOrvik(concat({"send", "--timeout", "1", "x"}, silent.ports()));

    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_EQ(sent.status.code, 1);
    EXPECT_EQ(lastLine(sent), "sent 1, acknowledged 0");
    EXPECT_EQ(sent.error, "orvik send: deadline passed (0 unwritten, 1 unacknowledged)\n");
}

TEST(OrvikSendAloneTest, CtrlCWhileWaitingForAnAcknowledgementEndsWithTheSummary) {
    SilentNode silent;
    OrvikCommand command(concat({"send", "--timeout", "0", "x"}, silent.ports()));
    ASSERT_TRUE(silent.receivedMessage(kEventLimit));

    command.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_EQ(command.outputLines().back(), "sent 1, acknowledged 0");
    EXPECT_EQ(command.standardError(), "orvik send: interrupted (0 unwritten, 1 unacknowledged)\n");
}

// A FIFO in the test's temporary folder, removed at the end.
class Fifo {
public:
    explicit Fifo(const std::string& name)
        : _path(::testing::TempDir() + name + "_" + std::to_string(::getpid())) {
        std::remove(_path.c_str());
        if (::mkfifo(_path.c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo " + _path);
        }
    }
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;
    ~Fifo() { std::remove(_path.c_str()); }

    const std::string& path() const { return _path; }

    // Opens the FIFO for writing once a reader has it open, writes the bytes
    // and closes it; false when no reader came within `timeout`.
    bool write(const std::string& bytes, std::chrono::milliseconds timeout) const {
        const auto end = std::chrono::steady_clock::now() + timeout;
        int fd = -1;
        while ((fd = ::open(_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
            if (errno != ENXIO || std::chrono::steady_clock::now() >= end) {
                return false;
            }
            std::this_thread::sleep_for(10ms);
        }
        const bool wrote =
            ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
        ::close(fd);
        return wrote;
    }

private:
    std::string _path;
};

TEST_F(OrvikSendTest, PayloadFromAFifoArrivesOnceItsWriterCloses) {
    const Fifo fifo("orvik_send_fifo");
    OrvikCommand command(withPorts({"send", "-v", "-r", kRoute, "-f", fifo.path()}));

    ASSERT_TRUE(fifo.write("through a fifo", kEventLimit));
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << command.standardError();
    const std::vector<std::string> ids = queuedIds(command.standardError());
    ASSERT_EQ(ids.size(), 1u) << command.standardError();
    const std::optional<ReceivedMessage> message = arrived(ids[0]);
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->payload, "through a fifo");
}

class OrvikSendFifoSignalTest : public ::testing::TestWithParam<int> {};

TEST_P(OrvikSendFifoSignalTest, ASignalWhileAFifoHasNoWriterEndsTheRunWithinASecond) {
    const Fifo fifo("orvik_send_fifo_signal");
    OrvikCommand command({"send", "-l", "5555", "-d", "5556", "-f", fifo.path()});
    // Long enough for orvik to be waiting for a writer; a signal that came
    // sooner is seen all the same.
    std::this_thread::sleep_for(200ms);

    const auto signalled = std::chrono::steady_clock::now();
    command.sendSignal(GetParam());
    const std::optional<ExitStatus> status = command.waitForExit(kEventLimit);

    ASSERT_TRUE(status.has_value()) << "orvik send did not end after the signal";
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - signalled);
    EXPECT_LT(took, kStopLimit) << took.count() << " ms";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_EQ(command.outputLines(), std::vector<std::string>{kSentNone});
    EXPECT_EQ(command.standardError(),
              "orvik send: interrupted while reading " + fifo.path() + " (nothing sent)\n");
}

INSTANTIATE_TEST_SUITE_P(Signals, OrvikSendFifoSignalTest, ::testing::Values(SIGINT, SIGTERM),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == SIGTERM ? "Sigterm" : "Sigint");
                         });

// Ctrl-C this many milliseconds into a run of a million messages.
class OrvikSendManyInterruptTest : public OrvikTest, public ::testing::WithParamInterface<int> {};

TEST_P(OrvikSendManyInterruptTest, CtrlCEndsTheRunWithinASecondCountingWhatWasWritten) {
    const std::uint64_t count = 1000000;
    OrvikCommand command(withPorts({"send", "--timeout", "0", "--app-id", "many-sender", "-n",
                                    std::to_string(count), "-r", kRoute, "x"}));
    std::this_thread::sleep_for(std::chrono::milliseconds(GetParam()));

    const auto signalled = std::chrono::steady_clock::now();
    command.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik send did not end after Ctrl-C";
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - signalled);
    EXPECT_LT(took, kStopLimit) << took.count() << " ms";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    const std::vector<std::string> lines = command.outputLines();
    std::smatch summary;
    ASSERT_FALSE(lines.empty());
    ASSERT_TRUE(std::regex_match(lines.back(), summary, kSummary)) << lines.back();
    const std::uint64_t sent = std::stoull(summary[1]);
    const std::uint64_t acknowledged = std::stoull(summary[2]);
    EXPECT_LT(sent, count);
    EXPECT_LE(acknowledged, sent);
    EXPECT_EQ(command.standardError(), "orvik send: interrupted (" + std::to_string(count - sent) +
                                           " unwritten, " + std::to_string(count - acknowledged) +
                                           " unacknowledged)\n");
    // The node has every message acknowledged and none beyond those written.
    // (It may have fewer than were written: the library drops what libzmq
    // still holds when the process exits.)
    const auto end = std::chrono::steady_clock::now() + kEventLimit;
    while (logLinesContaining("from many-sender|disp (") < acknowledged &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(20ms);
    }
    const std::size_t arrived = logLinesContaining("from many-sender|disp (");
    EXPECT_GE(arrived, acknowledged);
    EXPECT_LE(arrived, sent);
}

INSTANTIATE_TEST_SUITE_P(Moments, OrvikSendManyInterruptTest, ::testing::Values(200, 1000),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "After" + std::to_string(info.param) + "ms";
                         });

// A node that logs nothing, for runs of many messages.
class OrvikSendQuietNodeTest : public OrvikTest {
protected:
    void SetUp() override { startNode({}); }
};

// ORVIKM_STRESS=full (what `make stress` sets) sends ten million.
bool fullScale() {
    const char* value = std::getenv("ORVIKM_STRESS");
    return value != nullptr && std::string(value) == "full";
}

TEST_F(OrvikSendQuietNodeTest, ManyMessagesKeepTheResidentSizeBounded) {
    if (!testsupport::kMemoryCanBeMeasured) {
        GTEST_SKIP() << "a sanitizer's shadow memory hides the program's own";
    }
    constexpr long kResidentLimitKb = 200 * 1024;
    const std::string count = fullScale() ? "10000000" : "300000";
    const auto limit = fullScale() ? std::chrono::minutes(10) : std::chrono::minutes(1);
    OrvikCommand command(
        withPorts({"send", "--timeout", "0", "-n", count, "-r", kRoute, std::string(100, 'm')}));

    long peakKb = 0;
    std::optional<ExitStatus> status;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!(status = command.waitForExit(20ms)) && std::chrono::steady_clock::now() < end) {
        peakKb = std::max(peakKb, testsupport::residentKb(command.pid()).value_or(0));
    }

    ASSERT_TRUE(status.has_value()) << "orvik send did not end";
    EXPECT_EQ(status->code, 0) << command.standardError();
    EXPECT_EQ(command.outputLines().back(), "sent " + count + ", acknowledged " + count);
    EXPECT_LT(peakKb, kResidentLimitKb);
}

TEST_F(OrvikSendQuietNodeTest, TheLargestCountRunsInLimitedMemoryUntilCtrlC) {
    if (!testsupport::kMemoryCanBeMeasured) {
        GTEST_SKIP() << "a sanitizer's address space cannot be limited";
    }
    OrvikCommand command(
        withPorts({"send", "--timeout", "0", "-n", "4294967295", "-r", kRoute, "x"}), {},
        addressSpaceOf(rlim_t{1} << 30));
    std::this_thread::sleep_for(2s);

    command.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik send did not end after Ctrl-C";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    std::smatch summary;
    const std::vector<std::string> lines = command.outputLines();
    ASSERT_FALSE(lines.empty());
    ASSERT_TRUE(std::regex_match(lines.back(), summary, kSummary)) << lines.back();
    EXPECT_GT(std::stoull(summary[1]), 0u);
    EXPECT_EQ(command.standardError().rfind("orvik send: interrupted (", 0), 0u)
        << command.standardError();
}

TEST(OrvikSendAloneTest, AnEndlessFileIsAUsageErrorNamingTheLargestPayload) {
    if (!testsupport::kMemoryCanBeMeasured) {
        GTEST_SKIP() << "a sanitizer's address space cannot be limited";
    }
    OrvikCommand command({"send", "-l", "5555", "-d", "5556", "--timeout", "1", "-f", "/dev/zero"},
                         {}, addressSpaceOf(rlim_t{1} << 30));

    const std::optional<ExitStatus> status = command.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik send did not end";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 2);
    EXPECT_NE(command.standardError().find("64 MiB"), std::string::npos)
        << command.standardError().substr(0, 200);
}

}  // namespace
}  // namespace orviktest
