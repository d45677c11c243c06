# Installs what is missing, on any recent Debian or Ubuntu. Sourced by common.sh.
# shellcheck shell=bash disable=SC2034 # the lists are asked for by name

PACKAGES_BUILD="g++ cmake make pkg-config libsqlite3-dev libcli11-dev nlohmann-json3-dev
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev"
# x264enc is in ugly, the H.264 parser in bad, the decoder in libav, the burned-in text in x.
PACKAGES_MEDIA="gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad
    gstreamer1.0-plugins-ugly gstreamer1.0-libav gstreamer1.0-x gstreamer1.0-tools fonts-dejavu-core"
PACKAGES_TEST="libgtest-dev libgmock-dev util-linux groff-base ffmpeg"
PACKAGES_BENCH="libbenchmark-dev python3"
# llvm has the symbolizer: without it sanitizers and fuzzers complain, and their reports are bare addresses.
PACKAGES_CHECK="clang clang-format llvm"
PACKAGES_ARMHF="g++-arm-linux-gnueabihf qemu-user googletest"
PACKAGES_PACKAGE="dpkg-dev file"
PACKAGES_PLAYERS="ffmpeg"
PACKAGES_SERVERS="libgstrtspserver-1.0-dev"

asRoot() {
    if [ "$(id -u)" -eq 0 ]; then
        DEBIAN_FRONTEND=noninteractive "$@"
    else
        sudo DEBIAN_FRONTEND=noninteractive "$@"
    fi
}

isInstalled() { [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]; }

# packageLists: fetches them once, and only when something has to be installed.
packageLists() {
    if [ -n "${packageListsFetched:-}" ]; then return; fi
    asRoot apt-get update -qq || fail "apt-get update failed; is the network there?"
    packageListsFetched=yes
}

# need LIST|PACKAGE...: installs those that are missing; touches nothing when none is.
need() {
    local word list package missing=()
    command -v dpkg-query >/dev/null || {
        say "$SELF: no dpkg here; taking it that these are installed: $*" >&2
        return
    }
    for word in "$@"; do
        list=PACKAGES_${word//[^A-Z]/} # a package's own name has no capitals
        for package in ${!list:-$word}; do isInstalled "$package" || missing+=("$package"); done
    done
    if [ ${#missing[@]} -eq 0 ]; then return; fi
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        fail "these packages are missing and there is neither root nor sudo to install them: ${missing[*]}"
    fi
    say "installing: ${missing[*]}"
    packageLists
    asRoot apt-get install -y -qq -o Dpkg::Use-Pty=0 --no-install-recommends "${missing[@]}" >/dev/null ||
        fail "could not install: ${missing[*]}"
}

clangWorks() {
    local program works=1
    program=$(mktemp)
    printf '#include <thread>\n#include <string>\nint main() { return std::string().size() != 0; }\n' |
        clang++ -std=c++20 -fsanitize=address,undefined -x c++ - -o "$program" 2>/dev/null && works=0
    rm -f "$program"
    return $works
}

# clang's sanitizer runtime, and the standard library of the GCC that clang picks, come in packages whose
# names differ between releases: asked for only when a program does not build.
needWorkingClang() {
    local candidate
    if clangWorks; then return; fi
    if [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null; then packageLists; fi
    local version gcc
    version=$(clang++ -dumpversion | cut -d. -f1)
    gcc=$(clang++ -v 2>&1 | sed -n 's/^Selected GCC installation:.*\/\([0-9]*\).*/\1/p')
    for candidate in "libclang-rt-$version-dev" libclang-rt-dev "libstdc++-$gcc-dev"; do
        if apt-cache show "$candidate" >/dev/null 2>&1; then need "$candidate"; fi
        if clangWorks; then return; fi
    done
    fail "clang++ cannot build a program with AddressSanitizer on this machine"
}
