// Numeric helpers shared by the formatters.

/**
 * Rounds `value` to `digits` decimal places.
 * @param {number} value
 * @param {number} digits
 */
function round(value, digits) {
  const factor = Math.pow(10, digits);
  return Math.round(value * factor) / factor;
}

module.exports = { round };
