"""The Python source indexer: what small trees put into the index, read back through the grounding queries."""

import io
import os
import sqlite3
import textwrap

import pytest

from tarnwick.indexer import index_tree
from tarnwick.storage import grounding_queries as queries
from tarnwick.storage.database import Database

TREE = {
    "shop/__init__.py": '"""The shop."""\nfrom .models import Cart\nfrom . import models as _models\n'
                        '__all__ = ["Cart", "checkout"]\n\ndef checkout():\n    return Cart()\n\n'
                        'def helper():\n    return _models.make()\n',
    "shop/models.py": '''\
        """Cart and items."""
        import functools
        from typing import NamedTuple
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

            @property
            def size(self):
                return 0

            @functools.cached_property
            def label(self) -> str:
                return ""

        class _Hidden:
            def visible(self):
                pass

        class Pair(NamedTuple):
            left: int
            right: int = 0

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
    "billing/ledger.py": "class Ledger:\n    def unique_name(self):\n        pass\n    def save(self):\n        pass\n",
    "billing/archive.py": "class Archive:\n    def save(self):\n        pass\n    def total_price(self):\n"
                          "        pass\n    def __enter__(self):\n        return self\n",
    "tests/conftest.py": "def fixture_only():\n    pass\n",
    "tests/test_cart.py": "from shop.models import Cart\n\ndef test_cart():\n    Cart().add_line(1)\n",
    "broken.py": "def oops(:\n",
    ".hidden/secret.py": "def hidden():\n    pass\n",
    "shop/__pycache__/models.py": "def cached():\n    pass\n",
    "venv/pyvenv.cfg": "home = /usr/bin\n",
    "venv/lib/site.py": "def in_venv():\n    pass\n",
    "lib/site-packages/dep.py": "def dependency():\n    pass\n",
    "build/lib/shop/models.py": "class Cart:\n    pass\n",
    "notes.txt": "not python\n",
}
RAW = {"undecodable.py": b"X = 1\nNAME = '\xff\xfe'\n", "cookie.py": b"# coding: nosuch\n",
       "latin.py": "# -*- coding: latin-1 -*-\nCAF\u00c9 = '\u00e9'\n".encode("latin-1"),
       os.fsdecode(b"bad\xff.py"): b"def lost():\n    pass\n"}
INDEXED = sorted(["shop/__init__.py", "shop/models.py", "shop/api/__init__.py", "shop/api/helpers.py",
                  "shop/api/views.py", "shop/extras.py", "billing/ledger.py", "billing/archive.py",
                  "tests/conftest.py", "tests/test_cart.py", "broken.py", "undecodable.py", "cookie.py", "latin.py"])


def write_tree(root, tree, raw=None):
    """Write `tree` (texts, dedented) and `raw` (bytes) under `root`."""
    files = {path: textwrap.dedent(text).encode() for path, text in tree.items()} | (raw or {})
    for path, data in files.items():
        (root / path).parent.mkdir(parents=True, exist_ok=True)
        (root / path).write_bytes(data)
    return root


@pytest.fixture(scope="module")
def indexed(tmp_path_factory):
    root = write_tree(tmp_path_factory.mktemp("tree"), TREE, RAW)
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


def test_files_skipped_directories_and_files_that_cannot_be_indexed(indexed):
    db, stats = indexed
    skipped = [".hidden/secret.py", "shop/__pycache__/models.py", "venv/lib/site.py", "lib/site-packages/dep.py",
               "notes.txt", "build/lib/shop/models.py"]
    assert [(f.path, f.language) for f in queries.scope_files(db, INDEXED + skipped)] == [
        (path, "python") for path in INDEXED]
    assert queries.import_resolved_languages(db, ["go", "python"]) == {"python"}
    # One row per (source, target, resolution).
    assert (stats.files, stats.declarations, stats.references, sum(stats.by_resolution.values())) == (
        len(INDEXED), *db.query("SELECT (SELECT count(*) FROM declarations), (SELECT count(DISTINCT source_file_id"
                                " || ' ' || target_id || resolution) FROM refs), (SELECT sum(count) FROM refs)")[0])
    assert stats.unparsable == {"broken.py": "syntax error at line 1: invalid syntax",
                                "cookie.py": "unknown encoding: nosuch", "undecodable.py": "not valid UTF-8 (line 2)"}
    assert stats.unnamed == [os.fsdecode(b"bad\xff.py")]
    assert symbols(db, *stats.unparsable) == {}
    assert list(symbols(db, "latin.py")) == ["latin.CAF\u00c9"]  # read in the encoding its coding line names


MODELS = {  # shop/models.py, exactly: (kind, start line, end line, exported)
    "LIMIT": ("constant", 4, 4, True), "_SECRET": ("constant", 5, 5, False), "Cart": ("class", 8, 33, True),
    "Cart.kind": ("attribute", 9, 9, True), "Cart.Line": ("class", 11, 13, True), "make": ("function", 43, 44, True),
    "Cart.Line.total": ("method", 12, 13, True), "Cart.__init__": ("method", 15, 18, False),
    "Cart.add_line": ("method", 20, 22, True), "Cart.count": ("method", 24, 25, True),
    "Cart.size": ("property", 28, 29, True), "Cart.label": ("property", 32, 33, True),
    # Instance attributes: once per class and name, at the first assignment.
    "Cart.lines": ("attribute", 16, 16, True), "Cart.owner": ("attribute", 18, 18, True),
    "Cart.note": ("attribute", 18, 18, True),
    # A public member of a private class is not exported.
    "_Hidden": ("class", 35, 37, False), "_Hidden.visible": ("method", 36, 37, False),
    # Annotated names of a class body are fields (NamedTuples, dataclasses); assigned ones attributes.
    "Pair": ("class", 39, 41, True), "Pair.left": ("field", 40, 40, True), "Pair.right": ("field", 41, 41, True)}
OTHERS = {  # __all__ decides what a package exports; `parser` is declared in the class body, then typed.
    "shop.checkout": ("function", 6, 7, True), "shop.helper": ("function", 9, 10, False),
    "billing.ledger.Ledger.save": ("method", 4, 5, True), "tests.conftest.fixture_only": ("function", 1, 2, True),
    "shop.extras.Holder.parser": ("attribute", 29, 29, True)}


def test_declarations(indexed):
    db, _ = indexed
    declared = {s.fqn: (s.kind, s.start_line, s.end_line, s.is_export) for s in symbols(db, *INDEXED).values()}
    assert {fqn[12:]: found for fqn, found in declared.items() if fqn.startswith("shop.models.")} == MODELS
    assert {fqn: declared[fqn] for fqn in OTHERS} == OTHERS
    # Local names, and attributes set on anything but `self`, are no declarations.
    assert not [fqn for fqn in declared if fqn.startswith("shop.api.views.view.") or fqn.endswith(".extra")]
    # The kinds of values are exactly those the module treats as name matches.
    assert {kind for kind, *_ in declared.values()} - {"class", "function", "method"} == queries.NAME_MATCH_KINDS


# Every reference from each file, exactly: {(target, resolution): count}.
REFERENCES = {
    # Names bound in the same file; `self.member` inside a class; stores (`self.lines = ...`) and defining
    # names are no uses.
    "shop/models.py": {("shop.models.LIMIT", "local"): 1, ("shop.models._SECRET", "local"): 1, ("shop.models.Cart",
                       "local"): 1, ("shop.models.Cart.count", "local"): 1, ("shop.models.Cart.lines", "local"): 1},
    "shop/__init__.py": {("shop.models.Cart", "import"): 2, ("shop.models.make", "import"): 1},
    "shop/api/views.py": {
        # Relative from-imports: the imported name counts once, and each use; `from .. import models`,
        # `import shop.models as m` and `from . import helpers` reach members through chains.
        ("shop.models.make", "import"): 2, ("shop.models.Cart", "import"): 3, ("shop.models.Cart.count", "import"): 1,
        ("shop.models.Cart.Line", "import"): 1, ("shop.models.LIMIT", "import"): 1,
        ("shop.api.helpers.tool", "import"): 1,
        # Unknown receivers (`cart = make()`, `order`) matched against members of production classes; not
        # `fixture_only` of a test file, nor the special `__enter__`.
        ("shop.models.Cart.add_line", "ambiguous"): 1, ("shop.extras.Special.add_line", "ambiguous"): 1,
        ("billing.ledger.Ledger.unique_name", "unique"): 1, ("billing.ledger.Ledger.save", "ambiguous"): 1,
        ("billing.archive.Archive.save", "ambiguous"): 1},
    "shop/extras.py": {
        # Re-exported by the package, a star import, base classes, super(), annotations, constructor calls,
        # typed attributes and return annotations; `np.save`, `self.save` in an Exception, `"text".count`
        # and `session` (from outside the tree) match nothing; `other: "Cart"` has no `total_price`.
        ("shop.models.Cart", "import"): 9, ("shop.models.make", "import"): 1,
        ("shop.models.Cart.add_line", "import"): 2, ("shop.models.Cart.count", "import"): 5,
        ("shop.extras.Holder.parser", "local"): 1, ("shop.extras.Holder.maybe", "local"): 1,
        ("shop.extras.make_cart", "local"): 1, ("billing.archive.Archive.total_price", "unique"): 1,
        ("billing.ledger.Ledger.unique_name", "unique"): 1},
    # A test file's references, resolved like any other.
    "tests/test_cart.py": {("shop.models.Cart", "import"): 2, ("shop.models.Cart.add_line", "import"): 1},
}


def test_references(indexed):
    db, _ = indexed
    assert {path: found for path in INDEXED if (found := outbound(db, path))} == REFERENCES


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
    # Values from outside the tree have no attributes of ours: literals, comprehensions, builtins' results,
    # calls of modules outside, functions that return nothing else (None, parameters and items aside) and
    # generators.  A name bound nowhere is matched against module-level declarations only.
    ({"a.py": "class A:\n    def run(self):\n        pass\ndef helper():\n    pass\n",
      "c.py": "import re\ndef compiled(p, cache={}):\n    if cache:\n        return cache[p]\n    if p:\n"
              "        return p\n    return re.compile(p)\ndef numbers():\n    yield 1\n"
              "def either(p):\n    if p:\n        return p.build()\n    return []\n",
      "b.py": "from c import compiled, numbers, either\nx = 'text'\ny = {k: 1 for k in x}\nz = len(x)\n"
              "[].run(); f'{x}'.run(); x.run(); y.run(); z.run(); compiled(x).run(); numbers().run()\n"
              "either(x).run(); helper(); run()\n"},
     ".", {("b.py", "c.compiled", "import"): 2, ("b.py", "c.numbers", "import"): 2, ("b.py", "c.either", "import"): 2,
           ("b.py", "a.A.run", "unique"): 1, ("b.py", "a.helper", "unique"): 1}),
])
def test_module_names_and_resolution(tmp_path, layout, root, expected):
    assert everything(index(write_tree(tmp_path, layout) / root))[1] == expected


def test_only_files_are_read_a_named_pipe_or_a_dangling_link_is_left_out(tmp_path):
    root = write_tree(tmp_path, {"a.py": "def f():\n    pass\n"})
    os.mkfifo(root / "pipe.py")  # a reader would wait for a writer forever
    (root / "gone.py").symlink_to(root / "nowhere.py")
    (root / "alias.py").symlink_to(root / "a.py")
    assert sorted(everything(index(root))[0]) == ["a.f", "alias.f"]


def index(root, **options):
    db = Database()
    index_tree(root, db, progress=None, **options)
    return db


def everything(db):
    """({fqn: (path, kind, start, end, exported)}, {(source path, target fqn, resolution): count})."""
    return ({fqn: rest for fqn, *rest in db.query(
                "SELECT d.fqn, f.path, d.kind, d.start_line, d.end_line, d.exported FROM declarations d"
                " JOIN files f ON f.id = d.file_id")},
            {tuple(key): count for *key, count in db.query(
                "SELECT sf.path, d.fqn, r.resolution, r.count FROM refs r JOIN declarations d ON d.id = r.target_id"
                " JOIN files sf ON sf.id = r.source_file_id")})


def test_literal_all_forms(tmp_path):
    db = index(write_tree(tmp_path, {
        "a.py": "__all__ = ['f']\n__all__ += ['G']\n__all__.extend(('h',))\ndef f(): pass\nG = 1\ndef h(): pass\n"
                "def i(): pass\n",
        "b.py": "__all__ = [name for name in dir()]\ndef f(): pass\ndef _g(): pass\n",  # no literal: underscores decide
        "c.py": "__all__ = []\nclass C:\n    def m(self): pass\n"}))
    assert {fqn: exported for fqn, (*_, exported) in everything(db)[0].items()} == {
        "a.f": 1, "a.G": 1, "a.h": 1, "a.i": 0, "b.f": 1, "b._g": 0, "c.C": 0, "c.C.m": 0}


@pytest.mark.parametrize("count", [3, 250])
def test_progress_only_for_larger_trees(tmp_path, count):
    write_tree(tmp_path, {f"pkg/m{n}.py": f"def f{n}():\n    return {n}\n" for n in range(count)})
    stream = io.StringIO()
    assert index_tree(tmp_path, Database(), progress=stream).declarations == count
    lines = stream.getvalue().splitlines()
    assert lines == [] if count < 200 else (lines[-1].startswith(f"indexed {count} files, {count} declarations")
                                            and f"indexing {tmp_path}: declared {count}/{count} files" in lines)


def test_unchanged_files_lend_their_analysis_to_the_next_index(tmp_path):
    root = write_tree(tmp_path, TREE, RAW)
    first = index(root)
    (root / "shop/models.py").write_text("\n\n" + textwrap.dedent(TREE["shop/models.py"]))
    again, fresh = Database(), Database()
    stats = index_tree(root, again, progress=None, previous=first)
    assert (stats.parsed, stats.reused) == (1, len(INDEXED) - 1)
    assert stats.unparsable == index_tree(root, fresh, progress=None).unparsable
    assert everything(again) == everything(fresh)


def test_roots_and_indexes_the_indexer_refuses(tmp_path):
    with pytest.raises(NotADirectoryError):
        index(tmp_path / "missing")
    db = index(write_tree(tmp_path, {"ok.py": "def fine():\n    pass\n"}))
    with pytest.raises(sqlite3.IntegrityError):  # the same tree into the same index again stores nothing more
        index_tree(tmp_path, db, progress=None)
    assert db.query("SELECT count(*) FROM files UNION ALL SELECT count(*) FROM declarations") == [(1,), (1,)]
