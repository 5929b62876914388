ornik._ornik.register_class:
    def register_class(cls: type, /) -> None: ...

ornik._ornik.KTensorBase.__prefix__:
    def __new__(cls, tensor: KTensorBase, /) -> KTensorBase: ...

ornik._ornik.KTensorBase\..*:

ornik._ornik.dtype_rows:
    dtype_rows: tuple[tuple[str, int, int], ...]

ornik._ornik.layer_ends:
    layer_ends: tuple[str, ...]
