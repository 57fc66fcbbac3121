# SPDX-License-Identifier: Apache-2.0
import re

import numpy as np
import pytest

import halden

Y, X = np.mgrid[:40, :40]
HEIGHTS = (8 * np.sin(X / 6) * np.cos(Y / 4) + 0.2 * X).astype(np.float32)
QUAD = (np.array([[2, 2, 22], [30, 2, 28], [30, 30, 68], [2, 30, 62]], np.float32),
        np.array([[0, 3, 2], [0, 2, 1]], np.int64))


def bar_frames(err):
    """The percents drawn, checking that every redraw covers the last one."""
    assert err.startswith("\r") and err.count("\n") == 1 and err.endswith("\n")
    frames = re.sub(r" (cancelled|failed)\n$", "", err).rstrip("\n").split("\r")[1:]
    assert all(re.fullmatch(r"flow \[[#.]{30}\] +\d+%", f) for f in frames), frames
    return [int(f.rstrip("%").split()[-1]) for f in frames]


def test_flow_draws_a_text_bar_on_stderr(q, capsys):
    expected = halden.flow(q, HEIGHTS)
    np.testing.assert_array_equal(halden.flow(q, HEIGHTS, progress=True), expected)
    out, err = capsys.readouterr()
    percents = bar_frames(err)
    assert out == "" and err.endswith("] 100%\n")
    assert percents[0] == 0 and percents == sorted(set(percents)) and len(percents) > 2


def test_the_text_bar_ends_its_line_on_cancel_and_failure(q, capsys):
    with pytest.raises(halden.Cancelled):
        halden.flow(q, HEIGHTS, progress=True, cancel=lambda: True)
    err = capsys.readouterr().err
    assert err.endswith("% cancelled\n") and bar_frames(err)
    with pytest.raises(halden.HaldenError):
        halden.flow(q, HEIGHTS, length=1e6, progress=True)  # refused by the library
    err = capsys.readouterr().err
    assert err.endswith("% failed\n") and bar_frames(err)


# Each gets fresh float32 C-ordered inputs (which the binding could pass
# without a copy) and a cancel callback.
CANCELLABLE = {
    "flow": (lambda: (HEIGHTS.copy(), np.full_like(HEIGHTS, 0.5)),
             lambda q, inputs, cancel: halden.flow(q, inputs[0], mask=inputs[1], cancel=cancel)),
    "shade": (lambda: (HEIGHTS.copy(), np.full(HEIGHTS.shape + (3,), 0.5, np.float32)),
              lambda q, inputs, cancel: halden.shade(q, inputs[0], albedo=inputs[1], cancel=cancel).rgb),
    "thermal_erode": (lambda: (HEIGHTS.copy(), np.full_like(HEIGHTS, 0.5), np.full_like(HEIGHTS, 0.25)),
                      lambda q, inputs, cancel: halden.thermal_erode(q, inputs[0], mask=inputs[1], hardness=inputs[2],
                                                                     deposition=True, cancel=cancel)),
    "erode": (lambda: (HEIGHTS.copy(), np.full_like(HEIGHTS, 0.5), np.full_like(HEIGHTS, 0.25)),
              lambda q, inputs, cancel: halden.erode(q, inputs[0], rain=inputs[1], hardness=inputs[2], rounds=2,
                                                     discharge=True, cancel=cancel)),
    "rasterize": (lambda: tuple(a.copy() for a in QUAD),
                  lambda q, inputs, cancel: halden.rasterize(q, *inputs, 32, 32, ids=True, cancel=cancel)),
}


@pytest.mark.parametrize("name", CANCELLABLE)
def test_cancel_raises_cancelled_and_leaves_the_inputs_alone(q, name):
    make, op = CANCELLABLE[name]
    inputs, polls = make(), []
    expected = op(q, inputs, None)
    np.testing.assert_equal(op(q, inputs, lambda: polls.append(1)), expected)  # polled, not cancelled
    assert polls
    with pytest.raises(halden.Cancelled, match="cancelled") as caught:
        op(q, inputs, lambda: True)
    assert caught.value.status == 3
    for given, fresh in zip(inputs, make()):
        np.testing.assert_array_equal(given, fresh)
    with pytest.raises(ZeroDivisionError):  # a callback's exception cancels and comes back
        op(q, inputs, lambda: 1 / 0)
    np.testing.assert_equal(op(q, inputs, None), expected)  # the queue is still good
