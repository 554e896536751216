#include "app_loop.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sstream>

#include <orvikm/errors.hpp>
#include <wxblt/exception.hpp>

namespace stresstest {

namespace {

constexpr std::chrono::milliseconds kTerminateRetry{20};

std::string typeOf(const orviku::Exception& error) {
    if (dynamic_cast<const orvikm::ProtocolError*>(&error) != nullptr) {
        return "ProtocolError";
    }
    if (dynamic_cast<const orvikm::Exception*>(&error) != nullptr) {
        return "orvikm::Exception";
    }
    if (dynamic_cast<const wxblt::Exception*>(&error) != nullptr) {
        return "wxblt::Exception";
    }
    if (dynamic_cast<const orviku::GeneralException*>(&error) != nullptr) {
        return "GeneralException";
    }
    return "orviku::Exception";
}

}  // namespace

bool ReportedError::nodeUnavailable() const {
    return type == "wxblt::Exception" && errorNumber == EAGAIN;
}

std::string ReportedError::describe() const {
    std::ostringstream text;
    text << type << ": " << what;
    for (const std::string& line : context) {
        text << " | " << line;
    }
    return text.str();
}

ReportedError reportOf(const orviku::Exception& error) {
    ReportedError report;
    report.when = std::chrono::steady_clock::now();
    report.type = typeOf(error);
    if (const auto* socketError = dynamic_cast<const wxblt::Exception*>(&error)) {
        report.errorNumber = socketError->errorNumber();
    }
    report.what = error.what();
    report.context = error.context();
    return report;
}

AppLoop::AppLoop(orvikm::Client& client, std::chrono::milliseconds passTimeout,
                 std::chrono::milliseconds reentryPause)
    : _client(client), _ended_future(_ended.get_future()) {
    _thread = std::thread(&AppLoop::run, this, passTimeout, reentryPause);
}

AppLoop::~AppLoop() {
    if (!stop()) {
        std::fprintf(stderr, "client I/O loop of %s did not end; aborting\n", _client.id().c_str());
        std::abort();
    }
}

void AppLoop::run(std::chrono::milliseconds passTimeout, std::chrono::milliseconds reentryPause) {
    while (!_stopping.load()) {
        {
            std::lock_guard<std::mutex> guard(_mutex);
            ++_entries;
        }
        try {
            _client.blockThreadForIO(
                [this](orviku::Exception& error) {
                    std::lock_guard<std::mutex> guard(_mutex);
                    _errors.push_back(reportOf(error));
                    _changed.notify_all();
                },
                passTimeout);
        } catch (const std::exception& error) {
            std::lock_guard<std::mutex> guard(_mutex);
            _escaped.push_back(error.what());
        } catch (...) {
            std::lock_guard<std::mutex> guard(_mutex);
            _escaped.push_back("<not a std::exception>");
        }
        if (!_stopping.load()) {
            std::this_thread::sleep_for(reentryPause);
        }
    }
    _ended.set_value();
}

bool AppLoop::stop() {
    if (_joined) {
        return true;
    }
    _stopping.store(true);
    // The loop forgets a terminate() from before it was entered, so it is
    // asked again until it has ended.
    const auto deadline = std::chrono::steady_clock::now() + kEndLimit;
    bool ended = false;
    while (!ended && std::chrono::steady_clock::now() < deadline) {
        _client.terminate();
        ended = _ended_future.wait_for(kTerminateRetry) == std::future_status::ready;
    }
    if (!ended) {
        return false;
    }
    _thread.join();
    _joined = true;
    return true;
}

std::vector<ReportedError> AppLoop::errors() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _errors;
}

std::size_t AppLoop::errorCount() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _errors.size();
}

bool AppLoop::waitForErrors(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(_mutex);
    return _changed.wait_for(lock, timeout, [&] { return _errors.size() >= count; });
}

std::vector<std::string> AppLoop::escaped() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _escaped;
}

std::size_t AppLoop::entries() const {
    std::lock_guard<std::mutex> guard(_mutex);
    return _entries;
}

}  // namespace stresstest
