# SPDX-License-Identifier: Apache-2.0
import pytest

import halden


@pytest.fixture(scope="module")
def q():
    with halden.Queue("cpu") as queue:
        yield queue
