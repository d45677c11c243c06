# What measures programs in turns: options, the video, and an end of all that runs. Sourced after common.sh.
# shellcheck shell=bash disable=SC2034 # the variables are the script's

bin=$TREE/build/bench
seconds=60
rounds=3
here=      # directory of the run, in memory
started=() # what runs for a turn

# turnOptions [--seconds N] [--rounds N]
turnOptions() {
    while [ $# -gt 0 ]; do
        case $1/${2:-} in
        --seconds/[5-9] | --seconds/[1-9][0-9] | --seconds/[1-5][0-9][0-9] | --seconds/600) seconds=$2 ;;
        --seconds/*) misused "--seconds takes 5 to 600" ;;
        --rounds/[1-9] | --rounds/[1-9][0-9]) rounds=$2 ;;
        --rounds/*) misused "--rounds takes 1 to 99" ;;
        *) misused "unknown argument '$1'" ;;
        esac
        shift 2
    done
}

endTurn() {
    local pid
    for pid in "${started[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
    for pid in "${started[@]}"; do waitFor 5 hasEnded "$pid" || kill -KILL "$pid" 2>/dev/null || true; done
    started=()
}
trap 'endTurn; rm -rf "$here"' EXIT
trap 'exit 130' INT TERM HUP

# makeVideo: $here, and in it video.mp4, five seconds longer than what is measured. In memory, so that nobody pays for
# the disk; and short, since a socket's path has 107 bytes.
makeVideo() {
    here=$(mktemp -d "$(if [ -w /dev/shm ]; then echo /dev/shm; else echo /tmp; fi)/tavirn-cmp.XXXXXX")
    ffmpeg -nostdin -loglevel error -f lavfi -i testsrc2=size=1920x1080:rate=25 -t $((seconds + 5)) \
        -vf noise=alls=14:allf=t,format=yuv420p -c:v libx264 -preset ultrafast -g 25 -bf 0 -b:v 4M "$here/video.mp4"
}

# startDaemon WORLD: its number is in $daemon.
startDaemon() {
    "$bin/daemon/tavirn-rooted" --root "$1"
    waitFor 10 test -s "$1/var/run/tavirn.pid" || fail "the daemon does not serve"
    daemon=$(cat "$1/var/run/tavirn.pid")
    started+=("$daemon")
}

# writeTable KIND COMMIT
writeTable() {
    heading "figures"
    python3 "$TREE/bench/tables.py" "$1" "$TREE/docs/performance.md" "$2" "$here" "$seconds" "$rounds"
    say "written: docs/performance.md"
}
