#include "stream/recorder_link.h"

#include "platform/log.h"
#include "shm/shm_server.h"
#include "stream/open_stream.h"
#include "stream/recording_index.h"

RecorderState askRecorder(CtavirnShmServer& segment) {
    segment.lockShm();
    const RecorderState state{segment.m_status->recStreamID, segment.m_status->recPictures};
    segment.unlockShm();
    return state;
}

int RecorderLink::m_updateRecStream(OpenStream& stream, RecordingIndex& index) {
    if (stream.row().status != DB_STATUS_RECORDING) {
        m_recFirstFlag = 1;
        return 0;
    }
    if (m_shmserver == nullptr || m_shmserver->m_status == nullptr) {
        logAt(LOG_ERR, "shared memory error");
        return -1;
    }

    const RecorderState recorder = askRecorder(*m_shmserver);
    if (recorder.streamId == 0) {
        logAt(LOG_ERR, "pelsod's streamID = 0");
        m_recFirstFlag = 1;
        return -1;
    }
    return recorder.streamId == stream.row().streamID ? followGrowth(stream, recorder.pictures)
                                                      : reloadFinished(stream, index, recorder.streamId);
}

int RecorderLink::followGrowth(OpenStream& stream, uint32_t pictures) {
    if (pictures == 0) {
        m_recFirstFlag = 1;
        return -1;
    }
    if (pictures == m_recPictures && pictures == stream.pictures()) return 0;

    m_recPictures = pictures;
    const uint32_t offset = stream.getOffset();
    // Not yet readable is not damaged: the recorder may still be writing what it has announced, so the
    // position is kept. The same count is not tried again: the open has logged all it found and would do so
    // at every look; the recorder's next count is the next occasion.
    if (stream.openGrown(pictures) == -1) return 0;

    if (stream.goTo(stream.lastPicture()) == -1) {
        logNamed(LOG_ERR, "m_updateRecStream", "m_readPic() error");
        return -1;
    }
    stream.takeEndFromPicture();

    const uint32_t goOnFrom = m_recFirstFlag == 1 ? 0 : offset;
    m_recFirstFlag = 0;
    if (stream.goTo(goOnFrom) == -1) {
        logNamed(LOG_ERR, "m_updateRecStream", "m_readPic() error");
        return -1;
    }
    return 0;
}

int RecorderLink::reloadFinished(OpenStream& stream, RecordingIndex& index, uint32_t recorderStreamId) {
    m_recFirstFlag = 1;
    DB_STREAM row = stream.row();
    if (!index.selectStream(row.streamID, &row)) {
        logPlain(LOG_ERR, "CPbStreamVideo::m_updateRecStream() id = %lu error", asLu(recorderStreamId));
        return -1;
    }
    // The recorder moves on before it closes the row; until then this stream is neither growing nor finished.
    if (row.status == DB_STATUS_RECORDING) {
        stream.replaceRow(row);
    } else {
        OpenStream::Place place = stream.place();
        place.row = row;
        stream.standAgainOn(place);
    }
    return 0;
}
