module Store
  # Raised when a basket has no room left.
  class BasketFull < StandardError; end

  # The discount rules baskets apply to their totals.
  module Discounts
    # Totals above this get the bulk rate.
    BULK_THRESHOLD = 500

    # The total after the bulk discount, if it applies.
    def self.apply(total)
      total > BULK_THRESHOLD ? (total * bulk_rate).round(2) : total
    end

    private_class_method def self.bulk_rate
      0.9
    end
  end
end
