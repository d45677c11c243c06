# The device's budgets, on the 32-bit daemon in the emulator. Sourced after common.sh and world.sh; uses $build,
# $sysroot and $plain, which the caller sets.
# shellcheck shell=bash disable=SC2154

PROGRAM_BYTES=$((300 * 1024))
RESIDENT_KB=$((6 * 1024))
READER_DESCRIPTORS=2     # one per reader: picture headers, picture data
GUEST_BASE=0x100000000   # where the emulator is told to put the program's 4 GB, apart from its own memory

descriptors() { find "/proc/$rootedPid/fd" -mindepth 1 | wc -l; }

# residentKb: of the program's own mappings, the output memory among them; without SQLite's code.
residentKb() {
    awk '
        /^[0-9a-f]+-[0-9a-f]+ / {
            split($1, ends, "-")
            at = length(ends[1]) > 8 ? substr(ends[1], 1, length(ends[1]) - 8) : "0"
            gsub(/^0+/, "", at)
            ours = at == "1" && !/libsqlite3/
        }
        /^Rss:/ && ours { sum += $2 }
        END { print sum + 0 }' "/proc/$rootedPid/smaps"
}

# holdBudgets: sets $budgets to what was measured; fails where one is exceeded.
holdBudgets() {
    local bytes before open after resident
    arm-linux-gnueabihf-strip -o "$build/tavirn.stripped" "$build/daemon/tavirn"
    bytes=$(stat -c %s "$build/tavirn.stripped")
    world=$(mktemp -d /tmp/tavirn-armhf.XXXXXX) # short: a socket's path has 107 bytes
    trap 'endWorld; rm -rf "$world"' EXIT
    "$plain/tools/tavirn-record" --root "$world" --test-pattern --size 1280x720 --duration 10 >/dev/null
    TAVIRN_ROOT=$world "$sysroot/adopting" qemu-arm -L /usr/arm-linux-gnueabihf -B $GUEST_BASE \
        "$build/daemon/tavirn-rooted"
    waitFor 10 isServing || fail "the 32-bit daemon does not serve"
    rootedPid=$(cat "$world/var/run/tavirn.pid")
    ask open && ask teardown --session 0 # what is opened once and kept, as the log's socket, is open now
    waitFor 10 sessionHasEnded || fail "the session does not end"
    before=$(descriptors)
    ask open && ask session 1 && ask play
    sleep 2 # pictures come, and touch what memory they need
    open=$(descriptors)
    resident=$(residentKb)
    ask teardown --session 0
    waitFor 10 sessionHasEnded || fail "the session does not end"
    after=$(descriptors)
    budgets="tavirn $bytes bytes, $resident KB resident in a session, descriptors $before, $open in a session, $after after it"
    say "$budgets"
    [ "$bytes" -lt $PROGRAM_BYTES ] || fail "the stripped program has $bytes bytes, more than $PROGRAM_BYTES"
    if [ "$resident" -le 0 ] || [ "$resident" -ge $RESIDENT_KB ]; then
        fail "$resident KB resident; at most $RESIDENT_KB"
    fi
    # The index is open in a session as well.
    [ $((open - before)) -eq $((READER_DESCRIPTORS + 1)) ] || fail "a session opens $((open - before)) descriptors"
    [ "$after" -eq "$before" ] || fail "of a session, $((after - before)) descriptors stay open"
}

ask() { "$plain/tools/tavirn-ctl" --root "$world" "$@" >/dev/null; }
sessionHasEnded() { ! ipcExists z; }
