#include "ring.h"

#include <string.h>

static size_t next_index(size_t i)
{
    return (i + 1) % RING_CAPACITY;
}

// Empties the ring.
void ring_init(ring_t *r)
{
    memset(r, 0, sizeof *r);
}

/*
 * Appends a value at the tail.
 * Returns 0 when the ring is full.
 */
int ring_push(ring_t *r, int value)
{
    if (r->count == RING_CAPACITY) {
        return 0;
    }
    size_t tail = (r->head + r->count) % RING_CAPACITY;
    r->data[tail] = value;
    r->count++;
    return 1;
}

int ring_pop(ring_t *r, int *out)
{
    if (r->count == 0) {
        return 0;
    }
    *out = r->data[r->head];
    r->head = next_index(r->head);
    r->count--;
    return 1;
}
