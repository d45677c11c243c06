# Shared by the scripts of this folder; sourced, never run.
# shellcheck shell=bash

TREE=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
SELF=$(basename "$0")

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

# treeState: the commit that is measured, and whether the tree differs from it.
treeState() {
    local commit changes
    commit=$(git -C "$TREE" rev-parse --short HEAD 2>/dev/null) || {
        say "unknown"
        return
    }
    changes=$(git -C "$TREE" status --porcelain -- . ':!docs')
    say "$commit${changes:+ with changes}"
}

# configure DIRECTORY [cmake option...]: Ninja and ccache where the machine has them.
configure() {
    local directory=$1 generator="Unix Makefiles" launcher=()
    shift
    if command -v ninja >/dev/null; then generator=Ninja; fi
    if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
    mkdir -p "$directory"
    # A directory configured with another generator keeps it.
    if [ -f "$directory/CMakeCache.txt" ]; then
        generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$directory/CMakeCache.txt")
    fi
    cmake -S "$TREE" -B "$directory" -G "$generator" "${launcher[@]}" -DTAVIRN_WERROR=ON "$@" >"$directory.configure.log" 2>&1 || {
        cat "$directory.configure.log" >&2
        return 1
    }
}
