# Says what the pictures `first` to `last` of the second file are, and what is wrong with them: "remark|fault".
# First file: $world/recorded (stream, number, kind, time, bytes, position); second: shown-N of session.sh
# (stream, number, kind, time, place in the first file, stamp, time of arrival). `check` says what they should be.

function fail(text) { if (fault == "") fault = text }
function seconds(ms) { return sprintf("%.1f", ms / 1000) }
function plural(n, thing) { return n " " thing (n == 1 ? "" : "s") }
function add(text) { remark = remark ", " text }

NR == FNR {
    recordedStream[NR] = $1
    recordedKind[NR] = $3
    recordedTime[NR] = $4
    recordings = NR
    next
}
FNR == first - 1 { from = $5 }
FNR < first || FNR > last { next }
{
    n++
    stream[n] = $1
    number[n] = $2
    kind[n] = $3
    time[n] = $4
    place[n] = $5
    stamp[n] = $6
    late[n] = $7 - $4
    if ($5 == 0) fail("picture " n " was never recorded")
}

# Played: no picture left out, none twice.
function inOrder(before,    i) {
    for (i = 1; i <= n; i++) {
        if (place[i] != before + 1) fail("picture " i " of " n " does not follow the one before")
        before = place[i]
    }
    if (n < 2) fail("only " plural(n + 0, "picture") " came")
    if (fault == "") add("none left out")
}

# The I-picture that fast play goes to from a moment: the next one in its direction.
function iPicture(moment, backward,    i, found) {
    for (i = 1; i <= recordings; i++) {
        if (recordedKind[i] != "I") continue
        if (!backward && recordedTime[i] >= moment) return i
        if (backward && recordedTime[i] <= moment) found = i
    }
    return found
}

# step: milliseconds of recording from one picture to where the next is looked for, below 0 for backward.
function skipping(step,    i, distance) {
    remark = n " I-pictures: "
    for (i = 1; i <= n; i++) {
        if (kind[i] != "I") fail("picture " i " is no I-picture")
        if (place[i] != iPicture(recordedTime[from] + step, step < 0)) fail("picture " i " is another one than expected")
        distance = (time[i] - recordedTime[from]) / (step < 0 ? -1000 : 1000)
        remark = remark (i > 1 ? ", " : "") distance (recordedStream[from] == stream[i] ? "" : " (gap)")
        from = place[i]
    }
    remark = remark " s " (step < 0 ? "back" : "on")
    if (n < 3) fail("only " plural(n + 0, "picture") " came")
}

# slow: every picture, its stamp twice as far from the one before as it was recorded.
function slowly(    i, stamps) {
    inOrder(from)
    stamps = stamp[n] - stamp[1]
    if (stamps < 0) stamps += 4294967296
    if (stamps != 2 * 90 * (time[n] - time[1])) fail("the stamps are not those of half speed")
    else add("half speed")
}

# live: it is followed closely; the recorder's clock is this machine's.
function closely(most) {
    add(seconds(late[n]) " s old")
    if (late[n] > most || late[n] < 0) fail("that is no live picture")
}

END {
    if (n > 0) {
        remark = stream[n] == stream[1] ? "stream " stream[1] : "streams " stream[1] " to " stream[n]
        remark = remark ", "
        remark = remark (n == 1 ? "picture " number[1] (kind[1] == "I" ? " (I)" : "") : n " pictures")
    }
    if (check == "nothing") {
        remark = argument
        if (n > 0) fail(plural(n, "picture") " came out")
    } else if (check == "time" || check == "first" || check == "newest" || check == "step" || check == "stepBack") {
        if (n != 1) fail(n + 0 " pictures came out instead of one")
        if (check == "time" && (time[1] != argument || kind[1] != "I")) fail("another one was expected")
        if (check == "first" && (stream[1] != argument || number[1] != 1)) fail("the first of stream " argument " was expected")
        if (check == "step" && place[1] != from + 1) fail("the next one was expected")
        if (check == "stepBack" && place[1] != iPicture(recordedTime[from - 1], 1)) fail("the I-picture before was expected")
        if (check == "newest" && (kind[1] != "I" || stream[1] != argument)) fail("an I-picture of stream " argument " was expected")
        if (check == "newest") closely(2500)
    } else if (check == "order" || check == "across" || check == "live") {
        inOrder(from)
        if (check == "across" && stream[1] == stream[n]) fail("no border was crossed")
        if (check == "live") closely(4000)
    } else if (check == "slow") {
        slowly()
    } else if (check == "skip") {
        skipping(argument)
    }
    print remark "|" fault
}
