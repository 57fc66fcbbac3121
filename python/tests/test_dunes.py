# SPDX-License-Identifier: Apache-2.0
import numpy as np
import pytest

import halden


def field(n=40):
    y, x = np.mgrid[0:n, 0:n].astype(np.float32)
    bedrock = (4 * np.sin(0.15 * x) * np.cos(0.1 * y)).astype(np.float32)
    sand = (np.floor(np.random.default_rng(3).random((n, n)) * 4096) / 1024).astype(np.float32)
    return bedrock, sand


def test_dunes_keep_the_sand_and_leave_the_inputs_alone(q):
    bedrock, sand = field()
    before = sand.copy()
    out = halden.dunes(q, bedrock, sand, iterations=20, wind_direction=30, second_wind_share=0.25)
    np.testing.assert_array_equal(sand, before)
    assert out.dtype == np.float32 and out.shape == sand.shape
    assert (out >= 0).all() and not np.array_equal(out, sand)
    # Exact in the library's units of 2^-20 (every cell here is thinner than 16).
    assert np.sum(out.astype(np.float64) * 2**20, dtype=np.float64) == np.sum(sand.astype(np.float64) * 2**20)
    again = halden.dunes(q, bedrock, sand, iterations=20, wind_direction=30, second_wind_share=0.25)
    np.testing.assert_array_equal(again, out)
    calm = halden.dunes(q, bedrock, np.full_like(sand, 0.5), wind_speed=0, iterations=5)
    np.testing.assert_array_equal(calm, np.full_like(sand, 0.5))


def test_dunes_refuse_bad_arguments(q):
    bedrock, sand = field(16)
    with pytest.raises(ValueError, match="square"):
        halden.dunes(q, bedrock[:, :8], sand[:, :8])
    with pytest.raises(ValueError, match="sand"):
        halden.dunes(q, bedrock, sand[:8])
    with pytest.raises(ValueError, match="wind_speed"):
        halden.dunes(q, bedrock, sand, wind_speed=9)
    with pytest.raises(halden.HaldenError, match="sand"):
        halden.dunes(q, bedrock, -sand - 1)
    with pytest.raises(halden.HaldenError, match="vegetation"):
        halden.dunes(q, bedrock, sand, vegetation=np.full_like(sand, 2.0))
