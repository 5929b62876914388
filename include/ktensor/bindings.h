// bindings.h: what a binding to a language with a collector of cyclic garbage needs. Internal.
#pragma once

#include <string>

#include "autograd.h"
#include "ktensor.h"

namespace ornik::autograd {

/// Sees the functions of a program's own that hang on a tensor.
class FunctionVisitor {
  public:
    virtual void hook(const std::function<KTensor(const KTensor&)>& function) = 0;
    virtual void backward(const CustomBackward& function) = 0;
    virtual void segment(const Segment& function) = 0;

  protected:
    ~FunctionVisitor() = default;
};

/// Shows the functions that would go with this handle: those of its own past as far as nothing else holds it. Nothing
/// is shown of a tensor that has other handles. Takes no memory and no lock; the caller sees to it that nobody uses
/// this very handle meanwhile.
ORNIK_API void visit_functions(const KTensor& tensor, FunctionVisitor& visitor);

/// The name of the operation that a defined tensor came from; empty without one. Others may write to the tensor
/// meanwhile.
ORNIK_API std::string operation_of(const KTensor& tensor);

/// After an operation of a program's own that has changed `target`: the past of its output y becomes the target's.
/// y has the target's elements.
ORNIK_API void replace_past(KTensor& target, const KTensor& y);

}  // namespace ornik::autograd
