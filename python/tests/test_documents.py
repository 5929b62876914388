"""Every block of code that people read: pages, docstrings, the notebook."""

import contextlib
import doctest
import importlib
import io
import os
import pathlib
import pkgutil
import re

import numpy
import pytest

import ornik

ROOT = pathlib.Path(__file__).parents[2]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs/python").glob("*.md"))]
BLOCK = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
MODULES = [ornik.__name__, *sorted(m.name for m in pkgutil.walk_packages(ornik.__path__, "ornik."))]


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_pages(page, tmp_path, monkeypatch):
    """The blocks of a page are one program; a block of text behind one is what it prints."""
    monkeypatch.chdir(tmp_path)
    text = page.read_text()
    names, printed = {"__name__": page.stem}, None
    for block in BLOCK.finditer(text):
        kind, content = block.groups()
        if kind == "python":
            code = compile("\n" * text[: block.start(2)].count("\n") + content, str(page), "exec")
            with contextlib.redirect_stdout(io.StringIO()) as output:
                exec(code, names)
            printed = output.getvalue()
        elif kind == "text" and printed is not None:
            assert printed == content, f"line {text[: block.start()].count(chr(10)) + 1} of {page.name}"
            printed = None
        else:
            printed = None


@pytest.mark.parametrize("name", [m for m in MODULES if "._ornik" not in m])
def test_docstrings(name):
    module = importlib.import_module(name)
    names = {"ornik": ornik, "nn": ornik.nn, "np": numpy, "numpy": numpy}
    ornik.random.seed(0)
    failures = [
        result
        for test in doctest.DocTestFinder(exclude_empty=True).find(module, name, globs={**vars(module), **names})
        if (result := doctest.DocTestRunner(verbose=False).run(test)).failed
    ]
    assert failures == []


def test_notebook(tmp_path):
    import nbformat
    from nbclient import NotebookClient

    for path in sorted((ROOT / "examples/python").glob("*.ipynb")):
        notebook = nbformat.read(path, as_version=4)
        assert all(not cell.get("outputs") for cell in notebook.cells), f"{path.name}: results are kept out of git"
        client = NotebookClient(notebook, timeout=300, resources={"metadata": {"path": str(tmp_path)}})
        client.execute(env={**os.environ, "PYTHONPATH": str(pathlib.Path(ornik.__file__).parents[1].absolute())})
        shown = [o for cell in notebook.cells for o in cell.get("outputs", []) if "image/png" in o.get("data", {})]
        assert shown
