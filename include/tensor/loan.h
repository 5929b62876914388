// loan.h: memory that somebody outside may write to. Internal.
#pragma once

#include <memory>

#include "tensor_storage.h"

namespace ornik {

/// While one lives, others hold a pointer to the storage's memory and may write without a word. When it goes, that
/// counts as a write.
class ORNIK_API Loan {
  public:
    explicit Loan(std::shared_ptr<tensorT::Tensor_storage> storage);
    ~Loan();
    Loan(const Loan&) = delete;
    Loan& operator=(const Loan&) = delete;

  private:
    std::shared_ptr<tensorT::Tensor_storage> storage_;
};

/// Does version() tell of every write to the storage? Not of foreign memory, nor of what is lent.
ORNIK_API bool knows_its_writes(const tensorT::Tensor_storage& storage);

}  // namespace ornik
