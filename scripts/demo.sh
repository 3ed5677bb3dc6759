#!/usr/bin/env bash
# The main job: builds the library, the device simulator, the simulated
# issuer host and the demonstration program, puts the simulated KL560T41
# with a debit card that computes real cryptograms in its contact reader on
# a pseudo-terminal, and works with the card through the library the way a
# teller application does: card information (ICRT_GetICCInfo), the card's
# transaction log (ICRT_GetTrDetail), then an online purchase: the ARQC and
# field 55 (ICRT_GetARQC), the issuer host's check of the cryptogram and its
# answer with a script that raises the electronic-cash balance limit, issuer
# authentication, the script and the final TC (ICRT_ARPCExeScript), and the
# card information again. Exits 0 only when every step succeeded.
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

card=sim/cards/online/online_debit.json
echo "== starting the simulated reader with $card in the contact slot"
"$build/sim/kolt-sim" --contact-card "$card" --port-file "$work/port" &
sim_pid=$!
for _ in $(seq 100); do
    [ -s "$work/port" ] && break
    kill -0 "$sim_pid" 2>/dev/null || { echo "kolt-sim did not start" >&2; exit 1; }
    sleep 0.1
done
[ -s "$work/port" ] || { echo "kolt-sim wrote no port name" >&2; exit 1; }

# The teller application: terminal type 0 (local port), port 1, IC type 0
# (contact), no AID list, letters A (account), B (name), E (track 2),
# I (expiry), J (PAN sequence number), and F, which also has the balance
# limit read into H. The purchase is of 123.45; the issuer host approves and
# sends a PUT DATA of a new balance limit (9F77) in its script.
"$build/tools/kolt-demo" --port-file "$work/port" --letters ABEIJFH --ic-type 0 --port-no 1 --log \
    --online "$build/sim/kolt-issuer" --issuer-args "--put-data 9F77=000000200000" --amount 12345
