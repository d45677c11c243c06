# What a run of the tests left behind. Sourced after common.sh.
#
# Everything the run starts inherits a mark in its environment, detached daemons too, so that what is still
# there afterwards is found however it was named, and nobody else's processes are ever taken for ours.
# Shared memory and semaphores carry no mark: there, what is new and has no living owner counts.
# shellcheck shell=bash

ipcObjects() {
    awk 'FNR > 1 { print (FILENAME ~ /shm$/ ? "shared memory " : "semaphore set ") $2 }' /proc/sysvipc/shm /proc/sysvipc/sem | sort
}

# orphans: segments that nobody is attached to and whose creator is gone; semaphore sets without a segment of the
# same key, since the two live and go together.
orphans() {
    awk 'FNR == 1 { next }
        FILENAME ~ /shm$/ { keys[$1]; if ($7 == 0 && system("test -d /proc/" $5)) print "shared memory " $2 }
        FILENAME ~ /sem$/ && !($1 in keys) { print "semaphore set " $2 }' /proc/sysvipc/shm /proc/sysvipc/sem | sort
}

# markLeftovers: call before the first test. Sets the sanitizers' options as well: a detached daemon has no
# standard error, so they report into files.
markLeftovers() {
    TAVIRN_TEST_RUN="$$-$(date +%s)"
    reports=$(mktemp -d)
    TMPDIR=$(mktemp -d /tmp/tavirn-test.XXXXXX) # short: a socket's path has 107 bytes
    trap 'rm -rf "$reports" "$TMPDIR"' EXIT
    export TAVIRN_TEST_RUN TMPDIR
    export ASAN_OPTIONS="detect_leaks=1:print_suppressions=0:log_path=$reports/asan"
    export UBSAN_OPTIONS="print_stacktrace=1:log_path=$reports/ubsan"
    export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1:log_path=$reports/tsan"
    ipcBefore=$(ipcObjects)
}

# Not to be piped: what a shell starts beside it carries the mark too.
leftovers() {
    local environment pid
    # shellcheck disable=SC2013 # words, each a path
    for environment in $(grep -lszx "TAVIRN_TEST_RUN=$TAVIRN_TEST_RUN" /proc/[0-9]*/environ); do
        pid=$(basename "$(dirname "$environment")")
        if [ -d "/proc/$pid" ]; then say "process $pid $(tr '\0' ' ' <"/proc/$pid/cmdline" 2>/dev/null)"; fi
    done
    comm -13 <(say "$ipcBefore") <(orphans)
    find "$TMPDIR" -mindepth 1 -maxdepth 1 -printf 'file or directory %p\n'
}

hasNoLeftovers() { left=$(leftovers) && [ -z "$left" ]; }

# reportLeftovers: 0 when there are none; otherwise names them, also what sanitizers have reported.
reportLeftovers() {
    local left report clean=0
    if waitFor 5 hasNoLeftovers; then # what is on its way out may go
        say "no process, no shared memory, no semaphore set, no file"
    else
        printf 'still there:\n%s\n' "$left"
        clean=1
    fi
    report=$(cat "$reports"/* 2>/dev/null) || true
    if [ -n "$report" ]; then
        printf 'a sanitizer reported:\n%s\n' "$report"
        clean=1
    fi
    return $clean
}
