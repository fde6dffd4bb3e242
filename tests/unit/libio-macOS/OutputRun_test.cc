#include "libio-macOS/OutputRun.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>

#include "libio-macOS/RvKQueueStreamSocket.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {

SharedBytes share(const std::shared_ptr<const std::string>& text) {
    return {text, text->data(), text->size()};
}

std::string_view piece(const OutputRun& run) {
    return {run.data(), run.pieceSize()};
}

TEST(OutputRun, GivesCopiedBytesThenSharedOnes) {
    const auto text = std::make_shared<const std::string>("shared");
    OutputRun run;
    EXPECT_TRUE(run.isEmpty());
    ASSERT_TRUE(run.append("copied", 6));
    EXPECT_FALSE(run.isClosed());
    run.share(share(text));
    EXPECT_TRUE(run.isClosed());
    EXPECT_EQ(12U, run.size());
    EXPECT_EQ(6U, run.copiedSize());
    EXPECT_EQ("copied", piece(run));
    run.drop(4);
    EXPECT_EQ("ed", piece(run));
    run.drop(2);
    EXPECT_EQ("shared", piece(run));
    EXPECT_EQ(text->data(), run.data());
    run.drop(1);
    EXPECT_EQ("hared", piece(run));
    EXPECT_EQ(5U, run.size());
}

TEST(OutputRun, ReleasesTheOwnerWithTheLastByte) {
    const auto text = std::make_shared<const std::string>("shared");
    OutputRun run;
    run.share(share(text));
    run.drop(5);
    EXPECT_EQ(2, text.use_count());
    run.drop(1);
    EXPECT_EQ(1, text.use_count());
    EXPECT_TRUE(run.isEmpty());
    EXPECT_FALSE(run.isClosed());
}

TEST(OutputRun, TakesWhatAnotherHas) {
    const auto text = std::make_shared<const std::string>("shared");
    OutputRun run;
    OutputRun next;
    ASSERT_TRUE(run.append("a", 1));
    ASSERT_TRUE(next.append("b", 1));
    next.share(share(text));
    ASSERT_TRUE(run.take(next));
    EXPECT_TRUE(next.isEmpty());
    EXPECT_EQ("ab", piece(run));
    EXPECT_EQ(8U, run.size());
    EXPECT_EQ(2, text.use_count());
}

class SharedOutput : public EngineTest {};

// More than the kernel takes at once; what is written before and behind keeps its place.
TEST_F(SharedOutput, PartsArriveInTheOrderOfTheWrites) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    const auto first = std::make_shared<const std::string>(patternBytes(3'000'000, 1));
    const auto second = std::make_shared<const std::string>(patternBytes(2'000'000, 2));
    loop->startObject(endpoint, nullptr);
    loop->write(endpoint, "before", 6);
    endpoint->writeShared("head", share(first), "tail");
    loop->write(endpoint, "between", 7);
    endpoint->writeShared("", share(second), "");
    loop->write(endpoint, "behind", 6);
    const std::string expected = "beforehead" + *first + "tailbetween" + *second + "behind";
    EXPECT_TRUE(readExactly(pair[1], expected.size()) == expected);
    EXPECT_TRUE(waitUntil([&] { return first.use_count() == 1 && second.use_count() == 1; }));
    loop->write(endpoint, "after", 5);
    EXPECT_EQ("after", readExactly(pair[1], 5));
}

TEST_F(SharedOutput, WritesFromTheIoThreadWaitForTheBody) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    const auto body = std::make_shared<const std::string>(patternBytes(3'000'000, 3));
    loop->startObject(endpoint, [&](RvKQueueEventProtocol* object, const char*, std::uint64_t, std::uint64_t*,
                                    std::int32_t event) {
        if (event == kEventData) object->write("answer", 6);
        return true;
    });
    endpoint->writeShared("", share(body), "");
    std::string expected = readExactly(pair[1], 1);
    writeAll(pair[1], "question");
    EXPECT_TRUE(expected + readExactly(pair[1], body->size() + 5) == *body + "answer");
    stopLoop();  // the block must not outlive the case
}

TEST_F(SharedOutput, ABodyMayBeAsShortAsWhatFollows) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, nullptr);
    for (const char* const text : {"b", "body"}) {
        const auto body = std::make_shared<const std::string>(text);
        endpoint->writeShared("", share(body), *body);
        EXPECT_EQ(*body + *body, readExactly(pair[1], 2 * body->size()));
    }
}

TEST_F(SharedOutput, AnEmptyBodyIsNothing) {
    DescriptorPair pair = DescriptorPair::socketPair();
    const auto endpoint = loop->createStreamSocket(pair.release(0), true);
    loop->startObject(endpoint, nullptr);
    endpoint->writeShared("head", {}, "tail");
    EXPECT_EQ("headtail", readExactly(pair[1], 8));
}

TEST_F(SharedOutput, OwnerIsHeldUntilTheEndpointGoes) {
    const auto body = std::make_shared<const std::string>(patternBytes(3'000'000, 4));
    {
        DescriptorPair pair = DescriptorPair::socketPair();
        auto endpoint = loop->createStreamSocket(pair.release(0), true);
        loop->startObject(endpoint, nullptr);
        endpoint->writeShared("", share(body), "");
        EXPECT_EQ(1U, readExactly(pair[1], 1).size());
        EXPECT_EQ(2, body.use_count());  // not a copy
        loop->stopObject(endpoint);
    }
    EXPECT_TRUE(waitUntil([&] { return body.use_count() == 1; }));
}

}  // namespace
