#!/usr/bin/env python3
"""Whole networks through this library and through ONNX Runtime, in turn.

The rows "inference/..." of bench_ornik beside models of the same networks, written with onnx's helper and run with all
of the runtime's graph optimizations. Needs: pip install onnxruntime onnx numpy.

    bench/compare_onnxruntime.py --rows resnet18
"""

import argparse
import os
import pathlib
import time

import numpy as np
import onnx
import onnxruntime
from compare import run_once
from onnx import TensorProto, helper, numpy_helper

RANDOM = np.random.default_rng(1)
MOBILE_STAGES = (
    (1, 16, 1, 1),
    (6, 24, 2, 2),
    (6, 32, 3, 2),
    (6, 64, 4, 2),
    (6, 96, 3, 1),
    (6, 160, 3, 2),
    (6, 320, 1, 1),
)


class Graph:
    """Nodes and weights of a model, added one by one."""

    def __init__(self):
        self.nodes = []
        self.weights = []

    def weight(self, values):
        name = f"w{len(self.weights)}"
        self.weights.append(numpy_helper.from_array(np.asarray(values), name))
        return name

    def random(self, *shape):
        bound = 1 / np.sqrt(max(np.prod(shape[1:]), 1))
        return self.weight(RANDOM.uniform(-bound, bound, shape).astype(np.float32))

    def full(self, value, *shape):
        return self.weight(np.full(shape, value, np.float32))

    def add(self, kind, *inputs, **attributes):
        name = f"v{len(self.nodes)}"
        self.nodes.append(helper.make_node(kind, inputs, [name], **attributes))
        return name

    def normalized(self, x, inputs, outputs, kernel, stride, groups=1):
        weight = self.random(outputs, inputs // groups, kernel, kernel)
        pads = [kernel // 2] * 4
        x = self.add("Conv", x, weight, kernel_shape=[kernel] * 2, strides=[stride] * 2, pads=pads, group=groups)
        ones, zeros = self.full(1, outputs), self.full(0, outputs)
        return self.add("BatchNormalization", x, ones, zeros, zeros, ones)

    def classes(self, x, channels):
        x = self.add("Flatten", self.add("GlobalAveragePool", x))
        return self.add("Gemm", x, self.random(1000, channels), self.random(1000), transB=1)

    def linear(self, x, inputs, outputs):
        return self.add("Add", self.add("MatMul", x, self.random(inputs, outputs)), self.random(outputs))

    def session(self, shape, result, result_shape):
        graph = helper.make_graph(
            self.nodes,
            "network",
            [helper.make_tensor_value_info("x", TensorProto.FLOAT, shape)],
            [helper.make_tensor_value_info(result, TensorProto.FLOAT, result_shape)],
            self.weights,
        )
        model = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 20)], ir_version=9)
        onnx.checker.check_model(model)
        options = onnxruntime.SessionOptions()
        options.graph_optimization_level = onnxruntime.GraphOptimizationLevel.ORT_ENABLE_ALL
        options.intra_op_num_threads = len(os.sched_getaffinity(0))
        options.inter_op_num_threads = 1
        session = onnxruntime.InferenceSession(model.SerializeToString(), options, providers=["CPUExecutionProvider"])
        x = {"x": RANDOM.standard_normal(shape).astype(np.float32)}
        return lambda: session.run(None, x)


def resnet18(batch):
    graph = Graph()
    x = graph.add("Relu", graph.normalized("x", 3, 64, 7, 2))
    x = graph.add("MaxPool", x, kernel_shape=[3, 3], strides=[2, 2], pads=[1] * 4)
    inputs = 64
    for channels, first_stride in ((64, 1), (128, 2), (256, 2), (512, 2)):
        for stride in (first_stride, 1):
            y = graph.add("Relu", graph.normalized(x, inputs, channels, 3, stride))
            y = graph.normalized(y, channels, channels, 3, 1)
            shortcut = x if inputs == channels else graph.normalized(x, inputs, channels, 1, stride)
            x = graph.add("Relu", graph.add("Add", y, shortcut))
            inputs = channels
    return graph.session([batch, 3, 224, 224], graph.classes(x, 512), [batch, 1000])


def mobilenet_v2(batch):
    graph = Graph()
    low, high = graph.weight(np.float32(0)), graph.weight(np.float32(6))

    def active(*arguments):
        return graph.add("Clip", graph.normalized(*arguments), low, high)

    x, inputs = active("x", 3, 32, 3, 2), 32
    for widening, channels, blocks, first_stride in MOBILE_STAGES:
        for block in range(blocks):
            stride, inner = (first_stride if block == 0 else 1), inputs * widening
            y = active(x, inputs, inner, 1, 1) if widening > 1 else x
            y = graph.normalized(active(y, inner, inner, 3, stride, inner), inner, channels, 1, 1)
            x = graph.add("Add", x, y) if stride == 1 and inputs == channels else y
            inputs = channels
    return graph.session([batch, 3, 224, 224], graph.classes(active(x, inputs, 1280, 1, 1), 1280), [batch, 1000])


def encoder(batch, width=768, heads=12, inner=3072, length=128):
    graph = Graph()
    split = graph.weight(np.array([batch, length, heads, width // heads]))
    merged = graph.weight(np.array([batch, length, width]))

    def in_heads(x, order):
        return graph.add("Transpose", graph.add("Reshape", graph.linear(x, width, width), split), perm=order)

    def norm(x):
        return graph.add("LayerNormalization", x, graph.full(1, width), graph.full(0, width), axis=-1)

    query, key, value = (in_heads("x", order) for order in ([0, 2, 1, 3], [0, 2, 3, 1], [0, 2, 1, 3]))
    scores = graph.add("Div", graph.add("MatMul", query, key), graph.weight(np.float32(np.sqrt(width // heads))))
    y = graph.add("MatMul", graph.add("Softmax", scores, axis=-1), value)
    y = graph.add("Reshape", graph.add("Transpose", y, perm=[0, 2, 1, 3]), merged)
    x = norm(graph.add("Add", "x", graph.linear(y, width, width)))
    y = graph.linear(graph.add("Gelu", graph.linear(x, width, inner)), inner, width)
    return graph.session([batch, length, width], norm(graph.add("Add", x, y)), [batch, length, width])


NETWORKS = {"resnet18": resnet18, "mobilenet_v2": mobilenet_v2, "encoder": encoder}


def best_time(run, seconds):
    """Of single calls, in microseconds."""
    run()
    best, end = float("inf"), time.perf_counter() + seconds
    while time.perf_counter() < end:
        begin = time.perf_counter()
        run()
        best = min(best, time.perf_counter() - begin)
    return best * 1e6


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    root = pathlib.Path(__file__).resolve().parent.parent
    parser.add_argument("--program", type=pathlib.Path, default=root / "build/release/bench/bench_ornik")
    parser.add_argument("--rows", choices=NETWORKS, nargs="+", default=list(NETWORKS))
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--min-time", type=float, default=0.5)
    options = parser.parse_args()
    # Of both the best of many short measurements: a mean of long ones tells what else the machine was doing.
    short = argparse.Namespace(min_time=0.01, repetitions=20)
    sessions = {f"inference/{name}/{batch}": NETWORKS[name](batch) for name in options.rows for batch in (1, 8)}
    ours, theirs = {}, {}
    for _ in range(options.rounds):
        for row, run in sessions.items():
            short.filter = f"^{row}/"
            for name, measured in run_once(options.program, short).items():
                ours[name] = min(ours.get(name, measured[0]), measured[0])
            theirs[row] = min(theirs.get(row, float("inf")), best_time(run, options.min_time))
    print(f"{'row':32} {'ornik':>10} {'runtime':>10} {'runtime/ornik':>14}")
    for row, time_taken in theirs.items():
        print(f"{row:32} {ours[row]:10.0f} {time_taken:10.0f} {time_taken / ours[row]:14.2f}")


if __name__ == "__main__":
    main()
