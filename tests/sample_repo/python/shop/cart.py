"""Shopping cart model.

Holds items and computes totals with tax.
"""

import logging
from dataclasses import dataclass
from typing import List, Optional

__all__ = ["Cart", "Item", "total_price", "TAX_RATE"]

TAX_RATE = 0.2
MAX_ITEMS = 100
_log = logging.getLogger(__name__)


@dataclass
class Item:
    """One line of a cart.

    :param sku: the stock keeping unit
    :param price: unit price in cents
    """

    sku: str
    price: int
    quantity: int = 1

    def subtotal(self) -> int:
        return self.price * self.quantity


class CartError(Exception):
    pass


class Cart:
    """A collection of items."""

    def __init__(self, owner: str, repo: Optional["CartRepository"] = None):
        self.owner = owner
        self.items: List[Item] = []
        self.repo = repo

    def add(self, item: Item) -> None:
        """Add an item to the cart.

        Args:
            item: the item to add.

        Raises:
            CartError: when the cart is full.
        """
        if len(self.items) >= MAX_ITEMS:
            raise CartError("cart is full")
        self.items.append(item)
        _log.debug("added %s", item.sku)

    def total(self) -> int:
        return total_price(self.items)

    def save(self):
        self.repo.save(self)

    def _audit(self):
        return [i.sku for i in self.items]


def total_price(items: List[Item], tax_rate: float = TAX_RATE) -> int:
    '''Sum the subtotals of `items` and add tax.

    Args:
        items: the items to sum.
        tax_rate: the tax rate, 0.2 by default.

    Returns:
        The total in cents.
    '''
    net = sum(item.subtotal() for item in items)
    return round(net * (1 + tax_rate))


def _helper(x):
    return x
