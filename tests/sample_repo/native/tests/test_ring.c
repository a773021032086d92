#include <assert.h>

#include "ring.h"

static void test_push_pop(void)
{
    ring_t r;
    int value = 0;
    ring_init(&r);
    assert(ring_push(&r, 7) == 1);
    assert(ring_pop(&r, &value) == 1);
    assert(value == 7);
}

int main(void)
{
    test_push_pop();
    return 0;
}
