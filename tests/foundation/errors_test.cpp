#include <orvikm/errors.hpp>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <orviku/exception.hpp>

namespace {

const std::string kMessage = "Expected \"m_id\" header.";
const std::string kOtherMessage = "Did not expect more headers for request \"BOX\".";
const std::string kContext = "While trying to decode headers for Inbox";
const std::string kOuterContext = "While trying to receive a request";

// Catches an error as the family root, adds a context line and rethrows the
// very object, the way every handler of the library does.
template <typename Error>
void throwThroughContextHandler(const std::string& message) {
    try {
        throw Error(message);
    } catch (orviku::Exception& error) {
        error.addContext(kContext);
        throw;
    }
}

// Catches an error as the family root and throws it on with throwWithContext.
template <typename Error>
void throwThroughThrowWithContext(const std::string& message) {
    try {
        throw Error(message);
    } catch (orviku::Exception& error) {
        error.throwWithContext(kContext);
    }
}

}  // namespace

TEST(ExceptionTest, IsCaughtAsAnOrvikuException) {
    bool caught = false;

    try {
        throw orvikm::Exception(kMessage);
    } catch (const orviku::Exception&) {
        caught = true;
    }

    EXPECT_TRUE(caught);
}

TEST(ExceptionTest, WhatIsTheMessageGivenAtConstruction) {
    const orvikm::Exception error(kMessage);

    EXPECT_EQ(std::string(error.what()), kMessage);
}

TEST(ExceptionTest, WhatIsTheMessageWhenCalledThroughTheOrvikuBase) {
    const orvikm::Exception error(kMessage);

    const orviku::Exception& base = error;

    EXPECT_EQ(std::string(base.what()), kMessage);
}

TEST(ExceptionTest, WhatKeepsTheMessageAfterTheCallersStringChanges) {
    std::string message = kMessage;
    const orvikm::Exception error(message);

    message = kOtherMessage;

    EXPECT_EQ(std::string(error.what()), kMessage);
}

TEST(ExceptionTest, EmptyMessageGivesAnEmptyWhatNotNull) {
    const orvikm::Exception error("");

    const char* text = error.what();

    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), "");
}

TEST(ExceptionTest, HasNoContextAfterConstruction) {
    const orvikm::Exception error(kMessage);

    EXPECT_TRUE(error.context().empty());
}

TEST(ExceptionTest, AddContextDoesNotChangeWhat) {
    orvikm::Exception error(kMessage);

    error.addContext(kContext);

    EXPECT_EQ(std::string(error.what()), kMessage);
}

TEST(ExceptionTest, AddContextIsKeptInTheContextLines) {
    orvikm::Exception error(kMessage);

    error.addContext(kContext);

    EXPECT_EQ(error.context(), std::vector<std::string>{kContext});
}

TEST(ExceptionTest, ContextLinesAccumulateInnermostFirst) {
    std::vector<std::string> context;

    try {
        try {
            throwThroughContextHandler<orvikm::Exception>(kMessage);
        } catch (orviku::Exception& error) {
            error.addContext(kOuterContext);
            throw;
        }
    } catch (const orvikm::Exception& error) {
        context = error.context();
    }

    EXPECT_EQ(context, (std::vector<std::string>{kContext, kOuterContext}));
}

TEST(ExceptionTest, DescribeIsTheMessageFollowedByTheContextLines) {
    orvikm::Exception error(kMessage);
    error.addContext(kContext);

    const std::string description = error.describe();

    EXPECT_EQ(description, kMessage + "\n" + kContext);
}

TEST(ExceptionTest, CopyKeepsTheMessage) {
    const orvikm::Exception error(kMessage);

    const orvikm::Exception copy(error);

    EXPECT_EQ(std::string(copy.what()), kMessage);
}

TEST(ExceptionTest, ThrowWithContextOutsideAHandlerThrowsAnOrvikmException) {
    orvikm::Exception error(kMessage);
    std::string caughtWhat;

    try {
        error.throwWithContext(kContext);
    } catch (const orvikm::Exception& thrown) {
        caughtWhat = thrown.what();
    }

    EXPECT_EQ(caughtWhat, kMessage);
}

TEST(ProtocolErrorTest, IsCaughtAsAnOrvikmException) {
    bool caught = false;

    try {
        throw orvikm::ProtocolError(kMessage);
    } catch (const orvikm::Exception&) {
        caught = true;
    }

    EXPECT_TRUE(caught);
}

TEST(ProtocolErrorTest, IsCaughtAsAnOrvikuException) {
    bool caught = false;

    try {
        throw orvikm::ProtocolError(kMessage);
    } catch (const orviku::Exception&) {
        caught = true;
    }

    EXPECT_TRUE(caught);
}

TEST(ProtocolErrorTest, WhatIsTheMessageGivenAtConstruction) {
    const orvikm::ProtocolError error(kMessage);

    EXPECT_EQ(std::string(error.what()), kMessage);
}

TEST(ProtocolErrorTest, EmptyMessageGivesAnEmptyWhatNotNull) {
    const orvikm::ProtocolError error("");

    const char* text = error.what();

    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text), "");
}

TEST(ProtocolErrorTest, RethrownAfterAddContextIsStillAProtocolError) {
    bool caughtAsProtocolError = false;

    try {
        throwThroughContextHandler<orvikm::ProtocolError>(kMessage);
    } catch (const orvikm::ProtocolError&) {
        caughtAsProtocolError = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsProtocolError);
}

TEST(ProtocolErrorTest, RethrownAfterAddContextKeepsWhat) {
    std::string caughtWhat;

    try {
        throwThroughContextHandler<orvikm::ProtocolError>(kMessage);
    } catch (const orvikm::ProtocolError& error) {
        caughtWhat = error.what();
    }

    EXPECT_EQ(caughtWhat, kMessage);
}

TEST(ProtocolErrorTest, RethrownAfterAddContextCarriesTheContext) {
    std::vector<std::string> context;

    try {
        throwThroughContextHandler<orvikm::ProtocolError>(kMessage);
    } catch (const orvikm::ProtocolError& error) {
        context = error.context();
    }

    EXPECT_EQ(context, std::vector<std::string>{kContext});
}

TEST(ProtocolErrorTest, ThrowWithContextOnACaughtProtocolErrorKeepsItsType) {
    bool caughtAsProtocolError = false;

    try {
        throwThroughThrowWithContext<orvikm::ProtocolError>(kMessage);
    } catch (const orvikm::ProtocolError&) {
        caughtAsProtocolError = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsProtocolError);
}

TEST(ProtocolErrorTest, ThrowWithContextOnACaughtProtocolErrorKeepsWhat) {
    std::string caughtWhat;

    try {
        throwThroughThrowWithContext<orvikm::ProtocolError>(kMessage);
    } catch (const orvikm::ProtocolError& error) {
        caughtWhat = error.what();
    }

    EXPECT_EQ(caughtWhat, kMessage);
}

TEST(ProtocolErrorTest, ThrowWithContextOnACaughtProtocolErrorAddsTheContext) {
    std::vector<std::string> context;

    try {
        throwThroughThrowWithContext<orvikm::ProtocolError>(kMessage);
    } catch (const orvikm::ProtocolError& error) {
        context = error.context();
    }

    EXPECT_EQ(context, std::vector<std::string>{kContext});
}

TEST(ProtocolErrorTest, ThrowWithContextOutsideAHandlerThrowsAProtocolError) {
    orvikm::ProtocolError error(kMessage);
    bool caughtAsProtocolError = false;

    try {
        error.throwWithContext(kContext);
    } catch (const orvikm::ProtocolError&) {
        caughtAsProtocolError = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsProtocolError);
}

TEST(ProtocolErrorTest, ThrownThroughAnOrvikmExceptionReferenceKeepsItsType) {
    orvikm::ProtocolError error(kMessage);
    orvikm::Exception& asBase = error;
    bool caughtAsProtocolError = false;

    try {
        asBase.throwWithContext(kContext);
    } catch (const orvikm::ProtocolError&) {
        caughtAsProtocolError = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsProtocolError);
}

TEST(ProtocolErrorTest, CopyKeepsTheMessage) {
    const orvikm::ProtocolError error(kMessage);

    const orvikm::ProtocolError copy(error);

    EXPECT_EQ(std::string(copy.what()), kMessage);
}
