// SPDX-License-Identifier: Apache-2.0
// The compute layer: devices, queues, device memory, kernel launches, atomics.
#pragma once

#include "compute/atomic.hpp"
#include "compute/device.hpp"
#include "compute/memory.hpp"
#include "compute/queue.hpp"
#include "compute/types.hpp"
