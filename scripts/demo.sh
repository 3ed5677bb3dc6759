#!/usr/bin/env bash
# The main job: a complete teller session on the bundled device simulator,
# through the command-line tool `kolt` as support staff and integrators use
# it. It builds the library, the tool, the simulator, the issuer host and
# the clerk server; starts kolt-sim with the teller demonstration profile
# (an EF01 fingerprint module, a stripe card, the identity card with its
# photo), a PBOC debit card that computes real cryptograms in the contact
# slot and a contactless card on the field, and kolt-clerkd with the
# demonstration clerks; then, as a teller would: device information, card
# information (contact and contactless), the transaction log, an online
# purchase (ARQC and field 55, the simulated issuer host, issuer
# authentication with a script, TC), a stripe read, the identity card with
# its photo, and a clerk verified by fingerprint. Exits 0 only when every
# step succeeded.
#
#   ./scripts/demo.sh                    builds build/demo first
#   ./scripts/demo.sh --build-dir DIR    uses the programs of a tree built already
source "$(dirname "$0")/common.sh"

build=""
if [ "${1:-}" = "--build-dir" ]; then
    build="$(cd "${2:?--build-dir takes a directory}" && pwd)"
else
    kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"
    cd "$KOLT_ROOT"
    build="$KOLT_ROOT/build/demo"
    kolt_build "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_TESTS=OFF
fi
cd "$KOLT_ROOT"
for program in tools/kolt sim/kolt-sim sim/kolt-issuer sim/kolt-clerkd; do
    [ -x "$build/$program" ] || { echo "demo: $build/$program was not built" >&2; exit 1; }
done

work=$(mktemp -d)
pids=()
cleanup() {
    local pid
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    rm -rf "$work"
}
trap cleanup EXIT

# waits up to 10 s for a file to be written by a program started in the background
wait_for_file() {
    local file="$1" pid="$2" name="$3"
    for _ in $(seq 100); do
        [ -s "$file" ] && return 0
        kill -0 "$pid" 2>/dev/null || { echo "demo: $name did not start" >&2; exit 1; }
        sleep 0.1
    done
    echo "demo: $name did not start in time" >&2
    exit 1
}

echo "== the clerk verification server, with the demonstration clerks"
cp sim/clerks/demo.json "$work/clerks.json"
"$build/sim/kolt-clerkd" --data "$work/clerks.json" --quiet >"$work/clerkd.out" &
pids+=($!)
wait_for_file "$work/clerkd.out" "${pids[-1]}" kolt-clerkd
clerk_port=$(sed -n 's/^kolt-clerkd listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/clerkd.out")
echo "kolt-clerkd listening on 127.0.0.1:$clerk_port"

echo "== the simulated KL560T41"
"$build/sim/kolt-sim" --profile sim/profiles/teller_demo.json \
    --contact-card sim/cards/online/online_debit.json \
    --contactless-card sim/cards/online/online_contactless.json \
    --id-card sim/cards/idcard/resident.json \
    --port-file "$work/port" --no-interactive &
pids+=($!)
wait_for_file "$work/port" "${pids[-1]}" kolt-sim
KOLT_PORT="$(cat "$work/port")"
export KOLT_PORT
echo "kolt-sim serving /dev/$KOLT_PORT"

# The library reads the clerk server's address from $HOME/librun/koltt41fp.cfg.
export HOME="$work/home"
mkdir -p "$HOME/librun"
printf 'serverip=127.0.0.1\nserverport=%s\n' "$clerk_port" >"$HOME/librun/koltt41fp.cfg"
# The identity-card reader loads its photo decoder from the working
# directory; at a teller site that is the vendor's, here the simulator's stand-in.
mkdir -p "$work/desk"
cp "$build/sim/standins/libwlt.so" "$build/sim/standins/libidpic.so" "$work/desk/"

kolt="$build/tools/kolt"
failed=()
step() {
    local title="$1"; shift
    echo
    echo "== $title"
    echo "\$ kolt $*"
    if "$kolt" "$@"; then
        echo "-- ok"
    else
        local code=$?
        echo "-- FAILED (exit $code)"
        failed+=("$title")
    fi
}

step "device information" device
step "card information, contact card" card pan name expiry psn track2 balance-limit
step "card information, contactless card" card --slot contactless pan expiry psn
step "transaction log" log
step "online purchase of 123.45: ARQC, issuer host, issuer authentication with a script, TC" \
    transaction --amount 12345 --issuer "$build/sim/kolt-issuer --put-data 9F77=000000200000"
step "the new balance limit the script wrote" card balance-limit
step "stripe read (the card is swiped after 0.8 s)" stripe read
step "identity card with photo" idcard --photo-dir "$work/desk"
step "clerk verification by fingerprint (bank 0101, clerk 1001)" clerk verify --bank 0101 --clerk 1001

echo
if [ ${#failed[@]} -eq 0 ]; then
    echo "== teller session complete: every step succeeded"
    exit 0
fi
echo "== ${#failed[@]} step(s) failed:"
printf '   %s\n' "${failed[@]}"
exit 1
