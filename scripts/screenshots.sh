#!/usr/bin/env bash
# Saves a picture of every page and window of the desktop application, in the light and
# the dark appearance, into a folder (default: build-ui/screenshots), so a person can look
# at the screens without clicking through them. The application runs on a private Xvfb
# display when one is available (the offscreen platform otherwise), on a throw-away data
# folder holding the demonstration conversation.
#   scripts/screenshots.sh [OUTPUT_FOLDER] [PATH_TO_vemira-app]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/build-ui/screenshots}
app=${2:-}
if [ -z "$app" ]; then
    for candidate in "$root/build-ui/src/ui/vemira-app" "$root/build/src/ui/vemira-app"; do
        if [ -x "$candidate" ]; then app=$candidate; break; fi
    done
fi
if [ -z "$app" ]; then
    echo "vemira-app not found: build it first (cmake --build build --target vemira-app)" >&2
    exit 1
fi

work=$(mktemp -d)
xvfb_pid=""
cleanup() {
    if [ -n "$xvfb_pid" ]; then kill "$xvfb_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

if command -v Xvfb >/dev/null 2>&1; then
    # A display number nobody uses, so parallel runs do not meet.
    display=$((100 + RANDOM % 400))
    while [ -e "/tmp/.X11-unix/X$display" ] || [ -e "/tmp/.X$display-lock" ]; do
        display=$((display + 1))
    done
    Xvfb ":$display" -screen 0 1280x900x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
    xvfb_pid=$!
    for _ in $(seq 50); do
        [ -e "/tmp/.X11-unix/X$display" ] && break
        sleep 0.1
    done
    export DISPLAY=":$display"
    export QT_QPA_PLATFORM=xcb
else
    export QT_QPA_PLATFORM=offscreen
fi

mkdir -p "$out"
for look in light dark; do
    data="$work/$look"
    mkdir -p "$data"
    # French dates and numbers, as the owner's computer shows them.
    env LANG=fr_FR.UTF-8 LC_ALL=fr_FR.UTF-8 VEMIRA_DATA_DIR="$data/Brelian" XDG_RUNTIME_DIR="$work" \
        "$app" --screenshots "$out" --settings "$data/settings.ini" "--$look" >"$work/$look.list"
done
echo "Screenshots in $out:"
sed 's/^/  /' "$work/light.list" "$work/dark.list" | sort -u
