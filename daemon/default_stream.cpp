#include "daemon/default_stream.h"

#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/api_db.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "shm/shm_server.h"

namespace {

constexpr char kName[] = "searchDefaultStream";

bool readCardState(const char* path, char& state) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    const bool isRead = file >= 0 && read(file, &state, 1) == 1;
    if (!isRead) logNamed(LOG_ERR, kName, "file-open err");
    if (file >= 0) close(file);
    return isRead;
}

/// Whether index and card allow a search at all. The card is looked at before every search, since it may be
/// changed between two sessions.
unsigned long checkCard() {
    struct stat index;
    if (stat(paths().index, &index) < 0) return kSearchNoIndex;
    char detect = 0;
    char readOnly = 0;
    if (!readCardState(paths().cardDetect, detect)) return kSearchUnreadable;
    if (!readCardState(paths().cardReadOnly, readOnly)) return kSearchUnreadable;
    return detect == '1' && readOnly == '1' ? kSearchNoCard : kSearchNoError;
}

/// Stream IDs are 32-bit words, whatever a damaged index holds.
unsigned long firstStreamId(CApiDb& index) {
    return asLu(static_cast<uint32_t>(index.getValue(0, 0)));
}

/// 0 found, 1 the query failed (reported), 2 no row.
int query(CApiDb& index, const char* sql, unsigned long& id) {
    if (index.setSql(sql) != 0) {
        logNamed(LOG_ERR, kName, "apiDB setSql error");
        return 1;
    }
    if (index.getNTuple() == 0) return 2;
    id = firstStreamId(index);
    return 0;
}

int queryNewest(CApiDb& index, unsigned long hint, unsigned long& id) {
    constexpr char kUnbounded[] = "SELECT * FROM STREAM "
                                  " WHERE "
                                  "recSize <> 0 ORDER BY streamID DESC LIMIT 1";
    if (hint == kNoStreamHint) return query(index, kUnbounded, id);
    char sql[128];
    snprintf(sql, sizeof sql,
             "SELECT * FROM STREAM "
             " WHERE streamID <= %lu"
             " AND recSize <> 0 ORDER BY streamID DESC LIMIT 1",
             hint);
    return query(index, sql, id);
}

/// The stream under recording, as the recorder publishes it; same results as `query`.
int queryRecording(CApiDb& index, CtavirnShmServer& status, unsigned long& id) {
    status.lockShm();
    const uint32_t recStreamID = status.m_status->recStreamID;
    const uint32_t recPictures = status.m_status->recPictures;
    status.unlockShm();
    if (recStreamID == 0 || recPictures == 0) return 2;
    char sql[128];
    snprintf(sql, sizeof sql,
             "SELECT * FROM STREAM "
             " WHERE streamID = %lu",
             asLu(recStreamID));
    return query(index, sql, id);
}

} // namespace

unsigned long searchDefaultStream(unsigned long hint, unsigned long* errorNo, CtavirnShmServer* status) {
    *errorNo = checkCard();
    if (*errorNo != kSearchNoError) return 0;
    const std::unique_ptr<CApiDb> index(new (std::nothrow) CApiDb);
    if (!index) {
        *errorNo = kSearchUnreadable;
        return 0;
    }
    unsigned long id = 0;
    int result = queryNewest(*index, hint, id);
    if (result == 0) logAt(LOG_INFO, "apiDB setSql found stream ID = %lu", id);
    if (result == 2) {
        result = queryRecording(*index, *status, id);
        if (result == 2) logAt(LOG_ERR, "apiDB setSql not found record");
    }
    if (result == 1) *errorNo = kSearchRefused;
    return id;
}
