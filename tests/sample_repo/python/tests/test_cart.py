import pytest

from shop.cart import Cart, CartError, Item, total_price


def test_total_adds_tax():
    cart = Cart("ann")
    cart.add(Item("A-1", 100))
    assert cart.total() == 120


def test_total_price_of_nothing():
    assert total_price([]) == 0


class TestCartLimits:
    def test_full_cart_raises(self):
        cart = Cart("bob")
        cart.items = [Item("x", 1)] * 100
        with pytest.raises(CartError):
            cart.add(Item("y", 1))
