// orvik registry against orvik-devnode, whose registry is its list of
// applications or the bytes of a file.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include <nlohmann/json.hpp>

#include "orvik_fixture.hpp"
#include "support/reserved_port.hpp"

namespace orviktest {
namespace {

const std::string kRegistry = R"({"applications":[{"app_id":"a","last_seen":"now"}],"n":1})";

// A node answering with the bytes of a file.
class OrvikRegistryFileTest : public OrvikTest {
protected:
    void SetUp() override {}

    void startWithRegistry(const std::string& bytes) {
        _path = ::testing::TempDir() + "orvik_registry_" + std::to_string(::getpid()) + ".json";
        std::ofstream(_path, std::ios::binary) << bytes;
        startNode({"--verbose", "--registry", _path});
    }

    void TearDown() override { std::remove(_path.c_str()); }

    std::string _path;
};

TEST_F(OrvikRegistryFileTest, RawFormatPrintsTheBytesAndANewline) {
    startWithRegistry(kRegistry);

    const Finished fetched = runOrvik(withPorts({"registry"}));

    EXPECT_EQ(fetched.status.code, 0) << fetched.error;
    EXPECT_EQ(fetched.output, kRegistry + "\n");
}

TEST_F(OrvikRegistryFileTest, JsonFormatPrettyPrintsTheSameDocument) {
    startWithRegistry(kRegistry);

    const Finished fetched = runOrvik(withPorts({"registry", "--format", "json"}));

    EXPECT_EQ(fetched.status.code, 0) << fetched.error;
    EXPECT_EQ(nlohmann::json::parse(fetched.output), nlohmann::json::parse(kRegistry));
    EXPECT_EQ(fetched.output, nlohmann::json::parse(kRegistry).dump(4) + "\n");
}

TEST_F(OrvikRegistryFileTest, JsonFormatPrintsARegistryThatIsNotJsonAsItIs) {
    startWithRegistry("plain words\n");

    const Finished fetched = runOrvik(withPorts({"registry", "--format", "json"}));

    EXPECT_EQ(fetched.status.code, 0) << fetched.error;
    EXPECT_EQ(fetched.output, "plain words\n");
}

TEST_F(OrvikRegistryFileTest, WatchFetchesCountTimesAtTheInterval) {
    startWithRegistry(kRegistry);
    const auto start = std::chrono::steady_clock::now();

    const Finished fetched = runOrvik(withPorts({"registry", "--watch", "1", "-n", "2"}));

    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(fetched.status.code, 0) << fetched.error;
    EXPECT_EQ(fetched.output, kRegistry + "\n" + kRegistry + "\n");
}

TEST_F(OrvikRegistryFileTest, WatchWithoutCountEndsAtTheDeadlineWithSuccess) {
    startWithRegistry(kRegistry);

    const Finished fetched = runOrvik(withPorts({"registry", "--watch", "1", "--timeout", "1.5"}));

    EXPECT_EQ(fetched.status.code, 0) << fetched.error;
    EXPECT_EQ(fetched.output, kRegistry + "\n" + kRegistry + "\n");
}

TEST_F(OrvikRegistryFileTest, CtrlCBeforeTheCountIsReachedFails) {
    startWithRegistry(kRegistry);
    OrvikCommand watcher(withPorts({"registry", "--watch", "60", "-n", "2", "--timeout", "0"}));
    ASSERT_TRUE(watcher.waitForLine("applications", kEventLimit));

    watcher.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = watcher.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 1);
    EXPECT_EQ(watcher.standardError(), "orvik registry: interrupted (fetched 1 of 2)\n");
}

TEST_F(OrvikRegistryFileTest, CtrlCWhileWatchingWithoutACountEndsWithSuccessAndSaysHowManyCame) {
    startWithRegistry(kRegistry);
    OrvikCommand watcher(withPorts({"registry", "--watch", "60", "--timeout", "0"}));
    ASSERT_TRUE(watcher.waitForLine("applications", kEventLimit));

    watcher.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = watcher.waitForExit(kEventLimit);

    ASSERT_TRUE(status.has_value()) << "orvik registry did not end after Ctrl-C";
    ASSERT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_EQ(watcher.standardOutput(), kRegistry + "\n");
    EXPECT_EQ(watcher.standardError(), "orvik registry: interrupted (fetched 1)\n");
}

TEST_F(OrvikRegistryFileTest, AClosedStandardOutputEndsWatchingLikeCtrlC) {
    startWithRegistry(kRegistry);
    OrvikCommand watcher(withPorts({"registry", "--watch", "1", "--timeout", "0"}), {},
                         outputReadFor(1));

    const std::optional<ExitStatus> status = watcher.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik registry did not end";
    ASSERT_TRUE(status->exited) << "ended by signal " << status->signal;
    EXPECT_EQ(status->code, 0);
    EXPECT_EQ(watcher.standardError(), "orvik registry: standard output closed (fetched 1)\n");
}

TEST_F(OrvikRegistryFileTest, AClosedStandardOutputFailsTheOneFetch) {
    startWithRegistry(kRegistry);

    OrvikCommand fetcher(withPorts({"registry"}), {}, outputReadFor(0));
    const std::optional<ExitStatus> status = fetcher.waitForExit(kRunLimit);

    ASSERT_TRUE(status.has_value()) << "orvik registry did not end";
    ASSERT_TRUE(status->exited) << "ended by signal " << status->signal;
    EXPECT_EQ(status->code, 1);
    EXPECT_EQ(fetcher.standardError(), "orvik registry: standard output closed (fetched 0 of 1)\n");
}

TEST_F(OrvikTest, DefaultRegistryListsTheApplicationsTheNodeHasSeen) {
    ASSERT_EQ(runOrvik(withPorts({"--app-id", "seen-before", "send", "x"})).status.code, 0);

    const Finished fetched = runOrvik(withPorts({"registry", "--format", "json"}));

    ASSERT_EQ(fetched.status.code, 0) << fetched.error;
    const nlohmann::json registry = nlohmann::json::parse(fetched.output);
    bool listed = false;
    for (const nlohmann::json& application : registry.at("applications")) {
        listed = listed || application.at("app_id") == "seen-before";
    }
    EXPECT_TRUE(listed) << fetched.output;
}

TEST(OrvikRegistryAloneTest, AbsentNodeFailsWithinTheDeadline) {
    const testsupport::ReservedPort listener;
    const testsupport::ReservedPort dispenser;
    const auto start = std::chrono::steady_clock::now();

    const Finished fetched =
        runOrvik({"registry", "--timeout", "2", "-l", std::to_string(listener.port()), "-d",
                  std::to_string(dispenser.port())});

    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_EQ(fetched.status.code, 1);
    EXPECT_EQ(fetched.output, "");
    EXPECT_NE(fetched.error.find("not available"), std::string::npos) << fetched.error;
}

// A watch outlives the node: it says when the node goes away and when it is
// back, and goes on fetching.
TEST_F(OrvikRegistryFileTest, AWatchSaysWhenTheNodeGoesAwayAndComesBackAndGoesOn) {
    startWithRegistry(kRegistry);
    OrvikCommand watcher(withPorts({"registry", "--watch", "1", "--timeout", "0"}));
    ASSERT_TRUE(watcher.waitForLine("applications", kEventLimit));

    killNode();
    ASSERT_TRUE(
        watcher.waitForErrorText("orvik registry: the node went away (listener port ", kEventLimit))
        << watcher.standardError();
    restartNode({"--verbose", "--registry", _path});
    ASSERT_TRUE(watcher.waitForErrorText("orvik registry: the node is back", kEventLimit))
        << watcher.standardError();
    const std::size_t before = watcher.standardOutput().size();

    const auto end = std::chrono::steady_clock::now() + kEventLimit;
    while (watcher.standardOutput().size() == before && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(50ms);
    }
    EXPECT_GT(watcher.standardOutput().size(), before);
    watcher.sendSignal(SIGINT);
    const std::optional<ExitStatus> status = watcher.waitForExit(kRunLimit);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << watcher.standardError();
}

}  // namespace
}  // namespace orviktest
