# SPDX-License-Identifier: Apache-2.0
import ctypes
import inspect
import re
import typing

import numpy as np
import pytest

import halden
from halden import _checks


def test_grids_become_fresh_c_ordered_float32_copies():
    base = np.arange(24.0).reshape(4, 6)
    givens = [base, base.astype(np.float32), np.asfortranarray(base), base.astype(np.int64), base > 5,
              base.astype(np.float16), base.tolist()]
    wide = np.zeros((4, 12), np.float32)
    wide[:, ::2] = base
    givens.append(wide[:, ::2])  # not contiguous
    for given in givens:
        grid = _checks.grid(given)
        assert grid.dtype == np.float32 and grid.flags.c_contiguous and grid.flags.writeable
        np.testing.assert_array_equal(grid, np.asarray(given, dtype=np.float32))
        assert not np.shares_memory(grid, np.asarray(given))  # the library writes into some grids


def test_scalars_are_taken_as_records_hold_them():
    assert _checks.integer(np.uint8(3), ctypes.c_int32, "radius", 1, 8) == 3
    assert _checks.number(np.float16(0.5), "scale") == 0.5 and _checks.number(2, "scale") == 2.0
    assert list(_checks.vector(np.array([1, 2, 3]), "centre")) == [1.0, 2.0, 3.0]
    assert _checks.callback(False, "progress", bar=True) is None and _checks.callback(True, "progress", bar=True)
    assert _checks.device_key("cpu") == b"cpu"


@pytest.mark.parametrize("call, error, words", [
    (lambda: _checks.grid(np.zeros((3, 4)), "mask", square=True), ValueError, r"mask must be a square grid"),
    (lambda: _checks.grid(np.broadcast_to(np.float32(0), (46341, 46341))), ValueError, r"2\^31 - 1"),
    (lambda: _checks.mask(np.ones((2, 3)), (3, 2)), ValueError, r"mask shape \(2, 3\) differs"),
    (lambda: _checks.planes(np.ones((4, 4)), "albedo", (4, 4)), ValueError, r"albedo must have shape \(4, 4, 3\)"),
    (lambda: _checks.points(np.ones((4, 2)), "vertices"), ValueError, r"vertices must have shape \(N, 3\)"),
    (lambda: _checks.indices([[0, 1, 2.0]], "triangles", 3), ValueError, "triangles must hold integer"),
    (lambda: _checks.indices([[0, 1, 3]], "triangles", 3), ValueError, r"in \[0, 2\]"),
    (lambda: _checks.integer(1.0, ctypes.c_int32, "seed"), TypeError, "seed must be an integer"),
    (lambda: _checks.integer(2**31, ctypes.c_int32, "seed"), ValueError, "seed = 2147483648 is out of range"),
    (lambda: _checks.integer(9, ctypes.c_int32, "radius", 1, 8), ValueError, "radius must be 1 to 8"),
    (lambda: _checks.number("1.5", "scale"), TypeError, "scale must be a real number"),
    (lambda: _checks.number(10**400, "scale"), ValueError, "scale must be finite"),
    (lambda: _checks.positive(1e-50, "extent"), ValueError, "extent must be finite and > 0"),  # 0 as a float32
    (lambda: _checks.between(1, "inertia", 0, 1, below=True), ValueError, "inertia must be at least 0 and below 1"),
    (lambda: _checks.between(0, "rate", 0, 1, above=True), ValueError, "rate must be above 0 and at most 1"),
    (lambda: _checks.mask(np.ones((2, 3)), (3, 2), "rain"), ValueError, r"rain shape \(2, 3\) differs"),
    (lambda: _checks.vector((1, 2), "centre"), ValueError, "centre must have 3 components"),
    (lambda: _checks.vector(5, "offset"), TypeError, "offset must be a sequence"),
    (lambda: _checks.device_key(b"cpu"), TypeError, "a device key is a str"),
    (lambda: _checks.callback(5, "progress", bar=True), TypeError, "progress must be a callable, True"),
    (lambda: _checks.callback(True, "cancel"), TypeError, "cancel must be a callable or None"),
])
def test_the_checks_name_the_argument_and_the_rule(call, error, words):
    with pytest.raises(error, match=words):
        call()


def test_operations_refuse_bad_callbacks_and_queues_before_running(q):
    h = np.zeros((8, 8), np.float32)
    with pytest.raises(TypeError, match="progress"):
        halden.flow(q, h, progress=5)
    with pytest.raises(TypeError, match="cancel"):
        halden.shade(q, h, cancel=True)
    with pytest.raises(TypeError, match="progress"):  # the library reports no progress for shading
        halden.shade(q, h, progress=print)
    with pytest.raises(TypeError, match="halden.Queue"):
        halden.blur(object(), h)
    with pytest.raises(TypeError, match="str"):
        halden.Queue(0)


def test_public_functions_are_annotated_and_document_every_parameter():
    public = [getattr(halden, name) for name in halden.__all__]
    assert all(obj.__doc__ for obj in public)
    functions = [obj for obj in public if inspect.isfunction(obj)]
    for fn in functions + [halden.Queue.__init__, halden.Queue.close]:
        parameters = set(inspect.signature(fn).parameters) - {"self"}
        assert set(typing.get_type_hints(fn)) == parameters | {"return"}, fn.__qualname__
    for fn in functions:
        assert "Returns" in fn.__doc__, fn.__name__
        for name in inspect.signature(fn).parameters:
            assert re.search(rf"\b{name}\b", fn.__doc__), (fn.__name__, name)
