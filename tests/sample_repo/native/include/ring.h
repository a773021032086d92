#ifndef RING_H
#define RING_H

#include <stddef.h>

#define RING_CAPACITY 16

/* A fixed-size ring buffer of ints. */
typedef struct ring {
    int data[RING_CAPACITY];
    size_t head;
    size_t count;
} ring_t;

/* Empties the ring. */
void ring_init(ring_t *r);
/* Appends a value; returns 0 when the ring is full. */
int ring_push(ring_t *r, int value);
int ring_pop(ring_t *r, int *out);

#endif
