"""The records' contract: ScopeFacts, FanIn, the module's constants and imports."""

import copy
import gc
import pickle
import resource
import subprocess
import sys
import types

import pytest

import scope
from conftest import inref, make_facts, sym
from tarnwick.models import edge, symbol as symbol_model
from tarnwick.storage import grounding_queries as queries
from tarnwick.storage.grounding_queries import ScopeFile

FIELDS = ("files", "symbols", "inbound", "outbound", "import_resolved_paths", "test_sources", "line_counts",
          "summaries", "test_imports")


def fields(**over):
    base = dict(files=[ScopeFile(1, "a.py", "python")], symbols=[], inbound=[], outbound=[],
                import_resolved_paths=["a.py"], test_sources=set(), line_counts={"a.py": 3},
                summaries={"a.py": "A."}, test_imports={"a.py": frozenset({"tests/t.py"})})
    base.update(over)
    return base


class TestScopeFacts:
    def test_stores_immutable_containers_and_its_own_copies(self):
        given = fields()
        facts = scope.ScopeFacts(**given)
        assert type(facts.files) is tuple and type(facts.symbols) is tuple
        assert facts.import_resolved_paths == frozenset({"a.py"})
        assert type(facts.import_resolved_paths) is frozenset and type(facts.test_sources) is frozenset
        given["line_counts"]["a.py"] = 99
        given["summaries"].clear()
        given["files"].append(ScopeFile(2, "b.py", None))
        assert facts.line_counts == {"a.py": 3} and facts.summaries == {"a.py": "A."}
        assert len(facts.files) == 1
        with pytest.raises(TypeError):
            facts.line_counts["a.py"] = 4

    def test_positional_construction_and_default_test_imports(self):
        values = fields()
        del values["test_imports"]
        facts = scope.ScopeFacts(*values.values())
        assert facts.test_imports == {}
        assert facts == scope.ScopeFacts(**values)

    @pytest.mark.parametrize("drop", FIELDS[:-1])
    def test_missing_field_is_named(self, drop):
        values = fields()
        del values[drop]
        with pytest.raises(TypeError, match=drop):
            scope.ScopeFacts(**values)

    def test_unknown_keyword_and_wrong_types_are_named(self):
        with pytest.raises(TypeError, match="colour"):
            scope.ScopeFacts(**fields(colour=1))
        with pytest.raises(TypeError, match=r"ScopeFacts\(\) argument 'files' must be a sequence, not int"):
            scope.ScopeFacts(**fields(files=5))
        with pytest.raises(TypeError, match="'line_counts' must be a mapping"):
            scope.ScopeFacts(**fields(line_counts=[("a.py", 1)]))

    @pytest.mark.parametrize("name", FIELDS + ("paths", "other"))
    def test_attributes_cannot_be_set_or_deleted(self, name):
        facts = scope.ScopeFacts(**fields())
        with pytest.raises(AttributeError):
            setattr(facts, name, ())
        with pytest.raises(AttributeError):
            delattr(facts, name)

    def test_equality_compares_the_fields_and_never_other_types(self):
        a, b = scope.ScopeFacts(**fields()), scope.ScopeFacts(**fields())
        assert a == b and not (a != b)
        assert a != scope.ScopeFacts(**fields(test_imports={}))
        assert a != scope.ScopeFacts(**fields(line_counts={"a.py": 4}))
        assert a != tuple(getattr(a, name) for name in FIELDS)
        assert a != types.SimpleNamespace(**{name: getattr(a, name) for name in FIELDS})
        with pytest.raises(TypeError):
            hash(a)

    def test_repr_lists_the_fields_in_order(self):
        text = repr(scope.ScopeFacts(**fields()))
        assert text.startswith("ScopeFacts(files=(ScopeFile(id=1, path='a.py', language='python'),), symbols=()")
        assert [text.index(f"{name}=") for name in FIELDS] == sorted(text.index(f"{name}=") for name in FIELDS)
        assert "line_counts={'a.py': 3}" in text

    @pytest.mark.parametrize("clone", [lambda f: pickle.loads(pickle.dumps(f)), copy.deepcopy, copy.copy])
    def test_round_trips(self, clone):
        target = sym(7, "a.py", "f")
        facts = scope.ScopeFacts(**fields(symbols=[target], inbound=[inref("b.py", target)]))
        again = clone(facts)
        assert again == facts and type(again) is scope.ScopeFacts
        assert again.paths == {"a.py"}

    def test_paths_and_import_resolved(self):
        empty = make_facts()
        assert empty.paths == frozenset() and not empty.import_resolved("a.py")
        facts = make_facts(files=["a.py", "b.go"], resolved=["a.py"])
        assert facts.paths == frozenset({"a.py", "b.go"})
        assert facts.import_resolved("a.py") is True
        assert facts.import_resolved(path="b.go") is False
        assert facts.import_resolved("elsewhere.py") is False

    def test_import_resolved_reads_only_its_own_set(self):
        # A path in the set but not among the files still answers true.
        facts = make_facts(files=["a.py"], resolved=["z.py"])
        assert facts.import_resolved("z.py") and not facts.import_resolved("a.py")


class TestFanIn:
    def test_is_a_named_triple_with_defaults(self):
        fan_in = scope.FanIn({1: 2})
        assert isinstance(fan_in, tuple) and len(fan_in) == 3
        assert fan_in.inside == {} and fan_in.entry == frozenset()
        with pytest.raises(TypeError):
            fan_in.inside[1] = 2
        assert scope.FanIn._fields == ("outside", "inside", "entry")
        built = scope.FanIn(outside={1: 1}, inside={2: 2}, entry=frozenset({3}))
        assert built == ({1: 1}, {2: 2}, frozenset({3}))
        assert built._asdict() == {"outside": {1: 1}, "inside": {2: 2}, "entry": frozenset({3})}
        assert built._replace(entry=frozenset()).entry == frozenset()
        assert repr(built) == "FanIn(outside={1: 1}, inside={2: 2}, entry=frozenset({3}))"
        assert pickle.loads(pickle.dumps(built)) == built
        with pytest.raises(TypeError):
            scope.FanIn()

    @pytest.mark.parametrize("symbol_id, expected", [(1, True), (2, False), (3, False), (4, True), (5, False)])
    def test_api_reads_outside_and_entry_only(self, symbol_id, expected):
        fan_in = scope.FanIn({1: 2, 2: 0}, {3: 9}, frozenset({4}))
        assert fan_in.api(symbol_id) is expected


class TestModule:
    def test_constants(self):
        assert scope.EVIDENCE_RESOLUTIONS == frozenset({"import", "local"})
        assert type(scope.EVIDENCE_RESOLUTIONS) is frozenset
        assert scope._TYPE_KINDS == frozenset({"enum", "class", "interface", "type", "struct"})
        assert (scope._CARD_NAMES, scope._CONSUMER_ROWS, scope._CONSUMER_NAMES, scope._UNUSED_NAMES,
                scope._SIZE_CAP) == (3, 12, 4, 8, 40)
        assert scope._TRUSTED == frozenset(edge.TRUSTED_RESOLUTIONS) and type(scope._TRUSTED) is frozenset
        assert "unique" in scope._TRUSTED and "ambiguous" not in scope._TRUSTED

    def test_imported_names_are_the_hosts_own_objects(self):
        assert scope._CALLABLE_KINDS is symbol_model.CALLABLE_KINDS
        assert not hasattr(scope, "CALLABLE_KINDS")
        assert scope.NAME_MATCH_KINDS is queries.NAME_MATCH_KINDS
        assert scope.TRUSTED_RESOLUTIONS is edge.TRUSTED_RESOLUTIONS
        for name in ("ScopeFile", "ScopeSymbol", "InboundReference", "OutboundReference", "scope_files",
                     "scope_symbols", "inbound_references", "outbound_references", "import_resolved_languages"):
            assert getattr(scope, name) is getattr(queries, name)

    def test_a_missing_sibling_module_fails_the_import(self):
        code = (f"import sys; sys.path[:0] = {sys.path!r}\n"
                "sys.modules['tarnwick.workers.wiki.file_summary'] = None\n"
                "try:\n    import scope\nexcept ImportError as e:\n    print('ImportError', e.name)\n")
        out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True,
                             check=True).stdout
        assert out.strip() == "ImportError tarnwick.workers.wiki.file_summary"


def test_building_and_comparing_many_records_does_not_grow_memory():
    files = (ScopeFile(1, "a.py", "python"),)

    def churn(rounds):
        for i in range(rounds):
            assert scope.FanIn({i: 1}, {}, frozenset()) == scope.FanIn({i: 1})
        for i in range(rounds // 100):
            a = scope.ScopeFacts(files, (), (), (), {"a.py"}, (), {"a.py": i}, {}, {})
            assert a == scope.ScopeFacts(files, (), (), (), {"a.py"}, (), {"a.py": i}, {}, {})
            scope._native_columns(a, "files", ["path", "language"])

    churn(100_000)
    gc.collect()
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    churn(1_000_000)
    gc.collect()
    grown_kib = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before
    assert grown_kib < 20_000
