package com.example;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import org.junit.jupiter.api.Test;

class InventoryTest {
    @Test
    void addsStock() {
        Inventory inventory = new Inventory();
        inventory.add("A-1", 3);
        assertEquals(3, inventory.count("A-1"));
    }

    @Test
    void rejectsTooMuchStock() {
        Inventory inventory = new Inventory();
        assertThrows(IllegalArgumentException.class, () -> inventory.add("A-1", Inventory.MAX_STOCK + 1));
    }
}
