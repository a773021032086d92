"""A tiny shop: carts, items and prices."""

from .cart import Cart, Item, total_price

__all__ = ["Cart", "Item", "total_price"]
