"""Schema versions, and the error of a failed migration."""

from quilma.storage._native import (
    OLDEST_VERSION,
    REINDEX_SENTINEL_HASH,
    SCHEMA_VERSION,
    SchemaMigrationError,
)

__all__ = ["OLDEST_VERSION", "REINDEX_SENTINEL_HASH", "SCHEMA_VERSION", "SchemaMigrationError"]
