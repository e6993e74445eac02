"""The Python source indexer, the grounding tool and the loader on an indexed tree."""

import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

import scope
from conftest import ROOT
from tarnwick.indexer import index_tree
from tarnwick.storage import grounding_queries as queries
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


def symbols_of(db, *paths):
    files = queries.scope_files(db, list(paths))
    return {s.fqn: s for s in queries.scope_symbols(db, [f.id for f in files])}


def refs_into(db, path):
    files = queries.scope_files(db, [path])
    return {(r.source_path, r.target_name, r.resolution): r.refs
            for r in queries.inbound_references(db, [f.id for f in files])}


def test_files_declarations_and_exports(indexed):
    root, db, stats = indexed
    assert stats.files == len(TREE) and stats.unparsable == ["broken.py"]
    symbols = symbols_of(db, "shop/models.py", "shop/__init__.py")
    kinds = {fqn: (s.kind, s.start_line, s.end_line, s.is_export) for fqn, s in symbols.items()}
    assert kinds["shop.models.LIMIT"] == ("constant", 2, 2, True)
    assert kinds["shop.models._SECRET"][3] is False
    assert kinds["shop.models.Cart"] == ("class", 5, 18, True)
    assert kinds["shop.models.Cart.Line"] == ("class", 6, 8, True)
    assert kinds["shop.models.Cart.Line.total"] == ("method", 7, 8, True)
    assert kinds["shop.models.Cart.__init__"][0::3] == ("method", False)
    assert kinds["shop.models.Cart.lines"][:2] == ("attribute", 11)
    assert kinds["shop.models.make"] == ("function", 20, 21, True)
    # __all__ decides what the package exports.
    assert kinds["shop.checkout"][3] is True and kinds["shop.helper"][3] is False
    assert all(f.language == "python" for f in queries.scope_files(db, list(TREE)))
    assert queries.import_resolved_languages(db, ["go", "python"]) == {"python"}


def test_each_resolution(indexed):
    _, db, _ = indexed
    into_models = refs_into(db, "shop/models.py")
    assert into_models[("shop/api/views.py", "make", "import")] == 1           # relative from-import
    assert into_models[("shop/api/views.py", "Line", "import")] == 1           # from .. import module, chain
    assert into_models[("shop/api/views.py", "LIMIT", "import")] == 1          # import a.b as m
    assert into_models[("shop/models.py", "count", "local")] == 1              # self.count()
    assert into_models[("shop/models.py", "LIMIT", "local")] == 1
    assert into_models[("shop/__init__.py", "Cart", "import")] == 1
    assert into_models[("tests/test_cart.py", "Cart", "import")] == 1          # tests are indexed too
    assert ("shop/api/views.py", "add_line", "unique") in into_models               # a method called on an unknown object
    into_billing = refs_into(db, "billing/ledger.py")
    assert into_billing[("shop/api/views.py", "unique_name", "unique")] == 1
    assert into_billing[("shop/api/views.py", "save", "ambiguous")] == 1
    assert refs_into(db, "billing/archive.py")[("shop/api/views.py", "save", "ambiguous")] == 1


def test_the_loader_end_to_end(indexed):
    root, db, _ = indexed
    facts = scope.load_scope_facts(db, ["shop/models.py", "shop/__init__.py", "nowhere.py"], checkout_reader(root))
    assert [f.path for f in facts.files] == ["shop/__init__.py", "shop/models.py"]
    assert facts.summaries == {"shop/__init__.py": "The shop.", "shop/models.py": "Cart and items."}
    assert facts.test_sources == {"tests/test_cart.py"}
    assert facts.test_imports == {"shop/models.py": frozenset({"tests/test_cart.py"})}
    fan_in = scope.production_fan_in(facts)
    text = scope.render_consumers(facts, fan_in, "## Consumers")
    assert "- `shop/api/views.py` uses `LIMIT`, `Cart`, `Line`, `make` (4 refs)" in text
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
