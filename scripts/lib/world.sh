# A rooted world with a daemon in it. Sourced after common.sh; uses $world, $bin and $rootedPid.
# shellcheck shell=bash

# ipcKey LETTER: the key of the world's status segment (y) or output memory (z), as /proc/sysvipc shows it.
ipcKey() {
    local device inode
    read -r device inode <<<"$(stat -c '%d %i' "$world/tmp/shm9")"
    printf '%d' "$(($(printf '%d' "'$1") << 24 | (device & 0xff) << 16 | inode & 0xffff))"
}

# attached LETTER: how many processes are attached to that memory; nothing when there is none.
attached() { awk -v key="$(ipcKey "$1")" '$1 == key { print $7 }' /proc/sysvipc/shm; }
ipcExists() { grep -qE "^ *$(ipcKey "$1") " /proc/sysvipc/shm /proc/sysvipc/sem; }

# waitFor SECONDS COMMAND...: false when the command does not succeed in time.
waitFor() {
    local tries=$(($1 * 50))
    shift
    until "$@"; do
        tries=$((tries - 1))
        if [ $tries -le 0 ]; then return 1; fi
        sleep 0.02
    done
}

isServing() { [ -S "$world/tmp/tavirn" ] && [ -s "$world/var/run/tavirn.pid" ]; }
# hasEnded PID: also when nobody has asked for its exit code yet.
hasEnded() { ! grep -qs '^State:[[:space:]]*[^Z[:space:]]' "/proc/$1/status"; }

startDaemon() {
    (cd "$world" && TAVIRN_ROOT=$world "$bin/daemon/tavirn-rooted") || return 1
    waitFor 10 isServing || return 1
    rootedPid=$(cat "$world/var/run/tavirn.pid")
}

# stopDaemon: false when it does not end within ten seconds, or had ended by itself.
stopDaemon() {
    local pid=$rootedPid
    rootedPid=
    kill -TERM "$pid" 2>/dev/null && waitFor 10 hasEnded "$pid"
}

# leftByDaemon: what a daemon that has ended in order would have removed.
leftByDaemon() {
    local path
    for path in tmp/tavirn var/run/tavirn.pid; do
        if [ -e "$world/$path" ]; then echo "the file $path"; fi
    done
    if ipcExists y; then echo "the status segment"; fi
    if ipcExists z; then echo "the output memory"; fi
}

# endWorld: whatever happened, nothing of it stays.
endWorld() {
    local letter
    if [ -n "${rootedPid:-}" ]; then
        kill -TERM "$rootedPid" 2>/dev/null || true
        waitFor 5 hasEnded "$rootedPid" || kill -KILL "$rootedPid" 2>/dev/null || true
        for letter in y z; do
            ipcrm -M "$(ipcKey $letter)" 2>/dev/null || true
            ipcrm -S "$(ipcKey $letter)" 2>/dev/null || true
        done
        rootedPid=
    fi
}
