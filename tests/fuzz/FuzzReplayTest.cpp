// Runs every saved input of a fuzz target's corpus through its LLVMFuzzerTestOneInput, which
// aborts on a failed check, so a regression found once stays covered in the ordinary builds.
#include <gtest/gtest.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(FuzzReplay, EverySavedInputPasses) {
    const std::filesystem::path corpus(FUZZ_CORPUS_DIR);
    if (!std::filesystem::is_directory(corpus))
        GTEST_SKIP() << "no corpus at " << corpus;
    size_t inputs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpus)) {
        if (!entry.is_regular_file())
            continue;
        const std::string bytes = ReadFileBytes(entry.path());
        EXPECT_EQ(
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0)
            << entry.path();
        ++inputs;
    }
    EXPECT_GT(inputs, 0u);
}
