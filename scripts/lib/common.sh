# Shared by the scripts of this folder; sourced, never run.
# shellcheck shell=bash

TREE=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
SELF=$(basename "$0")
. "$(dirname "${BASH_SOURCE[0]}")/packages.sh"

say() { printf '%s\n' "$*"; }
fail() {
    printf '%s: %s\n' "$SELF" "$*" >&2
    exit 1
}
# What the machine cannot have is no failure.
skip() {
    say "skipped: $*"
    exit 0
}
# A wrong command line: the message, then how to see the right one.
misused() {
    printf '%s: %s (try %s --help)\n' "$SELF" "$*" "$SELF" >&2
    exit 2
}
heading() {
    if [ -t 1 ]; then printf '\n\033[1m== %s ==\033[0m\n' "$*"; else printf '\n== %s ==\n' "$*"; fi
}

# Every script's help is the comment at its head.
case " $* " in *" --help "* | *" -h "*)
    sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
    exit 0
    ;;
esac

# treeState: the commit that is measured, and whether the tree differs from it.
treeState() {
    local commit changes
    commit=$(git -C "$TREE" rev-parse --short HEAD 2>/dev/null || echo "unknown")
    changes=$(git -C "$TREE" status --porcelain -- . ':!docs' 2>/dev/null || true)
    say "$commit${changes:+ with changes}"
}

# configure build/PRESET [cmake option...]: as CMakePresets.json says; Ninja and ccache where the machine has them,
# and no other generator than the directory was configured with before.
configure() {
    if command -v ninja >/dev/null; then export CMAKE_GENERATOR=Ninja; fi
    if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
    mkdir -p "$1"
    (cd "$TREE" && cmake --preset "$(basename "$1")" "${@:2}") >"$1.configure.log" 2>&1 || {
        cat "$1.configure.log" >&2
        return 1
    }
}

# waitFor SECONDS COMMAND...: false when the command does not succeed in time.
waitFor() {
    local end=$((SECONDS + $1))
    until "${@:2}"; do
        if [ $SECONDS -gt $end ]; then return 1; fi
        sleep 0.02
    done
}

# hasEnded PID: also when nobody has asked for its exit code yet.
hasEnded() { ! grep -qs '^State:[[:space:]]*[^Z[:space:]]' "/proc/$1/status"; }
