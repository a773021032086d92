// Price formatting helpers.
import { round } from "./math.js";

const DEFAULT_CURRENCY = "EUR";

/**
 * Formats an amount in cents as a price string.
 * @param {number} cents - the amount in cents
 * @param {string} currency - ISO currency code
 * @returns {string} the formatted price
 */
export function formatPrice(cents, currency = DEFAULT_CURRENCY) {
  const units = round(cents / 100, 2);
  return `${units.toFixed(2)} ${currency}`;
}

// Pads a label to a fixed width.
export const padLabel = (label, width) => label.padEnd(width, " ");

class Formatter {
  constructor(currency) {
    this.currency = currency;
  }

  /** Formats every amount of the list. */
  formatAll(amounts) {
    return amounts.map((a) => formatPrice(a, this.currency));
  }
}

function internalHelper() {
  return new Formatter(DEFAULT_CURRENCY);
}

export default Formatter;
