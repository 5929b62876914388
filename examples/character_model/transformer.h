// transformer.h: a small transformer over characters: each position attends to those before it and scores what comes
// next.
#pragma once

#include <ornik.h>

struct TransformerSize {
    std::int64_t vocabulary = 0;
    std::int64_t context = 64;  // characters seen at once
    std::int64_t width = 64;
    std::int64_t heads = 4;
    std::int64_t layers = 2;
};

/// From characters [N, n], n <= context, to scores [N, n, vocabulary] of the character behind each.
struct Transformer : ornik::Module {
    explicit Transformer(const TransformerSize& s)
        : characters(add("characters", ornik::Embedding(s.vocabulary, s.width))),
          positions(add("positions", ornik::Embedding(s.context, s.width))),
          encoder(add("encoder", ornik::TransformerEncoder(s.layers, s.width, s.heads,
                                                           {.feed_forward = 4 * s.width,
                                                            .dropout = 0,
                                                            .activation = ornik::gelu,
                                                            .norm_first = true,
                                                            .batch_first = true,
                                                            .final_norm = true}))),
          scores(add("scores", ornik::Linear(s.width, s.vocabulary))) {}

    ornik::KTensor forward(const ornik::KTensor& text) override {
        const ornik::KTensor places = positions(ornik::KTensor::arange(text.size(1)));
        return scores(encoder->forward(characters(text) + places, {.causal = true}));
    }

    ornik::Part<ornik::Embedding> characters;
    ornik::Part<ornik::Embedding> positions;
    ornik::Part<ornik::TransformerEncoder> encoder;
    ornik::Part<ornik::Linear> scores;
};
