"""The names, signatures and rules of the Python array API standard, and values beside NumPy's own namespace of it.

The standard's whole test suite runs by scripts/array_api.sh.
"""

import inspect
import itertools

import numpy as np
import pytest

import ornik

SIGNATURES = {
    "": {
        "x, /": """abs acos acosh asin asinh atan atanh bitwise_invert ceil conj cos cosh exp expm1 floor imag isfinite
            isinf isnan log log10 log1p log2 logical_not negative positive real reciprocal round sign signbit sin sinh
            sqrt square tan tanh trunc nonzero unique_all unique_counts unique_inverse unique_values
            matrix_transpose""",
        "x1, x2, /": """add atan2 bitwise_and bitwise_left_shift bitwise_or bitwise_right_shift bitwise_xor copysign
            divide equal floor_divide greater greater_equal hypot less less_equal logaddexp logical_and logical_or
            logical_xor maximum minimum multiply nextafter not_equal pow remainder subtract matmul""",
        "x, /, *, axis=None, keepdims=False": "all any argmax argmin count_nonzero max mean min",
        "x, /, *, axis=None, dtype=None, keepdims=False": "sum prod",
        "x, /, *, axis=None, correction=0.0, keepdims=False": "std var",
        "x, /, *, axis=None, dtype=None, include_initial=False": "cumulative_sum cumulative_prod",
        "x, /, *, axis=-1, descending=False, stable=True": "sort argsort",
        "x, /, *, axis=-1, n=1, prepend=None, append=None": "diff",
        "x, /, min=None, max=None": "clip",
        "x, /, *, k=0": "tril triu",
        "x, /, *, axis=None": "flip",
        "x, /, *, axis=0": "unstack",
        "x, /, axes": "permute_dims",
        "x, /, shape": "broadcast_to",
        "x, /, shape, *, copy=None": "reshape",
        "x, /, shift, *, axis=None": "roll",
        "x, repetitions, /": "tile",
        "x, repeats, /, *, axis=None": "repeat",
        "x, source, destination, /": "moveaxis",
        "x, indices, /, *, axis=None": "take",
        "x, indices, /, *, axis=-1": "take_along_axis",
        "x, dtype, /, *, copy=True, device=None": "astype",
        "x, /, *, dtype=None, device=None": "empty_like ones_like zeros_like",
        "x, /, fill_value, *, dtype=None, device=None": "full_like",
        "x, /, *, device=None, copy=None": "from_dlpack",
        "x1, x2, /, *, axes=2": "tensordot",
        "x1, x2, /, *, axis=-1": "vecdot",
        "x1, x2, /, *, invert=False": "isin",
        "x1, x2, /, *, side='left', sorter=None": "searchsorted",
        "condition, x1, x2, /": "where",
        "arrays, /, *, axis=0": "concat stack",
        "*arrays": "broadcast_arrays",
        "*shapes": "broadcast_shapes",
        "*arrays, indexing='xy'": "meshgrid",
        "*arrays_and_dtypes": "result_type",
        "from_, to, /": "can_cast",
        "type, /": "finfo iinfo",
        "dtype, kind": "isdtype",
        "shape, *, dtype=None, device=None": "empty ones zeros",
        "shape, fill_value, *, dtype=None, device=None": "full",
        "obj, /, *, dtype=None, device=None, copy=None": "asarray",
        "start, /, stop=None, step=1, *, dtype=None, device=None": "arange",
        "start, stop, /, num, *, dtype=None, device=None, endpoint=True": "linspace",
        "n_rows, n_cols=None, /, *, k=0, dtype=None, device=None": "eye",
        "": "__array_namespace_info__",
    },
    "linalg": {
        "x, /": "det eig eigh eigvals eigvalsh inv matrix_transpose slogdet svdvals",
        "x1, x2, /": "matmul outer solve",
        "x1, x2, /, *, axis=-1": "cross vecdot",
        "x1, x2, /, *, axes=2": "tensordot",
        "x, n, /": "matrix_power",
        "x, /, *, upper=False": "cholesky",
        "x, /, *, offset=0": "diagonal",
        "x, /, *, offset=0, dtype=None": "trace",
        "x, /, *, rtol=None": "matrix_rank pinv",
        "x, /, *, mode='reduced'": "qr",
        "x, /, *, full_matrices=True": "svd",
        "x, /, *, keepdims=False, ord='fro'": "matrix_norm",
        "x, /, *, axis=None, keepdims=False, ord=2": "vector_norm",
    },
    "fft": {
        "x, /, *, n=None, axis=-1, norm='backward'": "fft ifft rfft irfft hfft ihfft",
        "x, /, *, s=None, axes=None, norm='backward'": "fftn ifftn rfftn irfftn",
        "n, /, *, d=1.0, dtype=None, device=None": "fftfreq rfftfreq",
        "x, /, *, axes=None": "fftshift ifftshift",
    },
}


def plain(function):
    """The signature without types; what a function allows beyond the standard is a default where it has none."""
    parameters = [p.replace(annotation=p.empty) for p in inspect.signature(function).parameters.values()]
    return str(inspect.Signature(parameters))[1:-1]


def test_names_and_signatures():
    beyond = {"squeeze": "x, /, axis=None", "expand_dims": "x, /, axis=0"}
    for namespace, table in SIGNATURES.items():
        module = getattr(ornik, namespace) if namespace else ornik
        found = {name: plain(getattr(module, name)) for names in table.values() for name in names.split()}
        assert found == {name: signature for signature, names in table.items() for name in names.split()}
    assert {name: plain(getattr(ornik, name)) for name in beyond} == beyond
    assert ornik.__array_api_version__ == "2025.12"
    assert ornik.asarray(1).__array_namespace__(api_version="2025.12") is ornik
    assert (ornik.e, ornik.pi, ornik.inf, ornik.newaxis) == (np.e, np.pi, np.inf, None) and ornik.nan != ornik.nan


INTEGERS = ("uint8", "int8", "int16", "int32", "int64")
FLOATS = ("float32", "float64", "complex64", "complex128")


def test_promotion():
    for kinds in (INTEGERS, FLOATS, ("bool",)):
        for a, b in itertools.product(kinds, kinds):
            expected = np.result_type(a, b).name
            assert ornik.result_type(ornik.dtype(a), ornik.dtype(b)).name == expected
            assert ornik.can_cast(ornik.dtype(a), ornik.dtype(b)) == np.can_cast(a, b)
            x, y = ornik.ones(2, dtype=a), ornik.ones((3, 1), dtype=b)
            assert ornik.result_type(x, y).name == expected
            if a != "bool":
                assert all(f(x, y).dtype == expected for f in (ornik.add, ornik.subtract, ornik.multiply))
            assert ornik.where(ornik.asarray(True), x, y).dtype == ornik.concat([x, y[0]]).dtype == expected
    for name in INTEGERS + FLOATS:
        x = ornik.ones(1, dtype=name)
        for number in (1, 2.5, 1j)[: 1 if name in INTEGERS else 3]:
            expected = np.result_type(np.dtype(name), number).name
            assert ornik.result_type(x, number) == (x + number).dtype == (number * x).dtype == expected
    with pytest.raises(ValueError, match="one tensor or dtype at least"):
        ornik.result_type(1, 2.0)


def test_dtypes():
    for name in FLOATS:
        ours, theirs = ornik.finfo(name), np.finfo(name)
        for field in ("bits", "eps", "max", "min", "smallest_normal"):
            assert getattr(ours, field) == getattr(theirs, field)
        assert ours.dtype == theirs.dtype
    for name in INTEGERS:
        ours, theirs = ornik.iinfo(ornik.ones(1, dtype=name)), np.iinfo(name)
        assert (ours.bits, ours.max, ours.min, ours.dtype.name) == (theirs.bits, theirs.max, theirs.min, name)
    kinds = ("bool", "signed integer", "unsigned integer", "integral", "real floating", "complex floating", "numeric")
    for name, kind in itertools.product(("bool", *INTEGERS, *FLOATS), (*kinds, kinds[:2], kinds[1:5])):
        assert ornik.isdtype(getattr(ornik, name), kind) == np.isdtype(np.dtype(name), kind), (name, kind)
    info = ornik.__array_namespace_info__()
    assert set(info.dtypes()) == {"bool", *INTEGERS, *FLOATS}
    assert set(info.dtypes(kind=("unsigned integer", "real floating"))) == {"uint8", "float32", "float64"}
    assert ornik.zeros(1).dtype == info.default_dtypes()["real floating"] == "float32"
    for call, text in (
        (lambda: ornik.finfo("int8"), r"finfo\(\) is about floating and complex dtypes, not int8"),
        (lambda: ornik.iinfo(ornik.float32), r"iinfo\(\) is about integer dtypes, not float32"),
    ):
        with pytest.raises(TypeError, match=text):
            call()
    with pytest.raises(ValueError, match='there is no kind of dtypes "float"'):
        ornik.isdtype(ornik.float32, "float")


SPECIALS = [0.0, 1.0, 0.5, 3.0, 1e300, 1e-310, np.inf, np.nan]
SPECIALS += [-x for x in SPECIALS]


def test_special_values_of_real_functions():
    x = np.asarray(SPECIALS)
    a, b = (g.ravel() for g in np.meshgrid(x, x))
    with np.errstate(all="ignore"):
        for name in SIGNATURES[""]["x, /"].split():
            if not name.startswith(("unique", "bitwise", "matrix", "nonzero", "logical")):
                ours, theirs = (np.asarray(getattr(ns, name)(ns.asarray(x))) for ns in (ornik, np))
                np.testing.assert_allclose(ours, theirs, 1e-14, err_msg=name)
                if ours.dtype.kind == "f" and name != "sign":
                    sure = ~np.isnan(ours)
                    np.testing.assert_array_equal(np.signbit(ours)[sure], np.signbit(theirs)[sure], name)
        for name in ("atan2", "copysign", "hypot", "logaddexp", "maximum", "minimum", "nextafter", "remainder"):
            ours, theirs = (np.asarray(getattr(ns, name)(ns.asarray(a), ns.asarray(b))) for ns in (ornik, np))
            settled = np.isfinite(a) | (name != "remainder")
            np.testing.assert_allclose(ours[settled], theirs[settled], 1e-14, err_msg=name)
        quotients = np.asarray(ornik.floor_divide(ornik.asarray(a), ornik.asarray(b)))
        finite = np.isfinite(a) & np.isfinite(b) & (b != 0)
        np.testing.assert_array_equal(quotients[finite], np.floor_divide(a, b)[finite])
        np.testing.assert_array_equal(quotients[~finite], np.floor(a / b)[~finite])
    z = ornik.asarray([complex(np.inf, 0), complex(-np.inf, np.inf), complex(np.inf, np.inf), complex(np.nan, 0)])
    np.testing.assert_array_equal(np.asarray(ornik.expm1(z)).real, [np.inf, -1, np.inf, np.nan])
    np.testing.assert_array_equal(np.asarray(ornik.expm1(z)).imag, [0, 0, np.nan, 0])
    assert not np.signbit(ornik.expm1(ornik.asarray(complex(-0.0, 0.0))).numpy().real)
    assert complex(ornik.round(ornik.asarray(2.5 - 1.5j))) == 2 - 2j
    assert not np.signbit(np.asarray(ornik.sign(ornik.asarray([-0.0, 0.0])))).any()


def test_whole_quotients_of_large_and_small_integers():
    for name in INTEGERS:
        limits = np.iinfo(name)
        values = np.asarray([limits.min, limits.min + 1, 1, 3, 7, limits.max - 1, limits.max], name)
        a, b = (g.ravel() for g in np.meshgrid(values, values[values != 0]))
        with np.errstate(over="ignore"):
            expected = np.floor_divide(a, b)
        for result in (ornik.asarray(a) // ornik.asarray(b), ornik.floor_divide(ornik.asarray(a), ornik.asarray(b))):
            np.testing.assert_array_equal(np.asarray(result), expected)
            assert result.dtype == name
        assert (ornik.asarray(values) // 3).dtype == name


def test_sets():
    nan = np.nan
    cases = [
        np.asarray([[3, 1, 3], [2, 1, 3]], "int8"),
        np.asarray([True, False, True]),
        np.asarray([nan, 2.0, nan, -0.0, 0.0, 2.0], "float32"),
        np.asarray([1 + 2j, 1 + 1j, 1 + 2j, 0j, complex(nan, 1)]),
        np.zeros(0, "int64"),
        np.asarray(5.0),
    ]
    for array in cases:
        x = ornik.asarray(array)
        ours, theirs = ornik.unique_all(x), np.unique_all(array)
        assert ours._fields == theirs._fields
        assert ours.inverse_indices.shape == x.shape and ours.values.dtype == x.dtype
        flat = array.ravel()
        for field in ("values", "counts"):
            np.testing.assert_array_equal(np.asarray(getattr(ours, field)), getattr(theirs, field))
        np.testing.assert_array_equal(flat[np.asarray(ours.indices)], np.asarray(ours.values))
        np.testing.assert_array_equal(np.asarray(ours.values)[np.asarray(ours.inverse_indices)], array)
        first = [int(np.flatnonzero(flat == v)[0]) for v in theirs.values if v == v]
        assert ours.indices.tolist()[: len(first)] == first
        for other in (ornik.unique_counts(x), ornik.unique_inverse(x)):
            for field in other._fields:
                np.testing.assert_array_equal(np.asarray(getattr(other, field)), np.asarray(getattr(ours, field)))
        np.testing.assert_array_equal(np.asarray(ornik.unique_values(x)), np.asarray(ours.values))
        for invert in (False, True):
            found = ornik.isin(x, x[:1] if x.ndim else x, invert=invert)
            np.testing.assert_array_equal(
                np.asarray(found),
                np.isin(array, flat[: flat.size and array.shape[-1] if array.ndim == 2 else 1], invert=invert),
            )
    assert ornik.isin(3, ornik.asarray([1, 3])).item() is True
    assert ornik.isin(ornik.asarray([1, 2]), ornik.zeros(0, dtype=ornik.int64)).tolist() == [False, False]


def test_order_and_running_results():
    rng = np.random.default_rng(3)
    row, wanted, order = rng.integers(0, 9, 12), rng.integers(-1, 11, (2, 3)), None
    order = np.argsort(row, stable=True)
    for side in ("left", "right"):
        ours = ornik.searchsorted(ornik.asarray(row), ornik.asarray(wanted), side=side, sorter=ornik.asarray(order))
        np.testing.assert_array_equal(np.asarray(ours), np.searchsorted(row, wanted, side, order))
        assert ornik.searchsorted(ornik.asarray(row[order]), 4, side=side).item() == np.searchsorted(
            row[order], 4, side
        )
    x = rng.integers(1, 4, (2, 3, 4)).astype("int16")
    for name, axis, initial in itertools.product(("sum", "prod"), (0, 1, -1), (False, True)):
        ours, theirs = (
            getattr(ns, f"cumulative_{name}")(ns.asarray(x), axis=axis, include_initial=initial, dtype=ns.float64)
            for ns in (ornik, np)
        )
        np.testing.assert_array_equal(np.asarray(ours), theirs)
        assert ours.dtype == "float64"
    with pytest.raises(ValueError, match="a running result takes an axis of the 3"):
        ornik.cumulative_sum(ornik.asarray(x))
    ours = ornik.diff(ornik.asarray(x), axis=1, n=2, prepend=ornik.asarray(x[:, :1]), append=ornik.asarray(x[:, 1:]))
    np.testing.assert_array_equal(np.asarray(ours), np.diff(x, 2, 1, x[:, :1], x[:, 1:]))


def test_shapes():
    x = ornik.ones((2, 3))
    for axis in (0, -1, (0, 2), (-1, 0), ()):
        assert ornik.expand_dims(x, axis).shape == np.expand_dims(np.ones((2, 3)), axis).shape
    for axis, error in (((0, 0), ValueError), ((0, -4), ValueError), ((4,), IndexError), (5, IndexError)):
        with pytest.raises(error):
            ornik.expand_dims(x, axis)
    for shapes in (((2, 1), (3,)), ((), (4,)), ((0,), (1,)), ((5, 1, 3), (2, 1))):
        assert ornik.broadcast_shapes(*shapes) == np.broadcast_shapes(*shapes)
    with pytest.raises(ValueError, match=r"the shapes \(2,\), \(3,\) do not broadcast"):
        ornik.broadcast_shapes((2,), (3,))
    assert ornik.repeat(ornik.asarray([], dtype=ornik.int8), ornik.asarray([2])).shape == (0,)
    assert ornik.repeat(ornik.arange(3), ornik.asarray([2])).tolist() == [0, 0, 1, 1, 2, 2]


def test_masks_without_elements():
    x = ornik.ones((2, 3, 4))
    for shape in ((0,), (2, 0), (0, 3), (0, 0, 0), (2, 3, 0)):
        mask = ornik.empty(shape, dtype=ornik.bool)
        assert x[mask].shape == (0, *x.shape[mask.ndim :])
        x[mask] = 5
    assert ornik.all(x == 1)
    for shape in ((0, 5), (0, 0, 0, 0), (3, 0)):
        with pytest.raises(IndexError):
            x[ornik.empty(shape, dtype=ornik.bool)]


def test_eye_and_spacing():
    for k in (-(2**70), -3, -2, 0, 1, 4, 2**70):
        np.testing.assert_array_equal(np.asarray(ornik.eye(3, 4, k=k)), np.eye(3, 4, k=max(-9, min(k, 9))))
    assert ornik.linspace(0, 1, 11, endpoint=False).tolist() == ornik.linspace(0, 1, 12).tolist()[:-1]
    assert ornik.linspace(0, 1, 0, endpoint=False).shape == (0,)
    for endpoint in (True, False):
        ours, theirs = (ns.linspace(1j, 2, 5, dtype=ns.complex128, endpoint=endpoint) for ns in (ornik, np))
        np.testing.assert_allclose(np.asarray(ours), theirs, rtol=1e-15)


def test_linear_algebra():
    rng = np.random.default_rng(5)
    for dtype in ("float64", "complex128"):
        a = (rng.normal(size=(2, 3, 4, 4)) + (1j * rng.normal(size=(2, 3, 4, 4)) if dtype[0] == "c" else 0)).astype(
            dtype
        )
        x, xt = ornik.asarray(a), ornik.linalg.matrix_transpose(ornik.conj(ornik.asarray(a)))
        hermitian = x @ xt

        def check(ours, theirs):
            np.testing.assert_allclose(np.asarray(ours), np.asarray(theirs), rtol=1e-9, atol=1e-11)

        for name in ("det", "inv", "svdvals", "matrix_rank", "pinv", "trace", "matrix_norm", "vector_norm"):
            check(getattr(ornik.linalg, name)(x), getattr(np.linalg, name)(a))
        for ord in ("fro", "nuc", 1, -1, 2, -2, np.inf, -np.inf):
            check(ornik.linalg.matrix_norm(x, ord=ord, keepdims=True), np.linalg.matrix_norm(a, ord=ord, keepdims=True))
        for axis, ord in itertools.product((None, 1, (0, 2)), (0, 1, 2, 3.5, np.inf)):
            check(ornik.linalg.vector_norm(x, axis=axis, ord=ord), np.linalg.vector_norm(a, axis=axis, ord=ord))
        for factors, fields in (
            (ornik.linalg.qr(x, mode="complete"), ("Q", "R")),
            (ornik.linalg.svd(x), ("U", "S", "Vh")),
            (ornik.linalg.slogdet(x), ("sign", "logabsdet")),
            (ornik.linalg.eigh(hermitian), ("eigenvalues", "eigenvectors")),
            (ornik.linalg.eig(x), ("eigenvalues", "eigenvectors")),
        ):
            assert factors._fields == fields
        q, r = ornik.linalg.qr(x)
        check(q @ r, a)
        for scale in (1e30, 1e-30):  # whose squares are no float32 any more
            q, r = ornik.linalg.qr(ornik.astype(x * scale, ornik.complex64))
            np.testing.assert_allclose(np.asarray(q @ r) / scale, a, atol=1e-5)
        u, s, vh = ornik.linalg.svd(x, full_matrices=False)
        check((u * s[..., None, :]) @ vh, a)
        values, vectors = ornik.linalg.eig(x)
        check(x @ vectors, vectors * values[..., None, :])
        check(ornik.sort(ornik.real(ornik.linalg.eigvals(x))), np.sort(np.linalg.eigvals(a).real))
        lower = ornik.linalg.cholesky(hermitian)
        check(lower @ ornik.conj(lower.mT), hermitian)
        check(x @ ornik.linalg.solve(x, x[0, 0]), np.broadcast_to(a[0, 0], a.shape))
        check(ornik.linalg.matrix_power(x, -2), np.linalg.matrix_power(a, -2))
        check(ornik.vecdot(x, x[0], axis=-2), np.vecdot(a, a[0], axis=-2))
        check(ornik.linalg.diagonal(x, offset=1), np.linalg.diagonal(a, offset=1))
    assert ornik.linalg.trace(ornik.eye(3, dtype=ornik.int8), dtype=ornik.float32).dtype == "float32"
    for call, text in (
        (lambda: ornik.linalg.qr(x, mode="raw"), 'mode is "reduced" or "complete"'),
        (lambda: ornik.linalg.matrix_norm(x, ord=3), "a norm of matrices is"),
        (lambda: ornik.fft.fft(x, norm="none"), 'norm is "backward", "ortho" or "forward"'),
    ):
        with pytest.raises(ValueError, match=text):
            call()


def test_fourier_transforms():
    rng = np.random.default_rng(7)
    a = rng.normal(size=(3, 4, 5))
    z = a + 1j * rng.normal(size=a.shape)

    def check(name, array, **how):
        ours = getattr(ornik.fft, name)(ornik.asarray(array), **how)
        theirs = getattr(np.fft, name)(array, **how)
        np.testing.assert_allclose(np.asarray(ours), theirs, rtol=1e-12, atol=1e-12, err_msg=name)

    for norm in ("backward", "ortho", "forward"):
        for name, axis, n in itertools.product(
            SIGNATURES["fft"]["x, /, *, n=None, axis=-1, norm='backward'"].split(), (-1, 0), (None, 3, 8)
        ):
            check(name, a if name in ("rfft", "ihfft") else z, n=n, axis=axis, norm=norm)
        for name, (s, axes) in itertools.product(
            ("fftn", "ifftn", "rfftn", "irfftn"), ((None, None), (None, (0, 2)), ((2, 6), (2, 1)))
        ):
            check(name, a if name == "rfftn" else z, s=s, axes=axes, norm=norm)
    for name, axes in itertools.product(("fftshift", "ifftshift"), (None, 1, (0, 2))):
        check(name, a, axes=axes)
    for n, name in itertools.product((1, 4, 5), ("fftfreq", "rfftfreq")):
        ours = getattr(ornik.fft, name)(n, d=0.5, dtype=ornik.float64)
        np.testing.assert_array_equal(np.asarray(ours), getattr(np.fft, name)(n, 0.5))
