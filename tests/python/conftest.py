import pytest

from quilma.storage.database import Database


@pytest.fixture
def db(tmp_path):
    with Database(tmp_path / "index.db") as opened:
        yield opened
