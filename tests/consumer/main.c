/* SPDX-License-Identifier: Apache-2.0 */
/* A C application: the public header must be valid C. */
#include <halden/halden.h>
#include <stdio.h>

int main(void) {
    halden_device_record* devices = NULL;
    uint32_t count = 0;
    GetDevices(&devices, &count);
    if (count < 1) return 1;
    printf("%u device(s), first: %s\n", count, devices[0].name);
    FreeDevices(devices);

    halden_queue* q = CreateSyclQueue("cpu", NULL);
    if (!q) return 2;
    float grid[64 * 64];
    for (int i = 0; i < 64 * 64; ++i) grid[i] = 3.0f;
    halden_median_filter_parameters p = {64, 2, 1, 0};
    uint32_t status = MedianFilter(q, grid, &p);
    DestroySyclQueue(q);
    return status == HALDEN_STATUS_OK && grid[100] == (3.0f + 3.0f + 3.0f) * 0.333333f ? 0 : 3;
}
