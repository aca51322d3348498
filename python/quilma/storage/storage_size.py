"""The page size of the layer's database files."""

from quilma.storage._native import PAGE_SIZE

__all__ = ["PAGE_SIZE"]
