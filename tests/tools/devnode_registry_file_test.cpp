#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "devnode_fixture.hpp"
#include "devnode_raw_peers.hpp"
#include "support/program_process.hpp"

// Which registry files the node reads for its answers: regular files up to a
// size limit, never waiting on one. A file that breaks a rule costs the
// request its answer, with a log line, and nothing more.
namespace devnodetest {
namespace {

const std::string kFileBytes = "{\"applications\":[]}";
const std::string kNotRegularLog = " is not a regular file";
const std::string kTooLargeLog = " holds more than 16777216 bytes (--max-registry-bytes)";
const std::string kNoMemoryLog = "GREG from memory-peer dropped: not enough memory to serve it";
constexpr off_t kDefaultLimit = 16 * 1024 * 1024;
// A node that is not stuck answers a request behind the refused one this
// soon; one stuck reading or opening the file never does.
constexpr auto kUnstuckLimit = 3s;

// A directory of its own for the registry file and whatever replaces it.
class DevNodeRegistryFileLimitTest : public DevNodeTest {
protected:
    void SetUp() override {
        char directory[] = "/tmp/orvik-devnode-registry-dir-XXXXXX";
        ASSERT_NE(mkdtemp(directory), nullptr);
        _directory = directory;
        _target = _directory + "/registry.json";
        _path = _directory + "/registry-link.json";
        std::ofstream(_target, std::ios::binary) << kFileBytes;
        // A symbolic link can be turned towards a device in one step.
        ASSERT_EQ(symlink(_target.c_str(), _path.c_str()), 0);
        startNode(arguments());
    }

    void TearDown() override {
        for (const std::string& file :
             {_path, _target, _directory + "/fifo", _directory + "/next-link"}) {
            std::remove(file.c_str());
        }
        if (!_directory.empty()) {
            rmdir(_directory.c_str());
        }
    }

    virtual std::vector<std::string> arguments() const {
        return {"--verbose", "--registry", _path};
    }

    const std::string& registryPath() const { return _path; }
    const std::string& targetPath() const { return _target; }

    // Turns the registry file's path towards `target` in one step.
    void pointRegistryAt(const std::string& target) {
        const std::string next = _directory + "/next-link";
        ASSERT_EQ(symlink(target.c_str(), next.c_str()), 0);
        ASSERT_EQ(std::rename(next.c_str(), _path.c_str()), 0);
    }

    std::string makeFifo() {
        const std::string fifo = _directory + "/fifo";
        EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        return fifo;
    }

    // Asks for the registry, then sends a message: the first answer that
    // comes back, if any came in time.
    std::optional<std::vector<Frame>> registryThenMessage(std::chrono::milliseconds limit) {
        _dealer.reset();
        _dealer = connectDealer(dispenserPort(), "registry-peer");
        _dealer->sendMessage(registryRequest());
        _dealer->sendMessage(routedMessage("after-registry", {"t"}));
        return _dealer->receiveMessage(limit);
    }

private:
    std::string _directory;
    std::string _target;
    std::string _path;
    std::unique_ptr<RawPeer> _dealer;
};

TEST_F(DevNodeRegistryFileLimitTest, FifoInPlaceOfTheFileIsRefusedWithoutWaitingForAWriter) {
    pointRegistryAt(makeFifo());

    const auto answer = registryThenMessage(kUnstuckLimit);

    ASSERT_TRUE(answer.has_value()) << "the node is stuck";
    EXPECT_TRUE(isAckOf(*answer, "after-registry"));
    EXPECT_TRUE(node().waitForLine(registryPath() + kNotRegularLog, kEventLimit).has_value())
        << node().standardOutput();
}

TEST_F(DevNodeRegistryFileLimitTest, DeviceInPlaceOfTheFileIsRefusedWithoutReadingIt) {
    pointRegistryAt("/dev/zero");

    const auto answer = registryThenMessage(kUnstuckLimit);

    ASSERT_TRUE(answer.has_value()) << "the node is stuck";
    EXPECT_TRUE(isAckOf(*answer, "after-registry"));
    EXPECT_TRUE(node().waitForLine(registryPath() + kNotRegularLog, kEventLimit).has_value())
        << node().standardOutput();
}

TEST_F(DevNodeRegistryFileLimitTest, FileLargerThanTheLimitIsLeftUnanswered) {
    ASSERT_EQ(truncate(targetPath().c_str(), kDefaultLimit + 1), 0);

    const auto answer = registryThenMessage(kEventLimit);

    ASSERT_TRUE(answer.has_value());
    EXPECT_TRUE(isAckOf(*answer, "after-registry")) << answer->at(1).bytes;
    EXPECT_TRUE(node().waitForLine(registryPath() + kTooLargeLog, kEventLimit).has_value())
        << node().standardOutput();
}

TEST_F(DevNodeRegistryFileLimitTest, FileOfTheLimitItselfIsAnswered) {
    ASSERT_EQ(truncate(targetPath().c_str(), kDefaultLimit), 0);

    const auto answer = registryThenMessage(kEventLimit);

    ASSERT_TRUE(answer.has_value());
    ASSERT_TRUE(isRegistry(*answer));
    EXPECT_EQ(answer->back().bytes.size(), static_cast<std::size_t>(kDefaultLimit));
}

TEST_F(DevNodeRegistryFileLimitTest, FileChangedSinceTheLastAnswerIsReadAgain) {
    ASSERT_TRUE(isRegistry(*registryThenMessage(kEventLimit)));
    const std::string changed = "{\"applications\":[{\"app_id\":\"changed\"}]}";
    std::ofstream(targetPath(), std::ios::binary | std::ios::trunc) << changed;

    const auto answer = registryThenMessage(kEventLimit);

    ASSERT_TRUE(answer.has_value());
    ASSERT_TRUE(isRegistry(*answer));
    EXPECT_EQ(answer->back().bytes, changed);
}

TEST(DevNodeRegistryStartTest, FifoAsRegistryFileEndsTheStartWithStatusOne) {
    char directory[] = "/tmp/orvik-devnode-fifo-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string fifo = std::string(directory) + "/registry";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    DevNodeProcess node({"--listener-port", "0", "--dispenser-port", "0", "--registry", fifo});

    const std::optional<ExitStatus> status = node.waitForExit(kUnstuckLimit);

    std::remove(fifo.c_str());
    rmdir(directory);
    ASSERT_TRUE(status.has_value()) << "the node is stuck opening the FIFO";
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 1);
    EXPECT_NE(node.standardError().find(fifo + kNotRegularLog), std::string::npos)
        << node.standardError();
}

TEST(DevNodeMemoryTest, RegistryFileTooLargeForTheMemoryLeftCostsOneAnswerNotTheNode) {
    if (!kMemoryCanBeMeasured) {
        GTEST_SKIP() << "a sanitizer needs all the address space it can get";
    }
    constexpr off_t kMiB = 1024 * 1024;
    char path[] = "/tmp/orvik-devnode-huge-registry-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::ofstream(path, std::ios::binary) << kFileBytes;
    // 512 MiB of address space, and a registry file allowed to be larger.
    testsupport::ProgramProcess node(
        "/usr/bin/prlimit", {"--as=" + std::to_string(512 * kMiB), ORVIK_DEVNODE_PATH, "--verbose",
                             "--listener-port", "0", "--dispenser-port", "0", "--registry", path,
                             "--max-registry-bytes", std::to_string(1024 * kMiB)});
    const auto ports = readyPorts(node, kStartLimit);
    ASSERT_TRUE(ports.has_value()) << node.standardError();
    ASSERT_EQ(truncate(path, 768 * kMiB), 0);
    const auto dealer = connectDealer(ports->second, "memory-peer");

    dealer->sendMessage(registryRequest());
    dealer->sendMessage(routedMessage("after-registry", {"t"}));
    const auto answer = dealer->receiveMessage(kEventLimit);

    std::remove(path);
    ASSERT_TRUE(answer.has_value()) << node.standardOutput() << node.standardError();
    EXPECT_TRUE(isAckOf(*answer, "after-registry"));
    EXPECT_TRUE(node.waitForLine(kNoMemoryLog, kEventLimit).has_value()) << node.standardOutput();
    EXPECT_TRUE(node.running());
}

}  // namespace
}  // namespace devnodetest
