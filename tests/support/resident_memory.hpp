#pragma once

#include <sys/types.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace testsupport {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kBuiltWithSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kBuiltWithSanitizer = true;
#else
constexpr bool kBuiltWithSanitizer = false;
#endif
#else
constexpr bool kBuiltWithSanitizer = false;
#endif

// Under AddressSanitizer or ThreadSanitizer (the programs under test are built
// as the tests are), a process's resident size is mostly the sanitizer's own
// shadow and quarantine, which grow with what the process touched rather than
// with what it keeps, and its address space cannot be limited: tests of memory
// use hold only without them.
constexpr bool kMemoryCanBeMeasured = !kBuiltWithSanitizer;

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
