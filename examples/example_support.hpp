#pragma once

// What the examples share: "--name value" arguments and a watchdog.
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace example {

class Args {
public:
    Args(int argc, char** argv, const char* usage) : _usage(usage) {
        for (int i = 1; i < argc; ++i) {
            const std::string name = argv[i];
            if (name == "--help" || name.rfind("--", 0) != 0 || i + 1 >= argc) {
                std::cerr << _usage;
                std::exit(name == "--help" ? 0 : 2);
            }
            _values[name.substr(2)] = argv[++i];
        }
    }

    std::string text(const std::string& name, const std::string& fallback) const {
        const auto found = _values.find(name);
        return found == _values.end() ? fallback : found->second;
    }

    int number(const std::string& name, int fallback) const {
        const auto found = _values.find(name);
        return found == _values.end() ? fallback : std::atoi(found->second.c_str());
    }

    int requiredNumber(const std::string& name) const {
        if (_values.count(name) == 0) {
            std::cerr << "--" << name << " is required\n" << _usage;
            std::exit(2);
        }
        return number(name, 0);
    }

private:
    const char* _usage;
    std::map<std::string, std::string> _values;
};

// Calls `onTimeout` (from its own thread) unless destroyed first, so that an
// example never waits for ever on a node that does not answer.
class Watchdog {
public:
    Watchdog(std::chrono::seconds timeout, std::function<void()> onTimeout)
        : _thread([this, timeout, onTimeout = std::move(onTimeout)] {
              std::unique_lock<std::mutex> lock(_mutex);
              if (!_cancelled.wait_for(lock, timeout, [this] { return _done; })) {
                  onTimeout();
              }
          }) {}

    ~Watchdog() {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            _done = true;
        }
        _cancelled.notify_one();
        _thread.join();
    }

private:
    std::mutex _mutex;
    std::condition_variable _cancelled;
    bool _done = false;
    std::thread _thread;
};

}  // namespace example
