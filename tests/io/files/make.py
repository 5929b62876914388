"""Makes the files of this folder with NumPy and the safetensors package, which the tests themselves do not need.

    python make.py        (numpy 2.4, safetensors 0.8)
"""
import numpy as np
from safetensors.numpy import save_file

f4 = np.arange(6, dtype="<f4").reshape(2, 3) / 4 - 0.5
b1 = np.array([True, False, True])
np.save("rows.npy", f4)
np.save("columns.npy", np.asfortranarray(np.arange(24, dtype="<i2").reshape(2, 3, 4)))
with open("big_endian_2.npy", "wb") as file:
    np.lib.format.write_array(file, np.array([[1 + 2j], [-0.5j]], dtype=">c16"), version=(2, 0))
with open("half_3.npy", "wb") as file:
    np.lib.format.write_array(file, np.array([1.5, -2.0, 65504, 6e-8], dtype="<f2"), version=(3, 0))
np.savez("stored.npz", **{"w": f4, "größe/b": b1, "scalar": np.float64(7), "none": np.zeros((0, 2), "<i8")})
np.savez_compressed("deflated.npz", w=f4, long=np.arange(2000, dtype="<i4") // 100)
save_file(
    {"w": f4, "größe": b1, "c": np.array([1 - 2j], "<c8"), "half": np.array([0.25, -3], "<f2"),
     "i": np.array([[-1], [2**40]], "<i8"), "f": np.array(2.5), "none": np.zeros((0, 3), "<i4"),
     "u": np.array([3, 4, 5], "<u1")},
    "mixed.safetensors", metadata={"note": "line\n\"two\" \\ ü"})
