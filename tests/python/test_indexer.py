"""The Python source indexer: what a small tree puts into the index, read back
through the grounding queries."""

import io
import os
import sqlite3
import textwrap

import pytest

from tarnwick.indexer import index_tree
from tarnwick.storage import grounding_queries as queries
from tarnwick.storage.database import Database

TREE = {
    "shop/__init__.py": '''\
        """The shop."""
        from .models import Cart
        from . import models as _models
        __all__ = ["Cart", "checkout"]

        def checkout():
            return Cart()

        def helper():
            return _models.make()
        ''',
    "shop/models.py": '''\
        """Cart and items."""
        LIMIT = 10
        _SECRET = 1
        lowercase = 2

        class Cart:
            kind = "cart"

            class Line:
                def total(self):
                    return 0

            def __init__(self):
                self.lines = []
                self.lines = None
                self.owner, self.note = None, ""

            def add_line(self, line):
                self.lines.append(line)
                return self.count()

            def count(self):
                return LIMIT + _SECRET

        class _Hidden:
            def visible(self):
                pass

        def make():
            return Cart()
        ''',
    "shop/api/__init__.py": "",
    "shop/api/helpers.py": "def tool():\n    pass\n",
    "shop/api/views.py": '''\
        from ..models import Cart, make
        from .. import models
        import shop.models as m
        from . import helpers

        def view(order):
            cart = make()
            cart.add_line(1)
            models.Cart.Line()
            Cart.count
            order.unique_name()
            order.save()
            order.fixture_only()
            order.__enter__()
            helpers.tool()
            return m.LIMIT
        ''',
    "shop/extras.py": '''\
        from typing import Optional
        import numpy as np
        from shop import Cart
        from shop.models import *

        class Special(Cart):
            def add_line(self, line):
                super().add_line(line)
                return self.count()

            @staticmethod
            def build(parts):
                parts.extra = 1
                return parts

        class Failure(Exception):
            def report(self):
                return self.save()

        def pay(cart: Cart, other: "Cart"):
            fresh = Cart()
            fresh.count()
            other.total_price()
            np.save("x")
            "text".count("t")
            return cart.count() + make().unique_name()

        class Holder:
            parser = None

            def __init__(self):
                self.parser = Cart()
                self.maybe: Optional[Cart] = None

            def run(self):
                self.parser.count()
                self.maybe.add_line(1)
                return make_cart().count()

        def make_cart() -> Cart:
            return Cart()

        session = np.Session()

        def use():
            session.total_price()
        ''',
    "billing/ledger.py": '''\
        class Ledger:
            def unique_name(self):
                pass

            def save(self):
                pass
        ''',
    "billing/archive.py": '''\
        class Archive:
            def save(self):
                pass

            def total_price(self):
                pass

            def __enter__(self):
                return self
        ''',
    "tests/conftest.py": "def fixture_only():\n    pass\n",
    "tests/test_cart.py": '''\
        from shop.models import Cart

        def test_cart():
            Cart().add_line(1)
        ''',
    "broken.py": "def oops(:\n",
    ".hidden/secret.py": "def hidden():\n    pass\n",
    "shop/__pycache__/models.py": "def cached():\n    pass\n",
    "venv/pyvenv.cfg": "home = /usr/bin\n",
    "venv/lib/site.py": "def in_venv():\n    pass\n",
    "lib/site-packages/dep.py": "def dependency():\n    pass\n",
    "build/lib/shop/models.py": "class Cart:\n    pass\n",
    "notes.txt": "not python\n",
}
UNDECODABLE = {"latin.py": b"NAME = '\xff\xfe'\n"}
INDEXED = sorted(["shop/__init__.py", "shop/models.py", "shop/api/__init__.py", "shop/api/helpers.py",
                  "shop/api/views.py", "shop/extras.py", "billing/ledger.py", "billing/archive.py",
                  "tests/conftest.py", "tests/test_cart.py", "broken.py", "latin.py"])


def write_tree(root, tree, raw=None):
    for path, text in tree.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_text(textwrap.dedent(text))
    for path, data in (raw or {}).items():
        (root / path).write_bytes(data)
    return root


@pytest.fixture(scope="module")
def indexed(tmp_path_factory):
    root = write_tree(tmp_path_factory.mktemp("tree"), TREE, UNDECODABLE)
    db = Database()
    stats = index_tree(root, db, progress=None)
    return db, stats


def file_ids(db, *paths):
    return [f.id for f in queries.scope_files(db, list(paths))]


def symbols(db, *paths):
    return {s.fqn: s for s in queries.scope_symbols(db, file_ids(db, *paths))}


def outbound(db, path):
    """{(target fqn, resolution): refs} of the references from one file."""
    return {(r.target.fqn, r.resolution): r.refs for r in queries.outbound_references(db, file_ids(db, path))}


def line_of(path, snippet, start=1):
    """The line number of the first line of TREE[path] holding `snippet`, from line `start` on."""
    lines = textwrap.dedent(TREE[path]).splitlines()
    return next(n for n, line in enumerate(lines, 1) if n >= start and snippet in line)


def test_files_languages_and_skipped_directories(indexed):
    db, stats = indexed
    files = queries.scope_files(db, INDEXED + [".hidden/secret.py", "shop/__pycache__/models.py",
                                               "venv/lib/site.py", "lib/site-packages/dep.py", "notes.txt",
                                               "build/lib/shop/models.py"])
    assert [f.path for f in files] == INDEXED
    assert {f.language for f in files} == {"python"}
    assert queries.import_resolved_languages(db, ["go", "python"]) == {"python"}
    assert stats.files == len(INDEXED)
    assert stats.declarations == db.query("SELECT count(*) FROM declarations")[0][0]
    assert stats.references == db.query("SELECT count(*) FROM refs")[0][0]
    # One row per (source, target, resolution).
    assert db.query("SELECT count(*) FROM (SELECT 1 FROM refs GROUP BY source_file_id, target_id, resolution"
                    " HAVING count(*) > 1)") == [(0,)]
    assert sum(stats.by_resolution.values()) == db.query("SELECT sum(count) FROM refs")[0][0]


def test_unparsable_files_are_indexed_without_declarations(indexed):
    db, stats = indexed
    assert stats.unparsable == ["broken.py", "latin.py"]
    assert [f.path for f in queries.scope_files(db, ["broken.py", "latin.py"])] == ["broken.py", "latin.py"]
    assert symbols(db, "broken.py", "latin.py") == {}


M = "shop/models.py"


@pytest.mark.parametrize("fqn, kind, start, end, exported", [
    ("shop.models.LIMIT", "constant", line_of(M, "LIMIT = 10"), line_of(M, "LIMIT = 10"), True),
    ("shop.models._SECRET", "constant", line_of(M, "_SECRET = 1"), line_of(M, "_SECRET = 1"), False),
    ("shop.models.Cart", "class", line_of(M, "class Cart"), line_of(M, "LIMIT + _SECRET"), True),
    ("shop.models.Cart.kind", "attribute", line_of(M, 'kind = "cart"'), line_of(M, 'kind = "cart"'), True),
    ("shop.models.Cart.Line", "class", line_of(M, "class Line"), line_of(M, "return 0"), True),
    ("shop.models.Cart.Line.total", "method", line_of(M, "def total"), line_of(M, "return 0"), True),
    ("shop.models.Cart.__init__", "method", line_of(M, "def __init__"), line_of(M, "self.owner"), False),
    # Instance attributes: once per class and name, at the first assignment.
    ("shop.models.Cart.lines", "attribute", line_of(M, "self.lines = []"), line_of(M, "self.lines = []"), True),
    ("shop.models.Cart.owner", "attribute", line_of(M, "self.owner"), line_of(M, "self.owner"), True),
    ("shop.models.Cart.note", "attribute", line_of(M, "self.owner"), line_of(M, "self.owner"), True),
    ("shop.models.Cart.add_line", "method", line_of(M, "def add_line"), line_of(M, "return self.count()"), True),
    # A public member of a private class is not exported.
    ("shop.models._Hidden", "class", line_of(M, "class _Hidden"), line_of(M, "pass"), False),
    ("shop.models._Hidden.visible", "method", line_of(M, "def visible"), line_of(M, "pass"), False),
    ("shop.models.make", "function", line_of(M, "def make"), line_of(M, "return Cart()"), True),
    # __all__ decides what a package exports.
    ("shop.checkout", "function", 6, 7, True),
    ("shop.helper", "function", 9, 10, False),
    ("billing.ledger.Ledger.save", "method", 5, 6, True),
    ("tests.conftest.fixture_only", "function", 1, 2, True),
    # Declared in the class body first; `self.parser = ...` later only gives it a type.
    ("shop.extras.Holder.parser", "attribute", line_of("shop/extras.py", "parser = None"),
     line_of("shop/extras.py", "parser = None"), True),
])
def test_declarations(indexed, fqn, kind, start, end, exported):
    db, _ = indexed
    found = symbols(db, *INDEXED)[fqn]
    assert (found.name, found.kind, found.start_line, found.end_line, found.is_export) == (
        fqn.rpartition(".")[2], kind, start, end, exported)


def test_only_declarations_are_declared(indexed):
    db, _ = indexed
    declared = symbols(db, *INDEXED)
    # Lower-case module variables, second assignments and local names are no declarations.
    assert "shop.models.lowercase" not in declared
    assert [fqn for fqn in declared if fqn.startswith("shop.models.Cart.lines")] == ["shop.models.Cart.lines"]
    assert not any(fqn.startswith("shop.api.views.view.") for fqn in declared)
    assert "shop.extras.Special.extra" not in declared  # `parts` of a static method is no `self`
    assert set(symbols(db, "shop/models.py")) == {
        "shop.models.LIMIT", "shop.models._SECRET", "shop.models.Cart", "shop.models.Cart.kind",
        "shop.models.Cart.Line", "shop.models.Cart.Line.total", "shop.models.Cart.__init__",
        "shop.models.Cart.lines", "shop.models.Cart.owner", "shop.models.Cart.note", "shop.models.Cart.add_line",
        "shop.models.Cart.count", "shop.models._Hidden", "shop.models._Hidden.visible", "shop.models.make"}


@pytest.mark.parametrize("source, target, resolution, refs", [
    # Names bound in the same file; `self.member` inside a class.
    ("shop/models.py", "shop.models.LIMIT", "local", 1),
    ("shop/models.py", "shop.models._SECRET", "local", 1),
    ("shop/models.py", "shop.models.Cart", "local", 1),
    ("shop/models.py", "shop.models.Cart.count", "local", 1),
    ("shop/models.py", "shop.models.Cart.lines", "local", 1),  # stores of self.lines are not uses
    # Relative from-imports: the imported name counts once, and each use.
    ("shop/api/views.py", "shop.models.make", "import", 2),
    ("shop/api/views.py", "shop.models.Cart", "import", 3),  # imported, `Cart.count`, `models.Cart`
    ("shop/api/views.py", "shop.models.Cart.count", "import", 1),  # a member of an imported class
    ("shop/api/views.py", "shop.models.Cart.Line", "import", 1),  # `from .. import models`, then a chain
    ("shop/api/views.py", "shop.models.LIMIT", "import", 1),  # `import shop.models as m`
    ("shop/api/views.py", "shop.api.helpers.tool", "import", 1),  # `from . import helpers`
    ("shop/__init__.py", "shop.models.Cart", "import", 2),
    ("shop/__init__.py", "shop.models.make", "import", 1),  # `from . import models as _models`
    # Unknown receivers matched by name against production declarations.
    ("shop/api/views.py", "shop.models.Cart.add_line", "ambiguous", 1),  # `cart = make()`: type unknown
    ("shop/api/views.py", "shop.extras.Special.add_line", "ambiguous", 1),
    ("shop/api/views.py", "billing.ledger.Ledger.unique_name", "unique", 1),
    ("shop/api/views.py", "billing.ledger.Ledger.save", "ambiguous", 1),
    ("shop/api/views.py", "billing.archive.Archive.save", "ambiguous", 1),
    # Re-exported by the package, a star import, base classes, super(), annotations, constructor calls,
    # typed attributes and return annotations.
    ("shop/extras.py", "shop.models.Cart", "import", 9),
    ("shop/extras.py", "shop.models.make", "import", 1),
    ("shop/extras.py", "shop.models.Cart.add_line", "import", 2),
    ("shop/extras.py", "shop.models.Cart.count", "import", 5),
    ("shop/extras.py", "shop.extras.Holder.parser", "local", 1),
    ("shop/extras.py", "shop.extras.Holder.maybe", "local", 1),
    ("shop/extras.py", "shop.extras.make_cart", "local", 1),
    # `other: "Cart"` has no `total_price`; `session` comes from outside the tree and is not matched.
    ("shop/extras.py", "billing.archive.Archive.total_price", "unique", 1),
    ("shop/extras.py", "billing.ledger.Ledger.unique_name", "unique", 1),
    # A test file's references, resolved like any other.
    ("tests/test_cart.py", "shop.models.Cart", "import", 2),
    ("tests/test_cart.py", "shop.models.Cart.add_line", "import", 1),
])
def test_references(indexed, source, target, resolution, refs):
    db, _ = indexed
    assert outbound(db, source).get((target, resolution)) == refs


def test_what_is_not_a_reference(indexed):
    db, _ = indexed
    views, extras = outbound(db, "shop/api/views.py"), outbound(db, "shop/extras.py")
    # Declarations in test files are never matched by name.
    assert not any(fqn == "tests.conftest.fixture_only" for fqn, _ in views)
    # Attributes of modules outside the tree (`np.save`), of a class with a base
    # outside the tree (`self.save` in an Exception), and str methods (`"text".count`).
    assert not any(fqn.endswith(".save") for fqn, _ in extras)
    assert ("shop.models.Cart.count", "unique") not in extras
    # A subclass's own method is no use of itself; the overridden one is reached through super().
    assert ("shop.extras.Special.add_line", "local") not in extras
    # Resolved references are not matched by name as well.
    assert not [key for key in views if key[0].startswith("shop.models.") and key[1] in ("unique", "ambiguous")
                and key[0] != "shop.models.Cart.add_line"]
    assert ("shop.models.Cart.add_line", "unique") not in views
    assert ("billing.archive.Archive.__enter__", "unique") not in views  # special names belong to every object
    # Defining names do not count: nothing in models.py refers to `make`, `Line` or `_Hidden`.
    models = outbound(db, "shop/models.py")
    assert not {fqn for fqn, _ in models} & {"shop.models.make", "shop.models.Cart.Line", "shop.models._Hidden",
                                               "shop.models.Cart.owner", "shop.models.Cart.kind"}


def test_inbound_references_reach_a_page(indexed):
    db, _ = indexed
    inbound = queries.inbound_references(db, file_ids(db, "billing/ledger.py"))
    assert [(r.source_path, r.target_name, r.target_kind, r.resolution, r.refs) for r in inbound] == [
        ("shop/api/views.py", "unique_name", "method", "unique", 1),
        ("shop/api/views.py", "save", "method", "ambiguous", 1),
        ("shop/extras.py", "unique_name", "method", "unique", 1),
    ]
    sources = {r.source_path for r in queries.inbound_references(db, file_ids(db, "shop/models.py"))}
    assert "tests/test_cart.py" in sources


@pytest.mark.parametrize("layout, root, expected", [
    # The root is itself a package: its name leads, so absolute imports of it resolve.
    ({"shop/__init__.py": "", "shop/a.py": "class A:\n    pass\n",
      "shop/b.py": "import shop.a\nfrom shop.a import A\nshop.a.A()\n"},
     "shop", {("b.py", "shop.a.A", "import"): 2}),
    # A source directory that is no package: module names start below it.
    ({"src/pkg/__init__.py": "", "src/pkg/a.py": "def f():\n    pass\n",
      "src/pkg/b.py": "from pkg.a import f\nf()\n", "tests/test_b.py": "from src.pkg import a\na.f()\n"},
     ".", {("src/pkg/b.py", "pkg.a.f", "import"): 2, ("tests/test_b.py", "pkg.a.f", "import"): 1}),
    # A directory without __init__.py inside a package is a namespace package.
    ({"pkg/__init__.py": "", "pkg/base.py": "class B:\n    pass\n", "pkg/sub/mod.py": "from ..base import B\nB()\n",
      "pkg/sub/user.py": "from pkg.sub import mod\nfrom . import mod as again\nmod.B()\nagain.B()\n"},
     ".", {("pkg/sub/mod.py", "pkg.base.B", "import"): 2, ("pkg/sub/user.py", "pkg.base.B", "import"): 2}),
    # Relative imports that climb out of the packages resolve to nothing, and
    # what they bind is not matched by name either.
    ({"pkg/__init__.py": "", "pkg/a.py": "from ... import b\nfrom .. import c\nb.f()\nc.f()\n",
      "b.py": "def f():\n    pass\n", "c.py": "def f():\n    pass\n"},
     ".", {}),
    # A directory without __init__.py: its files import each other as top-level
    # modules (a neighbour first), and are named by their path from the root.
    ({"tests/helpers.py": "def build():\n    pass\n", "tests/test_a.py": "from helpers import build\nbuild()\n",
      "helpers.py": "def build():\n    pass\n", "tests/test_b.py": "import tests.helpers\ntests.helpers.build()\n"},
     ".", {("tests/test_a.py", "tests.helpers.build", "import"): 2,
           ("tests/test_b.py", "tests.helpers.build", "import"): 1}),
    # A re-export chain through two packages, and a name a module only imports from outside.
    ({"p/__init__.py": "from .q import Thing\n", "p/q/__init__.py": "from .impl import Thing\nfrom os import sep\n",
      "p/q/impl.py": "class Thing:\n    def run(self):\n        pass\n",
      "user.py": "import p\nfrom p.q import sep\np.Thing().run()\nsep.run()\n"},
     ".", {("user.py", "p.q.impl.Thing", "import"): 1, ("user.py", "p.q.impl.Thing.run", "import"): 1,
           ("p/__init__.py", "p.q.impl.Thing", "import"): 1, ("p/q/__init__.py", "p.q.impl.Thing", "import"): 1}),
    # The first of alternative imports of a name wins.
    ({"p/__init__.py": "", "p/fast.py": "def run():\n    pass\n", "p/slow.py": "def run():\n    pass\n",
      "user.py": "try:\n    import p.fast as impl\nexcept ImportError:\n    import p.slow as impl\nimpl.run()\n"},
     ".", {("user.py", "p.fast.run", "import"): 1}),
    # Methods of literals are the built-in types' own; free names are matched, builtins not.
    ({"a.py": "class A:\n    def unique_name(self):\n        pass\n",
      "b.py": "[].unique_name()\nf'{x}'.unique_name()\nlen([])\nunique_name()\n"},
     ".", {("b.py", "a.A.unique_name", "unique"): 1}),
])
def test_module_names_and_resolution(tmp_path, layout, root, expected):
    write_tree(tmp_path, layout)
    db = Database()
    index_tree(tmp_path / root, db, progress=None)
    rows = db.query("SELECT sf.path, d.fqn, r.resolution, r.count FROM refs r JOIN declarations d ON d.id = r.target_id"
                    " JOIN files sf ON sf.id = r.source_file_id")
    assert {(path, fqn, resolution): count for path, fqn, resolution, count in rows} == expected


def test_literal_all_forms(tmp_path):
    write_tree(tmp_path, {
        "a.py": "__all__ = ['f']\n__all__ += ['G']\n__all__.extend(('h',))\n"
                "def f(): pass\nG = 1\ndef h(): pass\ndef i(): pass\n",
        "b.py": "__all__ = [name for name in dir()]\ndef f(): pass\ndef _g(): pass\n",
        "c.py": "__all__ = []\nclass C:\n    def m(self): pass\n",
    })
    db = Database()
    index_tree(tmp_path, db, progress=None)
    exported = {s.fqn: s.is_export for s in symbols(db, "a.py", "b.py", "c.py").values()}
    # A computed __all__ is no literal: the underscore rule decides.
    assert exported == {"a.f": True, "a.G": True, "a.h": True, "a.i": False, "b.f": True, "b._g": False,
                        "c.C": False, "c.C.m": False}


@pytest.mark.parametrize("count, shown", [(3, False), (250, True)])
def test_progress_only_for_larger_trees(tmp_path, count, shown):
    write_tree(tmp_path, {f"pkg/m{n}.py": f"def f{n}():\n    return {n}\n" for n in range(count)})
    stream = io.StringIO()
    stats = index_tree(tmp_path, Database(), progress=stream)
    assert stats.files == count and stats.declarations == count
    lines = stream.getvalue().splitlines()
    if shown:
        assert lines[-1].startswith(f"indexed {count} files, {count} declarations")
        assert any(line.endswith(f"declared {count}/{count} files") for line in lines)
    else:
        assert lines == []


def test_roots_and_names_the_index_cannot_take(tmp_path):
    with pytest.raises(NotADirectoryError):
        index_tree(tmp_path / "missing", Database(), progress=None)
    write_tree(tmp_path, {"ok.py": "def fine():\n    pass\n"})
    (tmp_path / os.fsdecode(b"bad\xff.py")).write_text("def lost():\n    pass\n")
    db = Database()
    stats = index_tree(tmp_path, db, progress=None)
    assert (stats.files, stats.declarations, stats.unnamed) == (1, 1, [os.fsdecode(b"bad\xff.py")])
    # Indexing the same tree into the same index again stores nothing more.
    with pytest.raises(sqlite3.IntegrityError):
        index_tree(tmp_path, db, progress=None)
    assert db.query("SELECT count(*) FROM files") == [(1,)]
    assert db.query("SELECT count(*) FROM declarations") == [(1,)]
