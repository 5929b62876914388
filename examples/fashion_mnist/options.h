// options.h: what the user may choose on the command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct Options {
    std::string network = "convolutional";
    int epochs = 5;
    int batch = 128;
    float learning_rate = 0.05F;
    float momentum = 0.9F;
    std::uint32_t seed = 1;
    int threads = 0;  // 0: the library's default
    std::string data = "/usr/share/datasets/fashion-mnist";
};

/// Nothing when the program has to end at once, with `exit_code`: after --help, or after a message about a
/// wrong argument.
std::optional<Options> parse_options(int argc, char** argv, int& exit_code);
