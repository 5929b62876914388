// A bounded, deterministic run of the files fuzzer.
#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>

#include "fuzz/files_target.h"

namespace ornik::test {
namespace {

int exercise(const std::string& bytes) {
    return exercise_files(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

TEST(FilesFuzz, MutatedCorpus) {
    std::vector<std::string> corpus;
    for (const auto& entry : std::filesystem::directory_iterator(ORNIK_TEST_FILES)) {
        if (entry.path().extension() != ".py") {
            corpus.push_back(read_file(entry.path()));
        }
    }
    std::sort(corpus.begin(), corpus.end());
    ASSERT_GE(corpus.size(), 7U);
    // What the formats are made of: such bytes get further than others.
    const std::string alphabet = "0123456789,:[]{}()'\"\\<>|bfiucFTePK \n\1\x08\xFF";
    std::mt19937 engine(20240607);
    const auto below = [&engine](std::size_t n) { return engine() % n; };
    int accepted_runs = 0;
    for (int run = 0; run < 20'000; ++run) {
        std::string input = corpus[below(corpus.size())];
        for (std::size_t edits = 1 + below(3); edits-- > 0;) {
            const std::size_t at = below(input.size());
            const char byte = below(4) == 0 ? static_cast<char>(below(256)) : alphabet[below(alphabet.size())];
            switch (below(4)) {
                case 0:
                    input[at] = byte;
                    break;
                case 1:
                    input.insert(at, 1, byte);
                    break;
                case 2:
                    input.erase(at, 1 + below(8));
                    break;
                default:  // A piece of the file comes again elsewhere.
                    input.insert(at, input.substr(below(input.size()), below(60)));
            }
            input += input.empty() ? "x" : "";
        }
        accepted_runs += exercise(input);
    }
    // Changed elements, names and spaces are no reason to refuse; a run without any would show nothing.
    EXPECT_GT(accepted_runs, 200);
    EXPECT_LT(accepted_runs, 15'000);
}

}  // namespace
}  // namespace ornik::test
