SCHEMA_VERSION: str
OLDEST_VERSION: str
REINDEX_SENTINEL_HASH: str

class SchemaMigrationError(RuntimeError): ...

__all__ = ["OLDEST_VERSION", "REINDEX_SENTINEL_HASH", "SCHEMA_VERSION", "SchemaMigrationError"]
