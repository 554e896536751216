#include <gtest/gtest.h>

#include <orviku/exception.hpp>

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

const std::string message = "the node went away";
const std::string other_message = "something else went wrong";
const std::string inner_line = "while reading the headers";
const std::string middle_line = "while receiving a message";
const std::string outer_line = "while running the dispenser loop";
const std::string base_what = "orviku::Exception";

static_assert(std::is_base_of_v<std::exception, orviku::Exception>);
static_assert(std::is_polymorphic_v<orviku::Exception>);
static_assert(std::is_copy_constructible_v<orviku::Exception>);
static_assert(std::is_copy_assignable_v<orviku::Exception>);
static_assert(std::is_base_of_v<orviku::Exception, orviku::GeneralException>);
static_assert(std::is_copy_constructible_v<orviku::GeneralException>);

// A derived type of the family that the library does not know of, as an
// application would define it.
class CustomException : public orviku::Exception {
public:
    explicit CustomException(int code) : _code(code) {}
    int code() const noexcept { return _code; }

protected:
    [[noreturn]] void raise() const override { throw *this; }

private:
    int _code;
};

TEST(ExceptionTest, NewExceptionHasNoContext) {
    const orviku::GeneralException error(message);

    EXPECT_TRUE(error.context().empty());
}

TEST(ExceptionTest, AddContextAppendsLinesInTheOrderAdded) {
    orviku::GeneralException error(message);

    error.addContext(inner_line);
    error.addContext(middle_line);
    error.addContext(outer_line);

    EXPECT_EQ(error.context(), (std::vector<std::string>{inner_line, middle_line, outer_line}));
}

TEST(ExceptionTest, AddContextDoesNotChangeWhat) {
    orviku::GeneralException error(message);

    error.addContext(inner_line);

    EXPECT_EQ(std::string(error.what()), message);
}

TEST(ExceptionTest, DescribeIsWhatFollowedByEachContextLineOnePerLine) {
    orviku::GeneralException error(message);
    error.addContext(inner_line);
    error.addContext(outer_line);

    const std::string text = error.describe();

    EXPECT_EQ(text, message + "\n" + inner_line + "\n" + outer_line);
}

TEST(ExceptionTest, DescribeWithoutContextIsWhat) {
    const orviku::GeneralException error(message);

    EXPECT_EQ(error.describe(), message);
}

TEST(ExceptionTest, DescribeUsesTheMostDerivedWhat) {
    orviku::GeneralException error(message);
    error.addContext(inner_line);
    const orviku::Exception& asBase = error;

    EXPECT_EQ(asBase.describe(), message + "\n" + inner_line);
}

TEST(ExceptionTest, BaseWhatNamesTheClass) {
    const orviku::Exception error;

    EXPECT_EQ(std::string(error.what()), base_what);
}

TEST(ExceptionTest, ThrowWithContextInAHandlerRethrowsTheDerivedType) {
    bool caughtAsDerived = false;

    try {
        try {
            throw orviku::GeneralException(message);
        } catch (orviku::Exception& error) {
            error.throwWithContext(outer_line);
        }
    } catch (orviku::GeneralException&) {
        caughtAsDerived = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsDerived);
}

TEST(ExceptionTest, ThrowWithContextInAHandlerRethrowsTheVeryObjectCaught) {
    const void* caughtFirst = nullptr;
    const void* caughtAgain = nullptr;

    try {
        try {
            throw orviku::GeneralException(message);
        } catch (orviku::Exception& error) {
            caughtFirst = &error;
            error.throwWithContext(outer_line);
        }
    } catch (orviku::GeneralException& error) {
        caughtAgain = &error;
    }

    ASSERT_NE(caughtFirst, nullptr);
    EXPECT_EQ(caughtAgain, caughtFirst);
}

TEST(ExceptionTest, ThrowWithContextInAHandlerRethrowsWithTheNewLineAdded) {
    std::vector<std::string> context;

    try {
        try {
            orviku::GeneralException error(message);
            error.addContext(inner_line);
            throw error;
        } catch (orviku::Exception& error) {
            error.throwWithContext(outer_line);
        }
    } catch (orviku::GeneralException& error) {
        context = error.context();
    }

    EXPECT_EQ(context, (std::vector<std::string>{inner_line, outer_line}));
}

TEST(ExceptionTest, ThrowWithContextInAHandlerKeepsAnApplicationDefinedType) {
    int code = 0;

    try {
        try {
            throw CustomException(42);
        } catch (orviku::Exception& error) {
            error.throwWithContext(outer_line);
        }
    } catch (CustomException& error) {
        code = error.code();
    } catch (...) {
    }

    EXPECT_EQ(code, 42);
}

TEST(ExceptionTest, ThrowWithContextThroughSeveralHandlersCollectsEveryLine) {
    std::vector<std::string> context;

    try {
        try {
            try {
                throw orviku::GeneralException(message);
            } catch (orviku::Exception& error) {
                error.throwWithContext(inner_line);
            }
        } catch (orviku::Exception& error) {
            error.throwWithContext(middle_line);
        }
    } catch (orviku::GeneralException& error) {
        context = error.context();
    }

    EXPECT_EQ(context, (std::vector<std::string>{inner_line, middle_line}));
}

TEST(ExceptionTest, ThrowWithContextOnALocalThrowsTheMostDerivedType) {
    orviku::GeneralException local(message);
    orviku::Exception& asBase = local;
    bool caughtAsDerived = false;

    try {
        asBase.throwWithContext(outer_line);
    } catch (orviku::GeneralException&) {
        caughtAsDerived = true;
    } catch (...) {
    }

    EXPECT_TRUE(caughtAsDerived);
}

TEST(ExceptionTest, ThrowWithContextOnALocalThrowsACopy) {
    orviku::GeneralException local(message);
    const void* caught = nullptr;

    try {
        local.throwWithContext(outer_line);
    } catch (orviku::GeneralException& error) {
        caught = &error;
    }

    ASSERT_NE(caught, nullptr);
    EXPECT_NE(caught, static_cast<const void*>(&local));
}

TEST(ExceptionTest, ThrowWithContextOnALocalThrowsTheMessageAndEveryLine) {
    orviku::GeneralException local(message);
    local.addContext(inner_line);
    std::string what;
    std::vector<std::string> context;

    try {
        local.throwWithContext(outer_line);
    } catch (orviku::GeneralException& error) {
        what = error.what();
        context = error.context();
    }

    EXPECT_EQ(what, message);
    EXPECT_EQ(context, (std::vector<std::string>{inner_line, outer_line}));
}

TEST(ExceptionTest, ThrowWithContextOnALocalAddsTheLineToTheLocalToo) {
    orviku::GeneralException local(message);

    try {
        local.throwWithContext(outer_line);
    } catch (orviku::Exception&) {
    }

    EXPECT_EQ(local.context(), std::vector<std::string>{outer_line});
}

TEST(ExceptionTest, ThrowWithContextOnALocalKeepsAnApplicationDefinedType) {
    CustomException local(7);
    orviku::Exception& asBase = local;
    int code = 0;

    try {
        asBase.throwWithContext(outer_line);
    } catch (CustomException& error) {
        code = error.code();
    } catch (...) {
    }

    EXPECT_EQ(code, 7);
}

TEST(ExceptionTest, ThrowWithContextOnALocalInsideAnotherHandlerThrowsTheLocal) {
    std::string what;

    try {
        try {
            throw orviku::GeneralException(other_message);
        } catch (orviku::Exception&) {
            orviku::GeneralException local(message);
            local.throwWithContext(outer_line);
        }
    } catch (orviku::GeneralException& error) {
        what = error.what();
    }

    EXPECT_EQ(what, message);
}

TEST(ExceptionTest, ThrowWithContextOnALocalInsideAForeignHandlerThrowsTheLocal) {
    std::string what;

    try {
        try {
            throw std::runtime_error(other_message);
        } catch (std::exception&) {
            orviku::GeneralException local(message);
            local.throwWithContext(outer_line);
        }
    } catch (orviku::GeneralException& error) {
        what = error.what();
    } catch (...) {
    }

    EXPECT_EQ(what, message);
}

TEST(ExceptionTest, ThrowWithContextOnABaseObjectThrowsTheBaseType) {
    orviku::Exception local;
    std::string what;

    try {
        local.throwWithContext(outer_line);
    } catch (orviku::Exception& error) {
        what = error.what();
    }

    EXPECT_EQ(what, base_what);
}

TEST(ExceptionTest, ThrowWithContextNeverReturns) {
    orviku::GeneralException local(message);
    bool returned = false;

    try {
        local.throwWithContext(outer_line);
        returned = true;
    } catch (orviku::Exception&) {
    }

    EXPECT_FALSE(returned);
}

TEST(GeneralExceptionTest, WhatIsTheMessage) {
    const orviku::GeneralException error(message);

    EXPECT_EQ(std::string(error.what()), message);
}

TEST(GeneralExceptionTest, IsCaughtAsAnOrvikuException) {
    std::string what;

    try {
        throw orviku::GeneralException(message);
    } catch (orviku::Exception& error) {
        what = error.what();
    }

    EXPECT_EQ(what, message);
}

TEST(GeneralExceptionTest, IsCaughtAsAStdException) {
    std::string what;

    try {
        throw orviku::GeneralException(message);
    } catch (std::exception& error) {
        what = error.what();
    }

    EXPECT_EQ(what, message);
}

TEST(GeneralExceptionTest, CopyKeepsMessageAndContext) {
    orviku::GeneralException original(message);
    original.addContext(inner_line);
    original.addContext(outer_line);

    const orviku::GeneralException copy(original);

    EXPECT_EQ(std::string(copy.what()), message);
    EXPECT_EQ(copy.context(), (std::vector<std::string>{inner_line, outer_line}));
}

TEST(GeneralExceptionTest, CopyAssignmentKeepsMessageAndContext) {
    orviku::GeneralException original(message);
    original.addContext(inner_line);
    orviku::GeneralException target(other_message);

    target = original;

    EXPECT_EQ(std::string(target.what()), message);
    EXPECT_EQ(target.context(), std::vector<std::string>{inner_line});
}

TEST(GeneralExceptionTest, CopyOutlivesTheOriginal) {
    auto original = std::make_unique<orviku::GeneralException>(message);
    original->addContext(inner_line);
    const orviku::GeneralException copy(*original);

    original.reset();

    EXPECT_EQ(std::string(copy.what()), message);
    EXPECT_EQ(copy.context(), std::vector<std::string>{inner_line});
}

TEST(GeneralExceptionTest, ContextAddedToACopyLeavesTheOriginalAlone) {
    const orviku::GeneralException original(message);
    orviku::GeneralException copy(original);

    copy.addContext(outer_line);

    EXPECT_TRUE(original.context().empty());
}

}  // namespace
