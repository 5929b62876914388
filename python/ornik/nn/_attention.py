"""Multi-head attention, and encoders and decoders made of it (Vaswani and others, 2017)."""

from __future__ import annotations

import copy
import functools
import math
from collections.abc import Callable
from typing import TYPE_CHECKING, Any, Union

from .. import _dtypes, _ornik
from .._convert import DTypeLike
from . import functional
from ._arguments import positive, probability, shown, tensors
from ._basic import Dropout, Linear, filled_parameter, uniform_parameter
from ._containers import ModuleList
from ._module import Module, Parameter, is_plain
from ._normalizations import LayerNorm

if TYPE_CHECKING:
    from .._tensor import KTensor

__all__ = [
    "MultiheadAttention",
    "Transformer",
    "TransformerDecoder",
    "TransformerDecoderLayer",
    "TransformerEncoder",
    "TransformerEncoderLayer",
]


def _xavier(rows: int, columns: int, dtype: DTypeLike | None) -> Parameter:
    return uniform_parameter((rows, columns), math.sqrt(6 / (rows + columns)), dtype)


class MultiheadAttention(Module):
    """Attention in several heads.

    Query [targets, N, E], key [sources, N, kdim] and value [sources, N, vdim], or with batch_first [N, targets, E] and
    so on, or without N.

    Masks forbid: a bool one where it is true, a floating one by what it adds to the scores (as a mask of
    functional.scaled_dot_product_attention, whose bool masks say the opposite, does). A position that may attend to
    nothing gets zeros.

    Parameters: in_proj_weight [3 E, E], or for other widths q_proj_weight [E, E], k_proj_weight [E, kdim] and
    v_proj_weight [E, vdim]; uniform within sqrt(6 / (rows + columns)). in_proj_bias [3 E] and out_proj.bias, 0.
    out_proj.weight as in Linear. bias_k and bias_v [1, 1, E] of an extra key, normal with deviation 1 / sqrt(E).
    """

    in_proj_weight: Parameter | None
    q_proj_weight: Parameter | None
    k_proj_weight: Parameter | None
    v_proj_weight: Parameter | None
    in_proj_bias: Parameter | None
    bias_k: Parameter | None
    bias_v: Parameter | None

    def __init__(
        self,
        embed_dim: int,
        num_heads: int,
        dropout: float = 0.0,
        bias: bool = True,
        add_bias_kv: bool = False,
        add_zero_attn: bool = False,
        kdim: int | None = None,
        vdim: int | None = None,
        batch_first: bool = False,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        self.kdim = embed_dim if kdim is None else kdim
        self.vdim = embed_dim if vdim is None else vdim
        positive("MultiheadAttention", embed_dim=embed_dim, num_heads=num_heads, kdim=self.kdim, vdim=self.vdim)
        probability("MultiheadAttention", dropout)
        if embed_dim % num_heads:
            raise ValueError(f"MultiheadAttention(): a width of {embed_dim} does not fall into {num_heads} heads")
        self.embed_dim = embed_dim
        self.num_heads = num_heads
        self.dropout = dropout
        self.add_zero_attn = add_zero_attn
        self.batch_first = batch_first
        self.in_proj_weight = self.q_proj_weight = self.k_proj_weight = self.v_proj_weight = None
        if self.kdim == self.vdim == embed_dim:
            self.in_proj_weight = _xavier(3 * embed_dim, embed_dim, dtype)
        else:
            self.q_proj_weight = _xavier(embed_dim, embed_dim, dtype)
            self.k_proj_weight = _xavier(embed_dim, self.kdim, dtype)
            self.v_proj_weight = _xavier(embed_dim, self.vdim, dtype)
        self.in_proj_bias = filled_parameter((3 * embed_dim,), 0, dtype) if bias else None
        self.out_proj = Linear(embed_dim, embed_dim, bias, dtype=dtype)
        if bias:
            self.out_proj.bias = filled_parameter((embed_dim,), 0, dtype)
        self.bias_k = self.bias_v = None
        if add_bias_kv:
            kind = _dtypes.float32 if dtype is None else dtype
            self.bias_k, self.bias_v = (
                Parameter(_ornik.randn((1, 1, embed_dim), kind, 0.0, 1 / math.sqrt(embed_dim))) for _ in range(2)
            )

    def forward(
        self,
        query: KTensor,
        key: KTensor,
        value: KTensor,
        key_padding_mask: KTensor | None = None,
        need_weights: bool = True,
        attn_mask: KTensor | None = None,
        average_attn_weights: bool = True,
        is_causal: bool = False,
    ) -> tuple[KTensor, KTensor | None]:
        """The result, of the query's shape, and, if wanted, the probabilities before dropout, without gradients.

        attn_mask [targets, sources] or [N heads, targets, sources]; key_padding_mask [N, sources], of sources for all
        targets and heads. With ``is_causal`` target i attends to the first i + 1 sources alone. The probabilities are
        [N, targets, sources], or [N, heads, targets, sources] unless averaged over the heads.
        """
        tensors(query, key, value)
        own = query is key and key is value
        if query.ndim == 2:
            batch = 0 if self.batch_first else 1
            query, key, value = (_ornik.unsqueeze(t, batch) for t in (query, key, value))
            if key_padding_mask is not None:
                key_padding_mask = _ornik.unsqueeze(key_padding_mask, 0)
            y, weights = self._attend(
                own, query, key, value, key_padding_mask, need_weights, attn_mask, average_attn_weights, is_causal
            )
            return _ornik.squeeze(y, batch), (None if weights is None else _ornik.squeeze(weights, 0))
        return self._attend(
            own, query, key, value, key_padding_mask, need_weights, attn_mask, average_attn_weights, is_causal
        )

    def _attend(
        self,
        own: bool,
        query: KTensor,
        key: KTensor,
        value: KTensor,
        key_padding_mask: KTensor | None,
        need_weights: bool,
        attn_mask: KTensor | None,
        average: bool,
        is_causal: bool,
    ) -> tuple[KTensor, KTensor | None]:
        self._check(query, key, value)
        q, k, v = self._project(own, query, key, value)
        batch, along = (0, 1) if self.batch_first else (1, 0)
        extra = (self.bias_k is not None) + self.add_zero_attn
        if extra:
            k, v = self._with_more_keys(k, self.bias_k, along), self._with_more_keys(v, self.bias_v, along)
        scores = (q.shape[batch], self.num_heads, q.shape[along], k.shape[along])
        q, k, v = (self._heads(t) for t in (q, k, v))
        mask = self._mask(attn_mask, key_padding_mask, is_causal and extra > 0, scores, extra, q.dtype)
        p = self.dropout if self.training else 0.0
        y, weights = _ornik.attention(q, k, v, mask, is_causal and not extra, 0.0, p, need_weights)
        y = _ornik.permute(y, [0, 2, 1, 3] if self.batch_first else [2, 0, 1, 3])
        y = self.out_proj(_ornik.reshape(y, (*y.shape[:2], self.embed_dim)))
        if weights is not None and average:
            weights = _ornik.mean(weights, 1, False)
        return y, weights

    def _check(self, query: KTensor, key: KTensor, value: KTensor) -> None:
        batch, along = (0, 1) if self.batch_first else (1, 0)
        three = all(t.ndim == 3 for t in (query, key, value))
        if not (
            three
            and (query.shape[2], key.shape[2], value.shape[2]) == (self.embed_dim, self.kdim, self.vdim)
            and query.shape[batch] == key.shape[batch] == value.shape[batch]
            and key.shape[along] == value.shape[along]
        ):
            axes = ("N, targets", "N, sources") if self.batch_first else ("targets, N", "sources, N")
            raise ValueError(
                f"MultiheadAttention(): query, key and value are {list(query.shape)}, {list(key.shape)} and "
                f"{list(value.shape)}; wanted are [{axes[0]}, {self.embed_dim}], [{axes[1]}, {self.kdim}] and "
                f"[{axes[1]}, {self.vdim}]"
            )

    def _project(self, own: bool, query: KTensor, key: KTensor, value: KTensor) -> list[KTensor]:
        """One product where all three are one tensor."""
        thirds = (self.embed_dim,) * 3
        if own and self.in_proj_weight is not None:
            return _ornik.split(self._map("in_proj", query, self.in_proj_weight, self.in_proj_bias), thirds, -1)
        weights: Any = (self.q_proj_weight, self.k_proj_weight, self.v_proj_weight)
        if self.in_proj_weight is not None:
            weights = _ornik.split(self.in_proj_weight, thirds, 0)
        biases = [None] * 3 if self.in_proj_bias is None else _ornik.split(self.in_proj_bias, thirds, 0)
        names = ("q_proj", "k_proj", "v_proj")
        return [self._map(name, *operands) for name, *operands in zip(names, (query, key, value), weights, biases)]

    def _map(self, name: str, x: KTensor, weight: KTensor, bias: KTensor | None) -> KTensor:
        return self._prepared(name).linear("none", None, not self.training, x, weight, bias)

    def _with_more_keys(self, t: KTensor, learned: KTensor | None, along: int) -> KTensor:
        one = (t.shape[0], 1, t.shape[2]) if along == 1 else (1, *t.shape[1:])
        parts = [t]
        if learned is not None:
            parts.append(_ornik.broadcast_to(learned, one))
        if self.add_zero_attn:
            parts.append(_ornik.full(one, 0, t.dtype))
        return _ornik.concat(parts, along)

    def _heads(self, t: KTensor) -> KTensor:
        """[N, heads, length, width / heads]"""
        parted = _ornik.reshape(t, (*t.shape[:2], self.num_heads, self.embed_dim // self.num_heads))
        return _ornik.permute(parted, [0, 2, 1, 3] if self.batch_first else [1, 2, 0, 3])

    def _mask(
        self,
        attn_mask: KTensor | None,
        key_padding_mask: KTensor | None,
        causal: bool,
        scores: tuple[int, int, int, int],
        extra: int,
        dtype: _dtypes.DType,
    ) -> KTensor | None:
        """What is added to the scores, or may be attended to; the extra sources at the end are open to all."""
        n, heads, targets, sources = scores
        own = sources - extra
        # By the shapes that a mask may have, that under which it broadcasts to the scores.
        of_all: _Shapes = {
            (targets, own): (1, 1, targets, own),
            (n * heads, targets, own): (n, heads, targets, own),
        }
        of_sources: _Shapes = {(n, own): (n, 1, 1, own)}
        given = [("attn_mask", attn_mask, of_all), ("key_padding_mask", key_padding_mask, of_sources)]
        parts = []
        for name, mask, shapes in given:
            if mask is None:
                continue
            if mask.shape not in shapes:
                wanted = " or ".join(str(list(shape)) for shape in shapes)
                raise ValueError(f"MultiheadAttention(): {name} is {list(mask.shape)}, not {wanted}")
            if mask.dtype.kind not in "bf":
                raise TypeError(f"MultiheadAttention(): {name} is bool or floating, not {mask.dtype}")
            parts.append(_ornik.reshape(mask, shapes[mask.shape]))
        if causal:
            place = _ornik.arange(0, max(targets, own), 1, _dtypes.int64)
            parts.append(_ornik.greater(place[:own], _ornik.reshape(place[:targets], (1, 1, targets, 1))))
        if not parts:
            return None
        if all(part.dtype.kind == "b" for part in parts):
            whole = _ornik.logical_not(functools.reduce(_ornik.logical_or, parts))
        else:
            whole = functools.reduce(_ornik.add, [_scores_of(part, dtype) for part in parts])
        if not extra:
            return whole
        is_open = _ornik.full((*whole.shape[:3], extra), whole.dtype.kind == "b", whole.dtype)
        return _ornik.concat([whole, is_open], -1)

    def extra_repr(self) -> str:
        return shown(
            self.embed_dim,
            self.num_heads,
            dropout=(self.dropout, 0.0),
            bias=(self.in_proj_bias is not None, True),
            add_bias_kv=(self.bias_k is not None, False),
            add_zero_attn=(self.add_zero_attn, False),
            kdim=(self.kdim, self.embed_dim),
            vdim=(self.vdim, self.embed_dim),
            batch_first=(self.batch_first, False),
        )


def _scores_of(mask: KTensor, dtype: _dtypes.DType) -> KTensor:
    """A mask that forbids as what it adds."""
    if mask.dtype.kind == "b":
        return _ornik.masked_fill(_ornik.full(mask.shape, 0, dtype), mask, -math.inf)
    return _ornik.astype(mask, dtype)


_Shapes = dict[tuple[int, ...], tuple[int, ...]]
Activation = Union[str, Callable[["KTensor"], "KTensor"]]


def _activation(layer: str, activation: Activation) -> Callable[[KTensor], KTensor]:
    if callable(activation):
        return activation
    if activation not in ("relu", "gelu"):
        raise ValueError(f'{layer}(): activation is a function, "relu" or "gelu", not {activation!r}')
    return functional.relu if activation == "relu" else functional.gelu


class _Layer(Module):
    """Blocks x + dropout(block(x)), with a normalization of the sum, or with norm_first of the block's operand."""

    def __init__(
        self,
        d_model: int,
        nhead: int,
        dim_feedforward: int = 2048,
        dropout: float = 0.1,
        activation: Activation = "relu",
        layer_norm_eps: float = 1e-5,
        batch_first: bool = False,
        norm_first: bool = False,
        bias: bool = True,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        attention = (d_model, nhead, dropout, bias, False, False, None, None, batch_first)
        self.norm_first = norm_first
        self.activation = _activation(type(self).__name__, activation)
        self.self_attn = MultiheadAttention(*attention, dtype=dtype)
        if isinstance(self, TransformerDecoderLayer):
            self.multihead_attn = MultiheadAttention(*attention, dtype=dtype)
        self.linear1 = Linear(d_model, dim_feedforward, bias, dtype=dtype)
        self.dropout = Dropout(dropout)
        self.linear2 = Linear(dim_feedforward, d_model, bias, dtype=dtype)
        for i in range(1, 4 if isinstance(self, TransformerDecoderLayer) else 3):
            setattr(self, f"norm{i}", LayerNorm(d_model, layer_norm_eps, bias=bias, dtype=dtype))
            setattr(self, f"dropout{i}", Dropout(dropout))

    if TYPE_CHECKING:
        norm1: LayerNorm
        norm2: LayerNorm
        dropout1: Dropout
        dropout2: Dropout

    def _block(self, x: KTensor, norm: Module, dropout: Module, block: Callable[[KTensor], KTensor]) -> KTensor:
        y: KTensor = x + dropout(block(norm(x))) if self.norm_first else norm(x + dropout(block(x)))
        return y

    def _feed(self, x: KTensor, norm: Module, dropout: Module) -> KTensor:
        if self.training or not (is_plain(self.linear1, Linear) and is_plain(self.linear2, Linear)):
            return self._block(x, norm, dropout, self._feed_forward)
        inside = norm(x) if self.norm_first else x
        end = {functional.relu: "relu", functional.gelu: "gelu"}.get(self.activation, "none")
        y = self.linear1._ended(inside, end, None)
        y = self.linear2._ended(y if end != "none" else self.activation(y), "none", x)
        return y if self.norm_first else norm(y)

    def _feed_forward(self, x: KTensor) -> KTensor:
        y: KTensor = self.linear2(self.dropout(self.activation(self.linear1(x))))
        return y

    def extra_repr(self) -> str:
        return f"norm_first={self.norm_first}"


class TransformerEncoderLayer(_Layer):
    """Attention of x to itself, then two linear maps with an activation between them.

    Parameters: self_attn.*, linear1.*, linear2.*, norm1.*, norm2.*. Masks are those of :class:`MultiheadAttention`:
    true forbids.

    >>> layer = nn.TransformerEncoderLayer(8, 2, dim_feedforward=16, batch_first=True)
    >>> layer(ornik.ones((3, 5, 8)), is_causal=True).shape
    (3, 5, 8)
    """

    def forward(
        self,
        src: KTensor,
        src_mask: KTensor | None = None,
        src_key_padding_mask: KTensor | None = None,
        is_causal: bool = False,
    ) -> KTensor:
        def attend(x: KTensor) -> KTensor:
            y: KTensor = self.self_attn(x, x, x, src_key_padding_mask, False, src_mask, False, is_causal)[0]
            return y

        x = self._block(src, self.norm1, self.dropout1, attend)
        return self._feed(x, self.norm2, self.dropout2)


class TransformerDecoderLayer(_Layer):
    """Attention of x to itself, attention to the encoder's results, then two linear maps.

    Parameters: self_attn.*, multihead_attn.*, linear1.*, linear2.*, norm1.*, norm2.*, norm3.*.
    """

    if TYPE_CHECKING:
        multihead_attn: MultiheadAttention
        norm3: LayerNorm
        dropout3: Dropout

    def forward(
        self,
        tgt: KTensor,
        memory: KTensor,
        tgt_mask: KTensor | None = None,
        memory_mask: KTensor | None = None,
        tgt_key_padding_mask: KTensor | None = None,
        memory_key_padding_mask: KTensor | None = None,
        tgt_is_causal: bool = False,
        memory_is_causal: bool = False,
    ) -> KTensor:
        def attend(x: KTensor) -> KTensor:
            y: KTensor = self.self_attn(x, x, x, tgt_key_padding_mask, False, tgt_mask, False, tgt_is_causal)[0]
            return y

        def attend_to_memory(x: KTensor) -> KTensor:
            y: KTensor = self.multihead_attn(
                x, memory, memory, memory_key_padding_mask, False, memory_mask, False, memory_is_causal
            )[0]
            return y

        x = self._block(tgt, self.norm1, self.dropout1, attend)
        x = self._block(x, self.norm2, self.dropout2, attend_to_memory)
        return self._feed(x, self.norm3, self.dropout3)


class TransformerEncoder(Module):
    """Copies of a layer one behind the other, and a normalization behind the last: layers.0.*, ..., norm.*."""

    norm: Module | None

    def __init__(self, encoder_layer: Module, num_layers: int, norm: Module | None = None) -> None:
        positive("TransformerEncoder", num_layers=num_layers)
        self.layers = ModuleList(copy.deepcopy(encoder_layer) for _ in range(num_layers))
        self.norm = norm

    def forward(
        self,
        src: KTensor,
        mask: KTensor | None = None,
        src_key_padding_mask: KTensor | None = None,
        is_causal: bool = False,
    ) -> KTensor:
        for layer in self.layers:
            src = layer(src, mask, src_key_padding_mask, is_causal)
        if self.norm is not None:
            src = self.norm(src)
        return src


class TransformerDecoder(Module):
    """Copies of a layer one behind the other, and a normalization behind the last: layers.0.*, ..., norm.*."""

    norm: Module | None

    def __init__(self, decoder_layer: Module, num_layers: int, norm: Module | None = None) -> None:
        positive("TransformerDecoder", num_layers=num_layers)
        self.layers = ModuleList(copy.deepcopy(decoder_layer) for _ in range(num_layers))
        self.norm = norm

    def forward(
        self,
        tgt: KTensor,
        memory: KTensor,
        tgt_mask: KTensor | None = None,
        memory_mask: KTensor | None = None,
        tgt_key_padding_mask: KTensor | None = None,
        memory_key_padding_mask: KTensor | None = None,
        tgt_is_causal: bool = False,
        memory_is_causal: bool = False,
    ) -> KTensor:
        for layer in self.layers:
            tgt = layer(
                tgt,
                memory,
                tgt_mask,
                memory_mask,
                tgt_key_padding_mask,
                memory_key_padding_mask,
                tgt_is_causal,
                memory_is_causal,
            )
        if self.norm is not None:
            tgt = self.norm(tgt)
        return tgt


class Transformer(Module):
    """An encoder and a decoder: encoder.layers.0.*, ..., encoder.norm.*, decoder.layers.0.*, ..., decoder.norm.*.

    Matrices begin uniform within sqrt(6 / (rows + columns)).
    """

    def __init__(
        self,
        d_model: int = 512,
        nhead: int = 8,
        num_encoder_layers: int = 6,
        num_decoder_layers: int = 6,
        dim_feedforward: int = 2048,
        dropout: float = 0.1,
        activation: Activation = "relu",
        layer_norm_eps: float = 1e-5,
        batch_first: bool = False,
        norm_first: bool = False,
        bias: bool = True,
        *,
        dtype: DTypeLike | None = None,
    ) -> None:
        of_layers = (
            d_model,
            nhead,
            dim_feedforward,
            dropout,
            activation,
            layer_norm_eps,
            batch_first,
            norm_first,
            bias,
        )
        norms = [LayerNorm(d_model, layer_norm_eps, bias=bias, dtype=dtype) for _ in range(2)]
        self.encoder = TransformerEncoder(
            TransformerEncoderLayer(*of_layers, dtype=dtype), num_encoder_layers, norms[0]
        )
        self.decoder = TransformerDecoder(
            TransformerDecoderLayer(*of_layers, dtype=dtype), num_decoder_layers, norms[1]
        )
        for parameter in self.parameters():
            if parameter.ndim > 1:
                bound = math.sqrt(6 / sum(parameter.shape))
                _ornik.fill_uniform(parameter.detach(), -bound, bound)

    def forward(
        self,
        src: KTensor,
        tgt: KTensor,
        src_mask: KTensor | None = None,
        tgt_mask: KTensor | None = None,
        memory_mask: KTensor | None = None,
        src_key_padding_mask: KTensor | None = None,
        tgt_key_padding_mask: KTensor | None = None,
        memory_key_padding_mask: KTensor | None = None,
        src_is_causal: bool = False,
        tgt_is_causal: bool = False,
        memory_is_causal: bool = False,
    ) -> KTensor:
        """The decoder's result of tgt and the encoder's of src."""
        memory = self.encoder(src, src_mask, src_key_padding_mask, src_is_causal)
        y: KTensor = self.decoder(
            tgt,
            memory,
            tgt_mask,
            memory_mask,
            tgt_key_padding_mask,
            memory_key_padding_mask,
            tgt_is_causal,
            memory_is_causal,
        )
        return y

    @staticmethod
    def generate_square_subsequent_mask(size: int, dtype: DTypeLike = _dtypes.float32) -> KTensor:
        """[size, size] with -inf where a position would look ahead, 0 elsewhere."""
        place = _ornik.arange(0, size, 1, _dtypes.int64)
        ahead = _ornik.greater(place, _ornik.reshape(place, (-1, 1)))
        return _ornik.masked_fill(_ornik.full((size, size), 0, dtype), ahead, -math.inf)
