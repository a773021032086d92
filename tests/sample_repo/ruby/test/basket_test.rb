require "minitest/autorun"
require_relative "../lib/store/basket"

# The basket's totals, with and without the bulk discount.
class BasketTest < Minitest::Test
  def test_total_adds_up_the_lines
    basket = Store::Basket.new
    basket.add("pen", 2, 3)
    assert_equal 6, basket.total
  end

  def test_bulk_discount
    basket = Store::Basket.from_json('[{"name": "desk", "cost": 600}]')
    assert_equal 540.0, basket.total
  end
end
