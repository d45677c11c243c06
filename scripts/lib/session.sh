# Asks for something, looks what came out, and writes the transcript's line. Sourced after common.sh; uses
# $world, $bin, $out, recording.sh and world.sh, and adds to the array $wrong.
#
# Per session N: $out/session-N.h264 is what came out, $world/list-N what the viewer says of each block, and
# $world/shown-N has a line per picture: stream, number, I or P, time, place in $world/recorded (0: nowhere),
# stamp, time of arrival, position in the file, bytes.
# shellcheck shell=bash

ctl() { "$bin/tools/tavirn-ctl" --root "$world" "$@"; }
fresh() { printf '%s' "${EPOCHREALTIME/,/.}"; }

# startViewer N: it waits for the session and begins with its first block, so nothing escapes it.
startViewer() {
    session=$1
    came=$out/session-$1.h264
    list=$world/list-$1
    shown=$world/shown-$1
    : >"$list"
    : >"$shown"
    "$bin/tools/tavirn-view" --root "$world" --wait 10 --from-oldest -o "$came" --list "$list" --json \
        >"$world/view-$1.json" &
    viewPid=$!
}

# ---- what came out ----

blocks() { wc -l <"$list"; }
pictures() { grep -cv PAUSE "$list" || true; }
hasPictures() { [ "$(pictures)" -ge "$1" ]; }
# isQuiet BLOCKS PICTURES: so many pictures and blocks have come at least, the last two of them no pictures.
isQuiet() {
    [ "$(blocks)" -ge "$1" ] && hasPictures "$2" && [ "$(tail -n 2 "$list" | grep -c PAUSE)" = 2 ]
}

# candidates: for each picture that $shown does not have yet: position, bytes, stamp, arrival, and place:position
# of the recorded pictures of its size.
candidates() {
    awk -v known="$(wc -l <"$shown")" '
        NR == FNR { of[$5] = of[$5] " " NR ":" $6; next }
        $4 == "PAUSE" { next }
        { if (++n > known) print position + 0, $4, $2, sprintf("%.0f", $3 * 1000), of[$4]; position += $4 }' \
        "$world/recorded" "$list"
}

# identify: brings $shown up to date, comparing bytes. Should two recorded pictures be the same, the one that
# follows the picture before counts.
identify() {
    local position bytes stamp arrival all candidate place found stream number kind time recorded
    mapfile -t -O 1 recorded <"$world/recorded"
    recorded[0]="0 0 ? 0"
    found=$(tail -n 1 "$shown" | cut -d' ' -f5)
    while read -r position bytes stamp arrival all; do
        place=0
        for candidate in $all; do
            if cmp -s -n "$bytes" -i "$position:${candidate#*:}" "$came" "$world/recorded.h264"; then
                place=${candidate%:*}
                if [ "$place" = $((found + 1)) ]; then break; fi
            fi
        done
        found=$place
        read -r stream number kind time _ <<<"${recorded[$place]}"
        echo "$stream $number $kind $time $place $stamp $arrival $position $bytes"
    done < <(candidates) >>"$shown"
}

# ---- the transcript ----

transcriptHead() { printf '%7s  %-31s %-10s  %-28s  %s\n' "time" "request" "status" "burned-in time" "pictures"; }

# line ASKED REQUEST STATUS TIMES REMARK
line() {
    printf '%5.1f s  %-31s %-10s  %-28s  %s\n' "$(awk -v a="$begin" -v b="$1" 'BEGIN { print b - a }')" "${@:2}" |
        sed 's/ *$//'
}

# tell ASKED STATUS EXPECTED FIRST LAST CHECK REQUEST: the line of a request, to which the pictures FIRST to
# LAST came out. CHECK says what they should be.
tell() {
    local asked=$1 status=$2 expected=$3 first=$4 last=$5 check=$6 request=$7 said remark fault times=
    said=$(whatCame "$first" "$last" "$check")
    remark=${said%%|*}
    fault=${said#*|}
    if [ "$last" -ge "$first" ]; then times=$(clock "$(field "$first" 4)"); fi
    if [ "$last" -gt "$first" ]; then times+=" to $(clock "$(field "$last" 4)")"; fi
    if [ "$status" != "$expected" ]; then fault="the status is '$status', not '$expected'${fault:+; $fault}"; fi
    line "$asked" "$request" "$status" "$times" "$remark${fault:+  <-- $fault}"
    if [ -n "$fault" ]; then wrong+=("session $session, $request: $fault"); fi
    captions "$first" "$last" "$request" >>"$world/captions"
}
field() { sed -n "$1{p;q}" "$shown" | cut -d' ' -f"$2"; }

# whatCame FIRST LAST CHECK: "remark|fault".
whatCame() {
    # shellcheck disable=SC2086 # a word and, behind it, its argument
    set -- "$1" "$2" $3
    awk -v first="$1" -v last="$2" -v check="$3" -v argument="${*:4}" \
        -f "$TREE/scripts/lib/pictures_came.awk" "$world/recorded" "$shown"
}

# captions FIRST LAST REQUEST: which of them go onto the sheet: all when they are few; otherwise the first, the
# last, and both sides of a border that was played across. A line each: session, number from 0 on, text.
captions() {
    awk -v first="$1" -v last="$2" -v request="$3" -v session="$session" '
        function caption(n, text) { if (!(n in had)) print session, n - 1, request text; had[n] = 1 }
        NR < first || NR > last { next }
        last == first { caption(NR, "") }
        last - first < 5 { caption(NR, ", " NR - first + 1) }
        NR == first { caption(NR, ": the first") }
        NR > first && $1 != stream && $5 == place + 1 {
            caption(NR - 1, ": stream " stream " ends")
            caption(NR, ": stream " $1 " begins")
        }
        NR == last { caption(NR, ": the last") }
        { stream = $1; place = $5 }' "$shown"
}

# ---- asking ----

pending=()
deferred= # set while what came out cannot be looked up yet
# note ASKED STATUS EXPECTED FIRST LAST CHECK REQUEST: tell, now or later.
note() {
    if [ "$2" = none ]; then fail "the daemon has gone: no answer after '$7'; see syslog"; fi
    pending+=("$(IFS='|' && echo "$*")")
    if [ -z "$deferred" ]; then tellPending; fi
}
tellPending() {
    local entry fields
    identify
    for entry in "${pending[@]}"; do
        IFS='|' read -ra fields <<<"$entry"
        tell "${fields[@]}"
    done
    pending=()
}

# shows STATUS CHECK REQUEST...: a request that shows something and then pauses by itself.
shows() {
    local expected=$1 check=$2 asked before
    shift 2
    asked=$(fresh)
    before=$(pictures)
    request "$@"
    waitFor 5 isQuiet 2 $((before + 1)) || true # the line says that nothing came
    note "$asked" "$(status)" "$expected" $((before + 1)) "$(pictures)" "$check" "$*"
}

# plays COUNT CHECK REQUEST...: a request that goes on until it is paused, here after so many pictures.
plays() {
    local count=$1 check=$2 asked word before paused end
    shift 2
    asked=$(fresh)
    before=$(pictures)
    request "$@"
    waitFor $((count / 10 + 10)) hasPictures $((before + count)) || true # the line says how many came
    word=$(status)
    paused=$(fresh)
    request pause
    waitFor 5 isQuiet $(($(blocks) + 3)) 0 || true
    end=$(pictures)
    note "$asked" "$word" play $((before + 1)) "$end" "$check" "$*"
    note "$paused" "$(status)" pause $((end + 1)) "$end" "nothing stays there" pause
}

request() { ctl "$@" >/dev/null || wrong+=("session $session, $*: tavirn-ctl failed"); }
status() { ctl status 2>/dev/null || echo "none"; }

# opens N CHECK: session N, which shows a picture at once.
opens() {
    local asked
    asked=$(fresh)
    startViewer "$1"
    request open
    request session 1
    waitFor 5 isQuiet 3 1 || true
    note "$asked" "$(status)" pause 1 "$(pictures)" "$2" open
}

# ends: tears the session down; the viewer has to notice.
ends() {
    local asked
    asked=$(fresh)
    request teardown
    note "$asked" "$(ctl status --session 0 2>/dev/null || echo none)" init $(($(pictures) + 1)) "$(pictures)" \
        "nothing the session is over" teardown
    waitFor 5 hasEnded "$viewPid" || wrong+=("tavirn-view did not notice the end of session $session")
    if hasEnded "$viewPid"; then viewPid=; fi
}
