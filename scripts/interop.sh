#!/usr/bin/env bash
# Lets programs for Linux and for Windows, under Wine, talk to each other over loopback: clients of
# either build to services of the other one, and the renderer to render servers for Windows. Needs
# what scripts/build.sh and scripts/windows.sh have built; without it, it fails.
# Usage: scripts/with-wine.sh scripts/interop.sh [GOOGLETEST ARGUMENTS ...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

linux=$PWD/build/release
windows=$PWD/build/windows
for program in "$linux"/{bin/TALORender,bin/TALOClusterService,tests/kyInteropTest} \
    "$windows"/{bin/TALOClusterServer,bin/TALOClusterService,tests/kyInteropTest}.exe; do
    [ -x "$program" ] || {
        echo "$program is missing: it takes both builds, with their tests" >&2
        exit 1
    }
done

work=$PWD/build/interop
rm -rf "$work"
mkdir -p "$work"
key=$work/key
(umask 077 && od -An -v -tx1 -N32 /dev/urandom | tr -d ' \n' >"$key")

# Every service prints first which port it took.
declare -A ports processes
start() {
    local name=$1 line
    shift
    mkfifo "$work/$name.out"
    "$@" --port 0 </dev/null >"$work/$name.out" 2>"$work/$name.log" &
    processes[$name]=$!
    if ! read -r line <"$work/$name.out" || [[ $line != "listening on port "* ]]; then
        cat "$work/$name.log" >&2
        exit 1
    fi
    line=${line%$'\r'}
    ports[$name]=${line##* }
}
onLinux() {
    start "linux$1" "$linux/bin/TALOClusterService" "${@:2}"
}
onWindows() {
    start "windows$1" wine64 "$windows/bin/TALOClusterService.exe" "${@:2}"
}
killAll() {
    kill "${processes[@]}" 2>/dev/null || true
}
trap killAll EXIT

for name in "" ToStop; do
    onLinux "$name" --server "$linux/tests/kyInteropServer"
    onWindows "$name" --server "$windows/tests/kyInteropServer.exe"
done
onLinux WithKey --server "$linux/tests/kyInteropServer" --key "$key"
onWindows WithKey --server "$windows/tests/kyInteropServer.exe" --key "$key"
onLinux Render --server "$linux/tests/kyTestPlainServer"
onWindows Render
onWindows RenderWithKey --key "$key"

# talk NEAR FAR COMMAND ...: a client of one system, and services of the other.
talk() {
    local near=$1 far=$2
    shift 2
    KY_INTEROP_KEY=$key \
        KY_INTEROP_NEAR=${ports[$near]} KY_INTEROP_NEAR_WITH_KEY=${ports[${near}WithKey]} \
        KY_INTEROP_FAR=${ports[$far]} KY_INTEROP_FAR_WITH_KEY=${ports[${far}WithKey]} \
        KY_INTEROP_FAR_TO_STOP=${ports[${far}ToStop]} \
        KY_INTEROP_NEAR_RENDER=${ports[linuxRender]} KY_INTEROP_FAR_RENDER=${ports[windowsRender]} \
        KY_INTEROP_FAR_RENDER_WITH_KEY=${ports[windowsRenderWithKey]} \
        "$@"
}
failed=0
echo "-- A client on Linux, services on Windows"
talk linux windows "$linux/tests/kyInteropTest" "$@" || failed=1
echo "-- A client on Windows, services on Linux"
talk windows linux wine64 "$windows/tests/kyInteropTest.exe" "$@" </dev/null || failed=1
echo "-- The renderer on Linux, render servers on Windows"
talk linux windows "$linux/tests/kyInteropRenderTest" "$@" || failed=1

# They end as they are told to.
for name in "${!processes[@]}"; do
    if [[ $name != *ToStop ]]; then
        secret=()
        [[ $name != *WithKey ]] || secret=(--key "$key")
        "$linux/bin/TALOClusterControl" stop-service --node "127.0.0.1:${ports[$name]}" \
            "${secret[@]}" >/dev/null || failed=1
    fi
    wait "${processes[$name]}" || {
        echo "The service $name has failed; it has logged in $work/$name.log" >&2
        failed=1
    }
done
exit $failed
