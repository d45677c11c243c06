# What a run of the tests left behind. Sourced after common.sh.
#
# Everything the run starts inherits a mark in its environment, detached daemons too, so that what is still
# there afterwards is found however it was named, and nobody else's processes are ever taken for ours.
# Shared memory and semaphores carry no mark: there, what is new and has no living owner counts.
# shellcheck shell=bash

segments() { awk 'NR > 1 { print $2 }' /proc/sysvipc/shm | sort; }
semaphores() { awk 'NR > 1 { print $2 }' /proc/sysvipc/sem | sort; }

# markLeftovers: call before the first test. Sets the sanitizers' options as well: a detached daemon has no
# standard error, so they report into files.
markLeftovers() {
    TAVIRN_TEST_RUN="$$-$(date +%s)"
    reports=$(mktemp -d)
    TMPDIR=$(mktemp -d /tmp/tavirn-test.XXXXXX) # short: a socket's path has 107 bytes
    trap 'rm -rf "$reports" "$TMPDIR"' EXIT
    export TAVIRN_TEST_RUN TMPDIR
    export ASAN_OPTIONS="detect_leaks=1:log_path=$reports/asan"
    export UBSAN_OPTIONS="print_stacktrace=1:log_path=$reports/ubsan"
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$reports/tsan"
    segmentsBefore=$(segments)
    semaphoresBefore=$(semaphores)
}

# Processes that carry the mark. Not to be piped: what a shell starts beside it carries the mark too.
markedProcesses() {
    local environment pid
    for environment in /proc/[0-9]*/environ; do
        pid=${environment#/proc/}
        pid=${pid%/environ}
        if grep -qzx "TAVIRN_TEST_RUN=$TAVIRN_TEST_RUN" "$environment" 2>/dev/null && [ -d "/proc/$pid" ]; then
            printf 'process %s %s\n' "$pid" "$(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)"
        fi
    done
}

# New segments that nobody is attached to and whose creator is gone.
orphanSegments() {
    local id pid
    comm -13 <(printf '%s\n' "$segmentsBefore") <(segments) | while read -r id; do
        pid=$(awk -v id="$id" 'NR > 1 && $2 == id && $7 == 0 { print $5 }' /proc/sysvipc/shm)
        if [ -n "$pid" ] && [ ! -d "/proc/$pid" ]; then printf 'shared memory %s\n' "$id"; fi
    done
}

# New semaphore sets without a shared-memory segment of the same key: the two live and go together.
orphanSemaphores() {
    local id
    comm -13 <(printf '%s\n' "$semaphoresBefore") <(semaphores) | while read -r id; do
        awk -v id="$id" 'FNR == 1 { next } NR == FNR { keys[$1] = 1; next }
            $2 == id && !($1 in keys) { print "semaphore set " id }' /proc/sysvipc/shm /proc/sysvipc/sem
    done
}

leftovers() {
    markedProcesses
    orphanSegments
    orphanSemaphores
    find "$TMPDIR" -mindepth 1 -maxdepth 1 -printf 'file or directory %p\n'
}

# reportLeftovers: 0 when there are none; otherwise names them, also what sanitizers have reported.
reportLeftovers() {
    local left report clean=0
    for _ in 1 2 3 4 5 6 7 8 9 10; do # what is on its way out may go
        left=$(leftovers)
        if [ -z "$left" ]; then break; fi
        sleep 0.5
    done
    if [ -n "$left" ]; then
        printf 'still there:\n%s\n' "$left"
        clean=1
    else
        say "no process, no shared memory, no semaphore set, no file"
    fi
    for report in "$reports"/*; do
        [ -s "$report" ] || continue
        printf 'a sanitizer reported:\n'
        cat "$report"
        clean=1
    done
    return $clean
}
