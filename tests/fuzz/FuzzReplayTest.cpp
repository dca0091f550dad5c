// Runs every saved input of a fuzz target's corpus through its LLVMFuzzerTestOneInput, which
// aborts on a failed check, so a regression found once stays covered in the ordinary builds.
#include <gtest/gtest.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

TEST(FuzzReplay, EverySavedInputPasses) {
    for (const auto& entry : std::filesystem::directory_iterator(FUZZ_CORPUS_DIR)) {
        const std::string bytes = ReadFileBytes(entry.path());
        EXPECT_EQ(
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), 0)
            << entry.path();
    }
    EXPECT_GT(std::distance(std::filesystem::directory_iterator(FUZZ_CORPUS_DIR), {}), 0);
}
