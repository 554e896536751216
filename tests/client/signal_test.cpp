#include <orvikm/client.hpp>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>

#include <pthread.h>

#include <gtest/gtest.h>

#include "support/child_process.hpp"
#include "support/loop_thread.hpp"
#include "support/test_node.hpp"

// terminate() from a signal handler: it must not wait for a lock, since the
// signal may have interrupted the very thread that holds it, and the loop
// must still see it.
namespace {

using namespace std::chrono_literals;
using orvikm::Client;
using testsupport::LoopThread;
using testsupport::TestNode;

const std::string kAppId = "signal-app";
const std::string kInboxCommand = "BOX";
constexpr auto kEventLimit = 5s;
constexpr auto kChildLimit = 20s;

std::atomic<Client*> signalled_client{nullptr};

extern "C" void terminateOnSignal(int) {
    signalled_client.load()->terminate();
}

void installTerminateHandler(Client& client) {
    signalled_client.store(&client);
    struct sigaction action {};
    action.sa_handler = terminateOnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGUSR1, &action, nullptr);
}

TEST(ClientSignalTest, TerminateFromASignalThatInterruptsTheHolderOfTheTerminationLock) {
    if (testsupport::inChild()) {
        TestNode node;
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
        installTerminateHandler(client);
        LoopThread loop(client, nullptr);
        if (!node.receiveCommand(kInboxCommand)) {
            std::_Exit(2);
        }

        {
            // The handler runs on this thread while it holds the lock.
            std::lock_guard<std::mutex> held(client.termData().termLock());
            std::raise(SIGUSR1);
        }

        std::_Exit(loop.endsWithin(kEventLimit) ? 0 : 1);
    }

    const testsupport::ChildResult child = testsupport::runCurrentTestInChild(kChildLimit);

    EXPECT_FALSE(child.timedOut);
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ClientSignalTest, SignalDeliveredToTheIoThreadEndsTheLoop) {
    if (testsupport::inChild()) {
        TestNode node;
        Client client(kAppId, node.listenerPort(), node.dispenserPort(), {});
        installTerminateHandler(client);
        std::promise<pthread_t> ioThread;
        auto loop = std::async(std::launch::async, [&] {
            ioThread.set_value(pthread_self());
            client.blockThreadForIO(nullptr, 20ms);
        });
        const pthread_t thread = ioThread.get_future().get();
        if (!node.receiveCommand(kInboxCommand)) {
            std::_Exit(2);
        }

        pthread_kill(thread, SIGUSR1);

        std::_Exit(loop.wait_for(kEventLimit) == std::future_status::ready ? 0 : 1);
    }

    const testsupport::ChildResult child = testsupport::runCurrentTestInChild(kChildLimit);

    EXPECT_FALSE(child.timedOut);
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.exitCode, 0);
}

}  // namespace
