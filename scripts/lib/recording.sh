# Looks into a rooted world's recording without the code under demonstration: the index through SQLite's own
# shell, the card byte by byte. Formats: docs/on-card-formats.md. Sourced after common.sh; uses $world.
# shellcheck shell=bash

# index QUERY: rows, columns parted by blanks.
index() { sqlite3 -readonly -separator ' ' "$world/tmp/DB.dat" "$1"; }

# cutOut FILE OFFSET SIZE: these bytes, fewer where the file ends before.
cutOut() { dd if="$1" bs=64K iflag=skip_bytes,count_bytes skip="$2" count="$3" status=none; }

# area CHUNK OFFSET SIZE: these bytes of the chunk, going on at its start past its end.
area() {
    local file bytes
    file=$(printf '%s/mnt/card/chunk%05d' "$world" "$1")
    bytes=$(stat -c %s "$file")
    cutOut "$file" "$2" "$3"
    if [ $(($2 + $3)) -gt "$bytes" ]; then cutOut "$file" 0 $(($2 + $3 - bytes)); fi
}

# words: a header area's records as lines of eight unsigned 32-bit numbers.
words() { od -An -v -tu4 -w32 --endian=little; }

# pictureData STREAM: all its pictures' bytes, as they were recorded.
pictureData() {
    local chunk offset rest
    read -r chunk offset rest <<<"$(index "SELECT chunkID, chunkOffset FROM STREAM WHERE streamID = $1")"
    # shellcheck disable=SC2046 # two numbers
    area "$chunk" $(area "$chunk" "$offset" 32 | words | awk '{ print $3, $4 }')
}

# pictureList STREAM: a line per picture: its number from 1 on, I or P, bytes, clock time in milliseconds since
# the epoch.
pictureList() {
    local chunk offset size start
    read -r chunk offset size start <<<"$(index "SELECT chunkID, chunkOffset, chunkSize,
        startDate * 1000 + startMSec FROM STREAM WHERE streamID = $1")"
    area "$chunk" "$offset" "$size" | words | awk -v start="$start" 'NR > 1 {
        time = $5 * 1000 + $8 % 65536
        if (NR == 2) first = time
        print NR - 1, $6 % 4 % 3 ? "I" : "P", $4, sprintf("%.0f", start + time - first)
    }'
}

# keepRecorded STREAM: appends its pictures to $world/recorded.h264 and a line for each to $world/recorded:
# stream, number, I or P, time, bytes, position in that file.
keepRecorded() {
    local position=0
    if [ -e "$world/recorded.h264" ]; then position=$(stat -c %s "$world/recorded.h264"); fi
    pictureData "$1" >>"$world/recorded.h264"
    pictureList "$1" | awk -v stream="$1" -v position="$position" \
        '{ print stream, $1, $2, $4, $3, position; position += $3 }' >>"$world/recorded"
}

# streamStart STREAM: its clock time in milliseconds since the epoch.
streamStart() { index "SELECT startDate * 1000 + startMSec FROM STREAM WHERE streamID = $1"; }

# timeOf TEXT: "2024-01-02 03:04:05.250" in milliseconds since the epoch.
timeOf() { date -d "$1" +%s%3N; }
# clock MS: the local time of day.
clock() { printf '%s.%03d' "$(date -d "@$(($1 / 1000))" +%H:%M:%S)" $(($1 % 1000)); }
