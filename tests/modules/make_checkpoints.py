#!/usr/bin/env python3
"""Writes files/*.safetensors: modules of PyTorch with their state, operands, results and gradients.

    pip install torch==2.13.0 numpy safetensors
    python make_checkpoints.py

Entries of a case, "linear" say: linear/state.weight, linear/in.0, linear/out.0, linear/seed.0 (the gradient of that
result), linear/grad.in.0, linear/grad.state.weight, linear/after.running_mean (buffers that the call has moved). The
test has a row for each case. Sizes are odd so that no transposed layout can pass.
"""
import pathlib

import torch
from safetensors.torch import save_file
from torch import nn
from torch.nn.utils.rnn import pack_padded_sequence, pad_packed_sequence

FILES = pathlib.Path(__file__).parent / "files"
torch.manual_seed(20)
torch.use_deterministic_algorithms(True)


def randomize(module):
    """Values that no initialisation gives, so that every parameter counts."""
    with torch.no_grad():
        for name, value in module.named_parameters():
            value.copy_(torch.randn_like(value) * 0.4)
        for name, value in module.named_buffers():
            if value.is_floating_point():
                value.copy_(torch.rand_like(value) + 0.5)
    return module


def case(file, name, module, inputs, call=None, train=True):
    if isinstance(module, nn.modules.loss._Loss):  # Its weights are arguments, no state.
        state = {}
    else:
        state = randomize(module).train(train).state_dict()
    for key, value in state.items():
        file[f"{name}/state.{key}"] = value.detach().clone()
    inputs = [x.requires_grad_() if x.is_floating_point() else x for x in inputs]
    outputs = (call or (lambda m, *x: m(*x)))(module, *inputs)
    outputs = list(outputs) if isinstance(outputs, (tuple, list)) else [outputs]
    seeds = [torch.randn_like(y) for y in outputs]
    sum((y * s).sum() for y, s in zip(outputs, seeds)).backward()
    for i, x in enumerate(inputs):
        file[f"{name}/in.{i}"] = x.detach()
        if x.grad is not None:
            file[f"{name}/grad.in.{i}"] = x.grad
    for i, (y, s) in enumerate(zip(outputs, seeds)):
        file[f"{name}/out.{i}"] = y.detach().contiguous()
        file[f"{name}/seed.{i}"] = s.contiguous()
    for key, value in module.named_parameters():
        if value.grad is not None:
            file[f"{name}/grad.state.{key}"] = value.grad
    for key, value in module.named_buffers() if state else []:
        file[f"{name}/after.{key}"] = value.detach().clone()


def write(name, file):
    save_file({key: value.contiguous().clone() for key, value in file.items()}, FILES / f"{name}.safetensors")


def layers():
    f, r = {}, torch.randn
    case(f, "linear", nn.Linear(5, 3), [r(2, 4, 5)])
    case(f, "linear_plain", nn.Linear(5, 3, bias=False), [r(7, 5)])
    case(f, "conv1d", nn.Conv1d(4, 6, 3, stride=2, padding=1, dilation=2, groups=2), [r(2, 4, 11)])
    case(f, "conv2d", nn.Conv2d(6, 9, (3, 2), stride=(2, 1), padding=(1, 0), dilation=(1, 2), groups=3),
         [r(2, 6, 7, 6)])
    case(f, "conv2d_same", nn.Conv2d(2, 3, (4, 3), padding="same"), [r(2, 2, 5, 6)])
    case(f, "conv_transpose1d", nn.ConvTranspose1d(4, 6, 3, stride=2, padding=1, output_padding=1, groups=2),
         [r(2, 4, 5)])
    case(f, "conv_transpose2d", nn.ConvTranspose2d(6, 3, (3, 2), stride=(2, 3), padding=(1, 0),
                                                   output_padding=(1, 2), groups=3), [r(2, 6, 4, 3)])
    case(f, "batch_norm_train", nn.BatchNorm2d(3), [r(4, 3, 2, 5)])
    case(f, "batch_norm_eval", nn.BatchNorm1d(3), [r(4, 3)], train=False)
    case(f, "batch_norm_mean", nn.BatchNorm1d(3, momentum=None), [r(4, 3, 5)],
         call=lambda m, x: [m(x), m(2 * x + 1)])
    case(f, "layer_norm", nn.LayerNorm([3, 5]), [r(4, 3, 5)])
    case(f, "layer_norm_plain", nn.LayerNorm(5, bias=False), [r(4, 5)])
    case(f, "group_norm", nn.GroupNorm(3, 6), [r(2, 6, 5)])
    case(f, "instance_norm", nn.InstanceNorm2d(3, affine=True), [r(2, 3, 4, 5)])
    case(f, "rms_norm", nn.RMSNorm([3, 5]), [r(4, 3, 5)])
    case(f, "embedding", nn.Embedding(7, 5, padding_idx=2), [torch.tensor([[1, 2, 6], [2, 0, 1]])])
    case(f, "prelu", nn.PReLU(3), [r(2, 3, 5)])
    write("layers", f)


def functions():
    f = {}

    def x(*shape):
        return torch.randn(*(shape or (3, 7))) * 2.5

    for name, module in {
            "relu": nn.ReLU(), "relu6": nn.ReLU6(), "silu": nn.SiLU(), "selu": nn.SELU(), "mish": nn.Mish(),
            "hardswish": nn.Hardswish(), "hardsigmoid": nn.Hardsigmoid(), "sigmoid": nn.Sigmoid(),
            "log_sigmoid": nn.LogSigmoid(), "tanh": nn.Tanh(), "gelu": nn.GELU(), "gelu_tanh": nn.GELU("tanh"),
            "softplus": nn.Softplus(), "softplus_beta": nn.Softplus(0.7), "leaky_relu": nn.LeakyReLU(0.2),
            "elu": nn.ELU(0.7), "hardtanh": nn.Hardtanh(-0.5, 1.5), "softmax": nn.Softmax(0),
            "log_softmax": nn.LogSoftmax(-1)}.items():
        case(f, name, module, [x()])
    image = (2, 2, 7, 6)
    for name, module in {
            "max_pool2d": nn.MaxPool2d((3, 2), (2, 1), (1, 0)), "avg_pool2d": nn.AvgPool2d((3, 2), (2, 1), (1, 0)),
            "adaptive_avg_pool2d": nn.AdaptiveAvgPool2d((3, 4)),
            "adaptive_max_pool2d": nn.AdaptiveMaxPool2d((3, 4)), "upsample_nearest": nn.Upsample(scale_factor=1.5),
            "upsample_bilinear": nn.Upsample((5, 9), mode="bilinear"),
            "upsample_corners": nn.Upsample((5, 9), mode="bilinear", align_corners=True)}.items():
        case(f, name, module, [x(*image)])
    case(f, "max_pool1d", nn.MaxPool1d(3, 2, 1), [x(2, 2, 8)])
    case(f, "avg_pool1d", nn.AvgPool1d(3), [x(2, 2, 8)])
    case(f, "adaptive_avg_pool1d", nn.AdaptiveAvgPool1d(3), [x(2, 2, 8)])
    case(f, "pixel_shuffle", nn.PixelShuffle(2), [x(2, 8, 2, 3)])
    case(f, "pixel_unshuffle", nn.PixelUnshuffle(2), [x(2, 2, 4, 6)])
    case(f, "flatten", nn.Flatten(0, 1), [x(2, 3, 4)])
    case(f, "unflatten", nn.Unflatten(1, (2, -1)), [x(2, 6, 2)])
    labels = torch.tensor([2, 0, 4])
    weight = torch.tensor([0.5, 2.0, 1.5, 1.0, 0.7])
    case(f, "cross_entropy", nn.CrossEntropyLoss(), [x(3, 5), labels])
    case(f, "cross_entropy_smooth", nn.CrossEntropyLoss(weight, ignore_index=0, label_smoothing=0.2),
         [x(3, 5), labels])
    case(f, "nll", nn.NLLLoss(reduction="sum"), [x(3, 5), labels])
    for name, module in {
            "mse": nn.MSELoss(), "l1": nn.L1Loss(reduction="none"), "smooth_l1": nn.SmoothL1Loss(beta=0.7),
            "huber": nn.HuberLoss(delta=0.7), "bce_logits": nn.BCEWithLogitsLoss(pos_weight=weight),
            "kl_div": nn.KLDivLoss(reduction="sum", log_target=True)}.items():
        case(f, name, module, [x(3, 5), torch.rand(3, 5)])
    case(f, "bce", nn.BCELoss(), [torch.rand(3, 5), torch.rand(3, 5)])
    write("functions", f)


def attention():
    f, r = {}, torch.randn
    forbidden = torch.rand(4, 6) < 0.3
    forbidden[:, 0] = False  # Each target has a source.
    padding = torch.tensor([[False] * 6, [False] * 3 + [True] * 3])

    def cross(m, q, k, v, *masks):
        names = ["attn_mask", "key_padding_mask"]
        y, weights = m(q, k, v, **dict(zip(names, masks)), average_attn_weights=False)
        return y, weights.detach()

    m = nn.MultiheadAttention
    case(f, "self", m(12, 3), [r(5, 2, 12)], call=lambda m, x: m(x, x, x, need_weights=False)[0])
    case(f, "single", m(12, 3), [r(5, 12)], call=lambda m, x: m(x, x, x)[0])
    case(f, "cross", m(12, 3, batch_first=True), [r(2, 4, 12), r(2, 6, 12), r(2, 6, 12), forbidden, padding],
         call=cross)
    case(f, "widths", m(12, 4, kdim=5, vdim=7, bias=False), [r(4, 2, 12), r(6, 2, 5), r(6, 2, 7), r(4, 6)], call=cross)
    case(f, "mask_per_head", m(12, 2, batch_first=True),
         [r(2, 4, 12), r(2, 6, 12), r(2, 6, 12), r(4, 4, 6), r(2, 6)], call=cross)
    case(f, "extra", m(12, 3, add_bias_kv=True, add_zero_attn=True),
         [r(4, 2, 12), r(6, 2, 12), r(6, 2, 12), forbidden, padding], call=cross)
    causal = nn.Transformer.generate_square_subsequent_mask(5)
    case(f, "causal", m(12, 3, batch_first=True), [r(2, 5, 12)],
         call=lambda m, x: m(x, x, x, attn_mask=causal, is_causal=True, need_weights=False)[0])
    case(f, "causal_extra", m(12, 3, add_zero_attn=True), [r(5, 2, 12)],
         call=lambda m, x: [m(x, x, x, attn_mask=causal)[0], m(x, x, x, attn_mask=causal)[1].detach()])
    write("attention", f)

    f = {}

    def layer(**options):
        return nn.TransformerEncoderLayer(6, 3, dim_feedforward=10, dropout=0.0, **options)

    causal = torch.ones(5, 5, dtype=torch.bool).triu(1)
    padding = torch.tensor([[False] * 5, [False] * 3 + [True] * 2])
    case(f, "norm_last", layer(), [r(5, 2, 6)])
    case(f, "norm_first", layer(norm_first=True, activation="gelu", batch_first=True, layer_norm_eps=1e-3),
         [r(2, 5, 6), padding], call=lambda m, x, p: m(x, src_key_padding_mask=p))
    case(f, "causal", layer(bias=False), [r(5, 2, 6)], call=lambda m, x: m(x, src_mask=causal, is_causal=True))
    case(f, "encoder", nn.TransformerEncoder(layer(norm_first=True), 2, norm=nn.LayerNorm(6)), [r(5, 2, 6)],
         call=lambda m, x: m(x, mask=causal))
    decoder = nn.TransformerDecoderLayer(6, 3, dim_feedforward=10, dropout=0.0, batch_first=True)
    case(f, "decoder", nn.TransformerDecoder(decoder, 2, norm=nn.LayerNorm(6)), [r(2, 5, 6), r(2, 4, 6)],
         call=lambda m, x, memory: m(x, memory, tgt_mask=causal))
    case(f, "decoder_first", nn.TransformerDecoderLayer(6, 3, dim_feedforward=10, dropout=0.0, norm_first=True),
         [r(5, 2, 6), r(4, 2, 6)])
    write("transformers", f)


def recurrent():
    f, r = {}, torch.randn
    lengths = torch.tensor([3, 6, 1, 4])

    def flat(result):
        output, states = result
        return [output, *states] if isinstance(states, tuple) else [output, states]

    def packed(m, x, n, *states):
        y = pack_padded_sequence(x, n, batch_first=m.batch_first, enforce_sorted=False)
        output, states = m(y, states if len(states) == 2 else states[0] if states else None)
        return flat((pad_packed_sequence(output, batch_first=m.batch_first)[0], states))

    for name, kind, count in ("lstm", nn.LSTM, 2), ("gru", nn.GRU, 1):
        deep = {"num_layers": 2, "bidirectional": True}
        case(f, name, kind(3, 4), [r(6, 2, 3)], call=lambda m, x: flat(m(x)))
        case(f, name + "_deep", kind(3, 5, batch_first=True, **deep), [r(2, 6, 3), *[r(4, 2, 5) for _ in range(count)]],
             call=lambda m, x, *s: flat(m(x, s if len(s) == 2 else s[0])))
        case(f, name + "_packed", kind(3, 5, **deep), [r(6, 4, 3), lengths], call=packed)
        case(f, name + "_packed_states", kind(3, 5, batch_first=True, bias=False, **deep),
             [r(4, 6, 3), lengths, *[r(4, 4, 5) for _ in range(count)]], call=packed)
    case(f, "lstm_single", nn.LSTM(3, 5), [r(6, 3)], call=lambda m, x: flat(m(x)))
    case(f, "lstm_cell", nn.LSTMCell(3, 5), [r(4, 3), r(4, 5), r(4, 5)], call=lambda m, x, h, c: m(x, (h, c)))
    case(f, "gru_cell", nn.GRUCell(3, 5, bias=False), [r(4, 3), r(4, 5)])
    write("recurrent", f)


def optimizers():
    """Two groups of one parameter each under six gradients; the rate of the second is cut before the fourth step."""
    f, o = {}, torch.optim
    for name, make, options in (
        ("sgd", o.SGD, {"lr": 0.1, "weight_decay": 0.01}),
        ("sgd_momentum", o.SGD, {"lr": 0.1, "momentum": 0.9, "dampening": 0.3}),
        ("sgd_nesterov", o.SGD, {"lr": 0.1, "momentum": 0.9, "nesterov": True, "weight_decay": 0.01}),
        ("adam", o.Adam, {"lr": 0.05, "betas": (0.8, 0.95), "weight_decay": 0.1}),
        ("adam_amsgrad", o.Adam, {"lr": 0.05, "amsgrad": True}),
        ("adamw", o.AdamW, {"lr": 0.05, "weight_decay": 0.2}),
        ("adamax", o.Adamax, {"lr": 0.05, "weight_decay": 0.1}),
        ("adagrad", o.Adagrad, {"lr": 0.2, "lr_decay": 0.1, "weight_decay": 0.1}),
        ("adadelta", o.Adadelta, {"lr": 1.0, "rho": 0.8, "weight_decay": 0.1}),
        ("rmsprop", o.RMSprop, {"lr": 0.02, "alpha": 0.9, "weight_decay": 0.1}),
        ("rmsprop_centered", o.RMSprop, {"lr": 0.02, "momentum": 0.5, "centered": True}),
    ):
        parameters = [nn.Parameter(torch.randn(3)), nn.Parameter(torch.randn(2, 2))]
        optimizer = make([{"params": parameters[:1]}, {"params": parameters[1:], "lr": 2 * options["lr"]}], **options)
        for i, p in enumerate(parameters):
            f[f"{name}/before.{i}"] = p.detach().clone()
        for step in range(6):
            if step == 3:
                optimizer.param_groups[1]["lr"] *= 0.1
            for i, p in enumerate(parameters):
                p.grad = torch.randn_like(p)
                f[f"{name}/grad.{step}.{i}"] = p.grad.clone()
            if step == 2:
                parameters[0].grad = None  # Left alone, and its step is not counted.
            optimizer.step()
            for i, p in enumerate(parameters):
                f[f"{name}/after.{step}.{i}"] = p.detach().clone()
    write("optimizers", f)


if __name__ == "__main__":
    FILES.mkdir(exist_ok=True)
    for make in layers, functions, attention, recurrent, optimizers:
        make()
