#include <orvikm/payload.hpp>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/payload_helpers.hpp"

namespace {

using orvikm::Payload;
using testsupport::bufferWith;
using testsupport::bytesOf;
using testsupport::FreeLog;
using testsupport::payloadOf;

const std::string kType = "text/plain";
const std::string kOtherType = "application/octet-stream";
const std::string kBody = "hello";
const std::string kOtherBody = "other body";

using DefaultFreeTarget = void (*)(char*);

// Frees a buffer that, by the rule under test, the payload does not own. The
// payload lets go of it first, so that a payload that wrongly owns it cannot
// free it a second time and turn a failed expectation into a crash.
void freeOurselves(Payload& payload) {
    payload.release();
    delete[] payload.getBuffer();
}

// Sets a flag when its own destructor runs.
class TracingPayload : public Payload {
public:
    TracingPayload(const std::string& type, bool& destroyed)
        : Payload(nullptr, 0, type, FreeCallback()), _destroyed(destroyed) {}
    ~TracingPayload() override { _destroyed = true; }

private:
    bool& _destroyed;
};

bool hasDefaultFree(const Payload& payload) {
    const Payload::FreeCallback callback = payload.getFreeCallback();
    const DefaultFreeTarget* target = callback.target<DefaultFreeTarget>();
    return target != nullptr && *target == &Payload::defaultFree;
}

}  // namespace

// Main constructor

TEST(PayloadTest, MainConstructorKeepsTheCallersBufferPointer) {
    auto buffer = bufferWith(kBody);

    const Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    EXPECT_EQ(payload.getBuffer(), buffer.get());
}

TEST(PayloadTest, MainConstructorKeepsTheSize) {
    auto buffer = bufferWith(kBody);

    const Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    EXPECT_EQ(payload.size(), kBody.size());
}

TEST(PayloadTest, MainConstructorKeepsTheType) {
    auto buffer = bufferWith(kBody);

    const Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    EXPECT_EQ(payload.type(), kType);
}

TEST(PayloadTest, MainConstructorDefaultsToTheDefaultFreeCallback) {
    const Payload payload(new char[kBody.size()], kBody.size(), kType);

    EXPECT_TRUE(hasDefaultFree(payload));
}

TEST(PayloadTest, DestructorCallsTheFreeCallbackOnceWithTheBuffer) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;

    { const Payload payload(buffer.get(), kBody.size(), kType, frees.callback()); }

    EXPECT_EQ(frees.calls, std::vector<char*>{buffer.get()});
}

TEST(PayloadTest, DestructorCallsTheFreeCallbackAlsoForANullBuffer) {
    FreeLog frees;

    { const Payload payload(nullptr, 0, kType, frees.callback()); }

    EXPECT_EQ(frees.calls, std::vector<char*>{nullptr});
}

TEST(PayloadTest, EmptyCallbackLeavesTheBufferUnowned) {
    auto buffer = bufferWith(kBody);

    const Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    EXPECT_FALSE(payload.getFreeCallback());
}

TEST(PayloadTest, ConstGetBufferReturnsTheSamePointer) {
    auto buffer = bufferWith(kBody);
    Payload payload(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload& constPayload = payload;

    EXPECT_EQ(constPayload.getBuffer(), payload.getBuffer());
}

// Allocating constructor

TEST(PayloadTest, SizeConstructorBufferHoldsSizeBytes) {
    Payload payload(kBody.size(), kType);

    std::copy(kBody.begin(), kBody.end(), payload.getBuffer());

    EXPECT_EQ(bytesOf(payload), kBody);
}

TEST(PayloadTest, SizeConstructorAllocatesAlsoForSizeZero) {
    const Payload first(0, kType);

    const Payload second(0, kType);

    EXPECT_NE(first.getBuffer(), nullptr);
    EXPECT_NE(second.getBuffer(), nullptr);
    EXPECT_NE(first.getBuffer(), second.getBuffer());
}

TEST(PayloadTest, SizeConstructorKeepsTheSize) {
    const Payload payload(7, kType);

    EXPECT_EQ(payload.size(), 7u);
}

TEST(PayloadTest, SizeConstructorKeepsTheType) {
    const Payload payload(7, kType);

    EXPECT_EQ(payload.type(), kType);
}

TEST(PayloadTest, SizeConstructorUsesTheDefaultFreeCallback) {
    const Payload payload(7, kType);

    EXPECT_TRUE(hasDefaultFree(payload));
}

// Copy construction

TEST(PayloadTest, CopyHasABufferOfItsOwn) {
    auto buffer = bufferWith(kBody);
    const Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_NE(copy.getBuffer(), source.getBuffer());
}

TEST(PayloadTest, CopyHasTheSourcesBytes) {
    auto buffer = bufferWith(kBody);
    const Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_EQ(bytesOf(copy), kBody);
}

TEST(PayloadTest, CopyHasTheSourcesSize) {
    auto buffer = bufferWith(kBody);
    const Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_EQ(copy.size(), kBody.size());
}

TEST(PayloadTest, CopyHasTheSourcesType) {
    auto buffer = bufferWith(kBody);
    const Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_EQ(copy.type(), kType);
}

TEST(PayloadTest, CopyLeavesTheSourceUnchanged) {
    auto buffer = bufferWith(kBody);
    const Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_EQ(source.getBuffer(), buffer.get());
    EXPECT_EQ(bytesOf(source), kBody);
    EXPECT_EQ(source.type(), kType);
}

TEST(PayloadTest, CopyGetsTheDefaultFreeCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    const Payload source(buffer.get(), kBody.size(), kType, frees.callback());

    const Payload copy(source);

    EXPECT_TRUE(hasDefaultFree(copy));
}

TEST(PayloadTest, DestroyingACopyDoesNotCallTheSourcesCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload source(buffer.get(), kBody.size(), kType, frees.callback());

    { const Payload copy(source); }

    EXPECT_TRUE(frees.calls.empty());
}

TEST(PayloadTest, CopyOfANotOwningPayloadOwnsItsBuffer) {
    auto buffer = bufferWith(kBody);
    const Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_TRUE(hasDefaultFree(copy));
}

TEST(PayloadTest, CopyOfSizeZeroTouchesNeitherBufferAndHasABufferOfItsOwn) {
    const Payload source(nullptr, 0, kType, Payload::FreeCallback());

    const Payload copy(source);

    EXPECT_NE(copy.getBuffer(), nullptr);
    EXPECT_EQ(copy.size(), 0u);
    EXPECT_EQ(source.getBuffer(), nullptr);
}

// Copy assignment

TEST(PayloadTest, CopyAssignmentGivesTheTargetANewBuffer) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_NE(target.getBuffer(), sourceBuffer.get());
    EXPECT_NE(target.getBuffer(), targetBuffer.get());
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentCopiesTheSourcesBytes) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_EQ(bytesOf(target), kBody);
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentCopiesTheSize) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_EQ(target.size(), kBody.size());
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentCopiesTheType) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_EQ(target.type(), kType);
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentLeavesTheSourceUnchanged) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_EQ(source.getBuffer(), sourceBuffer.get());
    EXPECT_EQ(bytesOf(source), kBody);
    EXPECT_EQ(source.type(), kType);
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentReturnsTheTarget) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    Payload& result = (target = source);

    EXPECT_EQ(&result, &target);
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentDoesNotCallTheTargetsOldCallback) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog sourceFrees;
    FreeLog targetFrees;
    const Payload source(new char[kBody.size()], kBody.size(), kType,
                         sourceFrees.freeingCallback());

    {
        Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, targetFrees.callback());
        target = source;
    }

    EXPECT_TRUE(targetFrees.calls.empty());
}

TEST(PayloadTest, CopyAssignmentFreesTheNewBufferThroughTheSourcesCallback) {
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog sourceFrees;
    const Payload source(new char[kBody.size()], kBody.size(), kType,
                         sourceFrees.freeingCallback());
    char* newBuffer = nullptr;

    {
        Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());
        target = source;
        newBuffer = target.getBuffer();
    }

    EXPECT_EQ(sourceFrees.calls, std::vector<char*>{newBuffer});
}

TEST(PayloadTest, CopyAssignmentFromANotOwningSourceLeavesTheTargetNotOwning) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog targetFrees;
    const Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, targetFrees.callback());

    target = source;

    EXPECT_FALSE(target.getFreeCallback());
    freeOurselves(target);
}

TEST(PayloadTest, CopyAssignmentFromADefaultFreeSourceGivesTheTargetTheDefaultCallback) {
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(3, kType);
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_TRUE(hasDefaultFree(target));
}

TEST(PayloadTest, CopyAssignmentOfSizeZeroTouchesNeitherBufferAndGivesTheTargetANewOne) {
    auto targetBuffer = bufferWith(kOtherBody);
    const Payload source(nullptr, 0, kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = source;

    EXPECT_NE(target.getBuffer(), nullptr);
    EXPECT_NE(target.getBuffer(), targetBuffer.get());
    EXPECT_EQ(target.size(), 0u);
    EXPECT_EQ(std::string(targetBuffer.get(), kOtherBody.size()), kOtherBody);
    EXPECT_EQ(source.getBuffer(), nullptr);
    freeOurselves(target);
}

// Move construction

TEST(PayloadTest, MoveTakesTheBufferPointer) {
    auto buffer = bufferWith(kBody);
    Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload moved(std::move(source));

    EXPECT_EQ(moved.getBuffer(), buffer.get());
}

TEST(PayloadTest, MoveTakesTheSize) {
    auto buffer = bufferWith(kBody);
    Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload moved(std::move(source));

    EXPECT_EQ(moved.size(), kBody.size());
}

TEST(PayloadTest, MoveTakesTheType) {
    auto buffer = bufferWith(kBody);
    Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload moved(std::move(source));

    EXPECT_EQ(moved.type(), kType);
}

TEST(PayloadTest, MoveTakesTheCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload source(buffer.get(), kBody.size(), kType, frees.callback());

    { const Payload moved(std::move(source)); }

    EXPECT_EQ(frees.calls, std::vector<char*>{buffer.get()});
}

TEST(PayloadTest, MovedFromPayloadHasANullBuffer) {
    auto buffer = bufferWith(kBody);
    Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload moved(std::move(source));

    EXPECT_EQ(source.getBuffer(), nullptr);
}

TEST(PayloadTest, MovedFromPayloadHasAnEmptyType) {
    auto buffer = bufferWith(kBody);
    Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload moved(std::move(source));

    EXPECT_EQ(source.type(), "");
}

TEST(PayloadTest, MovedFromPayloadKeepsItsSize) {
    auto buffer = bufferWith(kBody);
    Payload source(buffer.get(), kBody.size(), kType, Payload::FreeCallback());

    const Payload moved(std::move(source));

    EXPECT_EQ(source.size(), kBody.size());
}

TEST(PayloadTest, MovedFromPayloadHasNoCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload source(buffer.get(), kBody.size(), kType, frees.callback());

    Payload moved(std::move(source));

    EXPECT_FALSE(source.getFreeCallback());
}

TEST(PayloadTest, DestroyingAMovedFromPayloadCallsNothing) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    auto source = std::make_unique<Payload>(buffer.get(), kBody.size(), kType, frees.callback());
    Payload moved(std::move(*source));

    source.reset();

    EXPECT_TRUE(frees.calls.empty());
}

TEST(PayloadTest, CopyOfAMovedFromPayloadKeepsItsSizeAndHoldsZeroBytes) {
    Payload source = payloadOf(kBody, kType);
    const Payload moved(std::move(source));

    const Payload copy(source);

    ASSERT_NE(copy.getBuffer(), nullptr);
    EXPECT_EQ(copy.size(), kBody.size());
    EXPECT_EQ(bytesOf(copy), std::string(kBody.size(), '\0'));
}

TEST(PayloadTest, CopyAssignmentFromAMovedFromPayloadKeepsItsSizeAndHoldsZeroBytes) {
    Payload source = payloadOf(kBody, kType);
    const Payload moved(std::move(source));
    Payload target(0, kType);
    std::unique_ptr<char[]> targetBuffer(target.getBuffer());  // not released by the assignment

    target = source;

    ASSERT_NE(target.getBuffer(), nullptr);
    EXPECT_EQ(target.size(), kBody.size());
    EXPECT_EQ(bytesOf(target), std::string(kBody.size(), '\0'));
    delete[] target.getBuffer();  // a moved-from source has no callback to hand on
}

// Move assignment

TEST(PayloadTest, MoveAssignmentTakesTheBufferPointer) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_EQ(target.getBuffer(), sourceBuffer.get());
}

TEST(PayloadTest, MoveAssignmentCopiesTheSize) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_EQ(target.size(), kBody.size());
}

TEST(PayloadTest, MoveAssignmentGivesTheTargetTheSourcesType) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_EQ(target.type(), kType);
}

TEST(PayloadTest, MoveAssignmentGivesTheSourceTheTargetsFormerType) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_EQ(source.type(), kOtherType);
}

TEST(PayloadTest, MoveAssignmentTakesTheSourcesCallback) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog sourceFrees;
    Payload source(sourceBuffer.get(), kBody.size(), kType, sourceFrees.callback());

    {
        Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());
        target = std::move(source);
    }

    EXPECT_EQ(sourceFrees.calls, std::vector<char*>{sourceBuffer.get()});
}

TEST(PayloadTest, MoveAssignmentReturnsTheTarget) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    Payload& result = (target = std::move(source));

    EXPECT_EQ(&result, &target);
}

TEST(PayloadTest, MoveAssignmentDoesNotCallTheTargetsOldCallback) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog targetFrees;
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());

    {
        Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, targetFrees.callback());
        target = std::move(source);
    }

    EXPECT_TRUE(targetFrees.calls.empty());
}

TEST(PayloadTest, MoveAssignedFromPayloadHasANullBuffer) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_EQ(source.getBuffer(), nullptr);
}

TEST(PayloadTest, MoveAssignedFromPayloadKeepsItsSize) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_EQ(source.size(), kBody.size());
}

TEST(PayloadTest, MoveAssignedFromPayloadHasNoCallback) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog sourceFrees;
    Payload source(sourceBuffer.get(), kBody.size(), kType, sourceFrees.callback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());

    target = std::move(source);

    EXPECT_FALSE(source.getFreeCallback());
}

TEST(PayloadTest, DestroyingAMoveAssignedFromPayloadCallsNothing) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog sourceFrees;
    auto source =
        std::make_unique<Payload>(sourceBuffer.get(), kBody.size(), kType, sourceFrees.callback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, Payload::FreeCallback());
    target = std::move(*source);

    source.reset();

    EXPECT_TRUE(sourceFrees.calls.empty());
}

TEST(PayloadTest, MoveAssignmentFromANotOwningSourceLeavesTheTargetNotOwning) {
    auto sourceBuffer = bufferWith(kBody);
    auto targetBuffer = bufferWith(kOtherBody);
    FreeLog targetFrees;
    Payload source(sourceBuffer.get(), kBody.size(), kType, Payload::FreeCallback());
    Payload target(targetBuffer.get(), kOtherBody.size(), kOtherType, targetFrees.callback());

    target = std::move(source);

    EXPECT_FALSE(target.getFreeCallback());
}

// release() and getFreeCallback()

TEST(PayloadTest, ReleaseEmptiesTheCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    payload.release();

    EXPECT_FALSE(payload.getFreeCallback());
}

TEST(PayloadTest, ReleaseKeepsTheBufferPointer) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    payload.release();

    EXPECT_EQ(payload.getBuffer(), buffer.get());
}

TEST(PayloadTest, ReleaseKeepsTheSize) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    payload.release();

    EXPECT_EQ(payload.size(), kBody.size());
}

TEST(PayloadTest, ReleaseKeepsTheType) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    payload.release();

    EXPECT_EQ(payload.type(), kType);
}

TEST(PayloadTest, ReleaseDoesNotCallTheCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    payload.release();

    EXPECT_TRUE(frees.calls.empty());
}

TEST(PayloadTest, DestroyingAReleasedPayloadCallsNothing) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;

    {
        Payload payload(buffer.get(), kBody.size(), kType, frees.callback());
        payload.release();
    }

    EXPECT_TRUE(frees.calls.empty());
}

TEST(PayloadTest, GetFreeCallbackReturnsACopyOfTheCallback) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;
    Payload payload(buffer.get(), kBody.size(), kType, frees.callback());

    payload.getFreeCallback()(buffer.get());

    EXPECT_EQ(frees.calls, std::vector<char*>{buffer.get()});
}

TEST(PayloadTest, GetFreeCallbackLeavesThePayloadOwning) {
    auto buffer = bufferWith(kBody);
    FreeLog frees;

    {
        const Payload payload(buffer.get(), kBody.size(), kType, frees.callback());
        const Payload::FreeCallback copy = payload.getFreeCallback();
    }

    EXPECT_EQ(frees.calls, std::vector<char*>{buffer.get()});
}

TEST(PayloadTest, DeletingADerivedPayloadThroughAPayloadPointerRunsTheDerivedDestructor) {
    bool derivedDestroyed = false;
    std::unique_ptr<Payload> payload = std::make_unique<TracingPayload>(kType, derivedDestroyed);

    payload.reset();

    EXPECT_TRUE(derivedDestroyed);
}
