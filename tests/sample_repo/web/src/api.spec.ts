import { ApiClient, createClient, Product } from "./api";

describe("ApiClient", () => {
  it("describes a product", () => {
    const client = createClient("http://localhost");
    const product: Product = { sku: "A-1", name: "Tea", price: 350 };
    expect(client.describe(product)).toContain("Tea");
  });

  it("is an ApiClient", () => {
    expect(createClient()).toBeInstanceOf(ApiClient);
  });
});
