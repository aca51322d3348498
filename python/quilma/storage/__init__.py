"""The storage layer: ``database``, ``reader_pool``, ``migrations`` and ``storage_size``."""
