#!/usr/bin/env bash
# Checks the realtime client against the provider's SDK (npm "openai", pinned; update the pin
# when this client changes): every client event of scripted whole calls type-checks, and the
# default and transcription models are not listed for shutdown. Needs the build's test suites;
# only the npm registry is reached. Usage: scripts/check-provider-sdk.sh [build folder]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
sdk=openai@7.57.0
typescript=typescript@5.9.3
work="$build/provider-sdk"
if ! command -v npm >/dev/null; then
    # Debian's nodejs comes without npm (NodeSource's has it and refuses Debian's package).
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq --no-install-recommends npm
fi
mkdir -p "$work"
if [ "$(cat "$work/installed" 2>/dev/null)" != "$sdk $typescript" ]; then
    rm -rf "$work/node_modules"
    (cd "$work" && npm install --no-audit --no-fund --no-save --silent --prefix "$work" \
        "$sdk" "$typescript" >/dev/null)
    echo "$sdk $typescript" >"$work/installed"
fi

# The whole calls of the model's suites and the client's own, against the scripted realtime
# server, which writes down every client event it receives; with the demonstration's whole call
# when the end-to-end test ran (its stand-in writes them down too).
events="$work/client-events.jsonl"
if cp "$work/demo-client-events.jsonl" "$events" 2>/dev/null; then
    echo "with the demonstration's call ($(wc -l <"$events") client events)"
else
    rm -f "$events"
fi
for suite in app/test_call_lifecycle ai/test_realtime_client; do
    log="$work/$(basename "$suite").log"
    VEMIRA_CLIENT_EVENTS_LOG="$events" QT_QPA_PLATFORM=offscreen "$build/tests/$suite" >"$log" 2>&1 ||
        { tail -n 30 "$log"; echo "$suite failed" >&2; exit 1; }
done
node "$root/scripts/provider-sdk-check.mjs" "$work" "$events" \
    "$root/src/records/realtime-models.json"
