// <orvikm/orvikm.hpp> leaves the asio driver out: an application that does
// not include <orvikm/asio.hpp> builds without Asio. Nothing else in this
// file includes Asio either.
#include <orvikm/orvikm.hpp>

#include <gtest/gtest.h>

namespace {

// The include guard of the configuration header every Asio header includes.
#ifdef ASIO_DETAIL_CONFIG_HPP
constexpr bool kAsioIncluded = true;
#else
constexpr bool kAsioIncluded = false;
#endif

TEST(UmbrellaHeaderTest, LeavesTheAsioDriverOut) {
    EXPECT_FALSE(kAsioIncluded);
}

}  // namespace
