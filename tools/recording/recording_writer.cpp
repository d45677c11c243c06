#include "tools/recording/recording_writer_state.h"

/// Takes the room of the header area, in the next chunk when the present one would not hold a stream like
/// the one before: a stream that is cut short is a needless crossing for whoever plays it.
void RecordingWriter::State::placeStream() {
    const uint64_t headerBytes = (uint64_t{settings.capacity} + 1) * kHeaderBytes;
    const uint64_t wanted = headerBytes + settings.capacity * meanPictureBytes;
    if (headerBytes + kMinPictureBytes > ring.chunkBytes())
        throw RecordingError("the headers of " + std::to_string(settings.capacity) +
                             " pictures do not fit into a chunk of " + std::to_string(ring.chunkBytes()) +
                             " bytes; choose larger chunks or shorter streams");
    if (ring.isOpen()) ring.alignFill();
    if (!ring.isOpen() || wanted > ring.free()) ring.next();
    row.chunkID = ring.number();
    row.chunkOffset = ring.take(static_cast<uint32_t>(headerBytes));
    header.offset = ring.take(0); // the picture data begins where the header area ends
}

void RecordingWriter::State::writeStreamHeader() {
    header = sealed(header);
    ring.write(row.chunkOffset, &header, kHeaderBytes);
}

void RecordingWriter::State::writePictureHeader(const CodedPicture& picture, uint32_t position) {
    const ClockParts time = partsOf(picture.ptsMs);
    PICTURE_HEADER record{};
    record.marker = kPictureMarker;
    record.id = row.streamID;
    record.offset = position;
    record.size = static_cast<uint32_t>(picture.data.size());
    record.pts = time.seconds;
    record.msec = time.milliseconds;
    record.pictures = picture.iPicture ? 1 : 0;
    record = sealed(record);
    const uint64_t place = uint64_t{row.chunkOffset} + (uint64_t{header.pictures} + 1) * kHeaderBytes;
    ring.write(static_cast<uint32_t>(place % ring.chunkBytes()), &record, kHeaderBytes);
}

RecordingWriter::RecordingWriter(const RecordingPlace& place) : m_state(std::make_unique<State>(place)) {}

RecordingWriter::~RecordingWriter() = default;

uint32_t RecordingWriter::beginStream(const StreamSettings& settings) {
    State& state = *m_state;
    if (state.open)
        throw RecordingError("finish stream " + std::to_string(state.row.streamID) + " in " +
                             state.ring.path() + " before the next one begins");
    const ClockParts start = partsOf(settings.startMs);
    state.settings = settings;
    state.row = {};
    state.header = {};
    state.dataBytes = 0;
    state.placeStream();

    state.row.streamID = settings.streamId != 0 ? settings.streamId : state.index.nextStreamId();
    state.row.inTrg = settings.inTrg;
    state.row.frameSet = settings.frameSet;
    state.row.bitrateSet = settings.bitrateSet;
    state.row.status = DB_STATUS_RECORDING;
    state.row.startDate = state.row.endDate = start.seconds;
    state.row.startMSec = state.row.endMSec = start.milliseconds;

    // Size 0 is how a reader learns that the area still grows: it then takes the whole ring. The row comes
    // last, so that whoever finds it finds a header too.
    state.header.marker = kStreamMarker;
    state.header.id = state.row.streamID;
    state.header.gops = settings.gops;
    state.writeStreamHeader();
    state.index.addStream(state.row);
    state.open = true;
    return state.row.streamID;
}

bool RecordingWriter::addPicture(const CodedPicture& picture) {
    State& state = *m_state;
    if (!state.open) throw RecordingError("begin a stream before a picture is added to " + state.ring.path());
    if (picture.data.size() < kMinPictureBytes || picture.data.size() > kMaxPictureBytes)
        throw RecordingError("picture " + std::to_string(state.header.pictures) + " of stream " +
                             std::to_string(state.row.streamID) + " has " +
                             std::to_string(picture.data.size()) + " bytes, but " + state.ring.path() +
                             " takes 5 to 819200; lower the bit rate or the picture size");
    const auto bytes = static_cast<uint32_t>(picture.data.size());
    if (!hasRoom(1, bytes)) return false;

    const uint32_t position = state.ring.take(bytes);
    state.ring.write(position, picture.data.data(), bytes);
    state.writePictureHeader(picture, position); // only now: a header promises data
    if (state.header.pictures == 0) state.firstPtsMs = picture.ptsMs;
    state.lastPtsMs = picture.ptsMs;
    state.dataBytes += bytes;
    ++state.header.pictures;
    state.writeStreamHeader(); // so that what a killed recorder leaves can still be played
    return true;
}

uint32_t RecordingWriter::pictures() const {
    return m_state->header.pictures;
}

bool RecordingWriter::hasRoom(uint32_t morePictures, uint64_t bytes) const {
    const State& state = *m_state;
    return uint64_t{state.header.pictures} + morePictures <= state.settings.capacity &&
           bytes <= state.ring.free();
}

StreamPlacement RecordingWriter::placement() const {
    const State& state = *m_state;
    const uint64_t headerBytes = (uint64_t{state.settings.capacity} + 1) * kHeaderBytes;
    const bool wrapped = state.row.chunkOffset + headerBytes + state.dataBytes > state.ring.chunkBytes();
    return {state.row.chunkID, state.dataBytes, wrapped};
}

void RecordingWriter::finishStream(uint64_t endMs) {
    State& state = *m_state;
    if (!state.open)
        throw RecordingError("no stream to finish in " + state.ring.path() + "; begin one first");
    const uint32_t pictures = state.header.pictures;
    const uint64_t span = pictures == 0 ? 0 : state.lastPtsMs - state.firstPtsMs;
    state.header.size = state.dataBytes;
    state.header.pts = pictures == 0 ? 0 : partsOf(state.firstPtsMs).seconds;
    state.writeStreamHeader();

    finishRow(state.row, pictures, endMs != 0 ? endMs : state.settings.startMs + span);
    state.index.finishStream(state.row);
    state.open = false;
    if (pictures != 0) state.meanPictureBytes = state.dataBytes / pictures;
}

void RecordingWriter::dropStream() {
    State& state = *m_state;
    if (state.open) state.index.removeStream(state.row.streamID);
    state.open = false;
}

uint64_t RecordingWriter::newestEndMs() {
    return m_state->index.newestEndMs();
}

uint32_t RecordingWriter::olderStreamWithin(uint64_t startMs, uint64_t endMs, uint32_t streamId) {
    return m_state->index.olderStreamWithin(startMs, endMs, streamId);
}

uint32_t RecordingWriter::addEvent(uint64_t startMs, uint64_t endMs, uint32_t extTrg) {
    const ClockParts start = partsOf(startMs);
    const ClockParts end = partsOf(endMs);
    return m_state->index.addEvent(
        {0, start.seconds, start.milliseconds, end.seconds, end.milliseconds, extTrg});
}

void RecordingWriter::finishEvent(uint32_t eventId, uint64_t endMs) {
    const ClockParts end = partsOf(endMs);
    m_state->index.finishEvent({eventId, 0, 0, end.seconds, end.milliseconds, 0});
}
