// containers.h: modules in a row, in a list, by name.
#pragma once

#include <algorithm>
#include <concepts>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "module.h"

namespace ornik {

/// Modules one after the other, named "0", "1", ... Made in braces, Sequential{Linear(2, 8), ReLU(), Linear(8, 1)},
/// they draw their parameters in the order of the text; in parentheses that is the compiler's choice.
class ORNIK_API Sequential : public Module {
  public:
    template <std::derived_from<Module>... Modules>
    explicit Sequential(Modules... modules) {
        (append(std::move(modules)), ...);
    }
    template <std::derived_from<Module> M>
    void append(M module) {
        append(std::make_shared<M>(std::move(module)));
    }
    void append(std::shared_ptr<Module> module);
    KTensor forward(const KTensor& x) override;
    std::shared_ptr<Module> fused() override;
};

/// activation(body(x) + shortcut(x)), x itself where there is no shortcut. Parts: body, shortcut, activation.
class ORNIK_API Residual : public Module {
  public:
    /// Shortcut and activation may be null.
    explicit Residual(std::shared_ptr<Module> body, std::shared_ptr<Module> shortcut = nullptr,
                      std::shared_ptr<Module> activation = nullptr);
    template <std::derived_from<Module> M>
    explicit Residual(M body, std::shared_ptr<Module> shortcut = nullptr, std::shared_ptr<Module> activation = nullptr)
        : Residual(std::make_shared<M>(std::move(body)), std::move(shortcut), std::move(activation)) {}
    KTensor forward(const KTensor& x) override;
    std::shared_ptr<Module> fused() override;

  private:
    std::shared_ptr<Module> body_;
    std::shared_ptr<Module> shortcut_;
    std::shared_ptr<Module> activation_;
};

/// Modules of one base, named "0", "1", ...; what is done with them is the owner's business.
template <std::derived_from<Module> M = Module>
class ModuleList : public Module {
  public:
    ModuleList() = default;
    template <std::derived_from<M> N>
    void append(N module) {
        append(std::make_shared<N>(std::move(module)));
    }
    void append(std::shared_ptr<M> module) {
        add_part(std::to_string(modules_.size()), module);
        modules_.push_back(std::move(module));
    }

    [[nodiscard]] std::size_t size() const { return modules_.size(); }
    /// `i` below size().
    [[nodiscard]] M& operator[](std::size_t i) const { return *modules_.at(i); }
    auto begin() const { return modules_.begin(); }
    auto end() const { return modules_.end(); }

  private:
    std::vector<std::shared_ptr<M>> modules_;
};

/// Modules of one base by names, in the order in which they came.
template <std::derived_from<Module> M = Module>
class ModuleDict : public Module {
  public:
    ModuleDict() = default;
    template <std::derived_from<M> N>
    void insert(const std::string& name, N module) {
        insert(name, std::make_shared<N>(std::move(module)));
    }
    void insert(const std::string& name, std::shared_ptr<M> module) {
        add_part(name, module);
        modules_.emplace_back(name, std::move(module));
    }

    [[nodiscard]] std::size_t size() const { return modules_.size(); }
    /// Null when there is none of that name.
    [[nodiscard]] M* find(const std::string& name) const {
        const auto place = std::find_if(begin(), end(), [&](const auto& entry) { return entry.first == name; });
        return place == end() ? nullptr : place->second.get();
    }
    auto begin() const { return modules_.begin(); }
    auto end() const { return modules_.end(); }

  private:
    std::vector<std::pair<std::string, std::shared_ptr<M>>> modules_;
};

}  // namespace ornik
