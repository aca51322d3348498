"""The quilma code-indexing service's storage layer, for Python."""
