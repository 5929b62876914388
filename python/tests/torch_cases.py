"""What is compared with PyTorch: modules and functions both have, made by the same code on both sides.

make_torch_references.py runs the cases with PyTorch and keeps the results; test_against_torch.py runs them with ornik.
Operands and states come from seeded generators, so that only results are kept.
"""

import zlib
from collections.abc import Callable
from typing import Any, NamedTuple

import numpy


class Library(NamedTuple):
    nn: Any
    optim: Any
    tensor: Callable[[Any], Any]  # Of an array, in the dtype of the run where it is floating.


class Case(NamedTuple):
    make: Callable[[Any], Any]  # Of nn: a module, or a function.
    inputs: tuple  # Shapes, or arrays made by whole(), part().
    call: Callable[..., Any] = lambda lib, f, *x: f(*x)
    train: bool = True
    best: float = 0.0  # Agreement that is not to be asked for more than.


def generator(*names):
    return numpy.random.RandomState(zlib.crc32(" ".join(names).encode()))


def operands(name, case):
    rng = generator(name, "inputs")
    return [i(rng) if callable(i) else rng.standard_normal(i) for i in case.inputs]


def state_value(name, key, shape):
    rng = generator(name, key)
    if key.endswith("num_batches_tracked"):
        return numpy.array(3)
    return rng.uniform(0.5, 1.5, shape) if key.endswith("running_var") else rng.standard_normal(shape) * 0.4


def seed_of(name, number, shape):
    return generator(name, f"seed{number}").standard_normal(shape)


def flattened(results):
    """The floating tensors of nested results."""
    if isinstance(results, (tuple, list)):
        return [t for item in results for t in flattened(item)]
    return [results] if hasattr(results, "shape") and "int" not in str(results.dtype) else []


def whole(shape, high):
    return lambda rng: rng.randint(0, high, shape)


def part(*shape):
    return lambda rng: rng.uniform(0.05, 0.95, shape)


def distribution(*shape):
    return lambda rng: rng.dirichlet(numpy.ones(shape[-1]), shape[:-1])


def apart(*shape):
    """Different numbers far from each other, in random order: no window has two largest ones."""
    return lambda rng: (rng.permutation(numpy.prod(shape)).reshape(shape) - numpy.prod(shape) / 2) / 7


CASES: dict[str, Case] = {}


def case(name, make, *inputs, **options):
    assert name not in CASES
    CASES[name] = Case(make, inputs, **options)


# ---- Layers ----

case("linear", lambda nn: nn.Linear(5, 3), (2, 4, 5))
case("linear_plain", lambda nn: nn.Linear(5, 3, bias=False), (7, 5))
case("embedding", lambda nn: nn.Embedding(6, 3, padding_idx=-2), whole((2, 5), 6))
case("conv1d", lambda nn: nn.Conv1d(4, 6, 3, 2, 1, 2, 2), (2, 4, 9))
case("conv1d_one", lambda nn: nn.Conv1d(2, 3, 3, bias=False), (2, 6))
case("conv1d_same", lambda nn: nn.Conv1d(2, 3, 4, padding="same", padding_mode="circular"), (2, 2, 6))
case("conv2d", lambda nn: nn.Conv2d(4, 6, (3, 2), (2, 1), (1, 0), (1, 2), 2), (2, 4, 5, 6))
case("conv2d_one", lambda nn: nn.Conv2d(2, 3, 3), (2, 5, 4))
case("conv2d_same", lambda nn: nn.Conv2d(2, 3, (4, 3), padding="same"), (1, 2, 5, 4))
case("conv2d_valid", lambda nn: nn.Conv2d(2, 3, 2, padding="valid"), (1, 2, 3, 4))
for mode in ("reflect", "replicate", "circular"):
    case(f"conv2d_{mode}", lambda nn, m=mode: nn.Conv2d(2, 2, 3, padding=(1, 2), padding_mode=m), (1, 2, 4, 4))
case("conv_transpose1d", lambda nn: nn.ConvTranspose1d(4, 6, 3, 2, 1, 1, 2, dilation=2), (2, 4, 4))
case("conv_transpose2d", lambda nn: nn.ConvTranspose2d(4, 2, (3, 2), (2, 3), (1, 0), (1, 2), 2), (1, 4, 3, 3))
case("dropout_off", lambda nn: nn.Sequential(nn.Dropout(0.5), nn.Dropout1d(), nn.Dropout2d()), (2, 3), train=False)
case("flatten", lambda nn: nn.Sequential(nn.Flatten(1, 2), nn.Unflatten(1, (2, -1)), nn.Identity(1)), (2, 4, 3, 2))
for train in (True, False):
    suffix = "" if train else "_eval"
    case(f"batch_norm1d{suffix}", lambda nn: nn.BatchNorm1d(3), (4, 3), train=train)
    case(f"batch_norm2d{suffix}", lambda nn: nn.BatchNorm2d(3, eps=0.1), (2, 3, 2, 3), train=train)
    case(f"batch_norm_own{suffix}", lambda nn: nn.BatchNorm1d(3, track_running_stats=False), (4, 3, 2), train=train)
    case(
        f"instance_norm1d_tracked{suffix}",
        lambda nn: nn.InstanceNorm1d(3, affine=True, track_running_stats=True),
        (2, 3, 4),
        train=train,
    )
case("batch_norm_mean", lambda nn: nn.BatchNorm1d(2, momentum=None), (4, 2, 3), call=lambda lib, f, x: [f(x), f(x + 1)])
case("instance_norm2d", lambda nn: nn.InstanceNorm2d(3), (2, 3, 2, 3))
case("layer_norm", lambda nn: nn.LayerNorm([3, 4]), (2, 3, 4))
case("layer_norm_plain", lambda nn: nn.LayerNorm(4, elementwise_affine=False), (2, 4))
case("layer_norm_no_bias", lambda nn: nn.LayerNorm(4, bias=False), (2, 4))
case("rms_norm", lambda nn: nn.RMSNorm((3, 4)), (2, 3, 4))
case("rms_norm_eps", lambda nn: nn.RMSNorm(4, eps=0.1, elementwise_affine=False), (2, 4))
case("group_norm", lambda nn: nn.GroupNorm(2, 4), (2, 4, 3))
for k in ("Max", "Avg"):
    for n, shape in ((1, (2, 2, 9)), (2, (1, 2, 7, 8))):
        name = f"{k.lower()}_pool{n}d"
        case(name, lambda nn, c=f"{k}Pool{n}d": getattr(nn, c)(3, 2, 1), apart(*shape))
        case(f"{name}_ceil", lambda nn, c=f"{k}Pool{n}d": getattr(nn, c)(3, 2, 1, ceil_mode=True), apart(*shape))
        case(f"{name}_one", lambda nn, c=f"{k}Pool{n}d": getattr(nn, c)(2), apart(*shape[1:]))
        case(f"adaptive_{name}", lambda nn, c=f"Adaptive{k}Pool{n}d": getattr(nn, c)(3), apart(*shape))
case(
    "avg_pool2d_inner",
    lambda nn: nn.AvgPool2d((3, 2), 2, 1, ceil_mode=True, count_include_pad=False),
    apart(1, 2, 6, 7),
)
case("avg_pool1d_inner", lambda nn: nn.AvgPool1d(3, 2, 1, count_include_pad=False), apart(1, 2, 7))
case("upsample", lambda nn: nn.Upsample((5, 3)), (1, 2, 3, 4))
case("upsample_factor", lambda nn: nn.Upsample(scale_factor=2), (1, 2, 5))
case("upsample_linear", lambda nn: nn.Upsample(7, mode="linear", align_corners=True), (1, 2, 4))
case("upsample_bilinear", lambda nn: nn.Upsample(scale_factor=2, mode="bilinear"), (1, 2, 3, 4))
case("pixel_shuffle", lambda nn: nn.PixelShuffle(2), (1, 8, 2, 3))
case("pixel_unshuffle", lambda nn: nn.PixelUnshuffle(2), (1, 2, 4, 6))

# ---- Activations ----

ACTIVATIONS = "ReLU ReLU6 SELU SiLU Mish Hardswish Hardsigmoid Sigmoid LogSigmoid Tanh GELU Softplus LeakyReLU ELU"
for name in ACTIVATIONS.split():
    # PyTorch's derivative of this one is of single precision.
    case(name, lambda nn, n=name: getattr(nn, n)(), (12,), best=1e-7 if name == "Hardsigmoid" else 0.0)
case("gelu_tanh", lambda nn: nn.GELU("tanh"), (6,))
case("softplus_beta", lambda nn: nn.Softplus(2.5), (6,))
case("elu_alpha", lambda nn: nn.Sequential(nn.ELU(0.5), nn.LeakyReLU(0.2), nn.Hardtanh(-0.1, 0.7)), (12,))
case("prelu", lambda nn: nn.PReLU(3), (2, 3, 4))
case("prelu_matrix", lambda nn: nn.PReLU(3), (4, 3))
for name in ("Softmax", "Softmin", "LogSoftmax"):
    case(name, lambda nn, n=name: getattr(nn, n)(dim=1), (2, 3, 2))

# ---- Attention and transformers ----


def attend(**arguments):
    def call(lib, f, *x):
        made = {k: lib.tensor(numpy.array(v)) if k.endswith("mask") else v for k, v in arguments.items()}
        y, weights = f(*(x if len(x) == 3 else x * 3), **made)
        return [y] if weights is None else [y, weights.detach()]  # Ours have no gradient.

    return call


UPPER = numpy.triu(numpy.ones((4, 4), bool), 1)
PADDING = numpy.array([[False] * 4, [False, False, False, True]])
case("attention", lambda nn: nn.MultiheadAttention(6, 2), (4, 2, 6), call=attend())
case(
    "attention_apart",
    lambda nn: nn.MultiheadAttention(6, 3, kdim=5, vdim=7, batch_first=True),
    (2, 3, 6), (2, 4, 5), (2, 4, 7),
    call=attend(average_attn_weights=False),
)  # fmt: skip
case(
    "attention_cross",
    lambda nn: nn.MultiheadAttention(6, 2, bias=False),
    (3, 2, 6),
    (4, 2, 6),
    (4, 2, 6),
    call=attend(),
)
case(
    "attention_masked",
    lambda nn: nn.MultiheadAttention(6, 2, add_bias_kv=True, add_zero_attn=True, batch_first=True),
    (2, 4, 6),
    call=attend(attn_mask=UPPER, key_padding_mask=PADDING),
)
case(
    "attention_added",
    lambda nn: nn.MultiheadAttention(6, 2),
    (4, 2, 6),
    call=attend(attn_mask=numpy.arange(64).reshape(4, 4, 4) / 9.0, need_weights=False),
)
case("attention_one", lambda nn: nn.MultiheadAttention(6, 2), (4, 6), call=attend())
LAYER = dict(d_model=6, nhead=2, dim_feedforward=5, dropout=0.0)
case("encoder_layer", lambda nn: nn.TransformerEncoderLayer(**LAYER), (4, 2, 6))
case(
    "encoder",
    lambda nn: nn.TransformerEncoder(
        nn.TransformerEncoderLayer(**LAYER, activation="gelu", norm_first=True, batch_first=True), 2, nn.LayerNorm(6)
    ),
    (2, 4, 6),
    call=lambda lib, f, x: f(x, mask=lib.tensor(UPPER), src_key_padding_mask=lib.tensor(PADDING)),
)
case(
    "decoder",
    lambda nn: nn.TransformerDecoder(nn.TransformerDecoderLayer(**LAYER, bias=False), 1),
    (4, 2, 6), (3, 2, 6),
    call=lambda lib, f, x, memory: f(x, memory, tgt_mask=lib.tensor(UPPER)),
)  # fmt: skip
case("transformer", lambda nn: nn.Transformer(4, 2, 1, 1, 3, 0.0, batch_first=True), (1, 3, 4), (1, 2, 4))

# ---- Recurrent layers ----


def packed(enforce_sorted):
    def call(lib, f, x):
        rnn = lib.nn.utils.rnn
        lengths = [4, 3, 1] if enforce_sorted else [2, 4, 1]
        y, state = f(rnn.pack_padded_sequence(x, lengths, enforce_sorted=enforce_sorted))
        return [rnn.pad_packed_sequence(y, padding_value=0.5, total_length=5)[0], state]

    return call


for name in ("LSTM", "GRU"):
    case(name, lambda nn, n=name: getattr(nn, n)(3, 2), (4, 2, 3))
    case(
        f"{name}_deep",
        lambda nn, n=name: getattr(nn, n)(3, 2, 2, bidirectional=True, batch_first=True),
        (2, 3, 3), (4, 2, 2),
        call=lambda lib, f, x, h: f(x, (h, h * 0.5) if isinstance(f, lib.nn.LSTM) else h),
    )  # fmt: skip
    case(f"{name}_one", lambda nn, n=name: getattr(nn, n)(3, 2, bias=False), (4, 3))
    case(f"{name}_packed", lambda nn, n=name: getattr(nn, n)(3, 2, bidirectional=True), (4, 3, 3), call=packed(False))
    case(f"{name}_sorted", lambda nn, n=name: getattr(nn, n)(3, 2), (4, 3, 3), call=packed(True))
    case(f"{name}Cell", lambda nn, n=f"{name}Cell": getattr(nn, n)(3, 2), (2, 3))

# ---- Losses ----

for reduction in ("mean", "sum", "none"):
    r = dict(reduction=reduction)
    for name in ("MSELoss", "L1Loss", "SmoothL1Loss", "HuberLoss"):
        case(f"{name}_{reduction}", lambda nn, n=name, r=r: getattr(nn, n)(**r), (3, 4), (3, 4))
    case(f"CrossEntropyLoss_{reduction}", lambda nn, r=r: nn.CrossEntropyLoss(**r), (4, 3, 2), whole((4, 2), 3))
    case(f"NLLLoss_{reduction}", lambda nn, r=r: nn.NLLLoss(ignore_index=1, **r), (4, 3), whole(4, 3))
    case(f"BCELoss_{reduction}", lambda nn, r=r: nn.BCELoss(**r), part(3, 2), part(3, 2))
    case(f"BCEWithLogitsLoss_{reduction}", lambda nn, r=r: nn.BCEWithLogitsLoss(**r), (3, 2), part(3, 2))
    case(f"KLDivLoss_{reduction}", lambda nn, r=r: nn.KLDivLoss(**r), (3, 4), distribution(3, 4))
case("kl_batchmean", lambda nn: nn.KLDivLoss(reduction="batchmean", log_target=True), (3, 4), (3, 4))
case("smooth_l1_beta", lambda nn: nn.SmoothL1Loss(beta=0.3), (3, 4), (3, 4))
case("huber_delta", lambda nn: nn.HuberLoss(delta=0.3), (3, 4), (3, 4))
case(
    "cross_entropy_weighted",
    lambda nn: nn.functional.cross_entropy,
    (5, 3), part(3), whole(5, 3),
    call=lambda lib, f, x, w, t: f(x, t, weight=w.detach(), ignore_index=2, label_smoothing=0.1),
)  # fmt: skip
case("cross_entropy_soft", lambda nn: nn.CrossEntropyLoss(label_smoothing=0.2), (3, 4, 2), part(3, 4, 2))
case(
    "bce_weighted",
    lambda nn: nn.functional.binary_cross_entropy_with_logits,
    (3, 2), part(3, 2), part(2), part(2),
    call=lambda lib, f, x, t, w, p: f(x, t, weight=w.detach(), pos_weight=p.detach()),
)  # fmt: skip

# ---- Functions without modules ----

case(
    "one_hot",
    lambda nn: nn.functional.one_hot,
    whole((2, 3), 4),
    call=lambda lib, f, x: lib.tensor(numpy.array(f(x).tolist(), float)),
)
case(
    "sdpa", lambda nn: nn.functional.scaled_dot_product_attention,
    (2, 3, 4), (2, 5, 4), (2, 5, 2),
    call=lambda lib, f, q, k, v: [f(q, k, v, scale=0.3), f(q, k, v, lib.tensor(numpy.tri(3, 5, 1, dtype=bool)))],
)  # fmt: skip
case("sdpa_causal", lambda nn: nn.functional.scaled_dot_product_attention, (4, 3), (4, 3), (4, 3),
     call=lambda lib, f, q, k, v: f(q, k, v, is_causal=True))  # fmt: skip
for p in (1.0, 2.0, 3.0, float("inf")):
    case(f"normalize_{p}", lambda nn: nn.functional.normalize, (2, 3, 2), call=lambda lib, f, x, p=p: f(x, p))
case("cosine_similarity", lambda nn: nn.functional.cosine_similarity, (2, 3), (1, 3))
case(
    "pad",
    lambda nn: nn.functional.pad,
    (2, 3, 4),
    call=lambda lib, f, x: [f(x, (1, 2), value=3.0), f(x, (-1, 0, 2, 1))],
)
case("interpolate", lambda nn: nn.functional.interpolate, (1, 1, 4, 4),
     call=lambda lib, f, x: f(x, scale_factor=0.5, mode="bilinear"))  # fmt: skip

# ---- Optimizers and schedules: options that single-precision numbers hold ----

PARAMETERS = {"matrix": (3, 4), "row": (5,)}
BETAS = (0.875, 1 - 2.0**-10)
LR, EPS, DECAY = 2.0**-6, 2.0**-20, 2.0**-5
OPTIMIZERS = {
    "SGD": dict(lr=LR),
    "SGD_momentum": dict(lr=LR, momentum=0.875, weight_decay=DECAY, dampening=0.25),
    "SGD_nesterov": dict(lr=LR, momentum=0.875, nesterov=True, maximize=True),
    "Adam": dict(lr=LR, betas=BETAS, eps=EPS),
    "Adam_amsgrad": dict(lr=LR, betas=BETAS, eps=EPS, weight_decay=DECAY, amsgrad=True, maximize=True),
    "AdamW": dict(lr=LR, betas=BETAS, eps=EPS, weight_decay=DECAY),
    "AdamW_amsgrad": dict(lr=LR, betas=BETAS, eps=EPS, weight_decay=DECAY, amsgrad=True),
    "Adamax": dict(lr=LR, betas=BETAS, eps=EPS, weight_decay=DECAY),
    "Adagrad": dict(lr=LR, eps=EPS, weight_decay=DECAY, initial_accumulator_value=0.5),
    "Adadelta": dict(lr=1.0, rho=0.875, eps=EPS, weight_decay=DECAY),
    "RMSprop": dict(lr=LR, alpha=0.875, eps=EPS),
    "RMSprop_centered": dict(lr=LR, alpha=0.875, eps=EPS, weight_decay=DECAY, momentum=0.5, centered=True),
}
# With options of which that is not true: agreement is that of single precision.
ROUNDED = {name: {} for name in ("SGD", "Adam", "AdamW", "Adamax", "Adagrad", "Adadelta", "RMSprop")}
STEPS = 20


def optimizer_cases():
    yield from ((name, name.split("_")[0], options, 1e-10) for name, options in OPTIMIZERS.items())
    yield from ((f"{name}_default", name, options, 2e-6) for name, options in ROUNDED.items())


def run_optimizer(lib, name, kind, options):
    """The parameters after 20 steps, and what the optimizer keeps, in one row; and the names of the latter."""
    parameters = [lib.tensor(state_value(name, key, shape)) for key, shape in PARAMETERS.items()]
    for p in parameters:
        p.requires_grad = True
    optimizer = getattr(lib.optim, kind)(
        [{"params": [parameters[0]]}, {"params": [parameters[1]], "lr": 2.0**-4}], **options
    )
    for step in range(STEPS):
        for key, p in zip(PARAMETERS, parameters):
            # Steps without a gradient in between: counts are each parameter's own.
            p.grad = None if (step % 4, key) == (1, "row") else lib.tensor(seed_of(name, step, tuple(p.shape)))
        optimizer.step()
    kept = optimizer.state_dict()["state"]
    names = [(n, key) for n in sorted(kept) for key in sorted(kept[n]) if kept[n][key] is not None and key != "step"]
    rows = [p.detach() for p in parameters] + [kept[n][key] for n, key in names]
    return numpy.concatenate([numpy.asarray(r, dtype=float).ravel() for r in rows]), [f"{n}.{key}" for n, key in names]


SCHEDULES = {
    "LambdaLR": lambda s, o: s.LambdaLR(o, [lambda t: 0.9**t, lambda t: 1 / (1 + t)]),
    "StepLR": lambda s, o: s.StepLR(o, 3, 0.5),
    "MultiStepLR": lambda s, o: s.MultiStepLR(o, [9, 2, 2], 0.5),
    "ConstantLR": lambda s, o: s.ConstantLR(o, 0.25, 4),
    "LinearLR": lambda s, o: s.LinearLR(o, 0.25, 0.75, 6),
    "ExponentialLR": lambda s, o: s.ExponentialLR(o, 0.9),
    "PolynomialLR": lambda s, o: s.PolynomialLR(o, 7, 2.0),
    "CosineAnnealingLR": lambda s, o: s.CosineAnnealingLR(o, 7, 0.01),
    "CosineAnnealingWarmRestarts": lambda s, o: s.CosineAnnealingWarmRestarts(o, 3, 2, 0.01),
    "CosineAnnealingWarmRestarts_even": lambda s, o: s.CosineAnnealingWarmRestarts(o, 3),
    "OneCycleLR": lambda s, o: s.OneCycleLR(o, 0.5, 20, pct_start=0.4),
    "OneCycleLR_linear": lambda s, o: s.OneCycleLR(
        o, [0.5, 0.3], epochs=4, steps_per_epoch=5, anneal_strategy="linear"
    ),
    "SequentialLR": lambda s, o: s.SequentialLR(
        o, [s.LinearLR(o, 0.1, 1.0, 4), s.CosineAnnealingLR(o, 8), s.ConstantLR(o, 0.5, 3)], [4, 12]
    ),
    "ReduceLROnPlateau": lambda s, o: s.ReduceLROnPlateau(o, "min", 0.5, 1, cooldown=1, min_lr=[0.01, 0.3]),
    "ReduceLROnPlateau_max": lambda s, o: s.ReduceLROnPlateau(o, "max", 0.5, 1, threshold=0.5, threshold_mode="abs"),
}


def run_schedule(lib, name, make, optimizer_kind):
    """Rates and momenta of both groups over the steps."""
    parameters = [lib.tensor(numpy.zeros(1)) for _ in range(2)]
    for p in parameters:
        p.requires_grad = True
    groups = [{"params": [parameters[0]]}, {"params": [parameters[1]], "lr": 0.8}]
    optimizer = getattr(lib.optim, optimizer_kind)(
        groups, lr=0.2, **({"momentum": 0.9} if optimizer_kind == "SGD" else {})
    )
    schedule = make(lib.optim.lr_scheduler, optimizer)
    measures = generator(name, "measures").uniform(1, 3, 20)
    rows = []
    for step in range(20):
        rows += [(g["lr"], g["betas"][0] if "betas" in g else g["momentum"]) for g in optimizer.param_groups]
        optimizer.step()
        if step < 19:
            schedule.step(*([measures[step]] if name.startswith("Reduce") else []))
    return numpy.array(rows, dtype=float).ravel()
