#include <gtest/gtest.h>

#include <orviku/uuid.hpp>

#include <regex>
#include <set>

#include <sys/wait.h>
#include <unistd.h>

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

namespace {

// Ids are drawn from random bytes fetched ahead; a forked child must not hand
// out ids from bytes its parent still holds.
TEST(GenerateStrUuidTest, ForkedChildNeverRepeatsItsParentsIds) {
    orviku::generate_str_uuid();  // the parent's pool now holds bytes for later ids
    int channel[2];
    ASSERT_EQ(pipe(channel), 0);

    const pid_t child = fork();
    if (child == 0) {
        close(channel[0]);
        std::string ids;
        for (int i = 0; i < 100; ++i) {
            ids += orviku::generate_str_uuid();
        }
        const ssize_t written = write(channel[1], ids.data(), ids.size());
        _exit(written == static_cast<ssize_t>(ids.size()) ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    close(channel[1]);
    std::set<std::string> parentIds;
    for (int i = 0; i < 100; ++i) {
        parentIds.insert(orviku::generate_str_uuid());
    }
    std::string childIds(3600, '\0');
    std::size_t got = 0;
    while (got < childIds.size()) {
        const ssize_t n = read(channel[0], childIds.data() + got, childIds.size() - got);
        if (n <= 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    close(channel[0]);
    int status = 0;
    waitpid(child, &status, 0);

    ASSERT_EQ(got, childIds.size());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    int shared = 0;
    for (std::size_t i = 0; i < 100; ++i) {
        shared += parentIds.count(childIds.substr(i * 36, 36)) > 0 ? 1 : 0;
    }
    EXPECT_EQ(shared, 0);
}

}  // namespace
