#include "daemon/default_stream.h"

#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/log.h"
#include "platform/paths.h"
#include "stream/recorder_link.h"
#include "stream/recording_index.h"

namespace {

std::optional<char> readCardState(const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    char state;
    const bool isRead = file >= 0 && read(file, &state, 1) == 1;
    if (!isRead) logNamed(LOG_ERR, "searchDefaultStream", "file-open err");
    if (file >= 0) close(file);
    return isRead ? std::optional(state) : std::nullopt;
}

/// Whether index and card allow a search at all. The card is looked at before every search, since it may be
/// changed between two sessions.
unsigned long checkCard() {
    struct stat index;
    if (stat(paths().index, &index) < 0) return kDefaultStreamNoIndex;
    const std::optional<char> detect = readCardState(paths().cardDetect);
    if (!detect) return kDefaultStreamUnreadable;
    const std::optional<char> readOnly = readCardState(paths().cardReadOnly);
    if (!readOnly) return kDefaultStreamUnreadable;
    return detect == '1' && readOnly == '1' ? kDefaultStreamNoCard : kDefaultStreamNoError;
}

/// Neither the texts nor an empty result are worth a line here.
QueryResult query(RecordingIndex& index, const SqlText& sql, uint32_t& id) {
    const QueryResult result = index.firstNumber(sql, &id);
    if (result == QueryResult::refused) logNamed(LOG_ERR, "searchDefaultStream", "apiDB setSql error");
    return result;
}

QueryResult queryNewest(RecordingIndex& index, unsigned long hint, uint32_t& id) {
    return query(index,
                 statements::newestCompleted(hint == kNoStreamHint ? std::nullopt : std::optional(hint)), id);
}

/// The stream under recording, as the recorder publishes it.
QueryResult queryRecording(RecordingIndex& index, CtavirnShmServer& status, uint32_t& id) {
    const RecorderState recorder = askRecorder(status);
    if (recorder.streamId == 0 || recorder.pictures == 0) return QueryResult::noRow;
    return query(index, statements::streamOfId(recorder.streamId), id);
}

} // namespace

unsigned long searchDefaultStream(unsigned long hint, unsigned long* errorNo, CtavirnShmServer* status) {
    *errorNo = checkCard();
    if (*errorNo != kDefaultStreamNoError) return 0;
    ErrorFlags errorFlags; // there is no stream yet that they would tell of
    const std::unique_ptr<RecordingIndex> index(new (std::nothrow) RecordingIndex(errorFlags));
    if (!index) {
        *errorNo = kDefaultStreamUnreadable;
        return 0;
    }
    uint32_t id = 0;
    QueryResult result = queryNewest(*index, hint, id);
    if (result == QueryResult::found) logAt(LOG_INFO, "apiDB setSql found stream ID = %lu", asLu(id));
    if (result == QueryResult::noRow) {
        result = queryRecording(*index, *status, id);
        if (result == QueryResult::noRow) logAt(LOG_ERR, "apiDB setSql not found record");
    }
    if (result == QueryResult::refused) *errorNo = kDefaultStreamRefused;
    return id;
}
