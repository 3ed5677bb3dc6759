#!/usr/bin/env bash
# The main job: builds the library, the device simulator and the
# demonstration program, puts the simulated KL560T41 with a PBOC debit card
# in its contact reader on a pseudo-terminal, and reads the card through the
# library the way a teller application does (card information with
# ICRT_GetICCInfo, then the card's transaction log with ICRT_GetTrDetail).
# Exits 0 only when both reads succeeded.
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"

cd "$KOLT_ROOT"
build=build/demo
kolt_build "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_TESTS=OFF

work=$(mktemp -d)
sim_pid=""
cleanup() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

echo "== starting the simulated reader with sim/cards/pboc_debit.json in the contact slot"
"$build/sim/kolt-sim" --contact-card sim/cards/pboc_debit.json --port-file "$work/port" &
sim_pid=$!
for _ in $(seq 100); do
    [ -s "$work/port" ] && break
    kill -0 "$sim_pid" 2>/dev/null || { echo "kolt-sim did not start" >&2; exit 1; }
    sleep 0.1
done
[ -s "$work/port" ] || { echo "kolt-sim wrote no port name" >&2; exit 1; }

# The teller application: terminal type 0 (local port), port 1, IC type 0
# (contact), no AID list, letters A (account), B (name), E (track 2),
# I (expiry), J (PAN sequence number).
"$build/tools/kolt-demo" --port-file "$work/port" --letters ABEIJ --ic-type 0 --port-no 1 --log
