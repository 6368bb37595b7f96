#!/usr/bin/env bash
# Installs the package twice, as users do, and imports it from outside the source tree:
# with pip into a virtual environment, and with cmake --install into a prefix (where the
# library is found by the dynamic linker, not through ZOVDX_LIBRARY).
#   install_test.sh PYTHON_SOURCE_DIR BUILD_DIR
set -euo pipefail
source_dir=$1
build_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset PYTHONPATH

# pip builds in the tree it is given: a copy, so that the source stays clean.
cp -r "$source_dir" "$work/src"
rm -rf "$work/src/tests"
/usr/bin/python3 -m venv --system-site-packages "$work/venv"
"$work/venv/bin/pip" install -q --no-build-isolation --no-index "$work/src"
cd "$work"
"$work/venv/bin/python" - <<'PY'
import importlib.metadata, zovdx
assert importlib.metadata.version("zovdx") == zovdx.__version__ == "1.0.0"
assert "/venv/" in zovdx.__file__, zovdx.__file__
assert zovdx.device_count() == 2
PY

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
unset ZOVDX_LIBRARY
library=$(find "$work/prefix" -name libzovdx.so.1)
LD_LIBRARY_PATH=$(dirname "$library") PYTHONPATH="$work/prefix/lib/python3/dist-packages" \
  /usr/bin/python3 - <<'PY'
import zovdx
assert zovdx.__file__.endswith("/prefix/lib/python3/dist-packages/zovdx/__init__.py"), zovdx.__file__
assert [d.name for d in zovdx.devices()] == ["ZO XC-100 32G", "ZO XC-200"]
PY
echo python-install-ok
