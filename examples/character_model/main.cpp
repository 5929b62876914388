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

#include "training/optimizer.h"
#include "transformer.h"

namespace {

namespace dtype = ornik::dtype;
using ornik::Tensor;

struct Options {
    std::string text = CHARACTER_MODEL_TEXT;
    int steps = 300;
    int batch = 16;
    float learning_rate = 0.003F;
    std::uint32_t seed = 1;
    int length = 400;
};

// The text as numbers of the characters that occur in it.
struct Text {
    std::string alphabet;
    std::vector<std::int64_t> characters;
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
    std::sort(text.alphabet.begin(), text.alphabet.end());
    text.alphabet.erase(std::unique(text.alphabet.begin(), text.alphabet.end()), text.alphabet.end());
    for (const char c : content) {
        text.characters.push_back(static_cast<std::int64_t>(text.alphabet.find(c)));
    }
    return text;
}

TensorPtr empty_characters(std::int64_t rows, std::int64_t cols) {
    return TensorPtr(Tensor::empty({rows, cols}, ornik::device_cpu, dtype::int64));
}

std::int64_t* items(const TensorPtr& t) { return static_cast<std::int64_t*>(t->getRawData()); }

// One step on windows of the text that start at random places; returns the loss.
float train_step(Transformer& model, ornik::Loss& loss, const Text& text, std::int64_t context, const Options& options,
                 int step) {
    const auto last = static_cast<std::int64_t>(text.characters.size()) - context;
    const TensorPtr starts(Tensor::randint({options.batch}, 0, last, ornik::device_cpu, dtype::int64));
    const TensorPtr input = empty_characters(options.batch, context);
    const TensorPtr target = empty_characters(options.batch, context);
    for (std::int64_t row = 0; row < options.batch; ++row) {
        const std::int64_t* window = text.characters.data() + items(starts)[row];
        std::copy_n(window, context, items(input) + row * context);
        std::copy_n(window + 1, context, items(target) + row * context);
    }
    const TensorPtr scores = model.forward(input, true);
    const TensorPtr value(loss.loss_forward(scores.get(), target.get()));
    model.backward(TensorPtr(loss.loss_backward(scores.get(), target.get())));
    const float warm = std::min(1.0F, static_cast<float>(step) / 20.0F);
    const float decay = 1.0F - 0.9F * static_cast<float>(step) / static_cast<float>(options.steps);
    adamw_update(model.parameters(), options.learning_rate * warm * decay, 0.01F, step);
    return *static_cast<const float*>(value->getRawData());
}

// Draws one character after the other from the model's own probabilities.
std::string write(Transformer& model, const Text& text, std::int64_t context, int length) {
    std::vector<std::int64_t> written{text.characters.front()};
    const std::unique_ptr<ornik::Layer> softmax(ornik::_Softmax(-1, ""));
    while (written.size() < static_cast<std::size_t>(length)) {
        const auto seen = std::min(static_cast<std::int64_t>(written.size()), context);
        const TensorPtr input = empty_characters(1, seen);
        std::copy(written.end() - seen, written.end(), items(input));
        const TensorPtr scores = model.forward(input, false);
        const TensorPtr next(scores->select_ndim({"0", "-1"}));
        const TensorPtr probabilities(softmax->forward_dyn(next.get()));
        const TensorPtr drawn(Tensor::multinomial(probabilities.get(), 1));
        written.push_back(items(drawn)[0]);
    }
    std::string result;
    for (const std::int64_t c : written) {
        result += text.alphabet[static_cast<std::size_t>(c)];
    }
    return result;
}

void run(const Options& options) {
    TransformerSize size;
    const Text text = read_text(options.text, static_cast<std::size_t>(size.context) + 2);
    size.vocabulary = static_cast<std::int64_t>(text.alphabet.size());
    ornik::set_random_seed(options.seed);
    Transformer model(size);
    std::int64_t weights = 0;
    for (const Parameter* p : model.parameters()) {
        weights += p->value->Size();
    }
    std::printf("%zu characters, %zu different; %lld weights; %d steps of %d windows of %lld characters\n",
                text.characters.size(), text.alphabet.size(), static_cast<long long>(weights), options.steps,
                options.batch, static_cast<long long>(size.context));
    const std::unique_ptr<ornik::Loss> loss(ornik::getLoss("softmax_cross_entropy"));
    double sum = 0;
    int count = 0;
    for (int step = 1; step <= options.steps; ++step) {
        sum += train_step(model, *loss, text, size.context, options, step);
        ++count;
        if (step % 25 == 0 || step == options.steps || step == 1) {
            std::printf("step %4d   loss %.4f\n", step, sum / count);
            std::fflush(stdout);
            sum = 0;
            count = 0;
        }
    }
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
