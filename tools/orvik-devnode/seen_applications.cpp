#include "seen_applications.hpp"

#include <algorithm>

#include "log_text.hpp"

namespace orvikdev {

SeenApplications::SeenApplications(std::size_t capacity)
    : _capacity(std::max<std::size_t>(1, capacity)) {}

void SeenApplications::see(std::string_view appId, Clock::time_point when) {
    const auto found = _apps.find(appId);
    if (found != _apps.end()) {
        _recency.splice(_recency.end(), _recency, found->second.recency);
        // The document shows whole seconds: within one, nothing changes.
        if (std::chrono::floor<std::chrono::seconds>(found->second.when) !=
            std::chrono::floor<std::chrono::seconds>(when)) {
            _document.reset();
        }
        found->second.when = when;
        return;
    }
    if (_apps.size() >= _capacity) {
        const auto oldest = _apps.find(*_recency.front());
        _recency.pop_front();
        _apps.erase(oldest);
    }
    const auto added = _apps.emplace(appId, Seen{when, _recency.end()}).first;
    added->second.recency = _recency.insert(_recency.end(), &added->first);
    _document.reset();
}

std::shared_ptr<const std::string> SeenApplications::document() {
    if (!_document) {
        std::string json = "{\"applications\":[";
        bool first = true;
        for (const auto& [appId, seen] : _apps) {
            json += first ? "" : ",";
            json += "{\"app_id\":" + jsonString(appId) +
                    ",\"last_seen\":" + jsonString(timestamp(seen.when)) + "}";
            first = false;
        }
        json += "]}";
        _document = std::make_shared<const std::string>(std::move(json));
    }
    return _document;
}

}  // namespace orvikdev
