"""docs/python.md's tour runs as written: each python block, in order and in one interpreter,
prints exactly the text block below it."""
import os
import re

from conftest import python

DOCS = os.environ.get("ZOVDX_DOCS",
                      os.path.join(os.path.dirname(__file__), "..", "..", "docs", "python.md"))
MARK = "----8<----"


def test_the_tour_prints_what_the_guide_shows():
    with open(DOCS) as f:
        text = f.read()
    pairs = re.findall(r"```python\n(.*?)```\n\n```text\n(.*?)```", text, re.S)
    assert len(pairs) == 6, "the tour's examples and their outputs"
    script = "".join(f"print({MARK!r})\n{code}" for code, _ in pairs)
    result = python(script)
    assert result.returncode == 0, result.stderr
    printed = result.stdout.split(MARK + "\n")[1:]
    for (code, expected), got in zip(pairs, printed):
        assert got == expected, code
