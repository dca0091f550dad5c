// Runs every saved input of a fuzz target's corpus through its LLVMFuzzerTestOneInput, which
// aborts on a failed check, so a regression found once stays covered in the ordinary builds.
#include <stddef.h>
#include <stdint.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(FuzzReplay, EverySavedInputPasses) {
    namespace fs = std::filesystem;
    const fs::path corpus(FUZZ_CORPUS_DIR);
    if (!fs::is_directory(corpus))
        GTEST_SKIP() << "no corpus at " << corpus;
    size_t inputs = 0;
    for (const auto& entry : fs::directory_iterator(corpus)) {
        if (!entry.is_regular_file())
            continue;
        std::ifstream file(entry.path(), std::ios::binary);
        const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file),
                                         std::istreambuf_iterator<char>()};
        EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0) << entry.path();
        ++inputs;
    }
    EXPECT_GT(inputs, 0u);
}
