"""Settings of Sphinx for the pages about the Python package."""

import ornik

project = "ornik"
author = "the ornik developers"
version = release = ornik.__version__
extensions = ["myst_parser", "sphinx.ext.autodoc"]
exclude_patterns = ["_build"]
html_theme = "furo"
html_title = f"ornik {release}"
html_show_copyright = False
myst_heading_anchors = 2
autodoc_member_order = "bysource"
autodoc_typehints = "signature"
autodoc_default_options = {"members": True}
python_use_unqualified_type_names = True
default_role = "code"
suppress_warnings = ["myst.strikethrough"]
