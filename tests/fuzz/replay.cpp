// A fuzzer's corpus replayed: what seeds it, and what it once found. One program a fuzzer, in every build.

#include "fuzz/Fuzz.h"

TEST(Corpus, Holds)
{
    const auto use = [](const std::string &bytes) {
        EXPECT_EQ(LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), 0);
    };
    const std::string program = program_invocation_short_name, // "plist_fuzz_test", which has the corpus "plist"
        corpus = VAULTRY_TESTS_DIRECTORY "/fuzz/corpus/" + program.substr(0, program.find("_fuzz"));
    const auto names = disk::List(corpus);
    EXPECT_GT(names.size(), 4U);
    for (const auto &name : names) {
        const std::string bytes = disk::Read(corpus + "/" + name);
        (void)printf("%s\n", name.c_str());
        (void)fflush(stdout);
        use(bytes);
        // What is small and valid also cut off anywhere, and with any byte another.
        for (size_t at = 0; name.starts_with("valid-") && bytes.size() < 100 && at < bytes.size(); ++at) {
            use(bytes.substr(0, at));
            for (std::string damaged = bytes; ++damaged[at] != bytes[at];) use(damaged);
        }
    }
}
