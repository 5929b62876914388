// layers.h: the layers of networks as modules. Parameter names, layouts and first values as in the large frameworks.
// Brings the functions that the forward passes of networks are written with, too.
#pragma once

#include "../ktensor/activations.h"
#include "../ktensor/elements.h"
#include "../ktensor/reductions.h"
#include "../ktensor/shapes.h"
#include "activation_layers.h"
#include "attention_layers.h"
#include "basic_layers.h"
#include "containers.h"
#include "convolution_layers.h"
#include "fuse.h"
#include "loss_layers.h"
#include "normalization_layers.h"
#include "pooling_layers.h"
#include "recurrent_layers.h"
#include "shape_layers.h"
#include "transformer_layers.h"
