import { formatPrice } from "./format";
import type { Options } from "./options";

/** A product as the server returns it. */
export interface Product {
  sku: string;
  name: string;
  price: number;
}

export type ProductList = Product[];

export enum Status {
  Active,
  Retired,
}

const BASE_URL = "https://shop.example.com/api";

/**
 * Client of the shop's HTTP API.
 */
export class ApiClient {
  private readonly base: string;

  constructor(base: string = BASE_URL, private options?: Options) {
    this.base = base;
  }

  /** Fetches one product by its sku. */
  async getProduct(sku: string): Promise<Product> {
    const response = await fetch(`${this.base}/products/${sku}`);
    return (await response.json()) as Product;
  }

  describe(product: Product): string {
    return `${product.name}: ${formatPrice(product.price)}`;
  }
}

export function createClient(base?: string): ApiClient {
  return new ApiClient(base);
}

function buildQuery(params: Record<string, string>): string {
  return new URLSearchParams(params).toString();
}
