// Prints a digest of each result of a long list, or compares them with a file of digests: the same bits on every
// processor, system and number of threads.
//
//     digests                        prints "name digest" lines, among what some rows print
//     digests --write FILE           writes the lines
//     digests --check FILE           compares with these lines; tells what differs; exit code 1
//     digests --only TEXT ...        the rows whose names begin with TEXT, or with that of another --only
//     digests --short                some of every kind, for emulated processors
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>

#include "digest.h"
#include "hardware/instruction_set.h"

namespace {

using ornik::digests::Row;

constexpr const char* short_list[] = {"elements/a",
                                      "elements/s",
                                      "sums/products",
                                      "sums/reductions/33x70",
                                      "sums/convolutions/1x8",
                                      "sums/random",
                                      "sums/decompositions",
                                      "gradients/a",
                                      "calls/a",
                                      "training/perceptron",
                                      "training/recurrent"};

std::vector<Row> all_rows() {
    std::vector<Row> all;
    for (const auto part : {ornik::digests::element_rows, ornik::digests::sum_rows, ornik::digests::gradient_rows,
                            ornik::digests::call_rows, ornik::digests::training_rows}) {
        std::vector<Row> rows = part();
        all.insert(all.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
    }
    return all;
}

std::string digest_of(const Row& row) {
    ornik::digests::Digest digest;
    row.compute(digest);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(digest.value()));
    return text;
}

// `whole`: the file has no other rows.
int check(const std::vector<Row>& rows, const char* path, bool whole) {
    std::map<std::string, std::string> wanted;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t gap = std::min(line.rfind(' '), line.size());  // Names have spaces, digests have none.
        wanted[line.substr(0, gap)] = line.substr(std::min(gap + 1, line.size()));
    }
    int failed = 0;
    const auto differs = [&](const std::string& name, const std::string& digest, const std::string& expected) {
        std::printf("%s: %s, expected %s\n", name.c_str(), digest.c_str(), expected.c_str());
        ++failed;
    };
    for (const Row& row : rows) {
        const auto found = wanted.find(row.name);
        const std::string expected = found == wanted.end() ? "no digest" : found->second;
        const std::string digest = digest_of(row);
        if (digest != expected) {
            differs(row.name, digest, expected);
        }
        if (found != wanted.end()) {
            wanted.erase(found);
        }
    }
    if (whole) {
        for (const auto& [name, digest] : wanted) {
            differs(name, "no row", digest);
        }
    }
    std::printf("%s: %zu digests, %d differ\n", ornik::instruction_set(), rows.size(), failed);
    return failed == 0 && !rows.empty() ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments) {
    const char* path = nullptr;
    const char* written = nullptr;
    std::vector<std::string> beginnings;
    for (int i = 1; i < count; ++i) {
        if (i + 1 < count && std::strcmp(arguments[i], "--check") == 0) {
            path = arguments[++i];
        } else if (i + 1 < count && std::strcmp(arguments[i], "--write") == 0) {
            written = arguments[++i];
        } else if (i + 1 < count && std::strcmp(arguments[i], "--only") == 0) {
            beginnings.emplace_back(arguments[++i]);
        } else if (std::strcmp(arguments[i], "--short") == 0) {
            beginnings.insert(beginnings.end(), std::begin(short_list), std::end(short_list));
        } else {
            std::fprintf(stderr, "usage: digests [--check FILE] [--write FILE] [--only TEXT]... [--short]\n");
            return 2;
        }
    }
    std::vector<Row> rows = all_rows();
    if (!beginnings.empty()) {
        std::erase_if(rows, [&](const Row& row) {
            return std::none_of(beginnings.begin(), beginnings.end(),
                                [&](const std::string& text) { return row.name.starts_with(text); });
        });
    }
    if (path != nullptr) {
        return check(rows, path, beginnings.empty());
    }
    std::FILE* const out = written != nullptr ? std::fopen(written, "w") : stdout;
    if (out == nullptr) {
        std::perror(written);
        return 2;
    }
    for (const Row& row : rows) {
        std::fprintf(out, "%s %s\n", row.name.c_str(), digest_of(row).c_str());
    }
    std::fflush(out);
    return 0;
}
