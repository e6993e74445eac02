"""The loader and the grounding tool on a tree the indexer has indexed."""

import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

import scope
from conftest import ROOT
from tarnwick.indexer import index_tree
from tarnwick.storage.database import Database
from tarnwick.workers.wiki.checkout import checkout_reader

TREE = {
    "shop/__init__.py": '"""The shop."""\nfrom .models import Cart\n__all__ = ["Cart", "checkout"]\n'
                        "def checkout():\n    return Cart()\ndef helper():\n    pass\n",
    "shop/models.py": textwrap.dedent('''\
        """Cart and items."""
        LIMIT = 10
        _SECRET = 1

        class Cart:
            class Line:
                def total(self):
                    return 0

            def __init__(self):
                self.lines = []

            def add_line(self, line):
                self.lines.append(line)
                return self.count()

            def count(self):
                return LIMIT

        def make():
            return Cart()
        '''),
    "shop/api/views.py": textwrap.dedent('''\
        from ..models import Cart, make
        from .. import models
        import shop.models as m

        def view(order):
            cart = make()
            cart.add_line(1)
            models.Cart.Line()
            order.unique_name()
            order.save()
            return m.LIMIT
        '''),
    "billing/ledger.py": "class Ledger:\n    def unique_name(self):\n        pass\n    def save(self):\n        pass\n",
    "billing/archive.py": "class Archive:\n    def save(self):\n        pass\n",
    "tests/test_cart.py": "from shop.models import Cart\n\ndef test_cart():\n    Cart().add_line(1)\n",
    "broken.py": "def oops(:\n",
}


@pytest.fixture(scope="module")
def indexed(tmp_path_factory):
    root = tmp_path_factory.mktemp("tree")
    for path, text in TREE.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(text)
    db = Database()
    stats = index_tree(root, db, progress=None)
    return root, db, stats


def test_the_loader_end_to_end(indexed):
    root, db, _ = indexed
    facts = scope.load_scope_facts(db, ["shop/models.py", "shop/__init__.py", "nowhere.py"], checkout_reader(root))
    assert [f.path for f in facts.files] == ["shop/__init__.py", "shop/models.py"]
    assert facts.summaries == {"shop/__init__.py": "The shop.", "shop/models.py": "Cart and items."}
    assert facts.test_sources == {"tests/test_cart.py"}
    assert facts.test_imports == {"shop/models.py": frozenset({"tests/test_cart.py"})}
    fan_in = scope.production_fan_in(facts)
    text = scope.render_consumers(facts, fan_in, "## Consumers")
    assert "- `shop/api/views.py` uses `Cart`, `make`, `LIMIT`, `Line` (6 refs)" in text
    assert "`checkout` (function, `shop/__init__.py:L4`)" in text


def run_tool(*args):
    env = {"PYTHONPATH": f"{Path(scope.__file__).parent}:{ROOT / 'host'}", "PATH": "/usr/bin:/bin"}
    return subprocess.run([sys.executable, "-m", "tarnwick.tools.ground", *args], capture_output=True, text=True,
                          env=env, timeout=120)


def test_the_tool_grounds_a_page(indexed, tmp_path):
    root, _, _ = indexed
    result = run_tool("--tree", str(root), "--index", str(tmp_path / "i.sqlite"), "shop/*.py", "shop/gone.py")
    assert result.returncode == 0, result.stderr
    for section in ("## Files", "## Consumers", "## Declaration blocks", "## Seeds", "## Neighbours",
                    "## Name matches", "Module calls took"):
        assert section in result.stdout
    assert "| `shop/gone.py` | ? | 0 | not in the index | | | |" in result.stdout


@pytest.mark.parametrize("args, message", [
    (["--tree", "/no/such/tree"], "no such directory: /no/such/tree"),
    (["--tree", "{root}", "--index", "{tmp}/i.sqlite", "nothing/*.py"], "the page matches no indexed file"),
    (["--tree", "{root}", "--index", "{tmp}/junk.sqlite", "shop/*.py"], "cannot read the index"),
])
def test_the_tool_reports_bad_input_in_one_line(indexed, tmp_path, args, message):
    root, _, _ = indexed
    (tmp_path / "junk.sqlite").write_bytes(b"this is not a database, not even close" * 100)
    result = run_tool(*(a.format(root=root, tmp=tmp_path) for a in args))
    assert result.returncode == 1
    lines = result.stderr.strip().splitlines()
    assert len(lines) == 1 and lines[0].startswith(f"ground: error: {message}")
    assert "Traceback" not in result.stderr
