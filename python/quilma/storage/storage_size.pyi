PAGE_SIZE: int

__all__ = ["PAGE_SIZE"]
