// touched.h: which tensors a function uses that ask for gradients. Internal.
#pragma once

#include <vector>

#include "ktensor.h"

namespace ornik::autograd {

/// While it lives, operands of this thread's unrecorded operations that ask for gradients are noted.
class Touched {
  public:
    Touched() noexcept;
    ~Touched();
    Touched(const Touched&) = delete;
    Touched& operator=(const Touched&) = delete;

    void add(const KTensor& tensor);
    const std::vector<KTensor>& tensors() const { return tensors_; }

  private:
    Touched* before_;
    std::vector<KTensor> tensors_;
};

}  // namespace ornik::autograd
