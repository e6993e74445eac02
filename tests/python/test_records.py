"""The records' contract (ScopeFacts, FanIn), the module's constants, imports and version, and its memory."""

import copy
import gc
import importlib.metadata
import pickle
import pydoc
import re
import resource
import subprocess
import sys
import tomllib
import weakref
from types import SimpleNamespace

import pytest

import pyscope
import scope
from conftest import ROOT, inref, make_facts, outref, sym
from tarnwick.models import edge, symbol as symbol_model
from tarnwick.storage import grounding_queries as queries
from tarnwick.storage.grounding_queries import ScopeFile

FIELDS = ("files", "symbols", "inbound", "outbound", "import_resolved_paths", "test_sources", "line_counts",
          "summaries", "test_imports")


def fields(**changes):
    return dict(dict(files=[ScopeFile(1, "a.py", "python")], symbols=[], inbound=[], outbound=[],
                     import_resolved_paths=["a.py", "z.py"], test_sources=set(), line_counts={"a.py": 3},
                     summaries={"a.py": "A."}, test_imports={"a.py": frozenset({"tests/t.py"})}), **changes)


def test_scope_facts_keeps_immutable_copies_of_its_fields():
    given = fields()
    facts = scope.ScopeFacts(**given)
    given["line_counts"]["a.py"] = 99
    given["files"].append(ScopeFile(2, "b.py", None))
    assert (facts.files, facts.line_counts, facts.import_resolved_paths) == (
        (ScopeFile(1, "a.py", "python"),), {"a.py": 3}, frozenset({"a.py", "z.py"}))
    assert [type(getattr(facts, name)) for name in FIELDS[:6]] == [tuple] * 4 + [frozenset] * 2
    assert (facts.paths, facts.import_resolved("z.py"), facts.import_resolved(path="b.py")) == ({"a.py"}, True, False)
    with pytest.raises(TypeError):
        facts.line_counts["a.py"] = 4
    for name in FIELDS + ("paths", "other"):
        with pytest.raises(AttributeError):
            setattr(facts, name, ())
        with pytest.raises(AttributeError):
            delattr(facts, name)


def test_scope_facts_compares_prints_and_copies_by_its_fields():
    values = fields()
    del values["test_imports"]
    facts = scope.ScopeFacts(*values.values())
    assert facts.test_imports == {} and facts == scope.ScopeFacts(**values) != scope.ScopeFacts(**fields())
    assert facts != SimpleNamespace(**{name: getattr(facts, name) for name in FIELDS})
    with pytest.raises(TypeError):
        hash(facts)
    text = repr(facts)
    assert text.startswith("ScopeFacts(files=(ScopeFile(id=1, path='a.py', language='python'),), symbols=()")
    assert [text.index(f" {name}=") for name in FIELDS[1:]] == sorted(text.index(f" {name}=") for name in FIELDS[1:])
    target = sym(7, "a.py", "f")
    full = scope.ScopeFacts(**fields(symbols=[target], inbound=[inref("b.py", target)]))
    scope.file_users(full)  # a converted facts compares and copies by its fields alone
    for clone in (lambda f: pickle.loads(pickle.dumps(f)), copy.deepcopy, copy.copy):
        assert clone(full) == full and type(clone(full)) is scope.ScopeFacts


@pytest.mark.parametrize("change, message", [
    (dict(colour=1), "colour"), (dict(files=5), r"ScopeFacts\(\) argument 'files' must be a sequence, not int"),
    (dict(line_counts=[("a.py", 1)]), "'line_counts' must be a mapping"),
    *[(dict.fromkeys([name]), name) for name in FIELDS[:-1]],  # None for a field stands for its absence here
])
def test_scope_facts_names_what_is_wrong(change, message):
    values = fields(**change)
    with pytest.raises(TypeError, match=message):
        scope.ScopeFacts(**{name: value for name, value in values.items() if value is not None})


def test_fan_in_is_a_named_triple_whose_api_reads_outside_and_entry():
    built = scope.FanIn({1: 2, 2: 0}, {3: 9}, frozenset({4}))
    assert built == ({1: 2, 2: 0}, {3: 9}, frozenset({4})) and scope.FanIn._fields == ("outside", "inside", "entry")
    assert [built.api(i) for i in range(1, 6)] == [True, False, False, True, False]
    assert repr(scope.FanIn({1: 1})) == "FanIn(outside={1: 1}, inside=mappingproxy({}), entry=frozenset())"
    assert pickle.loads(pickle.dumps(built)) == built and built._replace(entry=frozenset()).entry == frozenset()
    text = pydoc.render_doc(scope.FanIn, renderer=pydoc.plaintext)  # one default per field in its help
    assert set(re.findall(r"inside=(.*?), entry=(.*?)\)$", text, re.M)) == {("mappingproxy({})", "frozenset()")}
    with pytest.raises(TypeError):
        scope.FanIn()


def test_constants_and_the_hosts_own_objects():
    for name in ("EVIDENCE_RESOLUTIONS", "_TRUSTED", "_TYPE_KINDS", "_CARD_NAMES", "_CONSUMER_ROWS", "_CONSUMER_NAMES",
                 "_UNUSED_NAMES", "_SIZE_CAP"):  # the values the plain implementation spells out
        ours, plain = getattr(scope, name), getattr(pyscope, name)
        assert (ours, type(ours)) == (plain, type(plain))
    assert scope._CALLABLE_KINDS is symbol_model.CALLABLE_KINDS and not hasattr(scope, "CALLABLE_KINDS")
    assert scope.TRUSTED_RESOLUTIONS is edge.TRUSTED_RESOLUTIONS
    for name in ("NAME_MATCH_KINDS", "ScopeFile", "ScopeSymbol", "InboundReference", "OutboundReference", "scope_files",
                 "scope_symbols", "inbound_references", "outbound_references", "import_resolved_languages"):
        assert getattr(scope, name) is getattr(queries, name)
    with open(ROOT / "pyproject.toml", "rb") as file:
        project = tomllib.load(file)["project"]
    assert scope.__version__ == project["version"]
    try:
        assert importlib.metadata.version(project["name"]) == scope.__version__
    except importlib.metadata.PackageNotFoundError:  # the fast loop's build, not installed
        pass


def test_a_missing_sibling_module_fails_the_import():
    code = (f"import sys; sys.path[:0] = {sys.path!r}\nsys.modules['tarnwick.workers.wiki.file_summary'] = None\n"
            "try:\n    import scope\nexcept ImportError as e:\n    print(e.name)\n")
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, check=True).stdout
    assert out.strip() == "tarnwick.workers.wiki.file_summary"


@pytest.mark.parametrize("where", ["files", "target"])
def test_a_reference_cycle_through_a_facts_is_collected(where):
    record = type("Record", (), dict(id=1, path="a.py", name="f", fqn="f", kind="function", language=None))()
    if where == "files":
        facts = scope.ScopeFacts([record], (), (), (), (), (), {}, {})
        scope.render_consumers(facts, scope.FanIn({}), "#")
    else:  # the view holds the outbound targets too
        facts = make_facts(["b.py"], outbound=[outref("b.py", record)])
        scope.neighbours(facts, 3)
    record.facts, alive = facts, weakref.ref(record)
    del facts, record
    gc.collect()
    assert alive() is None


def test_building_comparing_and_converting_many_records_does_not_grow_memory():
    files = (ScopeFile(1, "a.py", "python"),)

    def churn(rounds):
        for i in range(rounds):
            assert scope.FanIn({i: 1}, {}, frozenset()) == scope.FanIn({i: 1})
        for i in range(rounds // 100):
            a = scope.ScopeFacts(files, (), (), (), {"a.py"}, (), {"a.py": i}, {}, {})
            assert a == scope.ScopeFacts(files, (), (), (), {"a.py"}, (), {"a.py": i}, {}, {})
            scope.render_consumers(a, scope.FanIn({}), "#")
        gc.collect()
        return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss

    before = churn(100_000)
    assert churn(1_000_000) - before < 20_000  # kB
