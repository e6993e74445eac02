"""The main job on this interpreter's own standard library, summarised by section counts."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

import scope
from conftest import ROOT

# Per Python version: what the default page's grounding holds.
GOLDEN = {
    (3, 11, 7): {"file rows": 4, "consumer rows": 12, "more consumers": 6, "unused named": 4, "blocks": 24,
                 "seeds": 4, "neighbours": 12, "name matches": 10, "not counted": "69 `ambiguous`, 60 `unique`",
                 # Not a name match to some `.group()` or `.search()` among them.
                 "neighbour files": "email/_encoded_words.py email/_policybase.py email/charset.py email/errors.py "
                                    "email/policy.py re/__init__.py"},
}


def summary(text):
    sections = dict(re.findall(r"^## (.+?)\n(.*?)(?=^## |^---)", text, re.S | re.M))
    consumers = sections["Consumers"]
    unused = re.search(r"^Used by no production file outside this page: (.*)$", consumers, re.M)
    return {
        "file rows": sections["Files"].count("\n| `"),
        "consumer rows": len(re.findall(r"^- `", consumers, re.M)),
        "more consumers": int((re.search(r"_\.\.\.and (\d+) more files_", consumers) or [0, 0])[1]),
        "unused named": len(re.findall(r"`\w+` \(\w+, `", unused[1])) if unused else 0,
        "blocks": len(re.findall(r"^- `", sections["Declaration blocks"], re.M)),
        "seeds": len(re.findall(r"^- `", sections["Seeds"], re.M)),
        "neighbours": len(re.findall(r"^- `", sections["Neighbours"], re.M)),
        "neighbour files": " ".join(sorted(set(re.findall(r"^- `.*?` \(`(.*?)`", sections["Neighbours"], re.M)))),
        "name matches": len(re.findall(r"^- `", sections["Name matches"], re.M)),
        "not counted": re.search(r"^Not counted: (.*?) references", consumers, re.M)[1],
    }


@pytest.mark.skipif(sys.version_info[:3] not in GOLDEN, reason="no golden summary for this Python")
def test_the_demo_page_of_the_standard_library(tmp_path):
    env = {"PYTHONPATH": f"{Path(scope.__file__).parent}:{ROOT / 'host'}", "PATH": "/usr/bin:/bin"}
    result = subprocess.run([sys.executable, "-m", "tarnwick.tools.ground", "--index", str(tmp_path / "std.sqlite")],
                            capture_output=True, text=True, env=env, timeout=300)
    assert result.returncode == 0, result.stderr
    assert summary(result.stdout) == GOLDEN[sys.version_info[:3]]
