#include "platform/paths.h"

const FixedPaths& paths() {
    return kFixedPaths;
}
