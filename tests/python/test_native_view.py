"""Conversion of the host's records into the native view."""

import pytest

import scope
from conftest import inref, make_facts, sym
from tarnwick.storage.grounding_queries import ScopeFile

ODD_TEXTS = ["plain", "", "nul\x00inside", "lone \ud800 surrogate", "\udfff", "astral \U0001f600", "é/ü.py",
             "tab\tand\nnewline"]


def test_strings_come_back_unchanged():
    symbols = [sym(i, text, text, kind=text, fqn=text) for i, text in enumerate(ODD_TEXTS)]
    facts = make_facts(files=["x"], symbols=symbols)
    paths, names, kinds, fqns = scope._native_columns(facts, "symbols", ["path", "name", "kind", "fqn"])
    assert paths == names == kinds == fqns == ODD_TEXTS


def test_integers_bool_and_optional_language():
    target = sym(-5, "a", "f", start=2**63 - 1, end=-(2**63), export=0)
    facts = scope.ScopeFacts((ScopeFile(1, "a", None),), (target,), (), (), (), (), {}, {})
    assert scope._native_columns(facts, "symbols", ["id", "start_line", "end_line", "is_export"]) == (
        [-5], [2**63 - 1], [-(2**63)], [False])
    assert scope._native_columns(facts, "files", ["language"]) == ([None],)


@pytest.mark.parametrize("value", [2**63, -(2**63) - 1, 2**200])
def test_integers_beyond_64_bits_raise_overflow(value):
    facts = make_facts(files=["a"], symbols=[sym(value, "a", "f")])
    with pytest.raises(OverflowError):
        scope._native_columns(facts, "symbols", ["id"])
    # The failed conversion left nothing behind; a valid column still converts.
    assert scope._native_columns(facts, "symbols", ["name"]) == (["f"],)


def test_wrong_types_raise_type_error():
    facts = make_facts(files=["a"], symbols=[sym("7", "a", "f")])
    with pytest.raises(TypeError, match="ScopeSymbol.id must be int"):
        scope._native_columns(facts, "symbols", ["id"])
    facts = make_facts(files=["a"], symbols=[sym(1, b"a", "f")])
    with pytest.raises(TypeError, match="ScopeSymbol.path must be str"):
        scope._native_columns(facts, "symbols", ["path"])


def test_missing_attribute_raises_attribute_error_only_when_read(counting):
    record = counting(id=1, path="a", name="f", kind="function", start_line=1, end_line=2)  # no fqn
    facts = make_facts(files=["a"], symbols=[record])
    assert scope._native_columns(facts, "symbols", ["id", "kind"]) == ([1], ["function"])
    with pytest.raises(AttributeError, match="fqn"):
        scope._native_columns(facts, "symbols", ["fqn"])


def test_second_use_reads_no_attribute(counting):
    records = [counting(id=i, path="a", name=f"n{i}", kind="class", start_line=i, end_line=i + 1, fqn="q",
                        is_export=True) for i in range(50)]
    facts = make_facts(files=["a"], symbols=records)
    scope._native_columns(facts, "symbols", ["id", "kind", "name"])
    assert counting.reads == 150
    scope._native_columns(facts, "symbols", ["kind", "id"])
    assert counting.reads == 150
    scope._native_columns(facts, "symbols", ["kind", "start_line"])  # only the new column is read
    assert counting.reads == 200


def test_outbound_targets_are_read_through_the_record():
    target = sym(3, "lib/x.py", "X", kind="class", fqn="lib.x.X")
    facts = make_facts(files=["a"], outbound=[scope.OutboundReference("a", target, "import", 2)])
    assert scope._native_columns(facts, "outbound", ["id", "path", "kind", "fqn", "refs"]) == (
        [3], ["lib/x.py"], ["class"], ["lib.x.X"], [2])


def test_a_property_error_propagates_unchanged():
    class Exploding:
        id = 1

        @property
        def path(self):
            raise KeyError("from the host")

    facts = make_facts(files=["a"], inbound=[inref("b", sym(1, "a", "f"))], symbols=[Exploding()])
    with pytest.raises(KeyError, match="from the host"):
        scope._native_columns(facts, "symbols", ["path"])


def test_slotted_records_read_like_attribute_access():
    class Slotted:
        __slots__ = ("id", "path", "name", "fqn", "kind", "start_line", "end_line", "is_export")

    class Overriding(Slotted):
        __slots__ = ()

        @property
        def name(self):
            return "from a property"

    records = []
    for i, cls in enumerate([Slotted, Overriding, Slotted]):
        record = cls()
        for field in Slotted.__slots__:
            if not (cls is Overriding and field == "name"):
                setattr(record, field, f"{field}{i}" if field in ("path", "name", "fqn", "kind") else i)
        records.append(record)
    facts = make_facts(["a"], symbols=records)
    assert scope._native_columns(facts, "symbols", ["name", "id"]) == (
        ["name0", "from a property", "name2"], [0, 1, 2])
    unset = Slotted()
    unset.id = 5
    with pytest.raises(AttributeError, match="path"):
        scope._native_columns(make_facts(["a"], symbols=[records[0], unset]), "symbols", ["path"])
