#!/usr/bin/env bash
# A first start on an empty home: the setup window with its form, under
# Qt's offscreen platform. Leaves a screenshot in the build tree.
set -euo pipefail
velmar=$1 build=$2
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
shot="$build/velmar-setup-window.png"
rm -f "$shot"
cat > "$home/script" <<SCRIPT
wait 500
screenshot $shot
close
answer 1
SCRIPT
status=0
VELMAR_HOME="$home/velmar" QT_QPA_PLATFORM=offscreen VELMAR_XVT_SCRIPT="$home/script" \
  timeout 60 "$velmar" -b 2>"$home/stderr" || status=$?
if [[ $status -ne 0 ]]; then
  echo "velmar exited with status $status"; cat "$home/stderr"; exit 1
fi
[[ -s "$shot" ]] || { echo "no screenshot at $shot"; cat "$home/stderr"; exit 1; }
# The setup form reported no script error.
if grep -q 'xvt: error' "$home/stderr"; then echo "an error was shown:"; cat "$home/stderr"; exit 1; fi
echo "ok: setup window at $shot"
