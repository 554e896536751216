#include "child_process.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

namespace testsupport {

namespace {
constexpr const char* child_variable = "ORVIKM_TEST_CHILD";
}

bool inChild() {
    const char* value = std::getenv(child_variable);
    return value != nullptr && std::string(value) == "1";
}

ChildResult runCurrentTestInChild(std::chrono::milliseconds timeout) {
    const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter =
        std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();

    const pid_t pid = fork();
    if (pid == 0) {
        setenv(child_variable, "1", 1);
        execl("/proc/self/exe", "child", filter.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    ChildResult result;
    if (pid < 0) {
        return result;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            result.timedOut = true;
            return result;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

}  // namespace testsupport
