// Trains a character-level transformer on a short text and writes a few lines of its own.
//
// The same seed gives the same text on every run, whatever the number of threads or processors.
#include <ornik.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "transformer.h"

namespace {

using ornik::KTensor;
using ornik::Slice;

struct Options {
    std::string text = CHARACTER_MODEL_TEXT;
    int steps = 300;
    int batch = 16;
    float learning_rate = 0.01F;
    std::uint32_t seed = 1;
    int length = 400;
};

// The text as numbers of the characters that occur in it.
struct Text {
    std::string alphabet;
    KTensor characters;
};

Text read_text(const std::string& path, std::size_t at_least) {
    std::ifstream file(path, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file) {
        throw std::runtime_error(path + ": cannot be read");
    }
    if (content.size() < at_least) {
        throw std::runtime_error(path + ": has fewer than " + std::to_string(at_least) + " characters");
    }
    Text text{content, {}};
    std::vector<std::int64_t> characters;
    std::sort(text.alphabet.begin(), text.alphabet.end());
    text.alphabet.erase(std::unique(text.alphabet.begin(), text.alphabet.end()), text.alphabet.end());
    for (const char c : content) {
        characters.push_back(static_cast<std::int64_t>(text.alphabet.find(c)));
    }
    text.characters = KTensor::from(characters);
    return text;
}

void train(ornik::Module& model, const Text& text, std::int64_t context, const Options& options) {
    ornik::AdamW optimizer(model.parameters(), {.beta2 = 0.99, .weight_decay = 0.01});
    ornik::OneCycleSchedule schedule(optimizer, options.learning_rate, options.steps, {.rising = 0.1});
    const KTensor window = KTensor::arange(context);
    double sum = 0;
    int count = 0;
    for (int step = 1; step <= options.steps; ++step) {
        const KTensor starts = KTensor::randint(0, text.characters.size() - context, {options.batch, 1});
        optimizer.zero_grad();
        const KTensor scores = model(take(text.characters, starts + window));
        const KTensor loss = cross_entropy(scores, take(text.characters, starts + window + 1));
        loss.backward();
        optimizer.step();
        schedule.step();
        sum += loss.item<double>();
        ++count;
        if (step % 25 == 0 || step == options.steps || step == 1) {
            std::printf("step %4d   loss %.4f\n", step, sum / count);
            std::fflush(stdout);
            sum = 0;
            count = 0;
        }
    }
}

// Draws one character after the other from the model's own probabilities.
std::string write(ornik::Module& model, const Text& text, std::int64_t context, int length) {
    const ornik::NoGrad values_alone;
    std::string result(1, text.alphabet[static_cast<std::size_t>(text.characters[0].item<std::int64_t>())]);
    KTensor seen = reshape(text.characters[0], {1, 1});
    while (result.size() < static_cast<std::size_t>(length)) {
        const KTensor scores = model(seen).index({0, -1});
        const KTensor drawn = multinomial(softmax(scores), 1);
        result += text.alphabet[static_cast<std::size_t>(drawn.item<std::int64_t>())];
        seen = ornik::concat({seen, reshape(drawn, {1, 1})}, 1);
        seen = slice(seen, 1, Slice(-context));
    }
    return result;
}

void run(const Options& options) {
    TransformerSize size;
    const Text text = read_text(options.text, static_cast<std::size_t>(size.context) + 2);
    size.vocabulary = static_cast<std::int64_t>(text.alphabet.size());
    ornik::set_random_seed(options.seed);
    Transformer model(size);
    std::printf("%lld characters, %zu different; %lld weights; %d steps of %d windows of %lld characters\n",
                static_cast<long long>(text.characters.size()), text.alphabet.size(),
                static_cast<long long>(model.parameter_count()), options.steps, options.batch,
                static_cast<long long>(size.context));
    train(model, text, size.context, options);
    std::printf("\n%s\n", write(model, text, size.context, options.length).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Trains a character-level transformer on a text and lets it write.");
    app.add_option("--text", options.text, "The text to learn")->capture_default_str();
    app.add_option("--steps", options.steps, "Training steps")->check(CLI::Range(1, 1000000))->capture_default_str();
    app.add_option("--batch", options.batch, "Windows per step")->check(CLI::Range(1, 4096))->capture_default_str();
    app.add_option("--lr", options.learning_rate, "Highest learning rate")
        ->check(CLI::Range(0.0F, 1.0F))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "Seed of weights, windows and the text that is written")
        ->capture_default_str();
    app.add_option("--length", options.length, "Characters to write")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "character_model: %s\n", error.what());
        return 1;
    }
    return 0;
}
