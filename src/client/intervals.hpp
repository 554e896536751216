#pragma once

#include <chrono>

namespace orvikm::detail {

using TimePoint = std::chrono::system_clock::time_point;

// `now` moved back by `interval`, or the clock's earliest (latest) time when
// that lies outside what a time point can hold. The earliest time reads as
// "longer ago than any interval" in intervalPassed.
TimePoint earlierBy(TimePoint now, std::chrono::seconds interval);

// Whether last + interval is earlier than now, exactly, for every pair of
// values: neither the sum nor the seconds-to-ticks conversion can overflow.
// A `last` at the clock's earliest time has always passed.
bool intervalPassed(TimePoint last, std::chrono::seconds interval, TimePoint now);

// How long after `now` intervalPassed(last, interval, ...) turns true, in
// whole milliseconds rounded up, and at most `limit`; 0 when it is already.
std::chrono::milliseconds untilPassed(TimePoint last, std::chrono::seconds interval, TimePoint now,
                                      std::chrono::milliseconds limit);

// `now` plus `duration` on the steady clock, held at the clock's range: a
// validity of seconds::max() or a bound of milliseconds::max() is a deadline
// that never comes. Each unit has its own overload, since converting a large
// count to nanoseconds first would overflow.
std::chrono::steady_clock::time_point steadyAfter(std::chrono::steady_clock::time_point now,
                                                  std::chrono::nanoseconds duration);
std::chrono::steady_clock::time_point steadyAfter(std::chrono::steady_clock::time_point now,
                                                  std::chrono::milliseconds duration);
std::chrono::steady_clock::time_point steadyAfter(std::chrono::steady_clock::time_point now,
                                                  std::chrono::seconds duration);

}  // namespace orvikm::detail
