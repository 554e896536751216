#include <gtest/gtest.h>

#include <orviku/uuid.hpp>

#include <regex>
#include <set>

namespace {

TEST(GenerateStrUuidTest, IsAVersion4UuidInLowerCaseText) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");

    const std::string id = orviku::generate_str_uuid();

    EXPECT_EQ(id.size(), 36u);
    EXPECT_TRUE(std::regex_match(id, form)) << id;
}

TEST(GenerateStrUuidTest, EveryCallGivesANewId) {
    std::set<std::string> ids;
    for (int i = 0; i < 10000; ++i) {
        ids.insert(orviku::generate_str_uuid());
    }

    EXPECT_EQ(ids.size(), 10000u);
}

}  // namespace
