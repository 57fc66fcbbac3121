"""Argument conversion and checking: every ValueError and TypeError that an
argument draws is raised here, before the library sees it.

The library trusts what it is given (a wrapped integer or a too-large grid
would be read silently), so every value is checked as the record will hold
it, and every grid is copied into the C-ordered float32 layout the exports
take.
"""

import ctypes
import math
import operator
from collections.abc import Callable

import numpy as np
import numpy.typing as npt

MAX_CELLS = 2**31 - 1  # every record counts cells in int32


def real(array: npt.ArrayLike, what: str) -> np.ndarray:
    """`array` as an array of real numbers (bool, integer or float), not yet copied."""
    a = np.asarray(array)
    if a.dtype.kind not in "biuf":
        raise ValueError(f"{what} must hold real numbers, got dtype {a.dtype}")
    return a


def grid(array: npt.ArrayLike, what: str = "heights", square: bool = False) -> np.ndarray:
    """A fresh C-ordered float32 copy of a 2-D grid: the library works in place
    on some grids, and the caller's array must stay as it was."""
    a = real(array, what)
    if a.ndim != 2:
        raise ValueError(f"{what} must be a 2-D grid (rows, columns), got shape {a.shape}")
    if a.size == 0:
        raise ValueError(f"{what} is empty (shape {a.shape})")
    if a.size > MAX_CELLS:
        raise ValueError(f"{what} has {a.size} cells, more than the 2^31 - 1 the library takes")
    if square and a.shape[0] != a.shape[1]:
        raise ValueError(f"{what} must be a square grid, got shape {a.shape}")
    return np.array(a, dtype=np.float32, order="C", copy=True)


def mask(array: npt.ArrayLike | None, shape: tuple[int, int], what: str = "mask") -> np.ndarray | None:
    """A grid() copy of an optional per-cell mask (or another per-cell grid
    named `what`), which must match the heights."""
    if array is None:
        return None
    m = grid(array, what)
    if m.shape != shape:
        raise ValueError(f"{what} shape {m.shape} differs from the height grid's {shape}")
    return m


def planes(array: npt.ArrayLike, what: str, shape: tuple[int, int]) -> np.ndarray:
    """A (rows, columns, 3) grid of colours as three C-ordered float32 planes."""
    a = real(array, what)
    if a.shape != (*shape, 3):
        raise ValueError(f"{what} must have shape {(*shape, 3)}, got {a.shape}")
    return np.ascontiguousarray(np.moveaxis(a, -1, 0), dtype=np.float32)


def points(array: npt.ArrayLike, what: str) -> np.ndarray:
    """(N, 3) coordinates as packed float32 triples."""
    a = real(array, what)
    if a.ndim != 2 or a.shape[1] != 3:
        raise ValueError(f"{what} must have shape (N, 3), got {a.shape}")
    if len(a) > 2**32 - 1:
        raise ValueError(f"{what}: the library takes at most 2^32 - 1 of them")
    return np.ascontiguousarray(a, dtype=np.float32)


def indices(array: npt.ArrayLike, what: str, count: int) -> np.ndarray:
    """(M, 3) indices into `count` points as packed uint32 triples. The library
    would skip a triangle with a bad index silently, so one is refused here."""
    a = np.asarray(array)
    if a.dtype.kind not in "iu":
        raise ValueError(f"{what} must hold integer indices, got dtype {a.dtype}")
    if a.ndim != 2 or a.shape[1] != 3:
        raise ValueError(f"{what} must have shape (M, 3), got {a.shape}")
    if len(a) > 2**32 - 1:
        raise ValueError(f"{what}: the library takes at most 2^32 - 1 of them")
    if a.size and (a.min() < 0 or a.max() >= count):
        raise ValueError(f"{what} indices must lie in [0, {count - 1}]")
    return np.ascontiguousarray(a, dtype=np.uint32)


def integer(value: object, ctype: type, what: str, low: int | None = None, high: int | None = None) -> int:
    """`value` as an integer that `ctype` holds unchanged (ctypes would wrap it
    silently), refused outside [low, high] where they are given."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{what} must be an integer, got {value!r}") from None
    if ctype(number).value != number:
        raise ValueError(f"{what} = {number} is out of range")
    if (low is not None and number < low) or (high is not None and number > high):
        span = f"at least {low}" if high is None else f"{low} to {high}"
        raise ValueError(f"{what} must be {span}, got {number}")
    return number


def number(value: object, what: str, ok: Callable[[float], bool] = math.isfinite, rule: str = "finite") -> float:
    """`value` as a float, refused unless `ok` holds for it both as given and
    as the float32 a record keeps (where 1e39 turns infinite and 1e-50 zero)."""
    try:
        stored = ctypes.c_float(value).value  # first: float() would also parse a string
        as_given = float(value)
    except TypeError:
        raise TypeError(f"{what} must be a real number, got {value!r}") from None
    except OverflowError:  # an int too large for a float
        as_given = stored = math.inf
    if not (ok(as_given) and ok(stored)):
        raise ValueError(f"{what} must be {rule}, got {value!r}")
    return as_given


def positive(value: object, what: str) -> float:
    return number(value, what, lambda x: 0 < x < math.inf, "finite and > 0")


def non_negative(value: object, what: str) -> float:
    return number(value, what, lambda x: 0 <= x < math.inf, "finite and >= 0")


def between(value: object, what: str, low: float, high: float, above: bool = False, below: bool = False) -> float:
    """`value` from `low` to `high`; `above` and `below` leave out the ends."""
    def ok(x: float) -> bool:
        return (x > low if above else x >= low) and (x < high if below else x <= high)
    if not above and not below:
        rule = f"{low:g} to {high:g}"
    else:
        rule = f"{'above' if above else 'at least'} {low:g} and {'below' if below else 'at most'} {high:g}"
    return number(value, what, ok, rule)


def choice(value: object, names: tuple[str, ...], what: str) -> int:
    """The index of `value` among `names`, compared without case."""
    if isinstance(value, str):
        for i, name in enumerate(names):
            if value.lower() == name.lower():
                return i
    raise ValueError(f"{what} must be one of {', '.join(names)}, got {value!r}")


def vector(values: object, what: str) -> ctypes.Array:
    """Three finite numbers as a record's float[3]."""
    try:
        v = tuple(values)
    except TypeError:
        raise TypeError(f"{what} must be a sequence of 3 numbers, got {values!r}") from None
    if len(v) != 3:
        raise ValueError(f"{what} must have 3 components, got {len(v)}")
    return (ctypes.c_float * 3)(*(number(x, what) for x in v))


def device_key(key: object) -> bytes:
    """A device key as the NUL-terminated bytes the library reads."""
    if not isinstance(key, str):
        raise TypeError(f"a device key is a str, got {type(key).__name__}")
    if "\0" in key:
        # The library reads the key up to the NUL: "cpu\0x" would open cpu.
        raise ValueError(f"a device key cannot contain a NUL character, got {key!r}")
    # surrogateescape: a key made from odd bytes encodes back to the same bytes.
    return key.encode("utf-8", "surrogateescape")


def callback(value: object, what: str, bar: bool = False) -> Callable | bool | None:
    """A progress or cancel argument: None (or False) for none, a callable, or,
    where `bar` allows it, True for the text bar. Checked up front: a
    non-callable would otherwise fail only once the library first calls back."""
    if value is None or value is False:
        return None
    if value is True and bar:
        return True
    if not callable(value):
        allowed = "a callable, True (a text bar on stderr) or None" if bar else "a callable or None"
        raise TypeError(f"{what} must be {allowed}, got {value!r}")
    return value
