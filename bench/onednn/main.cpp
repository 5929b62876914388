// The rows of products and convolutions through oneDNN, as a yardstick: in the layouts that this library takes, and,
// as ".../prepared", in those that oneDNN likes best for input, weight and result, with bias and ReLU in the same pass.
#include <dnnl.hpp>
#include <memory>
#include <unordered_map>
#include <vector>

#include "../rows.h"

namespace {

using dnnl::memory;
using Dims = memory::dims;
using Tag = memory::format_tag;

const dnnl::engine& engine() {
    static const dnnl::engine only(dnnl::engine::kind::cpu, 0);
    return only;
}

memory filled(const memory::desc& layout, float value) {
    memory m(layout, engine());
    auto* values = static_cast<float*>(m.get_data_handle());
    std::fill_n(values, layout.get_size() / sizeof(float), value);
    return m;
}

dnnl::primitive_attr ending_in_relu() {
    dnnl::post_ops ends;
    ends.append_eltwise(1.0F, dnnl::algorithm::eltwise_relu, 0.0F, 0.0F);
    dnnl::primitive_attr attributes;
    attributes.set_post_ops(ends);
    return attributes;
}

// A row that runs the primitive on operands in the layouts that it asks for.
template <typename Primitive, typename Description>
void row(const std::string& name, const Description& description, bool has_bias) {
    std::unordered_map<int, memory> operands{{DNNL_ARG_SRC, filled(description.src_desc(), 1)},
                                             {DNNL_ARG_WEIGHTS, filled(description.weights_desc(), 2)},
                                             {DNNL_ARG_DST, filled(description.dst_desc(), 0)}};
    if (has_bias) {
        operands.emplace(DNNL_ARG_BIAS, filled(description.query_md(dnnl::query::weights_md, 1), 3));
    }
    const auto run = std::make_shared<Primitive>(description);
    bench::row(name, [=, stream = std::make_shared<dnnl::stream>(engine())] {
        run->execute(*stream, operands);
        stream->wait();
    });
}

void product_row(const std::string& name, const bench::Product& p, bool prepared) {
    using dnnl::matmul;
    const auto type = memory::data_type::f32;
    const Dims a{p.batch, p.rows, p.depth}, b{p.batch, p.depth, p.cols}, c{p.batch, p.rows, p.cols};
    if (prepared) {
        const matmul::desc operation({a, type, Tag::abc}, {b, type, Tag::any}, {{1, 1, p.cols}, type, Tag::abc},
                                     {c, type, Tag::abc});
        row<matmul>(name, matmul::primitive_desc(operation, ending_in_relu(), engine()), true);
    } else {
        const matmul::desc operation({a, type, Tag::abc}, {b, type, Tag::abc}, {c, type, Tag::abc});
        row<matmul>(name, matmul::primitive_desc(operation, engine()), false);
    }
}

void convolution_row(const std::string& name, const bench::Conv& c, bool prepared) {
    using dnnl::convolution_forward;
    const auto type = memory::data_type::f32;
    const std::int64_t out = (c.side + 2 * c.padding - c.kernel) / c.stride + 1;
    const Dims x{c.batch, c.inputs, c.side, c.side}, y{c.batch, c.outputs, out, out};
    const bool grouped = c.groups > 1;
    const Dims w = grouped ? Dims{c.groups, c.outputs / c.groups, c.inputs / c.groups, c.kernel, c.kernel}
                           : Dims{c.outputs, c.inputs, c.kernel, c.kernel};
    const Tag plane = prepared ? Tag::any : Tag::nchw;
    const Tag weight = prepared ? Tag::any : grouped ? Tag::goihw : Tag::oihw;
    const Dims strides{c.stride, c.stride}, padding{c.padding, c.padding};
    const convolution_forward::desc operation(
        dnnl::prop_kind::forward_inference,
        prepared ? dnnl::algorithm::convolution_auto : dnnl::algorithm::convolution_direct, {x, type, plane},
        {w, type, weight}, {{c.outputs}, type, Tag::a}, {y, type, plane}, strides, padding, padding);
    const dnnl::primitive_attr plain;
    row<convolution_forward>(
        name, convolution_forward::primitive_desc(operation, prepared ? ending_in_relu() : plain, engine()), true);
}

}  // namespace

int main(int argc, char** argv) {
    for (const std::int64_t n : bench::product_sizes) {
        product_row("dot/" + std::to_string(n), {"", 1, n, n, n}, false);
    }
    for (const bench::Product& p : bench::products) {
        if (!p.float64) {  // oneDNN multiplies no doubles on processors.
            const std::string name = std::string("product/") + p.name;
            product_row(name, p, false);
            if (p.batch == 1) {
                product_row(name + "/prepared", p, true);
            }
        }
    }
    for (const bench::Conv& c : bench::convolutions) {
        if (!c.transposed && !c.float64) {
            convolution_row(std::string("conv/") + c.name + "/forward", c, false);
            convolution_row(std::string("conv/") + c.name + "/prepared", c, true);
        }
    }
    return bench::run(argc, argv);
}
