#include "intervals.hpp"

#include <cstdint>
#include <type_traits>

namespace orvikm::detail {

namespace {

// 128 bits hold any difference of two 64-bit tick counts and any 64-bit count
// of seconds in ticks, so the comparisons below are exact.
__extension__ using Wide = __int128;

using Ticks = TimePoint::duration;

// The clock ticks in whole fractions of a second (nanoseconds here).
constexpr Wide ticks_per_second = Wide{Ticks::period::den} / Wide{Ticks::period::num};

Wide ticksOf(std::chrono::seconds interval) {
    return Wide{interval.count()} * ticks_per_second;
}

}  // namespace

TimePoint earlierBy(TimePoint now, std::chrono::seconds interval) {
    const Wide earlier = Wide{now.time_since_epoch().count()} - ticksOf(interval);
    if (earlier < Wide{Ticks::min().count()}) {
        return TimePoint::min();
    }
    if (earlier > Wide{Ticks::max().count()}) {
        return TimePoint::max();
    }
    return TimePoint(Ticks(static_cast<Ticks::rep>(earlier)));
}

bool intervalPassed(TimePoint last, std::chrono::seconds interval, TimePoint now) {
    if (last == TimePoint::min()) {
        return true;
    }
    const Wide elapsed =
        Wide{now.time_since_epoch().count()} - Wide{last.time_since_epoch().count()};
    return elapsed > ticksOf(interval);
}

std::chrono::milliseconds untilPassed(TimePoint last, std::chrono::seconds interval, TimePoint now,
                                      std::chrono::milliseconds limit) {
    if (intervalPassed(last, interval, now)) {
        return std::chrono::milliseconds(0);
    }
    // It turns true one tick after last + interval.
    const Wide left = Wide{last.time_since_epoch().count()} + ticksOf(interval) + 1 -
                      Wide{now.time_since_epoch().count()};
    constexpr Wide ticks_per_millisecond = ticks_per_second / 1000;
    const Wide milliseconds = (left + ticks_per_millisecond - 1) / ticks_per_millisecond;
    return milliseconds < Wide{limit.count()}
               ? std::chrono::milliseconds(static_cast<std::int64_t>(milliseconds))
               : limit;
}

namespace {

using Steady = std::chrono::steady_clock;

Steady::time_point steadyAt(Wide ticks) {
    using SteadyTicks = Steady::duration;
    if (ticks < Wide{SteadyTicks::min().count()}) {
        return Steady::time_point::min();
    }
    if (ticks > Wide{SteadyTicks::max().count()}) {
        return Steady::time_point::max();
    }
    return Steady::time_point(SteadyTicks(static_cast<SteadyTicks::rep>(ticks)));
}

static_assert(std::is_same_v<Steady::duration, std::chrono::nanoseconds>);

}  // namespace

Steady::time_point steadyAfter(Steady::time_point now, std::chrono::nanoseconds duration) {
    return steadyAt(Wide{now.time_since_epoch().count()} + Wide{duration.count()});
}

Steady::time_point steadyAfter(Steady::time_point now, std::chrono::milliseconds duration) {
    return steadyAt(Wide{now.time_since_epoch().count()} + Wide{duration.count()} * 1000000);
}

Steady::time_point steadyAfter(Steady::time_point now, std::chrono::seconds duration) {
    return steadyAt(Wide{now.time_since_epoch().count()} + Wide{duration.count()} * 1000000000);
}

}  // namespace orvikm::detail
