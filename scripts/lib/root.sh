# Minimal Debian roots, and namespaces to use them in. Sourced after common.sh.
# shellcheck shell=bash

# apart [unshare option...] COMMAND...: in namespaces of its own; whatever it has started or mounted ends with it.
apart() { asRoot unshare --mount --pid --ipc --fork --kill-child --mount-proc "$@"; }

# needRoots LIST|PACKAGE...: installs these and debootstrap; skips the script where roots cannot be made or used.
needRoots() {
    # need ends the shell that it fails in.
    (need debootstrap "$@") || skip "no debootstrap to be had here"
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then skip "neither root nor sudo here"; fi
    command -v debootstrap >/dev/null || skip "debootstrap is not there"
    apart mount -t tmpfs none /mnt 2>/dev/null || skip "this machine allows no private namespaces"
}

# mirror CODENAME: where this machine gets that release from, else its own; nothing where it is no Debian.
mirror() {
    # shellcheck disable=SC2016 # apt's own names
    apt-get indextargets --format '$(ORIGIN) $(COMPONENT) $(CODENAME) $(REPO_URI)' |
        awk -v name="$1" '$1 != "Debian" || $2 != "main" { next }
            $3 == name { print $4; found = 1; exit }
            $3 !~ /-/ && other == "" { other = $4 }
            END { if (!found) print other }'
}

# makeRoot DIRECTORY CODENAME [PACKAGE...]: the smallest root with these in it. It says what it did in DIRECTORY.log.
makeRoot() {
    local directory=$1 codename=$2 from include
    shift 2
    include="$*"
    from=$(mirror "$codename")
    asRoot rm -rf "$directory"
    # Without an address debootstrap knows one. Its mounts vanish with the namespace.
    apart debootstrap --variant=minbase ${include:+--include="${include// /,}"} \
        "$codename" "$directory" ${from:+"$from"} >"$directory.log" 2>&1
}
