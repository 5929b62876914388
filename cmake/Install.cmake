# Install rules: the library as component runtime; the public headers, a CMake package and a pkg-config file as component
# development. CPack makes packages of both.
include(CMakePackageConfigHelpers)

# What a program may include. Everything else under include/ is internal.
set(ORNIK_PUBLIC_HEADERS
    apis/ornik.h
    descriptors/convol_fields.h
    descriptors/descriptor_conv2D.h
    descriptors/descriptor_convT2D.h
    descriptors/packing.h
    descriptors/selection.h
    descriptors/step_parameters.h
    descriptors/loss_terms.h
    descriptors/tensor_descriptor.h
    export.h
    hardware/instruction_set.h
    hardware/memory_config.h
    hardware/thread_config.h
    io/named_tensors.h
    io/npy.h
    io/npz.h
    io/safetensors.h
    ktensor/activations.h
    ktensor/arithmetic.h
    ktensor/autograd.h
    ktensor/convolutions.h
    ktensor/elements.h
    ktensor/fft.h
    ktensor/files.h
    ktensor/images.h
    ktensor/index.h
    ktensor/indexing.h
    ktensor/joins.h
    ktensor/ktensor.h
    ktensor/linalg.h
    ktensor/losses.h
    ktensor/networks.h
    ktensor/normalizations.h
    ktensor/prepared.h
    ktensor/products.h
    ktensor/random.h
    ktensor/reductions.h
    ktensor/shapes.h
    ktensor/sparse.h
    layers/conv/layer_conv.h
    layers/conv/layer_conv1D.h
    layers/conv/layer_conv2D.h
    layers/conv/layer_convT2D.h
    layers/functional/activation.h
    layers/functional/blocked_image.h
    layers/functional/conv.h
    layers/functional/dropout.h
    layers/functional/embedding.h
    layers/functional/layer_end.h
    layers/functional/linear.h
    layers/functional/normalization.h
    layers/functional/pool.h
    layers/functional/prepared_convolution.h
    layers/functional/prepared_linear.h
    layers/functional/recurrent.h
    layers/layer.h
    layers/layer_activation.h
    layers/layer_dense.h
    layers/layer_embedding.h
    layers/layer_pixel_shuffle.h
    layers/normalization/layer_batchnorm.h
    layers/normalization/layer_groupnorm.h
    layers/normalization/layer_layernorm.h
    layers/pool/layer_pool.h
    losses/binary_cross_entropy.h
    losses/functions.h
    losses/loss.h
    losses/mean_squared_error.h
    losses/nll_loss.h
    losses/soft_cross_entropy.h
    modules/activation_layers.h
    modules/attention_layers.h
    modules/basic_layers.h
    modules/clipping.h
    modules/containers.h
    modules/convolution_layers.h
    modules/fuse.h
    modules/initialization.h
    modules/layers.h
    modules/loss_layers.h
    modules/module.h
    modules/normalization_layers.h
    modules/optimizer.h
    modules/optimizers.h
    modules/packed_sequence.h
    modules/pooling_layers.h
    modules/recurrent_layers.h
    modules/schedules.h
    modules/shape_layers.h
    modules/transformer_layers.h
    optimizers/optimizers.h
    optimizers/steps.h
    ornik.h
    random/generator.h
    tensor/broadcast.h
    tensor/dtype.h
    tensor/joins.h
    tensor/nn/attention.h
    tensor/nn/interpolate.h
    tensor/nn/packing.h
    tensor/nn/tensor_conv.h
    tensor/scalar.h
    tensor/slices.h
    tensor/tensor.h
    tensor/tensor_math/decompositions.h
    tensor/tensor_math/fourier.h
    tensor/tensor_math/indexing.h
    tensor/tensor_math/linear_algebra.h
    tensor/tensor_math/matmul.h
    tensor/tensor_math/promotion.h
    tensor/tensor_math/real_pairs.h
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
    utils/utils.h
    version.h)

foreach(header IN LISTS ORNIK_PUBLIC_HEADERS)
  cmake_path(GET header PARENT_PATH folder)
  install(FILES ${PROJECT_SOURCE_DIR}/include/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ornik/${folder}
          COMPONENT development)
endforeach()

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/ornik)
install(TARGETS ornik EXPORT ornik-targets
        RUNTIME COMPONENT runtime
        LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE COMPONENT development)
install(EXPORT ornik-targets NAMESPACE ornik:: DESTINATION ${package_folder} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/ornik-config.cmake.in
                              ${PROJECT_BINARY_DIR}/ornik-config.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ornik-config-version.cmake
                                 COMPATIBILITY ${ornik_compatibility})
install(FILES ${PROJECT_BINARY_DIR}/ornik-config.cmake ${PROJECT_BINARY_DIR}/ornik-config-version.cmake
        DESTINATION ${package_folder} COMPONENT development)

# ornik.pc finds its own folders from where it lies, so that the tree may be installed and moved anywhere. A library
# folder given as an absolute path has no such relation to the prefix.
set(pc_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  cmake_path(RELATIVE_PATH pc_prefix BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
  string(PREPEND pc_prefix "\${pcfiledir}/")
endif()
foreach(kind LIBDIR INCLUDEDIR)
  cmake_path(APPEND pc_${kind} "\${prefix}" ${CMAKE_INSTALL_${kind}})  # Absolute folders replace the prefix.
endforeach()
if(NOT ORNIK_SHARED)
  set(pc_flags " -DORNIK_STATIC")
  set(pc_libs " ${OpenMP_CXX_FLAGS}")
  if(ornik_zlib)
    string(APPEND pc_libs " -lz")
  endif()
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/ornik.pc.in ${PROJECT_BINARY_DIR}/ornik.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ornik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

include(${PROJECT_SOURCE_DIR}/cmake/Package.cmake)
