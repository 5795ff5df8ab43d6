#!/usr/bin/env bash
# A private PulseAudio daemon with the two virtual call devices, for tests, the demo and a
# Linux workstation without the companion driver.
#
#   pulseaudio.sh start [DIR]   start a daemon of our own in DIR (own XDG_RUNTIME_DIR,
#                               anonymous auth, never exits when idle), load a desk sink as the
#                               default and the two virtual devices
#   pulseaudio.sh stop [DIR]    stop that daemon and remove its runtime files
#   pulseaudio.sh env [DIR]     print the shell exports that make clients use it
#   pulseaudio.sh run -- CMD…   start a daemon in a new temporary DIR, run CMD with its
#                               environment, stop it; exits with CMD's status
#   pulseaudio.sh up            load the two virtual devices on the current server (the user's
#                               or ours), leaving the default sink and source as they were
#   pulseaudio.sh down          unload them again by index, defaults untouched
#
# DIR defaults to $VEMIRA_PULSE_DIR, else ${TMPDIR:-/tmp}/vemira-pulse-<uid>. The device names
# end in the companion driver's uid suffixes, so the application recognises them as the call
# and voice devices.
set -euo pipefail

readonly UID_PREFIX="com.brelian."
readonly CALL_SINK="${UID_PREFIX}audio.call"
readonly VOICE_SINK="${UID_PREFIX}audio.voice"
readonly CALL_DESCRIPTION="Brelian — Appel vers IA"
readonly VOICE_DESCRIPTION="Brelian — IA vers appel"
readonly DESK_SINK="vemira.desk"
readonly DESK_DESCRIPTION="Poste de travail"
# The companion driver runs at the usual hardware rate; keeping that here means the
# application's resampling is exercised exactly as on a real machine.
readonly RATE="${VEMIRA_VIRTUAL_RATE:-48000}"
readonly CHANNELS="${VEMIRA_VIRTUAL_CHANNELS:-2}"

die() { echo "pulseaudio.sh: $*" >&2; exit 1; }

runtime_dir() {
    local dir="${1:-${VEMIRA_PULSE_DIR:-${TMPDIR:-/tmp}/vemira-pulse-$(id -u)}}"
    mkdir -p "$dir"
    chmod 700 "$dir"
    (cd "$dir" && pwd)
}

use_daemon_in() {
    export XDG_RUNTIME_DIR="$1"
    export XDG_CONFIG_HOME="$1/config"
    export PULSE_SERVER="unix:$1/pulse/native"
    unset PULSE_COOKIE
}

server_ready() { pactl info >/dev/null 2>&1; }

# Loads one null sink and prints the module index. A description with spaces must be quoted
# twice: once for the module argument parser, once for the property list parser.
load_null_sink() {
    local name="$1" description="$2"
    pactl load-module module-null-sink "sink_name=$name" rate="$RATE" channels="$CHANNELS" \
        "sink_properties='device.description=\"$description\"'"
}

state_file() { echo "${VEMIRA_VIRTUAL_STATE:-${XDG_RUNTIME_DIR:-/tmp}/vemira-virtual-audio}"; }

sink_exists() { pactl list short sinks | awk '{print $2}' | grep -qxF "$1"; }

virtual_up() {
    server_ready || die "no PulseAudio server reachable"
    local state before_sink before_source
    state=$(state_file)
    if sink_exists "$CALL_SINK" || sink_exists "$VOICE_SINK"; then
        echo "virtual devices already loaded"
        return 0
    fi
    before_sink=$(pactl get-default-sink 2>/dev/null || true)
    before_source=$(pactl get-default-source 2>/dev/null || true)
    local call_index voice_index
    call_index=$(load_null_sink "$CALL_SINK" "$CALL_DESCRIPTION")
    voice_index=$(load_null_sink "$VOICE_SINK" "$VOICE_DESCRIPTION")
    printf '%s\n%s\n' "$call_index" "$voice_index" >"$state"
    # Loading a sink may move the defaults (a first sink, or a switch-on-connect module):
    # the user's choice stands.
    restore_defaults "$before_sink" "$before_source"
    echo "virtual devices loaded (modules $call_index, $voice_index)"
}

virtual_down() {
    server_ready || die "no PulseAudio server reachable"
    local state before_sink before_source
    state=$(state_file)
    [ -f "$state" ] || { echo "no virtual devices recorded"; return 0; }
    before_sink=$(pactl get-default-sink 2>/dev/null || true)
    before_source=$(pactl get-default-source 2>/dev/null || true)
    # By index: "unload-module module-null-sink" would take every null sink of the user too.
    while read -r index; do
        [ -n "$index" ] && pactl unload-module "$index" 2>/dev/null || true
    done <"$state"
    rm -f "$state"
    case "$before_sink" in "$CALL_SINK" | "$VOICE_SINK") before_sink="" ;; esac
    case "$before_source" in "$CALL_SINK.monitor" | "$VOICE_SINK.monitor") before_source="" ;; esac
    restore_defaults "$before_sink" "$before_source"
    echo "virtual devices unloaded"
}

restore_defaults() {
    local sink="$1" source="$2"
    if [ -n "$sink" ] && [ "$(pactl get-default-sink 2>/dev/null)" != "$sink" ]; then
        pactl set-default-sink "$sink" || true
    fi
    if [ -n "$source" ] && [ "$(pactl get-default-source 2>/dev/null)" != "$source" ]; then
        pactl set-default-source "$source" || true
    fi
}

daemon_start() {
    local dir
    dir=$(runtime_dir "${1:-}")
    use_daemon_in "$dir"
    mkdir -p "$XDG_CONFIG_HOME"
    if server_ready; then
        echo "PulseAudio already running in $dir"
        return 0
    fi
    rm -rf "$dir/pulse"
    cat >"$dir/daemon.pa" <<EOF
load-module module-native-protocol-unix auth-anonymous=1 socket=$dir/pulse/native
load-module module-null-sink sink_name=$DESK_SINK rate=$RATE channels=$CHANNELS sink_properties='device.description="$DESK_DESCRIPTION"'
set-default-sink $DESK_SINK
set-default-source $DESK_SINK.monitor
EOF
    # -n: no system default script (no hardware detection, no stream-restore database);
    # running as root is fine for a per-user daemon as long as nothing enables --system.
    pulseaudio -n -F "$dir/daemon.pa" --exit-idle-time=-1 --daemonize=yes --use-pid-file=yes \
        --log-target="newfile:$dir/daemon.log" --system=no 2>>"$dir/daemon.log" ||
        die "the daemon did not start, see $dir/daemon.log"
    local tries=0
    until server_ready; do
        tries=$((tries + 1))
        [ $tries -lt 100 ] || die "the daemon does not answer, see $dir/daemon.log"
        sleep 0.05
    done
    virtual_up >/dev/null
    echo "PulseAudio running in $dir"
}

daemon_stop() {
    local dir
    dir=$(runtime_dir "${1:-}")
    use_daemon_in "$dir"
    if server_ready; then
        pulseaudio -k 2>/dev/null || pactl exit 2>/dev/null || true
        local tries=0
        while server_ready && [ $tries -lt 100 ]; do
            tries=$((tries + 1))
            sleep 0.05
        done
    fi
    rm -rf "$dir/pulse" "$dir/vemira-virtual-audio"
    echo "PulseAudio stopped in $dir"
}

daemon_env() {
    local dir
    dir=$(runtime_dir "${1:-}")
    echo "export XDG_RUNTIME_DIR='$dir'"
    echo "export XDG_CONFIG_HOME='$dir/config'"
    echo "export PULSE_SERVER='unix:$dir/pulse/native'"
}

daemon_run() {
    [ "${1:-}" = "--" ] && shift
    [ $# -gt 0 ] || die "run needs a command"
    local dir status=0
    dir=$(mktemp -d "${TMPDIR:-/tmp}/vemira-pulse.XXXXXX")
    daemon_start "$dir" >/dev/null
    (use_daemon_in "$dir" && "$@") || status=$?
    daemon_stop "$dir" >/dev/null
    rm -rf "$dir"
    return $status
}

case "${1:-}" in
run)
    shift
    daemon_run "$@"
    ;;
start) daemon_start "${2:-}" ;;
stop) daemon_stop "${2:-}" ;;
env) daemon_env "${2:-}" ;;
up) virtual_up ;;
down) virtual_down ;;
*)
    echo "usage: $0 start|stop|env [DIR] | run -- CMD... | up|down" >&2
    exit 2
    ;;
esac
