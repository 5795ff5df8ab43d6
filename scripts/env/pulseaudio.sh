#!/usr/bin/env bash
# A private sound server with the two virtual call devices, for tests, the demo and a Linux
# workstation without the companion driver. VEMIRA_SOUND_SERVER picks the server that `start`
# runs: pulseaudio (the default) or pipewire (PipeWire, WirePlumber and pipewire-pulse, as on
# Debian 12's GNOME, Ubuntu and Fedora); clients reach either through libpulse.
#
#   pulseaudio.sh start [DIR]   start a server of our own in DIR (own XDG_RUNTIME_DIR, and for
#                               PipeWire its own session bus and state folder; never exits when
#                               idle), load a desk sink as the default and the two virtual devices
#   pulseaudio.sh stop [DIR]    stop that server and remove its runtime files
#   pulseaudio.sh env [DIR]     print the shell exports that make clients use it
#   pulseaudio.sh run -- CMD…   start a daemon in a new temporary DIR, run CMD with its
#                               environment, stop it; exits with CMD's status
#   pulseaudio.sh up            load the two virtual devices on the current server (the user's
#                               or ours), leaving the default sink and source as they were
#   pulseaudio.sh down          unload them again by index, defaults untouched
#
# With VEMIRA_SOUND_BARE=1 a PipeWire `start` loads neither the desk sink nor the virtual
# devices: the server has only what its configuration files in DIR/config make.
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
    # WirePlumber keeps where it last sent each kind of stream under the state folder.
    export XDG_STATE_HOME="$1/state"
    export PULSE_SERVER="unix:$1/pulse/native"
    unset PULSE_COOKIE
}

sound_server() {
    case "${VEMIRA_SOUND_SERVER:-pulseaudio}" in
    pulseaudio | pipewire) echo "${VEMIRA_SOUND_SERVER:-pulseaudio}" ;;
    *) die "unknown sound server '${VEMIRA_SOUND_SERVER}' (pulseaudio or pipewire)" ;;
    esac
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

wait_ready() {
    local log=$1 tries=0
    until server_ready; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || die "the server does not answer, see $log"
        sleep 0.05
    done
}

start_pulseaudio() {
    local dir=$1
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
    wait_ready "$dir/daemon.log"
}

# PipeWire with its session manager and its PulseAudio server, all on a session bus of their
# own (without one WirePlumber links no stream), never the machine's.
start_pipewire() {
    local dir=$1 program
    for program in pipewire wireplumber pipewire-pulse dbus-daemon; do
        command -v "$program" >/dev/null ||
            die "$program is missing (packages pipewire, wireplumber, pipewire-pulse, dbus)"
    done
    mkdir -p "$XDG_STATE_HOME"
    dbus-daemon --session --fork --nopidfile --address="unix:path=$dir/bus" --print-pid \
        >"$dir/bus.pid" 2>>"$dir/daemon.log" || die "no session bus, see $dir/daemon.log"
    export DBUS_SESSION_BUS_ADDRESS="unix:path=$dir/bus"
    unset PIPEWIRE_REMOTE
    : >"$dir/daemon.pids"
    pipewire >>"$dir/daemon.log" 2>&1 &
    echo $! >>"$dir/daemon.pids"
    local tries=0
    until [ -S "$dir/pipewire-0" ]; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || die "pipewire did not start, see $dir/daemon.log"
        sleep 0.05
    done
    for program in wireplumber pipewire-pulse; do
        "$program" >>"$dir/daemon.log" 2>&1 &
        echo $! >>"$dir/daemon.pids"
    done
    wait_ready "$dir/daemon.log"
    [ "${VEMIRA_SOUND_BARE:-}" != 1 ] || return 0
    load_null_sink "$DESK_SINK" "$DESK_DESCRIPTION" >/dev/null
    # The new sink and its monitor, and then a default set by a client, show a moment after
    # the acknowledgement: asked again until they do.
    tries=0
    until [ "$(pactl get-default-sink 2>/dev/null)" = "$DESK_SINK" ] &&
        [ "$(pactl get-default-source 2>/dev/null)" = "$DESK_SINK.monitor" ]; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || die "the desk sink did not become the default"
        pactl set-default-sink "$DESK_SINK" 2>/dev/null || true
        pactl set-default-source "$DESK_SINK.monitor" 2>/dev/null || true
        sleep 0.05
    done
}

daemon_start() {
    local dir server
    dir=$(runtime_dir "${1:-}")
    server=$(sound_server)
    use_daemon_in "$dir"
    mkdir -p "$XDG_CONFIG_HOME"
    if server_ready; then
        echo "sound server already running in $dir"
        return 0
    fi
    rm -rf "$dir/pulse"
    # A start that fails half-way stops what it had started: nobody else knows of it.
    trap 'daemon_stop "$dir" >/dev/null 2>&1' EXIT
    "start_$server" "$dir"
    if [ "${VEMIRA_SOUND_BARE:-}" != 1 ] || [ "$server" != pipewire ]; then
        virtual_up >/dev/null
    fi
    trap - EXIT
    echo "$server running in $dir"
}

# Running and not a zombie: this machine's init may take a while to reap what it inherits.
alive() {
    local state
    state=$(ps -o stat= -p "$1" 2>/dev/null) || return 1
    [ "${state:0:1}" != Z ]
}

daemon_stop() {
    local dir pid tries
    dir=$(runtime_dir "${1:-}")
    use_daemon_in "$dir"
    if [ -s "$dir/daemon.pids" ]; then
        # Newest first: pipewire-pulse and WirePlumber leave before the graph they use.
        for pid in $(tac "$dir/daemon.pids"); do
            kill "$pid" 2>/dev/null || true
            tries=0
            while alive "$pid" && [ $tries -lt 100 ]; do
                tries=$((tries + 1))
                sleep 0.05
            done
            kill -9 "$pid" 2>/dev/null || true
        done
        rm -f "$dir/daemon.pids"
    elif server_ready; then
        pulseaudio -k 2>/dev/null || pactl exit 2>/dev/null || true
        tries=0
        while server_ready && [ $tries -lt 100 ]; do
            tries=$((tries + 1))
            sleep 0.05
        done
    fi
    if [ -s "$dir/bus.pid" ]; then
        kill "$(cat "$dir/bus.pid")" 2>/dev/null || true
        rm -f "$dir/bus.pid" "$dir/bus"
    fi
    rm -rf "$dir/pulse" "$dir/vemira-virtual-audio" "$dir/pipewire-0" "$dir/pipewire-0.lock"
    echo "sound server stopped in $dir"
}

daemon_env() {
    local dir
    dir=$(runtime_dir "${1:-}")
    echo "export XDG_RUNTIME_DIR='$dir'"
    echo "export XDG_CONFIG_HOME='$dir/config'"
    echo "export XDG_STATE_HOME='$dir/state'"
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
