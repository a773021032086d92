import React from "react";
import { Product } from "./api";
import { formatPrice } from "./format";

interface RowProps {
  product: Product;
}

// One table row per product.
export function ProductRow({ product }: RowProps) {
  return (
    <tr>
      <td>{product.name}</td>
      <td>{formatPrice(product.price)}</td>
    </tr>
  );
}

export const ProductTable = ({ products }: { products: Product[] }) => (
  <table>
    {products.map((p) => (
      <ProductRow key={p.sku} product={p} />
    ))}
  </table>
);
