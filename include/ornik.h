// ornik.h: the whole public interface of the library.
#pragma once

#if (defined(_MSVC_LANG) && _MSVC_LANG < 202002L) || (!defined(_MSVC_LANG) && __cplusplus < 202002L)
#error "ornik needs C++20: compile with -std=c++20 (GCC, Clang) or /std:c++20 (MSVC), or set CXX_STANDARD 20 in CMake"
#else

// Programs for Windows may have macros of these names.
#pragma push_macro("min")
#pragma push_macro("max")
#undef min
#undef max

#include "apis/ornik.h"
#include "descriptors/convol_fields.h"
#include "descriptors/descriptor_conv2D.h"
#include "descriptors/descriptor_convT2D.h"
#include "descriptors/selection.h"
#include "export.h"
#include "hardware/memory_config.h"
#include "hardware/thread_config.h"
#include "io/named_tensors.h"
#include "io/npy.h"
#include "io/npz.h"
#include "io/safetensors.h"
#include "layers/conv/layer_conv.h"
#include "layers/conv/layer_conv1D.h"
#include "layers/conv/layer_conv2D.h"
#include "layers/conv/layer_convT2D.h"
#include "layers/functional/activation.h"
#include "layers/functional/conv.h"
#include "layers/functional/dropout.h"
#include "layers/functional/embedding.h"
#include "layers/functional/linear.h"
#include "layers/functional/normalization.h"
#include "layers/functional/pool.h"
#include "layers/functional/recurrent.h"
#include "layers/layer.h"
#include "layers/layer_activation.h"
#include "layers/layer_dense.h"
#include "layers/layer_embedding.h"
#include "layers/layer_pixel_shuffle.h"
#include "layers/normalization/layer_batchnorm.h"
#include "layers/normalization/layer_groupnorm.h"
#include "layers/normalization/layer_layernorm.h"
#include "layers/pool/layer_pool.h"
#include "losses/binary_cross_entropy.h"
#include "losses/functions.h"
#include "losses/loss.h"
#include "losses/mean_squared_error.h"
#include "losses/nll_loss.h"
#include "losses/soft_cross_entropy.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "random/generator.h"
#include "tensor/broadcast.h"
#include "tensor/dtype.h"
#include "tensor/joins.h"
#include "tensor/nn/attention.h"
#include "tensor/nn/interpolate.h"
#include "tensor/nn/packing.h"
#include "tensor/nn/tensor_conv.h"
#include "tensor/scalar.h"
#include "tensor/slices.h"
#include "tensor/tensor.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/linear_algebra.h"
#include "tensor/tensor_math/matmul.h"
#include "tensor/tensor_math/promotion.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_math/sorting.h"
#include "tensor/tensor_math/tensor_arithmetic.h"
#include "tensor/tensor_math/tensor_element_math.h"
#include "tensor/tensor_shape.h"
#include "tensor/tensor_sparse.h"
#include "utils/complex_helper.h"
#include "utils/error.h"
#include "utils/logging.h"
#include "utils/selection.h"
#include "utils/shape_rules.h"
#include "utils/utils.h"
#include "version.h"

#pragma pop_macro("max")
#pragma pop_macro("min")

#endif
