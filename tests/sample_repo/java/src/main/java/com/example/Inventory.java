package com.example;

import java.util.HashMap;
import java.util.Map;

/**
 * Stock levels per product.
 *
 * @author Sample Team
 */
public class Inventory {
    /** The most units one product may have. */
    public static final int MAX_STOCK = 1000;

    private final Map<String, Integer> stock = new HashMap<>();

    /**
     * Adds units of a product.
     *
     * @param sku the product
     * @param count how many units to add
     * @throws IllegalArgumentException when the stock would exceed {@link #MAX_STOCK}
     */
    public void add(String sku, int count) {
        int next = count(sku) + count;
        if (next > MAX_STOCK) {
            throw new IllegalArgumentException("too much stock for " + sku);
        }
        stock.put(sku, next);
    }

    /** The units in stock of a product, 0 when unknown. */
    public int count(String sku) {
        return stock.getOrDefault(sku, 0);
    }

    boolean isEmpty() {
        return stock.isEmpty();
    }

    /** What the shop reports about one product. */
    public interface Report {
        String render(Inventory inventory);
    }

    enum Level { LOW, NORMAL, HIGH }
}
