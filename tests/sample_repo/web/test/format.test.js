const test = require("node:test");
const assert = require("node:assert");
const { formatPrice, padLabel } = require("../src/format");

test("formats cents with two decimals", () => {
  assert.strictEqual(formatPrice(1250, "EUR"), "12.50 EUR");
});

test("pads labels", () => {
  assert.strictEqual(padLabel("ab", 4), "ab  ");
});
