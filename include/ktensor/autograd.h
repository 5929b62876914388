// autograd.h: what is recorded, and how gradients are asked for.
//
// While any operand of an operation asks for gradients, its result keeps the operation, the operands' places in the
// graph, and what its gradient needs; nothing is kept otherwise, nor inside a NoGrad scope. backward() walks the graph
// from the results to the leaves, in the reverse order of the operations, which fixes every bit of the sums.
//
// Values that were saved for a gradient and are changed in place before backward() are noticed: backward() then fails
// and names the operation, and nothing has changed. The memory of foreign owners, changed outside the library, is not
// watched.
//
// Threads: recording is a state of each thread. Graphs of different threads may share leaves: each leaf's sum is taken
// under its own lock (the order of the threads is then open, and with it the last bits of a sum of three and more). One
// graph is walked by one thread at a time; a second one is refused.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "ktensor.h"

namespace ornik {

/// Is this thread recording?
ORNIK_API bool grad_enabled() noexcept;

/// Sets recording on or off for this thread while it lives.
class ORNIK_API GradMode {
  public:
    explicit GradMode(bool enabled) noexcept;
    ~GradMode();
    GradMode(const GradMode&) = delete;
    GradMode& operator=(const GradMode&) = delete;

  private:
    bool before_;
};

/// Nothing is recorded on this thread while it lives.
class NoGrad : public GradMode {
  public:
    NoGrad() noexcept : GradMode(false) {}
};

struct GradOptions {
    bool retain_graph = false;  ///< keep what was saved for another pass
    bool create_graph = false;  ///< record the pass itself, for second derivatives; keeps what was saved
    bool allow_unused = false;  ///< an input that no output depends on gets an undefined gradient
};

/// The gradients of `inputs` (leaves or intermediate results) from those of `outputs`; no grad() is touched. `seeds`
/// are as for KTensor::backward, one for each output, or none at all.
ORNIK_API std::vector<KTensor> grad(const std::vector<KTensor>& outputs, const std::vector<KTensor>& inputs,
                                    const std::vector<KTensor>& seeds = {}, const GradOptions& options = {});

/// backward() from several tensors at once.
ORNIK_API void backward(const std::vector<KTensor>& outputs, const std::vector<KTensor>& seeds = {},
                        bool retain_graph = false, bool create_graph = false);

// ---- Operations of a program's own ----

/// What a forward function gives: the results, and what its backward function needs.
struct CustomResult {
    std::vector<KTensor> outputs;
    std::vector<KTensor> kept;
};
/// From the operands; nothing is recorded inside.
using CustomForward = std::function<CustomResult(const std::vector<KTensor>& operands)>;
/// From what was kept and the gradients of the outputs (undefined where none came): a gradient for every operand,
/// undefined for none. Gradients of a broadcast shape or a wider dtype are brought to the operand's.
using CustomBackward =
    std::function<std::vector<KTensor>(const std::vector<KTensor>& kept, const std::vector<KTensor>& gradients)>;

/// Runs `forward` and records it as one operation under `name`. Changed values among those kept are noticed as ever.
/// Has second derivatives when `backward` is made of operations that have.
ORNIK_API std::vector<KTensor> custom(const std::string& name, const std::vector<KTensor>& operands,
                                      const CustomForward& forward, CustomBackward backward);

/// A function whose inner results are not kept: backward() runs it once more. It has to do the same again; random
/// numbers are drawn as the first time. Tensors that it uses without their being operands get their gradients, too.
/// First derivatives only.
using Segment = std::function<std::vector<KTensor>(const std::vector<KTensor>& operands)>;
ORNIK_API std::vector<KTensor> checkpoint(Segment segment, const std::vector<KTensor>& operands);
/// True while backward() runs a checkpointed function again: what happens once in a forward pass, such as moving the
/// statistics of a normalization, is not to be done again.
ORNIK_API bool is_recomputing() noexcept;

}  // namespace ornik
