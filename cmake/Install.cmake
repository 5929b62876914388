# Install rules: the public headers, the shared library, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

# What a program may include. Everything else under include/ is internal.
set(ORNIK_PUBLIC_HEADERS
    apis/ornik.h
    descriptors/selection.h
    descriptors/tensor_descriptor.h
    descriptors/convol_fields.h
    descriptors/descriptor_conv2D.h
    descriptors/descriptor_convT2D.h
    export.h
    hardware/memory_config.h
    hardware/thread_config.h
    layers/conv/layer_conv.h
    layers/conv/layer_conv1D.h
    layers/conv/layer_conv2D.h
    layers/conv/layer_convT2D.h
    layers/functional/activation.h
    layers/functional/conv.h
    layers/functional/dropout.h
    layers/functional/normalization.h
    layers/functional/pool.h
    layers/layer.h
    layers/layer_activation.h
    layers/layer_dense.h
    losses/binary_cross_entropy.h
    layers/layer_embedding.h
    layers/layer_pixel_shuffle.h
    layers/normalization/layer_batchnorm.h
    layers/normalization/layer_groupnorm.h
    layers/normalization/layer_layernorm.h
    layers/pool/layer_pool.h
    losses/loss.h
    losses/mean_squared_error.h
    losses/nll_loss.h
    losses/soft_cross_entropy.h
    optimizers/optimizers.h
    ornik.h
    random/generator.h
    tensor/broadcast.h
    tensor/dtype.h
    tensor/nn/tensor_conv.h
    tensor/scalar.h
    tensor/nn/attention.h
    tensor/nn/interpolate.h
    tensor/nn/packing.h
    tensor/slices.h
    tensor/tensor.h
    tensor/tensor_math/linear_algebra.h
    tensor/tensor_math/indexing.h
    tensor/tensor_math/matmul.h
    tensor/tensor_math/reductions.h
    tensor/tensor_math/sorting.h
    tensor/tensor_math/tensor_arithmetic.h
    tensor/tensor_math/tensor_element_math.h
    tensor/tensor_meta.h
    tensor/tensor_shape.h
    tensor/tensor_sparse.h
    tensor/tensor_storage.h
    utils/complex_helper.h
    utils/error.h
    utils/logging.h
    utils/selection.h
    utils/shape_rules.h
    utils/utils.h)

foreach(header IN LISTS ORNIK_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/include/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ornik/${folder})
endforeach()

install(TARGETS ornik EXPORT ornik-targets)
install(EXPORT ornik-targets NAMESPACE ornik:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ornik)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ornik-config.cmake.in
                              ${PROJECT_BINARY_DIR}/ornik-config.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ornik)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ornik-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ornik-config.cmake ${PROJECT_BINARY_DIR}/ornik-config-version.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ornik)

configure_file(${PROJECT_SOURCE_DIR}/cmake/ornik.pc.in ${PROJECT_BINARY_DIR}/ornik.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ornik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
