#include "devnode_process.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

extern char** environ;

namespace orvikbench {

namespace {

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "orvik-bench: orvik-devnode: %s\n", what.c_str());
    std::_Exit(1);
}

}  // namespace

DevNodeProcess::DevNodeProcess(const std::string& program) {
    char path[] = "/tmp/orvik-bench-devnode-XXXXXX";
    const int log = mkstemp(path);
    if (log < 0) {
        fail("no temporary file for its log");
    }
    _log_path = path;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, log, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, log, STDERR_FILENO);
    std::vector<char*> arguments{const_cast<char*>(program.c_str()), nullptr};
    pid_t pid = -1;
    const int spawned =
        posix_spawn(&pid, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(log);
    if (spawned != 0) {
        fail("cannot start " + program + ": " + std::strerror(spawned));
    }
    _pid = pid;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        std::ifstream file(_log_path);
        std::string line;
        while (std::getline(file, line)) {
            if (std::sscanf(line.c_str(), "orvik-devnode ready: listener-port=%d dispenser-port=%d",
                            &_listener_port, &_dispenser_port) == 2) {
                return;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    fail("no ready line within ten seconds");
}

DevNodeProcess::~DevNodeProcess() {
    if (_pid > 0) {
        kill(_pid, SIGTERM);
        int status = 0;
        waitpid(_pid, &status, 0);
    }
    if (!_log_path.empty()) {
        unlink(_log_path.c_str());
    }
}

namespace {

// utime + stime of a /proc/.../stat file, in seconds.
double cpuSecondsOf(const std::string& path) {
    std::ifstream file(path);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // The command name in parentheses may hold spaces: fields count from the
    // last closing parenthesis; utime and stime are fields 14 and 15.
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos) {
        return 0;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) {
            utime = std::strtoull(field.c_str(), nullptr, 10);
        } else if (index == 15) {
            stime = std::strtoull(field.c_str(), nullptr, 10);
            break;
        }
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

double DevNodeProcess::cpuSeconds() const {
    const std::string pid = std::to_string(_pid);
    return cpuSecondsOf("/proc/" + pid + "/task/" + pid + "/stat");
}

double DevNodeProcess::processCpuSeconds() const {
    return cpuSecondsOf("/proc/" + std::to_string(_pid) + "/stat");
}

unsigned long long DevNodeProcess::contextSwitches() const {
    unsigned long long switches = 0;
    const std::string tasks = "/proc/" + std::to_string(_pid) + "/task";
    DIR* directory = opendir(tasks.c_str());
    if (directory == nullptr) {
        return 0;
    }
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream status(tasks + "/" + entry->d_name + "/status");
        std::string line;
        while (std::getline(status, line)) {
            unsigned long long count = 0;
            if (std::sscanf(line.c_str(), "voluntary_ctxt_switches: %llu", &count) == 1 ||
                std::sscanf(line.c_str(), "nonvoluntary_ctxt_switches: %llu", &count) == 1) {
                switches += count;
            }
        }
    }
    closedir(directory);
    return switches;
}

}  // namespace orvikbench
