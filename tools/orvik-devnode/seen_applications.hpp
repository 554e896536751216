#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace orvikdev {

// The applications the node has seen, each with when it was last seen. At
// most `capacity` are kept: a new one beyond that pushes out the one seen
// longest ago.
class SeenApplications {
public:
    using Clock = std::chrono::system_clock;

    explicit SeenApplications(std::size_t capacity);

    void see(std::string_view appId, Clock::time_point when);

    // The registry document, in app id order:
    // {"applications":[{"app_id":"...","last_seen":"YYYY-MM-DDTHH:MM:SSZ"}]}.
    // Built anew only after a change that shows in it, so answering a run of
    // registry requests costs one document, not one each.
    std::shared_ptr<const std::string> document();

    std::size_t size() const { return _apps.size(); }

private:
    struct Seen {
        Clock::time_point when;
        std::list<const std::string*>::iterator recency;
    };

    std::size_t _capacity;
    std::map<std::string, Seen, std::less<>> _apps;
    std::list<const std::string*> _recency;  // the keys of _apps, seen longest ago first
    std::shared_ptr<const std::string> _document;
};

}  // namespace orvikdev
