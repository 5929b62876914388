// module.h: parts of networks, with the parameters they own.
//
//     struct Network : ornik::Module {
//         Part<Linear> hidden = add("hidden", Linear(784, 128));
//         Part<Linear> scores = add("scores", Linear(128, 10));
//         KTensor forward(const KTensor& x) override { return scores(relu(hidden(flatten(x, 1)))); }
//     };
//
// A module is a handle to nothing: it owns its parameters and shares its parts (Part), so that it can be moved, and it
// is not copied. Parameters are named by the way to them, "hidden.weight", in the order of their registration, own ones
// before those of parts; these names and the layouts of the parameters are those of the large frameworks, so that their
// checkpoints fit.
#pragma once

#include <concepts>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "../ktensor/files.h"
#include "../ktensor/ktensor.h"
#include "../layers/functional/layer_end.h"

namespace ornik {

/// A part of a module, called like a function; the module and its Part name the same object.
template <typename M>
class Part {
  public:
    explicit Part(std::shared_ptr<M> module) : module_(std::move(module)) {}
    M* operator->() const { return module_.get(); }
    M& operator*() const { return *module_; }
    const std::shared_ptr<M>& shared() const { return module_; }
    template <typename... Arguments>
    auto operator()(Arguments&&... arguments) const {
        return module_->forward(std::forward<Arguments>(arguments)...);
    }

  private:
    std::shared_ptr<M> module_;
};

class ORNIK_API Module {
  public:
    virtual ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    Module(Module&&) noexcept;
    Module& operator=(Module&&) noexcept;

    /// Of modules from one tensor to one; others have a `forward` of their own and refuse this one.
    virtual KTensor forward(const KTensor& x);
    KTensor operator()(const KTensor& x) { return forward(x); }

    /// Every parameter and, with `buffers`, everything else that belongs to the state (running statistics). A parameter
    /// that two parts share stands here under its first name alone.
    [[nodiscard]] NamedTensors named_parameters() const;
    [[nodiscard]] NamedTensors named_buffers() const;
    [[nodiscard]] std::vector<KTensor> parameters() const;
    /// The number of elements of all parameters.
    [[nodiscard]] std::int64_t parameter_count() const;

    /// Parameters and buffers, shared ones under every name: what a checkpoint holds.
    [[nodiscard]] NamedTensors state() const;
    /// Copies values into parameters and buffers, converted to their dtypes. Names that are missing, surplus (unless
    /// not `strict`) or of another shape are all listed in one error, and nothing is changed. One name is enough for a
    /// tensor of several; buffers that are mere counts may be missing and become 0.
    void load_state(const NamedTensors& values, bool strict = true);

    /// Whether layers such as dropout and batch normalization act as in training; true at first.
    void train(bool on = true);
    void eval() { train(false); }
    [[nodiscard]] bool is_training() const { return training_; }
    /// Drops the parameters' gradients.
    void zero_grad();
    /// Turns parameters and buffers of floating dtypes into another one. Gradients are dropped.
    void to(std::int64_t dtype);
    /// Calls it for every module below, then for this one.
    void apply(const std::function<void(Module&)>& function);

    /// The modules one floor below, in the order of their registration.
    using Parts = std::vector<std::pair<std::string, std::shared_ptr<Module>>>;
    [[nodiscard]] const Parts& parts() const { return parts_; }
    /// What to_string() shows of this module: the class, and what stands between the parentheses.
    [[nodiscard]] std::string kind() const { return type_name(); }
    [[nodiscard]] const std::string& arguments() const { return arguments_; }
    /// This module and those below, one a line, each with its arguments: "Linear(in=784, out=128, bias=true)".
    [[nodiscard]] std::string to_string() const;

    // ---- For fuse() (fuse.h) ----

    /// The module that does the same in inference, in fewer passes; null when this one is to stay as it is. Modules
    /// that are made of others override it, and tell by it in which order these are used.
    [[nodiscard]] virtual std::shared_ptr<Module> fused();
    /// The activation that this module is, where a layer before it can end with that.
    [[nodiscard]] virtual std::optional<nn::LayerEnd> as_end() const;

  protected:
    Module() = default;
    /// Registers a leaf that asks for gradients; undefined stays out of every list. Returns it.
    KTensor add_parameter(const std::string& name, KTensor value);
    /// A count may be missing from states that are loaded.
    KTensor add_buffer(const std::string& name, KTensor value, bool is_count = false);
    /// Registers a module under a name without points.
    template <std::derived_from<Module> M>
    Part<M> add(const std::string& name, M module) {
        auto shared = std::make_shared<M>(std::move(module));
        add_part(name, shared);
        return Part<M>(std::move(shared));
    }
    void add_part(const std::string& name, std::shared_ptr<Module> part);
    [[nodiscard]] virtual std::string type_name() const;
    void set_arguments(std::string arguments) { arguments_ = std::move(arguments); }

  private:
    enum class What { parameters, buffers, counts };
    [[nodiscard]] const NamedTensors& list_of(What what) const;
    void collect(const std::string& prefix, What what, bool repeated, NamedTensors& result) const;
    void check_name(const std::string& name) const;

    bool training_ = true;
    NamedTensors parameters_;
    NamedTensors buffers_;
    NamedTensors counts_;  // those of the buffers that may be missing
    Parts parts_;
    std::string arguments_;
};

ORNIK_API std::ostream& operator<<(std::ostream& stream, const Module& module);

}  // namespace ornik
