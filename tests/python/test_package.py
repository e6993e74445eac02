"""What the module says of itself: its version and its help."""

import importlib.metadata
import pydoc
import re
import tomllib

import scope
from conftest import ROOT


def test_one_version_in_pyproject_module_and_installed_distribution():
    with open(ROOT / "pyproject.toml", "rb") as file:
        project = tomllib.load(file)["project"]
    assert scope.__version__ == project["version"]
    try:
        installed = importlib.metadata.version(project["name"])
    except importlib.metadata.PackageNotFoundError:  # the fast loop's build, not installed
        return
    assert installed == scope.__version__


def test_help_shows_one_default_per_fan_in_field():
    text = pydoc.render_doc(scope.FanIn, renderer=pydoc.plaintext)
    assert set(re.findall(r"\binside=(.*?), entry=(.*?)\)$", text, re.M)) == {("mappingproxy({})", "frozenset()")}
