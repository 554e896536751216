#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> inputs() {
    std::vector<std::filesystem::path> files;
    std::stringstream dirs(FUZZ_INPUT_DIRS);
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        if (!std::filesystem::is_directory(dir)) {
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            if (entry.is_regular_file() && entry.path().filename().string()[0] != '.') {
                files.push_back(entry.path());
            }
        }
    }
    return files;
}

// A broken property aborts the process, which fails this test.
TEST(FuzzReplayTest, EveryStoredInputKeepsEveryProperty) {
    const auto files = inputs();
    ASSERT_FALSE(files.empty());
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        SCOPED_TRACE(file.string());
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()),
                                         bytes.size()),
                  0);
    }
}

}  // namespace
