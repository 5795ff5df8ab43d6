#!/usr/bin/env bash
# A private desktop for accessibility tests: a fresh Xvfb display, a session D-Bus and the
# AT-SPI accessibility bus, with accessibility switched on. Nothing of the caller's own
# session is touched.
#
#   desktop-session.sh start [DIR]   start everything; prints the environment as export lines
#   desktop-session.sh env DIR       prints that environment again
#   desktop-session.sh stop DIR      stops what start started and removes DIR
#   desktop-session.sh run -- CMD..  start, run CMD inside, stop; exits with CMD's status
#
# DIR defaults to a new temporary folder; its path is exported as VEMIRA_DESKTOP_DIR.
set -euo pipefail

die() { echo "desktop-session: $*" >&2; exit 1; }

wait_for() { # seconds, command...
    local deadline=$((SECONDS + $1)); shift
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.05
    done
}

start() {
    local dir=${1:-}
    if [ -z "$dir" ]; then
        dir=$(mktemp -d "${TMPDIR:-/tmp}/vemira-desktop.XXXXXX")
    fi
    mkdir -p "$dir"
    chmod 700 "$dir"
    command -v Xvfb >/dev/null || die "Xvfb is missing (package xvfb)"
    command -v dbus-daemon >/dev/null || die "dbus-daemon is missing (package dbus)"
    local launcher=/usr/libexec/at-spi-bus-launcher
    [ -x "$launcher" ] || die "at-spi-bus-launcher is missing (package at-spi2-core)"

    # -displayfd makes Xvfb pick a free display itself: no clash with a display left over.
    # -noreset keeps the root window's properties (the accessibility bus address below)
    # when the last client leaves.
    Xvfb -displayfd 9 -screen 0 1280x800x24 -nolisten tcp -noreset 9>"$dir/display" \
        >"$dir/xvfb.log" 2>&1 &
    echo $! >"$dir/xvfb.pid"
    wait_for 10 test -s "$dir/display" || { stop "$dir"; die "Xvfb did not start"; }
    local display=":$(head -n1 "$dir/display")"

    local runtime=${XDG_RUNTIME_DIR:-}
    if [ -z "$runtime" ]; then
        runtime="$dir/runtime"
        mkdir -p "$runtime"
        chmod 700 "$runtime"
    fi

    dbus-daemon --session --fork --address="unix:path=$dir/bus" \
        --print-pid=3 3>"$dir/dbus.pid" >/dev/null
    local bus="unix:path=$dir/bus"

    {
        echo "export DISPLAY=$display"
        echo "export DBUS_SESSION_BUS_ADDRESS=$bus"
        echo "export XDG_RUNTIME_DIR=$runtime"
        echo "export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"
        echo "export NO_AT_BRIDGE=0"
        echo "export VEMIRA_DESKTOP_DIR=$dir"
    } >"$dir/env"

    (
        # shellcheck disable=SC1091
        . "$dir/env"
        "$launcher" --launch-immediately >"$dir/at-spi.log" 2>&1 &
        echo $! >"$dir/at-spi.pid"
    )
    # The launcher announces org.a11y.Bus on the session bus once its own bus runs.
    wait_for 10 env DBUS_SESSION_BUS_ADDRESS="$bus" dbus-send --session --print-reply \
        --dest=org.a11y.Bus /org/a11y/bus org.a11y.Bus.GetAddress ||
        { stop "$dir"; die "the accessibility bus did not start"; }
    announce_accessibility "$dir"
    cat "$dir/env"
}

# Qt 5 applications look for the accessibility bus on the root window and register only when
# accessibility is on; GTK and Qt 6 ask the session bus. Both are set before any application
# starts, as a desktop with assistive technologies running would have them.
announce_accessibility() {
    local dir=$1 address
    (
        # shellcheck disable=SC1091
        . "$dir/env"
        dbus-send --session --dest=org.a11y.Bus /org/a11y/bus \
            org.freedesktop.DBus.Properties.Set string:org.a11y.Status string:IsEnabled \
            variant:boolean:true
        address=$(dbus-send --session --dest=org.a11y.Bus --print-reply=literal /org/a11y/bus \
            org.a11y.Bus.GetAddress | tr -d ' ')
        if command -v xprop >/dev/null; then
            xprop -root -f AT_SPI_BUS 8s -set AT_SPI_BUS "$address"
        else
            echo "desktop-session: xprop is missing (package x11-utils): Qt 5 applications" \
                "will not be visible" >&2
        fi
    )
}

stop() {
    local dir=${1:-}
    [ -n "$dir" ] && [ -d "$dir" ] || die "stop needs the folder given by start"
    local name pid
    for name in at-spi dbus xvfb; do
        [ -s "$dir/$name.pid" ] || continue
        pid=$(cat "$dir/$name.pid")
        kill "$pid" 2>/dev/null || true
        wait_for 5 bash -c "! kill -0 $pid" || kill -9 "$pid" 2>/dev/null || true
    done
    rm -rf "$dir"
}

case "${1:-}" in
start) start "${2:-}" ;;
env) [ -s "${2:-}/env" ] || die "no session in '${2:-}'"; cat "$2/env" ;;
stop) stop "${2:-}" ;;
run)
    shift
    [ "${1:-}" = "--" ] && shift
    [ $# -gt 0 ] || die "run needs a command"
    session_env=$(start)
    dir=$(sed -n 's/^export VEMIRA_DESKTOP_DIR=//p' <<<"$session_env")
    status=0
    ( eval "$session_env"; "$@" ) || status=$?
    stop "$dir"
    exit "$status"
    ;;
*) sed -n '2,10p' "$0" | sed 's/^# \{0,1\}//'; exit 2 ;;
esac
