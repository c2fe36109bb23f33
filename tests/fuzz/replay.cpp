// A fuzzer's corpus replayed: what seeds it, and what it once found. One program a fuzzer, in every build.

#include "fuzz/Fuzz.h"
#include "support/Disk.h"

TEST(Corpus, Holds)
{
    const std::string corpus = VAULTRY_CORPUS;
    const auto names = disk::List(corpus);
    EXPECT_GT(names.size(), 4U);
    for (const auto &name : names) {
        const std::string bytes = disk::Read(corpus + "/" + name);
        (void)printf("%s\n", name.c_str());
        (void)fflush(stdout);
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), 0);
    }
}
