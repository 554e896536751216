#include "rss.hpp"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <utility>

namespace stresstest {

long RssSeries::firstKb() const {
    return samplesKb.empty() ? 0 : samplesKb.front();
}

long RssSeries::peakKb() const {
    return samplesKb.empty() ? 0 : *std::max_element(samplesKb.begin(), samplesKb.end());
}

long RssSeries::lastKb() const {
    return samplesKb.empty() ? 0 : samplesKb.back();
}

std::string RssSeries::summary() const {
    std::ostringstream text;
    text << name << " VmRSS first=" << firstKb() << " peak=" << peakKb() << " last=" << lastKb()
         << " KiB (" << samplesKb.size() << " samples)";
    return text.str();
}

RssSampler::RssSampler(std::chrono::milliseconds interval)
    : _thread(&RssSampler::run, this, interval) {}

RssSampler::~RssSampler() {
    stop();
}

void RssSampler::watch(std::string name, pid_t pid) {
    std::lock_guard<std::mutex> guard(_mutex);
    _watched.emplace_back(pid, RssSeries{std::move(name), {}});
}

void RssSampler::stop() {
    _stopping.store(true);
    if (_thread.joinable()) {
        _thread.join();
    }
}

std::vector<RssSeries> RssSampler::series() const {
    std::lock_guard<std::mutex> guard(_mutex);
    std::vector<RssSeries> all;
    for (const auto& watched : _watched) {
        all.push_back(watched.second);
    }
    return all;
}

void RssSampler::run(std::chrono::milliseconds interval) {
    while (!_stopping.load()) {
        {
            std::lock_guard<std::mutex> guard(_mutex);
            for (auto& [pid, series] : _watched) {
                if (const std::optional<long> kb = residentKb(pid)) {
                    series.samplesKb.push_back(*kb);
                }
            }
        }
        std::this_thread::sleep_for(interval);
    }
}

}  // namespace stresstest
