#!/usr/bin/env bash
# The Debian package as a user meets it: made by CPack from an existing build, validated
# (desktop file, AppStream metainfo, lintian with no error), installed with apt-get, both
# programs run from /usr/bin, the application started on a private Xvfb desktop with a tray as
# the session would (it stays hidden in the tray), then started again (that launch exits 0
# and the first window shows), the autostart entry written and removed, then the package
# removed.
#   scripts/package-check.sh [BUILD_FOLDER]      (default: build)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${1:-build}
sudo_cmd=""
[ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
die() { echo "package-check: $*" >&2; exit 1; }

rm -f "$build"/vemira_*.deb
(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/vemira_*.deb)
echo "-- $deb"
desktop-file-validate packaging/linux/fr.brelian.Vemira.desktop
appstreamcli validate --no-net packaging/linux/fr.brelian.Vemira.metainfo.xml >/dev/null
# Warnings are printed for the record; an error fails the stage.
lintian --fail-on error --tag-display-limit 0 "$deb"

version=$(dpkg-deb -f "$deb" Version)
DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "./$deb" >/dev/null
trap 'DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get remove -y -qq vemira >/dev/null' EXIT
[ "$(/usr/bin/vemira --version)" = "vemira $version" ] || die "vemira --version"
[ "$(/usr/bin/vemira-app --version)" = "vemira-app $version" ] || die "vemira-app --version"

# A new user: own home, data, state and configuration folders.
home=$(mktemp -d)
export HOME=$home
unset XDG_CONFIG_HOME XDG_STATE_HOME XDG_DATA_HOME VEMIRA_DATA_DIR
"$root/scripts/env/desktop-session.sh" run -- bash -euo pipefail -c '
    die() { echo "package-check: $*" >&2; exit 1; }
    wait_for() { # seconds, command...
        local deadline=$((SECONDS + $1)); shift
        until "$@" >/dev/null 2>&1; do
            [ "$SECONDS" -lt "$deadline" ] || return 1
            sleep 0.1
        done
    }
    # Qt'"'"'s own texts come from its French translation.
    /usr/bin/vemira-app --help | grep -q "Affiche" || die "Qt'"'"'s French translation is not loaded"
    # A tray (XEmbed, as older panels have): started by the session, Vemira stays hidden there.
    trayer --expand false >/dev/null 2>&1 &
    wait_for 10 xdotool search --class trayer || die "the tray did not start"
    log=$HOME/.local/state/Brelian/vemira.log
    /usr/bin/vemira-app --autostart >"$HOME/first.log" 2>&1 &
    first=$!
    trap "kill $first 2>/dev/null || true" EXIT
    wait_for 30 grep -q "ouverture de session" "$log" || die "the first instance did not start"
    if xdotool search --onlyvisible --name "^Vemira\$"; then die "started at login, yet shown"; fi
    timeout 30 /usr/bin/vemira-app || die "the second launch did not exit 0"
    wait_for 10 xdotool search --onlyvisible --name "^Vemira\$" ||
        die "the second launch did not bring the first window forward"
    grep -q "premier plan" "$log" || die "the first instance did not log the request"
    [ "$(stat -c %a "$log")" = 600 ] || die "the log file is not private"
    if /usr/bin/vemira standby >"$HOME/standby.log" 2>&1; then die "standby ran beside the app"; fi
    grep -q "vemira-app" "$HOME/standby.log" || die "standby did not name the running app"
    /usr/bin/vemira log | grep -q "premier plan" || die "vemira log does not show the last lines"

    entry=$HOME/.config/autostart/fr.brelian.Vemira.desktop
    /usr/bin/vemira autostart on >/dev/null
    desktop-file-validate "$entry"
    grep -qx "Exec=/usr/bin/vemira-app --autostart" "$entry" || die "autostart entry: $(cat "$entry")"
    /usr/bin/vemira autostart status | grep -q " activé" || die "autostart status after on"
    /usr/bin/vemira autostart off >/dev/null
    [ ! -e "$entry" ] || die "autostart off left the entry"
    /usr/bin/vemira autostart status | grep -q "désactivé" || die "autostart status after off"
'
rm -rf "$home"
echo "package-check: installed, ran twice, autostart on and off, removed"
