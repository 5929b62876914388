// basic_layers.cpp: linear maps, embeddings, dropout.
#include "modules/basic_layers.h"

#include "arguments.h"
#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
#include "ktensor/networks.h"
#include "modules/initialization.h"

namespace ornik {

Linear::Linear(std::int64_t in, std::int64_t out, bool with_bias) {
    check_positive("Linear", {in, out});
    const double bound = init::fan_in_bound(in);
    weight = add_parameter("weight", init::uniform({out, in}, bound));
    bias = with_bias ? add_parameter("bias", init::uniform({out}, bound)) : KTensor();
    set_arguments(Arguments().add("in", in).add("out", out).add("bias", with_bias).text());
}

KTensor Linear::forward(const KTensor& x, nn::LayerEnd end, const KTensor& residual) {
    if (!is_training()) {
        return prepared_.linear(x, weight, bias, end, residual);
    }
    prepared_.drop();
    const KTensor y = linear(x, weight, bias);
    return apply_end(residual.defined() ? y + residual : y, end);
}

Embedding::Embedding(std::int64_t count, std::int64_t width, std::optional<std::int64_t> padding_index)
    : padding_index_(padding_index) {
    check_positive("Embedding", {count, width});
    if (padding_index && (*padding_index < -count || *padding_index >= count)) {
        fail(ErrorKind::index, where("ornik::Embedding"), "Embedding(): there is no row ", *padding_index, " of ",
             count, ".");
    }
    Arguments arguments;
    arguments.add("count", count).add("width", width);
    KTensor table = KTensor::randn({count, width});
    if (padding_index_) {
        *padding_index_ += *padding_index_ < 0 ? count : 0;
        const std::span<float> elements = table.mutable_span<float>();
        std::fill_n(elements.begin() + *padding_index_ * width, width, 0.0F);
        arguments.add("padding_index", *padding_index_);
    }
    weight = add_parameter("weight", std::move(table));
    set_arguments(arguments.text());
}

KTensor Embedding::forward(const KTensor& indices) { return embedding(indices, weight, padding_index_); }

Dropout::Dropout(double p) : p_(p) {
    check_probability("Dropout", p);
    set_arguments(Arguments().add("p", p).text());
}

KTensor Dropout::forward(const KTensor& x) { return dropout(x, p_, is_training()); }

DropoutChannels::DropoutChannels(double p) : p_(p) {
    check_probability("DropoutChannels", p);
    set_arguments(Arguments().add("p", p).text());
}

KTensor DropoutChannels::forward(const KTensor& x) { return dropout_channels(x, p_, is_training()); }

}  // namespace ornik
