// What orvik prints, checked exactly, apart from any I/O.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "output.hpp"

namespace orvik::output {
namespace {

using std::chrono::milliseconds;

ReceivedMessage sampleMessage() {
    ReceivedMessage message;
    message.id = "0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10";
    message.appId = "sender";
    message.routes = {"news", "sport"};
    message.type = "text/plain";
    message.body = "hi \"you\"";
    message.validForSeconds = 30;
    message.ackMode = 1;
    message.origin = {"node-a"};
    return message;
}

TEST(OrvikOutputTest, Base64MatchesTheStandardVectors) {
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64("foob"), "Zm9vYg==");
    EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(base64(std::string("\xff\x00\xfe", 3)), "/wD+");
}

TEST(OrvikOutputTest, Utf8CheckRefusesStrayOverlongAndSurrogateBytes) {
    EXPECT_TRUE(isUtf8("h\xc3\xa9llo"));
    EXPECT_TRUE(isUtf8(""));
    EXPECT_FALSE(isUtf8("\xff"));
    EXPECT_FALSE(isUtf8("\xc0\x80"));
    EXPECT_FALSE(isUtf8("\xed\xa0\x80"));
    EXPECT_FALSE(isUtf8("\xc3"));
}

TEST(OrvikOutputTest, EscapeKeepsUtf8AndEscapesControlsAndBackslashes) {
    EXPECT_EQ(escape("h\xc3\xa9\n\t\\\x01"), "h\xc3\xa9\\n\\t\\\\\\x01");
}

TEST(OrvikOutputTest, EscapeWritesEveryNonAsciiByteOfInvalidUtf8InHex) {
    EXPECT_EQ(escape("a\xc3\xa9\xff"), "a\\xc3\\xa9\\xff");
}

TEST(OrvikOutputTest, EscapeWritesC1ControlCharactersInHex) {
    EXPECT_EQ(escape("a\xc2\x80"
                     "b\xc2\x9f\xc2\xa0"),
              "a\\xc2\\x80b\\xc2\\x9f\xc2\xa0");
}

TEST(OrvikOutputTest, MessageJsonLineHasEveryKeyInOrder) {
    EXPECT_EQ(
        messageJsonLine(sampleMessage()),
        R"({"id":"0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10","app_id":"sender",)"
        R"("routes":["news","sport"],"type":"text/plain","size":8,"valid_for":30,)"
        R"("ack_mode":1,"origin":["node-a"],"body":"hi \"you\"","body_base64":"aGkgInlvdSI="})");
}

TEST(OrvikOutputTest, MessageJsonBodyIsNullWhenThePayloadIsNotUtf8) {
    ReceivedMessage message = sampleMessage();
    message.body = std::string("\x00\xff", 2);

    const nlohmann::ordered_json json = messageJson(message);

    EXPECT_TRUE(json.at("body").is_null());
    EXPECT_EQ(json.at("body_base64"), "AP8=");
    EXPECT_EQ(json.at("size"), 2);
}

TEST(OrvikOutputTest, MessageJsonKeepsIdsThatAreNotUtf8ApartInBase64) {
    ReceivedMessage fe = sampleMessage();
    fe.id = "id-\xfe";
    ReceivedMessage ff = sampleMessage();
    ff.id = "id-\xff";

    const nlohmann::json first = nlohmann::json::parse(messageJsonLine(fe));
    const nlohmann::json second = nlohmann::json::parse(messageJsonLine(ff));

    EXPECT_EQ(first.at("id"), "id-\xef\xbf\xbd");
    EXPECT_EQ(second.at("id"), "id-\xef\xbf\xbd");
    EXPECT_EQ(first.at("id_base64"), "aWQt/g==");
    EXPECT_EQ(second.at("id_base64"), "aWQt/w==");
}

TEST(OrvikOutputTest, MessageJsonPutsTheBase64OfEachFieldThatIsNotUtf8BesideIt) {
    ReceivedMessage message = sampleMessage();
    message.appId = "app\x80";
    message.type = "text/\xc0";
    message.routes = {"news", "r\xff"};
    message.origin = {"node-\xfe"};

    EXPECT_EQ(messageJsonLine(message),
              "{\"id\":\"0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10\",\"app_id\":\"app\xef\xbf\xbd\","
              "\"app_id_base64\":\"YXBwgA==\",\"routes\":[\"news\",\"r\xef\xbf\xbd\"],"
              "\"routes_base64\":[\"bmV3cw==\",\"cv8=\"],\"type\":\"text/\xef\xbf\xbd\","
              "\"type_base64\":\"dGV4dC/A\",\"size\":8,\"valid_for\":30,\"ack_mode\":1,"
              "\"origin\":[\"node-\xef\xbf\xbd\"],\"origin_base64\":[\"bm9kZS3+\"],"
              "\"body\":\"hi \\\"you\\\"\",\"body_base64\":\"aGkgInlvdSI=\"}");
}

TEST(OrvikOutputTest, MessageTextIsOneReadableLine) {
    EXPECT_EQ(messageText(sampleMessage()),
              "0b5ad2a4-3d69-4c4a-9d7e-2f4f1c3e8a10 from sender on news,sport (text/plain, 8 "
              "bytes, valid 30 s, ack node): hi \"you\"");
}

TEST(OrvikOutputTest, AckModesHaveNamesAndOtherValuesTheirNumber) {
    EXPECT_EQ(ackModeName(0), "none");
    EXPECT_EQ(ackModeName(1), "node");
    EXPECT_EQ(ackModeName(2), "receivers");
    EXPECT_EQ(ackModeName(-7), "-7");
}

TEST(OrvikOutputTest, SendSummaryIsExact) {
    EXPECT_EQ(sendSummary(3, 2), "sent 3, acknowledged 2");
}

TEST(OrvikOutputTest, RegistryJsonIsIndentedByFourSpaces) {
    EXPECT_EQ(registryText(R"({"a":[1]})", true), "{\n    \"a\": [\n        1\n    ]\n}\n");
}

TEST(OrvikOutputTest, RegistryRawKeepsTheBytesAndAddsAMissingNewline) {
    EXPECT_EQ(registryText(R"({"a":[1]})", false), "{\"a\":[1]}\n");
    EXPECT_EQ(registryText("line\n", false), "line\n");
    EXPECT_EQ(registryText("not json", true), "not json\n");
}

TEST(OrvikOutputTest, BenchFiguresUseNearestRankPercentiles) {
    std::vector<std::chrono::nanoseconds> latencies;
    for (int ms = 100; ms >= 1; --ms) {
        latencies.push_back(milliseconds(ms));
    }

    const BenchFigures figures = benchFigures(200, 1000, std::nullopt, 2.0, latencies);

    EXPECT_EQ(figures.acknowledged, 100u);
    EXPECT_EQ(figures.p50, milliseconds(50));
    EXPECT_EQ(figures.p99, milliseconds(99));
    EXPECT_EQ(figures.max, milliseconds(100));
    EXPECT_DOUBLE_EQ(figures.messagesPerSecond, 50.0);
    EXPECT_DOUBLE_EQ(figures.megabytesPerSecond, 0.05);
}

TEST(OrvikOutputTest, BenchTextIsThreeLines) {
    const BenchFigures figures =
        benchFigures(4, 100, 2, 0.5, {milliseconds(1), milliseconds(2), milliseconds(3)});

    EXPECT_EQ(benchText(figures),
              "acknowledged 3 of 4 messages of 100 bytes in 0.500 s (window 2)\n"
              "throughput 6 messages/s, 0.00 MB/s\n"
              "latency p50 2.000 ms, p99 3.000 ms, max 3.000 ms\n");
}

TEST(OrvikOutputTest, BenchJsonHasEveryKey) {
    const BenchFigures figures = benchFigures(1, 10, std::nullopt, 1.0, {milliseconds(4)});

    EXPECT_EQ(benchJson(figures).dump(),
              R"({"messages":1,"acknowledged":1,"size":10,"window":null,"seconds":1.0,)"
              R"("messages_per_second":1.0,"mb_per_second":1e-05,)"
              R"("latency_ms":{"p50":4.0,"p99":4.0,"max":4.0}})");
}

}  // namespace
}  // namespace orvik::output
