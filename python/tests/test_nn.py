"""Modules, first values, clipping, optimizers and schedules: what no comparison with another library tells."""

import copy
import math
import pickle
import re

import pytest

import ornik
from ornik import nn, optim

functional = nn.functional


class Block(nn.Module):
    def __init__(self, width=3):
        self.inner = nn.Linear(width, width)
        self.again = self.inner
        self.scale = nn.Parameter(ornik.ones(width))
        self.absent = None
        self.register_buffer("seen", ornik.zeros((), dtype="int64"))
        self.register_buffer("scratch", ornik.zeros(2), persistent=False)

    def forward(self, x, *, twice=False):
        self.seen += 1
        y = self.inner(x) * self.scale
        return self.again(y) if twice else y


def test_what_a_module_owns():
    net = nn.Sequential({"first": Block(), "norm": nn.BatchNorm1d(3)})
    names = ["first.scale", "first.inner.weight", "first.inner.bias", "norm.weight", "norm.bias"]
    assert [name for name, _ in net.named_parameters()] == names
    assert [name for name, _ in net.named_parameters("net")] == [f"net.{name}" for name in names]
    assert [n for n, _ in net.first.named_parameters(recurse=False)] == ["scale"]
    assert net.parameter_count() == 3 + 12 + 6 and net.requires_grad_(False).parameter_count(True) == 0
    assert [n for n, _ in net.named_modules()] == ["", "first", "first.inner", "norm"]
    assert [n for n, _ in net.named_buffers()][:2] == ["first.seen", "first.scratch"]
    assert list(net.state_dict()) == [
        "first.scale", "first.seen", "first.inner.weight", "first.inner.bias", "first.again.weight", "first.again.bias",
        "norm.weight", "norm.bias", "norm.running_mean", "norm.running_var", "norm.num_batches_tracked",
    ]  # fmt: skip
    assert net.get_submodule("first.inner") is net[0].inner and net.get_submodule("") is net
    with pytest.raises(AttributeError, match=r'Linear has no module "x", looking for "first\.inner\.x"'):
        net.get_submodule("first.inner.x")
    order = []
    net.apply(lambda m: order.append(type(m).__name__))
    assert order == ["Linear", "Block", "BatchNorm1d", "Sequential"]
    assert not net.eval().first.training and net.train().norm.training
    assert net(ornik.ones((2, 3))).shape == (2, 3) and net.first(ornik.ones(3), twice=True).shape == (3,)
    assert int(net.first.seen) == 2
    assert repr(net) == (
        "Sequential(\n  (first): Block(\n    (inner): Linear(3, 3)\n  )\n"
        "  (norm): BatchNorm1d(3, eps=1e-05, momentum=0.1, affine=True, track_running_stats=True)\n)"
    )
    for copied in (copy.deepcopy(net), pickle.loads(pickle.dumps(net)), pickle.loads(pickle.dumps(net, protocol=2))):
        assert copied.first.again is copied.first.inner and copied.first.scale.requires_grad is False
        assert all((a == b).all() for a, b in zip(copied.state_dict().values(), net.state_dict().values()))
        copied.first.scale.fill_(7)
        assert float(net.first.scale[0]) == 1
    with pytest.raises(NotImplementedError, match=re.escape("Module has no forward()")):
        nn.Module()(1)


def test_containers():
    blocks = nn.ModuleList([nn.Identity(), nn.Tanh()])
    blocks.append(nn.ReLU()).insert(0, nn.GELU())
    assert [n for n, _ in blocks.named_children()] == ["0", "1", "2", "3"] and len(blocks[1:3]) == 2
    assert type(blocks.pop(0)) is nn.GELU and blocks[0] in blocks and nn.Tanh() not in blocks
    blocks[0] = nn.Linear(2, 2)
    del blocks[1]
    assert list(blocks.state_dict()) == ["0.weight", "0.bias"] and [type(b).__name__ for b in blocks] == [
        "Linear",
        "ReLU",
    ]
    named = nn.ModuleDict({"a": nn.Linear(1, 1, bias=False)})
    named["b"] = nn.ReLU()
    assert list(named) == ["a", "b"] and "a" in named and list(named.state_dict()) == ["a.weight"] and named.pop("b")
    assert [k for k, _ in named.items()] == list(named.keys()) and len(list(named.values())) == len(named) == 1
    lists = nn.ParameterList([nn.Parameter(ornik.ones(2))])
    lists.append(nn.Parameter(ornik.zeros(1)))
    assert list(lists.state_dict()) == ["0", "1"] and len(list(lists.parameters())) == 2
    assert repr(nn.ParameterDict({"w": lists[0]})) == "ParameterDict(w: [2] float32)"
    sequence = nn.Sequential(nn.Linear(2, 3), nn.Linear(3, 4))
    assert sequence[:1](ornik.ones(2)).shape == (3,) and sequence.append(nn.Linear(4, 5))(ornik.ones(2)).shape == (5,)


def test_state_is_loaded_whole_or_not_at_all():
    net, other = nn.Sequential(nn.Linear(2, 3), nn.BatchNorm1d(3)), nn.Sequential(nn.Linear(2, 3), nn.BatchNorm1d(3))
    state = other.state_dict()
    assert state["0.weight"].__array__().base is not None  # On the module's memory.
    as_arrays = {name: value.numpy().copy() for name, value in state.items() if "num_batches" not in name}
    net[1].num_batches_tracked += 5
    assert net.load_state_dict(as_arrays) == nn.LoadResult([], [])
    assert (net[0].weight == other[0].weight).all() and int(net[1].num_batches_tracked) == 0
    wrong = {
        **state,
        "0.weight": ornik.zeros((3, 3)),
        "more": ornik.zeros(1),
        "0.bias": ornik.zeros(3, dtype="complex64"),
    }
    del wrong["1.bias"]
    before = net[1].weight.tolist()
    wrong["1.weight"] = ornik.zeros(3)
    with pytest.raises(ValueError) as error:
        net.load_state_dict(wrong)
    assert str(error.value) == (
        "load_state_dict() of Sequential: 1.bias is missing; more is unexpected; "
        "0.weight is [3, 2] float32, not [3, 3] float32; 0.bias is [3] float32, not [3] complex64"
    )
    assert net[1].weight.tolist() == before
    with pytest.raises(ValueError, match=r"0\.weight is"):
        net.load_state_dict(wrong, strict=False)
    result = net.load_state_dict({"1.weight": [1.0, 2.0, 3.0], "x": 1}, strict=False)
    assert "0.weight" in result.missing and result.unexpected == ["x"] and net[1].weight.tolist() == [1, 2, 3]
    shared = Block()
    one_name = {k: v for k, v in Block().state_dict().items() if not k.startswith("again")}
    assert shared.load_state_dict(one_name).missing == []


def test_other_dtypes_keep_identity():
    net = nn.Sequential(nn.Linear(2, 2), nn.BatchNorm1d(2))
    optimizer = optim.Adam(net.parameters(), lr=0.1)
    for dtype in ("float32", "float64"):
        weight = net.to(dtype)[0].weight
        net(ornik.ones((3, 2), dtype=dtype)).sum().backward()
        before = weight.tolist()
        optimizer.step()
        assert weight.dtype == dtype and weight is net[0].weight and isinstance(weight, nn.Parameter)
        assert net[1].running_mean.dtype == dtype and net[1].num_batches_tracked.dtype == "int64"
        assert net[0].bias.tolist() != [0, 0] and weight.shape == (2, 2) and before is not None
        optimizer.zero_grad()
        assert weight.grad is None
    assert net.float()[0].bias.dtype == "float32" and net.double()[0].bias.dtype == "float64"
    with pytest.raises(TypeError, match="parameters are floating or complex, not int64"):
        net.to("int64")
    assert nn.Linear(2, 2, dtype="complex64")(ornik.ones(2, dtype="complex64")).dtype == "complex64"


def test_hooks():
    layer, seen = nn.Linear(2, 2), []
    before = layer.register_forward_pre_hook(lambda m, args: seen.append(args[0].shape) or args[0] * 2)
    after = layer.register_forward_hook(lambda m, args, y: y - layer.bias)
    x = ornik.ones((3, 2))
    assert ornik.allclose(layer(x), (x * 2) @ layer.weight.T, atol=1e-6)
    before.remove()
    before.remove()
    after.remove()
    assert ornik.allclose(layer(x), x @ layer.weight.T + layer.bias, atol=1e-6) and seen == [(3, 2)]


def test_a_network_as_a_function_of_its_state():
    net = nn.Sequential(nn.Linear(3, 4), nn.BatchNorm1d(4), nn.LSTM(4, 2), nn.Flatten(0)).eval()
    net[2].register_forward_hook(lambda m, args, y: y[0] * extra[0])
    extra = net[3].extra = nn.ParameterList([nn.Parameter(ornik.full((), 2.0))])
    x, state = ornik.random.randn(5, 3), net.state_dict()
    changed = {name: t + 0.5 if t.dtype.kind == "f" else t for name, t in state.items()}
    value, gradient = ornik.value_and_grad(lambda s: nn.functional_call(net, s, x).sum())(changed)
    assert list(gradient) == list(state) and gradient["1.num_batches_tracked"] is None
    net.load_state_dict(changed)
    y = net(x).sum()
    y.backward()
    assert float(y) == float(value)
    for name, parameter in net.named_parameters():
        assert ornik.allclose(parameter.grad, gradient[name]), name
    for state, text in (({"0.weight": x}, "0.weight is [4, 3] float32, not [5, 3]"), ({"0.x": x}, '"0.x" is no param')):
        with pytest.raises(ValueError, match=re.escape(text)):
            nn.functional_call(net, state, x)


def moments(t):
    return float(t.mean()), float(t.std()), float(t.min()), float(t.max())


def test_first_values():
    ornik.random.seed(5)
    t, init = ornik.empty((200, 100)), nn.init
    for fill, mean, deviation, bound in (
        (lambda: init.uniform_(t, -1, 3), 1, 4 / math.sqrt(12), 3),
        (lambda: init.normal_(t, 2, 0.5), 2, 0.5, math.inf),
        (lambda: init.trunc_normal_(t, 0, 1, -2, 2), 0, 0.8796, 2),
        (lambda: init.xavier_uniform_(t, 2), 0, 2 * math.sqrt(2 / 300), 2 * math.sqrt(6 / 300)),
        (lambda: init.xavier_normal_(t), 0, math.sqrt(2 / 300), math.inf),
        (lambda: init.kaiming_uniform_(t, math.sqrt(5)), 0, 1 / math.sqrt(300), 0.1),
        (lambda: init.kaiming_normal_(t, mode="fan_out", nonlinearity="relu"), 0, 0.1, math.inf),
        (lambda: nn.Linear(100, 200).weight, 0, 1 / math.sqrt(300), 0.1),
        (lambda: nn.Embedding(200, 100).weight, 0, 1, math.inf),
        (lambda: nn.Conv2d(25, 200, 2).weight.reshape(200, 100), 0, 1 / math.sqrt(300), 0.1),
        (lambda: nn.ConvTranspose2d(200, 25, 2).weight.reshape(200, 100), 0, 1 / math.sqrt(300), 0.1),
        (lambda: nn.LSTM(100, 50).weight_ih_l0, 0, 1 / math.sqrt(150), 1 / math.sqrt(50)),
        (lambda: nn.MultiheadAttention(80, 2).in_proj_weight, 0, math.sqrt(2 / 320), math.sqrt(6 / 320)),
        (
            lambda: nn.Transformer(80, 2, 1, 1, 80).decoder.layers[0].linear1.weight,
            0,
            1 / math.sqrt(80),
            math.sqrt(6 / 160),
        ),
    ):
        found = fill()
        m, s, low, high = moments(found.detach())
        assert abs(m - mean) < 0.06 * deviation and abs(s / deviation - 1) < 0.03
        assert max(abs(low - mean), abs(high - mean)) <= abs(bound - mean) * 1.0001
    attention = nn.MultiheadAttention(4, 2)
    assert not attention.in_proj_bias.any() and not attention.out_proj.bias.any()
    for shape in ((5, 8), (8, 5), (4, 2, 3)):
        q = init.orthogonal_(nn.Parameter(ornik.empty(shape, dtype="float64")), 2).detach().reshape(shape[0], -1)
        square = q @ q.T if q.shape[0] <= q.shape[1] else q.T @ q
        assert ornik.allclose(square, 4 * ornik.eye(min(q.shape), dtype="float64"), atol=1e-12)
    x = ornik.random.randn(1, 4, 5)
    assert (functional.conv1d(x, init.dirac_(ornik.empty((4, 4, 3))), padding=1) == x).all()
    assert (init.eye_(ornik.empty((2, 3))) == ornik.eye(2, 3)).all()
    assert init.ones_(t).all() and not init.zeros_(t).any() and float(init.constant_(t, 3)[0, 0]) == 3
    assert init.calculate_gain("leaky_relu", 1) == 1 and init.calculate_gain("tanh") == 5 / 3
    assert nn.Embedding(4, 2, -1).weight[3].tolist() == [0, 0]


def test_dropout():
    ornik.random.seed(1)
    x = ornik.ones((50, 40, 10))
    for layer in (nn.Dropout(0.25), nn.Dropout1d(0.25)):
        y = layer(x)
        assert (
            sorted(set(y.numpy().ravel().tolist())) == [0, pytest.approx(4 / 3)]
            and abs(float((y == 0).mean()) - 0.25) < 0.03
        )
        assert layer.eval()(x) is not None and (layer(x) == x).all()
    assert (y == y[:, :, :1]).all()
    before = ornik.random.get_state()
    nn.Dropout(0)(x)
    assert ornik.random.get_state() == before
    encoder = nn.TransformerEncoderLayer(4, 2, 8)
    x = ornik.random.randn(3, 2, 4)
    assert (encoder(x) != encoder(x)).any() and (encoder.eval()(x) == encoder(x)).all()


def test_sequences_of_different_lengths():
    rnn = nn.utils.rnn
    rows = [ornik.random.randn(n, 2) for n in (2, 4, 1)]
    packed = rnn.pack_sequence(rows, enforce_sorted=False)
    assert packed.batch_sizes.tolist() == [3, 2, 1, 1] and packed.sorted_indices.tolist() == [1, 0, 2]
    for back, row in zip(rnn.unpack_sequence(packed), rows):
        assert (back == row).all()
    padded = rnn.pad_sequence(rows, batch_first=True, padding_value=-1)
    assert padded.shape == (3, 4, 2) and padded[2, 1:].tolist() == [[-1, -1]] * 3
    network = nn.LSTM(2, 3, 2, bidirectional=True)
    states = tuple(ornik.random.randn(4, 3, 3) for _ in range(2))
    together, (hidden, cell) = network(packed, states)
    for i, row in enumerate(rnn.unpack_sequence(together)):
        alone, (h, c) = network(rows[i], tuple(s[:, i] for s in states))
        assert all(ornik.allclose(a, b, atol=1e-6) for a, b in ((row, alone), (hidden[:, i], h), (cell[:, i], c)))


def test_gradients_are_clipped():
    a, b, c = (ornik.zeros(2), ornik.zeros(1), ornik.zeros(3))
    for norm_type, expected in ((2, 13), (math.inf, 12), (1, 19)):
        a.grad, b.grad = ornik.tensor([3.0, -4.0]), ornik.tensor([12.0])
        assert float(nn.utils.clip_grad_norm_([a, b, c], 2, norm_type)) == pytest.approx(expected)
        assert a.grad.tolist() == pytest.approx([6 / expected, -8 / expected], rel=1e-5) and c.grad is None
        assert float(nn.utils.clip_grad_norm_(iter([a, b]), 100)) < 13 and b.grad.item() == pytest.approx(
            24 / expected, rel=1e-5
        )
    a.grad = ornik.tensor([3.0, -4.0])
    nn.utils.clip_grad_value_(a, 3.5)
    assert a.grad.tolist() == [3, -3.5]
    a.grad = ornik.tensor([math.nan, 1])
    with pytest.raises(RuntimeError, match="the norm of the gradients is nan"):
        nn.utils.clip_grad_norm_(a, 1, error_if_nonfinite=True)
    layer = nn.Linear(2, 3)
    vector = nn.utils.parameters_to_vector(layer.parameters())
    assert vector.shape == (9,) and vector.requires_grad
    nn.utils.vector_to_parameters(ornik.arange(9.0), layer.parameters())
    assert layer.bias.tolist() == [6, 7, 8]


def test_summary():
    shared = nn.Linear(4, 4)
    net = nn.Sequential(shared, nn.LSTM(4, 2), nn.Identity()).train()
    table = nn.summary(net, (3, 2, 4))
    assert [(r.path, r.kind, r.shapes, r.parameters, r.nbytes) for r in table.rows] == [
        ("", "Sequential", ((3, 2, 2), (1, 2, 2), (1, 2, 2)), 0, 0),
        ("0", "Linear", ((3, 2, 4),), 20, 96),
        ("1", "LSTM", ((3, 2, 2), (1, 2, 2), (1, 2, 2)), 64, 80),
        ("2", "Identity", ((3, 2, 2), (1, 2, 2), (1, 2, 2)), 0, 80),
    ]
    assert (
        table.parameters == 84
        and table.state_nbytes == 336
        and net.training
        and "parameters: 84 (84 trai" in repr(table)
    )


def test_optimizers_go_on_from_their_state():
    def train(net, optimizer, schedule, steps):
        for step in range(steps):
            optimizer.zero_grad(set_to_none=step % 2 == 0)
            functional.mse_loss(net(ornik.full((4, 2), step + 1.0)), ornik.ones((4, 1))).backward()
            optimizer.step()
            schedule.step()
        return nn.utils.parameters_to_vector(net.parameters()).tolist()

    for kind, options in (
        (optim.SGD, {"momentum": 0.5, "nesterov": True}), (optim.Adam, {"amsgrad": True}), (optim.AdamW, {}),
        (optim.Adamax, {}), (optim.Adagrad, {"lr_decay": 0.1}), (optim.Adadelta, {}),
        (optim.RMSprop, {"centered": True, "momentum": 0.1}),
    ):  # fmt: skip

        def start(net, kind=kind, options=options):
            optimizer = kind([{"params": net.weight, "lr": 0.02}, {"params": [net.bias]}], lr=0.01, **options)
            return optimizer, optim.lr_scheduler.SequentialLR(
                optimizer, [optim.lr_scheduler.LinearLR(optimizer), optim.lr_scheduler.StepLR(optimizer, 2)], [3]
            )

        net = nn.Linear(2, 1)
        parts = start(net)
        train(net, *parts, 4)
        kept = pickle.loads(pickle.dumps([net, *(p.state_dict() for p in parts)]))
        whole_net, whole_optimizer = pickle.loads(pickle.dumps((net, parts[0])))
        resumed = start(kept[0])
        for part, state in zip(resumed, kept[1:]):
            part.load_state_dict(state)
        expected = train(net, *parts, 5)
        assert train(kept[0], *resumed, 5) == expected
        assert whole_optimizer.param_groups[0]["params"][0] is whole_net.weight
        assert repr(parts[0]).startswith(f"{kind.__name__}(\n  group 0: 1 parameters, lr=")


def test_calls_in_training_fit():
    ornik.random.seed(0)
    x = ornik.random.rand(64, 2) * 2 - 1
    labels = (x[:, 0] * x[:, 1] > 0).astype("int64")
    net = nn.Sequential(nn.Linear(2, 16), nn.Tanh(), nn.Linear(16, 2))
    optimizer = optim.AdamW(net.parameters(), lr=0.05)
    schedule = optim.lr_scheduler.OneCycleLR(optimizer, 0.05, 100)
    for _ in range(100):
        optimizer.zero_grad()
        loss = nn.CrossEntropyLoss()(net(x), labels)
        loss.backward()
        nn.utils.clip_grad_norm_(net.parameters(), 1.0)
        optimizer.step()
        schedule.step()
    assert float(loss) < 0.1 and float((net(x).argmax(1) == labels).mean()) > 0.95


LINEAR = nn.Linear(2, 2)
ZEROS = ornik.zeros
REFUSED = {
    "Linear(): in_features is above 0, not 0": (ValueError, lambda: nn.Linear(0, 1)),
    "Linear(): out_features is a whole number, but got float": (TypeError, lambda: nn.Linear(1, 1.5)),
    "Linear.weight is a Parameter; another one or None takes its place, not KTensor":
        (TypeError, lambda: setattr(LINEAR, "weight", ZEROS(2))),
    "a name is a string without points, not 'a.b'": (ValueError, lambda: LINEAR.register_buffer("a.b", ZEROS(1))),
    'Linear has another attribute "forward" already': (ValueError, lambda: LINEAR.register_buffer("forward", ZEROS(1))),
    '"x" is to be a Parameter or None, but got KTensor': (TypeError, lambda: LINEAR.register_parameter("x", ZEROS(1))),
    "a hook is a function, but got int": (TypeError, lambda: LINEAR.register_forward_hook(3)),
    "ModuleList holds Modules, but got int": (TypeError, lambda: nn.ModuleList([3])),
    "Embedding(): there is no row 4 among 4": (ValueError, lambda: nn.Embedding(4, 2, 4)),
    "Dropout(): a probability lies between 0 and 1, not at 2": (ValueError, lambda: nn.Dropout(2)),
    "Conv2d(): 3 and 4 channels do not fall into 2 groups": (ValueError, lambda: nn.Conv2d(3, 4, 1, groups=2)),
    "Conv2d(): kernel_size is 2 numbers of 1 and above, but got (3, 3, 3)":
        (ValueError, lambda: nn.Conv2d(1, 1, (3, 3, 3))),
    "Conv1d(): stride is a whole number or 1 of them, but got 'a'": (TypeError, lambda: nn.Conv1d(1, 1, 1, "a")),
    'Conv1d(): padding="same" is for a stride of 1, not of (2,)': (ValueError, lambda: nn.Conv1d(1, 1, 3, 2, "same")),
    "conv2d(): x [2, 2] and weight [1, 1, 1, 1]; wanted are [N, C, H, W] and 4 axes":
        (ValueError, lambda: nn.Conv2d(1, 1, 1)(ZEROS((2, 2)))),
    "MaxPool1d(): a padding of (2,) is not less than the kernel (2,)": (ValueError, lambda: nn.MaxPool1d(2, padding=2)),
    "BatchNorm2d(): 4 axes are wanted, but got [2, 3]": (ValueError, lambda: nn.BatchNorm2d(3)(ZEROS((2, 3)))),
    "GroupNorm(): 4 channels do not fall into 3 groups": (ValueError, lambda: nn.GroupNorm(3, 4)),
    "rms_norm(): the last axes of [2, 3] are not [2]": (ValueError, lambda: nn.RMSNorm(2)(ZEROS((2, 3)))),
    "Unflatten(): 6 elements do not fall into [4, -1]": (ValueError, lambda: nn.Unflatten(1, (4, -1))(ZEROS((2, 6)))),
    "interpolate(): there is no mode 'linear' for 2 of the axes":
        (ValueError, lambda: functional.interpolate(ZEROS((1, 1, 2, 2)), 3, mode="linear")),
    "pad(): two numbers for each of up to 1 axes are wanted, but got 3":
        (ValueError, lambda: functional.pad(ZEROS(2), [1] * 3)),
    "MultiheadAttention(): a width of 4 does not fall into 3 heads": (ValueError, lambda: nn.MultiheadAttention(4, 3)),
    "MultiheadAttention(): query, key and value are [3, 2, 4], [3, 1, 4] and [3, 2, 4]; wanted are [targets, N, 4], "
    "[sources, N, 4] and [sources, N, 4]":
        (ValueError, lambda: nn.MultiheadAttention(4, 2)(ZEROS((3, 2, 4)), ZEROS((3, 1, 4)), ZEROS((3, 2, 4)))),
    "MultiheadAttention(): attn_mask is [2, 2], not [3, 3] or [4, 3, 3]":
        (ValueError, lambda: nn.MultiheadAttention(4, 2)(*[ZEROS((3, 2, 4))] * 3, attn_mask=ZEROS((2, 2)))),
    "LSTM(): [5, 4] is neither [steps, N, 3] nor [steps, 3]": (ValueError, lambda: nn.LSTM(3, 2)(ZEROS((5, 4)))),
    "GRU(): a state is [1, 2], not [1, 4, 2]": (ValueError, lambda: nn.GRU(3, 2)(ZEROS((5, 4, 3)), ZEROS((1, 2)))),
    "pack_padded_sequence(): lengths fall unless enforce_sorted is False, but got [1, 2]":
        (ValueError, lambda: nn.utils.rnn.pack_padded_sequence(ZEROS((2, 2, 1)), [1, 2])),
    "pack_padded_sequence(): lengths are 1 and above, one for each sequence, but got [1, 0]":
        (ValueError, lambda: nn.utils.rnn.pack_padded_sequence(ZEROS((2, 2, 1)), [1, 0])),
    'MSELoss(): a reduction is one of "mean", "sum", "none", not \'all\'': (ValueError, lambda: nn.MSELoss("all")),
    'a reduction is "mean", "sum" or "none", not "all"':
        (ValueError, lambda: functional.mse_loss(ZEROS(1), ZEROS(1), "all")),
    "SGD(): there are no parameters": (ValueError, lambda: optim.SGD([])),
    "SGD(): a sequence of parameters is wanted, not one Parameter": (TypeError, lambda: optim.SGD(LINEAR.weight)),
    "SGD(): parameter 1, [2], is listed twice": (ValueError, lambda: optim.SGD([LINEAR.bias, LINEAR.bias])),
    "SGD(): parameter 0, [2], is a result, not a leaf": (ValueError, lambda: optim.SGD([LINEAR.bias * 2])),
    "SGD(): lr is 0 and above, not -1": (ValueError, lambda: optim.SGD([LINEAR.bias], lr=-1)),
    "SGD(): nesterov takes a momentum above 0 and no dampening":
        (ValueError, lambda: optim.SGD([LINEAR.bias], nesterov=True)),
    "Adam(): betas lie in [0, 1), not at (0.9, 1)": (ValueError, lambda: optim.Adam([LINEAR.bias], betas=(0.9, 1))),
    "SGD(): there is no option beta; there are lr, momentum, dampening, weight_decay, nesterov, maximize":
        (ValueError, lambda: optim.SGD([{"params": [LINEAR.bias], "beta": 1}])),
    "load_state_dict(): groups of [2] parameters do not fit those of [1]":
        (ValueError, lambda: optim.SGD([LINEAR.bias]).load_state_dict(optim.SGD(LINEAR.parameters()).state_dict())),
    "load_state_dict(): exp_avg of 0 is [3], not [2]; 4 is no parameter":
        (ValueError, lambda: optim.Adam([LINEAR.bias]).load_state_dict(
            {"state": {0: {"step": 1, "exp_avg": ZEROS(3)}, 4: {}}, "param_groups": [{"params": [0]}]})),
    "StepLR(): step_size is a whole number of 1 and above, not 0":
        (ValueError, lambda: optim.lr_scheduler.StepLR(optim.SGD([LINEAR.bias]), 0)),
    "OneCycleLR(): the optimizer has no momentum; cycle_momentum=False leaves it out":
        (ValueError, lambda: optim.lr_scheduler.OneCycleLR(optim.Adagrad([LINEAR.bias]), 1.0, 5)),
    "OneCycleLR: the cycle ends after 1 steps":
        (RuntimeError, lambda: [
            s.step() for s in [optim.lr_scheduler.OneCycleLR(optim.SGD([LINEAR.bias]), 1.0, 1)] * 2]),
}  # fmt: skip


def scattered(module):
    """Parameters and running statistics away from their first values."""
    for name, tensor in module.state_dict().items():
        if tensor.dtype.kind == "f":
            tensor[...] = (
                ornik.random.uniform(0.5, 1.0, tensor.shape)
                if "var" in name
                else (ornik.random.uniform(-0.5, 0.5, tensor.shape))
            )
    return module


def bits(tensor):
    return bytes(tensor.detach())


IN_INFERENCE = {
    "linear": (lambda: nn.Linear(48, 33), (3, 48)),
    "conv1d": (lambda: nn.Conv1d(16, 16, 3, padding="same"), (2, 16, 20)),
    "conv2d": (lambda: nn.Conv2d(32, 40, 3, 2, 1, padding_mode="reflect"), (2, 32, 9, 7)),
    "unbatched": (lambda: nn.Conv2d(32, 40, 3, bias=False), (32, 9, 7)),
    "transposed": (lambda: nn.ConvTranspose2d(32, 8, 3, 2, 1, 1), (2, 32, 5, 5)),
    "encoder": (lambda: nn.TransformerEncoderLayer(48, 4, 64, 0.0, batch_first=True), (2, 5, 48)),
    "gelu": (lambda: nn.TransformerEncoderLayer(48, 4, 64, 0.0, "gelu", norm_first=True), (5, 2, 48)),
    "silu": (lambda: nn.TransformerEncoderLayer(48, 4, 64, 0.0, functional.silu), (5, 2, 48)),
}


@pytest.mark.parametrize("name", IN_INFERENCE)
def test_layers_have_the_bits_of_training_in_inference(name):
    make, shape = IN_INFERENCE[name]
    layer, x = make(), ornik.random.normal(0, 1, shape)
    trained = bits(layer(x))
    layer.eval()
    assert bits(layer(x)) == trained
    with ornik.no_grad():
        assert all(bits(layer(x)) == trained for _ in range(3))
        assert all(bits(copied(x)) == trained for copied in (copy.deepcopy(layer), pickle.loads(pickle.dumps(layer))))
        for parameter in layer.parameters():
            parameter *= 0.5
        changed = bits(layer(x))
        assert changed != trained and bits(layer(x)) == changed
        assert bits(layer.train()(x)) == changed


def test_weights_that_others_write_to_are_read():
    """By the buffer protocol and DLPack, while the other one holds the memory and when it has let go."""
    numpy = pytest.importorskip("numpy")
    layer, x = nn.Linear(40, 24).eval(), ornik.random.normal(0, 1, (2, 40))
    for lend in (lambda t: numpy.asarray(memoryview(t)), numpy.from_dlpack, numpy.asarray):
        with ornik.no_grad():
            for _ in range(3):
                layer(x)
            view = lend(layer.weight.detach())
            for value in (1.0, 2.0):
                view[...] = value
                assert bits(layer(x)) == bits(functional.linear(x, layer.weight, layer.bias))
            view[...] = 3.0
            del view
            for _ in range(3):
                assert bits(layer(x)) == bits(functional.linear(x, layer.weight, layer.bias))


class ResidualBlock(nn.Module):
    def __init__(self, width):
        self.conv1 = nn.Conv2d(width, width, 3, padding=1, bias=False)
        self.bn1 = nn.BatchNorm2d(width)
        self.conv2 = nn.Conv2d(width, width, 3, padding=1, groups=4)
        self.bn2 = nn.BatchNorm2d(width, affine=False)

    def forward(self, x):
        return functional.relu(self.bn2(self.conv2(functional.relu(self.bn1(self.conv1(x))))) + x)

    def fused(self):
        body = nn.Sequential(self.conv1, self.bn1, nn.ReLU(), self.conv2, self.bn2)
        return nn.Residual(body, activation=nn.ReLU())


class Owner(nn.Module):
    """A forward of its own, with parts in a row."""

    def __init__(self):
        self.stem = nn.Sequential(nn.Conv2d(3, 32, 3, 2, bias=False), nn.BatchNorm2d(32), nn.SiLU(), nn.Dropout(0.5))
        self.blocks = nn.ModuleList(
            [
                ResidualBlock(32),
                nn.Residual(
                    nn.Sequential(nn.Conv2d(32, 32, 1), nn.BatchNorm2d(32)),
                    nn.Sequential(nn.Conv2d(32, 32, 1)),
                    nn.Hardswish(),
                ),
            ]
        )
        self.tail = nn.Sequential(
            nn.ConvTranspose2d(32, 24, 2, groups=2), nn.BatchNorm2d(24), nn.GELU(), nn.Flatten(),
            nn.Linear(24 * 64, 16), nn.BatchNorm1d(16), nn.Tanh(), nn.Linear(16, 4))  # fmt: skip

    def forward(self, x):
        x = self.stem(x)
        for block in self.blocks:
            x = block(x)
        return self.tail(x)


def test_fuse_folds_normalizations_and_joins_what_follows():
    network, x = scattered(Owner()), ornik.random.normal(0, 1, (2, 3, 15, 15))
    with pytest.raises(RuntimeError, match="in training; eval"):
        nn.fuse(network)
    network.eval()
    before = {name: bits(tensor) for name, tensor in network.state_dict().items()}
    for dtype, tolerance in (("float32", 2e-5), ("float64", 1e-13)):
        network.to(getattr(ornik, dtype))
        images = x.astype(getattr(ornik, dtype))
        fast = nn.fuse(network)
        with ornik.no_grad():
            wanted = network(images)
            for _ in range(3):
                assert ornik.max(ornik.abs(fast(images) - wanted)).item() <= (
                    tolerance * ornik.max(ornik.abs(wanted)).item()
                )
        text = repr(fast)
        assert "BatchNorm" not in text and "Dropout" not in text
        assert all(
            part in text
            for part in (
                "Fused(Conv2d, normalized, silu)",
                "(last): Fused(Conv2d, normalized, relu)",
                "(last): Fused(Conv2d, normalized, hardswish)",
                "Fused(ConvTranspose2d, normalized, gelu)",
                "Fused(Linear, normalized, tanh)",
            )
        )
        assert all(not p.requires_grad for p in fast.parameters())
        leaf = images.detach()
        leaf.requires_grad = True
        fast(leaf).sum().backward()
        assert leaf.grad is not None
        with pytest.raises(RuntimeError, match="for inference"):
            fast.train()(images)
    network.float()
    assert {name: bits(tensor) for name, tensor in network.state_dict().items()} == before


def test_fuse_keeps_bits_where_nothing_is_folded():
    network = nn.Sequential(
        nn.Conv2d(16, 32, 3), nn.ReLU6(),
        nn.Residual(nn.Sequential(nn.Conv2d(32, 32, 1), nn.ReLU(), nn.Conv2d(32, 32, 1)), activation=nn.ReLU()),
        nn.Residual(nn.Sequential(nn.ReLU(), nn.Conv2d(32, 32, 1), nn.ReLU()), activation=nn.GELU("tanh")),
        nn.Flatten(), nn.Linear(288, 24), nn.Sigmoid(), nn.LayerNorm(24)).eval()  # fmt: skip
    fast, x = nn.fuse(network), ornik.random.normal(0, 1, (2, 16, 5, 5))
    with ornik.no_grad():
        for _ in range(2):
            assert all(bits(fast(x)) == bits(network(x)) for _ in range(3))
            for parameter in network.parameters():  # Its weights are the network's own.
                parameter *= 0.75
    hooked = nn.Sequential(nn.Linear(4, 4), nn.ReLU()).eval()
    seen = []
    hooked[1].register_forward_hook(lambda module, args, result: seen.append(result.shape))
    nn.fuse(hooked)(ornik.ones((2, 4)))
    assert seen == [(2, 4)]


class Between(nn.Module):
    """A module that the library does not know."""

    def forward(self, x):
        return x * 2


def residual_net(act=nn.ReLU):
    def block(channels, out, stride):
        shortcut = nn.Sequential(nn.Conv2d(channels, out, 1, stride, bias=False), nn.BatchNorm2d(out))
        body = [
            *(nn.Conv2d(channels, out, 3, stride, 1, bias=False), nn.BatchNorm2d(out), act()),
            *(nn.Conv2d(out, out, 3, padding=1, bias=False), nn.BatchNorm2d(out)),
        ]
        return nn.Residual(nn.Sequential(*body), None if stride == 1 else shortcut, act())

    return nn.Sequential(
        *(nn.Conv2d(3, 32, 7, 2, 3, bias=False), nn.BatchNorm2d(32), act(), nn.MaxPool2d(3, 2, 1)),
        *(block(32, 32, 1), block(32, 48, 2), nn.AvgPool2d(2, 1, 1)),
        *(nn.AdaptiveAvgPool2d(1), nn.Flatten(), nn.Linear(48, 10)),
    )


def mobile_net():
    def block(channels, wide):
        return nn.Residual(
            nn.Sequential(
                *(nn.Conv2d(channels, wide, 1, bias=False), nn.BatchNorm2d(wide), nn.ReLU6()),
                *(nn.Conv2d(wide, wide, 3, padding=1, groups=wide), nn.BatchNorm2d(wide), nn.Hardswish()),
                *(nn.Conv2d(wide, channels, 1, bias=False), nn.BatchNorm2d(channels)),
            )
        )

    return nn.Sequential(nn.Conv2d(3, 24, 3, 2, 1), nn.SiLU(), block(24, 40), nn.Dropout(), block(24, 33))


def rows(size):
    return nn.Sequential(
        nn.Linear(size, 24), nn.BatchNorm1d(24), nn.GELU(), nn.Residual(nn.Linear(24, 24), activation=nn.Sigmoid())
    )


IMAGES, ONE = (2, 3, 37, 31), (3, 37, 31)
# A network, its input, how many parts it has when it is fused, and whether its bits stay.
FUSED = {
    "residual": (residual_net, IMAGES, 4, False),
    "mobile": (mobile_net, IMAGES, 1, False),
    "one sample": (mobile_net, ONE, 1, False),
    "rows": (lambda: rows(5), (7, 5), 1, False),
    "lines": (lambda: nn.Sequential(nn.Conv1d(3, 16, 3), nn.ReLU(), nn.Conv1d(16, 8, 3)), (2, 3, 20), 1, True),
    "between": (
        lambda: nn.Sequential(nn.Conv2d(3, 32, 3), nn.Tanh(), Between(), nn.Conv2d(32, 16, 1)),
        IMAGES,
        4,
        True,
    ),
    "unknown pools": (
        lambda: nn.Sequential(
            *(nn.Conv2d(3, 16, 3), nn.MaxPool2d(2, ceil_mode=True), nn.Conv2d(16, 16, 1)),
            *(nn.AvgPool2d(3, padding=1, count_include_pad=False), nn.GELU("tanh"), nn.ReLU(), nn.AdaptiveAvgPool2d(2)),
        ),
        *(IMAGES, 8, True),
    ),
    "padded sum": (
        lambda: nn.Sequential(
            nn.Conv2d(3, 16, 1),
            nn.Residual(nn.Conv2d(16, 16, 3, padding=1, padding_mode="reflect"), nn.Conv2d(16, 16, 1), nn.ReLU()),
            nn.Residual(nn.Sequential(Between(), nn.Conv2d(16, 16, 1)), activation=nn.GELU("tanh")),
            nn.Residual(nn.Sequential(nn.Conv2d(16, 16, 1), nn.ReLU()), Between(), nn.ReLU()),
        ),
        *(ONE, 14, True),
    ),
    "lone normalizations": (
        lambda: nn.Sequential(nn.BatchNorm2d(3), nn.ReLU(), nn.Conv2d(3, 8, 3), nn.ReLU(), nn.BatchNorm2d(8)),
        *(IMAGES, 4, True),
    ),
    "complex": (lambda: nn.Sequential(nn.Conv2d(3, 4, 3), nn.Conv2d(4, 4, 1)).to(ornik.complex64), IMAGES, 1, True),
}


@pytest.mark.parametrize("name", FUSED)
def test_fused_networks_and_their_copies_have_the_values_of_the_modules(name):
    make, shape, parts, keeps_bits = FUSED[name]
    network = scattered(make()).eval()
    x = ornik.random.normal(0, 1, shape).astype(next(network.parameters()).dtype)
    fast = nn.fuse(network)
    assert len(list(fast.modules())) == parts, repr(fast)
    layers = [module for module in fast.modules() if "Fused" in repr(module) and not list(module.children())]
    assert layers and not any(p.requires_grad for layer in layers for p in layer.parameters())
    with ornik.no_grad():
        wanted = network(x.reshape((1, *ONE)))[0] if shape is ONE else network(x)
        found = bits(fast(x))
        again = nn.fuse(nn.Sequential(fast))
        for other in (fast, copy.deepcopy(fast), pickle.loads(pickle.dumps(fast)), again):
            assert repr(other) == repr(fast) and all(bits(other(x)) == found for _ in range(2))
            assert {n: bits(t) for n, t in other.state_dict().items()} == {
                n: bits(t) for n, t in fast.state_dict().items()
            }
        if keeps_bits:
            assert found == bits(wanted)
            for parameter in network.parameters():  # Its weights are the network's own.
                parameter *= 0.75
            assert bits(fast(x)) == bits(network(x)) != found
        else:
            assert ornik.max(ornik.abs(fast(x) - wanted)).item() <= 2e-5 * ornik.max(ornik.abs(wanted)).item()
    if x.dtype is ornik.float32:  # The state is that of the network that runs.
        wide = copy.deepcopy(fast).double()(x.astype(ornik.float64))
        assert wide.dtype is ornik.float64
        assert ornik.max(ornik.abs(wide - fast(x))).item() <= 2e-5 * ornik.max(ornik.abs(wide)).item()
        with pytest.raises(RuntimeError, match=r"^a fused module is for inference; "):
            fast.train()(x)


def test_fused_networks_refuse_what_they_do_not_take():
    fast = nn.fuse(nn.Sequential(nn.Conv2d(3, 8, 3, bias=False), nn.BatchNorm2d(8), nn.ReLU()).eval())
    assert repr(fast) == "Fused(Conv2d, normalized, relu)"
    for call, error, text in (
        (lambda: fast(ornik.ones((2, 3))), ValueError, "a fused network takes [N, C, H, W], but got [2, 3]"),
        (lambda: nn.fuse(rows(5).eval())(ornik.ones((2, 2, 5))), ValueError,
         "forward(): a linear map with a batch normalization folded in takes [N, 5], not [2, 2, 5] float32."),
        (lambda: ornik._ornik.Fused(("Conv2d", (0, 1), (ornik.ones(2),), (), "none")), IndexError, None),
        (lambda: ornik._ornik.Fused(("ReLU", (), (), (), "softer")), ValueError, 'no layer ends with "softer"'),
        (lambda: ornik._ornik.Fused(("ReLU",)), IndexError, None),
    ):  # fmt: skip
        with pytest.raises(error) as raised:
            call()
        assert text is None or str(raised.value) == text


@pytest.mark.parametrize("text", REFUSED)
def test_refusals(text):
    error, call = REFUSED[text]
    with pytest.raises(error) as raised:
        call()
    assert type(raised.value) is error and str(raised.value) == text
