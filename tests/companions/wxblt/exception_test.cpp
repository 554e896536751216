#include <gtest/gtest.h>
#include <zmq.h>

#include <wxblt/exception.hpp>

#include <cerrno>
#include <string>
#include <type_traits>
#include <vector>

namespace {

const std::string outer_line = "while sending a message to the node";
constexpr int eagain = 11;

static_assert(std::is_base_of_v<orviku::Exception, wxblt::Exception>);
static_assert(std::is_base_of_v<wxblt::Exception, wxblt::ZmqTermination>);
static_assert(std::is_copy_constructible_v<wxblt::Exception>);

TEST(WxbltExceptionTest, IsCaughtAsAnOrvikuException) {
    bool caught = false;

    try {
        throw wxblt::Exception(EAGAIN);
    } catch (const orviku::Exception&) {
        caught = true;
    } catch (...) {
    }

    EXPECT_TRUE(caught);
}

TEST(WxbltExceptionTest, ErrorNumberIsTheOneGiven) {
    const wxblt::Exception error(eagain);

    EXPECT_EQ(error.errorNumber(), eagain);
}

TEST(WxbltExceptionTest, WhatIsZeroMqsTextForAnErrnoValue) {
    const wxblt::Exception error(EAGAIN);

    EXPECT_EQ(std::string(error.what()), std::string(zmq_strerror(EAGAIN)));
}

TEST(WxbltExceptionTest, WhatIsZeroMqsTextForAZeroMqOwnNumber) {
    const wxblt::Exception error(EFSM);

    EXPECT_EQ(std::string(error.what()), std::string(zmq_strerror(EFSM)));
}

TEST(WxbltExceptionTest, DescribeIsZeroMqsTextFollowedByTheContext) {
    wxblt::Exception error(EAGAIN);
    error.addContext(outer_line);

    EXPECT_EQ(error.describe(), std::string(zmq_strerror(EAGAIN)) + "\n" + outer_line);
}

TEST(WxbltExceptionTest, CopyKeepsErrorNumberAndContext) {
    wxblt::Exception original(EAGAIN);
    original.addContext(outer_line);

    const wxblt::Exception copy(original);

    EXPECT_EQ(copy.errorNumber(), EAGAIN);
    EXPECT_EQ(copy.context(), std::vector<std::string>{outer_line});
}

TEST(WxbltExceptionTest, ThrowWithContextInAHandlerRethrowsTheVeryWxbltException) {
    const void* caughtFirst = nullptr;
    const void* caughtAgain = nullptr;
    int errorNumber = 0;
    std::vector<std::string> context;

    try {
        try {
            throw wxblt::Exception(EAGAIN);
        } catch (orviku::Exception& error) {
            caughtFirst = &error;
            error.throwWithContext(outer_line);
        }
    } catch (wxblt::Exception& error) {
        caughtAgain = &error;
        errorNumber = error.errorNumber();
        context = error.context();
    } catch (...) {
    }

    ASSERT_NE(caughtFirst, nullptr);
    EXPECT_EQ(caughtAgain, caughtFirst);
    EXPECT_EQ(errorNumber, EAGAIN);
    EXPECT_EQ(context, std::vector<std::string>{outer_line});
}

TEST(WxbltExceptionTest, ThrowWithContextOnALocalThrowsAWxbltException) {
    wxblt::Exception local(EAGAIN);
    orviku::Exception& asBase = local;
    int errorNumber = 0;

    try {
        asBase.throwWithContext(outer_line);
    } catch (wxblt::Exception& error) {
        errorNumber = error.errorNumber();
    } catch (...) {
    }

    EXPECT_EQ(errorNumber, EAGAIN);
}

TEST(ZmqTerminationTest, IsCaughtAsAWxbltException) {
    bool caught = false;

    try {
        throw wxblt::ZmqTermination();
    } catch (const wxblt::Exception&) {
        caught = true;
    } catch (...) {
    }

    EXPECT_TRUE(caught);
}

TEST(ZmqTerminationTest, ErrorNumberIsEterm) {
    const wxblt::ZmqTermination error;

    EXPECT_EQ(error.errorNumber(), ETERM);
}

TEST(ZmqTerminationTest, WhatIsZeroMqsTextForEterm) {
    const wxblt::ZmqTermination error;

    EXPECT_EQ(std::string(error.what()), std::string(zmq_strerror(ETERM)));
}

TEST(ZmqTerminationTest, ThrowWithContextInAHandlerKeepsZmqTermination) {
    bool caughtAsTermination = false;

    try {
        try {
            throw wxblt::ZmqTermination();
        } catch (orviku::Exception& error) {
            error.throwWithContext(outer_line);
        }
    } catch (wxblt::ZmqTermination&) {
        caughtAsTermination = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsTermination);
}

TEST(ZmqTerminationTest, ThrowWithContextOnALocalThrowsZmqTermination) {
    wxblt::ZmqTermination local;
    orviku::Exception& asBase = local;
    bool caughtAsTermination = false;

    try {
        asBase.throwWithContext(outer_line);
    } catch (wxblt::ZmqTermination&) {
        caughtAsTermination = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsTermination);
}

}  // namespace
