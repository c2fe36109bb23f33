// Replays a fuzzer's corpus: its seeds, and what it once found. Each fuzzer has such a program, in every build.

#include "fuzz/Fuzz.h"

TEST(Corpus, Holds)
{
    const auto use = [](const std::string &bytes) {
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), 0);
    };
    const std::string program = program_invocation_short_name, // "plist_fuzz_test" has the corpus "plist"
        corpus = VAULTRY_TESTS_DIRECTORY "/fuzz/corpus/" + program.substr(0, program.find("_fuzz"));
    const auto names = disk::List(corpus);
    EXPECT_GT(names.size(), 4U);
    for (const auto &name : names) {
        const std::string bytes = disk::Read(corpus + "/" + name);
        (void)printf("%s\n", name.c_str());
        (void)fflush(stdout);
        use(bytes);
        // Small valid input is also cut off at every place, and each of its bytes changed.
        for (size_t at = 0; name.starts_with("valid-") && bytes.size() < 100 && at < bytes.size(); ++at) {
            use(bytes.substr(0, at));
            for (std::string damaged = bytes; ++damaged[at] != bytes[at];) use(damaged);
        }
    }
}
