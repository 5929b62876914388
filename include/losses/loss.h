// loss.h: the base of the loss classes.
#pragma once

#include <string>

#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik {

/// A loss object, made by getLoss (apis/ornik.h) and deleted by the caller. The base serves neither
/// operation: both return null.
class ORNIK_API Loss {
  public:
    explicit Loss(std::string name);
    virtual ~Loss();
    /// The gradient of loss_forward's value for the prediction; a new tensor shaped as the prediction.
    [[nodiscard]] virtual Tensor* loss_backward(Tensor* prediction, Tensor* target);
    /// The loss, averaged over the batch; a new tensor without axes.
    [[nodiscard]] virtual Tensor* loss_forward(Tensor* prediction, Tensor* target);

    const std::string& get_name() const { return name_; }

  private:
    std::string name_;
};

}  // namespace ornik
