# Shared by the scripts of this folder; sourced, never run.
# shellcheck shell=bash

TREE=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
SELF=$(basename "$0")
# shellcheck source-path=SCRIPTDIR source=packages.sh
. "$TREE/scripts/lib/packages.sh"

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
    commit=$(git -C "$TREE" rev-parse --short HEAD 2>/dev/null) || {
        say "unknown"
        return
    }
    changes=$(git -C "$TREE" status --porcelain -- . ':!docs')
    say "$commit${changes:+ with changes}"
}

# configure build/PRESET [cmake option...]: as CMakePresets.json says; Ninja and ccache where the machine has them.
configure() {
    local directory=$1 generator="Unix Makefiles" launcher=()
    shift
    if command -v ninja >/dev/null; then generator=Ninja; fi
    if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
    # A directory configured with another generator keeps it.
    if [ -f "$directory/CMakeCache.txt" ]; then
        generator=$(sed -n 's/^CMAKE_GENERATOR:INTERNAL=//p' "$directory/CMakeCache.txt")
    fi
    mkdir -p "$directory"
    (cd "$TREE" && cmake --preset "$(basename "$directory")" -G "$generator" "${launcher[@]}" "$@") \
        >"$directory.configure.log" 2>&1 || {
        cat "$directory.configure.log" >&2
        return 1
    }
}

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
