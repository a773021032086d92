require "json"
require_relative "discounts"

module Store
  # One line of a basket: a product, its unit cost and how many.
  LineItem = Struct.new(:name, :cost, :quantity)

  # A shopping basket that holds line items and totals them.
  class Basket
    include Enumerable

    # The most lines one basket may hold.
    LIMIT = 100

    # Creates an empty basket.
    def initialize
      @items = []
    end

    # Adds `quantity` of the product `name` at `cost` each.
    def add(name, cost, quantity = 1)
      raise BasketFull, "at most #{LIMIT} lines" if @items.size >= LIMIT
      @items << LineItem.new(name, cost, quantity)
      self
    end

    def each(&block)
      @items.each(&block)
    end

    # What the basket costs, discounts applied.
    def total
      Discounts.apply(sum { |item| item.cost * item.quantity })
    end

    # A basket from its JSON text: an array of {"name", "cost", "quantity"}.
    def self.from_json(text)
      basket = new
      JSON.parse(text).each { |row| basket.add(row["name"], row["cost"], row.fetch("quantity", 1)) }
      basket
    end

    class << self
      # A basket that cannot change.
      def empty
        new.freeze
      end
    end

    private

    def valid?(item)
      item.quantity.positive?
    end
  end
end
