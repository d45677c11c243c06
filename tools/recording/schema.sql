-- The recorder's index: what is recorded, where it lies on the card, and which alarms happened meanwhile.
-- The recorder writes it; playback reads it and finds columns by name.

-- One row per recorded stream. Times are seconds since the epoch, with the milliseconds apart.
CREATE TABLE IF NOT EXISTS STREAM (
    streamID    INTEGER PRIMARY KEY, -- rises with time; 0 is never used, it means "no stream"
    inTrg       INTEGER NOT NULL DEFAULT 0, -- trigger bits of the recording
    frameSet    INTEGER NOT NULL DEFAULT 0, -- low 4 bits: frame-rate code 1..9, 0 = none
    bitrateSet  INTEGER NOT NULL DEFAULT 0, -- bit-rate setting
    recSize     INTEGER NOT NULL DEFAULT 0, -- pictures recorded; 0 until the stream is finished
    chunkID     INTEGER NOT NULL, -- number of the chunk that holds the stream, at most 65535
    chunkOffset INTEGER NOT NULL, -- chunk byte position of the header area
    chunkSize   INTEGER NOT NULL DEFAULT 0, -- bytes of the header area; 0 until the stream is finished
    status      INTEGER NOT NULL DEFAULT 0, -- 1 = being recorded
    startDate   INTEGER NOT NULL,
    endDate     INTEGER NOT NULL, -- the start's until the stream is finished
    startMSec   INTEGER NOT NULL DEFAULT 0,
    endMSec     INTEGER NOT NULL DEFAULT 0,
    backOffset  INTEGER NOT NULL DEFAULT 0 -- carried and shown by playback, not interpreted
);

-- One row per alarm. An alarm can be jumped to once it has ended and when 512 <= extTrg < 2048.
CREATE TABLE IF NOT EXISTS EVENT (
    eventID   INTEGER PRIMARY KEY, -- rises with time
    startDate INTEGER NOT NULL,
    startMSec INTEGER NOT NULL DEFAULT 0,
    endDate   INTEGER NOT NULL DEFAULT 0, -- 0 = not ended yet
    endMSec   INTEGER NOT NULL DEFAULT 0,
    extTrg    INTEGER NOT NULL DEFAULT 0  -- external trigger bits
);

-- The oldest stream, and the one being recorded, are found by a key each. Indices over all times would make
-- the other searches slower: those ask for the lowest or highest streamID among streams of half the recording,
-- which a walk in the order of streamID ends early, and an index by time does not. docs/performance.md has
-- the figures.
CREATE INDEX IF NOT EXISTS STREAM_oldest ON STREAM (startDate, startMSec) WHERE recSize<>0 OR status=1;
CREATE INDEX IF NOT EXISTS STREAM_recording ON STREAM (status) WHERE status=1;
