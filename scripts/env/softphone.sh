#!/usr/bin/env bash
# Real softphones for tests and demonstrations: Twinkle or GNOME Calls answering SIP calls
# placed over loopback by a headless baresip caller, all inside a private desktop.
#
#   softphone.sh run [--phone twinkle|gnome-calls] [--lang fr|en] [--wav FILE] -- CMD...
#       in a new network namespace holding only lo: a private PulseAudio, a private desktop
#       (Xvfb, session bus, accessibility on), the softphone and the caller; runs CMD there
#       with their environment (see `env`), stops everything and exits with CMD's status.
#   softphone.sh start DIR twinkle|gnome-calls [fr|en]
#       the softphone alone, with a private HOME in DIR; the audio server and the desktop
#       must already be in the environment. Prints the export lines of `env`.
#   softphone.sh caller DIR WAV [SINK]
#       the headless caller "Jean Test" <sip:0612345678@127.0.0.1>, saying WAV and hearing
#       the call on SINK (default sink when omitted)
#   softphone.sh dial DIR [URI]     the caller dials (default: the softphone started in DIR)
#   softphone.sh hangup DIR         the caller hangs up
#   softphone.sh stop DIR           stops the softphone and the caller started in DIR
#
# SIP ports 5060 (Twinkle), 5064 (GNOME Calls) and 5070 (caller) are bound on 127.0.0.1:
# outside a private network namespace two runs on one machine would clash, and GNOME Calls
# would bind the machine's other addresses. `run` takes care of that; `start` refuses to run
# GNOME Calls outside one.
set -euo pipefail

readonly CALLER_NAME="Jean Test"
readonly CALLER_USER="0612345678"
readonly CALLER_PORT=5070
readonly CONTROL_PORT=4444
readonly CALLEE_USER="callee"
readonly TWINKLE_PORT=5060
readonly CALLS_PORT=5064
here=$(cd "$(dirname "$0")" && pwd)

die() { echo "softphone.sh: $*" >&2; exit 1; }

wait_for() { # seconds, command...
    local deadline=$((SECONDS + $1)); shift
    until "$@" >/dev/null 2>&1; do
        [ "$SECONDS" -lt "$deadline" ] || return 1
        sleep 0.1
    done
}

# Only lo, and it is up: a private namespace made by `unshare -n`.
private_network() {
    local links
    links=$(ip -o link show 2>/dev/null | awk -F': ' '{print $2}' | tr '\n' ' ')
    [ "$links" = "lo " ]
}

# Twinkle and GNOME Calls take their language from the C library's locale. The French one
# is built into DIR when the system has none, so nothing of the machine changes. Prints the
# variables to give the softphone.
language_env() {
    local dir=$1 lang=$2
    case "$lang" in
    en) echo "LANG=C.UTF-8 LANGUAGE=en" ;;
    fr)
        if ! locale -a 2>/dev/null | grep -qix 'fr_FR.utf-\?8'; then
            command -v localedef >/dev/null || die "localedef is missing (package locales)"
            [ -d "$dir/locale/fr_FR.UTF-8" ] || {
                mkdir -p "$dir/locale"
                localedef -i fr_FR -f UTF-8 "$dir/locale/fr_FR.UTF-8" >/dev/null 2>&1 || true
            }
            [ -d "$dir/locale/fr_FR.UTF-8" ] || die "cannot build the fr_FR.UTF-8 locale"
            echo -n "LOCPATH=$dir/locale "
        fi
        echo "LANG=fr_FR.UTF-8 LANGUAGE=fr"
        ;;
    *) die "unknown language '$lang' (fr or en)" ;;
    esac
}

write_twinkle_config() {
    local home=$1
    mkdir -p "$home/.twinkle"
    # The noise reduction and voice detection would remove a steady test tone; ALSA reaches
    # the private PulseAudio through its pulse plugin.
    cat >"$home/.twinkle/$CALLEE_USER.cfg" <<EOF
user_name=$CALLEE_USER
user_domain=127.0.0.1
user_display=Accueil
registrar=
register_at_startup=no
codecs=g711a,g711u,gsm
speex_dsp_vad=no
speex_dsp_nrd=no
speex_dsp_agc=no
speex_dsp_aec=no
EOF
    cat >"$home/.twinkle/twinkle.sys" <<EOF
dev_ringtone=alsa:default
dev_speaker=alsa:default
dev_mic=alsa:default
validate_audio_dev=no
sip_udp_port=$TWINKLE_PORT
rtp_port=8000
gui_use_systray=no
gui_hide_on_close=no
start_user_profile=$CALLEE_USER
start_hidden=no
EOF
}

write_calls_config() {
    local home=$1
    mkdir -p "$home/.config/calls"
    cat >"$home/.config/calls/sip-account.cfg" <<EOF
[sip-account_0]
Id=direct
Host=127.0.0.1
User=$CALLEE_USER
Password=
DisplayName=
Protocol=UDP
Port=0
AutoConnect=true
DirectMode=true
LocalPort=$CALLS_PORT
EOF
}

phone_address() {
    case "$1" in
    twinkle) echo "sip:$CALLEE_USER@127.0.0.1:$TWINKLE_PORT" ;;
    gnome-calls) echo "sip:$CALLEE_USER@127.0.0.1:$CALLS_PORT" ;;
    esac
}

start_phone() {
    local dir=$1 phone=$2 lang=${3:-fr}
    [ -n "${DISPLAY:-}" ] && [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] ||
        die "no desktop in the environment (desktop-session.sh start)"
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    local home="$dir/home"
    mkdir -p "$home"
    chmod 700 "$home"
    local language
    language=$(language_env "$dir" "$lang")
    unset LC_ALL LC_MESSAGES
    export HOME="$home" XDG_CONFIG_HOME="$home/.config" XDG_DATA_HOME="$home/.local/share"
    export XDG_CACHE_HOME="$home/.cache" GSETTINGS_BACKEND=memory
    export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 QT_ACCESSIBILITY=1 GTK_MODULES=gail:atk-bridge
    export NO_AT_BRIDGE=0
    # The windows go to this desktop's X display, whatever platform the caller's session uses:
    # a softphone drawn offscreen or on Wayland never reaches this accessibility bus.
    export QT_QPA_PLATFORM=xcb GDK_BACKEND=x11
    unset WAYLAND_DISPLAY
    case "$phone" in
    twinkle)
        command -v twinkle >/dev/null || die "twinkle is missing (package twinkle)"
        write_twinkle_config "$home"
        # shellcheck disable=SC2086
        env $language twinkle --force -f "$CALLEE_USER" >"$dir/phone.log" 2>&1 &
        ;;
    gnome-calls)
        command -v gnome-calls >/dev/null || die "gnome-calls is missing (package gnome-calls)"
        private_network || die "GNOME Calls needs a private network namespace (softphone.sh run)"
        write_calls_config "$home"
        # shellcheck disable=SC2086
        env $language gnome-calls -p sip >"$dir/phone.log" 2>&1 &
        ;;
    *) die "unknown softphone '$phone' (twinkle or gnome-calls)" ;;
    esac
    echo $! >"$dir/phone.pid"
    echo "$phone" >"$dir/phone.name"
    local port
    port=$(phone_address "$phone" | sed 's/.*://')
    # The softphone is ready once its SIP port is bound.
    wait_for 30 bash -c "ss -Hlun 'sport = :$port' | grep -q ." ||
        die "$phone does not listen on port $port, see $dir/phone.log"
    print_env "$dir"
}

print_env() {
    local dir=$1 phone
    phone=$(cat "$dir/phone.name" 2>/dev/null || true)
    echo "export VEMIRA_SOFTPHONE_DIR='$dir'"
    [ -z "$phone" ] || echo "export VEMIRA_SOFTPHONE='$phone'"
    [ -z "$phone" ] || echo "export VEMIRA_SOFTPHONE_ADDRESS='$(phone_address "$phone")'"
    [ ! -s "$dir/phone.pid" ] || echo "export VEMIRA_SOFTPHONE_PID='$(cat "$dir/phone.pid")'"
    [ ! -s "$dir/caller.pid" ] || echo "export VEMIRA_CALLER_PID='$(cat "$dir/caller.pid")'"
}

start_caller() {
    local dir=$1 wav=$2 sink=${3:-}
    command -v baresip >/dev/null || die "baresip is missing (package baresip-core)"
    [ -r "$wav" ] || die "cannot read '$wav'"
    mkdir -p "$dir/caller"
    dir=$(cd "$dir" && pwd)
    local conf="$dir/caller"
    # baresip reads only 8 kHz mono files: the telephone band is all the call carries anyway.
    command -v sox >/dev/null || die "sox is missing (package sox)"
    sox "$wav" -r 8000 -c 1 -b 16 -e signed-integer "$conf/voice.wav" ||
        die "cannot convert '$wav' for the caller"
    # net_interface keeps the SDP offer on loopback; ALSA's default device is the private
    # PulseAudio, PULSE_SINK picks where the caller hears the call.
    cat >"$conf/config" <<EOF
poll_method epoll
sip_listen 127.0.0.1:$CALLER_PORT
net_interface 127.0.0.1
audio_player alsa,default
audio_source aufile,$conf/voice.wav
audio_alert alsa,default
ausrc_srate 8000
auplay_srate 8000
module_path /usr/lib/baresip/modules
module g711.so
module aufile.so
module alsa.so
module_app account.so
module_app menu.so
module_app ctrl_tcp.so
ctrl_tcp_listen 127.0.0.1:$CONTROL_PORT
EOF
    echo "\"$CALLER_NAME\" <sip:$CALLER_USER@127.0.0.1>;regint=0;audio_codecs=PCMU,PCMA" \
        >"$conf/accounts"
    : >"$conf/contacts"
    (
        [ -z "$sink" ] || export PULSE_SINK="$sink"
        exec baresip -f "$conf" </dev/null >"$dir/caller.log" 2>&1
    ) &
    echo $! >"$dir/caller.pid"
    wait_for 15 bash -c "ss -Hltn 'sport = :$CONTROL_PORT' | grep -q ." ||
        die "the caller does not listen on its control port, see $dir/caller.log"
    print_env "$dir"
}

# One command on the caller's control port: a netstring-framed JSON object. The reply is
# printed.
control() {
    local command=$1 params=${2:-} body
    body=$(printf '{"command":"%s","params":"%s","token":"vemira"}' "$command" "$params")
    exec 3<>"/dev/tcp/127.0.0.1/$CONTROL_PORT" || die "the caller is not running"
    printf '%d:%s,' "${#body}" "$body" >&3
    local length reply=""
    if read -r -t 5 -d ':' -u 3 length && [[ $length =~ ^[0-9]+$ ]]; then
        read -r -t 5 -N "$length" -u 3 reply || true
    fi
    exec 3>&-
    echo "$reply"
}

dial() {
    local dir=$1 uri=${2:-}
    if [ -z "$uri" ]; then
        local phone
        phone=$(cat "$dir/phone.name" 2>/dev/null) || die "no softphone in '$dir': give a URI"
        uri=$(phone_address "$phone")
    fi
    control dial "$uri"
}

stop_all() {
    local dir=$1 name pid
    [ -d "$dir" ] || return 0
    for name in caller phone; do
        [ -s "$dir/$name.pid" ] || continue
        pid=$(cat "$dir/$name.pid")
        kill "$pid" 2>/dev/null || true
        wait_for 5 bash -c "! kill -0 $pid" || kill -9 "$pid" 2>/dev/null || true
        rm -f "$dir/$name.pid"
    done
}

run() {
    local phone=twinkle lang=fr wav=""
    while [ $# -gt 0 ]; do
        case "$1" in
        --phone) phone=$2; shift 2 ;;
        --lang) lang=$2; shift 2 ;;
        --wav) wav=$2; shift 2 ;;
        --) shift; break ;;
        *) die "unknown option '$1'" ;;
        esac
    done
    [ $# -gt 0 ] || die "run needs a command"
    if ! private_network; then
        command -v unshare >/dev/null || die "unshare is missing (package util-linux)"
        exec unshare -n -- bash -c 'ip link set lo up && exec "$@"' _ \
            bash "$0" run --phone "$phone" --lang "$lang" ${wav:+--wav "$wav"} -- "$@"
    fi
    local status=0
    run_dir=$(mktemp -d "${TMPDIR:-/tmp}/vemira-softphone.XXXXXX")
    local dir=$run_dir
    trap 'dir=$run_dir; stop_all "$dir/phone"; bash "$here/desktop-session.sh" stop "$dir/desktop" >/dev/null 2>&1 || true; bash "$here/pulseaudio.sh" stop "$dir/pulse" >/dev/null 2>&1 || true; rm -rf "$dir"' EXIT
    local exports runtime
    bash "$here/pulseaudio.sh" start "$dir/pulse" >/dev/null
    exports=$(bash "$here/pulseaudio.sh" env "$dir/pulse")
    eval "$exports"
    runtime=$XDG_RUNTIME_DIR
    exports=$(bash "$here/desktop-session.sh" start "$dir/desktop")
    eval "$exports"
    # Audio server and desktop share the audio daemon's runtime folder.
    export XDG_RUNTIME_DIR=$runtime
    exports=$( (start_phone "$dir/phone" "$phone" "$lang") )
    eval "$exports"
    if [ -z "$wav" ]; then
        wav="$dir/caller.wav"
        command -v espeak-ng >/dev/null || die "espeak-ng is missing: give --wav"
        espeak-ng -v fr -w "$wav" "Bonjour, ici Jean Test, j’ai une fuite d’eau." >/dev/null
    fi
    exports=$( (start_caller "$dir/phone" "$wav" vemira.desk) )
    eval "$exports"
    ("$@") || status=$?
    return $status
}

case "${1:-}" in
run) shift; run "$@" ;;
start) shift; [ $# -ge 2 ] || die "start DIR twinkle|gnome-calls [fr|en]"; start_phone "$@" ;;
caller) shift; [ $# -ge 2 ] || die "caller DIR WAV [SINK]"; start_caller "$@" ;;
dial) shift; [ $# -ge 1 ] || die "dial DIR [URI]"; dial "$@" ;;
hangup) shift; [ $# -ge 1 ] || die "hangup DIR"; control hangup ;;
env) shift; print_env "${1:?}" ;;
stop) shift; stop_all "${1:?}" ;;
*) sed -n '2,24p' "$0" | sed 's/^# \{0,1\}//'; exit 2 ;;
esac
