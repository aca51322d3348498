"""The pool of read-only connections that queries lease."""

from quilma.storage._native import Lease, ReaderPool, ReaderUnavailable

__all__ = ["Lease", "ReaderPool", "ReaderUnavailable"]
