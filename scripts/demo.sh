#!/usr/bin/env bash
# Starts orvik-devnode on free ports, runs the example receiver, sender and
# registry watcher against it, then the orvik command-line tool, and prints
# what happened. Exits non-zero when any step failed; stops everything it
# started.
set -uo pipefail
build_dir=${1:-build}
work=$(mktemp -d)
node_pid=""
cleanup() {
    [ -n "$node_pid" ] && kill "$node_pid" 2>/dev/null && wait "$node_pid" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n== %s\n' "$*"; }

# Clients connect to tcp://localhost:PORT; the node listens on 127.0.0.1.
step "Checking that localhost resolves"
if ! localhost_address=$(getent ahostsv4 localhost | awk '{print $1; exit}') ||
    [ -z "$localhost_address" ]; then
    echo "localhost does not resolve on this machine, so no client can reach the node"
    echo "(every client would report \"Resource temporarily unavailable ... not available\")."
    echo "Add the line \"127.0.0.1 localhost\" to /etc/hosts and run again."
    exit 1
fi
if [ "$localhost_address" != 127.0.0.1 ]; then
    echo "localhost is $localhost_address here, but the node listens on 127.0.0.1 only."
    echo "Make /etc/hosts say \"127.0.0.1 localhost\" and run again."
    exit 1
fi
echo "localhost is 127.0.0.1"

step "Starting orvik-devnode on free ports"
"$build_dir/tools/orvik-devnode/orvik-devnode" --verbose >"$work/node.log" 2>&1 &
node_pid=$!
for _ in $(seq 1 100); do
    grep -q 'ready:' "$work/node.log" && break
    sleep 0.05
done
ready=$(grep 'ready:' "$work/node.log") || { echo "orvik-devnode did not start"; cat "$work/node.log"; exit 1; }
echo "$ready"
listener=$(sed -n 's/.*listener-port=\([0-9]*\).*/\1/p' <<<"$ready")
dispenser=$(sed -n 's/.*dispenser-port=\([0-9]*\).*/\1/p' <<<"$ready")
ports=(--listener-port "$listener" --dispenser-port "$dispenser")

step "Receiver subscribes to \"news\"; sender sends 5 messages along \"news\""
"$build_dir/examples/receiver" "${ports[@]}" --topic news --count 5 --timeout 20 >"$work/receiver.log" 2>&1 &
receiver_pid=$!
# The node publishes only to listeners already subscribed.
sleep 1
"$build_dir/examples/sender" "${ports[@]}" --route news --count 5 --timeout 20
sender_status=$?
wait "$receiver_pid"
receiver_status=$?
cat "$work/receiver.log"

step "Registry watcher fetches the registry twice"
"$build_dir/examples/registry_watcher" "${ports[@]}" --count 2 --timeout 20
registry_status=$?

# The orvik tool takes the node's ports from the environment.
export ORVIK_LISTENER_PORT=$listener ORVIK_DISPENSER_PORT=$dispenser
orvik=$build_dir/tools/orvik/orvik

step "orvik listen waits for 3 messages on \"alerts\"; orvik send sends them"
"$orvik" listen -s alerts -n 3 --format json --timeout 20 >"$work/listen.log" 2>&1 &
listen_pid=$!
sleep 1
"$orvik" send -r alerts -n 3 "disk almost full"
send_status=$?
wait "$listen_pid"
listen_status=$?
cat "$work/listen.log"

step "orvik registry prints the node's registry"
"$orvik" registry --format json
orvik_registry_status=$?

step "What the node logged"
kill "$node_pid" && wait "$node_pid" 2>/dev/null
node_pid=""
cat "$work/node.log"

echo
if [ "$sender_status" -eq 0 ] && [ "$receiver_status" -eq 0 ] && [ "$registry_status" -eq 0 ] &&
    [ "$send_status" -eq 0 ] && [ "$listen_status" -eq 0 ] && [ "$orvik_registry_status" -eq 0 ]; then
    echo "demo: OK - 5 messages sent and acknowledged, 5 received and acknowledged, registry fetched twice;"
    echo "      orvik sent 3 messages, listened to all 3 and fetched the registry"
    exit 0
fi
echo "demo: FAILED (sender $sender_status, receiver $receiver_status, registry watcher $registry_status," \
    "orvik send $send_status, orvik listen $listen_status, orvik registry $orvik_registry_status)"
exit 1
