#pragma once

#include <chrono>

namespace testsupport {

// How a child process ended.
struct ChildResult {
    bool timedOut = false;  // killed after the time allowed
    bool exited = false;    // ended by exit(), not by a signal
    int exitCode = -1;
    int signal = 0;
};

// True inside a child started by runCurrentTestInChild.
bool inChild();

// Runs this test binary again with only the current test selected and
// ORVIKM_TEST_CHILD=1 in the environment; the test body sees inChild() and
// does the child's part. For what is process-wide (ZeroMQ context shutdown,
// process exit). A child still running after `timeout` is killed.
ChildResult runCurrentTestInChild(std::chrono::milliseconds timeout);

}  // namespace testsupport
