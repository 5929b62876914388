"""Files, beside NumPy and the safetensors package."""

import io
import zipfile

import numpy as np
import pytest
import safetensors.numpy

import ornik

ARRAYS = {
    "weight": np.arange(6, dtype="float32").reshape(2, 3),
    "columns": np.asfortranarray(np.arange(6.0).reshape(2, 3)),
    "count": np.array(3),
    "mask": np.array([True, False]),
    "none": np.zeros((0, 2), "int16"),
}


def same(tensors, arrays):
    assert sorted(tensors) == sorted(arrays)
    for name, array in arrays.items():
        assert tensors[name].dtype == array.dtype and tensors[name].tolist() == array.tolist(), name


def test_files(tmp_path):
    tensors = {name: ornik.asarray(array) for name, array in ARRAYS.items()}
    ornik.io.save(tmp_path / "a.safetensors", tensors, metadata={"step": "3"})
    same(ornik.io.load(tmp_path / "a.safetensors"), ARRAYS)
    loaded, texts = ornik.io.load_safetensors(tmp_path / "a.safetensors")
    same(loaded, ARRAYS)
    assert texts == {"step": "3"}
    for name, array in safetensors.numpy.load_file(tmp_path / "a.safetensors").items():
        np.testing.assert_array_equal(array, ARRAYS[name])
    contiguous = {name: np.ascontiguousarray(array).reshape(array.shape) for name, array in ARRAYS.items()}
    same(ornik.io.safetensors_from_bytes(safetensors.numpy.save(contiguous))[0], ARRAYS)
    for compress in (False, True):
        ornik.io.save_npz(tmp_path / "a.npz", tensors, compress=compress)
        for name, array in np.load(tmp_path / "a.npz").items():
            np.testing.assert_array_equal(array, ARRAYS[name])
        np.savez(tmp_path / "b.npz", **ARRAYS)
        same(ornik.io.load_npz(tmp_path / "b.npz"), ARRAYS)
        same(ornik.io.npz_from_bytes(ornik.io.npz_to_bytes(tensors, compress=compress)), ARRAYS)
    for array in ARRAYS.values():
        ornik.io.save_npy(tmp_path / "a.npy", ornik.asarray(array))
        np.testing.assert_array_equal(np.load(tmp_path / "a.npy"), array)
        stream = io.BytesIO()
        np.save(stream, array)
        assert ornik.io.npy_from_bytes(stream.getvalue()).tolist() == array.tolist()
    mapped = ornik.io.load(tmp_path / "a.safetensors", "read_only")["weight"]
    assert mapped.readonly
    with pytest.raises(RuntimeError, match="read-only"):
        mapped += 1
    refused = (
        (lambda: ornik.io.load(tmp_path / "a.txt"), ValueError, "does not end in"),
        (lambda: ornik.io.load(tmp_path / "a.npz", "fast"), ValueError, "a mode of loading"),
        (lambda: ornik.io.save(tmp_path / "x.npy", tensors), ValueError, "takes one tensor"),
        (lambda: ornik.io.save(tmp_path / "x.npz", {1: tensors["count"]}), TypeError, "a name is a string"),
        (lambda: ornik.io.save(tmp_path / "x.npz", {"a": 1}), TypeError, "a KTensor is wanted"),
        (lambda: ornik.io.npz_from_bytes(b"PK"), ValueError, "no zip archive, or cut short"),
        (lambda: ornik.io.load_npy(3), TypeError, "expected str, bytes or os.PathLike object, not int"),
    )
    for call, error, text in refused:
        with pytest.raises(error, match=text):
            call()
    assert zipfile.ZipFile(tmp_path / "a.npz").testzip() is None
