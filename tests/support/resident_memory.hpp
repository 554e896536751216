#pragma once

#include <sys/types.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace testsupport {

// The resident set size of a process in KiB, from /proc/PID/status (PID 0:
// this process); nothing once the process has ended.
inline std::optional<long> residentKb(pid_t pid = 0) {
    const std::string path =
        pid == 0 ? "/proc/self/status" : "/proc/" + std::to_string(pid) + "/status";
    std::ifstream status(path);
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            std::istringstream fields(line.substr(6));
            long kb = 0;
            if (fields >> kb) {
                return kb;
            }
        }
    }
    return std::nullopt;
}

}  // namespace testsupport
